// The direct reader of value texts. It lexes like the interpreter's lexer (same tokens, line counting,
// escapes and long strings) and evaluates the data subset in the interpreter's order, with the
// interpreter's quirks: positional items are stored in batches of 50 after the keyed items before
// them, a nil for a missing key makes no key, 0 and -0 are one key, the one-shot ordered() state goes
// to the next table created (a constructor record included), and a table is one-line when its first
// item ends on the line of its brace. Nesting is kept on an explicit stack. Whatever falls outside the
// subset, breaks a syntax rule or nests deeper than a margin below the interpreter's limit is handed
// over, so that the interpreter decides and words the error.
//
// Sections: table building, the evaluator, entry point. The lexer is TextLexer.cpp.
#include "datalua/TextReader.h"

#include "datalua/TextLexer.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "values/base/StringBlock.h"
#include "values/model/ScriptVal.h"
#include "values/model/TableEntry.h"

namespace orvexScript::datalua
{
namespace
{

using text::Lexer;
using text::Token;
using namespace text; // the token kinds

// ---- table building ----------------------------------------------------------------------------

// Sets a nil or scalar value to a number, a boolean or a string block it takes over, without the
// general store's round trip.
inline void SetNumber(ScriptVal &v, double number)
{
    if (!v.IsNil()) v.CleanUp();
    v.m_Type = SV_Number;
    v.m_Value.m_Number = number;
}

inline void SetBoolean(ScriptVal &v, bool value)
{
    if (!v.IsNil()) v.CleanUp();
    v.m_Type = SV_Boolean;
    v.m_Value.m_Boolean = value;
}

inline void AdoptBlock(ScriptVal &v, char *block, uint32_t hash)
{
    if (!v.IsNil()) v.CleanUp();
    v.m_Type = SV_String;
    v.m_Value.m_String.m_String = block;
    v.m_Value.m_String.m_Hash = hash;
    v.m_Value.m_String.m_StringCopy = block;
}

// Moves `src` into `dst`, which is nil; `src` is nil afterwards. Scalars move by their payload; a table
// goes through the move assignment, which carries its look-up index.
inline void Transfer(ScriptVal &dst, ScriptVal &src)
{
    if (src.IsTable())
    {
        dst = std::move(src);
        return;
    }
    dst.m_Type = src.m_Type;
    dst.m_Value = src.m_Value;
    src.m_Type = SV_Nil;
    src.m_Value = ScriptValue{};
}

// Blocks of the short strings of one read, shared by every value that holds the same bytes: keys
// repeat from record to record, and so do many values.
class StringCache
{
public:
    StringCache() = default;
    StringCache(const StringCache &) = delete;
    StringCache &operator=(const StringCache &) = delete;
    ~StringCache()
    {
        for (const Slot &slot : m_Slots)
            StringBlockRelease(slot.block);
    }

    // A string value of these bytes (no zero byte among them).
    void Make(ScriptVal &out, const char *text, size_t length)
    {
        const uint32_t hash = StringHash(text, length);
        if (length > kMaxCached || m_Count >= kMaxEntries)
        {
            char *block = StringBlockNew(text, length);
            if (block) AdoptBlock(out, block, hash);
            return;
        }
        if (m_Count * 2 >= m_Slots.size()) Grow();
        const size_t mask = m_Slots.size() - 1;
        size_t i = hash & mask;
        for (; m_Slots[i].block; i = (i + 1) & mask)
        {
            const Slot &slot = m_Slots[i];
            if (slot.hash == hash && slot.length == length && std::memcmp(slot.block + 1, text, length) == 0)
            {
                StringBlockRetain(slot.block);
                AdoptBlock(out, slot.block, hash);
                return;
            }
        }
        char *block = StringBlockNew(text, length);
        if (!block) return;
        m_Slots[i] = Slot{block, hash, static_cast<uint32_t>(length)};
        ++m_Count;
        StringBlockRetain(block);
        AdoptBlock(out, block, hash);
    }

private:
    static constexpr size_t kMaxCached = 48;
    static constexpr size_t kMaxEntries = size_t(1) << 20;

    struct Slot
    {
        char *block = nullptr;
        uint32_t hash = 0;
        uint32_t length = 0;
    };

