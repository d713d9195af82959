#pragma once

#include <array>
#include <bitset>
#include <cstdint>

#include "serial/serialmessage.h"

namespace Velmora::Worksurface {

class ISerialMessageHandler;

// Which frames a section's handlers take, by message type and device id: what a link on its
// own thread needs to know about the section's components, as a value it can keep.
//
// A handler judges a frame from its type and device id alone (ISerialMessageHandler::
// takesMessage), and a section's handlers are all registered before its link is made, so
// asking the handler about every type the parser delivers and every device id, once, on the
// QML thread, gives the whole answer. The link then never reaches into the section: its
// components are made, used and destroyed on the QML thread only, whatever the link's
// thread is doing when the section goes.
class MessageRoutes
{
public:
    // Takes nothing.
    MessageRoutes() = default;
    // What `handler` takes now. Costs one takesMessage() per type and device id (23 x 256).
    static MessageRoutes of(const ISerialMessageHandler& handler);

    bool takes(const SerialMessage& message) const;

private:
    // Indexed by type, then device id; the parser delivers no type beyond these.
    std::array<std::bitset<256>, MessageType::NoMessage> m_taken{};
};

}  // namespace Velmora::Worksurface
