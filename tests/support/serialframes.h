#pragma once

#include <QByteArray>
#include <cstdint>

#include "serial/serialmessage.h"

// Builds section-link frames byte by byte, independently of the plugin's encoder, so
// tests can feed the parser what a section really sends (any payload size, for any type)
// and check what came out against the exact bytes that went in.
namespace SerialFrames {

// Length byte 3 + payload size, type, device id, payload, 8-bit sum of all before.
QByteArray frame(uint8_t type, uint8_t deviceId, const QByteArray& payload = QByteArray());

// The frame a received message arrived in: its length byte is 3 + its payload size,
// whatever the type's usual length.
QByteArray wireBytes(const Velmora::Worksurface::SerialMessage& message);

// The 8-bit sum of the bytes.
uint8_t checksum(const QByteArray& bytes);

}  // namespace SerialFrames

namespace Velmora::Worksurface {
// Lets QCOMPARE print messages: type, device, payload in hexadecimal and the flags.
char* toString(const SerialMessage& message);
}  // namespace Velmora::Worksurface
