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
    "  9  interrupted (Ctrl-C or SIGTERM) during flash or exercise\n"
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

bool isCommand(const QString& name, const char* which)
{
    return name == QLatin1String(which);
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

}  // namespace

int ToolCommandLine::parse(const QStringList& arguments, Options& options)
{
    QStringList args = arguments;
    QString commandName;
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
    // "worksurface-tool help [COMMAND]" is the same as --help.
    if (commandName == QLatin1String("help")) {
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
    }
    const CommandInfo* info = findCommand(commandName);

    const bool decode = isCommand(commandName, "decode");
    const bool monitor = isCommand(commandName, "monitor");
    const bool flash = isCommand(commandName, "flash");
    const bool ports = isCommand(commandName, "ports");
    // Options a command does not use are still accepted (scripts pass the same common
    // options to every command) but are not listed in its help.
    const auto hiddenUnless = [&](QCommandLineOption& option, bool used) {
        if (info && !used) {
            option.setFlags(QCommandLineOption::HiddenFromHelp);
        }
    };

    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption helpOption(QStringList{"h", "help"}, "Show this help.");
    const QCommandLineOption versionOption("version", "Show the tool's version.");
    QCommandLineOption modelOption(QStringList{"m", "model"},
                                   "Console model: K40 or K60 (default K60).", "K40|K60", "K60");
    QCommandLineOption portsOption(
        QStringList{"p", "ports"},
        "Section devices, entry i for section i; overrides TARVIX_WORKSURFACE_SERIAL_PORTS "
        "and the model's devices. With --section N a single entry is section N's device.",
        "DEV,DEV[,DEV]");
    QCommandLineOption portOption("port", "The device of the one section given with --section.",
                                  "DEV");
    QCommandLineOption sectionOption(
        QStringList{"s", "section"},
        decode ? QStringLiteral("The section the capture is from (default 0).")
               : QStringLiteral("Only this section (default: all)."),
        "N");
    // flash: also how long an update waits for the bootloader's next byte.
    QCommandLineOption timeoutOption(
        QStringList{"t", "timeout"},
        flash ? QStringLiteral("How long to wait for a section's answer, also for the "
                               "bootloader's next byte during an update (default 5).")
              : QStringLiteral("How long to wait for a section's answer (default 3)."),
        "SECONDS", flash ? "5" : "3");
    const QCommandLineOption jsonOption("json", "One JSON object per line on standard output.");
    const QCommandLineOption verboseOption("verbose",
                                           "Show the link's log lines on standard error.");
    const QCommandLineOption rawOption("raw", "Add each frame's bytes in hex.");
    const QCommandLineOption stepOption("step-ms", "Pace of the pattern (default 300).", "MS",
                                        "300");
    const QCommandLineOption scanOption(
        "scan", "List the machine's serial devices (by-id names, USB ids, driver, user).");
    const QCommandLineOption maxSizeOption(
        "max-size", "Refuse a larger image (bytes, or with K or M; default 256K).", "SIZE");
    const QCommandLineOption expectOption(
        "expect-version", "Fail (exit 10) unless the section comes back with this version.", "V");
    const QCommandLineOption dryRunOption("dry-run",
                                          "Check the file and probe the sections; write nothing.");
    const QCommandLineOption listenOption(
        "listen-only", "Send nothing (no probe, no pings, no error replies); only listen.");
    const QCommandLineOption followOption(
        "follow", "Keep waiting for a lost device to come back instead of ending (exit 2).");
    const QCommandLineOption timeOption(
        "time",
        "Times as seconds since start (relative), wall clock (iso) or since the "
        "line before (delta).",
        "iso|relative|delta", "relative");
    const QCommandLineOption typeOption("type", "Only these message types (numbers).", "T[,T...]");
    const QCommandLineOption deviceOption("device", "Only these device ids.", "ID[,ID...]");
    const QCommandLineOption dirOption("dir", "Only received (in) or sent (out) traffic.",
                                       "in|out");
    hiddenUnless(portsOption, !decode);
    hiddenUnless(portOption, !decode);
    hiddenUnless(timeoutOption, !decode && !monitor);
    parser.addOption(helpOption);
    parser.addOption(versionOption);
    parser.addOption(modelOption);
    parser.addOption(portsOption);
    parser.addOption(portOption);
    parser.addOption(sectionOption);
    parser.addOption(timeoutOption);
    parser.addOption(jsonOption);
    parser.addOption(verboseOption);
    const bool traffic = info && (monitor || decode);
    if (traffic) {
        parser.addOption(rawOption);
        parser.addOption(typeOption);
        parser.addOption(deviceOption);
        parser.addOption(dirOption);
    }
    if (info && monitor) {
        parser.addOption(listenOption);
        parser.addOption(followOption);
        parser.addOption(timeOption);
    }
    if (info && isCommand(commandName, "exercise")) {
        parser.addOption(stepOption);
    }
    if (info && ports) {
        parser.addOption(scanOption);
    }
    if (info && flash) {
        parser.addOption(maxSizeOption);
        parser.addOption(expectOption);
        parser.addOption(dryRunOption);
    }
    if (info) {
        parser.setApplicationDescription(QLatin1String(info->summary) + "\n\n" +
                                         QLatin1String(kExitCodes));
        parser.addPositionalArgument(info->name, "The command.", info->name);
        if (*info->positional) {
            parser.addPositionalArgument(
                "FILE", decode ? "The capture; - or none for standard input." : "The file.",
                info->positional);
        }
    }

    if (!parser.parse(args)) {
        ToolOutput::note(QStringLiteral("worksurface-tool: %1").arg(parser.errorText()));
        return ExitCode::Usage;
    }
    if (parser.isSet(versionOption)) {
        ToolOutput(false).text(
            QStringLiteral("worksurface-tool %1").arg(QStringLiteral(TARVIX_TOOL_VERSION)));
        return ExitCode::Success;
    }
    if (!info) {
        if (parser.isSet(helpOption)) {
            ToolOutput(false).raw(generalHelp().toLocal8Bit());
            return ExitCode::Success;
        }
        ToolOutput::note(
            commandName.isEmpty()
                ? QStringLiteral("worksurface-tool: no command given")
                : QStringLiteral("worksurface-tool: unknown command: %1").arg(commandName));
        ToolOutput::note(generalHelp());
        return ExitCode::Usage;
    }
    if (parser.isSet(helpOption)) {
        // Qt's usage line names the binary by the path it was started with; the tool's
        // name is what a user types.
        QString help = parser.helpText();
        const int end = help.indexOf('\n');
        QString usage = QStringLiteral("Usage: worksurface-tool %1 [options]").arg(commandName);
        if (*info->positional) {
            usage += ' ' + QLatin1String(info->positional);
        }
        help.replace(0, end, usage);
        ToolOutput(false).raw(help.toLocal8Bit());
        return ExitCode::Success;
    }

    const auto usage = [](const QString& text) {
        ToolOutput::note(QStringLiteral("worksurface-tool: %1").arg(text));
        return ExitCode::Usage;
    };
    options.command = commandName;
    const QString model = parser.value(modelOption);
    if (model == QLatin1String("K40")) {
        options.mode = static_cast<uint8_t>(Velmora::Worksurface::SurfaceMode::K40);
    } else if (model == QLatin1String("K60")) {
        options.mode = static_cast<uint8_t>(Velmora::Worksurface::SurfaceMode::K60);
    } else {
        return usage(QStringLiteral("unknown model: %1 (K40 or K60)").arg(model));
    }
    bool ok = true;
    const double timeout = parser.value(timeoutOption).toDouble(&ok);
    if (!ok || timeout <= 0 || timeout > 3600) {
        return usage(QStringLiteral("bad --timeout: %1").arg(parser.value(timeoutOption)));
    }
    options.timeoutMs = static_cast<int>(timeout * 1000);
    const uint8_t sectionCount = ToolSettings(options.mode, QString(), false).sectionCount();
    if (parser.isSet(sectionOption)) {
        const int section = parser.value(sectionOption).toInt(&ok);
        if (!ok || section < 0 || section >= sectionCount) {
            return usage(QStringLiteral("bad --section: %1 (the %2 has sections 0 to %3)")
                             .arg(parser.value(sectionOption), model)
                             .arg(sectionCount - 1));
        }
        options.section = section;
    }
    if (parser.isSet(portsOption) && parser.isSet(portOption)) {
        return usage(QStringLiteral("--port and --ports exclude each other"));
    }
    if (parser.isSet(portOption)) {
        if (options.section < 0) {
            return usage(QStringLiteral("--port needs --section N"));
        }
        options.ports = QStringList{parser.value(portOption)};
    } else if (parser.isSet(portsOption)) {
        options.ports = parser.value(portsOption).split(',');
        if (options.ports.size() > sectionCount) {
            return usage(QStringLiteral("--ports has %1 entries; the %2 has %3 sections")
                             .arg(options.ports.size())
                             .arg(model)
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
    options.json = parser.isSet(jsonOption);
    options.verbose = parser.isSet(verboseOption);
    options.raw = traffic && parser.isSet(rawOption);
    if (isCommand(commandName, "exercise")) {
        options.stepMs = parser.value(stepOption).toInt(&ok);
        if (!ok || options.stepMs < 0) {
            return usage(QStringLiteral("bad --step-ms: %1").arg(parser.value(stepOption)));
        }
    }
    if (traffic) {
        if (parser.isSet(typeOption) && !parseByteList(parser.value(typeOption), options.types)) {
            return usage(QStringLiteral("bad --type: %1").arg(parser.value(typeOption)));
        }
        if (parser.isSet(deviceOption) &&
            !parseByteList(parser.value(deviceOption), options.devices)) {
            return usage(QStringLiteral("bad --device: %1").arg(parser.value(deviceOption)));
        }
        if (parser.isSet(dirOption)) {
            options.dir = parser.value(dirOption);
            if (options.dir != QLatin1String("in") && options.dir != QLatin1String("out")) {
                return usage(QStringLiteral("bad --dir: %1 (in or out)").arg(options.dir));
            }
        }
    }
    if (monitor) {
        options.listenOnly = parser.isSet(listenOption);
        options.follow = parser.isSet(followOption);
        const QString time = parser.value(timeOption);
        if (time == QLatin1String("relative")) {
            options.time = TimeMode::Relative;
        } else if (time == QLatin1String("iso")) {
            options.time = TimeMode::Iso;
        } else if (time == QLatin1String("delta")) {
            options.time = TimeMode::Delta;
        } else {
            return usage(QStringLiteral("bad --time: %1 (iso, relative or delta)").arg(time));
        }
    }
    if (ports) {
        options.scan = parser.isSet(scanOption);
    }
    options.maxSize = kDefaultMaxImageSize;
    if (flash) {
        if (parser.isSet(maxSizeOption) &&
            !parseSize(parser.value(maxSizeOption), options.maxSize)) {
            return usage(QStringLiteral("bad --max-size: %1").arg(parser.value(maxSizeOption)));
        }
        if (parser.isSet(expectOption)) {
            options.expectVersion = parser.value(expectOption).toInt(&ok);
            if (!ok || options.expectVersion < 0 || options.expectVersion > 255) {
                return usage(
                    QStringLiteral("bad --expect-version: %1").arg(parser.value(expectOption)));
            }
        }
        options.dryRun = parser.isSet(dryRunOption);
    }

    QStringList positional = parser.positionalArguments();
    positional.removeFirst();  // the command
    const QString wanted = QLatin1String(info->positional);
    if (wanted == QLatin1String("FILE") && positional.size() != 1) {
        return usage(QStringLiteral("%1 needs one FILE").arg(commandName));
    }
    if (wanted == QLatin1String("[FILE]") && positional.size() > 1) {
        return usage(QStringLiteral("%1 takes at most one FILE").arg(commandName));
    }
    if (wanted.isEmpty() && !positional.isEmpty()) {
        return usage(QStringLiteral("unexpected argument: %1").arg(positional.first()));
    }
    if (!positional.isEmpty()) {
        options.file = positional.first();
    }
    if (decode && options.file == QLatin1String("-")) {
        // The usual name for standard input.
        options.file.clear();
    }
    return -1;
}
