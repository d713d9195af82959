#include "worksurfacetool.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTimer>
#include <climits>

#include "base/jsonline.h"
#include "base/logger.h"
#include "exitcode.h"
#include "framedecoder.h"
#include "interruptwatcher.h"
#include "progressbar.h"
#include "sectionsession.h"
#include "serial/hardwareserialconnection.h"
#include "serial/isectionconnection.h"
#include "serial/iserialmessagesender.h"
#include "serial/serialconnectionfactory.h"
#include "surface/deviceidtable.h"
#include "tasks/monotonicclock.h"
#include "tasks/taskpool.h"
#include "tooloutput.h"
#include "toolsettings.h"
#include "tracecommand.h"
#include "trafficprinter.h"
#include "updater/isectionupdaterlistener.h"
#include "updater/sectionupdater.h"

using namespace Velmora::Worksurface;

namespace {

constexpr qint64 kNsPerMs = 1000000;
// How many times flash lets the updater write the image into a section that stays in its
// bootloader after the reset (the updater's own retry), before it gives up on the section.
constexpr int kMaxUpdatePasses = 2;

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
    // Reading a saved trace opens no port and has options of its own.
    if (arguments.size() > 1 && arguments.at(1) == QLatin1String("trace")) {
        return TraceCommand::run(arguments);
    }
    const int parsed = ToolCommandLine::parse(arguments, m_options);
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
    // The task pool sleeps through ticks with nothing due, so the loop may have nothing to
    // wake it before the time-out (no link open yet): this timer does.
    QTimer deadline;
    deadline.setSingleShot(true);
    deadline.start(timeoutMs);
    while (!condition()) {
        if (timer.elapsed() >= timeoutMs) {
            return condition();
        }
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
    for (const auto& entry : sections()) {
        // Plain copies, not structured bindings: the loop's lambdas capture them.
        const uint8_t index = entry.first;
        const QString device = entry.second;
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
    for (const auto& entry : sections()) {
        // Plain copies, not structured bindings: the loop's lambdas capture them.
        const uint8_t index = entry.first;
        const QString device = entry.second;
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
    for (const auto& entry : sections()) {
        // Plain copies, not structured bindings: the loop's lambdas capture them.
        const uint8_t index = entry.first;
        const QString device = entry.second;
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
            if (s->updatePasses() >= kMaxUpdatePasses && s->updaterHasPendingAutoUpdate()) {
                // The last transfer is through and the section reset: the updater's next
                // probe only looks, so a section still in its bootloader is not written a
                // third time.
                s->setProbeOnly(true);
            }
            if (s->updaterState() == SectionUpdater::InBootloader) {
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
    for (const auto& entry : sections()) {
        // Plain copies, not structured bindings: the loop's lambdas capture them.
        const uint8_t index = entry.first;
        const QString device = entry.second;
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
    for (const auto& entry : sections()) {
        // Plain copies, not structured bindings: the loop's lambdas capture them.
        const uint8_t index = entry.first;
        const QString device = entry.second;
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
