// Bodies of MinNode and MinList: link stores only, no allocation.

#include "values/sync/MinList.h"

#include <cassert>

namespace orvexScript
{

MinNode::~MinNode() = default;

MinList::MinList()
{
    m_Head.m_Next = &m_Tail;
    m_Tail.m_Prev = &m_Head;
}

MinList::~MinList() = default;

void MinList::Add(MinNode *node)
{
    assert(node && !node->IsLinked() && "node is already on a list");
    MinNode *last = m_Tail.m_Prev;
    node->m_Prev = last;
    node->m_Next = &m_Tail;
    last->m_Next = node;
    m_Tail.m_Prev = node;
}

void MinList::Remove(MinNode *node)
{
    assert(node && node->IsLinked() && "node is on no list");
    if (!node || !node->IsLinked())
        return; // a release build forgives a double removal instead of following null links
    node->m_Prev->m_Next = node->m_Next;
    node->m_Next->m_Prev = node->m_Prev;
    node->m_Prev = nullptr;
    node->m_Next = nullptr;
}

MinNode *MinList::Next(MinNode *node) const
{
    MinNode *next = node ? node->m_Next : m_Head.m_Next;
    return (next == nullptr || next == &m_Tail) ? nullptr : next;
}

void MinList::Clear(bool destroy)
{
    while (!IsEmpty())
    {
        MinNode *node = m_Head.m_Next;
        Remove(node);
        if (destroy) delete node;
    }
}

} // namespace orvexScript
