#pragma once

#include <cstdint>

#include "serial/serialmessage.h"
#include "updater/bootloaderpacket.h"

namespace Velmora::Worksurface {

class ISerialDataReceiver;
class ISoftwareSectionLine;
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

    // Fault rehearsal. A controller that plays no faults keeps these defaults: every section
    // is plugged in and runs its application.

    // The section's line, told when the section is unplugged or plugged in again; replaces
    // any line registered for the index. Not owned.
    virtual void setSectionLine(uint8_t sectionIndex, ISoftwareSectionLine* line)
    {
        (void)sectionIndex;
        (void)line;
    }
    // Forgets the section's line only if it is `line`.
    virtual void removeSectionLine(uint8_t sectionIndex, ISoftwareSectionLine* line)
    {
        (void)sectionIndex;
        (void)line;
    }
    // Whether the section is plugged in: a line cannot open while it is not.
    virtual bool isSectionPlugged(uint8_t sectionIndex) const
    {
        (void)sectionIndex;
        return true;
    }
    // Offers a firmware-update packet the plugin wrote to the section. True when the
    // section took it (a section in its bootloader answers it itself, a silent one drops
    // it); false leaves it to the line's own answer for a section running its application.
    virtual bool takeBootloaderPacket(uint8_t sectionIndex, const BootloaderPacket& packet)
    {
        (void)sectionIndex;
        (void)packet;
        return false;
    }
    // A firmware-update packet the plugin wrote to the section's line: a section that takes
    // it answers it itself (takeBootloaderPacket); one running its application only tells
    // the updater that it is not in its bootloader, which ends the start-up exchange, and
    // drops the rest.
    virtual void bootloaderPacketFromPlugin(uint8_t sectionIndex, const BootloaderPacket& packet)
    {
        if (takeBootloaderPacket(sectionIndex, packet)) {
            return;
        }
        if (packet.command == BootloaderCommand::AutoBaud) {
            sendBootloaderReply(sectionIndex, BootloaderPacket(BootloaderCommand::NotBootLoader));
        }
    }
};

}  // namespace Velmora::Worksurface
