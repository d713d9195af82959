#include "toolcommandline.h"

#include <QCommandLineParser>

#include "exitcode.h"
#include "tooloutput.h"
#include "toolsettings.h"

namespace {

const char kExitCodes[] =
    "Exit codes:\n"
    "  0  success\n"
    "  1  usage error\n"
    "  2  a port could not be opened\n"
    "  3  a section did not answer in time (probe, exercise: also a section in its "
    "bootloader)\n"
    "  4  the firmware file (decode: the capture; trace: the trace) is missing or "
    "unreadable (trace: also malformed, with the first bad line)\n"
    "  5  resends exhausted during an update\n"
    "  6  the bootloader reported an error status\n"
    "  7  flash found a section running its application instead of its bootloader\n"
    "  8  flash: a section is still in its bootloader after its updates\n"
    "  9  interrupted (Ctrl-C, SIGTERM, or standard output closed by its reader) during "
    "flash or exercise\n"
    "  10 flash: a section came back with another version than --expect-version\n"
    "  11 flash: the bootloader stopped answering in the middle of an update (the section "
    "waits in its bootloader; run flash again)\n"
    "With several sections the first failure's code is returned and every section is "
    "still reported.";

struct CommandInfo
{
    const char* name;
    const char* summary;
    const char* positional;  // "" for none
};

const CommandInfo kCommands[] = {
    {"ports",
     "List every section of the model: its device, whether it exists and whether it "
     "can be opened (and why not, e.g. in use by another process). With --scan: every "
     "serial device of the machine.",
     ""},
    {"probe",
     "Open each section, probe its bootloader, bring the link up and wait for a ping "
     "answer, all sections at once. States: application, bootloader, garbled, silent, "
     "port-error. Nothing is changed "
     "on a section: one found in its bootloader is neither updated nor reset.",
     ""},
    {"flash",
     "Write FILE (a binary image) into the sections, all at once, through their "
     "bootloader; "
     "then wait for each to come back with its application and print its new "
     "firmware version. A section running its application is not flashed (exit 7).",
     "FILE"},
    {"monitor",
     "Bring the links up as the plugin does (pings keep them alive; no calibration, "
     "no update) and print every frame received and sent, the noise the parser "
     "discards and the link's changes, until Ctrl-C or until a device is lost.",
     ""},
    {"decode",
     "Decode a captured byte stream from a section (FILE, or standard input) without "
     "opening any port; lines carry the byte offset instead of a time.",
     "[FILE]"},
    {"trace",
     "Print a trace file the plugin saved (a link's flight recorder) as monitor "
     "prints live traffic, with the link's events; filters by section, type and time, "
     "or sums it up (trace --help).",
     "FILE"},
    {"exercise",
     "For a bench check by eye: send each section a fixed pattern (faders bottom, "
     "top and back; every LED on in turn; every RGB LED red, green, blue; meters up "
     "and down), printing what is sent.",
     ""},
};

const CommandInfo* findCommand(const QString& name)
{
    for (const CommandInfo& info : kCommands) {
        if (name == QLatin1String(info.name)) {
            return &info;
        }
    }
    return nullptr;
}

QString generalHelp()
{
    QString text = QStringLiteral(
        "Usage: worksurface-tool COMMAND [options]\n"
        "Probe, flash, monitor and decode worksurface sections.\n\nCommands:\n");
    for (const CommandInfo& info : kCommands) {
        // Summaries wrapped to 80 columns beside their command.
        QString line = QStringLiteral("  ") + QString::fromLatin1(info.name).leftJustified(10);
        const int indent = line.size();
        for (const QString& word : QString::fromLatin1(info.summary).split(' ')) {
            if (line.size() > indent && line.size() + 1 + word.size() > 79) {
                text += line + '\n';
                line = QString(indent, ' ');
            } else if (line.size() > indent) {
                line += ' ';
            }
            line += word;
        }
        text += line + '\n';
    }
    text += QStringLiteral(
        "\nCommon options: --model K40|K60, --ports DEV,DEV[,DEV], --section N, "
        "--timeout SECONDS, --json, --verbose, --help, --version.\n"
        "worksurface-tool COMMAND --help describes a command.\n\n");
    text += QLatin1String(kExitCodes) + '\n';
    return text;
}

// The values that follow these options are not the command.
bool takesValue(const QString& argument)
{
    static const QStringList options{"--model",   "--ports",   "--port",     "--section",
                                     "--timeout", "--step-ms", "--max-size", "--expect-version",
                                     "--time",    "--type",    "--device",   "--dir",
                                     "-m",        "-p",        "-s",         "-t"};
    return options.contains(argument);
}

// A comma-separated list of numbers 0..255, e.g. "7,16" for --type.
bool parseByteList(const QString& text, QSet<int>& values)
{
    for (const QString& item : text.split(',')) {
        bool ok = false;
        const int value = item.trimmed().toInt(&ok, 0);
        if (!ok || value < 0 || value > 255) {
            return false;
        }
        values.insert(value);
    }
    return true;
}

// A size in bytes, with an optional K or M (1024 and 1024 * 1024).
bool parseSize(const QString& text, qint64& size)
{
    QString digits = text.trimmed();
    qint64 unit = 1;
    if (digits.endsWith('K', Qt::CaseInsensitive)) {
        unit = 1024;
        digits.chop(1);
    } else if (digits.endsWith('M', Qt::CaseInsensitive)) {
        unit = 1024 * 1024;
        digits.chop(1);
    }
    bool ok = false;
    const qint64 value = digits.toLongLong(&ok);
    if (!ok || value <= 0 || value > (qint64(1) << 32) / unit) {
        return false;
    }
    size = value * unit;
    return true;
}

int usageError(const QString& text)
{
    ToolOutput::note(QStringLiteral("worksurface-tool: %1").arg(text));
    return ExitCode::Usage;
}

// The command: the first argument that is neither an option nor an option's value.
// "worksurface-tool help [COMMAND]" is the same as --help; without a command the general
// help is printed at once. The exit code when nothing is left to do, else -1.
int findCommandName(QStringList& args, QString& commandName)
{
    int commandAt = -1;
    for (int i = 1; i < args.size(); ++i) {
        const QString& argument = args.at(i);
        if (takesValue(argument)) {
            ++i;
            continue;
        }
        if (!argument.startsWith('-')) {
            commandName = argument;
            commandAt = i;
            break;
        }
    }
    if (commandName != QLatin1String("help")) {
        return -1;
    }
    args.removeAt(commandAt);
    args << QStringLiteral("--help");
    commandName.clear();
    for (int i = commandAt; i < args.size(); ++i) {
        if (!args.at(i).startsWith('-')) {
            commandName = args.at(i);
            break;
        }
    }
    if (commandName.isEmpty()) {
        ToolOutput(false).raw(generalHelp().toLocal8Bit());
        return ExitCode::Success;
    }
    return -1;
}

// Every option the tool knows, with the help text of the command it is parsed for. A
// common option the command does not use is still accepted (scripts pass the same common
// options to every command) but is not listed in its help.
struct OptionSet
{
    explicit OptionSet(const QString& command, bool known);

