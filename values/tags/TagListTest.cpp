// Tests of TagList: the walk over control words, typed reads and writes, ownership of strings, lists,
// blocks, objects and identifiers, growth of the owned array, wrapping without copying, and the lock.

#include "values/tags/TagList.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
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
using Words = std::vector<unsigned long>;

// The tags a walk from First meets.
Words Walk(const TagList &list)
{
    Words seen;
    for (Tag *at = list.First(); at; at = list.Next(at))
        seen.push_back(*at);
    return seen;
}

// The values of the repeatable TI_Item tags in list order.
Words Items(const TagList &list)
{
    Words values;
    for (Tag *at = list.Find(TI_Item); at; at = list.FindNext(TI_Item, at))
        values.push_back(list.GetLong(at));
    return values;
}

TEST(TagListWalk, EmptyListFindsNothingAndSharesOneStaticWord)
{
    TagList a, b;
    EXPECT_TRUE(a.IsEmpty());
    EXPECT_EQ(a.First(), nullptr);
    EXPECT_FALSE(a.FindQuery(TI_Width));
    EXPECT_EQ(a.GetTagArray(), b.GetTagArray()); // no allocation for either
}

TEST(TagListWalk, FollowsMoreSkipsControlWordsAndStopsAtBadOnes)
{
    Tag other[] = {TI_Height, 20, TAG_DONE};
    // TAG_SKIP 1 hides the double; TAG_MORE ends its array, so TI_Item behind it is never seen.
    Tag tags[] = {
        TAG_IGNORE, 0,           TI_Width, 10,      TAG_SKIP, 1,        TD_Weight,
        0,          TAG_REMOVED, 0,        TS_Name, 0,        TAG_MORE, reinterpret_cast<Tag>(other),
        TI_Item,    99,          TAG_DONE};
    TagList list(tags, false);
    EXPECT_EQ(Walk(list), (Words{TI_Width, TS_Name, TI_Height}));
    EXPECT_EQ(list.Find(TD_Weight), nullptr);

    Tag negativeSkip[] = {TI_Width, 1, TAG_SKIP, static_cast<Tag>(-1), TI_Height, 2, TAG_DONE};
    Tag unknown[] = {TI_Width, 1, 4, 0, TI_Height, 2, TAG_DONE};
    Tag nullMore[] = {TI_Width, 1, TAG_MORE, 0, TAG_DONE};
    for (Tag *bad : {negativeSkip, unknown, nullMore})
    {
        TagList stopped(bad, false);
        EXPECT_EQ(Walk(stopped), Words{TI_Width});
        EXPECT_EQ(stopped.Find(TI_Height), nullptr);
    }
}

TEST(TagListWrite, SetOverwritesOrAppendsByAddNewAndRepeatablesAlwaysAppend)
{
    TagList list;
    list.Set(TI_Width, 1, false);
    EXPECT_TRUE(list.IsEmpty());
    list.Set(TI_Width, 1, true);
    list.Set(TI_Width, -7, false);
    EXPECT_EQ(list.GetInt(TI_Width, 0), -7);
    EXPECT_EQ(Walk(list), Words{TI_Width});
    int value = 0;
    EXPECT_TRUE(list.Get(TI_Width, value));
    EXPECT_EQ(value, -7);
    EXPECT_FALSE(list.Get(TI_Height, value));
    EXPECT_EQ(value, -7); // untouched when missing

    list.Set(TI_Item, 1);
    list.Set(TI_Item, 2);
    list.Set(TI_Item, 3, false); // repeatable and no addNew: nothing
    EXPECT_EQ(Items(list), (Words{1, 2}));
}

