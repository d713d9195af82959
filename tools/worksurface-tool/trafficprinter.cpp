#include "trafficprinter.h"

#include <QDateTime>
#include <QStringList>

#include "base/jsonline.h"
#include "surface/messagecatalog.h"
#include "tooloutput.h"

using Velmora::Worksurface::MessageCatalog;
using Velmora::Worksurface::SerialMessage;

namespace {

// The local time with its offset from UTC, so that logs from two benches line up.
QString isoNow()
{
    const QDateTime now = QDateTime::currentDateTime();
    return now.toOffsetFromUtc(now.offsetFromUtc()).toString(Qt::ISODateWithMs);
}

}  // namespace

TrafficPrinter::TrafficPrinter(ToolOutput& output, Position position, bool raw)
    : m_output(output), m_position(position), m_raw(raw)
{}

void TrafficPrinter::setScope(uint8_t section, const MessageCatalog::Scope& scope)
{
    m_scopes.insert(section, scope);
}

void TrafficPrinter::setFilter(const QSet<int>& types, const QSet<int>& devices, const QString& dir)
{
    m_types = types;
    m_devices = devices;
    m_dir = dir;
}

bool TrafficPrinter::passes(bool incoming, const FrameDecoder::Event& event) const
{
    if (!m_dir.isEmpty() && m_dir != (incoming ? QLatin1String("in") : QLatin1String("out"))) {
        return false;
    }
    if (event.noise) {
        return m_types.isEmpty() && m_devices.isEmpty();
    }
    return (m_types.isEmpty() || m_types.contains(event.message.type)) &&
           (m_devices.isEmpty() || m_devices.contains(event.message.deviceId));
}

QString TrafficPrinter::timeText(qint64 at)
{
    if (m_position == Position::Offset) {
        return QStringLiteral("%1").arg(at, 8);
    }
    switch (m_timeMode) {
        case ToolCommandLine::TimeMode::Iso:
            return isoNow();
        case ToolCommandLine::TimeMode::Delta: {
            const qint64 delta = m_lastAt < 0 ? 0 : at - m_lastAt;
            m_lastAt = at;
            return QStringLiteral("%1").arg(
                '+' + QString::number(static_cast<double>(delta) / 1e9, 'f', 3), 8);
        }
        case ToolCommandLine::TimeMode::Relative:
            break;
    }
    return QStringLiteral("%1").arg(static_cast<double>(at) / 1e9, 8, 'f', 3);
}

void TrafficPrinter::addTime(JsonLine& line, qint64 at)
{
    if (m_position == Position::Offset) {
        line.add("offset", at);
        return;
    }
    // "t" stays the seconds since start in every mode; the other modes add their own key.
    line.addFixed("t", static_cast<double>(at) / 1e9, 3);
    if (m_timeMode == ToolCommandLine::TimeMode::Iso) {
        line.add("time", isoNow());
    } else if (m_timeMode == ToolCommandLine::TimeMode::Delta) {
        const qint64 delta = m_lastAt < 0 ? 0 : at - m_lastAt;
        m_lastAt = at;
        line.addFixed("dt", static_cast<double>(delta) / 1e9, 3);
    }
}

void TrafficPrinter::print(qint64 at, uint8_t section, bool incoming, const SerialMessage& message)
{
    FrameDecoder::Event event;
    event.bytes = encode(message);
    event.message = message;
    print(at, section, incoming, event);
}

void TrafficPrinter::print(qint64 at, uint8_t section, bool incoming,
                           const FrameDecoder::Event& event)
{
    if (!passes(incoming, event)) {
        return;
    }
    if (m_output.isJson()) {
        printJson(at, section, incoming, event);
    } else {
        printText(at, section, incoming, event);
    }
}

void TrafficPrinter::printJson(qint64 at, uint8_t section, bool incoming,
                               const FrameDecoder::Event& event)
{
    const QString hex = QString::fromLatin1(event.bytes.toHex());
    JsonLine line;
    addTime(line, at);
    line.add("section", static_cast<int>(section))
        .add("dir", incoming ? QStringLiteral("in") : QStringLiteral("out"));
    if (event.noise) {
        line.add("noise", hex);
        m_output.json(line);
        return;
    }
    const MessageCatalog::Description d =
        MessageCatalog::describe(event.message, m_scopes.value(section, MessageCatalog::Scope()));
    MessageCatalog::addTo(line, event.message, d);
    if (m_raw) {
        line.add("hex", hex);
    }
    m_output.json(line);
}

void TrafficPrinter::printText(qint64 at, uint8_t section, bool incoming,
                               const FrameDecoder::Event& event)
{
    if (event.noise) {
        printNoise(at, section, incoming, event.bytes);
        return;
    }
    const QString hex = QString::fromLatin1(event.bytes.toHex());
    QStringList fields;
    fields << timeText(at);
    fields << QStringLiteral("section %1").arg(section)
           << (incoming ? QStringLiteral("in ") : QStringLiteral("out"));
    const MessageCatalog::Description d =
        MessageCatalog::describe(event.message, m_scopes.value(section, MessageCatalog::Scope()));
    fields << d.typeName << QStringLiteral("device %1").arg(event.message.deviceId);
    if (!d.control.isEmpty()) {
        fields << d.control;
    }
    if (d.hasValue) {
        fields << d.valueText;
    }
    if (m_raw) {
        fields << QStringLiteral("[%1]").arg(hex);
    }
    m_output.text(fields.join(QStringLiteral("  ")));
}

void TrafficPrinter::printNoise(qint64 at, uint8_t section, bool incoming, const QByteArray& bytes)
{
    // Wrapped as a hex dump: kNoiseBytesPerLine a line, each line placed at its first byte
    // (its offset in a capture; in live traffic the run's time, as its bytes came at once).
    for (int from = 0; from < bytes.size(); from += kNoiseBytesPerLine) {
        const qint64 lineAt = m_position == Position::Offset ? at + from : at;
        m_output.text(QStringLiteral("%1  section %2  %3  noise  %4")
                          .arg(timeText(lineAt))
                          .arg(section)
                          .arg(incoming ? QStringLiteral("in ") : QStringLiteral("out"))
                          .arg(QString::fromLatin1(bytes.mid(from, kNoiseBytesPerLine).toHex())));
    }
}

void TrafficPrinter::event(qint64 at, uint8_t section, const QString& text, const char* name,
                           const JsonLine& fields)
{
    if (m_output.isJson()) {
        JsonLine line;
        addTime(line, at);
        line.add("section", static_cast<int>(section)).add("event", name);
        line.append(fields);
        m_output.json(line);
        return;
    }
    if (!text.isEmpty()) {
        ToolOutput::note(
            QStringLiteral("%1  section %2  %3").arg(timeText(at)).arg(section).arg(text));
    }
}
