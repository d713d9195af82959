#pragma once

#include <QByteArray>
#include <cstdint>
#include <memory>
#include <mutex>

#include "serial/iserialconnection.h"
#include "serial/isoftwaresectionline.h"
#include "serial/serialmessageparser.h"

namespace Velmora::Worksurface {

class ISoftwareControllerConnection;
class Logger;

// The serial connection of one section of a software surface. Nothing goes over a wire:
// flush() runs the buffered bytes through the same frame parser a section's firmware would,
// and hands each message to the software controller connection, which plays the section in
// QML and answers straight into this section's data receiver. Both ends therefore exercise
// the real framing.
//
// A QML section can be unplugged (SectionControl.plugged). The line then behaves as a
// serial device that went away: pulled out while open it goes down with the same log line,
// and the same port errors, as a hardware link whose adapter is pulled ("Device gone: …",
// then "Device not found: …" while opening fails), naming the section ("software section
// 0") since it has no device. While it is down nothing passes either way. Plugged in again,
// it opens at the link's next attempt. A section that is never unplugged sees none of this:
// open and close only flip the flag, as they always have.
class SoftwareSerialConnection : public SerialMessageParser,
                                 public ISerialConnection,
                                 public ISoftwareSectionLine
{
public:
    // The logger takes the unplugged line's reports; without one they are left out.
    SoftwareSerialConnection(uint8_t sectionIndex,
                             std::shared_ptr<ISoftwareControllerConnection> controller,
                             std::shared_ptr<Logger> logger = nullptr);
    ~SoftwareSerialConnection() override;
    SoftwareSerialConnection(const SoftwareSerialConnection&) = delete;
    SoftwareSerialConnection& operator=(const SoftwareSerialConnection&) = delete;

    bool isOpen() const override;
    uint64_t messageCount() const override;
    // Registers the receiver with the controller for this section; the registration is
    // withdrawn when this connection is destroyed, if it is still the current one.
    void setDataReceiver(ISerialDataReceiver* receiver) override;
    // Open and close only flip the flag while the section is plugged in; opening an
    // unplugged section fails as opening a missing device does.
    void open() override;
    void close() override;
    // Offers the packet to the section (one in its bootloader answers it); otherwise answers
    // the bootloader's auto-baud request with "not in bootloader" and drops the rest.
    void writeRaw(const BootloaderPacket& packet) override;
    void sendMessage(const SerialMessage& message) override;
    void flush() override;
    // "Device gone: software section 0" after the section was pulled out while open,
    // "Device not found: software section 0" after an open failed; empty once it opens.
    QString portError() const override;
    void reopen() override;

    // ISoftwareSectionLine
    void pluggedChanged(bool plugged) override;
    bool isDown() const override { return m_down; }

    // What the line calls itself in its reports: "software section 0".
    QString lineName() const;

    uint8_t sectionIndex() const { return m_sectionIndex; }
    // Encoded bytes waiting for flush().
    int bufferedSize() const { return m_outputBuffer.size(); }

protected:
    void messageReceived(const SerialMessage& message) override;
    void badDataReceived(const QByteArray& data) override;

private:
    void logDebug(const QString& text) const;
    void logCritical(const QString& text) const;

    const uint8_t m_sectionIndex;
    bool m_open = false;
    const std::shared_ptr<ISoftwareControllerConnection> m_controller;
    // The receiver last registered through this connection (not owned).
    ISerialDataReceiver* m_receiver = nullptr;
    // Kept for symmetry with the hardware connection; everything here runs on the surface's
    // thread, so no operation takes it.
    std::mutex m_mutex;
    QByteArray m_outputBuffer;
    uint64_t m_messageCount = 0;
    // Set while flush() is handing bytes to the controller. A control's answer can reach
    // the section connection and make it send and flush again before that returns; the
    // inner flush only asks the outer one to go round again.
    bool m_flushing = false;
    bool m_flushRequested = false;

    const std::shared_ptr<Logger> m_logger;
    // Pulled out while open, or failed to open since: nothing passes.
    bool m_down = false;
    QString m_portError;
    // How the last open ended, so that reopen() leaves out a failure it would only repeat.
    enum class LastOpen
    {
        None,
        Opened,
        Failed,
    };
    LastOpen m_lastOpen = LastOpen::None;
    bool m_reopening = false;
};

}  // namespace Velmora::Worksurface
