// The records that name objects across a link, and the chunked tables that hold them: a connection's
// local and remote tables, and the process-wide table of this process's named objects with its ids.
// Data only: counting through a connection, packets and dispatch belong to RemoteApp.
#pragma once

#include <cstdint>

#include "values/base/Export.h"
#include "values/model/ScriptArgs.h"
#include "values/sync/Lock.h"

namespace orvexScript
{

class RemoteApp;
class ScriptObject;
struct Packet;

// One object as one table knows it. All zero is a free record; a record in use has a non-zero id.
class ORVEX_API RemoteObject
{
public:
    bool IsLocal() const { return m_Local; }
    bool IsFree() const { return m_ID == 0; }

    // Through the owning connection: a local record to its local counts, a proxy to its remote
    // counts. No connection: nothing.
    void IncRef();
    void DecRef();
    // A blocking call of `symbol` on the object: the reply's second value, or nil (no connection, time-out,
    // the connection lost). SST_ToString results get the connection's name, address and UUID added.
    ScriptVal DoCommand(int symbol, ScriptArgs &args);
    // Sends and returns at once with the sequence; 0 if the proxy has no connection.
    unsigned long DoCommandAsync(int symbol, ScriptArgs &args,
                                 bool (*callback)(void *user, RemoteApp *app, Packet *packet,
                                                  unsigned long sequence),
                                 void *user);

    uint32_t m_Count;       // references held through this record
    uint32_t m_ID;          // object id; 0 while the record is free
    ScriptObject *m_Object; // the object; null in a proxy unless both ends are one process
    RemoteApp *m_App;       // owning connection; null in the global table
    bool m_Local;           // the object lives in this process
};

struct RemoteObjectChunk
{
    static constexpr unsigned kRecords = 64;

    RemoteObjectChunk *m_Next;
    RemoteObject m_Records[kRecords];
};

// A chain of chunks searched from the head. A free record is reused before a chunk is appended, and
// records never move, so a record pointer stays valid until the table is destroyed. Not locked: the
// owner's lock guards it (the connection lock, or the global object lock).
class RemoteObjectTable
{
public:
    RemoteObjectTable() = default;
    RemoteObjectTable(const RemoteObjectTable &) = delete;
    RemoteObjectTable &operator=(const RemoteObjectTable &) = delete;
    ~RemoteObjectTable();

    // Id 0 and a null object are never found.
    RemoteObject *FindId(uint32_t id) const;
    RemoteObject *FindObject(const ScriptObject *object) const;
    RemoteObject *Find(const ScriptObject *object, uint32_t id) const;

    // Fills the first free record, appending a zeroed chunk when none is free; count 0. Null for id 0
    // or when no memory is left.
    RemoteObject *Allocate(uint32_t id, ScriptObject *object, RemoteApp *app, bool local);
    // Zeroes the record, making it free for the next Allocate.
    static void Free(RemoteObject *record);

    unsigned InUse() const;
    unsigned Chunks() const;

    // Calls `visit(record)` for every record in use, in table order; the visitor may free the record.
    template <typename Visit> void ForEach(Visit visit)
    {
        for (RemoteObjectChunk *chunk = m_Head; chunk; chunk = chunk->m_Next)
            for (RemoteObject &record : chunk->m_Records)
                if (!record.IsFree())
                    visit(&record);
    }

private:
    RemoteObject *FreeRecord();

    RemoteObjectChunk *m_Head = nullptr;
};

// This process's named objects: one record per object that any peer can name, its count the number of
// connections naming it. Id 1 is the root; every other id comes from a counter that starts at 2 and
// never goes back, so an id is never given to a second object. Lock order: a connection lock first,
// then this lock; never the reverse.
class GlobalObjectTable
{
public:
    static constexpr uint32_t kRootId = 1;
    static constexpr uint32_t kFirstId = 2;

    void ObtainLock() { m_Lock.ObtainLock(); }
    void ReleaseLock() { m_Lock.ReleaseLock(); }

    // With the lock held. The records, for lookups and for freeing a record whose count reached 0.
    RemoteObjectTable &Records() { return m_Records; }
    // With the lock held. The object's record, or a new one (count 0, local) with the root's id or
    // the next id. Null for a null object, a second root, or when ids or memory ran out.
    RemoteObject *Register(ScriptObject *object);
    RemoteObject *RegisterRoot(ScriptObject *root);

    // Take the lock themselves. The object of the record with this id, or null; an id is only looked
    // up, never trusted as a pointer.
    ScriptObject *GetObjectPtr(uint32_t id);
    // Frees every record of the object and gives the sum of their counts, the references the caller
    // must give back to the object after the lock is let go.
    uint32_t ClearObject(const ScriptObject *object);

private:
    Lock m_Lock;
    RemoteObjectTable m_Records;
    uint32_t m_NextId = kFirstId;
};

// The one global table of the process.
GlobalObjectTable &GetGlobalObjectTable();

// Holds the global object lock for a scope.
class GlobalObjectLock
{
public:
    explicit GlobalObjectLock(GlobalObjectTable &table) : m_Table(table) { m_Table.ObtainLock(); }
    GlobalObjectLock(const GlobalObjectLock &) = delete;
    GlobalObjectLock &operator=(const GlobalObjectLock &) = delete;
    ~GlobalObjectLock() { m_Table.ReleaseLock(); }

private:
    GlobalObjectTable &m_Table;
};

} // namespace orvexScript
