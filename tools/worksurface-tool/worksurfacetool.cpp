#include "worksurfacetool.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <climits>

#include "exitcode.h"
#include "framedecoder.h"
#include "interruptwatcher.h"
#include "jsonline.h"
#include "progressbar.h"
#include "sectionsession.h"
#include "serial/hardwareserialconnection.h"
#include "serial/isectionconnection.h"
#include "serial/iserialmessagesender.h"
#include "serial/serialconnectionfactory.h"
#include "service/logger.h"
#include "service/surfacesettings.h"
#include "surface/deviceidtable.h"
#include "tasks/monotonicclock.h"
#include "tasks/taskpool.h"
#include "tooloutput.h"
#include "toolsettings.h"
#include "trafficprinter.h"
#include "updater/isectionupdaterlistener.h"
#include "updater/sectionupdater.h"

using namespace Velmora::Worksurface;

namespace {

constexpr qint64 kNsPerMs = 1000000;
// How many times flash lets the updater write the image into a section that stays in its
// bootloader after the reset (the updater's own retry), before it gives up on the section.
constexpr int kMaxUpdatePasses = 2;

const char kExitCodes[] =
    "Exit codes:\n"
    "  0  success\n"
    "  1  usage error\n"
    "  2  a port could not be opened\n"
    "  3  a section did not answer in time (probe, exercise: also a section in its "
    "bootloader)\n"
    "  4  the firmware file (decode: the capture) is missing or unreadable\n"
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

int exitForFailure(int reason)
{
    switch (reason) {
        case ISectionUpdaterListener::ResendsExhausted:
            return ExitCode::ResendsExhausted;
        case ISectionUpdaterListener::BootloaderErrorStatus:
            return ExitCode::BootloaderError;
        default:
            return ExitCode::FileError;
    }
}

QString failureText(int reason)
{
    switch (reason) {
        case ISectionUpdaterListener::ResendsExhausted:
            return QStringLiteral("resends exhausted");
        case ISectionUpdaterListener::BootloaderErrorStatus:
            return QStringLiteral("the bootloader reported an error status");
        default:
            return QStringLiteral("the firmware file is missing or unreadable");
    }
}

void keepFirst(int& code, int candidate)
{
    if (code == ExitCode::Success) {
        code = candidate;
    }
}

}  // namespace

WorksurfaceTool::WorksurfaceTool() = default;

WorksurfaceTool::~WorksurfaceTool() = default;

int WorksurfaceTool::run(const QStringList& arguments)
{
    m_startNs = MonotonicClock::nowNs();
    const int parsed = parse(arguments, m_options);
    if (parsed >= 0) {
        return parsed;
    }
    m_output = std::make_unique<ToolOutput>(m_options.json);
    m_logger = std::make_shared<Logger>(settings(QString()));

    const QString& command = m_options.command;
    if (command == QLatin1String("decode")) {
        return decode();
    }
    if (command == QLatin1String("ports")) {
        return ports();
    }
    m_pool = std::make_shared<TaskPool>();
    m_pool->start();
    int code = ExitCode::Usage;
    if (command == QLatin1String("probe")) {
        code = probe();
    } else if (command == QLatin1String("flash")) {
        code = flash();
    } else if (command == QLatin1String("monitor")) {
        code = monitor();
    } else if (command == QLatin1String("exercise")) {
        code = exercise();
    }
    m_pool->stop();
    return code;
}

// Returns the exit code when the command line is done with (help, version, errors), -1
// when a command is to run.
int WorksurfaceTool::parse(const QStringList& arguments, Options& options)
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
        options.mode = SurfaceSettings::K40;
    } else if (model == QLatin1String("K60")) {
        options.mode = SurfaceSettings::K60;
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

std::shared_ptr<ISettings> WorksurfaceTool::settings(const QString& firmware) const
{
    return std::make_shared<ToolSettings>(m_options.mode, firmware, m_options.verbose);
}

std::vector<std::pair<uint8_t, QString>> WorksurfaceTool::sections() const
{
    const ToolSettings model(m_options.mode, QString(), false);
    std::vector<std::pair<uint8_t, QString>> result;
    for (uint8_t index = 0; index < model.sectionCount(); ++index) {
        if (m_options.section >= 0 && index != m_options.section) {
            continue;
        }
        QString device;
        if (index < m_options.ports.size()) {
            device = m_options.ports.at(index).trimmed();
        }
        if (device.isEmpty()) {
            // The plugin's own naming: the environment's entry, else the model's device.
            device = SerialConnectionFactory::serialPortName(index, model);
        }
        result.emplace_back(index, device);
    }
    return result;
}

std::unique_ptr<SectionSession> WorksurfaceTool::session(uint8_t index, const QString& device,
                                                         const QString& firmware)
{
    return std::make_unique<SectionSession>(index, device, settings(firmware), m_pool, m_logger);
}

bool WorksurfaceTool::waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() >= timeoutMs) {
            return condition();
        }
        // The task pool's 5 ms tick wakes the loop at least that often.
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

