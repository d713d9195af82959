#include "tracecommand.h"

#include <QCommandLineParser>
#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <algorithm>
#include <map>
#include <vector>

#include "base/jsonline.h"
#include "exitcode.h"
#include "framedecoder.h"
#include "surface/messagecatalog.h"
#include "surface/tracefile.h"
#include "tooloutput.h"
#include "trafficprinter.h"

using Velmora::Worksurface::MessageCatalog;
using Velmora::Worksurface::SerialMessage;
using Velmora::Worksurface::TraceFile;
using Velmora::Worksurface::MessageType::NoMessage;

namespace {

const char kHelp[] =
    "Usage: worksurface-tool trace FILE [options]\n"
    "Print a trace file saved by the plugin (Surface.saveTrace, or a failing link's\n"
    "automatic trace) as monitor prints live traffic, with the link's events interleaved.\n"
    "\n"
    "Options:\n"
    "  --section N     only section N\n"
    "  --type T        only frames of message type T (a number or a name such as\n"
    "                  \"fader position\"); repeatable. \"noise\" and \"bootloader\" name\n"
    "                  those lines. Events are always shown.\n"
    "  --since WHEN    only from WHEN on: seconds before the trace's last entry (30),\n"
    "                  or a wall-clock time (2026-11-25T03:05:00, UTC unless a zone is given)\n"
    "  --until WHEN    only up to WHEN, as --since\n"
    "  --json          pass the header and the filtered lines through unchanged\n"
    "  --raw           add each frame's bytes to the text lines\n"
    "  --summary       per section: frames per type and direction, noise bytes, the\n"
    "                  longest gap without a received frame, restarts and state changes\n"
    "  --help          this help\n"
    "\n"
    "Exit codes: 0 success, 1 usage error, 4 the file is unreadable or malformed (the\n"
    "entries before the first bad line are still printed) or from a newer format.\n";

struct Entry
{
    int line = 0;
    QByteArray text;  // the line as in the file
    QJsonObject object;
    double t = 0;
    int section = 0;
};

struct Filter
{
    int section = -1;
    QList<int> types;  // message types
    bool noise = false;
    bool bootloader = false;
    bool anyType = true;
    double since = -1e300;
    double until = 1e300;
};

int usage(const QString& text)
{
    ToolOutput::note(QStringLiteral("worksurface-tool: %1").arg(text));
    return ExitCode::Usage;
}

// A type as a number or a name; -1 when it is neither.
int parseType(const QString& text)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    if (ok) {
        return number >= 0 && number < NoMessage ? number : -1;
    }
    for (int type = 0; type < NoMessage; ++type) {
        if (MessageCatalog::typeName(static_cast<uint8_t>(type))
                .compare(text.trimmed(), Qt::CaseInsensitive) == 0) {
            return type;
        }
    }
    return -1;
}

// Seconds before the end, or a wall-clock time turned into the trace's time; false when the
// text is neither.
bool parseWhen(const QString& text, double end, const QDateTime& t0, double& when)
{
    bool ok = false;
    const double seconds = text.toDouble(&ok);
    if (ok) {
        when = end - seconds;
        return true;
    }
    QDateTime wall = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (!wall.isValid()) {
        wall = QDateTime::fromString(text, Qt::ISODate);
    }
    if (!wall.isValid() || !t0.isValid()) {
        return false;
    }
    if (wall.timeSpec() == Qt::LocalTime) {
        wall.setTimeSpec(Qt::UTC);
    }
    when = static_cast<double>(t0.msecsTo(wall)) / 1000.0;
    return true;
}

bool passes(const Entry& entry, const Filter& filter)
{
    if (filter.section >= 0 && entry.section != filter.section) {
        return false;
    }
    if (entry.t < filter.since || entry.t > filter.until) {
        return false;
    }
    if (filter.anyType || entry.object.contains(QLatin1String("event"))) {
        return true;
    }
    if (entry.object.contains(QLatin1String("noise"))) {
        return filter.noise;
    }
    if (entry.object.contains(QLatin1String("bootloader"))) {
        return filter.bootloader;
    }
    return filter.types.contains(entry.object.value(QLatin1String("type")).toInt(-1));
}

