#pragma once

// What a 115200-baud line alone needs for a whole firmware update, both directions, which
// strictly alternate (a request, then its answer). Per 64-byte block the plugin sends
// SendData (67 bytes), GetStatus (3) and its ACK of the status reply (1) and the section
// sends two ACKs (1 + 1) and the status reply (3): 76 bytes. The start (AutoBaud, Ping,
// Download and the first status: 27 bytes) and the end (Reset, its ACK, AutoBaud,
// NotBootLoader: 7 bytes) add little; the 1 s wait before the last AutoBaud is not counted.
struct FirmwareWire
{
    static constexpr double kLineBytesPerSecond = 115200.0 / 10.0;
    static constexpr int kBlock = 64;
    static constexpr int kPluginBytesPerBlock = 67 + 3 + 1;
    static constexpr int kSectionBytesPerBlock = 1 + 1 + 3;
    static constexpr int kPluginStartBytes = 2 + 3 + 11 + 3 + 1;
    static constexpr int kSectionStartBytes = 1 + 1 + 1 + 1 + 3;
    static constexpr int kPluginEndBytes = 3 + 2;
    static constexpr int kSectionEndBytes = 1 + 1;

    static double blocks(int imageSize) { return (imageSize + kBlock - 1) / kBlock; }
    static double pluginBytes(int imageSize)
    {
        return kPluginStartBytes + blocks(imageSize) * kPluginBytesPerBlock + kPluginEndBytes;
    }
    static double sectionBytes(int imageSize)
    {
        return kSectionStartBytes + blocks(imageSize) * kSectionBytesPerBlock + kSectionEndBytes;
    }
    // Both directions.
    static double wireSeconds(int imageSize)
    {
        return (pluginBytes(imageSize) + sectionBytes(imageSize)) / kLineBytesPerSecond;
    }
    // The section's bytes alone.
    static double replySeconds(int imageSize)
    {
        return sectionBytes(imageSize) / kLineBytesPerSecond;
    }
};
