#include "support/fakesoftwarehandler.h"

#include <utility>

using namespace Velmora::Worksurface;

FakeSoftwareHandler::FakeSoftwareHandler(QString name, QStringList* callLog)
    : m_name(std::move(name)), m_callLog(callLog)
{}

bool FakeSoftwareHandler::handleSoftwareMessage(uint8_t sectionIndex, const SerialMessage& message)
{
    m_offers.push_back(Offer{sectionIndex, message});
    if (m_callLog != nullptr) {
        m_callLog->append(m_name);
    }
    if (m_reaction) {
        m_reaction(sectionIndex, message);
    }
    return m_rule ? m_rule(sectionIndex, message) : false;
}

void FakeSoftwareHandler::takeAll(bool take)
{
    m_rule = [take](uint8_t, const SerialMessage&) { return take; };
}

void FakeSoftwareHandler::setRule(std::function<bool(uint8_t, const SerialMessage&)> rule)
{
    m_rule = std::move(rule);
}

void FakeSoftwareHandler::takeOnly(uint8_t type, uint8_t deviceId)
{
    m_rule = [type, deviceId](uint8_t, const SerialMessage& message) {
        return message.type == type && message.deviceId == deviceId;
    };
}

void FakeSoftwareHandler::setReaction(std::function<void(uint8_t, const SerialMessage&)> reaction)
{
    m_reaction = std::move(reaction);
}
