// The private pool of TableEntry slots: 1 MiB chunks aligned to their size, so a slot finds its
// chunk by masking its address. Each chunk keeps its own free list and use count; chunks with free
// slots sit on an "available" list. One mutex guards it all; the pool is created once. Every thread
// keeps a small cache of free slots, filled and emptied in batches.
#include "values/model/TableEntry.h"

#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>

namespace orvexScript
{

namespace
{

constexpr size_t kChunkSize = 0x100000;

struct FreeSlot
{
    FreeSlot *next;
};

struct Chunk
{
    Chunk *nextAll = nullptr; // every chunk
    Chunk *prevAll = nullptr;
    Chunk *nextAvail = nullptr; // chunks with a free slot
    Chunk *prevAvail = nullptr;
    bool available = false;
    FreeSlot *freeList = nullptr;
    size_t used = 0;   // slots handed out
    size_t bumped = 0; // slots ever carved from the chunk's tail
};

constexpr size_t kSlotSize =
    (sizeof(TableEntry) + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
constexpr size_t kHeaderSize =
    (sizeof(Chunk) + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
constexpr size_t kSlotsPerChunk = (kChunkSize - kHeaderSize) / kSlotSize;

class EntryPool
{
public:
    void *Allocate();
    void Free(void *ptr);
    // A list of up to `wanted` slots linked through FreeSlot, `got` of them; and back.
    FreeSlot *AllocateList(unsigned wanted, unsigned &got);
    void FreeList(FreeSlot *slot);
    void Compact();

private:
    Chunk *NewChunk();
    void *AllocateLocked();
    void FreeLocked(void *ptr);
    void LinkAvail(Chunk *chunk);
    void UnlinkAvail(Chunk *chunk);

    std::mutex m_Lock;
    Chunk *m_All = nullptr;
    Chunk *m_Avail = nullptr;
};

std::once_flag s_PoolOnce;
EntryPool *s_Pool = nullptr;

EntryPool *Pool()
{
    // Never destroyed: entries of static tables may be freed after other statics are gone.
    std::call_once(s_PoolOnce, [] { s_Pool = new (std::nothrow) EntryPool; });
    return s_Pool;
}

Chunk *ChunkOf(void *slot)
{
    return reinterpret_cast<Chunk *>(reinterpret_cast<uintptr_t>(slot) & ~(uintptr_t)(kChunkSize - 1));
}

Chunk *EntryPool::NewChunk()
{
    void *memory = std::aligned_alloc(kChunkSize, kChunkSize);
    if (!memory) return nullptr;
    Chunk *chunk = new (memory) Chunk;
    chunk->nextAll = m_All;
    if (m_All) m_All->prevAll = chunk;
    m_All = chunk;
    LinkAvail(chunk);
    return chunk;
}

void EntryPool::LinkAvail(Chunk *chunk)
{
    chunk->available = true;
    chunk->prevAvail = nullptr;
    chunk->nextAvail = m_Avail;
    if (m_Avail) m_Avail->prevAvail = chunk;
    m_Avail = chunk;
}

void EntryPool::UnlinkAvail(Chunk *chunk)
{
    if (chunk->prevAvail)
        chunk->prevAvail->nextAvail = chunk->nextAvail;
    else
        m_Avail = chunk->nextAvail;
    if (chunk->nextAvail) chunk->nextAvail->prevAvail = chunk->prevAvail;
    chunk->nextAvail = chunk->prevAvail = nullptr;
    chunk->available = false;
}

void *EntryPool::Allocate()
{
    std::lock_guard<std::mutex> guard(m_Lock);
    return AllocateLocked();
}

void *EntryPool::AllocateLocked()
{
    Chunk *chunk = m_Avail ? m_Avail : NewChunk();
    if (!chunk) return nullptr;
    void *slot;
    if (chunk->freeList)
    {
        slot = chunk->freeList;
        chunk->freeList = chunk->freeList->next;
        // Slots come back in whatever order their table was freed, so the next one is likely far
        // from this and not in cache: its link is read on the next allocation.
        if (chunk->freeList) __builtin_prefetch(chunk->freeList, 1);
    }
    else
    {
        slot = reinterpret_cast<char *>(chunk) + kHeaderSize + chunk->bumped * kSlotSize;
        ++chunk->bumped;
    }
    ++chunk->used;
    if (!chunk->freeList && chunk->bumped == kSlotsPerChunk) UnlinkAvail(chunk);
    return slot;
}

FreeSlot *EntryPool::AllocateList(unsigned wanted, unsigned &got)
{
    FreeSlot *head = nullptr;
    got = 0;
    std::lock_guard<std::mutex> guard(m_Lock);
    while (got < wanted)
    {
        void *slot = AllocateLocked();
        if (!slot) break;
        auto *free = static_cast<FreeSlot *>(slot);
        free->next = head;
        head = free;
        ++got;
    }
    return head;
}

void EntryPool::FreeList(FreeSlot *slot)
{
    std::lock_guard<std::mutex> guard(m_Lock);
    while (slot)
    {
        FreeSlot *next = slot->next;
        FreeLocked(slot);
        slot = next;
    }
}

void EntryPool::Free(void *ptr)
{
    std::lock_guard<std::mutex> guard(m_Lock);
    FreeLocked(ptr);
}

void EntryPool::FreeLocked(void *ptr)
{
    Chunk *chunk = ChunkOf(ptr);
    FreeSlot *slot = static_cast<FreeSlot *>(ptr);
    slot->next = chunk->freeList;
    chunk->freeList = slot;
    if (--chunk->used == 0)
    {
        // Every slot is back: the chunk hands them out from its start again, in address order, rather
        // than in the scattered order they came back in.
        chunk->freeList = nullptr;
        chunk->bumped = 0;
    }
    if (!chunk->available) LinkAvail(chunk);
}

void EntryPool::Compact()
{
    std::lock_guard<std::mutex> guard(m_Lock);
    for (Chunk *chunk = m_All; chunk;)
    {
        Chunk *next = chunk->nextAll;
        if (chunk->used == 0)
        {
            if (chunk->available) UnlinkAvail(chunk);
            if (chunk->prevAll)
                chunk->prevAll->nextAll = chunk->nextAll;
            else
                m_All = chunk->nextAll;
            if (chunk->nextAll) chunk->nextAll->prevAll = chunk->prevAll;
            chunk->~Chunk();
            std::free(chunk);
        }
        chunk = next;
    }
}

} // namespace

namespace
{
// Each thread keeps a few free slots of its own, so that building and freeing a table takes the
// pool's mutex once per batch instead of once per entry. A thread that ends gives its slots back.
constexpr unsigned kCacheBatch = 64;
constexpr unsigned kCacheMax = 4 * kCacheBatch;

struct SlotCache
{
    FreeSlot *head = nullptr;
    unsigned count = 0;
    ~SlotCache();
};

thread_local bool t_CacheGone = false; // trivially destructible: readable while the cache dies
thread_local SlotCache t_Cache;

SlotCache::~SlotCache()
{
    t_CacheGone = true;
    if (s_Pool) s_Pool->FreeList(head);
    head = nullptr;
    count = 0;
}
} // namespace

void *TableEntry::operator new(size_t size) noexcept
{
    if (size > kSlotSize) return nullptr;
    EntryPool *pool = Pool();
    if (!pool) return nullptr;
    if (t_CacheGone) return pool->Allocate();
    SlotCache &cache = t_Cache;
    if (!cache.head)
    {
        cache.head = pool->AllocateList(kCacheBatch, cache.count);
        if (!cache.head) return nullptr;
    }
    FreeSlot *slot = cache.head;
    cache.head = slot->next;
    --cache.count;
    return slot;
}

void TableEntry::operator delete(void *ptr) noexcept
{
    if (!ptr || !s_Pool) return;
    if (t_CacheGone)
    {
        s_Pool->Free(ptr);
        return;
    }
    SlotCache &cache = t_Cache;
    auto *slot = static_cast<FreeSlot *>(ptr);
    slot->next = cache.head;
    cache.head = slot;
    if (++cache.count < kCacheMax) return;
    // Too many: the older half goes back to the pool in one go.
    FreeSlot *keep = cache.head;
    for (unsigned i = 1; i < kCacheMax / 2; ++i)
        keep = keep->next;
    FreeSlot *rest = keep->next;
    keep->next = nullptr;
    cache.count = kCacheMax / 2;
    s_Pool->FreeList(rest);
}

void TableEntry::HeapCompact()
{
    if (!s_Pool) return;
    if (!t_CacheGone)
    {
        // This thread's cached slots go back first, so that the chunks they sit in can go too.
        s_Pool->FreeList(t_Cache.head);
        t_Cache.head = nullptr;
        t_Cache.count = 0;
    }
    s_Pool->Compact();
}

} // namespace orvexScript
