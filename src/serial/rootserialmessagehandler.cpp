#include "serial/rootserialmessagehandler.h"

#include <algorithm>

namespace Velmora::Worksurface {

bool RootSerialMessageHandler::handleMessage(const SerialMessage& message)
{
    for (const auto& handler : m_handlers) {
        if (handler->handleMessage(message)) {
            return true;
        }
    }
    return false;
}

bool RootSerialMessageHandler::takesMessage(const SerialMessage& message) const
{
    return std::any_of(m_handlers.begin(), m_handlers.end(),
                       [&message](const auto& handler) { return handler->takesMessage(message); });
}

void RootSerialMessageHandler::setLinkReady(bool ready)
{
    for (const auto& handler : m_handlers) {
        handler->setLinkReady(ready);
    }
}

void RootSerialMessageHandler::addHandler(const std::shared_ptr<ISerialMessageHandler>& handler)
{
    if (!handler) {
        return;
    }
    if (std::find(m_handlers.begin(), m_handlers.end(), handler) != m_handlers.end()) {
        return;
    }
    m_handlers.push_back(handler);
}

}  // namespace Velmora::Worksurface