QString WorksurfaceTool::awaitApplication(SectionSession& session)
{
    // The updater's probe comes first: a bootloader acknowledges it, an application
    // answers that it is none, and only then does the link ping.
    if (!waitUntil([&] { return session.updaterState() != SectionUpdater::Exchanging; },
                   m_options.timeoutMs)) {
        return QStringLiteral("silent");
    }
    if (session.updaterState() == SectionUpdater::InBootloader) {
        return QStringLiteral("bootloader");
    }
    if (!waitUntil([&] { return session.hasVersion(); }, m_options.timeoutMs)) {
        return QStringLiteral("silent");
    }
    return QStringLiteral("application");
}

// --- ports -------------------------------------------------------------------------------

int WorksurfaceTool::ports()
{
    int code = ExitCode::Success;
    for (const auto& [index, device] : sections()) {
        const bool exists = !device.isEmpty() && QFileInfo::exists(device);
        // Opened only for the check, with the link's own line settings.
        HardwareSerialConnection connection(index, device);
        connection.open();
        const bool openable = connection.isOpen();
        const QString error = openable ? QString() : connection.errorString();
        connection.close();
        if (!openable) {
            keepFirst(code, ExitCode::PortError);
        }
        if (m_output->isJson()) {
            JsonLine line;
            line.add("section", static_cast<int>(index))
                .add("device", device)
                .add("exists", exists)
                .add("openable", openable);
            if (!openable) {
                line.add("error", error);
            }
            m_output->json(line);
        } else {
            QString text =
                QStringLiteral("section %1  %2  %3  ")
                    .arg(index)
                    .arg(device, exists ? QStringLiteral("exists") : QStringLiteral("missing"));
            text += openable ? QStringLiteral("openable")
                             : QStringLiteral("not openable: %1").arg(error);
            m_output->text(text);
        }
    }
    return code;
}

// --- probe -------------------------------------------------------------------------------

int WorksurfaceTool::probe()
{
    int code = ExitCode::Success;
    for (const auto& [index, device] : sections()) {
        std::unique_ptr<SectionSession> s = session(index, device);
        QString state;
        QString error;
        if (!s->open(true)) {
            state = QStringLiteral("port-error");
            error = s->portError();
            keepFirst(code, ExitCode::PortError);
        } else {
            state = awaitApplication(*s);
            if (state != QLatin1String("application")) {
                keepFirst(code, ExitCode::NoAnswer);
            }
        }
        s->close();
        const bool application = state == QLatin1String("application");
        if (m_output->isJson()) {
            JsonLine line;
            line.add("section", static_cast<int>(index)).add("device", device).add("state", state);
            if (application) {
                line.add("version", s->version()).add("temperature", s->temperature());
            }
            if (!error.isEmpty()) {
                line.add("error", error);
            }
            m_output->json(line);
        } else {
            QString text = QStringLiteral("section %1  %2  %3").arg(index).arg(device, state);
            if (application) {
                text += QStringLiteral("  version %1  temperature %2")
                            .arg(s->version())
                            .arg(s->temperature());
            }
            if (!error.isEmpty()) {
                text += QStringLiteral("  %1").arg(error);
            }
            m_output->text(text);
        }
    }
    return code;
}

// --- flash -------------------------------------------------------------------------------

