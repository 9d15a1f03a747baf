// Benchmarks of table building and look-up: n distinct keys written with FindKey and read back with
// FindKeyConst, for string keys and for number keys in shuffled order, against std::unordered_map and
// a LuaJIT table filled through the C API in the same run; and small tables (4 to 64 keys) against
// the plain list walk (the index switched off by its threshold). A summary of the ratios follows.
#include "bench/BenchMain.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <lua.hpp>

#include "values/model/ScriptVal.h"
#if __has_include("values/model/TableIndex.h")
#include "values/model/TableIndex.h"
#else
// A tree from before the table index: every look-up walks the list, and there is nothing to switch.
namespace orvexScript
{
inline void SetTableIndexThreshold(size_t) {}
} // namespace orvexScript
#endif

using namespace orvexScript;

namespace
{

std::map<std::string, double> g_Results; // ns per iteration by name, for the summary

// Processor time, not wall time: the figures stay comparable on a machine shared with other work.
template <typename F> void TimedLoop(benchmark::State &state, const std::string &name, F &&body)
{
    std::clock_t start = std::clock();
    for (auto _ : state)
        body();
    std::clock_t end = std::clock();
    g_Results[name] = double(end - start) * 1e9 / CLOCKS_PER_SEC / double(state.iterations());
}

struct Keys
{
    std::vector<std::string> names;
    std::vector<double> numbers; // 1..n, shuffled
};

const Keys &KeysOf(int n)
{
    static std::map<int, Keys> cache;
    Keys &keys = cache[n];
    if (keys.names.empty())
    {
        for (int i = 0; i < n; ++i)
        {
            keys.names.push_back("attribute_" + std::to_string(i));
            keys.numbers.push_back(double(i + 1));
        }
        std::shuffle(keys.numbers.begin(), keys.numbers.end(), std::mt19937(42));
    }
    return keys;
}

std::string Name(const char *what, bool numbers, int n)
{
    return std::string(what) + (numbers ? " numbers " : " strings ") + std::to_string(n);
}

// ---- one build and one read of every key, per container ----------------------------------------

double FillScriptVal(const Keys &keys, bool numbers)
{
    ScriptVal t(SV_Table, nullptr);
    size_t n = keys.names.size();
    double sum = 0;
    if (numbers)
    {
        for (size_t i = 0; i < n; ++i)
            t.FindKey(keys.numbers[i]) = double(i);
        for (size_t i = 0; i < n; ++i)
            sum += t.FindKeyConst(keys.numbers[i]).ToNumber();
    }
    else
    {
        for (size_t i = 0; i < n; ++i)
            t.FindKey(keys.names[i].c_str()) = double(i);
        for (size_t i = 0; i < n; ++i)
            sum += t.FindKeyConst(keys.names[i].c_str()).ToNumber();
    }
    return sum;
}

double FillUnorderedMap(const Keys &keys, bool numbers)
{
    size_t n = keys.names.size();
    double sum = 0;
    if (numbers)
    {
        std::unordered_map<double, double> map;
        for (size_t i = 0; i < n; ++i)
            map[keys.numbers[i]] = double(i);
        for (size_t i = 0; i < n; ++i)
            sum += map.find(keys.numbers[i])->second;
    }
    else
    {
        std::unordered_map<std::string, double> map;
        for (size_t i = 0; i < n; ++i)
            map[keys.names[i]] = double(i);
        for (size_t i = 0; i < n; ++i)
            sum += map.find(keys.names[i])->second;
    }
    return sum;
}

double FillLua(lua_State *L, const Keys &keys, bool numbers)
{
    int n = int(keys.names.size());
    double sum = 0;
    lua_newtable(L);
    if (numbers)
    {
        for (int i = 0; i < n; ++i)
        {
            lua_pushnumber(L, double(i));
            lua_rawseti(L, -2, int(keys.numbers[i]));
        }
        for (int i = 0; i < n; ++i)
        {
            lua_rawgeti(L, -1, int(keys.numbers[i]));
            sum += lua_tonumber(L, -1);
            lua_pop(L, 1);
        }
    }
    else
    {
        for (int i = 0; i < n; ++i)
        {
            lua_pushnumber(L, double(i));
            lua_setfield(L, -2, keys.names[i].c_str());
        }
        for (int i = 0; i < n; ++i)
        {
            lua_getfield(L, -1, keys.names[i].c_str());
            sum += lua_tonumber(L, -1);
            lua_pop(L, 1);
        }
    }
    lua_pop(L, 1);
    lua_gc(L, LUA_GCCOLLECT, 0);
    return sum;
}

// ---- the benchmarks ----------------------------------------------------------------------------

void BM_ScriptVal(benchmark::State &state)
{
    int n = int(state.range(0));
    bool numbers = state.range(1) != 0;
    const Keys &keys = KeysOf(n);
    TimedLoop(state, Name("ScriptVal", numbers, n),
              [&] { benchmark::DoNotOptimize(FillScriptVal(keys, numbers)); });
}

void BM_ScriptValLinear(benchmark::State &state)
{
    int n = int(state.range(0));
    bool numbers = state.range(1) != 0;
    const Keys &keys = KeysOf(n);
    SetTableIndexThreshold(SIZE_MAX);
    TimedLoop(state, Name("linear", numbers, n),
              [&] { benchmark::DoNotOptimize(FillScriptVal(keys, numbers)); });
    SetTableIndexThreshold(0);
}

void BM_UnorderedMap(benchmark::State &state)
{
    int n = int(state.range(0));
    bool numbers = state.range(1) != 0;
    const Keys &keys = KeysOf(n);
    TimedLoop(state, Name("unordered_map", numbers, n),
              [&] { benchmark::DoNotOptimize(FillUnorderedMap(keys, numbers)); });
}

void BM_LuaJIT(benchmark::State &state)
{
    int n = int(state.range(0));
    bool numbers = state.range(1) != 0;
    const Keys &keys = KeysOf(n);
    lua_State *L = luaL_newstate();
    TimedLoop(state, Name("LuaJIT", numbers, n),
              [&] { benchmark::DoNotOptimize(FillLua(L, keys, numbers)); });
    lua_close(L);
}

void LargeSizes(benchmark::internal::Benchmark *b)
{
    for (int numbers : {0, 1})
        for (int n : {1000, 16000, 256000})
            b->Args({n, numbers});
    b->Unit(benchmark::kMillisecond)->MinTime(0.3);
}

void SmallSizes(benchmark::internal::Benchmark *b)
{
    for (int numbers : {0, 1})
        for (int n : {4, 8, 16, 32, 64})
            b->Args({n, numbers});
    b->MinTime(0.3);
}

BENCHMARK(BM_ScriptVal)->Apply(LargeSizes);
BENCHMARK(BM_UnorderedMap)->Apply(LargeSizes);
BENCHMARK(BM_LuaJIT)->Apply(LargeSizes);
// The list walk alone is quadratic: only the two smaller sizes are worth waiting for.
BENCHMARK(BM_ScriptValLinear)
    ->Args({1000, 0})
    ->Args({16000, 0})
    ->Args({1000, 1})
    ->Args({16000, 1})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.3);
