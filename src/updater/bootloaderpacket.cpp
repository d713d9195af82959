#include "updater/bootloaderpacket.h"

namespace Velmora::Worksurface {

namespace {

// The size byte the bootloader expects in front of each framed code: size, checksum and
// command count themselves, so a code without data is 3 and SendData (64 data bytes) 67.
// 0 means the code is not framed (single-byte answers, AutoBaud) or not known.
uint8_t framedSize(uint8_t command)
{
    switch (command) {
        case BootloaderCommand::Ping:
            return 3;
        case BootloaderCommand::Download:
            return 11;
        case BootloaderCommand::Run:
            return 7;
        case BootloaderCommand::GetStatus:
            return 3;
        case BootloaderCommand::SendData:
            return 67;
        case BootloaderCommand::Reset:
            return 3;
        case BootloaderCommand::Success:
        case BootloaderCommand::NoPacket:
        case BootloaderCommand::InvalidCommand:
        case BootloaderCommand::InvalidAddress:
        case BootloaderCommand::FlashFailure:
        case BootloaderCommand::CRCheckFailure:
            return 3;
        default:
            return 0;
    }
}

}  // namespace

// The size byte always comes from the table, never from the payload: the bootloader reads
// exactly as many bytes as the command implies. The payload itself is written as given, so
// a caller that hands SendData fewer or more than 64 bytes (or Download other than 8) gets
// a packet the bootloader will misread; building a well-formed payload is the caller's job.
// The checksum covers the command and the bytes actually written, so that it always matches
// what the bootloader sees on the line (a payload given to a 3-byte command is not sent and
// not counted).
QByteArray encodeBootloaderPacket(const BootloaderPacket& packet)
{
    switch (packet.command) {
        case BootloaderCommand::CommandAck:
        case BootloaderCommand::CommandNak:
        case BootloaderCommand::NotBootLoader:
            return QByteArray(1, static_cast<char>(packet.command));
        case BootloaderCommand::AutoBaud:
            return QByteArray(2, static_cast<char>(packet.command));
        default:
            break;
    }

    const uint8_t size = framedSize(packet.command);
    if (size == 0) {
        return {};
    }
    const bool withPayload = size > 3;
    uint8_t checksum = packet.command;
    if (withPayload) {
        for (const char byte : packet.payload) {
            checksum = static_cast<uint8_t>(checksum + static_cast<uint8_t>(byte));
        }
    }

    QByteArray bytes;
    bytes.reserve(3 + (withPayload ? packet.payload.size() : 0));
    bytes.append(static_cast<char>(size));
    bytes.append(static_cast<char>(checksum));
    bytes.append(static_cast<char>(packet.command));
    if (withPayload) {
        bytes.append(packet.payload);
    }
    return bytes;
}

QString bootloaderCommandName(uint8_t command)
{
    switch (command) {
        case BootloaderCommand::Ping:
            return QStringLiteral("Ping");
        case BootloaderCommand::Download:
            return QStringLiteral("Download");
        case BootloaderCommand::Run:
            return QStringLiteral("Run");
        case BootloaderCommand::GetStatus:
            return QStringLiteral("GetStatus");
        case BootloaderCommand::SendData:
            return QStringLiteral("SendData");
        case BootloaderCommand::Reset:
            return QStringLiteral("Reset");
        case BootloaderCommand::CommandNak:
            return QStringLiteral("CommandNak");
        case BootloaderCommand::Success:
            return QStringLiteral("Success");
        case BootloaderCommand::InvalidCommand:
            return QStringLiteral("InvalidCommand");
        case BootloaderCommand::InvalidAddress:
            return QStringLiteral("InvalidAddress");
        case BootloaderCommand::FlashFailure:
            return QStringLiteral("FlashFailure");
        case BootloaderCommand::CRCheckFailure:
            return QStringLiteral("CRCheckFailure");
        case BootloaderCommand::AutoBaud:
            return QStringLiteral("AutoBaud");
        case BootloaderCommand::NotBootLoader:
            return QStringLiteral("NotBootLoader");
        case BootloaderCommand::CommandAck:
            return QStringLiteral("CommandAck");
        default:
            // Includes the updater's own "no packet pending" marker, which the bootloader
            // never sends.
            return QStringLiteral("UnknownCommand");
    }
}

}  // namespace Velmora::Worksurface
