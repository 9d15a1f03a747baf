// Tests of the TagList byte form: the exact bytes of a small list, each payload type through a round
// trip, what a round trip drops, Save's size rules, Load's refusal of short, damaged and too deep
// input, and the fuzz corpus run through the fuzzer's own checks.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <malloc.h>
#include <string>
#include <vector>

#include "testsupport/TestSupport.h"
#include "values/tags/TagList.h"
#include "values/tags/TagListLoadCheck.h"

namespace orvexScript
{
namespace
{

constexpr Tag TI_A = TAG_INT | 1;
constexpr Tag TI_B = TAG_INT | 2;
constexpr Tag TS_A = TAG_STRING | 1;
constexpr Tag TS_B = TAG_STRING | 2;
constexpr Tag TD_A = TAG_DOUBLE | 1;
constexpr Tag TL_A = TAG_TAGLIST | 1;
constexpr Tag TM_A = TAG_MEMBLOCK | 1;
constexpr Tag TM_B = TAG_MEMBLOCK | 2;
constexpr Tag TID_A = TAG_ID | 1;
constexpr Tag TO_A = TAG_OBJECT | 1;
constexpr Tag TP_A = TAG_PTR | 1;

using Bytes = std::vector<unsigned char>;

Bytes Save(const TagList &list)
{
    int size = 0;
    EXPECT_TRUE(list.Save(nullptr, size));
    Bytes out(size_t(size > 0 ? size : 0));
    int written = size;
    EXPECT_TRUE(list.Save(out.data(), written));
    EXPECT_EQ(written, size);
    return out;
}

// Loads `form` whole into `list`; false if Load refuses or leaves bytes over.
bool LoadAll(TagList &list, const Bytes &form)
{
    int size = int(form.size());
    return list.Load(form.data(), size) && size == int(form.size());
}

// A hand-made form: records of 32-bit words, the terminator added, then the payload bytes.
struct Form
{
    Bytes section;
    Bytes payload;

