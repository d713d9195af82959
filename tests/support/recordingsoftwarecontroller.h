#pragma once

#include <QStringList>
#include <cstdint>
#include <functional>
#include <vector>

#include "serial/isoftwarecontrollerconnection.h"
#include "serial/serialmessage.h"
#include "updater/bootloaderpacket.h"

// Stands in for the software controller connection: records every call, in order, and can
// run a reaction when a message from the plugin arrives (to answer on the same call stack
// as the real controller does).
class RecordingSoftwareController : public Velmora::Worksurface::ISoftwareControllerConnection
{
public:
    struct Message
    {
        uint8_t sectionIndex;
        Velmora::Worksurface::SerialMessage message;
    };
    struct Reply
    {
        uint8_t sectionIndex;
        Velmora::Worksurface::BootloaderPacket packet;
    };
    struct Receiver
    {
        uint8_t sectionIndex;
        Velmora::Worksurface::ISerialDataReceiver* receiver;
    };
    struct Replay
    {
        uint8_t sectionIndex;
        uint8_t type;
        uint8_t deviceId;
    };

    void addSoftwareHandler(Velmora::Worksurface::ISoftwareSerialMessageHandler* handler) override;
    void setDataReceiver(uint8_t sectionIndex,
                         Velmora::Worksurface::ISerialDataReceiver* receiver) override;
    void sendBootloaderReply(uint8_t sectionIndex,
                             const Velmora::Worksurface::BootloaderPacket& packet) override;
    void sendToPlugin(uint8_t sectionIndex,
                      const Velmora::Worksurface::SerialMessage& message) override;
    void messageFromPlugin(uint8_t sectionIndex,
                           const Velmora::Worksurface::SerialMessage& message) override;
    void replayLastMessage(uint8_t sectionIndex, uint8_t type, uint8_t deviceId) override;

    void setMessageReaction(
        std::function<void(uint8_t, const Velmora::Worksurface::SerialMessage&)> reaction);

    // One entry per call, named after the operation ("messageFromPlugin", ...).
    QStringList calls;
    std::vector<Velmora::Worksurface::ISoftwareSerialMessageHandler*> handlers;
    std::vector<Receiver> receivers;
    std::vector<Reply> bootloaderReplies;
    std::vector<Message> toPlugin;
    std::vector<Message> fromPlugin;
    std::vector<Replay> replays;

private:
    std::function<void(uint8_t, const Velmora::Worksurface::SerialMessage&)> m_reaction;
};
