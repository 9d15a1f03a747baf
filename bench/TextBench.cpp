// Benchmarks of the value text form: reading a ~10 MB text of 100,000 records with FromText against
// LuaJIT loading and running the same text, writing it (ToTextLen + ToText) against RapidJSON's Writer
// writing JSON of the same data, and reading a text of 300,000 distinct string constants (time and
// peak memory). A summary of the ratios follows the benchmark table.
#include "bench/BenchMain.h"

#include <lua.hpp>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "values/model/ScriptVal.h"
#include "values/model/TableEntry.h"

using namespace orvexScript;

namespace
{

constexpr int kRecords = 100000;

ScriptVal Table(uint32_t flags = 0)
{
    return ScriptVal(SVType(SV_Table, flags), nullptr);
}

ScriptVal Record(int i)
{
    ScriptVal r = Table(SVF_OneLine);
    r["id"] = i;
    r["name"] = ("item " + std::to_string(i)).c_str();
    r["price"] = i * 0.25 + 0.1;
    ScriptVal tags = Table(SVF_OneLine);
    tags[1] = "red";
    r["tags"] = tags;
    ScriptVal pos = Table(SVF_OneLine);
    pos["x"] = i * 0.5;
    pos["y"] = -i;
    r["pos"] = pos;
    return r;
}

// The records first..last-1 as one table.
ScriptVal Records(int first, int last)
{
    ScriptVal all = Table();
    for (int i = first; i < last; ++i)
        all[i - first + 1] = Record(i);
    return all;
}

std::string Write(const ScriptVal &v)
{
    std::string text(v.ToTextLen(0), '\0');
    v.ToText(text.data(), 0);
    return text;
}

// JSON of the same records: an array of objects.
void AddJson(const ScriptVal &v, rapidjson::Value &out, rapidjson::Document::AllocatorType &a)
{
    switch (v.Type())
    {
    case SV_Number: out.SetDouble(v.ToNumber()); break;
    case SV_Boolean: out.SetBool(v.ToBoolean()); break;
    case SV_String: out.SetString(v.ToString(), a); break;
    case SV_Table: {
        const bool array = v.FirstEntry() && v.FirstEntry()->m_Key.IsNumber();
        if (array)
            out.SetArray();
        else
            out.SetObject();
        for (TableEntry *e = v.FirstEntry(); e; e = e->m_Next)
        {
            rapidjson::Value item;
            AddJson(e->m_Value, item, a);
            if (array)
                out.PushBack(item, a);
            else
                out.AddMember(rapidjson::Value(e->m_Key.ToString(), a), item, a);
        }
        break;
    }
    default: out.SetNull(); break;
    }
}

struct Data
{
    ScriptVal records;
    ScriptVal readBack; // the same records as FromText lays them out
    std::string text;
    std::vector<std::string> chunks; // the same records in pieces that LuaJIT can compile
    rapidjson::Document json;
};

Data &Shared()
{
    static Data *data = [] {
        auto *d = new Data();
        d->records = Records(0, kRecords);
        d->text = Write(d->records);
        (void)d->readBack.FromText(d->text.c_str(), GetSerializePrologue(), nullptr, 0);
        for (int first = 0; first < kRecords; first += 5000)
            d->chunks.push_back("return " + Write(Records(first, std::min(kRecords, first + 5000))));
        AddJson(d->records, d->json, d->json.GetAllocator());
        return d;
    }();
    return *data;
}

double Seconds(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double g_FromText = 0, g_LuaJit = 0, g_Write = 0, g_WriteRead = 0, g_Json = 0, g_Constants = 0;
long g_ConstantsPeakKb = 0;
size_t g_TextBytes = 0, g_JsonBytes = 0, g_ConstantBytes = 0;

void Best(double &slot, double seconds)
{
    if (slot == 0 || seconds < slot) slot = seconds;
}

long MaxRssKb()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// First, while the process is small: the peak it grows by is this read's.
void BM_ManyStringConstants(benchmark::State &state)
{
    for (auto _ : state)
    {
        const long before = MaxRssKb();
        std::string text = "{\n";
        for (int i = 0; i < 300000; ++i)
            text += "\t\"constant number " + std::to_string(i) + "\",\n";
        text += "}";
        g_ConstantBytes = text.size();
        const auto start = std::chrono::steady_clock::now();
        ScriptVal v;
        if (!v.FromText(text.c_str(), GetSerializePrologue(), nullptr, 0) || v.NumKeys() != 300000)
            state.SkipWithError("the text did not read");
        Best(g_Constants, Seconds(start));
        g_ConstantsPeakKb = std::max(g_ConstantsPeakKb, MaxRssKb() - before);
    }
}
BENCHMARK(BM_ManyStringConstants)->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_FromText(benchmark::State &state)
{
    Data &d = Shared();
    g_TextBytes = d.text.size();
    for (auto _ : state)
    {
        const auto start = std::chrono::steady_clock::now();
        ScriptVal v;
        if (!v.FromText(d.text.c_str(), GetSerializePrologue(), nullptr, 0) || v.NumKeys() != kRecords)
            state.SkipWithError("the text did not read");
        Best(g_FromText, Seconds(start));
        state.PauseTiming();
        v.CleanUp();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_FromText)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_LuaJitLoadAndRun(benchmark::State &state)
{
    Data &d = Shared();
    for (auto _ : state)
    {
        const auto start = std::chrono::steady_clock::now();
        lua_State *L = luaL_newstate();
        luaL_openlibs(L);
        lua_checkstack(L, static_cast<int>(d.chunks.size()) + 8);
        // Each chunk's table stays on the stack, as the value read by FromText stays.
        for (const std::string &chunk : d.chunks)
        {
            if (luaL_loadbuffer(L, chunk.data(), chunk.size(), "chunk") != 0 || lua_pcall(L, 0, 1, 0) != 0)
            {
                state.SkipWithError(lua_tostring(L, -1));
                break;
            }
        }
        Best(g_LuaJit, Seconds(start));
        state.PauseTiming();
        lua_close(L);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_LuaJitLoadAndRun)->Unit(benchmark::kMillisecond)->Iterations(5);

void WriteTimed(benchmark::State &state, const ScriptVal &value, double &slot)
{
    std::vector<char> buffer;
    for (auto _ : state)
    {
        const auto start = std::chrono::steady_clock::now();
        const unsigned long length = value.ToTextLen(0);
        buffer.resize(length + 1);
        value.ToText(buffer.data(), 0);
        Best(slot, Seconds(start));
    }
}

// The records as built by code, entry by entry.
void BM_ToText(benchmark::State &state)
{
    WriteTimed(state, Shared().records, g_Write);
}
BENCHMARK(BM_ToText)->Unit(benchmark::kMillisecond)->Iterations(10);

// The same records as read from their text.
void BM_ToTextOfReadValue(benchmark::State &state)
{
    WriteTimed(state, Shared().readBack, g_WriteRead);
}
BENCHMARK(BM_ToTextOfReadValue)->Unit(benchmark::kMillisecond)->Iterations(10);

void BM_RapidJsonWriter(benchmark::State &state)
{
    Data &d = Shared();
    for (auto _ : state)
    {
        const auto start = std::chrono::steady_clock::now();
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        d.json.Accept(writer);
        g_JsonBytes = buffer.GetSize();
        Best(g_Json, Seconds(start));
    }
}
BENCHMARK(BM_RapidJsonWriter)->Unit(benchmark::kMillisecond)->Iterations(10);

void Summary()
{
    std::printf("\nText of %d records: %.1f MB (JSON of the same data %.1f MB)\n", kRecords, g_TextBytes / 1e6,
                g_JsonBytes / 1e6);
    std::printf("FromText %.1f ms, LuaJIT load+run %.1f ms: FromText is %.2fx as fast (goal: 2x or more)\n",
                g_FromText * 1e3, g_LuaJit * 1e3, g_LuaJit / g_FromText);
    std::printf("ToTextLen+ToText %.1f ms, RapidJSON Writer %.1f ms: ratio %.2f (goal: 1.5 or less)\n",
                g_Write * 1e3, g_Json * 1e3, g_Write / g_Json);
    std::printf("ToTextLen+ToText of the records as read from text %.1f ms: ratio %.2f\n", g_WriteRead * 1e3,
                g_WriteRead / g_Json);
    std::printf("300,000 string constants (%.1f MB): read in %.1f ms, peak memory grew by %.1f MB\n",
                g_ConstantBytes / 1e6, g_Constants * 1e3, g_ConstantsPeakKb / 1024.0);
}

} // namespace

int main(int argc, char **argv)
{
    return RunBenchmarksThenSummary(argc, argv, Summary);
}
