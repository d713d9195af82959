#pragma once

#include "serial/serialmessage.h"

namespace Velmora::Worksurface {

// A receiver of a section's messages: a component, the section itself, or the root that
// offers each message to the registered handlers in order.
class ISerialMessageHandler
{
public:
    virtual ~ISerialMessageHandler() = default;
    // True when this handler took the message.
    virtual bool handleMessage(const SerialMessage& message) = 0;
    virtual void setLinkReady(bool ready) = 0;
};

}  // namespace Velmora::Worksurface
