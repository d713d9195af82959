#pragma once

#include <QString>
#include <cstdint>
#include <memory>

#include "serial/iserialconnection.h"

namespace Velmora::Worksurface {
class HardwareSerialConnection;
class ISerialDataReceiver;
}  // namespace Velmora::Worksurface

// A section's serial line as the user named it: the device itself, a symlink, or a
// /dev/serial/by-id name that leads to whatever node the adapter has now. The name is
// resolved again on every open and reopen, and the line is opened under the device it leads
// to then (the one its lock is taken by), so that an adapter that comes back under another
// node is found by its name, and a stranger on the old node is left alone.
class NamedSerialConnection : public Velmora::Worksurface::ISerialConnection
{
public:
    NamedSerialConnection(uint8_t sectionIndex, const QString& name);
    ~NamedSerialConnection() override;

    // The device the name led to when the line was last opened (the name itself while it
    // leads nowhere).
    const QString& device() const { return m_device; }
    // Why the device last failed to open, in the operating system's words.
    QString errorString() const;

    bool isOpen() const override;
    uint64_t messageCount() const override;
    void setDataReceiver(Velmora::Worksurface::ISerialDataReceiver* receiver) override;
    void open() override;
    void close() override;
    void writeRaw(const Velmora::Worksurface::BootloaderPacket& packet) override;
    void sendMessage(const Velmora::Worksurface::SerialMessage& message) override;
    void flush() override;
    // The name given.
    QString portName() const override;
    // Why the device failed or went away ("Device gone: …"), naming the name given and,
    // where it differs, the device it led to: "Device gone: /dev/serial/by-id/usb-…
    // (/dev/ttyUSB0)".
    QString portError() const override;
    void reopen() override;

private:
    // Resolves the name again; a device other than the line's gets a port of its own.
    void follow();

    const uint8_t m_sectionIndex;
    const QString m_name;
    QString m_device;
    std::unique_ptr<Velmora::Worksurface::HardwareSerialConnection> m_port;
    Velmora::Worksurface::ISerialDataReceiver* m_receiver = nullptr;
    // Messages sent through the ports of devices the name led to before.
    uint64_t m_earlierMessages = 0;
};
