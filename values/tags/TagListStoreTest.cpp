// Tests of the TagList byte form: the exact bytes of small lists and their round trip, each payload
// type, what a round trip drops, Save's size rules, Load's refusal of short, damaged and too deep
// input, and the fuzz corpus run through the fuzzer's own checks.

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
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
        auto put = [&out](size_t at, uint32_t v)
        {
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

TEST(TagListStore, KnownFormsSaveExactlyAndRoundTrip)
{
    // A type above TAG_ID has no data; its record keeps the low half of the word behind.
    constexpr Tag flag = 0x90000001u;
    const TagList intString(TI_A, 5, TS_B, "ab", TAG_DONE);
    const TagList dataless(flag, TI_A, 5, flag | TAG_REPEATABLE, TAG_DONE);
    const TagList strings(TS_A, static_cast<const char *>(nullptr), TS_B, "", TAG_DONE);
    TagList inner(TS_A, "deep", TAG_DONE);
    TagList middle(TI_A, 2, TL_A, &inner, TAG_DONE);
    const TagList outer(TL_A, &middle, TS_B, "after", TAG_DONE);
    Tag tail[] = {TI_B, 2, TAG_DONE};
    Tag head[] = {TI_A, 1, TAG_MORE, reinterpret_cast<Tag>(tail)};
    const TagList chain(head, false);
    const TagList empty;

    const Bytes nested =
        Form().Record(TI_A, 2).Record(TL_A, 1).Nested(Form().Record(TS_A, 1).Text("deep").Build()).Build();
    const struct
    {
        const char *what;
        const TagList &list;
        Bytes form;
    } cases[] = {
        {"empty", empty, {4, 0, 0, 0, 0, 0, 0, 0}},
        {"int and string", intString, {20,   0, 0, 0, 1, 0, 0, 0x10, 5, 0, 0, 0, 2, 0,   0,
                                       0x30, 1, 0, 0, 0, 0, 0, 0,    0, 2, 0, 0, 0, 'a', 'b'}},
        {"dataless", dataless,
         Form().Record(flag, TI_A).Record(TI_A, 5).Record(flag | TAG_REPEATABLE, 0).Build()},
        {"null and empty string", strings, Form().Record(TS_A, 0).Record(TS_B, 1).Text("").Build()},
        {"nested", outer, Form().Record(TL_A, 1).Record(TS_B, 1).Nested(nested).Text("after").Build()},
        {"wrapped chain", chain, Form().Record(TI_A, 1).Record(TI_B, 2).Build()},
    };
    for (const auto &c : cases)
    {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Save(c.list), c.form);
        TagList loaded;
        ASSERT_TRUE(LoadAll(loaded, c.form));
        EXPECT_EQ(Save(loaded), c.form);

        // One byte short: Save writes nothing and reports the need.
        Bytes buffer(c.form.size(), 0xCD);
        int capacity = int(c.form.size()) - 1;
        EXPECT_FALSE(c.list.Save(buffer.data(), capacity));
        EXPECT_EQ(capacity, int(c.form.size()));
        EXPECT_EQ(buffer, Bytes(c.form.size(), 0xCD));
    }
}

TEST(TagListStore, EachPayloadRoundTripsAndObjectsAndPointersVanish)
{
    const uint64_t nanBits = 0x7FF4000000000001ull; // a signalling NaN with a payload
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
    list.Add(TD_A, std::bit_cast<double>(nanBits));
    list.Add(TD_A | TAG_REPEATABLE, -0.0);
    list.Add(TI_A, static_cast<unsigned long>(0x1234567800000005ull));
    TagList loaded;
    ASSERT_TRUE(LoadAll(loaded, Save(list)));

    const MemBlock a = loaded.GetMemBlock(TM_A);
    ASSERT_EQ(a.m_Size, sizeof(bytes));
    EXPECT_EQ(std::memcmp(a.m_Ptr, bytes, sizeof(bytes)), 0);
    EXPECT_EQ(loaded.GetMemBlock(TM_B, MemBlock(bytes, 1)).m_Ptr, nullptr); // empty loads as none
    EXPECT_TRUE(loaded.GetID(TID_A, KeID()) == "Width");
    EXPECT_TRUE(loaded.GetID(TID_A | TAG_REPEATABLE, KeID("x")).IsEmpty());
    EXPECT_EQ(loaded.Find(TO_A), nullptr);
    EXPECT_EQ(loaded.Find(TP_A), nullptr);
    EXPECT_EQ(std::bit_cast<uint64_t>(loaded.GetDouble(TD_A)), nanBits); // all 64 bits
    EXPECT_TRUE(std::signbit(loaded.GetDouble(TD_A | TAG_REPEATABLE, 1.0)));
    EXPECT_EQ(loaded.Find(TI_A)[1], 5u); // integers keep only their low half
}

