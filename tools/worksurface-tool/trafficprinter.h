#pragma once

#include <QByteArray>
#include <QtGlobal>
#include <cstdint>

#include "framedecoder.h"

class ToolOutput;

// Prints what went over a section's line, one line per frame or noise run, as text or
// JSON: where (time since start, or byte offset in a capture), section, direction,
// message type, device id, control and value, all in the words of MessageCatalog.
class TrafficPrinter
{
public:
    enum class Position
    {
        Time,    // seconds since the tool started (monitor)
        Offset,  // byte offset in the stream (decode)
    };

    TrafficPrinter(ToolOutput& output, Position position, bool raw);

    // A received or sent frame, or received noise; `at` is nanoseconds since start or the
    // byte offset.
    void print(qint64 at, uint8_t section, bool incoming, const FrameDecoder::Event& event);
    void print(qint64 at, uint8_t section, bool incoming,
               const Velmora::Worksurface::SerialMessage& message);

private:
    ToolOutput& m_output;
    Position m_position;
    bool m_raw;
};
