#include "trafficprinter.h"

#include <QStringList>

#include "base/jsonline.h"
#include "surface/messagecatalog.h"
#include "tooloutput.h"

using Velmora::Worksurface::MessageCatalog;
using Velmora::Worksurface::SerialMessage;

TrafficPrinter::TrafficPrinter(ToolOutput& output, Position position, bool raw)
    : m_output(output), m_position(position), m_raw(raw)
{}

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
    const QString dir = incoming ? QStringLiteral("in") : QStringLiteral("out");
    const QString hex = QString::fromLatin1(event.bytes.toHex());
    const double seconds = static_cast<double>(at) / 1e9;

    if (m_output.isJson()) {
        JsonLine line;
        if (m_position == Position::Time) {
            line.addFixed("t", seconds, 3);
        } else {
            line.add("offset", at);
        }
        line.add("section", static_cast<int>(section)).add("dir", dir);
        if (event.noise) {
            line.add("noise", hex);
            m_output.json(line);
            return;
        }
        const MessageCatalog::Description d = MessageCatalog::describe(event.message);
        line.add("type", static_cast<int>(event.message.type))
            .add("typeName", d.typeName)
            .add("device", static_cast<int>(event.message.deviceId));
        if (!d.control.isEmpty()) {
            line.add("control", d.control);
        }
        if (d.versionReport) {
            line.add("value",
                     JsonLine().add("version", d.version).add("temperature", d.temperature));
        } else if (d.hasValue) {
            if (d.numeric) {
                line.add("value", d.number);
            } else {
                line.add("value", d.valueWord);
            }
        }
        if (m_raw) {
            line.add("hex", hex);
        }
        m_output.json(line);
        return;
    }

    QStringList fields;
    if (m_position == Position::Time) {
        fields << QStringLiteral("%1").arg(seconds, 8, 'f', 3);
    } else {
        fields << QStringLiteral("%1").arg(at, 8);
    }
    fields << QStringLiteral("section %1").arg(section) << dir.leftJustified(3);
    if (event.noise) {
        fields << QStringLiteral("noise") << hex;
        m_output.text(fields.join(QStringLiteral("  ")));
        return;
    }
    const MessageCatalog::Description d = MessageCatalog::describe(event.message);
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
