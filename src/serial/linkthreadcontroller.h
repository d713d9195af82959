#pragma once

#include <memory>

#include "serial/isoftwarecontrollerconnection.h"

namespace Velmora::Worksurface {

class ThreadMailbox;

// The software controller as the software lines on the links' own thread see it, while the
// controller and the QML controls that play the sections stay on the QML thread.
//
// What a line sends (frames, bootloader packets) and its registrations are posted to the
// QML thread and handed to the controller there, in the order the line made them. For each
// section the controller talks to a stand-in registered in the line's place, which posts
// what the controls send (their frames, raw bytes, bootloader answers) and plug changes to
// the links' thread, where they reach the line's receiver in the order the controls sent
// them; bytes for a line that is down are dropped there, as the controller drops them for
// a line beside it. Whether a section is plugged in is mirrored for the lines, so that a
// line opening on the links' thread has its answer at once.
//
// Made on the QML thread. The lines call it on the links' thread; detach() is for the QML
// thread, which must call it before the surface it serves is dropped, so that the controller
// keeps no stand-in that a torn-down line could be reached through.
class LinkThreadController : public ISoftwareControllerConnection
{
public:
    // The mailboxes are held weakly: once their owner has gone, nothing crosses any more.
    LinkThreadController(std::shared_ptr<ISoftwareControllerConnection> controller,
                         std::weak_ptr<ThreadMailbox> qmlMailbox,
                         std::weak_ptr<ThreadMailbox> linkMailbox);
    ~LinkThreadController() override;
    LinkThreadController(const LinkThreadController&) = delete;
    LinkThreadController& operator=(const LinkThreadController&) = delete;

    // Withdraws every stand-in from the controller; later registrations are ignored.
    void detach();

    void addSoftwareHandler(ISoftwareSerialMessageHandler* handler) override;
    void setDataReceiver(uint8_t sectionIndex, ISerialDataReceiver* receiver) override;
    void removeDataReceiver(uint8_t sectionIndex, ISerialDataReceiver* receiver) override;
    void sendBootloaderReply(uint8_t sectionIndex, const BootloaderPacket& packet) override;
    void sendToPlugin(uint8_t sectionIndex, const SerialMessage& message) override;
    void messageFromPlugin(uint8_t sectionIndex, const SerialMessage& message) override;
    void replayLastMessage(uint8_t sectionIndex, uint8_t type, uint8_t deviceId) override;
    void setSectionLine(uint8_t sectionIndex, ISoftwareSectionLine* line) override;
    void removeSectionLine(uint8_t sectionIndex, ISoftwareSectionLine* line) override;
    bool isSectionPlugged(uint8_t sectionIndex) const override;
    void bootloaderPacketFromPlugin(uint8_t sectionIndex, const BootloaderPacket& packet) override;

    struct Shared;

private:
    // Runs `call` with the controller on the QML thread, unless detached by then.
    template <typename Call>
    void toController(Call call) const;

    const std::shared_ptr<Shared> m_shared;
};

}  // namespace Velmora::Worksurface
