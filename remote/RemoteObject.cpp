// Chunked object tables and the process-wide table of named objects.
#include "remote/RemoteObject.h"

#include <new>

namespace orvexScript
{

RemoteObjectTable::~RemoteObjectTable()
{
    while (RemoteObjectChunk *chunk = m_Head) {
        m_Head = chunk->m_Next;
        delete chunk;
    }
}

RemoteObject *RemoteObjectTable::FindId(uint32_t id) const
{
    if (id == 0)
        return nullptr;
    for (RemoteObjectChunk *chunk = m_Head; chunk; chunk = chunk->m_Next)
        for (RemoteObject &record : chunk->m_Records)
            if (record.m_ID == id)
                return &record;
    return nullptr;
}

RemoteObject *RemoteObjectTable::FindObject(const ScriptObject *object) const
{
    if (!object)
        return nullptr;
    for (RemoteObjectChunk *chunk = m_Head; chunk; chunk = chunk->m_Next)
        for (RemoteObject &record : chunk->m_Records)
            if (record.m_Object == object && !record.IsFree())
                return &record;
    return nullptr;
}

RemoteObject *RemoteObjectTable::Find(const ScriptObject *object, uint32_t id) const
{
    RemoteObject *record = FindId(id);
    return record && record->m_Object == object ? record : nullptr;
}

RemoteObject *RemoteObjectTable::FreeRecord()
{
    RemoteObjectChunk **link = &m_Head;
    for (; *link; link = &(*link)->m_Next)
        for (RemoteObject &record : (*link)->m_Records)
            if (record.IsFree())
                return &record;
    // Value-initialised: every record of a new chunk is zero, that is free.
    *link = new (std::nothrow) RemoteObjectChunk();
    return *link ? &(*link)->m_Records[0] : nullptr;
}

RemoteObject *RemoteObjectTable::Allocate(uint32_t id, ScriptObject *object, RemoteApp *app, bool local)
{
    if (id == 0)
        return nullptr;
    RemoteObject *record = FreeRecord();
    if (record)
        *record = RemoteObject{0, id, object, app, local};
    return record;
}

void RemoteObjectTable::Free(RemoteObject *record)
{
    if (record)
        *record = RemoteObject{};
}

unsigned RemoteObjectTable::InUse() const
{
    unsigned used = 0;
    for (RemoteObjectChunk *chunk = m_Head; chunk; chunk = chunk->m_Next)
        for (const RemoteObject &record : chunk->m_Records)
            used += record.IsFree() ? 0 : 1;
    return used;
}

unsigned RemoteObjectTable::Chunks() const
{
    unsigned chunks = 0;
    for (RemoteObjectChunk *chunk = m_Head; chunk; chunk = chunk->m_Next)
        ++chunks;
    return chunks;
}

RemoteObject *GlobalObjectTable::Register(ScriptObject *object)
{
    if (!object)
        return nullptr;
    if (RemoteObject *record = m_Records.FindObject(object))
        return record;
    // Ids are never reused: once the counter has passed the last id, no object gets a new one.
    if (m_NextId == 0)
        return nullptr;
    RemoteObject *record = m_Records.Allocate(m_NextId, object, nullptr, true);
    if (record)
        ++m_NextId; // wraps to 0 after the last id
    return record;
}

RemoteObject *GlobalObjectTable::RegisterRoot(ScriptObject *root)
{
    if (!root)
        return nullptr;
    if (RemoteObject *record = m_Records.FindId(kRootId))
        return record->m_Object == root ? record : nullptr;
    if (m_Records.FindObject(root))
        return nullptr; // already named under an ordinary id
    return m_Records.Allocate(kRootId, root, nullptr, true);
}

ScriptObject *GlobalObjectTable::GetObjectPtr(uint32_t id)
{
    GlobalObjectLock hold(*this);
    RemoteObject *record = m_Records.FindId(id);
    return record ? record->m_Object : nullptr;
}

uint32_t GlobalObjectTable::ClearObject(const ScriptObject *object)
{
    GlobalObjectLock hold(*this);
    uint32_t counts = 0;
    while (RemoteObject *record = m_Records.FindObject(object)) {
        counts += record->m_Count;
        RemoteObjectTable::Free(record);
    }
    return counts;
}

GlobalObjectTable &GetGlobalObjectTable()
{
    // Never destroyed: connection threads that end while the process exits still give back counts.
    static GlobalObjectTable *table = new GlobalObjectTable;
    return *table;
}

} // namespace orvexScript
