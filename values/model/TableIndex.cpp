// TableIndex: the hash of a large table's keys, the sorted blocks of its number entries, and the
// process-wide registry that maps the 32-bit handle kept in a ScriptVal to its index.
// Sections: key compares, registry, building and hashing, integer pages, number order.
#include "values/model/TableIndex.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "values/model/TableEntry.h"

namespace orvexScript
{

namespace
{

constexpr size_t kDefaultThreshold = 24;
constexpr size_t kMinCapacity = 16;
constexpr size_t kBlockCap = 128;    // number items per block; a full block splits in two
constexpr size_t kFirstBlockCap = 8; // a block starts small and doubles, so small tables stay small
constexpr size_t kPageItems = 256;   // integer keys per page
constexpr size_t kPageWords = kPageItems / 64;
// An integer key gets a page while it is below kPagedFloor or below kPagedSpread times the entry
// count. Pages exist only where records are, so a table of scattered keys costs at most
// kPagedSpread items of 16 bytes per entry in pages, beside one page for the keys under the floor.
constexpr size_t kPagedFloor = 1024;
constexpr size_t kPagedSpread = 8;
constexpr double kPagedCeiling = 1u << 30;

// Numbers hash by their bits, with -0 folded onto 0 since the two are the same key.
uint32_t NumberHash(double key)
{
    if (key == 0.0) key = 0.0;
    uint64_t bits;
    std::memcpy(&bits, &key, sizeof(bits));
    bits ^= bits >> 33;
    bits *= 0xff51afd7ed558ccdull;
    bits ^= bits >> 33;
    bits *= 0xc4ceb9fe1a85ec53ull;
    bits ^= bits >> 33;
    return static_cast<uint32_t>(bits);
}

bool Indexable(const ScriptVal &key)
{
    return key.IsString() || (key.IsNumber() && !std::isnan(key.m_Value.m_Number));
}

uint32_t KeyHash(const ScriptVal &key)
{
    return key.IsString() ? key.m_Value.m_String.m_Hash : NumberHash(key.m_Value.m_Number);
}

} // namespace

std::atomic<size_t> g_TableIndexThreshold{kDefaultThreshold};

void SetTableIndexThreshold(size_t entries)
{
    g_TableIndexThreshold.store(entries ? entries : kDefaultThreshold, std::memory_order_relaxed);
}

// ---- key compares ------------------------------------------------------------------------------

char TableFoldAscii(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
}

bool TableTextEqual(const char *stored, const char *key, size_t len)
{
    return std::strncmp(stored, key, len) == 0 && stored[len] == '\0';
}

bool TableTextEqualNoCase(const char *stored, const char *key, size_t len)
{
    for (size_t i = 0; i < len; ++i)
        if (TableFoldAscii(stored[i]) != TableFoldAscii(key[i]) || !stored[i]) return false;
    return stored[len] == '\0';
}

// ---- registry ----------------------------------------------------------------------------------
// Handles index chunks that never move, so a read takes two acquire loads and no lock. Handles are
// given out and taken back under one mutex; handle 0 means "no index".

namespace
{

constexpr uint32_t kChunkBits = 14;
constexpr uint32_t kChunkSlots = 1u << kChunkBits;
constexpr uint32_t kMaxChunks = 1u << (32 - kChunkBits);

std::atomic<std::atomic<TableIndex *> *> s_Chunks[kMaxChunks];
std::mutex s_RegistryLock;
uint32_t s_NextHandle = 1;
uint32_t *s_FreeHandles = nullptr;
size_t s_NumFree = 0;
size_t s_FreeCap = 0;

std::atomic<TableIndex *> *SlotOf(uint32_t handle)
{
    std::atomic<TableIndex *> *chunk = s_Chunks[handle >> kChunkBits].load(std::memory_order_acquire);
    return chunk ? &chunk[handle & (kChunkSlots - 1)] : nullptr;
}

// A free handle with its slot in place, or 0. Called under the lock.
uint32_t TakeHandle()
{
    if (s_NumFree) return s_FreeHandles[--s_NumFree];
    if (s_NextHandle == 0) return 0; // every handle is in use
    uint32_t handle = s_NextHandle;
    std::atomic<std::atomic<TableIndex *> *> &chunk = s_Chunks[handle >> kChunkBits];
    if (!chunk.load(std::memory_order_relaxed))
    {
        auto *slots = static_cast<std::atomic<TableIndex *> *>(std::calloc(kChunkSlots, sizeof(void *)));
        if (!slots) return 0;
        chunk.store(slots, std::memory_order_release);
    }
    ++s_NextHandle;
    return handle;
}

void GiveBackHandle(uint32_t handle)
{
    if (s_NumFree == s_FreeCap)
    {
        size_t cap = s_FreeCap ? s_FreeCap * 2 : 256;
        auto *grown = static_cast<uint32_t *>(std::realloc(s_FreeHandles, cap * sizeof(uint32_t)));
        if (!grown) return; // the handle number is lost, nothing else
        s_FreeHandles = grown;
        s_FreeCap = cap;
    }
    s_FreeHandles[s_NumFree++] = handle;
}

} // namespace

uint32_t TableIndex::Create(const ScriptVal *owner, TableEntry *head)
{
    TableIndex *index = new (std::nothrow) TableIndex;
    if (!index) return 0;
    index->m_Owner = owner;
    if (!index->Build(head))
    {
        delete index;
        return 0;
    }
    std::lock_guard<std::mutex> guard(s_RegistryLock);
    uint32_t handle = TakeHandle();
    if (!handle)
    {
        delete index;
        return 0;
    }
    SlotOf(handle)->store(index, std::memory_order_release);
    return handle;
}

TableIndex *TableIndex::Get(uint32_t handle)
{
    if (!handle) return nullptr;
    std::atomic<TableIndex *> *slot = SlotOf(handle);
    return slot ? slot->load(std::memory_order_acquire) : nullptr;
}

void TableIndex::Release(uint32_t handle)
{
    TableIndex *index = nullptr;
    {
        std::lock_guard<std::mutex> guard(s_RegistryLock);
        std::atomic<TableIndex *> *slot = handle ? SlotOf(handle) : nullptr;
        if (!slot) return;
        index = slot->exchange(nullptr, std::memory_order_acq_rel);
        if (index) GiveBackHandle(handle);
    }
    delete index;
}

// ---- building and hashing ----------------------------------------------------------------------

// Number entries in ascending key order, in one allocation: the header, then `cap` keys, entries and
// predecessors (the entry in front of each in the list). The keys stand apart so that a search reads
// only them.
struct TableIndex::Block
{
    size_t n;
    size_t cap;

