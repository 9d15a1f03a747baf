// Benchmarks of the value core: copying strings and identifiers (time and heap allocations per copy),
// copying a large numeric table by the array path and the general path, and string-key look-ups
// against std::unordered_map, and sorting names in the smart order. A summary of the ratios follows the
// benchmark table.
#include "bench/BenchMain.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "values/base/Collate.h"
#include "values/base/TextLocale.h"
#include "values/model/KeID.h"
#include "values/model/ScriptVal.h"

using namespace orvexScript;

// ---- allocation counting: every global operator new and malloc goes through here ---------------

static std::atomic<long> g_Allocations{0};

extern "C" void *__libc_malloc(size_t size);
extern "C" void __libc_free(void *ptr);

extern "C" void *malloc(size_t size)
{
    g_Allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

void *operator new(size_t size)
{
    g_Allocations.fetch_add(1, std::memory_order_relaxed);
    if (void *p = __libc_malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}

void operator delete(void *p) noexcept
{
    __libc_free(p);
}

void operator delete(void *p, size_t) noexcept
{
    __libc_free(p);
}

namespace
{

std::map<std::string, double> g_Results; // ns per iteration by name, for the summary

void Record(benchmark::State &state, const std::string &name, double nsPerIteration)
{
    (void)state;
    g_Results[name] = nsPerIteration;
}

template <typename F> void TimedLoop(benchmark::State &state, const std::string &name, F &&body)
{
    long before = g_Allocations.load();
    auto start = std::chrono::steady_clock::now();
    for (auto _ : state)
        body();
    auto end = std::chrono::steady_clock::now();
    long allocations = g_Allocations.load() - before;
    double ns = std::chrono::duration<double, std::nano>(end - start).count() / double(state.iterations());
    state.counters["allocs_per_iter"] = double(allocations) / double(state.iterations());
    Record(state, name, ns);
    g_Results[name + ".allocs"] = double(allocations) / double(state.iterations());
}

// ---- 1. copying a string value and an identifier -----------------------------------------------

void BM_CopyStringVal(benchmark::State &state)
{
    ScriptVal source("a string that is copied around");
    TimedLoop(state, "copy ScriptVal string",
              [&]
              {
                  ScriptVal copy(source);
                  benchmark::DoNotOptimize(copy);
              });
}
BENCHMARK(BM_CopyStringVal);

void BM_CopyKeID(benchmark::State &state)
{
    KeID source("Group.Identifier");
    TimedLoop(state, "copy KeID",
              [&]
              {
                  KeID copy(source);
                  benchmark::DoNotOptimize(copy);
              });
}
BENCHMARK(BM_CopyKeID);

// The least a copy of a shared, counted block can cost: one atomic increment and one decrement.
void BM_AtomicPairBaseline(benchmark::State &state)
{
    static std::atomic<int32_t> count{1};
    TimedLoop(state, "atomic pair",
              [&]
              {
                  count.fetch_add(1);
                  benchmark::DoNotOptimize(count.fetch_sub(1));
              });
}
BENCHMARK(BM_AtomicPairBaseline);

// ---- 2. copying a dense numeric table: array path against the general path ---------------------

ScriptVal NumberTable(int n, bool gap)
{
    ScriptVal t(SV_Table, nullptr);
    for (int i = 1; i <= n + (gap ? 1 : 0); ++i)
        if (!gap || i != n / 2) t[i] = double(i);
    return t;
}

void BM_CopyArrayPath(benchmark::State &state)
{
    ScriptVal source = NumberTable(100000, false);
    TimedLoop(state, "copy 100000 dense",
              [&]
              {
                  ScriptVal copy(source);
                  benchmark::DoNotOptimize(copy);
              });
}
BENCHMARK(BM_CopyArrayPath)->Unit(benchmark::kMillisecond);

void BM_CopyGeneralPath(benchmark::State &state)
{
    ScriptVal source = NumberTable(100000, true);
    TimedLoop(state, "copy 100000 with gap",
              [&]
              {
                  ScriptVal copy(source);
                  benchmark::DoNotOptimize(copy);
              });
}
BENCHMARK(BM_CopyGeneralPath)->Unit(benchmark::kMillisecond);

// ---- 3. string-key look-ups against std::unordered_map -----------------------------------------

std::vector<std::string> KeyNames(int n)
{
    std::vector<std::string> names;
    for (int i = 0; i < n; ++i)
        names.push_back("attribute_" + std::to_string(i));
    return names;
}

void BM_FindKey(benchmark::State &state)
{
    int n = int(state.range(0));
    std::vector<std::string> names = KeyNames(n);
    ScriptVal t(SV_Table, nullptr);
    for (int i = 0; i < n; ++i)
        t[names[i].c_str()] = double(i);
    size_t i = 0;
    TimedLoop(state, "FindKey " + std::to_string(n),
              [&]
              {
                  benchmark::DoNotOptimize(t.FindKeyConst(names[i].c_str()).ToNumber());
                  i = (i + 1) % names.size();
              });
}
BENCHMARK(BM_FindKey)->Arg(4)->Arg(16)->Arg(64);

void BM_UnorderedMap(benchmark::State &state)
{
    int n = int(state.range(0));
    std::vector<std::string> names = KeyNames(n);
    std::unordered_map<std::string, double> map;
    for (int i = 0; i < n; ++i)
        map[names[i]] = double(i);
    size_t i = 0;
    TimedLoop(state, "unordered_map " + std::to_string(n),
              [&]
              {
                  benchmark::DoNotOptimize(map.find(names[i])->second);
                  i = (i + 1) % names.size();
              });
}
BENCHMARK(BM_UnorderedMap)->Arg(4)->Arg(16)->Arg(64);

// ---- 4. sorting names in the smart order -------------------------------------------------------

std::vector<std::string> FileNames()
{
    std::vector<std::string> names;
    for (int i = 0; i < 1000; ++i)
        names.push_back((i % 3 ? "Render_" : "render_") + std::to_string((i * 7919) % 2000) + "_v" +
                        std::to_string(i % 7) + ".exr");
    return names;
}

template <typename Less> void SortNames(benchmark::State &state, const std::string &name, Less less)
{
    std::vector<std::string> names = FileNames();
    std::vector<const char *> order(names.size());
    TimedLoop(state, name,
              [&]
              {
                  for (size_t i = 0; i < names.size(); ++i)
                      order[i] = names[i].c_str();
                  std::sort(order.begin(), order.end(), less);
                  benchmark::DoNotOptimize(order.data());
              });
}

void BM_SortSmart(benchmark::State &state)
{
    SortNames(state, "sort smart", [](const char *a, const char *b) { return stricoll_smart(a, b) < 0; });
}
BENCHMARK(BM_SortSmart)->Unit(benchmark::kMicrosecond);

// The earlier way: both texts decoded to wide strings for every comparison.
void BM_SortSmartWidened(benchmark::State &state)
{
    SortNames(state, "sort smart widened",
              [](const char *a, const char *b)
              {
                  std::wstring wideA = TextLocale::WidenUtf8(a), wideB = TextLocale::WidenUtf8(b);
                  return wcsicoll_smart(wideA.c_str(), wideB.c_str()) < 0;
              });
}
BENCHMARK(BM_SortSmartWidened)->Unit(benchmark::kMicrosecond);

void PrintSummary()
{
    auto get = [](const std::string &name) { return g_Results.count(name) ? g_Results[name] : 0.0; };
    std::printf("\nSummary\n");
    double pair = get("atomic pair");
    auto overPair = [pair](double ns) { return pair > 0 ? ns / pair : 0.0; };
    std::printf("  atomic increment + decrement (baseline): %.2f ns\n", pair);
    std::printf("  copy ScriptVal string: %.2f ns, %.3f allocations per copy, %.2f x baseline\n",
                get("copy ScriptVal string"), get("copy ScriptVal string.allocs"),
                overPair(get("copy ScriptVal string")));
    std::printf("  copy KeID:             %.2f ns, %.3f allocations per copy, %.2f x baseline\n",
                get("copy KeID"), get("copy KeID.allocs"), overPair(get("copy KeID")));
    double dense = get("copy 100000 dense"), gap = get("copy 100000 with gap");
    std::printf("  copy 100000 numbers: array path %.2f ms, general path %.2f ms, general/array %.2f\n",
                dense / 1e6, gap / 1e6, dense > 0 ? gap / dense : 0.0);
    for (int n : {4, 16, 64})
    {
        double mine = get("FindKey " + std::to_string(n));
        double theirs = get("unordered_map " + std::to_string(n));
        std::printf("  FindKey on %2d keys: %.2f ns, unordered_map %.2f ns, ratio %.2f\n", n, mine, theirs,
                    theirs > 0 ? mine / theirs : 0.0);
    }
    double smart = get("sort smart"), widened = get("sort smart widened");
    std::printf("  sort 1000 names: smart %.1f us, %.0f allocations; widened per comparison %.1f us, %.0f "
                "allocations; ratio %.2f\n",
                smart / 1e3, get("sort smart.allocs"), widened / 1e3, get("sort smart widened.allocs"),
                smart > 0 ? widened / smart : 0.0);
}

} // namespace

int main(int argc, char **argv)
{
    return RunBenchmarksThenSummary(argc, argv, PrintSummary);
}