    const QString command;
    const bool decode;
    const bool monitor;
    const bool flash;
    const bool traffic;  // monitor and decode show frames
    QCommandLineOption help{QStringList{"h", "help"}, "Show this help."};
    QCommandLineOption version{"version", "Show the tool's version."};
    QCommandLineOption model{QStringList{"m", "model"}, "Console model: K40 or K60 (default K60).",
                             "K40|K60", "K60"};
    QCommandLineOption ports{
        QStringList{"p", "ports"},
        "Section devices, entry i for section i; overrides TARVIX_WORKSURFACE_SERIAL_PORTS "
        "and the model's devices. With --section N a single entry is section N's device.",
        "DEV,DEV[,DEV]"};
    QCommandLineOption port{"port", "The device of the one section given with --section.", "DEV"};
    QCommandLineOption section;
    QCommandLineOption timeout;
    QCommandLineOption json{"json", "One JSON object per line on standard output."};
    QCommandLineOption verbose{"verbose", "Show the link's log lines on standard error."};
    QCommandLineOption raw{"raw", "Add each frame's bytes in hex."};
    QCommandLineOption step{"step-ms", "Pace of the pattern (default 300).", "MS", "300"};
    QCommandLineOption scan{
        "scan", "List the machine's serial devices (by-id names, USB ids, driver, user)."};
    QCommandLineOption maxSize{
        "max-size", "Refuse a larger image (bytes, or with K or M; default 256K).", "SIZE"};
    QCommandLineOption expect{
        "expect-version", "Fail (exit 10) unless the section comes back with this version.", "V"};
    QCommandLineOption dryRun{"dry-run", "Check the file and probe the sections; write nothing."};
    QCommandLineOption listen{"listen-only",
                              "Send nothing (no probe, no pings, no error replies); only listen."};
    QCommandLineOption follow{
        "follow", "Keep waiting for a lost device to come back instead of ending (exit 2)."};
    QCommandLineOption time{"time",
                            "Times as seconds since start (relative), wall clock (iso) or since "
                            "the line before (delta).",
                            "iso|relative|delta", "relative"};
    QCommandLineOption type{"type", "Only these message types (numbers).", "T[,T...]"};
    QCommandLineOption device{"device", "Only these device ids.", "ID[,ID...]"};
    QCommandLineOption dir{"dir", "Only received (in) or sent (out) traffic.", "in|out"};

