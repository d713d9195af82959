#include "serial/serialmessage.h"

#include <array>

namespace Velmora::Worksurface {

namespace {

// The length byte of each message type as the sections' firmware expects it when the
// message carries its usual payload.
constexpr std::array<uint8_t, MessageType::NoMessage> kBaseLength = {
    3,  // 0 ping / version and temperature report
    3,  // 1 reserved
    3,  // 2 serial error
    3,  // 3 calibration
    3,  // 4 bootloader report
    3,  // 5 echo (always variable-length)
    4,  // 6 surface brightness
    5,  // 7 fader position
    5,  // 8 fader backstop
    5,  // 9 fader detent
    4,  // 10 fader drive mode
    5,  // 11 LED level
    7,  // 12 RGB colour
    4,  // 13 meter level
    4,  // 14 meter peak
    4,  // 15 reserved
    4,  // 16 fader touch
    3,  // 17 pot value request
    4,  // 18 rotary step
    4,  // 19 rotary touch
    4,  // 20 button state
    6,  // 21 reserved
    4,  // 22 surface over-brightness
};

constexpr std::size_t kZeroFillSize = 1024;
constexpr uint8_t kHeaderLength = 3;

}  // namespace

uint8_t MessageBaseLength(uint8_t type)
{
    // A type outside the table (the no-message value, or anything a caller made up) gets
    // the bare header length, so it still encodes to a well-formed frame that a section
    // rejects by its type byte instead of reading a length from beyond the table.
    if (type >= kBaseLength.size()) {
        return kHeaderLength;
    }
    return kBaseLength[type];
}

SerialMessage::SerialMessage(uint8_t type, uint8_t deviceId, std::vector<uint8_t> payload,
                             bool variableLength)
    : type(type),
      deviceId(deviceId),
      variableLength(variableLength || type == MessageType::Echo),
      zeroFill(false),
      payload(std::move(payload))
{}

SerialMessage SerialMessage::makeZeroFill()
{
    SerialMessage message;
    message.zeroFill = true;
    return message;
}

uint8_t SerialMessage::byteAt(std::size_t offset, uint8_t defaultValue) const
{
    if (offset >= payload.size()) {
        return defaultValue;
    }
    return payload[offset];
}

uint16_t SerialMessage::wordAt(std::size_t offset, uint16_t defaultValue) const
{
    if (payload.size() < 2 || offset > payload.size() - 2) {
        return defaultValue;
    }
    return static_cast<uint16_t>((payload[offset] << 8) | payload[offset + 1]);
}

bool SerialMessage::boolAt(std::size_t offset, bool defaultValue) const
{
    if (offset >= payload.size()) {
        return defaultValue;
    }
    return payload[offset] > 0;
}

bool SerialMessage::operator==(const SerialMessage& other) const
{
    return type == other.type && deviceId == other.deviceId &&
           variableLength == other.variableLength && zeroFill == other.zeroFill &&
           payload == other.payload;
}

QByteArray encode(const SerialMessage& message)
{
    if (message.zeroFill) {
        return QByteArray(static_cast<int>(kZeroFillSize), '\0');
    }

    std::size_t length = MessageBaseLength(message.type);
    if (message.variableLength) {
        length += message.payload.size();
    }
    const auto lengthByte = static_cast<uint8_t>(length);
    // A frame of the bare header length carries no payload, whatever the message holds;
    // anything longer carries the whole payload.
    const bool writePayload = lengthByte > kHeaderLength;

    QByteArray frame;
    frame.reserve(4 + (writePayload ? static_cast<int>(message.payload.size()) : 0));
    frame.append(static_cast<char>(lengthByte));
    frame.append(static_cast<char>(message.type));
    frame.append(static_cast<char>(message.deviceId));
    unsigned int sum = lengthByte + message.type + message.deviceId;
    if (writePayload) {
        for (uint8_t byte : message.payload) {
            frame.append(static_cast<char>(byte));
            sum += byte;
        }
    }
    frame.append(static_cast<char>(sum & 0xFFu));
    return frame;
}

}  // namespace Velmora::Worksurface
