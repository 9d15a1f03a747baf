// Tests of TagList: the walk over control words, typed reads and writes, ownership of strings, lists,
// blocks, objects and identifiers, growth of the owned array, wrapping without copying, and the lock.

#include "values/tags/TagList.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "testsupport/TestSupport.h"
#include "values/base/StringBlock.h"

namespace orvexScript
{
namespace
{

constexpr Tag TI_Width = TAG_INT | 1;
constexpr Tag TI_Height = TAG_INT | 2;
constexpr Tag TD_Weight = TAG_DOUBLE | 1;
constexpr Tag TS_Name = TAG_STRING | 1;
constexpr Tag TO_Owner = TAG_OBJECT | 1;
constexpr Tag TL_Nested = TAG_TAGLIST | 1;
constexpr Tag TP_User = TAG_PTR | 1;
constexpr Tag TM_Data = TAG_MEMBLOCK | 1;
constexpr Tag TID_Kind = TAG_ID | 1;
constexpr Tag TI_Item = TAG_INT | TAG_REPEATABLE | 3;

using Probe = orvexTest::DestroyCounted<RefObject>;

TEST(TagListWalk, EmptyListFindsNothingAndSharesOneStaticWord)
{
    TagList a, b;
    EXPECT_TRUE(a.IsEmpty());
    EXPECT_EQ(a.First(), nullptr);
    EXPECT_EQ(a.Find(TI_Width), nullptr);
    EXPECT_FALSE(a.FindQuery(TI_Width));
    EXPECT_FALSE(a.IsOwned());
    EXPECT_EQ(a.GetTagArray(), b.GetTagArray()); // no allocation for either
    EXPECT_EQ(a.GetLong(TI_Width, 42), 42u);
}

TEST(TagListWalk, FollowsMoreAndSkipsIgnoreRemovedAndSkip)
{
    Tag other[] = {TI_Height, 20, TAG_DONE};
    Tag tags[] = {
        TAG_IGNORE, 0,           TI_Width, 10,      TAG_SKIP, 1,        TD_Weight,
        0,          TAG_REMOVED, 0,        TS_Name, 0,        TAG_MORE, reinterpret_cast<Tag>(other),
        TI_Item,    99,          TAG_DONE};
    TagList list(tags, false);
    Tag *at = list.First();
    ASSERT_NE(at, nullptr);
    EXPECT_EQ(*at, TI_Width);
    at = list.Next(at);
    ASSERT_NE(at, nullptr);
    EXPECT_EQ(*at, TS_Name); // the double was hidden by TAG_SKIP 1
    at = list.Next(at);
    ASSERT_NE(at, nullptr);
    EXPECT_EQ(*at, TI_Height); // TAG_MORE ends this array: TI_Item behind it is never seen
    EXPECT_EQ(list.Next(at), nullptr);
    EXPECT_EQ(list.Find(TD_Weight), nullptr);
    EXPECT_EQ(list.Find(TI_Item), nullptr);
    EXPECT_EQ(list.GetLong(TI_Height, 0), 20u);
}

TEST(TagListWalk, StopsAtNegativeSkipAndUnknownControlWords)
{
    Tag negative[] = {TI_Width, 1, TAG_SKIP, static_cast<Tag>(-1), TI_Height, 2, TAG_DONE};
    TagList a(negative, false);
    EXPECT_NE(a.Find(TI_Width), nullptr);
    EXPECT_EQ(a.Find(TI_Height), nullptr);

    Tag unknown[] = {TI_Width, 1, 4, 0, TI_Height, 2, TAG_DONE};
    TagList b(unknown, false);
    EXPECT_NE(b.Find(TI_Width), nullptr);
    EXPECT_EQ(b.Find(TI_Height), nullptr);

    Tag nullMore[] = {TI_Width, 1, TAG_MORE, 0, TAG_DONE};
    TagList c(nullMore, false);
    EXPECT_EQ(c.Next(c.First()), nullptr);
}

TEST(TagListWrite, SetOverwritesOrAppendsByAddNew)
{
    TagList list;
    list.Set(TI_Width, 1, false);
    EXPECT_TRUE(list.IsEmpty());
    list.Set(TI_Width, 1, true);
    list.Set(TI_Width, -7, false);
    EXPECT_EQ(list.GetInt(TI_Width, 0), -7);
    EXPECT_EQ(list.GetLong(TI_Width, 0), 0xFFFFFFF9u);
    EXPECT_EQ(list.Next(list.First()), nullptr); // still one tag
    int value = 0;
    EXPECT_TRUE(list.Get(TI_Width, value));
    EXPECT_EQ(value, -7);
    EXPECT_FALSE(list.Get(TI_Height, value));
    EXPECT_EQ(value, -7); // untouched when missing
}

TEST(TagListWrite, RepeatableTagAlwaysAppends)
{
    TagList list;
    list.Set(TI_Item, 1);
    list.Set(TI_Item, 2);
    list.Set(TI_Item, 3, false); // repeatable and no addNew: nothing
    Tag *first = list.Find(TI_Item);
    ASSERT_NE(first, nullptr);
    Tag *second = list.FindNext(TI_Item, first);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(list.GetLong(first), 1u);
    EXPECT_EQ(list.GetLong(second), 2u);
    EXPECT_EQ(list.FindNext(TI_Item, second), nullptr);
}

TEST(TagListWrite, TypedValuesRoundTrip)
{
    TagList list;
    int user = 0;
    list.Add(TD_Weight, 2.5);
    list.Add(TP_User, static_cast<const void *>(&user));
    list.Add(TI_Height, true);
    list.Add(TI_Width, 0xFFFFFFFFu);
    EXPECT_DOUBLE_EQ(list.GetDouble(TD_Weight, 0), 2.5);
    EXPECT_EQ(list.GetPtr(TP_User, nullptr), &user);
    EXPECT_TRUE(list.GetBool(TI_Height, false));
    EXPECT_EQ(list.GetLong(TI_Width, 0), 0xFFFFFFFFu);
    EXPECT_TRUE(list.GetBool(TI_Width, false));
    EXPECT_FALSE(list.GetBool(TAG_INT | 77, false));
    EXPECT_DOUBLE_EQ(list.GetDouble(list.Find(TD_Weight)), 2.5);
    EXPECT_EQ(list.GetPtr(list.Find(TP_User)), &user);

    // An int tag is read as 32 bits: the rest of the out word stays as it was.
    uint64_t raw = 0xAAAAAAAAAAAAAAAAull;
    ASSERT_TRUE(list.Get(TI_Width, static_cast<void *>(&raw)));
    EXPECT_EQ(raw, 0xAAAAAAAAFFFFFFFFull);

    list.Set(list.Find(TD_Weight), 4.0);
    EXPECT_DOUBLE_EQ(list.GetDouble(TD_Weight, 0), 4.0);
}

TEST(TagListWrite, StringsAreOwnedCopiesAndNullReadsSafely)
{
    char text[] = "first";
    TagList list;
    list.Set(TS_Name, text);
    text[0] = 'X';
    EXPECT_STREQ(list.GetString(TS_Name, nullptr), "first");
    EXPECT_NE(list.GetString(TS_Name, nullptr), text);
    list.Set(TS_Name, "second"); // the old copy is freed (the leak checker watches)
    EXPECT_STREQ(list.GetString(TS_Name, nullptr), "second");
    list.Set(TS_Name, static_cast<const char *>(nullptr));
    EXPECT_EQ(list.GetString(TS_Name, "def"), nullptr);
    EXPECT_STREQ(list.GetSafeString(TS_Name, "def"), "");
    EXPECT_STREQ(list.GetSafeString(TAG_STRING | 9, nullptr), "");
    EXPECT_STREQ(list.GetSafeString(TAG_STRING | 9, "def"), "def");
    EXPECT_STREQ(list.GetSafeString(list.Find(TS_Name)), "");
}

TEST(TagListWrite, ObjectsHoldOneUseAndGetObjectAddsOne)
{
    int destroyed = 0;
    auto *probe = new Probe(&destroyed);
    {
        TagList list;
        list.Set(TO_Owner, static_cast<const void *>(probe));
        EXPECT_EQ(probe->GetUseCount(), 2);
        RefObject *got = list.GetObjectA(TO_Owner, nullptr);
        EXPECT_EQ(got, probe);
        EXPECT_EQ(probe->GetUseCount(), 3);
        got->Recycle();
        RefObject *other = list.GetObjectA(TAG_OBJECT | 9, probe); // the default gets a use too
        EXPECT_EQ(probe->GetUseCount(), 3);
        other->Recycle();
        list.Set(TO_Owner, static_cast<const void *>(nullptr)); // replacing releases the use
        EXPECT_EQ(probe->GetUseCount(), 1);
        list.Set(TO_Owner, static_cast<const void *>(probe));
    }
    EXPECT_EQ(probe->GetUseCount(), 1); // the destroyed list gave its use back
    probe->Recycle();
    EXPECT_EQ(destroyed, 1);
}

TEST(TagListWrite, BlocksAreCopiedAndGetMemBlockIsAView)
{
    char bytes[] = {1, 2, 3, 4};
    TagList list;
    list.Set(TM_Data, MemBlock(bytes, sizeof(bytes)));
    MemBlock view = list.GetMemBlock(TM_Data);
    ASSERT_NE(view.m_Ptr, nullptr);
    EXPECT_NE(view.m_Ptr, static_cast<void *>(bytes));
    EXPECT_EQ(view.m_Size, 4u);
    EXPECT_EQ(std::memcmp(view.m_Ptr, bytes, 4), 0);
    MemBlock at = list.GetMemBlock(list.Find(TM_Data));
    EXPECT_EQ(at.m_Ptr, view.m_Ptr);

    list.Set(TM_Data, MemBlock()); // a null block stores nothing
    EXPECT_EQ(list.GetMemBlock(TM_Data).m_Ptr, nullptr);
    EXPECT_EQ(list.GetMemBlock(TM_Data).m_Size, 0u);

    // A two-word tag keeps its neighbours in place.
    list.Add(TI_Width, 9);
    EXPECT_EQ(list.GetLong(TI_Width, 0), 9u);
}

TEST(TagListWrite, IdentifiersHoldACountOfTheirBlock)
{
    KeID kind("Circle");
    const int32_t before = StringBlockCount(kind.Raw());
    {
        TagList list;
        list.Set(TID_Kind, kind);
        EXPECT_EQ(StringBlockCount(kind.Raw()), before + 1);
        KeID got = list.GetID(TID_Kind, NOID);
        EXPECT_TRUE(got == "Circle");
        EXPECT_EQ(got.Raw(), kind.Raw());
        EXPECT_TRUE(list.GetID(list.Find(TID_Kind)) == "Circle");
        EXPECT_TRUE(list.GetID(TAG_ID | 9, KeID("fallback")) == "fallback");
        KeID out;
        EXPECT_FALSE(list.Get(TS_Name, out)); // not an identifier tag
        EXPECT_TRUE(list.Get(TID_Kind, out));
        EXPECT_TRUE(out == "Circle");
    }
    EXPECT_EQ(StringBlockCount(kind.Raw()), before);
}

TEST(TagListWrite, NestedListsAreDeepCopies)
{
    TagList inner;
    inner.Set(TI_Width, 5);
    TagList outer;
    outer.Set(TL_Nested, static_cast<const void *>(&inner));
    TagList *copy = outer.GetTagList(TL_Nested, nullptr);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, &inner);
    inner.Set(TI_Width, 6);
    EXPECT_EQ(copy->GetLong(TI_Width, 0), 5u);
}

TEST(TagListWrap, FirstWriteFlattensWithoutTouchingTheCallersArrays)
{
    Tag other[] = {TI_Height, 20, TAG_DONE};
    Tag tags[] = {TI_Width, 1, TAG_MORE, reinterpret_cast<Tag>(other), TAG_DONE};
    const Tag otherCopy[] = {TI_Height, 20, TAG_DONE};
    TagList list(tags, false);
    EXPECT_EQ(list.GetTagArray(), tags);
    list.Set(TI_Height, 21);
    EXPECT_TRUE(list.IsOwned());
    EXPECT_EQ(std::memcmp(other, otherCopy, sizeof(other)), 0);
    const Tag *flat = list.GetTagArray();
    EXPECT_EQ(flat[0], TI_Width);
    EXPECT_EQ(flat[2], TI_Height);
    EXPECT_EQ(flat[3], 21u);
    EXPECT_EQ(flat[4], TAG_DONE);
}

TEST(TagListWrap, SetAtAWrappedTagWritesThePrivateCopy)
{
    Tag tags[] = {TI_Width, 1, TI_Height, 2, TAG_DONE};
    TagList list(tags, false);
    list.Set(list.Find(TI_Height), 3);
    EXPECT_EQ(tags[3], 2u);
    EXPECT_EQ(list.GetLong(TI_Height, 0), 3u);
    EXPECT_EQ(list.GetLong(TI_Width, 0), 1u);
    list.Set(static_cast<Tag *>(nullptr), 4); // ignored
}

TEST(TagListWrap, CopyDuplicatesValuesOfAWrappedArray)
{
    char name[] = "wrapped";
    int destroyed = 0;
    auto *probe = new Probe(&destroyed);
    Tag tags[] = {TS_Name, reinterpret_cast<Tag>(name), TO_Owner, reinterpret_cast<Tag>(probe), TAG_DONE};
    {
        TagList list(tags, true);
        EXPECT_TRUE(list.IsOwned());
        EXPECT_NE(list.GetString(TS_Name, nullptr), name);
        EXPECT_STREQ(list.GetString(TS_Name, nullptr), "wrapped");
        EXPECT_EQ(probe->GetUseCount(), 2);
        list.Clear();
        EXPECT_EQ(probe->GetUseCount(), 1);
    }
    probe->Recycle();
    EXPECT_EQ(destroyed, 1);

    TagList wrapped(tags, false);
    wrapped.Clear(); // a wrapped list owns nothing and goes back to the shared empty word
    EXPECT_TRUE(wrapped.IsEmpty());
    EXPECT_EQ(tags[1], reinterpret_cast<Tag>(name));
}

TEST(TagListVarArgs, ConstructorDecodesEachType)
{
    char bytes[] = {9, 8, 7};
    KeID kind("Square");
    int user = 0;
    TagList list(TI_Width, -5, TD_Weight, 1.25, TS_Name, "abc", TP_User, &user, TM_Data, bytes, 3u, TID_Kind,
                 kind.Raw(), TAG_DONE);
    EXPECT_TRUE(list.IsOwned());
    EXPECT_EQ(list.GetInt(TI_Width, 0), -5);
    EXPECT_DOUBLE_EQ(list.GetDouble(TD_Weight, 0), 1.25);
    EXPECT_STREQ(list.GetString(TS_Name, nullptr), "abc");
    EXPECT_EQ(list.GetPtr(TP_User, nullptr), &user);
    MemBlock block = list.GetMemBlock(TM_Data);
    ASSERT_EQ(block.m_Size, 3u);
    EXPECT_EQ(std::memcmp(block.m_Ptr, bytes, 3), 0);
    EXPECT_TRUE(list.GetID(TID_Kind, NOID) == "Square");
}

TEST(TagListVarArgs, SetAttrsReachesTheListsOwnSetTags)
{
    TagList list;
    list.Set(TI_Width, 1);
    EXPECT_TRUE(list.SetAttrs(TI_Width, 2, TS_Name, "x", TAG_DONE));
    EXPECT_EQ(list.GetLong(TI_Width, 0), 2u);
    EXPECT_STREQ(list.GetString(TS_Name, nullptr), "x");
    EXPECT_EQ(list.GetAttr(TI_Width), 2u); // the reader goes through CopyAttr
}

TEST(TagListVarArgs, GatherCutsAtAWholeTagWhenTheBufferIsFull)
{
    Tag buffer[6];
    auto gather = [&](Tag first, ...)
    {
        va_list args;
        va_start(args, first);
        size_t used = TagList::GatherVarArgs(first, args, buffer, 6);
        va_end(args);
        return used;
    };
    EXPECT_EQ(gather(TI_Width, 1, TI_Height, 2, TD_Weight, 3.0, TAG_DONE), 5u);
    EXPECT_EQ(buffer[4], TAG_DONE);
    EXPECT_EQ(buffer[3], 2u);
}

TEST(TagListBulk, SetTagsCopiesRealTagsInOrder)
{
    TagList source(TI_Width, 1, TS_Name, "n", TI_Item, 7, TAG_DONE);
    TagList target;
    target.Set(TI_Width, 9);
    target.SetTags(&source, false);
    EXPECT_EQ(target.GetLong(TI_Width, 0), 1u);
    EXPECT_EQ(target.Find(TS_Name), nullptr); // no addNew: nothing new appears
    target.SetTags(&source, true);
    EXPECT_STREQ(target.GetString(TS_Name, nullptr), "n");
    EXPECT_NE(target.GetString(TS_Name, nullptr), source.GetString(TS_Name, nullptr));
    EXPECT_EQ(target.GetLong(TI_Item, 0), 7u);
    target.SetTags(nullptr, true);
    target.SetTags(&target, true);
    EXPECT_EQ(target.FindNext(TI_Item, target.Find(TI_Item)), nullptr);
}

TEST(TagListLock, IsRecursiveAndHoldsOffOtherWriters)
{
    TagList list;
    list.ObtainLock();
    list.ObtainLock();
    std::atomic<bool> written{false};
    std::thread writer(
        [&]
        {
            list.Set(TI_Width, 1);
            written = true;
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(written);
    list.ReleaseLock();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(written);
    list.ReleaseLock();
    writer.join();
    EXPECT_TRUE(written);
    EXPECT_EQ(list.GetLong(TI_Width, 0), 1u);
}

TEST(TagListLock, ConcurrentAppendsAllArrive)
{
    TagList list;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back(
            [&list, t]
            {
                for (int i = 0; i < 50; ++i)
                    list.Add(TI_Item, t * 100 + i);
            });
    for (auto &thread : threads)
        thread.join();
    int count = 0;
    for (Tag *at = list.Find(TI_Item); at; at = list.FindNext(TI_Item, at))
        ++count;
    EXPECT_EQ(count, 150);
}

// Readers under the list's lock while a writer appends enough to move the owned array many times:
// every read sees whole values, and a walk under Hold sees a count that only grows.
TEST(TagListLock, ReadersRaceAppendsThatGrowTheArray)
{
    TagList list;
    list.Set(TI_Width, 7);
    list.Set(TD_Weight, 2.5);
    std::atomic<bool> done{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r)
        readers.emplace_back(
            [&]
            {
                int seen = 0;
                while (!done)
                {
                    if (list.GetLong(TI_Width, 0) != 7 || list.GetDouble(TD_Weight, 0) != 2.5) ++bad;
                    TagList::Hold hold(list);
                    int count = 0;
                    for (Tag *at = list.Find(TI_Item); at; at = list.FindNext(TI_Item, at))
                        ++count;
                    if (count < seen) ++bad;
                    seen = count;
                }
            });
    for (uint64_t i = 0; i < 2000; ++i)
        list.AddData(TI_Item, &i);
    done = true;
    for (auto &reader : readers)
        reader.join();
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(list.GetLong(TI_Width, 0), 7u);
}

} // namespace
} // namespace orvexScript