TEST(TagListStore, TruncatedDamagedAndForeignFormsAreRefusedAndLeaveTheListEmpty)
{
    const Bytes inner = Form().Record(TS_A, 1).Text("in").Build();
    const Bytes form =
        Form().Record(TI_A, 3).Record(TS_A, 1).Record(TL_A, 1).Text("abc").Nested(inner).Build();
    TagList whole;
    ASSERT_TRUE(LoadAll(whole, form));
    std::vector<Bytes> broken;
    for (size_t cut = 0; cut < form.size(); ++cut)
        broken.emplace_back(form.begin(), form.begin() + long(cut)); // exact size: ASan sees any read beyond
    Bytes pastEnd = Form().Record(TS_A, 1).Text("ab").Build();
    std::memset(&pastEnd[4 + 12], 0xFF, 4); // the string's length
    Bytes hugeBlock = Form().Record(TM_A, 1).Text("").Build();
    std::memset(&hugeBlock[4 + 12], 0xFF, 4); // the block's size
    broken.insert(broken.end(),
                  {
                      pastEnd,
                      hugeBlock,
                      {0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0, 0, 0x10, 5, 0, 0, 0, 0, 0, 0, 0}, // T too big
                      {8, 0, 0, 0, 0x01, 0, 0, 0x10, 5, 0, 0, 0}, // no terminator inside T
                      Form().Record(TAG_MORE, 0x1000).Build(),
                      Form().Record(4, 0).Build(),
                      // Would pass for a shared string block.
                      Form().Record(TS_A, 1).Text(std::string(1, '\xFF') + "abc").Build(),
                      Form().Record(TID_A, 1).Text("abc").Build(), // no NUL
                      Form().Record(TID_A, 1).Text("").Build(),
                  });
    for (size_t i = 0; i < broken.size(); ++i)
    {
        TagList list;
        list.Add(TS_B, "earlier content"); // released by the failed Load
        int size = int(broken[i].size());
        EXPECT_FALSE(list.Load(broken[i].data(), size)) << "case " << i;
        EXPECT_EQ(size, int(broken[i].size()));
        EXPECT_TRUE(list.IsEmpty());
        EXPECT_FALSE(list.IsOwned());
    }
}

TEST(TagListStore, NestingIsBoundedOnBothSides)
{
    TagList list;
    EXPECT_TRUE(LoadAll(list, NestedForm(TagList::MaxNesting)));
    EXPECT_EQ(Save(list), NestedForm(TagList::MaxNesting));
    EXPECT_FALSE(LoadAll(list, NestedForm(TagList::MaxNesting + 1)));
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_FALSE(list.IsOwned());

    // Load takes exactly its form and leaves an enclosing reader's next bytes.
    Bytes padded = NestedForm(2);
    padded.insert(padded.end(), {9, 9, 9});
    int used = int(padded.size());
    ASSERT_TRUE(list.Load(padded.data(), used));
    EXPECT_EQ(used, int(padded.size()) - 3);

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
    using orvexTest::CorpusExpect;
    const auto check = [](const std::string &name, const std::string &data, CorpusExpect expect)
    {
        const TagListLoadCheck result =
            CheckTagListLoad(reinterpret_cast<const uint8_t *>(data.data()), data.size());
        EXPECT_EQ(result.failure, "") << name;
        EXPECT_TRUE(expect == CorpusExpect::Either || result.loaded == (expect == CorpusExpect::Read))
            << name;
    };
    EXPECT_GE(orvexTest::ForEachCorpusFile(ORVEX_TAGLIST_CORPUS, check), 8u);
}

} // namespace
} // namespace orvexScript