QString eventText(const QJsonObject& o)
{
    const QString event = o.value(QLatin1String("event")).toString();
    QString text = event;
    if (event == QLatin1String("state")) {
        text += QStringLiteral(" %1").arg(o.value(QLatin1String("state")).toString());
    } else if (event == QLatin1String("portOpen")) {
        text += QStringLiteral(" %1 %2").arg(o.value(QLatin1String("port")).toString(),
                                             o.value(QLatin1String("opened")).toBool()
                                                 ? QStringLiteral("opened")
                                                 : QStringLiteral("failed"));
        if (o.contains(QLatin1String("error"))) {
            text += QStringLiteral(": %1").arg(o.value(QLatin1String("error")).toString());
        }
    } else if (event == QLatin1String("portError")) {
        text += QStringLiteral(" %1: %2").arg(o.value(QLatin1String("port")).toString(),
                                              o.value(QLatin1String("error")).toString());
    } else if (event == QLatin1String("updateProgress")) {
        text += QStringLiteral(" %1 %").arg(o.value(QLatin1String("percent")).toInt());
    } else if (event == QLatin1String("updateFailed")) {
        text += QStringLiteral(" reason %1").arg(o.value(QLatin1String("reason")).toInt());
    }
    return text;
}

QString timeText(double t)
{
    return QStringLiteral("%1").arg(t, 8, 'f', 3);
}

void printText(const Entry& entry, TrafficPrinter& printer, ToolOutput& output)
{
    const QJsonObject& o = entry.object;
    const auto section = static_cast<uint8_t>(entry.section);
    const bool incoming = o.value(QLatin1String("dir")).toString() == QLatin1String("in");
    const qint64 atNs = static_cast<qint64>(entry.t * 1e9 + (entry.t < 0 ? -0.5 : 0.5));
    const QString where =
        QStringLiteral("%1  section %2").arg(timeText(entry.t)).arg(entry.section);
    if (o.contains(QLatin1String("event"))) {
        output.text(QStringLiteral("%1  event  %2").arg(where, eventText(o)));
        return;
    }
    if (o.contains(QLatin1String("bootloader"))) {
        output.text(
            QStringLiteral("%1  %2  bootloader  %3")
                .arg(where,
                     (incoming ? QStringLiteral("in") : QStringLiteral("out")).leftJustified(3),
                     o.value(QLatin1String("bootloader")).toString()));
        return;
    }
    FrameDecoder::Event event;
    if (o.contains(QLatin1String("noise"))) {
        event.noise = true;
        event.bytes = QByteArray::fromHex(o.value(QLatin1String("noise")).toString().toLatin1());
        printer.print(atNs, section, incoming, event);
        return;
    }
    event.bytes = QByteArray::fromHex(o.value(QLatin1String("hex")).toString().toLatin1());
    if (o.value(QLatin1String("badChecksum")).toBool()) {
        output.text(QStringLiteral("%1  in   bad checksum  %2")
                        .arg(where, QString::fromLatin1(event.bytes.toHex())));
        return;
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(event.bytes.constData());
    const int size = event.bytes.size();
    const auto type = static_cast<uint8_t>(o.value(QLatin1String("type")).toInt(NoMessage));
    const auto device = static_cast<uint8_t>(o.value(QLatin1String("device")).toInt());
    std::vector<uint8_t> payload;
    if (size > 4) {
        payload.assign(bytes + 3, bytes + size - 1);
    }
    event.message = SerialMessage(type, device, payload, type == 5);
    printer.print(atNs, section, incoming, event);
}

struct SectionSummary
{
    std::map<QString, int> framesIn;  // by type name
    std::map<QString, int> framesOut;
    int noiseBytes = 0;
    int badChecksums = 0;
    bool haveFrame = false;
    double lastFrame = 0;
    double longestGap = -1;
    double gapFrom = 0;
    QList<double> restarts;
    QList<QPair<double, QString>> states;
};

int summary(const std::vector<Entry>& entries, const Filter& filter, ToolOutput& output)
{
    std::map<int, SectionSummary> sections;
    for (const Entry& entry : entries) {
        if (!passes(entry, filter)) {
            continue;
        }
        SectionSummary& s = sections[entry.section];
        const QJsonObject& o = entry.object;
        const QString event = o.value(QLatin1String("event")).toString();
        if (!event.isEmpty()) {
            if (event == QLatin1String("restart")) {
                s.restarts << entry.t;
            } else if (event == QLatin1String("state")) {
                s.states << qMakePair(entry.t, o.value(QLatin1String("state")).toString());
            }
            continue;
        }
        const bool incoming = o.value(QLatin1String("dir")).toString() == QLatin1String("in");
        if (o.contains(QLatin1String("noise"))) {
            s.noiseBytes += o.value(QLatin1String("noise")).toString().size() / 2;
            continue;
        }
        if (o.contains(QLatin1String("bootloader"))) {
            (incoming ? s.framesIn : s.framesOut)[QStringLiteral("bootloader")] += 1;
            continue;
        }
        if (o.value(QLatin1String("badChecksum")).toBool()) {
            ++s.badChecksums;
            continue;
        }
        (incoming ? s.framesIn : s.framesOut)[o.value(QLatin1String("typeName")).toString()] += 1;
        if (incoming) {
            if (s.haveFrame && entry.t - s.lastFrame > s.longestGap) {
                s.longestGap = entry.t - s.lastFrame;
                s.gapFrom = s.lastFrame;
            }
            s.haveFrame = true;
            s.lastFrame = entry.t;
        }
    }

    for (const auto& [index, s] : sections) {
        if (output.isJson()) {
            JsonLine in;
            for (const auto& [name, count] : s.framesIn) {
                in.add(name.toUtf8().constData(), count);
            }
            JsonLine out;
            for (const auto& [name, count] : s.framesOut) {
                out.add(name.toUtf8().constData(), count);
            }
            QByteArray restarts = "[";
            for (int i = 0; i < s.restarts.size(); ++i) {
                restarts += (i ? "," : "") + QByteArray::number(s.restarts[i], 'f', 6);
            }
            restarts += ']';
            QByteArray states = "[";
            for (int i = 0; i < s.states.size(); ++i) {
                states += (i ? "," : "") + JsonLine()
                                               .addFixed("t", s.states[i].first, 6)
                                               .add("state", s.states[i].second)
                                               .toJson();
            }
            states += ']';
            JsonLine line;
            line.add("section", index)
                .add("in", in)
                .add("out", out)
                .add("noiseBytes", s.noiseBytes)
                .add("badChecksums", s.badChecksums);
            if (s.longestGap >= 0) {
                line.addFixed("longestGap", s.longestGap, 6)
                    .addFixed("longestGapFrom", s.gapFrom, 6);
            }
            line.addJson("restarts", restarts).addJson("states", states);
            output.json(line);
            continue;
        }
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
                            .arg(timeText(s.gapFrom).trimmed()));
        } else {
            output.text(QStringLiteral("  longest gap without a received frame  -"));
        }
        QStringList restartTimes;
        for (double t : s.restarts) {
            restartTimes << timeText(t).trimmed();
        }
        output.text(QStringLiteral("  restarts  %1%2")
                        .arg(s.restarts.size())
                        .arg(restartTimes.isEmpty() ? QString()
                                                    : QStringLiteral(" at ") +
                                                          restartTimes.join(QStringLiteral(", "))));
        output.text(QStringLiteral("  state changes  %1").arg(s.states.size()));
        for (const auto& state : s.states) {
            output.text(QStringLiteral("    %1  %2").arg(timeText(state.first), state.second));
        }
    }
    return ExitCode::Success;
}

}  // namespace