int WorksurfaceTool::flash()
{
    const QFileInfo info(m_options.file);
    QFile file(info.absoluteFilePath());
    const bool readable = info.isFile() && file.open(QIODevice::ReadOnly);
    const qint64 total = readable ? file.size() : 0;
    file.close();

    const auto failed = [&](uint8_t index, int exit, const QString& why, int reason,
                            const QString& error) {
        if (m_output->isJson()) {
            JsonLine line;
            line.add("section", static_cast<int>(index)).add("event", "failed");
            if (reason >= 0) {
                line.add("reason", reason);
            }
            line.add("exit", exit);
            if (!error.isEmpty()) {
                line.add("error", error);
            }
            m_output->json(line);
        } else {
            m_output->text(
                QStringLiteral("section %1  failed  %2 (exit %3)").arg(index).arg(why).arg(exit));
        }
    };

    int code = ExitCode::Success;
    if (!readable) {
        for (const auto& entry : sections()) {
            failed(entry.first, ExitCode::FileError,
                   QStringLiteral("cannot read %1").arg(m_options.file),
                   ISectionUpdaterListener::FirmwareFileError, QString());
        }
        return ExitCode::FileError;
    }

    const bool bar = !m_output->isJson() && ToolOutput::isTerminal();
    for (const auto& [index, device] : sections()) {
        std::unique_ptr<SectionSession> s = session(index, device, info.absoluteFilePath());
        if (!s->open(false)) {
            const QString error = s->portError();
            failed(index, ExitCode::PortError, QStringLiteral("port error: %1").arg(error), -1,
                   error);
            keepFirst(code, ExitCode::PortError);
            continue;
        }

        int lastPercent = -1;
        int lastDecade = -1;
        qint64 lastBlocks = -1;
        bool barDrawn = false;
        int pass = 0;
        // The section owes an answer unless the updater itself is waiting (the second
        // between the acknowledged reset and its next probe).
        const auto idleTooLong = [&] {
            return !s->updaterHasPendingAutoUpdate() &&
                   MonotonicClock::nowNs() - s->lastActivityNs() > m_options.timeoutMs * kNsPerMs;
        };
        const auto showProgress = [&] {
            if (!s->hasProgress()) {
                return;
            }
            if (s->updatePasses() != pass) {
                pass = s->updatePasses();
                lastPercent = -1;
                lastDecade = -1;
                if (!m_output->isJson()) {
                    if (barDrawn) {
                        m_output->raw("\n");
                        barDrawn = false;
                    }
                    m_output->text(QStringLiteral("section %1  %2  updating from %3 (%4 bytes)")
                                       .arg(index)
                                       .arg(device, m_options.file)
                                       .arg(total));
                }
            }
            const int percent = s->percent();
            const qint64 blocks = s->blocksSent();
            if (percent == lastPercent && blocks == lastBlocks) {
                return;
            }
            const qint64 bytes = qMin(blocks * SectionUpdater::kBlockSize, total);
            lastBlocks = blocks;
            if (m_output->isJson()) {
                if (percent != lastPercent) {
                    m_output->json(JsonLine()
                                       .add("section", static_cast<int>(index))
                                       .add("event", "progress")
                                       .add("percent", percent)
                                       .add("bytes", bytes)
                                       .add("total", total));
                }
            } else if (bar) {
                if (percent != lastPercent) {
                    // At least a millisecond: a small image may pass within one.
                    const qint64 elapsedMs = qMax<qint64>(
                        1, (MonotonicClock::nowNs() - s->transferStartNs()) / kNsPerMs);
                    m_output->raw(
                        '\r' +
                        ProgressBar::line(index, percent, bytes, total, elapsedMs).toLocal8Bit());
                    barDrawn = true;
                }
            } else if (percent / 10 > lastDecade) {
                lastDecade = percent / 10;
                m_output->text(QStringLiteral("section %1  %2 %  %3/%4 bytes")
                                   .arg(index)
                                   .arg(percent, 3)
                                   .arg(bytes)
                                   .arg(total));
            }
            lastPercent = percent;
        };

        enum class Outcome
        {
            Done,
            Failed,
            Application,
            Silent,
            StaysInBootloader,
        };
        Outcome outcome = Outcome::Silent;
        for (;;) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
            showProgress();
            if (!s->failures().empty()) {
                // The updater resets the section after a failure: let that be heard before
                // the port closes.
                waitUntil([&] { return s->updaterHasPendingAutoUpdate() || idleTooLong(); },
                          m_options.timeoutMs);
                outcome = Outcome::Failed;
                break;
            }
            if (s->updatePasses() == 0 && s->linkState() == ISectionConnection::Connected) {
                outcome = Outcome::Application;
                break;
            }
            if (s->updatePasses() > kMaxUpdatePasses) {
                outcome = Outcome::StaysInBootloader;
                break;
            }
            if (s->updatePasses() > 0 && s->linkState() == ISectionConnection::Connected &&
                s->updaterState() == SectionUpdater::Idle) {
                // Back in its application: the link pings, the answer has the version.
                outcome = waitUntil([&] { return s->hasVersion(); }, m_options.timeoutMs)
                              ? Outcome::Done
                              : Outcome::Silent;
                break;
            }
            if (idleTooLong()) {
                outcome = Outcome::Silent;
                break;
            }
        }
        showProgress();
        if (barDrawn) {
            m_output->raw("\n");
        }
        s->close();

        switch (outcome) {
            case Outcome::Done:
                if (m_output->isJson()) {
                    m_output->json(JsonLine()
                                       .add("section", static_cast<int>(index))
                                       .add("event", "done")
                                       .add("version", s->version()));
                } else {
                    m_output->text(QStringLiteral("section %1  done  version %2")
                                       .arg(index)
                                       .arg(s->version()));
                }
                break;
            case Outcome::Failed: {
                const int reason = s->failures().front();
                failed(index, exitForFailure(reason), failureText(reason), reason, QString());
                keepFirst(code, exitForFailure(reason));
                break;
            }
            case Outcome::Application:
                failed(index, ExitCode::NotInBootloader,
                       QStringLiteral("running its application, not its bootloader: not flashed"),
                       -1, QString());
                keepFirst(code, ExitCode::NotInBootloader);
                break;
            case Outcome::Silent:
                failed(index, ExitCode::NoAnswer, QStringLiteral("no answer in time"), -1,
                       QString());
                keepFirst(code, ExitCode::NoAnswer);
                break;
            case Outcome::StaysInBootloader:
                failed(index, ExitCode::NoAnswer,
                       QStringLiteral("still in its bootloader after %1 updates")
                           .arg(kMaxUpdatePasses),
                       -1, QString());
                keepFirst(code, ExitCode::NoAnswer);
                break;
        }
    }
    return code;
}

