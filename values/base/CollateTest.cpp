// Tests of the smart string order: numbers by value after a shared character, case ignored, and the
// wide form agreeing with the narrow one.
#include "values/base/Collate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "values/base/TextLocale.h"

using namespace orvexScript;

// Every allocation through operator new in this test program is counted while g_CountAllocations is
// set, so a test can show that a piece of code allocates nothing.
static std::atomic<bool> g_CountAllocations{false};
static std::atomic<long> g_Allocations{0};

// TSan's runtime defines these operators itself and can't share them, so under TSan nothing is counted.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ORVEX_NO_COUNTING 1
#endif
#endif
#ifndef ORVEX_NO_COUNTING

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete" // the replacements below pair malloc and free
#endif

static void *CountedAllocation(std::size_t size) noexcept
{
    if (g_CountAllocations.load(std::memory_order_relaxed))
        g_Allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size ? size : 1);
}

// The plain and nothrow forms, single and array, all on malloc and free; the aligned ones stay as they are.
void *operator new(std::size_t size)
{
    if (void *block = CountedAllocation(size)) return block;
    throw std::bad_alloc();
}
void *operator new[](std::size_t size)
{
    return operator new(size);
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return CountedAllocation(size);
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept
{
    return CountedAllocation(size);
}
void operator delete(void *block) noexcept
{
    std::free(block);
}
void operator delete[](void *block) noexcept
{
    std::free(block);
}
void operator delete(void *block, std::size_t) noexcept
{
    std::free(block);
}
void operator delete[](void *block, std::size_t) noexcept
{
    std::free(block);
}
void operator delete(void *block, const std::nothrow_t &) noexcept
{
    std::free(block);
}
void operator delete[](void *block, const std::nothrow_t &) noexcept
{
    std::free(block);
}

#endif // ORVEX_NO_COUNTING

TEST(SmartCollation, NumbersAfterASharedCharacterCompareByValueTheRestByCollation)
{
    struct Case
    {
        const char *a, *b;
        int sign;
    };
    const Case cases[] = {
        {"file9", "file10", -1}, {"a007b", "a7b", 0}, {"Img2", "img02", 0}, {"v1.9.2", "v1.10.0", -1},
        {"x2y3", "x2y20", -1},   {"9", "10", 1}, // the first characters differ: no number comparison
        {"a", "a1", -1},         {"", "a", -1},  {"", "", 0},          {"abc", "ABD", -1},
        {"ABC", "abc", 0},       {nullptr, "", -1}, {nullptr, nullptr, 0},
        // Runs beyond 32 bits still compare by magnitude.
        {"x4294967296", "x4294967295", 1}, {"x99999999999999999999", "x100000000000000000000", -1},
        {"x000099999999999999999999", "x99999999999999999999", 0}, {"x2147483647", "x2147483648", -1},
        {"\xC3\x84pfel2", "\xC3\xA4PFEL02", 0}, // non-ASCII letters fold case
        {"shot009.exr", "Shot10.exr", -1},   {"Shot2.exr", "shot10.exr", -1},
    };
    for (const Case &c : cases)
    {
        SCOPED_TRACE(std::string(c.a ? c.a : "(null)") + " vs " + (c.b ? c.b : "(null)"));
        const int got = stricoll_smart(c.a, c.b);
        EXPECT_EQ((got > 0) - (got < 0), c.sign);
        if (c.a && c.b)
        {
            const int back = stricoll_smart(c.b, c.a);
            EXPECT_EQ((back > 0) - (back < 0), -c.sign); // the order is antisymmetric
        }
    }
    EXPECT_NE(stricoll_smart("\xC3\xA4", "a"), 0);
    EXPECT_NE(stricoll_smart("a\xFF", "a\xFE"), 0); // broken bytes still differ
}

TEST(SmartCollation, NarrowFormGivesTheWideResultOfTheDecodedTexts)
{
    // The narrow walk decodes as it goes; its results must be those of the wide form over the whole
    // decoded texts, differences of digit runs and collation values included.
    const char *const texts[] = {
        "",       "a",           "A",           "a1",      "file9",  "File10",  "x007y",
        "x7Y",    "img02",       "Img2",        "\xC3\x84pfel2", "\xC3\xA4PFEL02", "a\xFF", "a\xFE",
        "\xE2\x82\xAC\x35" /* €5 */, "\xE2\x82", "x4294967296", "x99999999999999999999", "x2147483648",
        "v1.9.2", "v1.10.0", "9", "10", "ab\xF0\x9F\x98\x80", "AB\xF0\x9F\x98\x81", "zz\xC0\xAF"};
    for (const char *a : texts)
        for (const char *b : texts)
        {
            const std::wstring wideA = TextLocale::WidenUtf8(a), wideB = TextLocale::WidenUtf8(b);
            EXPECT_EQ(stricoll_smart(a, b), wcsicoll_smart(wideA.c_str(), wideB.c_str())) << a << " / " << b;
        }
    // Past the stack buffer of the final collation.
    const std::string longA(1000, 'k'), longB = std::string(999, 'K') + "l";
    EXPECT_LT(stricoll_smart(longA.c_str(), longB.c_str()), 0);
    EXPECT_EQ(stricoll_smart(longA.c_str(), std::string(1000, 'K').c_str()), 0);
}

TEST(SmartCollation, SortingAllocatesNothingPerComparison)
{
#ifdef ORVEX_NO_COUNTING
    GTEST_SKIP() << "allocations are not counted under TSan";
#endif
    std::vector<std::string> names;
    for (int i = 0; i < 300; ++i)
        names.push_back((i % 2 ? "Render_" : "render_") + std::to_string((i * 7919) % 1000) +
                        "_\xC3\xA4.exr");
    std::vector<const char *> order;
    for (const std::string &name : names)
        order.push_back(name.c_str());
    order.reserve(order.size() * 2); // std::sort needs no more; nothing grows while counting

    g_Allocations = 0;
    g_CountAllocations = true;
    std::sort(order.begin(), order.end(),
              [](const char *a, const char *b) { return stricoll_smart(a, b) < 0; });
    g_CountAllocations = false;
    EXPECT_EQ(g_Allocations.load(), 0);
    for (size_t i = 1; i < order.size(); ++i)
        EXPECT_LE(stricoll_smart(order[i - 1], order[i]), 0);
}
