#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "serial/isoftwarecontrollerconnection.h"
#include "serial/serialmessage.h"
#include "tasks/threadaffinity.h"

namespace Velmora::Worksurface {

class ISerialDataReceiver;
class ISoftwareSection;
class ISoftwareSectionLine;
class ISoftwareSerialMessageHandler;

// Plays every section of a software surface at once. It sees each message the plugin sends
// to any section, remembers the last one per addressee (so a QML control created later can
// catch up), offers it to the registered software controls, answers the link's pings for
// sections that have no section control, and carries the controls' messages back to the
// plugin as real frames, so the plugin's parser and handlers run exactly as with hardware.
//
// Faults: a section played by a SectionControl can stop answering, be unplugged or sit in
// its bootloader (ISoftwareSection). The first SectionControl registered for a section
// index plays that section's faults; while it does not answer, the plugin's messages and
// bootloader packets to it are dropped; while it is unplugged, its line is down and nothing
// reaches the plugin; in its bootloader it answers the updater's packets and ignores frames.
//
// Not a Qt object and not locked: QML-thread-only, like the surface (docs/threads.md); the
// software serial connections and the QML controls all call it there.
class QmlControllerConnection : public ISoftwareControllerConnection
{
public:
    // The last message the plugin sent to one addressee of one section.
    struct LastMessage
    {
        uint8_t sectionIndex;
        uint8_t deviceId;
        uint8_t type;
        SerialMessage message;
    };

    QmlControllerConnection() = default;
    ~QmlControllerConnection() override = default;
    QmlControllerConnection(const QmlControllerConnection&) = delete;
    QmlControllerConnection& operator=(const QmlControllerConnection&) = delete;

    // Appends; a control registered twice is offered each message twice.
    void addSoftwareHandler(ISoftwareSerialMessageHandler* handler) override;
    // Replaces the receiver of the section's bytes; null only removes it.
    void setDataReceiver(uint8_t sectionIndex, ISerialDataReceiver* receiver) override;
    void removeDataReceiver(uint8_t sectionIndex, ISerialDataReceiver* receiver) override;
    void sendBootloaderReply(uint8_t sectionIndex, const BootloaderPacket& packet) override;
    // Dropped when no receiver is registered for the section.
    void sendToPlugin(uint8_t sectionIndex, const SerialMessage& message) override;
    void messageFromPlugin(uint8_t sectionIndex, const SerialMessage& message) override;
    void replayLastMessage(uint8_t sectionIndex, uint8_t type, uint8_t deviceId) override;
    void setSectionLine(uint8_t sectionIndex, ISoftwareSectionLine* line) override;
    void removeSectionLine(uint8_t sectionIndex, ISoftwareSectionLine* line) override;
    bool isSectionPlugged(uint8_t sectionIndex) const override;
    bool takeBootloaderPacket(uint8_t sectionIndex, const BootloaderPacket& packet) override;

    // Registers a section that plays faults (not owned; the first registered for an index
    // decides). Registering it again changes nothing.
    void addSection(ISoftwareSection* section);
    void removeSection(ISoftwareSection* section);
    // The section playing the index's faults, or null.
    ISoftwareSection* section(uint8_t sectionIndex) const;
    // A section was unplugged or plugged in: tells the index's line.
    void sectionPluggedChanged(uint8_t sectionIndex);
    // Raw bytes from the section towards the plugin, as they would come off the wire: noise,
    // a split frame, a bootloader answer. Dropped while the section's line is down.
    void sendRawToPlugin(uint8_t sectionIndex, const QByteArray& bytes);

    // Forgets every registration of a control (all of them, if it was added more than
    // once). A QML control can be destroyed while the connection lives on with the surface
    // service, so it deregisters itself on the way out instead of leaving a dangling
    // pointer behind. Safe to call from inside a handler while a message is being offered.
    void removeSoftwareHandler(ISoftwareSerialMessageHandler* handler);
    // Forgets every section's receiver. The surface service calls it on each connect(),
    // before the new surface's serial connections register theirs, so no receiver of a
    // torn-down surface is ever called.
    void clearDataReceivers();

    // The receiver registered for a section, or null.
    ISerialDataReceiver* dataReceiver(uint8_t sectionIndex) const;
    // Registered controls, duplicates included.
    std::size_t handlerCount() const;
    // One record per (section, device id, type), in first-seen order.
    const std::vector<LastMessage>& lastMessages() const { return m_lastMessages; }

private:
    void remember(uint8_t sectionIndex, const SerialMessage& message);
    // Offers the message to the controls and answers an unclaimed ping.
    void dispatch(uint8_t sectionIndex, const SerialMessage& message);
    void deliver(uint8_t sectionIndex, const QByteArray& bytes);

    // Not owned. Entries removed while a message is being offered are nulled and
    // compacted once the outermost offer has finished.
    std::vector<ISoftwareSerialMessageHandler*> m_handlers;
    // Not owned.
    std::map<uint8_t, ISerialDataReceiver*> m_receivers;
    // Not owned.
    std::map<uint8_t, ISoftwareSectionLine*> m_lines;
    std::vector<ISoftwareSection*> m_sections;
    std::vector<LastMessage> m_lastMessages;
    const ThreadAffinity m_affinity;
    int m_dispatchDepth = 0;
    bool m_handlersNeedCompacting = false;
};

}  // namespace Velmora::Worksurface