int TraceCommand::run(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption helpOption(QStringList{"h", "help"});
    const QCommandLineOption sectionOption(QStringList{"s", "section"}, QString(), "N");
    const QCommandLineOption typeOption("type", QString(), "T");
    const QCommandLineOption sinceOption("since", QString(), "WHEN");
    const QCommandLineOption untilOption("until", QString(), "WHEN");
    const QCommandLineOption jsonOption("json");
    const QCommandLineOption rawOption("raw");
    const QCommandLineOption summaryOption("summary");
    const QCommandLineOption verboseOption("verbose");
    for (const auto& option : {helpOption, sectionOption, typeOption, sinceOption, untilOption,
                               jsonOption, rawOption, summaryOption, verboseOption}) {
        parser.addOption(option);
    }
    if (!parser.parse(arguments)) {
        return usage(parser.errorText());
    }
    if (parser.isSet(helpOption)) {
        ToolOutput(false).raw(QByteArray(kHelp));
        return ExitCode::Success;
    }
    QStringList positional = parser.positionalArguments();
    positional.removeFirst();  // the command
    if (positional.size() != 1) {
        return usage(QStringLiteral("trace needs one FILE"));
    }
    const QString path = positional.first();

    Filter filter;
    if (parser.isSet(sectionOption)) {
        bool ok = false;
        filter.section = parser.value(sectionOption).toInt(&ok);
        if (!ok || filter.section < 0) {
            return usage(QStringLiteral("bad --section: %1").arg(parser.value(sectionOption)));
        }
    }
    for (const QString& type : parser.values(typeOption)) {
        filter.anyType = false;
        if (type == QLatin1String("noise")) {
            filter.noise = true;
        } else if (type == QLatin1String("bootloader")) {
            filter.bootloader = true;
        } else {
            const int number = parseType(type);
            if (number < 0) {
                return usage(QStringLiteral("bad --type: %1").arg(type));
            }
            filter.types << number;
        }
    }

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        ToolOutput::cannotRead(path, file.errorString());
        return ExitCode::FileError;
    }

    // The header first: a file from a newer plugin is refused rather than misread.
    const QByteArray headerText = file.readLine();
    if (headerText.trimmed().isEmpty()) {
        ToolOutput::note(QStringLiteral("worksurface-tool: %1 is empty").arg(path));
        return ExitCode::FileError;
    }
    const QJsonObject header = QJsonDocument::fromJson(headerText).object();
    if (header.value(QLatin1String("format")).toString() !=
            QLatin1String("tarvix-worksurface-trace") ||
        !header.value(QLatin1String("version")).isDouble()) {
        ToolOutput::note(
            QStringLiteral("worksurface-tool: %1 line 1: not a trace file header").arg(path));
        return ExitCode::FileError;
    }
    const int version = header.value(QLatin1String("version")).toInt();
    if (version > TraceFile::kFormatVersion) {
        ToolOutput::note(QStringLiteral("worksurface-tool: %1 is trace format version %2; this "
                                        "tool reads version %3 and older")
                             .arg(path)
                             .arg(version)
                             .arg(TraceFile::kFormatVersion));
        return ExitCode::FileError;
    }
    const QDateTime t0 =
        QDateTime::fromString(header.value(QLatin1String("t0")).toString(), Qt::ISODateWithMs);

    // Every entry up to the first bad line; that line is named once they are printed.
    std::vector<Entry> entries;
    int badLine = 0;
    for (int number = 2; !file.atEnd(); ++number) {
        const QByteArray text = file.readLine();
        if (text.trimmed().isEmpty() && file.atEnd()) {
            break;
        }
        QJsonParseError error{};
        const QJsonDocument document = QJsonDocument::fromJson(text, &error);
        const QJsonObject object = document.object();
        if (error.error != QJsonParseError::NoError || !document.isObject() ||
            !object.value(QLatin1String("t")).isDouble() ||
            !object.value(QLatin1String("section")).isDouble()) {
            badLine = number;
            break;
        }
        Entry entry;
        entry.line = number;
        entry.text = text.endsWith('\n') ? text.left(text.size() - 1) : text;
        entry.object = object;
        entry.t = object.value(QLatin1String("t")).toDouble();
        entry.section = object.value(QLatin1String("section")).toInt();
        entries.push_back(std::move(entry));
    }

    const double end = entries.empty() ? 0.0 : entries.back().t;
    for (const auto& [option, bound] : {std::make_pair(&sinceOption, &filter.since),
                                        std::make_pair(&untilOption, &filter.until)}) {
        if (parser.isSet(*option) && !parseWhen(parser.value(*option), end, t0, *bound)) {
            return usage(QStringLiteral("bad --%1: %2 (seconds before the end, or a wall-clock "
                                        "time)")
                             .arg(option->names().first(), parser.value(*option)));
        }
    }

    ToolOutput output(parser.isSet(jsonOption));
    if (parser.isSet(summaryOption)) {
        summary(entries, filter, output);
    } else if (output.isJson()) {
        output.raw(headerText.endsWith('\n') ? headerText : headerText + '\n');
        for (const Entry& entry : entries) {
            if (passes(entry, filter)) {
                output.raw(entry.text + '\n');
            }
        }
    } else {
        ToolOutput::note(QStringLiteral("trace of %1 %2 surface, t = 0 at %3")
                             .arg(header.value(QLatin1String("model")).toString(),
                                  header.value(QLatin1String("surfaceType")).toString(),
                                  header.value(QLatin1String("t0")).toString()));
        TrafficPrinter printer(output, TrafficPrinter::Position::Time, parser.isSet(rawOption));
        for (const Entry& entry : entries) {
            if (passes(entry, filter)) {
                printText(entry, printer, output);
            }
        }
    }
    if (badLine > 0) {
        ToolOutput::note(QStringLiteral("worksurface-tool: %1 line %2: not a trace entry "
                                        "(cut short or malformed)")
                             .arg(path)
                             .arg(badLine));
        return ExitCode::FileError;
    }
    return ExitCode::Success;
}
