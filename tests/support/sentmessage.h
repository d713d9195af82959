#pragma once

#include <QString>
#include <QStringList>
#include <QtGlobal>
#include <cstdint>
#include <vector>

#include "serial/serialmessage.h"

// A message on its way to a section together with an instant on the monotonic clock: when
// a recording sender says the queue would release it, or when the real queue did release
// it. Tests compare lists of these through their one-line descriptions, so a failure shows
// the whole exchange.
struct SentMessage
{
    Velmora::Worksurface::SerialMessage message;
    qint64 atNs = 0;

    bool operator==(const SentMessage& other) const
    {
        return message == other.message && atNs == other.atNs;
    }
    bool operator!=(const SentMessage& other) const { return !(*this == other); }
};

// "type 11 device 3 payload ff00 @250000001"
QString describe(const SentMessage& sent);
QStringList describe(const std::vector<SentMessage>& sent);
// The description of a message given by its parts, for the expected side of a comparison.
QString expectedMessage(uint8_t type, uint8_t deviceId, const char* payloadHex, qint64 atNs);