TEST(TagListWrite, TypedValuesRoundTripThroughAddAndTheVarArgsConstructor)
{
    char bytes[] = {9, 8, 7};
    KeID kind("Square");
    const int32_t kindCount = StringBlockCount(kind.Raw());
    int user = 0;
    TagList inner(TI_Width, 5, TAG_DONE);
    auto added = std::make_unique<TagList>();
    added->Add(TI_Width, 0xFFFFFFFFu);
    added->Add(TI_Height, true);
    added->Add(TD_Weight, 2.5);
    added->Add(TS_Name, "abc");
    added->Add(TP_User, static_cast<const void *>(&user));
    added->Add(TM_Data, MemBlock(bytes, sizeof(bytes)));
    added->Add(TID_Kind, kind);
    added->Add(TL_Nested, static_cast<const void *>(&inner));
    auto decoded = std::make_unique<TagList>(TI_Width, 0xFFFFFFFFu, TI_Height, 1, TD_Weight, 2.5, TS_Name,
                                             "abc", TP_User, &user, TM_Data, bytes, 3u, TID_Kind, kind.Raw(),
                                             TL_Nested, &inner, TAG_DONE);
    inner.Set(TI_Width, 6);                                 // nested lists are deep copies
    EXPECT_EQ(StringBlockCount(kind.Raw()), kindCount + 2); // identifiers hold a count of their block
    for (const TagList *list : {added.get(), decoded.get()})
    {
        EXPECT_EQ(list->GetLong(TI_Width, 0), 0xFFFFFFFFu);
        EXPECT_TRUE(list->GetBool(TI_Height, false));
        EXPECT_DOUBLE_EQ(list->GetDouble(TD_Weight, 0), 2.5);
        EXPECT_STREQ(list->GetString(TS_Name, nullptr), "abc");
        EXPECT_EQ(list->GetPtr(TP_User, nullptr), &user);
        const MemBlock block = list->GetMemBlock(TM_Data);
        ASSERT_EQ(block.m_Size, 3u);
        EXPECT_NE(block.m_Ptr, static_cast<void *>(bytes));
        EXPECT_EQ(std::memcmp(block.m_Ptr, bytes, 3), 0);
        EXPECT_EQ(list->GetMemBlock(list->Find(TM_Data)).m_Ptr, block.m_Ptr); // a view, not a copy
        EXPECT_EQ(list->GetID(TID_Kind, NOID).Raw(), kind.Raw());
        ASSERT_NE(list->GetTagList(TL_Nested), nullptr);
        EXPECT_EQ(list->GetTagList(TL_Nested)->GetLong(TI_Width, 0), 5u);
    }
    decoded.reset();
    TagList &list = *added;

    // An int tag is read as 32 bits: the rest of the out word stays as it was.
    uint64_t raw = 0xAAAAAAAAAAAAAAAAull;
    ASSERT_TRUE(list.Get(TI_Width, static_cast<void *>(&raw)));
    EXPECT_EQ(raw, 0xAAAAAAAAFFFFFFFFull);

    list.Set(TM_Data, MemBlock()); // a null block stores nothing
    EXPECT_TRUE(list.GetMemBlock(TM_Data).m_Ptr == nullptr && list.GetMemBlock(TM_Data).m_Size == 0u);
    list.Add(TI_Item, 9); // behind the two-word block tag
    EXPECT_EQ(Items(list), Words{9});

    KeID out;
    EXPECT_FALSE(list.Get(TS_Name, out)); // not an identifier tag
    EXPECT_TRUE(list.Get(TID_Kind, out));
    EXPECT_TRUE(out == "Square");
    added.reset();
    EXPECT_EQ(StringBlockCount(kind.Raw()), kindCount + 1); // the one `out` holds
}

TEST(TagListWrite, StringsAreOwnedCopiesAndNullReadsSafely)
{
    char text[] = "first";
    TagList list;
    list.Set(TS_Name, text);
    text[0] = 'X';
    EXPECT_STREQ(list.GetString(TS_Name, nullptr), "first");
    list.Set(TS_Name, "second"); // the old copy is freed (the leak checker watches)
    EXPECT_STREQ(list.GetString(TS_Name, nullptr), "second");
    list.Set(TS_Name, static_cast<const char *>(nullptr));
    EXPECT_EQ(list.GetString(TS_Name, "def"), nullptr);
    EXPECT_STREQ(list.GetSafeString(TS_Name, "def"), "");
    EXPECT_STREQ(list.GetSafeString(TAG_STRING | 9, nullptr), "");
}

TEST(TagListWrite, ObjectsHoldOneUseGetObjectAddsOneAndACopiedWrapDuplicatesValues)
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

    // Wrapping with a copy duplicates the values; a plain wrap owns none of them.
    char name[] = "wrapped";
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
    TagList wrapped(tags, false);
    wrapped.Clear(); // back to the shared empty word
    EXPECT_TRUE(wrapped.IsEmpty());
    EXPECT_EQ(tags[1], reinterpret_cast<Tag>(name));
    probe->Recycle();
    EXPECT_EQ(destroyed, 1);
}

TEST(TagListWrap, WritesGoToAFlatPrivateCopyAndLeaveTheCallersArraysAlone)
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
    EXPECT_EQ(Words(flat, flat + 5), (Words{TI_Width, 1, TI_Height, 21, TAG_DONE}));

    // Set at a tag found in the caller's array writes the copy.
    Tag plain[] = {TI_Width, 1, TI_Height, 2, TAG_DONE};
    TagList second(plain, false);
    second.Set(second.Find(TI_Height), 3);
    second.Set(static_cast<Tag *>(nullptr), 4); // ignored
    EXPECT_EQ(plain[3], 2u);
    flat = second.GetTagArray();
    EXPECT_EQ(Words(flat, flat + 5), (Words{TI_Width, 1, TI_Height, 3, TAG_DONE}));
}

TEST(TagListVarArgs, SetAttrsReachesTheListsOwnSetTagsAndGatherCutsAtAWholeTag)
{
    TagList list;
    list.Set(TI_Width, 1);
    EXPECT_TRUE(list.SetAttrs(TI_Width, 2, TS_Name, "x", TAG_DONE));
    EXPECT_STREQ(list.GetString(TS_Name, nullptr), "x");
    EXPECT_EQ(list.GetAttr(TI_Width), 2u); // the reader goes through CopyAttr

    // Gathering cuts at a whole tag when the buffer is full.
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
    target.SetTags(nullptr, true);
    target.SetTags(&target, true);
    EXPECT_EQ(Items(target), Words{7});
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
    EXPECT_EQ(Items(list).size(), 150u);
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
                    const int count = int(Items(list).size());
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
