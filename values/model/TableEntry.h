// TableEntry: one node of a table, a plain record (next, key, value). Entries come from a private,
// thread-safe pool of 1 MiB chunks; operator new gives null when the pool can't grow.
#pragma once

#include <cstddef>

#include "values/model/ScriptVal.h"

namespace orvexScript
{

class ORVEX_API TableEntry
{
public:
    TableEntry *m_Next = nullptr;
    ScriptVal m_Key;
    ScriptVal m_Value;

    TableEntry() = default;
    explicit TableEntry(const ScriptVal &key) : m_Key(key) {}
    explicit TableEntry(double key) : m_Key(key) {}
    TableEntry(const char *key, int len) : m_Key(key, len) {}
    // Copies m_Next as well as key and value.
    TableEntry(const TableEntry &other) = default;
    TableEntry &operator=(const TableEntry &other) = default;

    static void *operator new(size_t size) noexcept;
    static void operator delete(void *ptr) noexcept;
    // Gives the pool's empty chunks back to the system.
    static void HeapCompact();
};

} // namespace orvexScript
