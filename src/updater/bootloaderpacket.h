#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>

namespace Velmora::Worksurface {

// Command and status codes of the sections' serial bootloader.
namespace BootloaderCommand {
enum : uint8_t
{
    Ping = 0x20,
    Download = 0x21,
    Run = 0x22,
    GetStatus = 0x23,
    SendData = 0x24,
    Reset = 0x25,
    CommandNak = 0x33,
    Success = 0x40,
    // Not a bootloader code: the updater's marker for "no packet pending".
    NoPacket = 0x41,
    InvalidCommand = 0x42,
    InvalidAddress = 0x43,
    FlashFailure = 0x44,
    CRCheckFailure = 0x45,
    AutoBaud = 0x55,
    NotBootLoader = 0xAA,
    CommandAck = 0xCC,
};
}

// One packet of the bootloader exchange: a command (or status) byte and its payload.
struct BootloaderPacket
{
    uint8_t command = BootloaderCommand::NoPacket;
    QByteArray payload;

    BootloaderPacket() = default;
    explicit BootloaderPacket(uint8_t command, QByteArray payload = {})
        : command(command), payload(std::move(payload))
    {}

    bool operator==(const BootloaderPacket& other) const
    {
        return command == other.command && payload == other.payload;
    }
};

// The bytes of a packet on the line. Single-byte answers (ACK, NAK, NotBootLoader) are
// the code alone, AutoBaud is the code twice, every other known command is size, checksum,
// command and (for sizes above 3) the payload; an unknown command encodes to nothing.
QByteArray encodeBootloaderPacket(const BootloaderPacket& packet);

// The name of a code as it appears in the updater's log lines ("UnknownCommand" for codes
// without one).
QString bootloaderCommandName(uint8_t command);

}  // namespace Velmora::Worksurface
