#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>

namespace Velmora::Worksurface {

// The serial bootloader of a QML-played section's microcontroller: what a section that
// sits in its bootloader answers to the firmware updater, byte for byte, as the hardware
// does (docs/software-bootloader.md).
//
// Bytes from the plugin are read as bootloader packets: 0x00 is ignored, the plugin's own
// single-byte answers (0xCC after a status packet, 0x33) are taken silently, 0x55 0x55
// (AutoBaud) is acknowledged (0xCC), and any other byte is the size byte s (3..67) of a
// packet [s, checksum, command, data...] whose checksum is the 8-bit sum of command and
// data. A packet with a wrong checksum, or one picked to be refused (nakCount), is answered
// with 0x33 and not executed; every other packet with 0xCC, then:
//   Ping       nothing more
//   Download   start address and size (big-endian 32-bit); the received image starts over
//   SendData   its 64 bytes are appended to the image
//   GetStatus  the status packet [3, status, status]: flashStatus, or InvalidCommand after a
//              command this bootloader does not know
//   Reset, Run the microcontroller leaves its bootloader and runs its application
//
// Plain logic, no Qt object and no time: the caller delivers the answers and paces them.
class SoftwareBootloader
{
public:
    // What one call of receive() produced.
    struct Result
    {
        // The answer bytes for the plugin, in order.
        QByteArray answer;
        // A Reset or Run was acknowledged: the section now runs its application.
        bool left = false;
        // Image bytes arrived, or the image started over.
        bool imageChanged = false;
        // Packets were refused on request (nakCount went down).
        bool nakCountChanged = false;
    };

    // Reads bytes from the plugin. A packet split over calls waits for its rest.
    Result receive(const QByteArray& bytes);
    // Forgets a half-received packet and the updater's exchange: the link that ran it is
    // gone. The received image stays for inspection.
    void abandonExchange()
    {
        m_input.clear();
        m_updating = false;
    }
    // A bootloader that has just booted has not found the line's baud rate yet: it answers
    // nothing, and reads nothing, until the next AutoBaud.
    void awaitAutoBaud()
    {
        m_input.clear();
        m_awaitingAutoBaud = true;
    }
    bool isAwaitingAutoBaud() const { return m_awaitingAutoBaud; }

    // The status answered to GetStatus (Success, 0x40, by default).
    uint8_t flashStatus() const { return m_flashStatus; }
    void setFlashStatus(uint8_t status) { m_flashStatus = status; }
    // How many of the next packets are refused with a NAK.
    int nakCount() const { return m_nakCount; }
    void setNakCount(int count) { m_nakCount = count < 0 ? 0 : count; }

    // Image bytes received since the last Download (padding included).
    const QByteArray& image() const { return m_image; }
    // CRC-32 (the zlib polynomial) of image(), as 8 lower-case hex digits; "" before any
    // image byte arrived.
    QString imageCrc32() const;
    // What the last Download announced.
    uint32_t downloadAddress() const { return m_downloadAddress; }
    uint32_t downloadSize() const { return m_downloadSize; }
    // Whether an updater's exchange has begun (AutoBaud acknowledged) and not yet ended
    // with a Reset or Run.
    bool isUpdating() const { return m_updating; }

    // The standard CRC-32 of `bytes` (reflected polynomial 0xEDB88320).
    static uint32_t crc32(const QByteArray& bytes);

    // The largest packet a bootloader takes (SendData: 3 + 64 bytes).
    static constexpr int kMaxPacketSize = 67;
    static constexpr int kMinPacketSize = 3;

private:
    void execute(uint8_t command, const QByteArray& data, Result& result);

    QByteArray m_input;
    QByteArray m_image;
    uint8_t m_flashStatus = 0x40;
    uint8_t m_nextStatus = 0x40;
    int m_nakCount = 0;
    uint32_t m_downloadAddress = 0;
    uint32_t m_downloadSize = 0;
    bool m_updating = false;
    bool m_awaitingAutoBaud = false;
};

}  // namespace Velmora::Worksurface
