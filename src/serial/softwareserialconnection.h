#pragma once

#include <QByteArray>
#include <cstdint>
#include <memory>
#include <mutex>

#include "serial/iserialconnection.h"
#include "serial/serialmessageparser.h"

namespace Velmora::Worksurface {

class ISoftwareControllerConnection;

// The serial connection of one section of a software surface. Nothing goes over a wire:
// flush() runs the buffered bytes through the same frame parser a section's firmware would,
// and hands each message to the software controller connection, which plays the section in
// QML and answers straight into this section's data receiver. Both ends therefore exercise
// the real framing.
class SoftwareSerialConnection : public SerialMessageParser, public ISerialConnection
{
public:
    SoftwareSerialConnection(uint8_t sectionIndex,
                             std::shared_ptr<ISoftwareControllerConnection> controller);
    ~SoftwareSerialConnection() override;
    SoftwareSerialConnection(const SoftwareSerialConnection&) = delete;
    SoftwareSerialConnection& operator=(const SoftwareSerialConnection&) = delete;

    bool isOpen() const override;
    uint64_t messageCount() const override;
    // Registers the receiver with the controller for this section; the registration is
    // withdrawn when this connection is destroyed, if it is still the current one.
    void setDataReceiver(ISerialDataReceiver* receiver) override;
    // Open and close only flip the flag: the simulated section is always there.
    void open() override;
    void close() override;
    // Answers the bootloader's auto-baud request with "not in bootloader"; drops the rest.
    void writeRaw(const BootloaderPacket& packet) override;
    void sendMessage(const SerialMessage& message) override;
    void flush() override;

    uint8_t sectionIndex() const { return m_sectionIndex; }
    // Encoded bytes waiting for flush().
    int bufferedSize() const { return m_outputBuffer.size(); }

protected:
    void messageReceived(const SerialMessage& message) override;
    void badDataReceived(const QByteArray& data) override;

private:
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
};

}  // namespace Velmora::Worksurface
