#pragma once

#include <QByteArray>
#include <QList>
#include <cstdint>
#include <vector>

#include "serial/iserialconnection.h"
#include "serial/serialmessage.h"
#include "updater/bootloaderpacket.h"

namespace Velmora::Worksurface {
class ISerialDataReceiver;
}

// Stands in for a section's serial line. It encodes and buffers sent messages as a real
// connection does and records what reaches the line: each non-empty flush as one byte
// batch (empty flushes are only counted), each raw bootloader packet, opens and closes.
// Writes are recorded whether or not the line is open, so a test sees everything the
// link tried to send. Bytes from the "section" are pushed into the registered receiver.
class FakeSerialConnection : public Velmora::Worksurface::ISerialConnection
{
public:
    FakeSerialConnection() = default;

    // ISerialConnection
    bool isOpen() const override { return m_open; }
    uint64_t messageCount() const override { return m_messageCount; }
    void setDataReceiver(Velmora::Worksurface::ISerialDataReceiver* receiver) override;
    // Opens when the open result says so (true by default), like a port that exists.
    void open() override;
    // Drops the unflushed buffer, like a real port.
    void close() override;
    void writeRaw(const Velmora::Worksurface::BootloaderPacket& packet) override;
    void sendMessage(const Velmora::Worksurface::SerialMessage& message) override;
    void flush() override;

    // What the next open() does.
    void setOpenResult(bool opens) { m_openResult = opens; }
    // Forces the open state without counting an open or a close.
    void setOpen(bool open) { m_open = open; }

    Velmora::Worksurface::ISerialDataReceiver* dataReceiver() const { return m_receiver; }
    // Delivers bytes from the section to the receiver, as a port's readyRead would.
    // Returns false (and delivers nothing) when no receiver is set.
    bool pushData(const QByteArray& bytes);

    int openCount() const { return m_openCount; }
    int closeCount() const { return m_closeCount; }
    // Every message given to sendMessage(), in order.
    const std::vector<Velmora::Worksurface::SerialMessage>& sentMessages() const
    {
        return m_sentMessages;
    }
    // One entry per flush that wrote something: the bytes written by that flush.
    const QList<QByteArray>& flushes() const { return m_flushes; }
    // Every flush() call, including those with nothing to write.
    int flushCount() const { return m_flushCount; }
    // All flushed bytes joined.
    QByteArray writtenBytes() const;
    // Sent but not yet flushed.
    const QByteArray& pendingBytes() const { return m_buffer; }
    const std::vector<Velmora::Worksurface::BootloaderPacket>& rawPackets() const
    {
        return m_rawPackets;
    }

    // Forgets what was recorded (messages, flushes, raw packets and the counters of opens,
    // closes and flushes). The message count and the open state stay, as on a real port.
    void clearRecords();

private:
    bool m_open = false;
    bool m_openResult = true;
    Velmora::Worksurface::ISerialDataReceiver* m_receiver = nullptr;
    uint64_t m_messageCount = 0;
    QByteArray m_buffer;
    int m_openCount = 0;
    int m_closeCount = 0;
    int m_flushCount = 0;
    std::vector<Velmora::Worksurface::SerialMessage> m_sentMessages;
    QList<QByteArray> m_flushes;
    std::vector<Velmora::Worksurface::BootloaderPacket> m_rawPackets;
};
