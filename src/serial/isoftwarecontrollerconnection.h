#pragma once

#include <cstdint>

#include "serial/serialmessage.h"
#include "updater/bootloaderpacket.h"

namespace Velmora::Worksurface {

class ISerialDataReceiver;
class ISoftwareSerialMessageHandler;

// The in-process stand-in for every section's microcontroller when the surface is played
// by QML controls: it takes the frames the plugin sends and carries the controls' frames
// back to the plugin's parser.
class ISoftwareControllerConnection
{
public:
    virtual ~ISoftwareControllerConnection() = default;
    virtual void addSoftwareHandler(ISoftwareSerialMessageHandler* handler) = 0;
    virtual void setDataReceiver(uint8_t sectionIndex, ISerialDataReceiver* receiver) = 0;
    // Forgets the section's receiver only if it is `receiver` (a receiver on its way out);
    // one registered since for the same section stays.
    virtual void removeDataReceiver(uint8_t sectionIndex, ISerialDataReceiver* receiver)
    {
        (void)sectionIndex;
        (void)receiver;
    }
    virtual void sendBootloaderReply(uint8_t sectionIndex, const BootloaderPacket& packet) = 0;
    virtual void sendToPlugin(uint8_t sectionIndex, const SerialMessage& message) = 0;
    virtual void messageFromPlugin(uint8_t sectionIndex, const SerialMessage& message) = 0;
    virtual void replayLastMessage(uint8_t sectionIndex, uint8_t type, uint8_t deviceId) = 0;
};

}  // namespace Velmora::Worksurface
