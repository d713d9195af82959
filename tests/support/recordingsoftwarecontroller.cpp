#include "support/recordingsoftwarecontroller.h"

#include <utility>

using namespace Velmora::Worksurface;

void RecordingSoftwareController::addSoftwareHandler(ISoftwareSerialMessageHandler* handler)
{
    calls.append(QStringLiteral("addSoftwareHandler"));
    handlers.push_back(handler);
}

void RecordingSoftwareController::setDataReceiver(uint8_t sectionIndex,
                                                  ISerialDataReceiver* receiver)
{
    calls.append(QStringLiteral("setDataReceiver"));
    receivers.push_back(Receiver{sectionIndex, receiver});
}

void RecordingSoftwareController::sendBootloaderReply(uint8_t sectionIndex,
                                                      const BootloaderPacket& packet)
{
    calls.append(QStringLiteral("sendBootloaderReply"));
    bootloaderReplies.push_back(Reply{sectionIndex, packet});
}

void RecordingSoftwareController::sendToPlugin(uint8_t sectionIndex, const SerialMessage& message)
{
    calls.append(QStringLiteral("sendToPlugin"));
    toPlugin.push_back(Message{sectionIndex, message});
}

void RecordingSoftwareController::messageFromPlugin(uint8_t sectionIndex,
                                                    const SerialMessage& message)
{
    calls.append(QStringLiteral("messageFromPlugin"));
    fromPlugin.push_back(Message{sectionIndex, message});
    if (m_reaction) {
        m_reaction(sectionIndex, message);
    }
}

void RecordingSoftwareController::replayLastMessage(uint8_t sectionIndex, uint8_t type,
                                                    uint8_t deviceId)
{
    calls.append(QStringLiteral("replayLastMessage"));
    replays.push_back(Replay{sectionIndex, type, deviceId});
}

void RecordingSoftwareController::setMessageReaction(
    std::function<void(uint8_t, const SerialMessage&)> reaction)
{
    m_reaction = std::move(reaction);
}