// --- monitor -----------------------------------------------------------------------------

int WorksurfaceTool::monitor()
{
    InterruptWatcher watcher;
    TrafficPrinter printer(*m_output, TrafficPrinter::Position::Time, m_options.raw);
    int code = ExitCode::Success;
    std::vector<std::unique_ptr<SectionSession>> sessions;
    QStringList names;
    for (const auto& [index, device] : sections()) {
        std::unique_ptr<SectionSession> s = session(index, device);
        const uint8_t section = index;
        s->onTraffic = [this, &printer, section](qint64 nowNs, bool incoming,
                                                 const FrameDecoder::Event& event) {
            printer.print(nowNs - m_startNs, section, incoming, event);
        };
        if (!s->open(true)) {
            ToolOutput::note(QStringLiteral("section %1  %2  port-error  %3")
                                 .arg(index)
                                 .arg(device, s->portError()));
            keepFirst(code, ExitCode::PortError);
            continue;
        }
        names << QString::number(index);
        sessions.push_back(std::move(s));
    }
    if (sessions.empty()) {
        return code;
    }
    ToolOutput::note(QStringLiteral("monitoring section %1; Ctrl-C ends").arg(names.join(", ")));

    std::vector<bool> noted(sessions.size(), false);
    waitUntil(
        [&] {
            for (std::size_t i = 0; i < sessions.size(); ++i) {
                if (!noted[i] && sessions[i]->updaterState() == SectionUpdater::InBootloader) {
                    noted[i] = true;
                    ToolOutput::note(QStringLiteral("section %1 is in its bootloader: left there")
                                         .arg(sessions[i]->index()));
                }
            }
            return watcher.isInterrupted();
        },
        INT_MAX);
    for (auto& s : sessions) {
        s->flushTraffic();
        s->onTraffic = nullptr;
        s->close();
    }
    ToolOutput::note(QStringLiteral("monitor ended"));
    return code;
}

// --- decode ------------------------------------------------------------------------------

int WorksurfaceTool::decode()
{
    QFile file;
    if (m_options.file.isEmpty()) {
        file.open(stdin, QIODevice::ReadOnly);
    } else {
        file.setFileName(m_options.file);
        if (!file.open(QIODevice::ReadOnly)) {
            ToolOutput::note(QStringLiteral("worksurface-tool: cannot read %1: %2")
                                 .arg(m_options.file, file.errorString()));
            return ExitCode::FileError;
        }
    }
    const uint8_t section = m_options.section >= 0 ? static_cast<uint8_t>(m_options.section) : 0;
    TrafficPrinter printer(*m_output, TrafficPrinter::Position::Offset, m_options.raw);
    FrameDecoder decoder([&](const FrameDecoder::Event& event) {
        printer.print(event.offset, section, true, event);
    });
    // Read until the end of the stream; a pipe may deliver its bytes late, so an empty
    // read, not atEnd(), ends it.
    for (;;) {
        const QByteArray chunk = file.read(65536);
        if (chunk.isEmpty()) {
            break;
        }
        decoder.feed(chunk);
    }
    decoder.finish();
    return ExitCode::Success;
}

// --- exercise ----------------------------------------------------------------------------

