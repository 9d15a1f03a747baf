// The way to hand messages to a thread: QueueNode (a message that is answered by Reply) and EventQueue
// (a locked list of nodes with an auto-reset event). The queue owns nothing: nodes still queued when it
// goes are not freed.
#pragma once

#include <cstdint>

#include "values/base/Export.h"
#include "values/sync/Lock.h"
#include "values/sync/MinList.h"

namespace orvexScript
{

class ORVEX_API QueueNode : public MinNode
{
public:
    explicit QueueNode(unsigned long kind) : m_Kind(static_cast<uint32_t>(kind)) {}
    ~QueueNode() override;
    // Called by the consumer when it is done with the node, which it doesn't touch afterwards. The base
    // deletes the node; a message that has a thread waiting for its answer overrides this.
    virtual void Reply();

    uint32_t m_Kind; // what the message is; its meaning belongs to the queue's user
};

// Any number of producers and consumers. A consumer waits, then takes nodes with Get until it gives null:
// several Puts before one Wait leave a single signal, and a Wait may wake to an empty queue.
class ORVEX_API EventQueue : public MinListT<QueueNode>, public Lock, public Event
{
public:
    EventQueue() = default;
    ~EventQueue() override;

    // Appends the node and signals the event, both under the queue's lock.
    void Put(QueueNode *node);
    // The first node, taken off the queue, or null. Never waits and never touches the event.
    QueueNode *Get();
    // Waits on the queue's event without taking the lock.
    [[nodiscard]] bool Wait(unsigned long timeoutMs) { return Event::Wait(timeoutMs); }
};

} // namespace orvexScript
