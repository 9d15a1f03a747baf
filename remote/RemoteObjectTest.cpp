// Object tables: reuse of free records, stable records across growth, lookups, and the global ids.
#include "remote/RemoteObject.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

#include "values/model/ScriptObject.h"

namespace orvexScript
{
namespace
{

constexpr unsigned kChunk = RemoteObjectChunk::kRecords;

TEST(RemoteObjectTable, GrowsOnlyWhenFullAndRecordsStayPut)
{
    const unsigned count = kChunk * 4 + 3;
    std::vector<_Object> objects(count + 2);
    RemoteObjectTable table;
    std::vector<RemoteObject *> records;
    for (unsigned i = 0; i < count; ++i)
        records.push_back(table.Allocate(100 + i, &objects[i], nullptr, true));
    EXPECT_EQ(table.Chunks(), 5u);
    EXPECT_EQ(table.InUse(), count);
    for (unsigned i = 0; i < count; ++i) {
        EXPECT_EQ(table.FindId(100 + i), records[i]);
        EXPECT_EQ(table.FindObject(&objects[i]), records[i]);
        EXPECT_EQ(table.Find(&objects[i], 100 + i), records[i]);
    }
    // Freed records are taken again, the first from the head first, before the last chunk's room.
    RemoteObjectTable::Free(records[200]);
    RemoteObjectTable::Free(records[17]);
    EXPECT_EQ(table.InUse(), count - 2);
    RemoteObject *again = table.Allocate(900, &objects[count], nullptr, false);
    EXPECT_EQ(again, records[17]);
    EXPECT_EQ(again->m_Count, 0u);
    EXPECT_FALSE(again->IsLocal());
    EXPECT_EQ(table.Allocate(901, &objects[count + 1], nullptr, true), records[200]);
    EXPECT_EQ(table.Chunks(), 5u);
}

TEST(RemoteObjectTable, LookupsThatFindNothing)
{
    _Object object, other;
    RemoteObjectTable table;
    ASSERT_NE(table.Allocate(7, &object, nullptr, true), nullptr);
    RemoteObject *freed = table.Allocate(8, &other, nullptr, true);
    RemoteObjectTable::Free(freed);
    // A freed record is found neither by its old id nor by its old object.
    struct Case { const ScriptObject *object; uint32_t id; };
    for (const Case &c : {Case{&object, 0}, Case{&object, 9}, Case{&other, 7}, Case{&other, 8},
                          Case{nullptr, 7}})
        EXPECT_EQ(table.Find(c.object, c.id), nullptr) << c.id;
    for (uint32_t id : {0u, 8u, 9u})
        EXPECT_EQ(table.FindId(id), nullptr) << id;
    EXPECT_EQ(table.FindObject(&other), nullptr);
    EXPECT_EQ(table.FindObject(nullptr), nullptr);
    EXPECT_EQ(table.Allocate(0, &object, nullptr, true), nullptr);
}

TEST(GlobalObjectTable, IdsAreNeverReusedAndTheRootIsOne)
{
    GlobalObjectTable global;
    _Object root, a, b, c;
    GlobalObjectLock hold(global);
    EXPECT_EQ(global.RegisterRoot(&root)->m_ID, GlobalObjectTable::kRootId);
    EXPECT_EQ(global.RegisterRoot(&a), nullptr); // one root only
    EXPECT_EQ(global.Register(&root)->m_ID, GlobalObjectTable::kRootId);
    RemoteObject *first = global.Register(&a);
    EXPECT_EQ(first->m_ID, GlobalObjectTable::kFirstId);
    EXPECT_EQ(global.Register(&a), first); // same object, same record and id
    EXPECT_EQ(global.Register(&b)->m_ID, 3u);
    RemoteObjectTable::Free(first);
    // The freed record is reused, but neither its id nor the object's former id comes back.
    RemoteObject *next = global.Register(&c);
    EXPECT_EQ(next, first);
    EXPECT_EQ(next->m_ID, 4u);
    EXPECT_EQ(global.Register(&a)->m_ID, 5u);
    EXPECT_EQ(global.GetObjectPtr(1), &root);
    EXPECT_EQ(global.GetObjectPtr(4), &c);
    for (uint32_t unknown : {0u, 2u, 6u, 0xFFFFFFFFu})
        EXPECT_EQ(global.GetObjectPtr(unknown), nullptr) << unknown;
    global.Register(&a)->m_Count = 2;
    EXPECT_EQ(global.ClearObject(&a), 2u);
    EXPECT_EQ(global.GetObjectPtr(5), nullptr);
}

TEST(GlobalObjectTableThreads, ConcurrentRegistrationGivesOneIdPerObject)
{
    GlobalObjectTable &global = GetGlobalObjectTable();
    constexpr unsigned kThreads = 4, kObjects = 150;
    std::vector<_Object> shared(kObjects);
    std::vector<std::vector<uint32_t>> seen(kThreads, std::vector<uint32_t>(kObjects)); // [thread][object]
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (unsigned i = 0; i < kObjects; ++i) {
                const unsigned n = (i + t * 37) % kObjects; // each thread starts elsewhere
                uint32_t id;
                {
                    GlobalObjectLock hold(global);
                    id = global.Register(&shared[n])->m_ID;
                }
                seen[t][n] = id;
                EXPECT_EQ(global.GetObjectPtr(id), &shared[n]);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    std::set<uint32_t> ids(seen[0].begin(), seen[0].end());
    EXPECT_EQ(ids.size(), kObjects);
    for (unsigned t = 1; t < kThreads; ++t)
        EXPECT_EQ(seen[t], seen[0]); // every thread got the same id for the same object
    EXPECT_EQ(ids.count(GlobalObjectTable::kRootId), 0u);
    for (const _Object &object : shared)
        global.ClearObject(&object);
}

} // namespace
} // namespace orvexScript
