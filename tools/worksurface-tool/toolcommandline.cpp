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
     "can be opened (and why not).",
     ""},
    {"probe",
     "Open each section, probe its bootloader, bring the link up and wait for a ping "
     "answer. States: application, bootloader, silent, port-error. Nothing is changed "
     "on a section: one found in its bootloader is neither updated nor reset.",
     ""},
    {"flash",
     "Write FILE into the sections, one after another, through their bootloader; "
     "then wait for each to come back with its application and print its new "
     "firmware version. A section running its application is not flashed (exit 7).",
     "FILE"},
    {"monitor",
     "Bring the links up as the plugin does (pings keep them alive; no calibration, "
     "no update) and print every frame received and sent, and the noise the parser "
     "discards, until Ctrl-C.",
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
    static const QStringList options{"--model", "--ports", "--section", "--timeout", "--step-ms",
                                     "-m",      "-p",      "-s",        "-t"};
    return options.contains(argument);
}

}  // namespace

int ToolCommandLine::parse(const QStringList& arguments, Options& options)
{
    QString commandName;
    for (int i = 1; i < arguments.size(); ++i) {
        const QString& argument = arguments.at(i);
        if (takesValue(argument)) {
            ++i;
            continue;
        }
        if (!argument.startsWith('-')) {
            commandName = argument;
            break;
        }
    }
    const CommandInfo* info = findCommand(commandName);

    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption helpOption(QStringList{"h", "help"}, "Show this help.");
    const QCommandLineOption versionOption("version", "Show the tool's version.");
    const QCommandLineOption modelOption("model", "Console model: K40 or K60 (default K60).",
                                         "K40|K60", "K60");
    const QCommandLineOption portsOption(
        "ports",
        "Section devices, entry i for section i; overrides TARVIX_WORKSURFACE_SERIAL_PORTS "
        "and the model's devices.",
        "DEV,DEV[,DEV]");
    const QCommandLineOption sectionOption("section", "Only this section (default: all).", "N");
    const QCommandLineOption timeoutOption(
        "timeout", "How long to wait for a section's answer (default 3).", "SECONDS", "3");
    const QCommandLineOption jsonOption("json", "One JSON object per line on standard output.");
    const QCommandLineOption verboseOption("verbose",
                                           "Show the link's log lines on standard error.");
    const QCommandLineOption rawOption("raw", "Add each frame's bytes in hex.");
    const QCommandLineOption stepOption("step-ms", "Pace of the pattern (default 300).", "MS",
                                        "300");
    parser.addOption(helpOption);
    parser.addOption(versionOption);
    parser.addOption(modelOption);
    parser.addOption(portsOption);
    parser.addOption(sectionOption);
    parser.addOption(timeoutOption);
    parser.addOption(jsonOption);
    parser.addOption(verboseOption);
    const bool traffic =
        info && (commandName == QLatin1String("monitor") || commandName == QLatin1String("decode"));
    if (traffic) {
        parser.addOption(rawOption);
    }
    if (info && commandName == QLatin1String("exercise")) {
        parser.addOption(stepOption);
    }
    if (info) {
        parser.setApplicationDescription(QLatin1String(info->summary) + "\n\n" +
                                         QLatin1String(kExitCodes));
        parser.addPositionalArgument(info->name, "The command.", info->name);
        if (*info->positional) {
            parser.addPositionalArgument("FILE", "The file.", info->positional);
        }
    }

    if (!parser.parse(arguments)) {
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
        ToolOutput(false).raw(parser.helpText().toLocal8Bit());
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
    if (parser.isSet(portsOption)) {
        options.ports = parser.value(portsOption).split(',');
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
    options.json = parser.isSet(jsonOption);
    options.verbose = parser.isSet(verboseOption);
    options.raw = traffic && parser.isSet(rawOption);
    if (commandName == QLatin1String("exercise")) {
        options.stepMs = parser.value(stepOption).toInt(&ok);
        if (!ok || options.stepMs < 0) {
            return usage(QStringLiteral("bad --step-ms: %1").arg(parser.value(stepOption)));
        }
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
    return -1;
}
