#include "serial/messageroutes.h"

#include "serial/iserialmessagehandler.h"

namespace Velmora::Worksurface {

MessageRoutes MessageRoutes::of(const ISerialMessageHandler& handler)
{
    MessageRoutes routes;
    SerialMessage probe;
    for (std::size_t type = 0; type < routes.m_taken.size(); ++type) {
        probe.type = static_cast<uint8_t>(type);
        for (std::size_t id = 0; id < 256; ++id) {
            probe.deviceId = static_cast<uint8_t>(id);
            routes.m_taken[type][id] = handler.takesMessage(probe);
        }
    }
    return routes;
}

bool MessageRoutes::takes(const SerialMessage& message) const
{
    return message.type < m_taken.size() && m_taken[message.type][message.deviceId];
}

}  // namespace Velmora::Worksurface