    void Grow()
    {
        std::vector<Slot> fresh(m_Slots.empty() ? 256 : m_Slots.size() * 2);
        const size_t mask = fresh.size() - 1;
        for (const Slot &slot : m_Slots)
        {
            if (!slot.block) continue;
            size_t i = slot.hash & mask;
            while (fresh[i].block)
                i = (i + 1) & mask;
            fresh[i] = slot;
        }
        m_Slots.swap(fresh);
    }

    std::vector<Slot> m_Slots;
    size_t m_Count = 0;
};

// Bytes read from a string: a string value, or a block when they hold a zero byte.
void MakeString(StringCache &cache, ScriptVal &out, const char *text, size_t length)
{
    if (std::memchr(text, 0, length))
    {
        void *bytes = std::malloc(length ? length : 1);
        if (!bytes) return;
        std::memcpy(bytes, text, length);
        out.CleanUp();
        out.m_Type = SV_MemBlock;
        out.m_Value.m_MemBlock.m_Ptr = bytes;
        out.m_Value.m_MemBlock.m_Size = static_cast<uint32_t>(length);
        return;
    }
    // The block is made from the exact bytes: a text that starts with the block marker must not be
    // taken for a block.
    cache.Make(out, text, length);
}

bool SameString(const ScriptVal &a, const ScriptVal &b)
{
    return a.m_Value.m_String.m_String == b.m_Value.m_String.m_String ||
           (a.m_Value.m_String.m_Hash == b.m_Value.m_String.m_Hash &&
            std::strcmp(a.m_Value.m_String.m_String + 1, b.m_Value.m_String.m_String + 1) == 0);
}

constexpr int kFlushItems = 50; // positional items stored at once, as the compiler batches them

// One table under construction. Number keys are gathered with the moment of their assignment, so
// that the last assignment of a key wins as it does in the interpreter; other keys keep the place of
// their first mention.
struct TableFrame
{
    struct NumberItem
    {
        TableEntry *entry;
        uint64_t time;
    };

    bool isParen = false;
    int braceLine = 0;
    bool ordered = false;
    bool firstDone = false;
    bool oneLine = false;
    bool explicitNumbers = false;
    uint32_t positional = 0;
    std::string constructor;
    bool hasConstructor = false;

    // The item in progress.
    enum ItemKind : uint8_t
    {
        Positional,
        NumberKey,
        StringKey,
    } item = Positional;
    double itemNumber = 0;
    ScriptVal itemKey;

    std::vector<NumberItem> numbers;
    std::vector<uint32_t> batch; // positional items not yet stored
    uint64_t clock = 0;
    TableEntry *others = nullptr;
    TableEntry *othersTail = nullptr;
    size_t otherCount = 0;
    std::vector<TableEntry *> otherIndex; // open addressing over string keys, for larger tables

    void Reset()
    {
        Release();
        isParen = false;
        ordered = firstDone = oneLine = explicitNumbers = hasConstructor = false;
        positional = 0;
        constructor.clear();
        item = Positional;
        itemKey.CleanUp();
        clock = 0;
    }

    void Release()
    {
        for (NumberItem &n : numbers)
            delete n.entry;
        numbers.clear();
        batch.clear();
        while (others)
        {
            TableEntry *next = others->m_Next;
            delete others;
            others = next;
        }
        othersTail = nullptr;
        otherCount = 0;
        otherIndex.clear();
    }

    void Flush()
    {
        for (uint32_t index : batch)
            numbers[index].time = ++clock;
        batch.clear();
    }

    TableEntry *FindOther(const ScriptVal &key)
    {
        if (otherIndex.empty())
        {
            for (TableEntry *e = others; e; e = e->m_Next)
                if (SameString(e->m_Key, key)) return e;
            return nullptr;
        }
        const size_t mask = otherIndex.size() - 1;
        for (size_t i = key.m_Value.m_String.m_Hash & mask;; i = (i + 1) & mask)
        {
            TableEntry *e = otherIndex[i];
            if (!e) return nullptr;
            if (SameString(e->m_Key, key)) return e;
        }
    }

    void IndexOther(TableEntry *entry)
    {
        const size_t mask = otherIndex.size() - 1;
        size_t i = entry->m_Key.m_Value.m_String.m_Hash & mask;
        while (otherIndex[i])
            i = (i + 1) & mask;
        otherIndex[i] = entry;
    }

