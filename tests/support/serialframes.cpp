#include "support/serialframes.h"

namespace SerialFrames {

uint8_t checksum(const QByteArray& bytes)
{
    unsigned int sum = 0;
    for (char byte : bytes) {
        sum += static_cast<uint8_t>(byte);
    }
    return static_cast<uint8_t>(sum);
}

QByteArray frame(uint8_t type, uint8_t deviceId, const QByteArray& payload)
{
    QByteArray bytes;
    bytes.append(static_cast<char>(3 + payload.size()));
    bytes.append(static_cast<char>(type));
    bytes.append(static_cast<char>(deviceId));
    bytes.append(payload);
    bytes.append(static_cast<char>(checksum(bytes)));
    return bytes;
}

QByteArray wireBytes(const Velmora::Worksurface::SerialMessage& message)
{
    QByteArray payload;
    payload.reserve(static_cast<int>(message.payload.size()));
    for (uint8_t byte : message.payload) {
        payload.append(static_cast<char>(byte));
    }
    return frame(message.type, message.deviceId, payload);
}

}  // namespace SerialFrames

namespace Velmora::Worksurface {

char* toString(const SerialMessage& message)
{
    QByteArray payload;
    for (uint8_t byte : message.payload) {
        payload.append(static_cast<char>(byte));
    }
    QByteArray text = "SerialMessage(type " + QByteArray::number(message.type) + ", device " +
                      QByteArray::number(message.deviceId) + ", payload [" + payload.toHex(' ') +
                      "]";
    if (message.variableLength) {
        text += ", variable length";
    }
    if (message.zeroFill) {
        text += ", zero fill";
    }
    text += ")";
    return qstrdup(text.constData());
}

}  // namespace Velmora::Worksurface
