// ScriptVal tables: the look-up family, key order on insertion, nested paths, iteration, remote
// member access through the hooks, constructor names, and table copying with its fast paths.
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "values/base/StringBlock.h"
#include "values/model/KeID.h"
#include "values/model/RemoteHooks.h"
#include "values/model/ScriptArgs.h"
#include "values/model/ScriptVal.h"
#include "values/model/SymbolNumbers.h"
#include "values/model/TableEntry.h"
#include "values/model/TableIndex.h"

namespace orvexScript
{

struct ScriptVal::TextKey
{
    const char *text;
    size_t len;
    uint32_t hash;
    const char *block; // a block to share when appending, or null to copy the text
};

namespace
{

using TextKey = ScriptVal::TextKey;

constexpr int kArrayPathMin = 65;

// Look-ups on a value that isn't a table land here; writes into it are lost. One per thread, so a
// look-up on one thread can't disturb what another is holding.
thread_local ScriptVal t_Scratch;

ScriptVal &Scratch()
{
    t_Scratch.CleanUp();
    return t_Scratch;
}

bool IsScratch(const ScriptVal *v)
{
    return v == &t_Scratch;
}

TextKey MakeKey(const char *text, int len = -1, const char *block = nullptr)
{
    size_t n = len < 0 ? std::strlen(text) : strnlen(text, static_cast<size_t>(len));
    return TextKey{text, n, StringHash(text, n), block};
}

bool MatchText(const TableEntry *e, const TextKey &key, bool noCase)
{
    if (!e->m_Key.IsString() || e->m_Key.m_Value.m_String.m_Hash != key.hash) return false;
    const char *stored = e->m_Key.m_Value.m_String.m_String + 1;
    return noCase ? TableTextEqualNoCase(stored, key.text, key.len)
                  : TableTextEqual(stored, key.text, key.len);
}

// Splits off the segment at `p`: its end, and whether it parses whole as a base-10 integer.
struct Segment
{
    const char *text;
    int len;
    bool last;
    bool isNumber;
    long number;
};

Segment NextSegment(const char *p)
{
    const char *dot = std::strchr(p, '.');
    const char *end = dot ? dot : p + std::strlen(p);
    char *parsed = nullptr;
    long number = std::strtol(p, &parsed, 10);
    // Key numbers are 32-bit longs: a number out of that range stops at its limit, as strtol does there.
    if (number > INT32_MAX)
        number = INT32_MAX;
    else if (number < INT32_MIN)
        number = INT32_MIN;
    return Segment{p, static_cast<int>(end - p), dot == nullptr, parsed == end, number};
}

} // namespace

// ---- entry list basics -------------------------------------------------------------------------

bool ScriptVal::HoldsTable() const
{
    return Type() == SV_Table || Type() == SV_Args;
}

TableEntry *ScriptVal::FirstEntry() const
{
    return HoldsTable() ? m_Value.m_Table.m_Table : nullptr;
}

TableEntry *ScriptVal::LastEntry() const
{
    if (Type() == SV_Table) return m_Value.m_Table.m_Last;
    if (TableIndex *index = Index()) return index->m_Tail;
    TableEntry *e = FirstEntry();
    while (e && e->m_Next)
        e = e->m_Next;
    return e;
}

// Links `entry` behind `last`, the list's tail (null for an empty list), and tells the index.
void ScriptVal::LinkTail(TableEntry *entry, TableEntry *last)
{
    TableIndex *index = Index(); // checked against the list before the list changes
    entry->m_Next = nullptr;
    if (last)
        last->m_Next = entry;
    else
        m_Value.m_Table.m_Table = entry;
    if (Type() == SV_Table) m_Value.m_Table.m_Last = entry;
    if (index && !index->Appended(entry)) DropIndex();
}

// Links `entry` at the tail.
void ScriptVal::Append(TableEntry *entry)
{
    LinkTail(entry, LastEntry());
}

// A large list is walked in key order while its entries lie in allocation order, one cache miss per
// entry. The index, detached first so that nothing reached from a value being released can use or
// drop it, lists the paged entries in key order: prefetching the next few of them whose keys lie
// above the entry being freed hides most of those misses. Prefetching never touches the memory, so
// entries already freed don't matter.
namespace
{
// Moves the entries of a nested table (key or value of an entry being freed) to the front of
// `pending`, leaving the table empty.
void AdoptEntries(ScriptVal &nested, TableEntry *&pending)
{
    const ScriptValType kind = nested.Type();
    if (kind != SV_Table && kind != SV_Args) return;
    TableEntry *head = nested.FirstEntry();
    if (!head) return;
    nested.DetachEntries();
    TableEntry *tail = head;
    while (tail->m_Next)
        tail = tail->m_Next;
    tail->m_Next = pending;
    pending = head;
}

void ReleaseEntry(TableEntry *entry, TableEntry *&pending)
{
    AdoptEntries(entry->m_Value, pending);
    AdoptEntries(entry->m_Key, pending);
    entry->m_Value.CleanUp();
    entry->m_Key.CleanUp();
    delete entry;
}
} // namespace

void ScriptVal::DetachEntries()
{
    if (m_Index) DropIndex();
    m_Value.m_Table.m_Table = nullptr;
    if (Type() == SV_Table) m_Value.m_Table.m_Last = nullptr;
}

void ScriptVal::CleanTable()
{
    TableEntry *pending = nullptr;
    uint32_t handle = m_Index ? std::atomic_ref<uint32_t>(m_Index).exchange(0, std::memory_order_acq_rel) : 0;
    TableIndex *index = handle ? TableIndex::Get(handle) : nullptr;
    if (index && index->m_Owner != this)
    {
        index = nullptr; // a handle that came along with a foreign payload: not ours
        handle = 0;
    }
    // The keys of the entries prefetched and not yet passed, ascending, in a ring.
    constexpr size_t kAhead = 16;
    size_t ahead[kAhead];
    size_t first = 0;
    size_t queued = 0;
    size_t cursor = 0;
    auto refill = [&]
    {
        while (queued < kAhead)
        {
            const TableEntry *e = index->NextPagedEntry(cursor);
            if (!e) return;
            // An entry may straddle two cache lines: both are fetched.
            __builtin_prefetch(e, 1);
            __builtin_prefetch(reinterpret_cast<const char *>(e) + sizeof(TableEntry) - 1, 1);
            ahead[(first + queued++) % kAhead] = cursor - 1;
        }
    };
    if (index) refill();
    while (TableEntry *e = m_Value.m_Table.m_Table)
    {
        if (index && e->m_Key.IsNumber())
        {
            while (queued && !(double(ahead[first]) > e->m_Key.m_Value.m_Number))
            {
                first = (first + 1) % kAhead;
                --queued;
            }
            refill();
        }
        m_Value.m_Table.m_Table = e->m_Next;
        ReleaseEntry(e, pending);
    }
    if (handle) TableIndex::Release(handle);
    // The entries of nested tables, freed here rather than by recursion, so that no depth of nesting
    // can exhaust the stack.
    while (TableEntry *e = pending)
    {
        pending = e->m_Next;
        ReleaseEntry(e, pending);
    }
    if (Type() == SV_Table) m_Value.m_Table.m_Last = nullptr;
}

// ---- the index of a large table ----------------------------------------------------------------

// The index if it still describes this table's list; one that doesn't (the list was changed behind
// the table's back, or the payload was copied from another value) is dropped.
TableIndex *ScriptVal::CheckedIndex() const
{
    uint32_t handle = std::atomic_ref<uint32_t>(m_Index).load(std::memory_order_acquire);
    if (!handle) return nullptr;
    TableIndex *index = TableIndex::Get(handle);
    if (index && index->m_Owner == this && HoldsTable() && index->m_Head == m_Value.m_Table.m_Table &&
        index->m_Tail && !index->m_Tail->m_Next &&
        (Type() != SV_Table || index->m_Tail == m_Value.m_Table.m_Last))
        return index;
    DropIndex();
    return nullptr;
}

void ScriptVal::DropIndex() const
{
    uint32_t handle = std::atomic_ref<uint32_t>(m_Index).exchange(0, std::memory_order_acq_rel);
    TableIndex *index = TableIndex::Get(handle);
    if (index && index->m_Owner == this) TableIndex::Release(handle);
}

// Builds the index after a look-up walked far. Const look-ups build it too, so two readers of one
// table may race here: the first to publish wins and the other drops its own.
void ScriptVal::GrowIndex() const
{
    uint32_t handle = TableIndex::Create(this, m_Value.m_Table.m_Table);
    uint32_t expected = 0;
    if (handle && !std::atomic_ref<uint32_t>(m_Index).compare_exchange_strong(expected, handle,
                                                                              std::memory_order_acq_rel))
        TableIndex::Release(handle);
}

// ---- look-ups ----------------------------------------------------------------------------------

// The number key walk: an equal key is the result; a new key goes in front of the first greater one.
ScriptVal *ScriptVal::FindNumber(double key, bool add)
{
    if (TableIndex *index = Index()) return FindNumberIndexed(index, key, add);
    size_t walked = 0;
    TableEntry *prev = nullptr;
    TableEntry *insertAfter = nullptr;
    TableEntry *found = nullptr;
    bool greaterSeen = false;
    for (TableEntry *e = FirstEntry(); e; prev = e, e = e->m_Next)
    {
        ++walked;
        if (!e->m_Key.IsNumber()) continue;
        double k = e->m_Key.m_Value.m_Number;
        if (k == key)
        {
            found = e;
            break;
        }
        if (!greaterSeen && k > key)
        {
            greaterSeen = true;
            insertAfter = prev;
        }
    }
    TableEntry *entry = found || !add ? nullptr : new TableEntry(key);
    if (entry && !greaterSeen)
    {
        Append(entry);
    }
    else if (entry)
    {
        // In front of the first greater key: behind its predecessor, or at the head.
        TableEntry **link = insertAfter ? &insertAfter->m_Next : &m_Value.m_Table.m_Table;
        entry->m_Next = *link;
        *link = entry;
    }
    if (walked >= TableIndexThreshold()) GrowIndex();
    if (found) return &found->m_Value;
    return entry ? &entry->m_Value : nullptr;
}

// The same through the index: its pages or hash find the key, its number order places a new one.
ScriptVal *ScriptVal::FindNumberIndexed(TableIndex *index, double key, bool add)
{
    if (TableEntry *e = index->FindNumber(key)) return &e->m_Value;
    if (!add) return nullptr;
    // The place first: the predecessor to be written is an old entry, likely not in cache, and its
    // line can arrive while the new entry is made.
    TableEntry *next = nullptr;
    TableEntry *prev = nullptr;
    bool before = index->Successor(key, next, prev);
    if (before && prev) __builtin_prefetch(prev, 1);
    TableEntry *entry = new TableEntry(key);
    if (!entry) return nullptr;
    if (before)
    {
        entry->m_Next = next;
        if (prev)
            prev->m_Next = entry;
        else
            m_Value.m_Table.m_Table = entry;
        if (!index->InsertedBefore(entry, key)) DropIndex();
    }
    else
    {
        LinkTail(entry, index->m_Tail);
    }
    return &entry->m_Value;
}

ScriptVal *ScriptVal::FindText(const TextKey &key, bool add, bool noCase)
{
    TableEntry *found = nullptr;
    if (TableIndex *index = Index())
    {
        found = index->FindText(key.text, key.len, key.hash, noCase);
    }
    else
    {
        size_t walked = 0;
        for (TableEntry *e = FirstEntry(); e; e = e->m_Next)
        {
            ++walked;
            if (MatchText(e, key, noCase))
            {
                found = e;
                break;
            }
        }
        if (walked >= TableIndexThreshold()) GrowIndex();
    }
    if (found) return &found->m_Value;
    if (!add) return nullptr;
    TableEntry *entry = new TableEntry();
    if (!entry) return nullptr;
    if (key.block)
    {
        entry->m_Key = key.block;
    }
    else if (!IsStringBlock(key.text) && key.len <= INT_MAX)
    {
        // The look-up hashed exactly these bytes, as the stored key would be hashed: no second pass.
        if (char *block = StringBlockNew(key.text, key.len))
        {
            entry->m_Key.m_Type = SV_String;
            entry->m_Key.m_Value.m_String.m_String = block;
            entry->m_Key.m_Value.m_String.m_StringCopy = block;
            entry->m_Key.m_Value.m_String.m_Hash = key.hash;
        }
    }
    else
    {
        const char *text = key.text;
        entry->m_Key.Set(SV_String, &text, static_cast<int>(key.len));
    }
    if (entry->m_Key.IsNil())
    {
        delete entry;
        return nullptr;
    }
    Append(entry);
    return &entry->m_Value;
}

// Any key kind, by the rules of operator==; nothing is added.
ScriptVal *ScriptVal::FindKeyPtr(const ScriptVal &key) const
{
    if (!HoldsTable()) return nullptr;
    ScriptVal *self = const_cast<ScriptVal *>(this);
    if (key.IsNumber()) return self->FindNumber(key.m_Value.m_Number, false);
    if (key.IsString()) return self->FindText(MakeKey(key.m_Value.m_String.m_String + 1), false, false);
    for (TableEntry *e = FirstEntry(); e; e = e->m_Next)
        if (e->m_Key == key) return &e->m_Value;
    return nullptr;
}

ScriptVal &ScriptVal::FindKey(const ScriptVal &key)
{
    if (!HoldsTable()) return Scratch();
    if (key.IsNumber()) return FindKey(key.m_Value.m_Number);
    if (key.IsString())
    {
        TextKey text{key.m_Value.m_String.m_String + 1, std::strlen(key.m_Value.m_String.m_String + 1),
                     key.m_Value.m_String.m_Hash, key.m_Value.m_String.m_String};
        ScriptVal *found = FindText(text, true, false);
        return found ? *found : Scratch();
    }
    if (ScriptVal *found = FindKeyPtr(key)) return *found;
    TableEntry *entry = new TableEntry(key);
    if (!entry) return Scratch();
    Append(entry);
    return entry->m_Value;
}

ScriptVal &ScriptVal::FindKey(double key)
{
    ScriptVal *found = HoldsTable() ? FindNumber(key, true) : nullptr;
    return found ? *found : Scratch();
}

ScriptVal &ScriptVal::FindKey(const char *key)
{
    ScriptVal *found = HoldsTable() && key ? FindText(MakeKey(key), true, false) : nullptr;
    return found ? *found : Scratch();
}

ScriptVal &ScriptVal::FindKey(const char *key, int len)
{
    ScriptVal *found = HoldsTable() && key ? FindText(MakeKey(key, len < 0 ? 0 : len), true, false) : nullptr;
    return found ? *found : Scratch();
}

ScriptVal &ScriptVal::FindKey(const KeID &key)
{
    const char *text = key.Text();
    if (!HoldsTable() || !text) return Scratch();
    // A key held in a block is shared by the new entry rather than copied.
    const char *block = IsStringBlock(key.Raw()) ? key.Raw() : nullptr;
    ScriptVal *found = FindText(MakeKey(text, -1, block), true, false);
    return found ? *found : Scratch();
}

const ScriptVal &ScriptVal::FindKeyConst(const ScriptVal &key) const
{
    if (!HoldsTable()) return Scratch();
    const ScriptVal *found = FindKeyPtr(key);
    return found ? *found : nil;
}

const ScriptVal &ScriptVal::FindKeyConst(double key) const
{
    if (!HoldsTable()) return Scratch();
    const ScriptVal *found = const_cast<ScriptVal *>(this)->FindNumber(key, false);
    return found ? *found : nil;
}

const ScriptVal &ScriptVal::FindKeyConst(const char *key) const
{
    if (!HoldsTable()) return Scratch();
    const ScriptVal *found =
        key ? const_cast<ScriptVal *>(this)->FindText(MakeKey(key), false, false) : nullptr;
    return found ? *found : nil;
}

const ScriptVal &ScriptVal::FindKeyConst(const char *key, int len) const
{
    if (!HoldsTable()) return Scratch();
    const ScriptVal *found =
        key ? const_cast<ScriptVal *>(this)->FindText(MakeKey(key, len < 0 ? 0 : len), false, false)
            : nullptr;
    return found ? *found : nil;
}

const ScriptVal &ScriptVal::FindKeyConst(const KeID &key) const
{
    return FindKeyConst(key.Text());
}

// ---- case-insensitive look-ups -----------------------------------------------------------------

ScriptVal *ScriptVal::FindKeyNoCase(const char *key)
{
    return HoldsTable() && key ? FindText(MakeKey(key), true, true) : nullptr;
}

ScriptVal *ScriptVal::FindKeyNoCase(const char *key, int len)
{
    return HoldsTable() && key ? FindText(MakeKey(key, len < 0 ? 0 : len), true, true) : nullptr;
}

ScriptVal *ScriptVal::FindKeyNoCase(const ScriptVal &key)
{
    if (!HoldsTable()) return nullptr;
    if (key.IsNumber()) return FindNumber(key.m_Value.m_Number, false);
    if (key.IsString()) return FindText(MakeKey(key.m_Value.m_String.m_String + 1), false, true);
    return nullptr;
}

const ScriptVal *ScriptVal::FindKeyNoCaseConst(const char *key) const
{
    return HoldsTable() && key ? const_cast<ScriptVal *>(this)->FindText(MakeKey(key), false, true) : nullptr;
}

const ScriptVal *ScriptVal::FindKeyNoCaseConst(const char *key, int len) const
{
    if (!HoldsTable() || !key) return nullptr;
    return const_cast<ScriptVal *>(this)->FindText(MakeKey(key, len < 0 ? 0 : len), false, true);
}

const ScriptVal *ScriptVal::FindKeyNoCaseConst(const ScriptVal &key) const
{
    return const_cast<ScriptVal *>(this)->FindKeyNoCase(key);
}

// ---- nested paths ------------------------------------------------------------------------------

ScriptVal *ScriptVal::FindKeyNest(const char *path, bool create)
{
    // A receiver that isn't a table gives null: its look-ups land in the per-thread scratch value,
    // which the next look-up on a non-table cleans, so a pointer into it would soon alias freed entries.
    if (!path || !HoldsTable()) return nullptr;
    ScriptVal *cur = this;
    for (Segment seg = NextSegment(path);; seg = NextSegment(seg.text + seg.len + 1))
    {
        if (seg.last)
        {
            if (!cur->IsTable()) return nullptr;
            ScriptVal &v = seg.isNumber ? cur->FindKey(static_cast<double>(seg.number))
                                        : cur->FindKey(seg.text, seg.len);
            return IsScratch(&v) ? nullptr : &v;
        }
        if (create)
        {
            ScriptVal &v = seg.isNumber ? cur->FindKey(static_cast<double>(seg.number))
                                        : cur->FindKey(seg.text, seg.len);
            if (IsScratch(&v))
                return nullptr; // no entry could be allocated; never walk on through the scratch value
            if (!v.IsTable()) v = SV_Table;
            cur = &v;
            continue;
        }
        const ScriptVal &v = seg.isNumber ? cur->FindKeyConst(static_cast<double>(seg.number))
                                          : cur->FindKeyConst(seg.text, seg.len);
        if (!v.IsTable()) return nullptr;
        cur = const_cast<ScriptVal *>(&v);
    }
}

const ScriptVal *ScriptVal::FindKeyNestConst(const char *path) const
{
    if (!path || !HoldsTable()) return nullptr;
    const ScriptVal *cur = this;
    for (Segment seg = NextSegment(path);; seg = NextSegment(seg.text + seg.len + 1))
    {
        const ScriptVal &v = seg.isNumber ? cur->FindKeyConst(static_cast<double>(seg.number))
                                          : cur->FindKeyConst(seg.text, seg.len);
        if (seg.last) return &v;
        if (!v.IsTable()) return nullptr;
        cur = &v;
    }
}

ScriptVal *ScriptVal::FindKeyNoCaseNest(const char *path, bool create)
{
    if (!path) return nullptr;
    ScriptVal *cur = this;
    for (Segment seg = NextSegment(path);; seg = NextSegment(seg.text + seg.len + 1))
    {
        if (!cur->IsTable()) return nullptr;
        ScriptVal *v;
        if (seg.isNumber)
            v = create && !seg.last ? &cur->FindKey(static_cast<double>(seg.number))
                                    : cur->FindNumber(static_cast<double>(seg.number), false);
        else if (create || seg.last)
            v = cur->FindKeyNoCase(seg.text, seg.len);
        else
            v = const_cast<ScriptVal *>(cur->FindKeyNoCaseConst(seg.text, seg.len));
        if (!v || seg.last) return v;
        if (!v->IsTable())
        {
            if (!create) return nullptr;
            *v = SV_Table;
        }
        cur = v;
    }
}

const ScriptVal *ScriptVal::FindKeyNoCaseNestConst(const char *path) const
{
    if (!path) return nullptr;
    const ScriptVal *cur = this;
    for (Segment seg = NextSegment(path);; seg = NextSegment(seg.text + seg.len + 1))
    {
        if (!cur->IsTable()) return nullptr;
        const ScriptVal *v = seg.isNumber
                                 ? cur->FindKeyNoCaseConst(ScriptVal(static_cast<double>(seg.number)))
                                 : cur->FindKeyNoCaseConst(seg.text, seg.len);
        if (!v || seg.last) return v;
        cur = v;
    }
}

ScriptVal *ScriptVal::FindKeyNest(const KeID &path, bool create)
{
    return FindKeyNest(path.Text(), create);
}

ScriptVal *ScriptVal::FindKeyNest(const ScriptVal &path, bool create)
{
    return FindKeyNest(path.ToString(), create);
}

const ScriptVal *ScriptVal::FindKeyNestConst(const KeID &path) const
{
    return FindKeyNestConst(path.Text());
}

const ScriptVal *ScriptVal::FindKeyNestConst(const ScriptVal &path) const
{
    return FindKeyNestConst(path.ToString());
}

ScriptVal *ScriptVal::FindKeyNoCaseNest(const KeID &path, bool create)
{
    return FindKeyNoCaseNest(path.Text(), create);
}

ScriptVal *ScriptVal::FindKeyNoCaseNest(const ScriptVal &path, bool create)
{
    return FindKeyNoCaseNest(path.ToString(), create);
}

const ScriptVal *ScriptVal::FindKeyNoCaseNestConst(const KeID &path) const
{
    return FindKeyNoCaseNestConst(path.Text());
}

const ScriptVal *ScriptVal::FindKeyNoCaseNestConst(const ScriptVal &path) const
{
    return FindKeyNoCaseNestConst(path.ToString());
}

// ---- keys, counting, iteration -----------------------------------------------------------------

ScriptVal &ScriptVal::AddKey(const ScriptVal &key)
{
    if (Type() != SV_Table || !key.IsString()) return FindKey(key);
    TableEntry *entry = new TableEntry(key);
    if (!entry) return Scratch();
    Append(entry);
    return entry->m_Value;
}

bool ScriptVal::Exists(const ScriptVal &key) const
{
    return FindKeyPtr(key) != nullptr;
}

int ScriptVal::NumKeys() const
{
    int count = 0;
    for (TableEntry *e = FirstEntry(); e; e = e->m_Next)
        if (!e->m_Key.IsNil() && !e->m_Value.IsNil()) ++count;
    return count;
}

bool ScriptVal::IsEmpty() const
{
    for (TableEntry *e = FirstEntry(); e; e = e->m_Next)
        if (!e->m_Key.IsNil() && !e->m_Value.IsNil()) return false;
    return true;
}

bool ScriptVal::NextKey(TableEntry *&cursor) const
{
    if (!HoldsTable()) return false;
    TableEntry *e = cursor ? cursor->m_Next : m_Value.m_Table.m_Table;
    while (e && (e->m_Key.IsNil() || e->m_Value.IsNil()))
        e = e->m_Next;
    cursor = e;
    return e != nullptr;
}

// ---- member access, also across a link ---------------------------------------------------------

ScriptVal ScriptVal::RemoteGet(const ScriptVal &key)
{
    auto doCommand = GetRemoteHooks().doCommand;
    if (!doCommand) return ScriptVal();
    ScriptArgs args;
    args.FindKey(0.0) = key;
    if (!doCommand(m_Value.m_RemoteObject, SST_GetTable, args) || !args.HoldsTable()) return ScriptVal();
    return args.FindKeyConst(-1.0);
}

void ScriptVal::RemoteSet(const ScriptVal &key, const ScriptVal &value)
{
    auto doCommand = GetRemoteHooks().doCommand;
    if (!doCommand) return;
    ScriptArgs args;
    args.FindKey(0.0) = key;
    args.FindKey(1.0) = value;
    (void)doCommand(m_Value.m_RemoteObject, SST_SetTable, args);
}

ScriptVal ScriptVal::GetKey(const char *key)
{
    if (HoldsTable()) return FindKey(key);
    return IsRemoteObject() && key ? RemoteGet(ScriptVal(key)) : ScriptVal();
}

ScriptVal ScriptVal::GetKey(double key)
{
    if (HoldsTable()) return FindKey(key);
    return IsRemoteObject() ? RemoteGet(ScriptVal(key)) : ScriptVal();
}

void ScriptVal::SetKey(const char *key, const ScriptVal &value)
{
    if (HoldsTable())
    {
        ScriptVal copy(value); // `value` may live inside this table
        FindKey(key) = std::move(copy);
    }
    else if (IsRemoteObject() && key)
    {
        RemoteSet(ScriptVal(key), value);
    }
}

void ScriptVal::SetKey(double key, const ScriptVal &value)
{
    if (HoldsTable())
    {
        ScriptVal copy(value);
        FindKey(key) = std::move(copy);
    }
    else if (IsRemoteObject())
    {
        RemoteSet(ScriptVal(key), value);
    }
}

// ---- constructor names and attached lists ------------------------------------------------------

const char *ScriptVal::GetConstructor() const
{
    if (Type() != SV_Table || !m_Value.m_Table.m_Constructor) return nullptr;
    return m_Value.m_Table.m_Constructor + 1;
}

void ScriptVal::SetConstructor(const char *name)
{
    if (Type() != SV_Table) return;
    char *block = StringBlockShareOrCopy(name);
    StringBlockRelease(m_Value.m_Table.m_ConstructorCopy);
    m_Value.m_Table.m_Constructor = block;
    m_Value.m_Table.m_ConstructorCopy = block;
}

void ScriptVal::SetConstructor(const KeID &name)
{
    SetConstructor(name.Raw());
}

void ScriptVal::SetTable(TableEntry *head)
{
    if (Type() != SV_Table) return;
    CleanTable();
    m_Value.m_Table.m_Table = head;
    TableEntry *last = head;
    while (last && last->m_Next)
        last = last->m_Next;
    m_Value.m_Table.m_Last = last;
}

// ---- copying -----------------------------------------------------------------------------------

// Stores the table or args payload `src` into this value, which holds the bare word and nothing else.
void ScriptVal::StoreTable(const ScriptValue *src)
{
    m_Value = ScriptValue{};
    if (!src) return;
    if (Type() == SV_Args)
    {
        CopyEntries(src->m_Args.m_Table);
        return;
    }
    char *ctor = StringBlockShareOrCopy(src->m_Table.m_Constructor);
    m_Value.m_Table.m_Constructor = ctor;
    m_Value.m_Table.m_ConstructorCopy = ctor;
    if (!CopyArray(src->m_Table.m_Table)) CopyEntries(src->m_Table.m_Table);
}

// Dense numeric arrays (keys 1..N, N above 64, number values) skip the sorted insertion. The copy
// becomes a bare one-line table: constructor name and the source's flags are dropped. The new value is
// built aside (Set cleans the target only afterwards), so the source stays intact while it is read and
// the entries can be made in one forward pass, with no temporary array.
bool ScriptVal::CopyArray(const TableEntry *source)
{
    size_t n = 0;
    for (const TableEntry *e = source; e; e = e->m_Next, ++n)
        if (!e->m_Key.IsNumber() || !e->m_Value.IsNumber() || e->m_Key.m_Value.m_Number != double(n + 1))
            return false;
    if (n < kArrayPathMin) return false;
    const uint32_t valueWord = SV_Number | source->m_Value.GetFlags(SVF_Single);
    StringBlockRelease(m_Value.m_Table.m_ConstructorCopy);
    m_Value = ScriptValue{};
    m_Type = SV_Table | SVF_OneLine;
    TableEntry *last = nullptr;
    for (const TableEntry *e = source; e; e = e->m_Next)
    {
        TableEntry *entry = new TableEntry();
        if (!entry)
        {
            CleanTable(); // out of entries part-way: an empty table rather than one with gaps
            return true;
        }
        entry->m_Key.m_Type = SV_Number;
        entry->m_Key.m_Value.m_Number = e->m_Key.m_Value.m_Number;
        entry->m_Value.m_Type = valueWord;
        entry->m_Value.m_Value.m_Number = e->m_Value.m_Value.m_Number;
        if (last)
            last->m_Next = entry;
        else
            m_Value.m_Table.m_Table = entry;
        last = entry;
        m_Value.m_Table.m_Last = entry;
    }
    return true;
}

// The general copy. The target is fresh, so a string key of a table can't be present yet and is
// appended without a search; a number key above every number key copied so far goes to the tail,
// which is where the search would put it. Other keys take the search.
void ScriptVal::CopyEntries(const TableEntry *source)
{
    bool haveMax = false;
    double maxKey = 0.0;
    TableEntry *tail = nullptr;
    for (const TableEntry *e = source; e; e = e->m_Next)
    {
        ScriptVal *value = nullptr;
        const ScriptVal &key = e->m_Key;
        bool numberAtTail = key.IsNumber() && (!haveMax || key.m_Value.m_Number > maxKey);
        if ((Type() == SV_Table && key.IsString()) || numberAtTail)
        {
            TableEntry *entry = new TableEntry(key);
            if (!entry) continue;
            LinkTail(entry, tail);
            tail = entry;
            value = &entry->m_Value;
        }
        else
        {
            value = &FindKey(key);
            tail = LastEntry();
        }
        if (key.IsNumber() && !std::isnan(key.m_Value.m_Number) &&
            (!haveMax || key.m_Value.m_Number > maxKey))
        {
            haveMax = true;
            maxKey = key.m_Value.m_Number;
        }
        value->Set(static_cast<ScriptValType>(e->m_Value.m_Flags & ~SVF_Const), &e->m_Value.m_Value);
    }
}

} // namespace orvexScript
