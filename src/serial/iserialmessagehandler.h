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
    // Whether handleMessage() would take the message, judged from its type and device id
    // alone, without handling it. A link on its own thread asks this as a frame arrives, so
    // that it knows at once that the section answered, and hands the frame to the handler on
    // the QML thread. Safe from any thread; a handler that takes nothing keeps the default.
    virtual bool takesMessage(const SerialMessage& /*message*/) const { return false; }
    virtual void setLinkReady(bool ready) = 0;
};

}  // namespace Velmora::Worksurface
