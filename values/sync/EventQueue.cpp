// Bodies of QueueNode and EventQueue.

#include "values/sync/EventQueue.h"

namespace orvexScript
{

QueueNode::~QueueNode() = default;

void QueueNode::Reply()
{
    delete this;
}

EventQueue::~EventQueue() = default;

void EventQueue::Put(QueueNode *node)
{
    ObtainLock();
    Add(node);
    Signal();
    ReleaseLock();
}

QueueNode *EventQueue::Get()
{
    ObtainLock();
    QueueNode *node = Next(nullptr);
    if (node) Remove(node);
    ReleaseLock();
    return node;
}

} // namespace orvexScript