    void GrowIndex()
    {
        std::vector<TableEntry *> fresh(otherIndex.empty() ? 64 : otherIndex.size() * 2, nullptr);
        otherIndex.swap(fresh);
        for (TableEntry *e = others; e; e = e->m_Next)
            IndexOther(e);
    }

    // False for what only the interpreter can tell: a key cleared after it held a value keeps or
    // loses its place depending on when the interpreter's node array is next rebuilt.
    [[nodiscard]] bool AddOther(ScriptVal &key, ScriptVal &value)
    {
        if (TableEntry *existing = FindOther(key))
        {
            if (value.IsNil()) return false;
            existing->m_Value.CleanUp();
            Transfer(existing->m_Value, value);
            return true;
        }
        if (value.IsNil()) return true; // a nil for a missing key makes no key
        auto *entry = new TableEntry();
        if (!entry) return false;
        Transfer(entry->m_Key, key);
        Transfer(entry->m_Value, value);
        if (othersTail)
            othersTail->m_Next = entry;
        else
            others = entry;
        othersTail = entry;
        ++otherCount;
        if (otherCount > 8 && otherCount * 2 > otherIndex.size())
            GrowIndex();
        else if (!otherIndex.empty())
            IndexOther(entry);
        return true;
    }

    [[nodiscard]] bool AddNumber(double key, ScriptVal &value, bool isPositional)
    {
        auto *entry = new TableEntry();
        if (!entry) return false;
        SetNumber(entry->m_Key, key);
        Transfer(entry->m_Value, value);
        numbers.push_back(NumberItem{entry, isPositional ? 0 : ++clock});
        if (isPositional) batch.push_back(static_cast<uint32_t>(numbers.size() - 1));
        return true;
    }

    // Hands the finished list to `out`: number keys ascending (the last assignment of each), then the
    // others in order of first mention, without entries whose value is nil.
    void Finish(ScriptVal &out)
    {
        Flush();
        if (explicitNumbers)
        {
            std::stable_sort(numbers.begin(), numbers.end(), [](const NumberItem &a, const NumberItem &b) {
                const double x = a.entry->m_Key.m_Value.m_Number, y = b.entry->m_Key.m_Value.m_Number;
                return x < y || (x == y && a.time < b.time);
            });
        }
        TableEntry *head = nullptr, *tail = nullptr;
        TableEntry **link = &head;
        for (size_t i = 0; i < numbers.size(); ++i)
        {
            TableEntry *e = numbers[i].entry;
            const bool superseded = explicitNumbers && i + 1 < numbers.size() &&
                                    numbers[i + 1].entry->m_Key.m_Value.m_Number == e->m_Key.m_Value.m_Number;
            if (superseded || e->m_Value.IsNil())
            {
                delete e;
                continue;
            }
            *link = e;
            link = &e->m_Next;
            tail = e;
        }
        numbers.clear();
        for (TableEntry *e = others; e;)
        {
            TableEntry *next = e->m_Next;
            e->m_Next = nullptr;
            if (e->m_Value.IsNil())
                delete e;
            else
            {
                *link = e;
                link = &e->m_Next;
                tail = e;
            }
            e = next;
        }
        others = othersTail = nullptr;
        otherCount = 0;
        otherIndex.clear();
        *link = nullptr;

        uint32_t flags = 0;
        if (ordered) flags |= SVF_Ordered;
        if (positional == 0) flags |= SVF_Single;
        if (oneLine) flags |= SVF_OneLine;
        // A fresh table takes the list with its known tail, without a walk to find it.
        out.CleanUp();
        out.m_Type = SV_Table | flags;
        out.m_Value.m_Table.m_Table = head;
        out.m_Value.m_Table.m_Last = tail;
        if (hasConstructor) out.SetConstructor(constructor.c_str());
    }
};

// ---- the evaluator -----------------------------------------------------------------------------

// Globals of the reading state: under the serialize prologue these names read through instead of
// making a constructor record, so a text that uses them goes to the interpreter.
bool IsStateGlobal(const char *s, size_t n)
{
    static const char *const names[] = {
        "_",          "_G",           "_VERSION",      "assert",       "collectgarbage", "coroutine",
        "dofile",     "error",        "gcinfo",        "getfenv",      "getmetatable",   "ipairs",
        "load",       "loadfile",     "loadstring",    "module",       "newproxy",       "next",
        "pairs",      "pcall",        "print",         "rawequal",     "rawget",         "rawset",
        "require",    "select",       "setfenv",       "setmetatable", "tonumber",       "tostring",
        "type",       "unpack",       "xpcall",        "sethashstate", "gettableflags",  "settableflags",
        "HexData",    "MemBlock",     "ordered",       "include",
    };
    for (const char *name : names)
        if (std::strlen(name) == n && std::memcmp(name, s, n) == 0) return true;
    return false;
}

bool IsName(const Token &t, const char *name)
{
    const size_t n = std::strlen(name);
    return t.type == T_Name && t.length == n && std::memcmp(t.text, name, n) == 0;
}

// The bytes of HexData's argument: hexadecimal numbers as strtol finds them, each cut to a byte.
void ParseHexData(const char *text, size_t length, ScriptVal &out)
{
    const std::string source(text, length);
    size_t count = 0;
    for (const char *p = source.c_str();;)
    {
        char *end = nullptr;
        (void)std::strtol(p, &end, 16);
        if (end == p) break;
        p = end;
        ++count;
    }
    void *bytes = count ? std::malloc(count) : nullptr;
    if (count && !bytes) return;
    auto *b = static_cast<unsigned char *>(bytes);
    size_t i = 0;
    for (const char *p = source.c_str(); i < count;)
    {
        char *end = nullptr;
        const long value = std::strtol(p, &end, 16);
        if (end == p) break;
        p = end;
        b[i++] = static_cast<unsigned char>(value);
    }
    out.CleanUp();
    out.m_Type = SV_MemBlock;
    out.m_Value.m_MemBlock.m_Ptr = bytes;
    out.m_Value.m_MemBlock.m_Size = static_cast<uint32_t>(count);
}

class Evaluator
{
public:
    Evaluator(const char *text, size_t length, TextPrologue prologue, const DirectLimits &limits)
        : m_Lex(text, length), m_Serialize(prologue == TextPrologue::Serialize), m_Limits(limits)
    {
    }

