#include "software/softwarebootloader.h"

#include <QString>

#include "updater/bootloaderpacket.h"

namespace Velmora::Worksurface {

namespace {

uint8_t u8(char c)
{
    return static_cast<uint8_t>(c);
}

uint32_t bigEndianWord(const QByteArray& data, int offset)
{
    if (data.size() < offset + 4) {
        return 0;
    }
    return (uint32_t(u8(data[offset])) << 24) | (uint32_t(u8(data[offset + 1])) << 16) |
           (uint32_t(u8(data[offset + 2])) << 8) | uint32_t(u8(data[offset + 3]));
}

}  // namespace

uint32_t SoftwareBootloader::crc32(const QByteArray& bytes)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (const char c : bytes) {
        crc ^= u8(c);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1u) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
        }
    }
    return crc ^ 0xFFFFFFFFu;
}

QString SoftwareBootloader::imageCrc32() const
{
    if (m_image.isEmpty()) {
        return QString();
    }
    return QStringLiteral("%1").arg(crc32(m_image), 8, 16, QLatin1Char('0'));
}

SoftwareBootloader::Result SoftwareBootloader::receive(const QByteArray& bytes)
{
    Result result;
    m_input.append(bytes);
    int pos = 0;
    const int size = m_input.size();
    while (pos < size) {
        const uint8_t first = u8(m_input[pos]);
        if (m_awaitingAutoBaud && first != BootloaderCommand::AutoBaud) {
            // Not yet locked onto the line: whatever it is, it is not heard.
            ++pos;
            continue;
        }
        if (first == 0x00 || first == BootloaderCommand::CommandAck ||
            first == BootloaderCommand::CommandNak) {
            // Padding, or the plugin's own answer to a status packet.
            ++pos;
            continue;
        }
        if (first == BootloaderCommand::AutoBaud) {
            if (pos + 1 >= size) {
                break;
            }
            if (u8(m_input[pos + 1]) == BootloaderCommand::AutoBaud) {
                pos += 2;
                m_awaitingAutoBaud = false;
                result.answer.append(static_cast<char>(BootloaderCommand::CommandAck));
                // The updater's exchange has begun: it owns the section until its Reset.
                m_updating = true;
                continue;
            }
        }
        if (first < kMinPacketSize || first > kMaxPacketSize) {
            // Not a size byte: the bootloader skips it and looks for the next packet.
            ++pos;
            continue;
        }
        if (size - pos < first) {
            break;
        }
        const uint8_t checksum = u8(m_input[pos + 1]);
        const uint8_t command = u8(m_input[pos + 2]);
        const QByteArray data = m_input.mid(pos + 3, first - 3);
        pos += first;
        uint8_t sum = command;
        for (const char c : data) {
            sum = static_cast<uint8_t>(sum + u8(c));
        }
        if (sum != checksum) {
            result.answer.append(static_cast<char>(BootloaderCommand::CommandNak));
            continue;
        }
        if (m_nakCount > 0) {
            --m_nakCount;
            result.nakCountChanged = true;
            result.answer.append(static_cast<char>(BootloaderCommand::CommandNak));
            continue;
        }
        result.answer.append(static_cast<char>(BootloaderCommand::CommandAck));
        execute(command, data, result);
        if (result.left) {
            // What follows is for the application, not for the bootloader.
            pos = size;
        }
    }
    m_input.remove(0, pos);
    return result;
}

void SoftwareBootloader::execute(uint8_t command, const QByteArray& data, Result& result)
{
    switch (command) {
        case BootloaderCommand::Ping:
            break;
        case BootloaderCommand::Download:
            m_downloadAddress = bigEndianWord(data, 0);
            m_downloadSize = bigEndianWord(data, 4);
            m_image.clear();
            m_updating = true;
            result.imageChanged = true;
            break;
        case BootloaderCommand::SendData:
            m_image.append(data);
            result.imageChanged = true;
            break;
        case BootloaderCommand::GetStatus: {
            const uint8_t status =
                m_nextStatus != BootloaderCommand::Success ? m_nextStatus : m_flashStatus;
            m_nextStatus = BootloaderCommand::Success;
            result.answer.append(static_cast<char>(3));
            result.answer.append(static_cast<char>(status));
            result.answer.append(static_cast<char>(status));
            break;
        }
        case BootloaderCommand::Reset:
        case BootloaderCommand::Run:
            m_updating = false;
            result.left = true;
            break;
        default:
            // Acknowledged on the line, refused in the status.
            m_nextStatus = BootloaderCommand::InvalidCommand;
            break;
    }
}

}  // namespace Velmora::Worksurface
