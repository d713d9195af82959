#include "tracesummary.h"

#include <QJsonObject>
#include <QStringList>

#include "base/jsonline.h"
#include "tooloutput.h"

namespace {

// A trace time in the text's form, without the column's padding.
QString secondsText(double t)
{
    return QString::number(t, 'f', 3);
}

}  // namespace

void TraceSummary::add(double t, int section, const QJsonObject& o)
{
    Section& s = m_sections[section];
    if (o.contains(QLatin1String("event"))) {
        addEvent(t, s, o);
        return;
    }
    const bool incoming = o.value(QLatin1String("dir")).toString() == QLatin1String("in");
    if (o.contains(QLatin1String("noise"))) {
        s.noiseBytes += o.value(QLatin1String("noise")).toString().size() / 2;
        return;
    }
    if (o.contains(QLatin1String("bootloader"))) {
        (incoming ? s.framesIn : s.framesOut)[QStringLiteral("bootloader")] += 1;
        return;
    }
    if (o.value(QLatin1String("badChecksum")).toBool()) {
        ++s.badChecksums;
        return;
    }
    (incoming ? s.framesIn : s.framesOut)[o.value(QLatin1String("typeName")).toString()] += 1;
    if (incoming) {
        frameReceived(t, s);
    }
}

void TraceSummary::frameReceived(double t, Section& s)
{
    endGap(t, s, true);
    s.haveFrame = true;
    s.inGap = true;
    s.gapStart = t;
}

void TraceSummary::endGap(double t, Section& s, bool byFrame)
{
    if (!s.inGap) {
        return;
    }
    s.inGap = false;
    const double gap = t - s.gapStart;
    if (gap > s.longestGap && (byFrame || gap > 0)) {
        s.longestGap = gap;
        s.gapFrom = s.gapStart;
    }
}

void TraceSummary::end(double t)
{
    for (auto& [index, s] : m_sections) {
        endGap(t, s, false);
    }
}

void TraceSummary::addEvent(double t, Section& s, const QJsonObject& o)
{
    const QString event = o.value(QLatin1String("event")).toString();
    if (event == QLatin1String("restart")) {
        s.restarts << t;
        // The silence that made the link restart ends here; the section's silence after the
        // restart is counted from it.
        endGap(t, s, false);
        s.inGap = s.haveFrame;
        s.gapStart = t;
    } else if (event == QLatin1String("state")) {
        s.states << qMakePair(t, o.value(QLatin1String("state")).toString());
    }
}

void TraceSummary::print(ToolOutput& output) const
{
    for (const auto& [index, s] : m_sections) {
        if (output.isJson()) {
            printJson(output, index, s);
        } else {
            printText(output, index, s);
        }
    }
}

void TraceSummary::printJson(ToolOutput& output, int index, const Section& s)
{
    JsonLine in;
    for (const auto& [name, count] : s.framesIn) {
        in.add(name.toUtf8().constData(), count);
    }
    JsonLine out;
    for (const auto& [name, count] : s.framesOut) {
        out.add(name.toUtf8().constData(), count);
    }
    QByteArrayList restarts;
    for (const double at : s.restarts) {
        restarts << QByteArray::number(at, 'f', 6);
    }
    QByteArrayList states;
    for (const auto& [at, state] : s.states) {
        states << JsonLine().addFixed("t", at, 6).add("state", state).toJson();
    }
    JsonLine line;
    line.add("section", index)
        .add("in", in)
        .add("out", out)
        .add("noiseBytes", s.noiseBytes)
        .add("badChecksums", s.badChecksums);
    if (s.longestGap >= 0) {
        line.addFixed("longestGap", s.longestGap, 6).addFixed("longestGapFrom", s.gapFrom, 6);
    }
    line.addArray("restarts", restarts).addArray("states", states);
    output.json(line);
}

void TraceSummary::printText(ToolOutput& output, int index, const Section& s)
{
    output.text(QStringLiteral("section %1").arg(index));
    for (const auto& [name, count] : s.framesIn) {
        output.text(QStringLiteral("  in   %1  %2").arg(name).arg(count));
    }
    for (const auto& [name, count] : s.framesOut) {
        output.text(QStringLiteral("  out  %1  %2").arg(name).arg(count));
    }
    output.text(QStringLiteral("  noise bytes  %1").arg(s.noiseBytes));
    output.text(QStringLiteral("  bad checksums  %1").arg(s.badChecksums));
    if (s.longestGap >= 0) {
        output.text(QStringLiteral("  longest gap without a received frame  %1 s from %2")
                        .arg(s.longestGap, 0, 'f', 3)
                        .arg(secondsText(s.gapFrom)));
    } else {
        output.text(QStringLiteral("  longest gap without a received frame  -"));
    }
    QStringList restartTimes;
    for (double t : s.restarts) {
        restartTimes << secondsText(t);
    }
    output.text(QStringLiteral("  restarts  %1%2")
                    .arg(s.restarts.size())
                    .arg(restartTimes.isEmpty()
                             ? QString()
                             : QStringLiteral(" at ") + restartTimes.join(QStringLiteral(", "))));
    output.text(QStringLiteral("  state changes  %1").arg(s.states.size()));
    for (const auto& state : s.states) {
        output.text(QStringLiteral("    %1  %2")
                        .arg(QStringLiteral("%1").arg(state.first, 8, 'f', 3), state.second));
    }
}
