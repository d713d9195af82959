#pragma once

#include "serial/serialmessage.h"

namespace Velmora::Worksurface {

// The draining side of a section's outgoing queue, used by the section connection.
class ISerialMessageQueue
{
public:
    virtual ~ISerialMessageQueue() = default;
    // True when nothing is due yet (or the queue is empty). A lock-free hint.
    virtual bool hasNoDueMessage() const = 0;
    // The first due message in queue order, or the no-message value (type 23).
    virtual SerialMessage takeNextMessage() = 0;
    // Enqueues a ready-made message, due now.
    virtual void enqueue(const SerialMessage& message) = 0;
};

}  // namespace Velmora::Worksurface