int WorksurfaceTool::exercise()
{
    TrafficPrinter printer(*m_output, TrafficPrinter::Position::Time, false);
    const ToolSettings model(m_options.mode, QString(), false);
    int code = ExitCode::Success;
    for (const auto& [index, device] : sections()) {
        std::unique_ptr<SectionSession> s = session(index, device);
        QString state;
        if (!s->open(true)) {
            state = QStringLiteral("port-error  ") + s->portError();
            keepFirst(code, ExitCode::PortError);
        } else {
            state = awaitApplication(*s);
            if (state != QLatin1String("application")) {
                keepFirst(code, ExitCode::NoAnswer);
            }
        }
        if (state != QLatin1String("application")) {
            ToolOutput::note(
                QStringLiteral("section %1  %2  %3: not exercised").arg(index).arg(device, state));
            continue;
        }
        const uint8_t section = index;
        s->onTraffic = [this, &printer, section](qint64 nowNs, bool incoming,
                                                 const FrameDecoder::Event& event) {
            if (!incoming) {
                printer.print(nowNs - m_startNs, section, incoming, event);
            }
        };

        // The controls this section has, by the same table and counts the plugin builds
        // them from.
        const bool master = model.masterSectionIndex() == index;
        std::vector<uint8_t> faders;
        std::vector<uint8_t> leds;
        std::vector<uint8_t> rgbLeds;
        std::vector<uint8_t> meters;
        for (int i = 0; i < model.stripCount(); ++i) {
            faders.push_back(DeviceIdTable::fader(FaderType::Fader, i));
            leds.push_back(DeviceIdTable::led(LedType::MuteButton, i));
            leds.push_back(DeviceIdTable::led(LedType::SoloButton, i));
            rgbLeds.push_back(DeviceIdTable::rgbLed(RgbLedType::UnderscreenRotaryButton, i));
        }
        if (master) {
            faders.push_back(DeviceIdTable::fader(FaderType::MasterFader, 0));
            for (LedType type :
                 {LedType::MasterMuteButton, LedType::LayerDownButton, LedType::LayerUpButton,
                  LedType::NextSnapsthotButton, LedType::PreviousSnapshotButton,
                  LedType::OverviewButton, LedType::SpillsetButton}) {
                leds.push_back(DeviceIdTable::led(type, 0));
            }
            for (int k = 0; k < model.sideRotaryCount(); ++k) {
                rgbLeds.push_back(DeviceIdTable::rgbLed(RgbLedType::SideRotaryButton, k));
            }
            for (RgbLedType type :
                 {RgbLedType::NameLogo, RgbLedType::MainLogo, RgbLedType::HeadphoneLogo,
                  RgbLedType::SnapshotLogo, RgbLedType::DashboardLogo, RgbLedType::OverviewLogo}) {
                rgbLeds.push_back(DeviceIdTable::rgbLed(type, 0));
            }
            meters.push_back(DeviceIdTable::meter(MeterType::MasterLeft));
            meters.push_back(DeviceIdTable::meter(MeterType::MasterRight));
        }

        ISerialMessageSender& sender = s->sender();
        bool alive = true;
        // One step: queue it, let the link send all of it, then wait for the eye.
        const auto step = [&](const std::function<void()>& queue) {
            if (!alive) {
                return;
            }
            queue();
            alive = waitUntil([&] { return s->queuedMessages() == 0; }, m_options.timeoutMs);
            waitUntil([] { return false; }, m_options.stepMs);
        };
        for (uint16_t position : {uint16_t{0}, uint16_t{511}, uint16_t{0}}) {
            step([&] {
                for (uint8_t id : faders) {
                    sender.sendFaderPosition(id, position);
                }
            });
        }
        for (std::size_t i = 0; i <= leds.size(); ++i) {
            step([&] {
                if (i > 0) {
                    sender.sendLed(leds[i - 1], 0, 0, 0);
                }
                if (i < leds.size()) {
                    sender.sendLed(leds[i], 255, 0, 0);
                }
            });
        }
        for (uint32_t colour : {0xFF0000u, 0x00FF00u, 0x0000FFu, 0x000000u}) {
            step([&] {
                for (uint8_t id : rgbLeds) {
                    sender.sendColor(id, colour, 0, 0);
                }
            });
        }
        if (!meters.empty()) {
            for (uint8_t level : {0, 6, 12, 18, 24, 18, 12, 6, 0}) {
                step([&] {
                    for (uint8_t id : meters) {
                        sender.sendMeterLevel(id, level);
                    }
                });
            }
        }
        // Let the last writes leave the port before it closes.
        waitUntil([] { return false; }, 200);
        s->onTraffic = nullptr;
        s->close();
        if (!alive) {
            ToolOutput::note(QStringLiteral("section %1 stopped answering").arg(index));
            keepFirst(code, ExitCode::NoAnswer);
        }
    }
    return code;
}