    ~Evaluator()
    {
        for (size_t i = 0; i < m_Depth; ++i)
            m_Frames[i].Release();
    }

    bool Run(ScriptVal &out);
    // The result came from a string literal (its bytes are the result's text even when it converted
    // to a block, having a zero byte).
    bool ResultIsString() const { return m_LastString; }

private:
    enum class Start
    {
        Scalar, // `value` holds a finished value
        Opened, // a table was opened: its items come next
        Paren,  // a parenthesis was opened: a value comes next
        Fail,
    };

    Token &Tok() { return m_Lex.Current(); }
    void Next() { m_Lex.Next(); }

    // Counts the interpreter's steps of a call; false once past the margin.
    bool Spend(uint64_t steps)
    {
        m_Steps += steps;
        return m_Steps <= m_Limits.maxSteps;
    }

    TableFrame *Push()
    {
        if (static_cast<int>(m_Depth) >= m_Limits.maxNesting) return nullptr;
        if (m_Depth == m_Frames.size()) m_Frames.emplace_back();
        TableFrame *f = &m_Frames[m_Depth++];
        f->Reset();
        return f;
    }

    Start OpenTable(std::string *constructor);
    Start StartValue(ScriptVal &value);
    Start StartName(ScriptVal &value);
    bool StartItem(TableFrame &f);
    bool FinishItem(TableFrame &f, ScriptVal &value);
    void Number(ScriptVal &value, double number);

