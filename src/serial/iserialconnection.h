#pragma once

#include <QString>
#include <cstdint>

#include "serial/serialmessage.h"
#include "updater/bootloaderpacket.h"

namespace Velmora::Worksurface {

class ISerialDataReceiver;

// The byte pipe to one section: a real serial port or the in-process software link.
// Messages are buffered and written on flush(), so a pass's burst is one write.
class ISerialConnection
{
public:
    virtual ~ISerialConnection() = default;
    virtual bool isOpen() const = 0;
    // Messages handed to sendMessage() since construction; never reset.
    virtual uint64_t messageCount() const = 0;
    // Not owned; may be null.
    virtual void setDataReceiver(ISerialDataReceiver* receiver) = 0;
    virtual void open() = 0;
    virtual void close() = 0;
    // One firmware-update packet, written at once, outside the message buffer.
    virtual void writeRaw(const BootloaderPacket& packet) = 0;
    virtual void sendMessage(const SerialMessage& message) = 0;
    virtual void flush() = 0;

    // The device the connection opens; empty for a link without one (the software link).
    virtual QString portName() const { return QString(); }
    // Why the device last failed to open or to stay open, naming it; empty while it is open
    // or before the first open.
    virtual QString portError() const { return QString(); }
    // Another attempt in a series of reconnection attempts: opens like open(), but says
    // only what is new (a failure that repeats the previous one is not logged again).
    virtual void reopen() { open(); }
};

}  // namespace Velmora::Worksurface