BENCHMARK(BM_ScriptVal)->Apply(SmallSizes);
BENCHMARK(BM_ScriptValLinear)->Apply(SmallSizes);

void PrintSummary()
{
    auto get = [](const std::string &name) { return g_Results.count(name) ? g_Results[name] : 0.0; };
    auto ratio = [](double a, double b) { return b > 0 ? a / b : 0.0; };
    std::printf("\nSummary (build + look-up of every key, per table)\n");
    for (bool numbers : {false, true})
    {
        for (int n : {1000, 16000, 256000})
        {
            double mine = get(Name("ScriptVal", numbers, n));
            double map = get(Name("unordered_map", numbers, n));
            double lua = get(Name("LuaJIT", numbers, n));
            double linear = get(Name("linear", numbers, n));
            std::printf(
                "  %-7s %6d keys: ScriptVal %9.3f ms, unordered_map %8.3f ms (x%.2f), LuaJIT %8.3f ms "
                "(x%.2f)",
                numbers ? "numbers" : "strings", n, mine / 1e6, map / 1e6, ratio(mine, map), lua / 1e6,
                ratio(mine, lua));
            if (linear > 0) std::printf(", list walk %9.3f ms", linear / 1e6);
            std::printf("\n");
        }
        std::printf(
            "  %s growth 16000 -> 256000 keys: ScriptVal x%.1f, unordered_map x%.1f (x16 is linear)\n",
            numbers ? "numbers" : "strings",
            ratio(get(Name("ScriptVal", numbers, 256000)), get(Name("ScriptVal", numbers, 16000))),
            ratio(get(Name("unordered_map", numbers, 256000)), get(Name("unordered_map", numbers, 16000))));
    }
    for (bool numbers : {false, true})
        for (int n : {4, 8, 16, 32, 64})
        {
            double mine = get(Name("ScriptVal", numbers, n));
            double linear = get(Name("linear", numbers, n));
            std::printf("  small %-7s %2d keys: %.1f ns, list walk only %.1f ns, ratio %.2f\n",
                        numbers ? "numbers" : "strings", n, mine, linear, ratio(mine, linear));
        }
}

} // namespace

int main(int argc, char **argv)
{
    return RunBenchmarksThenSummary(argc, argv, PrintSummary);
}
