#pragma once

#include <QByteArray>
#include <functional>
#include <memory>

#include "serial/iserialconnection.h"
#include "serial/iserialdatareceiver.h"

// A serial connection that lets the tool watch the line: it passes every call on to the
// real connection and tells its observers what goes out (messages and bootloader packets)
// and what comes in, before the link sees it.
class TappedSerialConnection : public Velmora::Worksurface::ISerialConnection,
                               public Velmora::Worksurface::ISerialDataReceiver
{
public:
    std::function<void(const Velmora::Worksurface::SerialMessage&)> onMessageSent;
    std::function<void(const Velmora::Worksurface::BootloaderPacket&)> onPacketWritten;
    std::function<void(const QByteArray&)> onBytesReceived;

    explicit TappedSerialConnection(std::shared_ptr<Velmora::Worksurface::ISerialConnection> inner);
    ~TappedSerialConnection() override;

    bool isOpen() const override;
    uint64_t messageCount() const override;
    void setDataReceiver(Velmora::Worksurface::ISerialDataReceiver* receiver) override;
    void open() override;
    void close() override;
    void writeRaw(const Velmora::Worksurface::BootloaderPacket& packet) override;
    void sendMessage(const Velmora::Worksurface::SerialMessage& message) override;
    void flush() override;
    QString portName() const override;
    QString portError() const override;
    void reopen() override;

    // Listen only: nothing is written to the line (no probe, no pings, no error replies);
    // the link still believes it wrote.
    void setListenOnly(bool listenOnly) { m_listenOnly = listenOnly; }

    void dataReceived(const QByteArray& data) override;

private:
    std::shared_ptr<Velmora::Worksurface::ISerialConnection> m_inner;
    Velmora::Worksurface::ISerialDataReceiver* m_receiver = nullptr;
    bool m_listenOnly = false;
};