    Lexer m_Lex;
    StringCache m_Strings;
    bool m_Serialize;
    DirectLimits m_Limits;
    std::vector<TableFrame> m_Frames;
    size_t m_Depth = 0;
    bool m_OrderedNext = false; // the one-shot state that ordered() sets
    uint64_t m_Steps = 0;       // what the interpreter would spend on calls so far (an estimate)
    bool m_LastString = false;  // the last value read was a string literal
};

void Evaluator::Number(ScriptVal &value, double number)
{
    SetNumber(value, number);
}

Evaluator::Start Evaluator::OpenTable(std::string *constructor)
{
    TableFrame *f = Push();
    if (!f) return Start::Fail;
    f->ordered = m_OrderedNext;
    m_OrderedNext = false;
    f->braceLine = Tok().endLine;
    if (constructor)
    {
        f->constructor.swap(*constructor);
        f->hasConstructor = true;
    }
    Next();
    return Start::Opened;
}

// A name at the start of a value: HexData, ordered(), or (under the serialize prologue) a record.
Evaluator::Start Evaluator::StartName(ScriptVal &value)
{
    if (IsName(Tok(), "HexData"))
    {
        Next();
        if (Tok().type != T_String) return Start::Fail;
        ParseHexData(Tok().text, Tok().length, value);
        Next();
        return Start::Scalar;
    }
    if (IsName(Tok(), "ordered"))
    {
        Next();
        if (Tok().type != T_LParen) return Start::Fail;
        Next();
        if (Tok().type != T_RParen) return Start::Fail;
        Next();
        if (!Spend(8)) return Start::Fail; // ordered() and the function it gives
        m_OrderedNext = true;
        // The function it gives returns its argument: a table, a string or a parenthesis.
        switch (Tok().type)
        {
        case T_LBrace:
            return OpenTable(nullptr);
        case T_String:
            MakeString(m_Strings, value, Tok().text, Tok().length);
            m_LastString = true;
            Next();
            return Start::Scalar;
        case T_LParen: {
            TableFrame *f = Push();
            if (!f) return Start::Fail;
            f->isParen = true;
            Next();
            return Start::Paren;
        }
        default:
            return Start::Fail;
        }
    }
    if (!m_Serialize || IsStateGlobal(Tok().text, Tok().length)) return Start::Fail;
    // A constructor record: made now (it takes the ordered() state), named by the dotted path.
    if (!Spend(8)) return Start::Fail; // the proxy's look-up that makes the record
    const bool recordOrdered = m_OrderedNext;
    m_OrderedNext = false;
    std::string name(Tok().text, Tok().length);
    Next();
    while (Tok().type == T_Dot)
    {
        Next();
        if (Tok().type != T_Name || IsName(Tok(), "name") || !Spend(4)) return Start::Fail;
        name.push_back('.');
        name.append(Tok().text, Tok().length);
        Next();
    }
    if (Tok().type == T_LBrace) return Spend(4) ? OpenTable(&name) : Start::Fail;
    value = ScriptVal(SVType(SV_Table, SVF_Single | SVF_OneLine | (recordOrdered ? SVF_Ordered : 0)), nullptr);
    value["name"] = name.c_str();
    return Start::Scalar;
}

Evaluator::Start Evaluator::StartValue(ScriptVal &value)
{
    Token &t = Tok();
    m_LastString = t.type == T_String;
    switch (t.type)
    {
    case T_Number:
        Number(value, t.number);
        Next();
        return Start::Scalar;
    case T_Minus:
        Next();
        if (Tok().type != T_Number) return Start::Fail;
        Number(value, -Tok().number);
        Next();
        return Start::Scalar;
    case T_String:
        MakeString(m_Strings, value, t.text, t.length);
        Next();
        return Start::Scalar;
    case T_True:
    case T_False:
        SetBoolean(value, t.type == T_True);
        Next();
        return Start::Scalar;
    case T_Nil:
        value.CleanUp();
        Next();
        return Start::Scalar;
    case T_LBrace:
        return OpenTable(nullptr);
    case T_LParen: {
        TableFrame *f = Push();
        if (!f) return Start::Fail;
        f->isParen = true;
        Next();
        return Start::Paren;
    }
    case T_Name:
        return StartName(value);
    default:
        return Start::Fail;
    }
}

// At an item of the open table: stores a full batch of positional items, then reads the key, if any.
bool Evaluator::StartItem(TableFrame &f)
{
    if (f.batch.size() == kFlushItems) f.Flush();
    f.item = TableFrame::Positional;
    Token &t = Tok();
    if (t.type == T_Name && m_Lex.Peek().type == T_Assign)
    {
        if ((t.length == 6 && std::memcmp(t.text, "__ctor", 6) == 0) ||
            (t.length == 7 && std::memcmp(t.text, "__flags", 7) == 0))
            return false;
        MakeString(m_Strings, f.itemKey, t.text, t.length);
        f.item = TableFrame::StringKey;
        Next();
        Next();
        return f.itemKey.IsString();
    }
    if (t.type != T_LBracket) return true;
    Next();
    Token &k = Tok();
    if (k.type == T_String)
    {
        MakeString(m_Strings, f.itemKey, k.text, k.length);
        if (!f.itemKey.IsString()) return false; // a key with a zero byte
        const char *s = f.itemKey.m_Value.m_String.m_String + 1;
        if (std::strcmp(s, "__ctor") == 0 || std::strcmp(s, "__flags") == 0) return false;
        f.item = TableFrame::StringKey;
        Next();
    }
    else
    {
        bool negative = false;
        if (k.type == T_Minus)
        {
            negative = true;
            Next();
        }
        if (Tok().type != T_Number) return false;
        // 0 and -0 are one key, kept as 0.
        const double key = negative ? -Tok().number : Tok().number;
        f.itemNumber = key == 0 ? 0.0 : key;
        f.item = TableFrame::NumberKey;
        Next();
    }
    if (Tok().type != T_RBracket) return false;
    Next();
    if (Tok().type != T_Assign) return false;
    Next();
    return true;
}

bool Evaluator::FinishItem(TableFrame &f, ScriptVal &value)
{
    switch (f.item)
    {
    case TableFrame::Positional:
        ++f.positional;
        if (!f.AddNumber(f.positional, value, true)) return false;
        break;
    case TableFrame::NumberKey:
        f.explicitNumbers = true;
        if (!f.AddNumber(f.itemNumber, value, false)) return false;
        break;
    case TableFrame::StringKey:
        if (!f.AddOther(f.itemKey, value)) return false;
        f.itemKey.CleanUp();
        break;
    }
    f.item = TableFrame::Positional;
    if (!f.firstDone)
    {
        f.firstDone = true;
        f.oneLine = Tok().endLine == f.braceLine;
    }
    return true;
}

bool Evaluator::Run(ScriptVal &out)
{
    Next();
    // "return" gives no value when the chunk ends or a ';' follows at once.
    if (Tok().type == T_Eof) return true;
    if (Tok().type == T_Semi)
    {
        Next();
        return Tok().type == T_Eof;
    }
    ScriptVal value;
    for (;;)
    {
        Start started = StartValue(value);
        while (started == Start::Paren)
            started = StartValue(value);
        if (started == Start::Fail) return false;
        bool needValue = false;
        if (started == Start::Opened)
        {
            // Items of the table just opened; a value item leaves the loop to be read.
            TableFrame &f = m_Frames[m_Depth - 1];
            if (Tok().type != T_RBrace)
            {
                if (!StartItem(f)) return false;
                needValue = true;
            }
            else
            {
                f.Finish(value);
                --m_Depth;
                Next();
            }
        }
        // A finished value goes up until some table needs the value of its next item.
        while (!needValue)
        {
            if (m_Depth == 0)
            {
                if (Tok().type == T_Semi) Next();
                if (Tok().type != T_Eof) return false;
                out = std::move(value);
                return true;
            }
            TableFrame &f = m_Frames[m_Depth - 1];
            if (f.isParen)
            {
                if (Tok().type != T_RParen) return false;
                --m_Depth;
                Next();
                continue;
            }
            if (!FinishItem(f, value)) return false;
            if (Tok().type == T_Comma || Tok().type == T_Semi)
                Next();
            else if (Tok().type != T_RBrace)
                return false;
            if (Tok().type == T_RBrace)
            {
                f.Finish(value);
                --m_Depth;
                Next();
                continue;
            }
            if (!StartItem(f)) return false;
            needValue = true;
        }
    }
}

} // namespace

// ---- entry point -------------------------------------------------------------------------------

bool ReadDirect(const char *text, size_t length, TextPrologue prologue, const DirectLimits &limits, ScriptVal &out,
                std::string &resultText)
{
    out.CleanUp();
    resultText.clear();
    if (length > limits.maxTextBytes) return false;
    ScriptVal value;
    bool fromString = false;
    {
        Evaluator evaluator(text, length, prologue, limits);
        if (!evaluator.Run(value)) return false;
        fromString = evaluator.ResultIsString();
    }
    if (value.IsString())
        resultText = value.m_Value.m_String.m_String + 1;
    else if (value.IsMemBlock() && fromString)
        resultText.assign(static_cast<const char *>(value.m_Value.m_MemBlock.m_Ptr), value.m_Value.m_MemBlock.m_Size);
    else if (value.IsNumber())
    {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%.14g", value.m_Value.m_Number);
        resultText = buffer;
    }
    out = std::move(value);
    return true;
}

} // namespace orvexScript::datalua
