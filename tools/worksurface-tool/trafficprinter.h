#pragma once

#include <QByteArray>
#include <QMap>
#include <QSet>
#include <QString>
#include <QtGlobal>
#include <cstdint>

#include "framedecoder.h"
#include "surface/messagecatalog.h"
#include "toolcommandline.h"

namespace Velmora::Worksurface {
class JsonLine;
}
class ToolOutput;

// Prints what went over a section's line, one line per frame or noise run, as text or
// JSON: where (time since start, or byte offset in a capture), section, direction,
// message type, device id, control and value, all in the words of MessageCatalog.
// Monitor's link events (state changes, a lost device) go through it too, so that they
// carry the same times.
class TrafficPrinter
{
public:
    enum class Position
    {
        Time,    // seconds since the tool started (monitor)
        Offset,  // byte offset in the stream (decode)
    };

    // Bytes of noise a text line shows; a longer run goes on as many lines as it takes, as
    // a hex dump does. JSON keeps a run in one object.
    static constexpr int kNoiseBytesPerLine = 16;

    TrafficPrinter(ToolOutput& output, Position position, bool raw);

    // Which controls a section has, for naming them (default: every control).
    void setScope(uint8_t section, const Velmora::Worksurface::MessageCatalog::Scope& scope);
    // Only these types, device ids (empty: all) and direction ("in", "out", empty: both).
    // Noise has no type or device: it is left out once types or devices are asked for.
    void setFilter(const QSet<int>& types, const QSet<int>& devices, const QString& dir);
    void setTimeMode(ToolCommandLine::TimeMode mode) { m_timeMode = mode; }

    // A received or sent frame, or received noise; `at` is nanoseconds since start or the
    // byte offset.
    void print(qint64 at, uint8_t section, bool incoming, const FrameDecoder::Event& event);
    void print(qint64 at, uint8_t section, bool incoming,
               const Velmora::Worksurface::SerialMessage& message);
    // A link event: text on standard error ("section 0  link connected"), JSON on standard
    // output ({"t":…,"section":0,"event":"link","state":"connected"}). `fields` adds keys
    // after "event"; `text` is what follows the section in text. An event without text is
    // JSON's own: the text of the event before it said it already.
    void event(qint64 at, uint8_t section, const QString& text, const char* name,
               const Velmora::Worksurface::JsonLine& fields);

private:
    bool passes(bool incoming, const FrameDecoder::Event& event) const;
    void printJson(qint64 at, uint8_t section, bool incoming, const FrameDecoder::Event& event);
    void printText(qint64 at, uint8_t section, bool incoming, const FrameDecoder::Event& event);
    void printNoise(qint64 at, uint8_t section, bool incoming, const QByteArray& bytes);
    // The time column in text and the time keys in JSON.
    QString timeText(qint64 at);
    void addTime(Velmora::Worksurface::JsonLine& line, qint64 at);

    ToolOutput& m_output;
    Position m_position;
    bool m_raw;
    QMap<uint8_t, Velmora::Worksurface::MessageCatalog::Scope> m_scopes;
    QSet<int> m_types;
    QSet<int> m_devices;
    QString m_dir;
    ToolCommandLine::TimeMode m_timeMode = ToolCommandLine::TimeMode::Relative;
    qint64 m_lastAt = -1;
};
