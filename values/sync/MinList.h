// Intrusive doubly linked lists with a head and a tail sentinel: MinNode, MinList and the typed front
// MinListT<T>. A list owns no memory and keeps no count; every operation but Clear is a few link stores.
// No locking here: whoever shares a list between threads guards it.
#pragma once

#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

// The links of anything that sits on a list. Both links are null exactly while the node is on no list.
class ORVEX_API MinNode
{
public:
    MinNode() = default;
    MinNode(const MinNode &) : MinNode() {} // a copy is on no list
    MinNode &operator=(const MinNode &) { return *this; }
    // Leaves the links alone: a node does not take itself off its list.
    virtual ~MinNode();

    bool IsLinked() const { return m_Next != nullptr; }

    MinNode *m_Prev = nullptr;
    MinNode *m_Next = nullptr;
};

class ORVEX_API MinList
{
public:
    MinList();
    MinList(const MinList &) = delete;
    MinList &operator=(const MinList &) = delete;

    ORVEX_VFPAD_20(MinList)
    // Leaves the nodes alone: a list that owns its nodes is cleared by its owner first.
    virtual ~MinList();

    // Links `node` in behind the last node. The node must be on no list.
    void Add(MinNode *node);
    // Unlinks `node` from whatever list it is on, using only the node's own links.
    void Remove(MinNode *node);
    // The node behind `node` (the first node for null); null at the end and after a removed node.
    MinNode *Next(MinNode *node) const;
    // Takes every node off the front; with `destroy` each is deleted through its virtual destructor.
    void Clear(bool destroy);
    bool IsEmpty() const { return m_Head.m_Next == &m_Tail; }

protected:
    MinNode m_Head;
    MinNode m_Tail;
    uintptr_t m_Reserved[8] = {};
};

// A list of T, where T derives from MinNode, perhaps not as its first base: the conversions adjust the
// pointer, and null stays null.
template <class T> class MinListT : public MinList
{
public:
    void Add(T *node) { MinList::Add(ToNode(node)); }
    void Remove(T *node) { MinList::Remove(ToNode(node)); }
    MinListT &operator+=(T *node)
    {
        Add(node);
        return *this;
    }
    MinListT &operator-=(T *node)
    {
        Remove(node);
        return *this;
    }
    T *Next(T *node) const { return FromNode(MinList::Next(ToNode(node))); }

    static MinNode *ToNode(T *node) { return node ? static_cast<MinNode *>(node) : nullptr; }
    static T *FromNode(MinNode *node) { return node ? static_cast<T *>(node) : nullptr; }
};

} // namespace orvexScript
