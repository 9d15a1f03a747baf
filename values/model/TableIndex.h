// TableIndex: the look-up index that a large table grows beside its entry list. The list stays the
// table; the index only finds entries and where a new number key goes. Small non-negative integer
// keys that ascend in list order sit in pages of a direct array, found and placed there; the other
// number keys that ascend sit in sorted blocks, each with its predecessor for placing; an
// open-addressing hash finds every string key and every number key that isn't paged. What changes the list is
// in ScriptValTable.cpp.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

class ScriptVal;
class TableEntry;

// Tables whose look-ups walk at least this many entries grow an index. Tests lower it to run the
// indexed paths on small tables, or raise it to run everything linearly; 0 restores the default.
void SetTableIndexThreshold(size_t entries);
extern std::atomic<size_t> g_TableIndexThreshold;
inline size_t TableIndexThreshold()
{
    return g_TableIndexThreshold.load(std::memory_order_relaxed);
}

char TableFoldAscii(char c);

// Key text compares. `stored` is an entry's text, `key` holds no NUL within `len`. strncmp stops at
// the stored text's end, so a shorter stored key with the same hash is never read past.
bool TableTextEqual(const char *stored, const char *key, size_t len);
bool TableTextEqualNoCase(const char *stored, const char *key, size_t len);

class TableIndex
{
public:
    // What the index was built for; a table whose list no longer matches drops its index.
    const ScriptVal *m_Owner = nullptr;
    TableEntry *m_Head = nullptr;
    TableEntry *m_Tail = nullptr;

    // A new index of the list `head` owned by `owner`, registered under a handle (0 on failure).
    static uint32_t Create(const ScriptVal *owner, TableEntry *head);
    // The index under `handle`, or null. Lock-free.
    static TableIndex *Get(uint32_t handle);
    static void Release(uint32_t handle);

    // The first entry in list order with this key, or null.
    TableEntry *FindNumber(double key) const;
    TableEntry *FindText(const char *text, size_t len, uint32_t hash, bool noCase) const;

    // The first number entry in list order whose key is greater than `key`, and the entry in front of
    // it (null at the head); false if there is none. A new number key goes in front of `next`, or to
    // the tail if there is none. Only the entries greater than every number key in front of them can
    // be `next`, so the index keeps those alone ("records") with their predecessors.
    bool Successor(double key, TableEntry *&next, TableEntry *&prev);

    // Records `entry`, just linked at the tail. False if the index couldn't grow (drop it then).
    [[nodiscard]] bool Appended(TableEntry *entry);
    // Records `entry` (number key `key`), just linked in front of what the last Successor call gave.
    [[nodiscard]] bool InsertedBefore(TableEntry *entry, double key);

    // The entry of the next paged record at or above key `cursor`, which moves past it; null at the
    // end. Records ascend in list order, so this runs ahead of a walk that frees the list.
    TableEntry *NextPagedEntry(size_t &cursor) const;

    ~TableIndex();

private:
    struct Slot
    {
        TableEntry *entry;
        uint32_t hash;
    };
    struct Block;
    struct Page;

    bool Build(TableEntry *head);
    bool NewSlots(size_t capacity);
    void Place(TableEntry *entry, uint32_t hash);
    bool Grow();
    bool AddHash(TableEntry *entry);
    bool ReserveBlock();
    Block *Widen(size_t block);
    bool PushNumber(double key, TableEntry *entry, TableEntry *prev);
    bool InsertNumber(size_t block, size_t pos, double key, TableEntry *entry, TableEntry *prev);
    bool AddRecord(double key, TableEntry *entry, TableEntry *prev, bool &paged);
    bool PageEligible(double key) const;
    bool SetPaged(size_t key, TableEntry *entry, TableEntry *prev);
    size_t NextPaged(size_t from) const;
    bool Settle();

    Slot *m_Slots = nullptr;
    size_t m_Mask = 0;      // capacity - 1
    unsigned m_Shift = 64;  // 64 - log2(capacity)
    size_t m_Used = 0;      // slots in use: the strings and the number entries not paged
    size_t m_Count = 0;     // entries in the list
    size_t m_SettleAt = 64; // the entry count at which block records next move to pages

    Block **m_Blocks = nullptr;
    double *m_BlockMax = nullptr; // the last key of each block
    size_t m_NumBlocks = 0;
    size_t m_BlockCap = 0;
    // Records with small non-negative integer keys: page p holds keys [p * kPageItems, (p + 1) * kPageItems).
    // A record stays where it was put; the blocks keep the others, so a successor is the nearer of two.
    Page **m_Pages = nullptr;
    size_t m_NumPages = 0;
    bool m_HasRecord = false;
    double m_MaxRecord = 0; // the largest record key, the list's largest number key

    // Where the last Successor call found its item (a page key, or a block and position), and where
    // its key would go among the blocks.
    bool m_FoundPaged = false;
    size_t m_FoundKey = 0;
    size_t m_FoundBlock = 0;
    size_t m_FoundPos = 0;
};

} // namespace orvexScript
