#include "tracecommand.h"

#include <QCommandLineParser>
#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <vector>

#include "exitcode.h"
#include "framedecoder.h"
#include "surface/messagecatalog.h"
#include "surface/tracefile.h"
#include "tooloutput.h"
#include "tracesummary.h"
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

// The trace command's options.
struct TraceOptions
{
    const QCommandLineOption help{QStringList{"h", "help"}};
    const QCommandLineOption section{QStringList{"s", "section"}, QString(), "N"};
    const QCommandLineOption type{"type", QString(), "T"};
    const QCommandLineOption since{"since", QString(), "WHEN"};
    const QCommandLineOption until{"until", QString(), "WHEN"};
    const QCommandLineOption json{"json"};
    const QCommandLineOption raw{"raw"};
    const QCommandLineOption summary{"summary"};
    const QCommandLineOption verbose{"verbose"};
};

// A trace file as read: its header and every entry up to the first bad line.
struct Trace
{
    QString path;
    QByteArray headerText;
    QJsonObject header;
    std::vector<Entry> entries;
    int badLine = 0;  // the first line that is no entry, 0 when there is none
};

// --section and --type; the exit code of a usage error, or -1.
int readFilter(const QCommandLineParser& parser, const TraceOptions& options, Filter& filter)
{
    if (parser.isSet(options.section)) {
        bool ok = false;
        filter.section = parser.value(options.section).toInt(&ok);
        if (!ok || filter.section < 0) {
            return usage(QStringLiteral("bad --section: %1").arg(parser.value(options.section)));
        }
    }
    for (const QString& type : parser.values(options.type)) {
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
    return -1;
}

// The header first: a file from a newer plugin is refused rather than misread. The exit
// code of a file that is no trace, or -1.
int readHeader(QFile& file, Trace& trace)
{
    trace.headerText = file.readLine();
    if (trace.headerText.trimmed().isEmpty()) {
        ToolOutput::note(QStringLiteral("worksurface-tool: %1 is empty").arg(trace.path));
        return ExitCode::FileError;
    }
    trace.header = QJsonDocument::fromJson(trace.headerText).object();
    if (trace.header.value(QLatin1String("format")).toString() !=
            QLatin1String("tarvix-worksurface-trace") ||
        !trace.header.value(QLatin1String("version")).isDouble()) {
        ToolOutput::note(
            QStringLiteral("worksurface-tool: %1 line 1: not a trace file header").arg(trace.path));
        return ExitCode::FileError;
    }
    const int version = trace.header.value(QLatin1String("version")).toInt();
    if (version > TraceFile::kFormatVersion) {
        ToolOutput::note(QStringLiteral("worksurface-tool: %1 is trace format version %2; this "
                                        "tool reads version %3 and older")
                             .arg(trace.path)
                             .arg(version)
                             .arg(TraceFile::kFormatVersion));
        return ExitCode::FileError;
    }
    return -1;
}

// Every entry up to the first bad line; that line is named once they are printed.
void readEntries(QFile& file, Trace& trace)
{
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
            trace.badLine = number;
            return;
        }
        Entry entry;
        entry.line = number;
        entry.text = text.endsWith('\n') ? text.left(text.size() - 1) : text;
        entry.object = object;
        entry.t = object.value(QLatin1String("t")).toDouble();
        entry.section = object.value(QLatin1String("section")).toInt();
        trace.entries.push_back(std::move(entry));
    }
}

// --since and --until, in the trace's time; the exit code of a usage error, or -1.
int readTimeBounds(const QCommandLineParser& parser, const TraceOptions& options,
                   const Trace& trace, Filter& filter)
{
    const double end = trace.entries.empty() ? 0.0 : trace.entries.back().t;
    const QDateTime t0 = QDateTime::fromString(trace.header.value(QLatin1String("t0")).toString(),
                                               Qt::ISODateWithMs);
    for (const auto& [option, bound] : {std::make_pair(&options.since, &filter.since),
                                        std::make_pair(&options.until, &filter.until)}) {
        if (parser.isSet(*option) && !parseWhen(parser.value(*option), end, t0, *bound)) {
            return usage(QStringLiteral("bad --%1: %2 (seconds before the end, or a wall-clock "
                                        "time)")
                             .arg(option->names().first(), parser.value(*option)));
        }
    }
    return -1;
}

void printSummary(const Trace& trace, const Filter& filter, ToolOutput& output)
{
    TraceSummary summary;
    // The end of the trace in the time asked for, whatever the section or type.
    double end = -1e300;
    for (const Entry& entry : trace.entries) {
        if (entry.t >= filter.since && entry.t <= filter.until) {
            end = std::max(end, entry.t);
        }
        if (passes(entry, filter)) {
            summary.add(entry.t, entry.section, entry.object);
        }
    }
    summary.end(end);
    summary.print(output);
}

void printLines(const Trace& trace, const Filter& filter, ToolOutput& output, bool raw)
{
    if (output.isJson()) {
        // A trace file again: the header and the filtered lines as they are.
        const QByteArray& header = trace.headerText;
        output.raw(header.endsWith('\n') ? header : header + '\n');
        for (const Entry& entry : trace.entries) {
            if (passes(entry, filter)) {
                output.raw(entry.text + '\n');
            }
        }
        return;
    }
    const QJsonObject& header = trace.header;
    ToolOutput::note(QStringLiteral("trace of %1 %2 surface, t = 0 at %3")
                         .arg(header.value(QLatin1String("model")).toString(),
                              header.value(QLatin1String("surfaceType")).toString(),
                              header.value(QLatin1String("t0")).toString()));
    TrafficPrinter printer(output, TrafficPrinter::Position::Time, raw);
    for (const Entry& entry : trace.entries) {
        if (passes(entry, filter)) {
            printText(entry, printer, output);
        }
    }
}

}  // namespace

int TraceCommand::run(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const TraceOptions options;
    for (const auto* option :
         {&options.help, &options.section, &options.type, &options.since, &options.until,
          &options.json, &options.raw, &options.summary, &options.verbose}) {
        parser.addOption(*option);
    }
    if (!parser.parse(arguments)) {
        return usage(parser.errorText());
    }
    if (parser.isSet(options.help)) {
        ToolOutput(false).raw(QByteArray(kHelp));
        return ExitCode::Success;
    }
    QStringList positional = parser.positionalArguments();
    positional.removeFirst();  // the command
    if (positional.size() != 1) {
        return usage(QStringLiteral("trace needs one FILE"));
    }
    Filter filter;
    int code = readFilter(parser, options, filter);
    if (code >= 0) {
        return code;
    }
    Trace trace;
    trace.path = positional.first();
    QFile file(trace.path);
    if (!file.open(QIODevice::ReadOnly)) {
        ToolOutput::cannotRead(trace.path, file.errorString());
        return ExitCode::FileError;
    }
    code = readHeader(file, trace);
    if (code >= 0) {
        return code;
    }
    readEntries(file, trace);
    code = readTimeBounds(parser, options, trace, filter);
    if (code >= 0) {
        return code;
    }
    ToolOutput output(parser.isSet(options.json));
    if (parser.isSet(options.summary)) {
        printSummary(trace, filter, output);
    } else {
        printLines(trace, filter, output, parser.isSet(options.raw));
    }
    if (trace.badLine > 0) {
        ToolOutput::note(QStringLiteral("worksurface-tool: %1 line %2: not a trace entry "
                                        "(cut short or malformed)")
                             .arg(trace.path)
                             .arg(trace.badLine));
        return ExitCode::FileError;
    }
    return ExitCode::Success;
}