    void addTo(QCommandLineParser& parser, const CommandInfo* info);
};

OptionSet::OptionSet(const QString& command, bool known)
    : command(command),
      decode(command == QLatin1String("decode")),
      monitor(command == QLatin1String("monitor")),
      flash(command == QLatin1String("flash")),
      traffic(known && (monitor || decode)),
      section(QStringList{"s", "section"},
              decode ? QStringLiteral("The section the capture is from (default 0).")
                     : QStringLiteral("Only this section (default: all)."),
              "N"),
      // flash: also how long an update waits for the bootloader's next byte.
      timeout(QStringList{"t", "timeout"},
              flash ? QStringLiteral("How long to wait for a section's answer, also for the "
                                     "bootloader's next byte during an update (default 5).")
                    : QStringLiteral("How long to wait for a section's answer (default 3)."),
              "SECONDS", flash ? "5" : "3")
{
    if (known) {
        for (auto* option : {&ports, &port}) {
            if (decode) {
                option->setFlags(QCommandLineOption::HiddenFromHelp);
            }
        }
        if (decode || monitor) {
            timeout.setFlags(QCommandLineOption::HiddenFromHelp);
        }
    }
}

void OptionSet::addTo(QCommandLineParser& parser, const CommandInfo* info)
{
    for (const auto* option :
         {&help, &version, &model, &ports, &port, &section, &timeout, &json, &verbose}) {
        parser.addOption(*option);
    }
    if (!info) {
        return;
    }
    if (traffic) {
        for (const auto* option : {&raw, &type, &device, &dir}) {
            parser.addOption(*option);
        }
    }
    if (monitor) {
        for (const auto* option : {&listen, &follow, &time}) {
            parser.addOption(*option);
        }
    }
    if (command == QLatin1String("exercise")) {
        parser.addOption(step);
    }
    if (command == QLatin1String("ports")) {
        parser.addOption(scan);
    }
    if (flash) {
        for (const auto* option : {&maxSize, &expect, &dryRun}) {
            parser.addOption(*option);
        }
    }
    parser.setApplicationDescription(QLatin1String(info->summary) + "\n\n" +
                                     QLatin1String(kExitCodes));
    parser.addPositionalArgument(info->name, "The command.", info->name);
    if (*info->positional) {
        parser.addPositionalArgument(
            "FILE", decode ? "The capture; - or none for standard input." : "The file.",
            info->positional);
    }
}

// --help, --version and an unknown command; the exit code, or -1 to go on.
int answerWithoutCommand(const QCommandLineParser& parser, const OptionSet& set,
                         const CommandInfo* info)
{
    if (parser.isSet(set.version)) {
        ToolOutput(false).text(
            QStringLiteral("worksurface-tool %1").arg(QStringLiteral(TARVIX_TOOL_VERSION)));
        return ExitCode::Success;
    }
    if (!info) {
        if (parser.isSet(set.help)) {
            ToolOutput(false).raw(generalHelp().toLocal8Bit());
            return ExitCode::Success;
        }
        ToolOutput::note(
            set.command.isEmpty()
                ? QStringLiteral("worksurface-tool: no command given")
                : QStringLiteral("worksurface-tool: unknown command: %1").arg(set.command));
        ToolOutput::note(generalHelp());
        return ExitCode::Usage;
    }
    if (!parser.isSet(set.help)) {
        return -1;
    }
    // Qt's usage line names the binary by the path it was started with; the tool's name is
    // what a user types.
    QString help = parser.helpText();
    QString usage = QStringLiteral("Usage: worksurface-tool %1 [options]").arg(set.command);
    if (*info->positional) {
        usage += ' ' + QLatin1String(info->positional);
    }
    help.replace(0, help.indexOf('\n'), usage);
    ToolOutput(false).raw(help.toLocal8Bit());
    return ExitCode::Success;
}

// The model, --timeout and --section; the exit code of a usage error, or -1.
int readModelAndSection(const QCommandLineParser& parser, const OptionSet& set,
                        ToolCommandLine::Options& options)
{
    const QString model = parser.value(set.model);
    if (model == QLatin1String("K40")) {
        options.mode = static_cast<uint8_t>(Velmora::Worksurface::SurfaceMode::K40);
    } else if (model == QLatin1String("K60")) {
        options.mode = static_cast<uint8_t>(Velmora::Worksurface::SurfaceMode::K60);
    } else {
        return usageError(QStringLiteral("unknown model: %1 (K40 or K60)").arg(model));
    }
    bool ok = true;
    const double timeout = parser.value(set.timeout).toDouble(&ok);
    if (!ok || timeout <= 0 || timeout > 3600) {
        return usageError(QStringLiteral("bad --timeout: %1").arg(parser.value(set.timeout)));
    }
    options.timeoutMs = static_cast<int>(timeout * 1000);
    const uint8_t sectionCount = ToolSettings(options.mode, QString(), false).sectionCount();
    if (parser.isSet(set.section)) {
        const int section = parser.value(set.section).toInt(&ok);
        if (!ok || section < 0 || section >= sectionCount) {
            return usageError(QStringLiteral("bad --section: %1 (the %2 has sections 0 to %3)")
                                  .arg(parser.value(set.section), model)
                                  .arg(sectionCount - 1));
        }
        options.section = section;
    }
    return -1;
}

// --ports or --port, placed at their sections; the exit code of a usage error, or -1.
int readPorts(const QCommandLineParser& parser, const OptionSet& set,
              ToolCommandLine::Options& options)
{
    const uint8_t sectionCount = ToolSettings(options.mode, QString(), false).sectionCount();
    if (parser.isSet(set.ports) && parser.isSet(set.port)) {
        return usageError(QStringLiteral("--port and --ports exclude each other"));
    }
    if (parser.isSet(set.port)) {
        if (options.section < 0) {
            return usageError(QStringLiteral("--port needs --section N"));
        }
        options.ports = QStringList{parser.value(set.port)};
    } else if (parser.isSet(set.ports)) {
        options.ports = parser.value(set.ports).split(',');
        if (options.ports.size() > sectionCount) {
            return usageError(QStringLiteral("--ports has %1 entries; the %2 has %3 sections")
                                  .arg(options.ports.size())
                                  .arg(parser.value(set.model))
                                  .arg(sectionCount));
        }
    }
    if (options.section >= 0 && options.ports.size() == 1) {
        // One device with one section: it is that section's, not section 0's.
        QStringList placed;
        for (int i = 0; i < options.section; ++i) {
            placed << QString();
        }
        placed << options.ports.first();
        options.ports = placed;
    }
    return -1;
}

// monitor's and decode's filters; the exit code of a usage error, or -1.
int readTrafficFilters(const QCommandLineParser& parser, const OptionSet& set,
                       ToolCommandLine::Options& options)
{
    if (parser.isSet(set.type) && !parseByteList(parser.value(set.type), options.types)) {
        return usageError(QStringLiteral("bad --type: %1").arg(parser.value(set.type)));
    }
    if (parser.isSet(set.device) && !parseByteList(parser.value(set.device), options.devices)) {
        return usageError(QStringLiteral("bad --device: %1").arg(parser.value(set.device)));
    }
    if (parser.isSet(set.dir)) {
        options.dir = parser.value(set.dir);
        if (options.dir != QLatin1String("in") && options.dir != QLatin1String("out")) {
            return usageError(QStringLiteral("bad --dir: %1 (in or out)").arg(options.dir));
        }
    }
    return -1;
}

// monitor's own options; the exit code of a usage error, or -1.
int readMonitorOptions(const QCommandLineParser& parser, const OptionSet& set,
                       ToolCommandLine::Options& options)
{
    options.listenOnly = parser.isSet(set.listen);
    options.follow = parser.isSet(set.follow);
    const QString time = parser.value(set.time);
    if (time == QLatin1String("relative")) {
        options.time = ToolCommandLine::TimeMode::Relative;
    } else if (time == QLatin1String("iso")) {
        options.time = ToolCommandLine::TimeMode::Iso;
    } else if (time == QLatin1String("delta")) {
        options.time = ToolCommandLine::TimeMode::Delta;
    } else {
        return usageError(QStringLiteral("bad --time: %1 (iso, relative or delta)").arg(time));
    }
    return -1;
}

// flash's own options; the exit code of a usage error, or -1.
int readFlashOptions(const QCommandLineParser& parser, const OptionSet& set,
                     ToolCommandLine::Options& options)
{
    if (parser.isSet(set.maxSize) && !parseSize(parser.value(set.maxSize), options.maxSize)) {
        return usageError(QStringLiteral("bad --max-size: %1").arg(parser.value(set.maxSize)));
    }
    if (parser.isSet(set.expect)) {
        bool ok = false;
        options.expectVersion = parser.value(set.expect).toInt(&ok);
        if (!ok || options.expectVersion < 0 || options.expectVersion > 255) {
            return usageError(
                QStringLiteral("bad --expect-version: %1").arg(parser.value(set.expect)));
        }
    }
    options.dryRun = parser.isSet(set.dryRun);
    return -1;
}

// Every command's own options; the exit code of a usage error, or -1.
int readCommandOptions(const QCommandLineParser& parser, const OptionSet& set,
                       ToolCommandLine::Options& options)
{
    options.json = parser.isSet(set.json);
    options.verbose = parser.isSet(set.verbose);
    options.raw = set.traffic && parser.isSet(set.raw);
    if (set.command == QLatin1String("exercise")) {
        bool ok = false;
        options.stepMs = parser.value(set.step).toInt(&ok);
        if (!ok || options.stepMs < 0) {
            return usageError(QStringLiteral("bad --step-ms: %1").arg(parser.value(set.step)));
        }
    }
    int code = -1;
    if (set.traffic) {
        code = readTrafficFilters(parser, set, options);
    }
    if (code < 0 && set.monitor) {
        code = readMonitorOptions(parser, set, options);
    }
    if (set.command == QLatin1String("ports")) {
        options.scan = parser.isSet(set.scan);
    }
    options.maxSize = ToolCommandLine::kDefaultMaxImageSize;
    if (code < 0 && set.flash) {
        code = readFlashOptions(parser, set, options);
    }
    return code;
}

// The command's FILE; the exit code of a usage error, or -1.
int readFile(const QCommandLineParser& parser, const CommandInfo& info,
             ToolCommandLine::Options& options)
{
    QStringList positional = parser.positionalArguments();
    positional.removeFirst();  // the command
    const QString wanted = QLatin1String(info.positional);
    if (wanted == QLatin1String("FILE") && positional.size() != 1) {
        return usageError(QStringLiteral("%1 needs one FILE").arg(options.command));
    }
    if (wanted == QLatin1String("[FILE]") && positional.size() > 1) {
        return usageError(QStringLiteral("%1 takes at most one FILE").arg(options.command));
    }
    if (wanted.isEmpty() && !positional.isEmpty()) {
        return usageError(QStringLiteral("unexpected argument: %1").arg(positional.first()));
    }
    if (!positional.isEmpty()) {
        options.file = positional.first();
    }
    if (options.command == QLatin1String("decode") && options.file == QLatin1String("-")) {
        // The usual name for standard input.
        options.file.clear();
    }
    return -1;
}

}  // namespace

int ToolCommandLine::parse(const QStringList& arguments, Options& options)
{
    QStringList args = arguments;
    QString commandName;
    int code = findCommandName(args, commandName);
    if (code >= 0) {
        return code;
    }
    const CommandInfo* info = findCommand(commandName);
    OptionSet set(commandName, info != nullptr);
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    set.addTo(parser, info);
    if (!parser.parse(args)) {
        return usageError(parser.errorText());
    }
    code = answerWithoutCommand(parser, set, info);
    if (code >= 0) {
        return code;
    }
    options.command = commandName;
    for (const auto& read : {readModelAndSection, readPorts, readCommandOptions}) {
        code = read(parser, set, options);
        if (code >= 0) {
            return code;
        }
    }
    return readFile(parser, *info, options);
}
