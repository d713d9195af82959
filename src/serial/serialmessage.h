#pragma once

#include <QByteArray>
#include <cstdint>
#include <vector>

namespace Velmora::Worksurface {

// The message types of the section link. The numbers and base lengths are the contract
// with the sections' firmware.
namespace MessageType {
enum : uint8_t
{
    Ping = 0,  // also the section's version and temperature report
    Reserved1 = 1,
    SerialError = 2,
    Calibration = 3,
    Bootloader = 4,
    Echo = 5,
    SurfaceBrightness = 6,
    FaderPosition = 7,
    FaderBackstop = 8,
    FaderDetent = 9,
    FaderDriveMode = 10,
    Led = 11,
    RgbColor = 12,
    MeterLevel = 13,
    MeterPeak = 14,
    Reserved15 = 15,
    FaderTouch = 16,
    PotValue = 17,
    RotaryStep = 18,
    RotaryTouch = 19,
    ButtonState = 20,
    Reserved21 = 21,
    SurfaceOverBrightness = 22,
    NoMessage = 23,
};
}

// The length byte a message of each type carries when it is not variable-length
// (payload size is this minus 3). Indexed by message type 0..22.
uint8_t MessageBaseLength(uint8_t type);

// One frame's worth of message: type, device id and payload. A small value type.
struct SerialMessage
{
    uint8_t type = MessageType::NoMessage;
    uint8_t deviceId = 0;
    bool variableLength = false;
    // Not a frame: encodes to 1,024 zero bytes, used to flush a section's receiver after
    // a serial error.
    bool zeroFill = false;
    std::vector<uint8_t> payload;

    // The "no message" value: type 23.
    SerialMessage() = default;
    // Variable-length when asked for, and always for the echo type.
    SerialMessage(uint8_t type, uint8_t deviceId, std::vector<uint8_t> payload = {},
                  bool variableLength = false);

    static SerialMessage makeZeroFill();

    bool isValid() const { return type != MessageType::NoMessage; }

    // Bounded payload readers: offsets are into the payload; a read past its end gives
    // the default. Words are big-endian.
    uint8_t byteAt(std::size_t offset, uint8_t defaultValue = 0) const;
    uint16_t wordAt(std::size_t offset, uint16_t defaultValue = 0) const;
    bool boolAt(std::size_t offset, bool defaultValue = false) const;

    bool operator==(const SerialMessage& other) const;
    bool operator!=(const SerialMessage& other) const { return !(*this == other); }
};

// The bytes written to the line for a message.
QByteArray encode(const SerialMessage& message);

}  // namespace Velmora::Worksurface
