#pragma once

#include <cstdint>

#include "serial/serialmessage.h"

namespace Velmora::Worksurface {

// A software control that plays part of a section: it is offered every message the
// plugin sends to the simulated sections.
class ISoftwareSerialMessageHandler
{
public:
    virtual ~ISoftwareSerialMessageHandler() = default;
    // True when the control took the message.
    virtual bool handleSoftwareMessage(uint8_t sectionIndex, const SerialMessage& message) = 0;
};

}  // namespace Velmora::Worksurface