    static void Put(Bytes &to, uint32_t v)
    {
        for (int i = 0; i < 4; ++i)
            to.push_back(uint8_t(v >> (8 * i)));
    }
    Form &Record(uint32_t tag, uint32_t data)
    {
        Put(section, tag);
        Put(section, data);
        return *this;
    }
    Form &Text(const std::string &text)
    {
        Put(payload, uint32_t(text.size()));
        payload.insert(payload.end(), text.begin(), text.end());
        return *this;
    }
    Form &Nested(const Bytes &form)
    {
        payload.insert(payload.end(), form.begin(), form.end());
        return *this;
    }
    Bytes Build() const
    {
        // Sized once and filled in place: g++ 12 at -O3 misreads growing inserts as over-reads.
        Bytes out(4 + section.size() + 4 + payload.size());
        auto put = [&out](size_t at, uint32_t v) {
            for (int i = 0; i < 4; ++i)
                out[at + i] = uint8_t(v >> (8 * i));
        };
        put(0, uint32_t(section.size() + 4));
        std::copy(section.begin(), section.end(), out.begin() + 4);
        put(4 + section.size(), 0);
        std::copy(payload.begin(), payload.end(), out.begin() + 8 + long(section.size()));
        return out;
    }
};

// A form with `levels` lists nested each in the one before.
Bytes NestedForm(int levels)
{
    Bytes form = Form().Build();
    for (int i = 0; i < levels; ++i)
        form = Form().Record(TL_A, 1).Nested(form).Build();
    return form;
}

// The little-endian 32-bit word at `at`.
uint32_t Word(const Bytes &form, size_t at)
{
    return uint32_t(form[at] | form[at + 1] << 8 | form[at + 2] << 16 | form[at + 3] << 24);
}

void ExpectEmptyAndUnowned(const TagList &list)
{
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_FALSE(list.IsOwned());
}

TEST(TagListStore, IntAndStringSaveToTheDocumentedThirtyBytes)
{
    TagList list;
    list.Add(TI_A, 5);
    list.Add(TS_B, "ab");
    const Bytes form = Save(list);
    ASSERT_EQ(form.size(), 30u);
    EXPECT_EQ(Word(form, 0), 20u);
    EXPECT_EQ(Word(form, 4), uint32_t(TI_A));
    EXPECT_EQ(Word(form, 8), 5u);
    EXPECT_EQ(Word(form, 12), uint32_t(TS_B));
    EXPECT_NE(Word(form, 16), 0u);
    EXPECT_EQ(Word(form, 20), 0u);
    EXPECT_EQ(Word(form, 24), 2u);
    EXPECT_EQ(std::memcmp(&form[28], "ab", 2), 0);
}

TEST(TagListStore, DatalessTagsRecordTheWordBehindThem)
{
    // A type above TAG_ID has no data; its record's second unit is the low half of the next word.
    constexpr Tag flag = 0x90000001u;
    TagList list;
    list.Add(flag, 0);
    list.Add(TI_A, 5);
    list.Add(flag | TAG_REPEATABLE, 0);
    const Bytes form = Save(list);
    ASSERT_EQ(form.size(), 32u);
    EXPECT_EQ(Word(form, 4), uint32_t(flag));
    EXPECT_EQ(Word(form, 8), uint32_t(TI_A));
    EXPECT_EQ(Word(form, 20), uint32_t(flag | TAG_REPEATABLE));
    EXPECT_EQ(Word(form, 24), 0u); // the word behind the last tag is the terminator
    TagList loaded;
    ASSERT_TRUE(LoadAll(loaded, form));
    EXPECT_NE(loaded.Find(flag), nullptr);
    EXPECT_EQ(loaded.GetInt(TI_A), 5);
    EXPECT_EQ(Save(loaded), form);
}

TEST(TagListStore, EmptyListIsEightBytesAndLoadsBackEmpty)
{
    TagList empty;
    const Bytes form = Save(empty);
    EXPECT_EQ(form, (Bytes{4, 0, 0, 0, 0, 0, 0, 0}));
    TagList loaded;
    ASSERT_TRUE(LoadAll(loaded, form));
    EXPECT_TRUE(loaded.IsEmpty());
    EXPECT_TRUE(loaded.IsOwned());
}

TEST(TagListStore, SaveOneByteShortWritesNothingAndReportsTheNeed)
{
    TagList list;
    list.Add(TS_A, "hello");
    int need = 0;
    ASSERT_TRUE(list.Save(nullptr, need));
    Bytes buffer(size_t(need), 0xCD);
    int capacity = need - 1;
    EXPECT_FALSE(list.Save(buffer.data(), capacity));
    EXPECT_EQ(capacity, need);
    EXPECT_EQ(buffer, Bytes(size_t(need), 0xCD));
}

TEST(TagListStore, NullStringHasNoPayloadAndEmptyStringStaysEmpty)
{
    TagList list;
    list.Add(TS_A, static_cast<const char *>(nullptr));
    list.Add(TS_B, "");
    const Bytes form = Save(list);
    EXPECT_EQ(form.size(), 4u + 20u + 4u); // one payload: the empty string's length
    TagList loaded;
    ASSERT_TRUE(LoadAll(loaded, form));
    ASSERT_NE(loaded.Find(TS_A), nullptr);
    EXPECT_EQ(loaded.GetString(TS_A, "default"), nullptr);
    ASSERT_NE(loaded.GetString(TS_B), nullptr);
    EXPECT_STREQ(loaded.GetString(TS_B), "");
}

TEST(TagListStore, EachPayloadRoundTripsAndObjectsAndPointersVanish)
{
    const uint64_t nanBits = 0x7FF4000000000001ull; // a signalling NaN with a payload
    double nan;
    std::memcpy(&nan, &nanBits, sizeof(nan));
    unsigned char bytes[5] = {0, 1, 0xFF, 3, 4};
    TagList object;
    int dummy = 0;
    TagList list;
    list.Add(TM_A, MemBlock(bytes, sizeof(bytes)));
    list.Add(TM_B, MemBlock(bytes, 0)); // a pointer, but no bytes
    list.Add(TID_A, KeID("Width"));
    list.Add(TID_A | TAG_REPEATABLE, KeID());
    list.Add(TO_A, static_cast<const void *>(&object));
    list.Add(TP_A, static_cast<const void *>(&dummy));
    list.Add(TD_A, nan);
    list.Add(TD_A | TAG_REPEATABLE, -0.0);
    list.Add(TI_A, static_cast<unsigned long>(0x1234567800000005ull));
    TagList loaded;
    ASSERT_TRUE(LoadAll(loaded, Save(list)));

    const MemBlock a = loaded.GetMemBlock(TM_A);
    ASSERT_EQ(a.m_Size, sizeof(bytes));
    EXPECT_EQ(std::memcmp(a.m_Ptr, bytes, sizeof(bytes)), 0);
    EXPECT_NE(a.m_Ptr, static_cast<void *>(bytes));
    EXPECT_EQ(loaded.GetMemBlock(TM_B, MemBlock(bytes, 1)).m_Ptr, nullptr); // empty loads as none
    EXPECT_TRUE(loaded.GetID(TID_A, KeID()) == "Width");
    EXPECT_TRUE(loaded.GetID(TID_A | TAG_REPEATABLE, KeID("x")).IsEmpty());
    EXPECT_EQ(loaded.Find(TO_A), nullptr);
    EXPECT_EQ(loaded.Find(TP_A), nullptr);
    const double back = loaded.GetDouble(TD_A);
    uint64_t backBits;
    std::memcpy(&backBits, &back, sizeof(backBits));
    EXPECT_EQ(backBits, nanBits); // all 64 bits
    EXPECT_TRUE(std::signbit(loaded.GetDouble(TD_A | TAG_REPEATABLE, 1.0)));
    EXPECT_EQ(loaded.Find(TI_A)[1], 5u); // integers keep only their low half
}

TEST(TagListStore, NestedListsTwoLevelsDeepRoundTripAndLoadConsumesWhatSaveWrote)
{
    TagList inner;
    inner.Add(TS_A, "deep");
    TagList middle;
    middle.Add(TI_A, 2);
    middle.Add(TL_A, static_cast<const void *>(&inner));
    TagList outer;
    outer.Add(TL_A, static_cast<const void *>(&middle));
    outer.Add(TS_B, "after");

    const Bytes form = Save(outer);
    Bytes padded = form;
    padded.insert(padded.end(), {9, 9, 9}); // an enclosing reader's next bytes
    TagList loaded;
    int size = int(padded.size());
    ASSERT_TRUE(loaded.Load(padded.data(), size));
    EXPECT_EQ(size, int(form.size()));
    const TagList *m = loaded.GetTagList(TL_A);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->GetInt(TI_A), 2);
    ASSERT_NE(m->GetTagList(TL_A), nullptr);
    EXPECT_STREQ(m->GetTagList(TL_A)->GetString(TS_A), "deep");
    EXPECT_STREQ(loaded.GetString(TS_B), "after");
    EXPECT_EQ(Save(loaded), form);
}

TEST(TagListStore, WrappedChainSavesAsOneFlatList)
{
    Tag tail[] = {TI_B, 2, TAG_DONE};
    Tag head[] = {TI_A, 1, TAG_MORE, reinterpret_cast<Tag>(tail)};
    TagList wrapped(head, false);
    TagList loaded;
    ASSERT_TRUE(LoadAll(loaded, Save(wrapped)));
    EXPECT_EQ(loaded.GetInt(TI_A), 1);
    EXPECT_EQ(loaded.GetInt(TI_B), 2);
}

TEST(TagListStore, EveryTruncationOfAValidFormIsRefusedAndLeavesTheListEmpty)
{
    const Bytes form = Form()
                           .Record(TI_A, 3)
                           .Record(TS_A, 1)
                           .Record(TL_A, 1)
                           .Text("abc")
                           .Nested(Form().Record(TS_A, 1).Text("in").Build())
                           .Build();
    TagList whole;
    ASSERT_TRUE(LoadAll(whole, form));
    for (size_t cut = 0; cut < form.size(); ++cut)
    {
        const Bytes part(form.begin(), form.begin() + cut); // exact size: ASan sees any read beyond
        TagList list;
        list.Add(TS_B, "earlier content"); // released by the failed Load
        int size = int(part.size());
        EXPECT_FALSE(list.Load(part.data(), size)) << "cut at " << cut;
        EXPECT_EQ(size, int(cut));
        ExpectEmptyAndUnowned(list);
    }
}

TEST(TagListStore, BadLengthsForeignPointersAndUnknownControlWordsAreRefused)
{
    Bytes pastEnd = Form().Record(TS_A, 1).Text("ab").Build();
    std::memset(&pastEnd[4 + 12], 0xFF, 4); // the string's length
    Bytes hugeBlock = Form().Record(TM_A, 1).Text("").Build();
    std::memset(&hugeBlock[4 + 12], 0xFF, 4); // the block's size
    const std::vector<Bytes> broken = {
        pastEnd,
        hugeBlock,
        {0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0, 0, 0x10, 5, 0, 0, 0, 0, 0, 0, 0}, // T = 0xFFFFFFFF
        {8, 0, 0, 0, 0x01, 0, 0, 0x10, 5, 0, 0, 0},                         // no terminator inside T
        Form().Record(TAG_MORE, 0x1000).Build(),
        Form().Record(4, 0).Build(),
        Form().Record(TS_A, 1).Text("\xFF" "abc").Build(),         // would pass for a shared string block
        Form().Record(TID_A, 1).Text(std::string("abc")).Build(), // no NUL
        Form().Record(TID_A, 1).Text(std::string()).Build(),
    };
    for (size_t i = 0; i < broken.size(); ++i)
    {
        TagList list;
        int size = int(broken[i].size());
        EXPECT_FALSE(list.Load(broken[i].data(), size) && size == int(broken[i].size())) << "case " << i;
        ExpectEmptyAndUnowned(list);
    }
}

TEST(TagListStore, NestingIsBoundedOnBothSides)
{
    TagList list;
    EXPECT_TRUE(LoadAll(list, NestedForm(TagList::MaxNesting)));
    EXPECT_EQ(Save(list), NestedForm(TagList::MaxNesting));
    EXPECT_FALSE(LoadAll(list, NestedForm(TagList::MaxNesting + 1)));
    ExpectEmptyAndUnowned(list);

    // A wrapped array can refer to itself; Save refuses rather than recurse without end.
    Tag self[] = {TL_A, 0, TAG_DONE};
    TagList cyclic(self, false);
    self[1] = reinterpret_cast<Tag>(&cyclic);
    int size = 123;
    EXPECT_FALSE(cyclic.Save(nullptr, size));
    EXPECT_EQ(size, 0);
}

TEST(TagListStore, LoadIntoAWrappedListLeavesTheCallersArrayAlone)
{
    Tag array[] = {TI_A, 1, TAG_DONE};
    TagList list(array, false);
    ASSERT_TRUE(LoadAll(list, Form().Record(TI_B, 2).Build()));
    EXPECT_EQ(list.GetInt(TI_B), 2);
    EXPECT_EQ(list.Find(TI_A), nullptr);
    EXPECT_EQ(array[1], 1u);
}

// Bytes the C heap has handed out and not taken back; 0 where the allocator doesn't tell (sanitizer
// builds, whose leak check covers the same ground).
size_t HeapInUse()
{
#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__)
    return mallinfo2().uordblks;
#else
    return 0;
#endif
}

TEST(TagListStore, CopyOfALoadedListReleasesTheValuesATagSkipHides)
{
    const Bytes form = Form()
                           .Record(TAG_SKIP, 3)
                           .Record(TS_A, 1)
                           .Record(TID_A, 1)
                           .Record(TL_A, 1)
                           .Record(TI_A, 7)
                           .Text("hidden text")
                           .Text(std::string("hidden id", 10)) // the NUL counts
                           .Nested(Form().Record(TS_B, 1).Text("deeper").Build())
                           .Build();
    auto loadCopyDrop = [&form]
    {
        TagList list;
        if (!LoadAll(list, form)) return false;
        list.Copy(2);
        return list.GetInt(TI_A) == 7 && !list.Find(TS_A) && !list.Find(TID_A) && !list.Find(TL_A);
    };
    EXPECT_TRUE(loadCopyDrop()); // a first round, so that whatever is made once is made
    const size_t before = HeapInUse();
    EXPECT_TRUE(loadCopyDrop());
    EXPECT_EQ(HeapInUse(), before);
}

// ---- the fuzz corpus --------------------------------------------------------------------------------

TEST(TagListStore, FuzzCorpusPassesTheFuzzersChecks)
{
    namespace fs = std::filesystem;
    size_t files = 0;
    for (const fs::directory_entry &entry : fs::directory_iterator(ORVEX_TAGLIST_CORPUS))
    {
        if (!entry.is_regular_file()) continue;
        const std::string name = entry.path().filename().string();
        const std::string data = orvexTest::ReadFile(entry.path().string());
        const TagListLoadCheck result =
            CheckTagListLoad(reinterpret_cast<const uint8_t *>(data.data()), data.size());
        EXPECT_EQ(result.failure, "") << name;
        if (name.rfind("valid-", 0) == 0 || name.rfind("broken-", 0) == 0)
        {
            EXPECT_EQ(result.loaded, name[0] == 'v') << name;
        }
        ++files;
    }
    EXPECT_GE(files, 8u);
}

} // namespace
} // namespace orvexScript