    double *Keys() { return reinterpret_cast<double *>(this + 1); }
    TableEntry **Entries() { return reinterpret_cast<TableEntry **>(Keys() + cap); }
    TableEntry **Prevs() { return Entries() + cap; }

    static Block *New(size_t cap)
    {
        Block *block =
            static_cast<Block *>(std::malloc(sizeof(Block) + cap * (sizeof(double) + 2 * sizeof(void *))));
        if (block)
        {
            block->n = 0;
            block->cap = cap;
        }
        return block;
    }

    // A copy of `count` items from `from` starting at `first`, into this (empty) block.
    void Take(Block *from, size_t first, size_t count)
    {
        std::memcpy(Keys(), from->Keys() + first, count * sizeof(double));
        std::memcpy(Entries(), from->Entries() + first, count * sizeof(TableEntry *));
        std::memcpy(Prevs(), from->Prevs() + first, count * sizeof(TableEntry *));
        n = count;
    }
};

// A full block below the largest size gives way to one of twice its capacity.
TableIndex::Block *TableIndex::Widen(size_t b)
{
    Block *old = m_Blocks[b];
    Block *block = Block::New(old->cap * 2 > kBlockCap ? kBlockCap : old->cap * 2);
    if (!block) return nullptr;
    block->Take(old, 0, old->n);
    std::free(old);
    m_Blocks[b] = block;
    return block;
}

// Records with integer keys in one range of kPageItems: a bit for each key that has one (for the
// successor scan), and the record's entry (null if none) and predecessor side by side, since
// placing a key reads both.
struct TableIndex::Page
{
    struct Item
    {
        TableEntry *entry;
        TableEntry *prev;
    };
    uint64_t bits[kPageWords];
    Item items[kPageItems];
};

TableIndex::~TableIndex()
{
    for (size_t i = 0; i < m_NumPages; ++i)
        std::free(m_Pages[i]);
    std::free(m_Pages);
    std::free(m_Slots);
    for (size_t i = 0; i < m_NumBlocks; ++i)
        std::free(m_Blocks[i]);
    std::free(m_Blocks);
    std::free(m_BlockMax);
}

// Indexes the list in list order, so that among equal keys the first in the list is found first:
// linear probing without removal keeps equal-hash keys in the order they were added.
//
// The number order holds only the number entries greater than every number key in front of them.
// That is enough to place a new key by the list rule: the first number key in list order greater than
// k is greater than all keys before it, so it is the smallest such entry above k. The new entry, placed
// in front of it, is greater than everything before it too and joins the order right there; an entry
// appended below the maximum joins nothing. So tables whose number keys don't ascend need no other path.
bool TableIndex::Build(TableEntry *head)
{
    m_Head = head;
    if (!NewSlots(kMinCapacity)) // grown as keys come: paged number keys take no slot
        return false;
    TableEntry *prev = nullptr;
    for (TableEntry *e = head; e; prev = e, e = e->m_Next)
    {
        m_Tail = e;
        ++m_Count;
        const ScriptVal &key = e->m_Key;
        bool paged = false;
        if (key.IsNumber() && !std::isnan(key.m_Value.m_Number))
        {
            double k = key.m_Value.m_Number;
            if ((!m_HasRecord || k > m_MaxRecord) && !AddRecord(k, e, prev, paged)) return false;
        }
        if (!paged && !AddHash(e)) return false;
    }
    return Settle();
}

// An empty slot array of `capacity`, a power of two.
bool TableIndex::NewSlots(size_t capacity)
{
    Slot *slots = static_cast<Slot *>(std::calloc(capacity, sizeof(Slot)));
    if (!slots) return false;
    m_Slots = slots;
    m_Mask = capacity - 1;
    m_Shift = 64;
    for (size_t c = capacity; c > 1; c >>= 1)
        --m_Shift;
    m_Used = 0;
    return true;
}

void TableIndex::Place(TableEntry *entry, uint32_t hash)
{
    size_t i = (hash * 0x9E3779B97F4A7C15ull) >> m_Shift;
    while (m_Slots[i].entry)
        i = (i + 1) & m_Mask;
    m_Slots[i] = Slot{entry, hash};
    ++m_Used;
}

// Doubles the slot array. The old slots are read in probe order, starting behind an empty one so
// that no cluster is cut at the wrap-around: keys of one hash keep their relative order.
bool TableIndex::Grow()
{
    Slot *old = m_Slots;
    size_t oldCapacity = m_Mask + 1;
    if (!NewSlots(oldCapacity * 2))
    {
        m_Slots = old;
        return false;
    }
    size_t start = 0;
    while (old[start].entry)
        ++start;
    for (size_t n = 0; n < oldCapacity; ++n)
    {
        const Slot &s = old[(start + n) & (oldCapacity - 1)];
        if (s.entry) Place(s.entry, s.hash);
    }
    std::free(old);
    return true;
}

bool TableIndex::AddHash(TableEntry *entry)
{
    if (!Indexable(entry->m_Key)) return true;
    if ((m_Used + 1) * 2 > m_Mask + 1 && !Grow()) return false;
    Place(entry, KeyHash(entry->m_Key));
    return true;
}

TableEntry *TableIndex::FindNumber(double key) const
{
    if (std::isnan(key)) return nullptr;
    // A record is the first entry with its key: nothing in front of it is as large. Paged records
    // stay out of the hash, which holds every other number entry.
    if (key >= 0 && key < double(m_NumPages * kPageItems))
    {
        size_t k = static_cast<size_t>(key);
        const Page *page = m_Pages[k / kPageItems];
        size_t i = k % kPageItems;
        if (double(k) == key && page && page->items[i].entry) return page->items[i].entry;
    }
    uint32_t hash = NumberHash(key);
    for (size_t i = (hash * 0x9E3779B97F4A7C15ull) >> m_Shift; m_Slots[i].entry; i = (i + 1) & m_Mask)
    {
        const Slot &s = m_Slots[i];
        if (s.hash == hash && s.entry->m_Key.IsNumber() && s.entry->m_Key.m_Value.m_Number == key)
            return s.entry;
    }
    return nullptr;
}

TableEntry *TableIndex::FindText(const char *text, size_t len, uint32_t hash, bool noCase) const
{
    for (size_t i = (hash * 0x9E3779B97F4A7C15ull) >> m_Shift; m_Slots[i].entry; i = (i + 1) & m_Mask)
    {
        const Slot &s = m_Slots[i];
        if (s.hash != hash || !s.entry->m_Key.IsString()) continue;
        const char *stored = s.entry->m_Key.m_Value.m_String.m_String + 1;
        if (noCase ? TableTextEqualNoCase(stored, text, len) : TableTextEqual(stored, text, len))
            return s.entry;
    }
    return nullptr;
}

bool TableIndex::Appended(TableEntry *entry)
{
    TableEntry *prev = m_Tail;
    m_Tail = entry;
    if (!m_Head) m_Head = entry;
    ++m_Count;
    const ScriptVal &key = entry->m_Key;
    bool paged = false;
    if (key.IsNumber() && !std::isnan(key.m_Value.m_Number))
    {
        double k = key.m_Value.m_Number;
        if ((!m_HasRecord || k > m_MaxRecord) && !AddRecord(k, entry, prev, paged)) return false;
    }
    return (paged || AddHash(entry)) && Settle();
}

bool TableIndex::InsertedBefore(TableEntry *entry, double key)
{
    TableEntry **nextPrev = m_FoundPaged
                                ? &m_Pages[m_FoundKey / kPageItems]->items[m_FoundKey % kPageItems].prev
                                : &m_Blocks[m_FoundBlock]->Prevs()[m_FoundPos];
    TableEntry *prev = *nextPrev;
    *nextPrev = entry;
    if (!prev) m_Head = entry;
    ++m_Count;
    if (PageEligible(key)) return SetPaged(static_cast<size_t>(key), entry, prev) && Settle();
    bool placed = m_FoundBlock == m_NumBlocks ? PushNumber(key, entry, prev)
                                              : InsertNumber(m_FoundBlock, m_FoundPos, key, entry, prev);
    return placed && AddHash(entry) && Settle();
}

// Each time the entry count doubles, block records whose keys now get pages move there: the early
// keys of a shuffled fill don't stay in the blocks, where every placing would search them. A moved
// record stays in the hash too, harmlessly, since the page is asked first.
bool TableIndex::Settle()
{
    if (m_Count < m_SettleAt) return true;
    m_SettleAt = m_Count * 2;
    if (!m_NumBlocks) return true;
    Block **blocks = m_Blocks;
    size_t numBlocks = m_NumBlocks;
    m_Blocks = nullptr;
    std::free(m_BlockMax);
    m_BlockMax = nullptr;
    m_NumBlocks = 0;
    m_BlockCap = 0;
    bool ok = true;
    for (size_t b = 0; b < numBlocks; ++b)
    {
        Block *block = blocks[b];
        for (size_t i = 0; ok && i < block->n; ++i)
        {
            double key = block->Keys()[i];
            TableEntry *entry = block->Entries()[i];
            TableEntry *prev = block->Prevs()[i];
            ok = PageEligible(key) ? SetPaged(static_cast<size_t>(key), entry, prev)
                                   : PushNumber(key, entry, prev);
        }
        std::free(block);
    }
    std::free(blocks);
    return ok;
}

// ---- integer pages -----------------------------------------------------------------------------

bool TableIndex::PageEligible(double key) const
{
    if (!(key >= 0 && key < kPagedCeiling) || double(static_cast<size_t>(key)) != key) return false;
    size_t k = static_cast<size_t>(key);
    return k < m_NumPages * kPageItems || k < kPagedFloor || k / kPagedSpread < m_Count;
}

bool TableIndex::SetPaged(size_t key, TableEntry *entry, TableEntry *prev)
{
    size_t p = key / kPageItems;
    if (p >= m_NumPages)
    {
        size_t count = m_NumPages ? m_NumPages : 4;
        while (count <= p)
            count *= 2;
        auto *pages = static_cast<Page **>(std::realloc(m_Pages, count * sizeof(Page *)));
        if (!pages) return false;
        std::memset(pages + m_NumPages, 0, (count - m_NumPages) * sizeof(Page *));
        m_Pages = pages;
        m_NumPages = count;
    }
    Page *page = m_Pages[p];
    if (!page)
    {
        page = static_cast<Page *>(std::calloc(1, sizeof(Page)));
        if (!page) return false;
        m_Pages[p] = page;
    }
    size_t i = key % kPageItems;
    page->bits[i / 64] |= uint64_t(1) << (i % 64);
    page->items[i] = Page::Item{entry, prev};
    return true;
}

// The smallest paged record key at or above `from`, or the end of the pages' range.
size_t TableIndex::NextPaged(size_t from) const
{
    size_t end = m_NumPages * kPageItems;
    for (size_t p = from / kPageItems; p < m_NumPages; ++p)
    {
        const Page *page = m_Pages[p];
        if (!page) continue;
        size_t first = p == from / kPageItems ? from % kPageItems : 0;
        for (size_t w = first / 64; w < kPageWords; ++w)
        {
            uint64_t bits = page->bits[w];
            if (w == first / 64) bits &= ~uint64_t(0) << (first % 64);
            if (bits) return p * kPageItems + w * 64 + static_cast<size_t>(__builtin_ctzll(bits));
        }
    }
    return end;
}

TableEntry *TableIndex::NextPagedEntry(size_t &cursor) const
{
    size_t key = NextPaged(cursor);
    if (key >= m_NumPages * kPageItems)
    {
        cursor = key;
        return nullptr;
    }
    cursor = key + 1;
    return m_Pages[key / kPageItems]->items[key % kPageItems].entry;
}

// A number entry greater than every number key in front of it, appended or inserted at the end of
// the records.
bool TableIndex::AddRecord(double key, TableEntry *entry, TableEntry *prev, bool &paged)
{
    paged = PageEligible(key);
    if (!(paged ? SetPaged(static_cast<size_t>(key), entry, prev) : PushNumber(key, entry, prev)))
        return false;
    m_HasRecord = true;
    m_MaxRecord = key;
    return true;
}

// ---- number order ------------------------------------------------------------------------------

namespace
{

// The index of the first of `n` ascending keys greater than `key`, without branches to mispredict.
size_t UpperBound(const double *keys, size_t n, double key)
{
    if (n == 0) return 0;
    const double *base = keys;
    while (n > 1)
    {
        size_t half = n / 2;
        // Arithmetic rather than a choice, which the compiler turned into a branch.
        base += half * static_cast<size_t>(base[half - 1] <= key);
        n -= half;
    }
    return static_cast<size_t>(base - keys) + (*base <= key ? 1 : 0);
}

} // namespace

bool TableIndex::Successor(double key, TableEntry *&next, TableEntry *&prev)
{
    if (std::isnan(key) || !m_HasRecord || !(key < m_MaxRecord)) return false;
    size_t end = m_NumPages * kPageItems;
    size_t paged = end;
    if (m_NumPages && key < double(end))
        paged = NextPaged(key < 0 ? 0 : static_cast<size_t>(std::floor(key)) + 1);
    size_t b = UpperBound(m_BlockMax, m_NumBlocks, key);
    size_t pos = 0;
    if (b < m_NumBlocks) pos = UpperBound(m_Blocks[b]->Keys(), m_Blocks[b]->n, key);
    m_FoundBlock = b;
    m_FoundPos = pos;
    m_FoundPaged = paged < end && (b == m_NumBlocks || double(paged) < m_Blocks[b]->Keys()[pos]);
    if (m_FoundPaged)
    {
        m_FoundKey = paged;
        const Page::Item &item = m_Pages[paged / kPageItems]->items[paged % kPageItems];
        next = item.entry;
        prev = item.prev;
        return true;
    }
    if (b == m_NumBlocks) return false; // cannot happen while a record above `key` exists
    next = m_Blocks[b]->Entries()[pos];
    prev = m_Blocks[b]->Prevs()[pos];
    return true;
}

// Room in the block arrays for one more block.
bool TableIndex::ReserveBlock()
{
    if (m_NumBlocks < m_BlockCap) return true;
    size_t cap = m_BlockCap ? m_BlockCap * 2 : 8;
    auto *blocks = static_cast<Block **>(std::realloc(m_Blocks, cap * sizeof(Block *)));
    if (!blocks) return false;
    m_Blocks = blocks;
    auto *maxima = static_cast<double *>(std::realloc(m_BlockMax, cap * sizeof(double)));
    if (!maxima) return false;
    m_BlockMax = maxima;
    m_BlockCap = cap;
    return true;
}

// Appends the item of a key above every other: O(1), a new block when the last one is full.
bool TableIndex::PushNumber(double key, TableEntry *entry, TableEntry *prev)
{
    Block *last = m_NumBlocks ? m_Blocks[m_NumBlocks - 1] : nullptr;
    if (!last || last->n == kBlockCap)
    {
        last = ReserveBlock() ? Block::New(last ? kBlockCap : kFirstBlockCap) : nullptr;
        if (!last) return false;
        m_Blocks[m_NumBlocks++] = last;
    }
    else if (last->n == last->cap && !(last = Widen(m_NumBlocks - 1)))
    {
        return false;
    }
    last->Keys()[last->n] = key;
    last->Entries()[last->n] = entry;
    last->Prevs()[last->n] = prev;
    ++last->n;
    m_BlockMax[m_NumBlocks - 1] = key;
    return true;
}

bool TableIndex::InsertNumber(size_t b, size_t pos, double key, TableEntry *entry, TableEntry *prev)
{
    Block *block = m_Blocks[b];
    if (block->n == kBlockCap)
    {
        // Split: the upper half moves to a new block behind this one.
        Block *upper = ReserveBlock() ? Block::New(kBlockCap) : nullptr;
        if (!upper) return false;
        size_t half = kBlockCap / 2;
        upper->Take(block, half, kBlockCap - half);
        block->n = half;
        std::memmove(m_Blocks + b + 2, m_Blocks + b + 1, (m_NumBlocks - b - 1) * sizeof(Block *));
        std::memmove(m_BlockMax + b + 2, m_BlockMax + b + 1, (m_NumBlocks - b - 1) * sizeof(double));
        m_Blocks[b + 1] = upper;
        m_BlockMax[b] = block->Keys()[half - 1];
        m_BlockMax[b + 1] = upper->Keys()[upper->n - 1];
        ++m_NumBlocks;
        if (pos > half)
        {
            ++b;
            pos -= half;
            block = upper;
        }
    }
    else if (block->n == block->cap && !(block = Widen(b)))
    {
        return false;
    }
    size_t tail = block->n - pos;
    double *keys = block->Keys();
    TableEntry **entries = block->Entries();
    TableEntry **prevs = block->Prevs();
    std::memmove(keys + pos + 1, keys + pos, tail * sizeof(double));
    std::memmove(entries + pos + 1, entries + pos, tail * sizeof(TableEntry *));
    std::memmove(prevs + pos + 1, prevs + pos, tail * sizeof(TableEntry *));
    keys[pos] = key;
    entries[pos] = entry;
    prevs[pos] = prev;
    ++block->n;
    m_BlockMax[b] = keys[block->n - 1];
    return true;
}

} // namespace orvexScript
