#include "worksurfacetool.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSerialPortInfo>
#include <QTimer>
#include <cctype>
#include <climits>

#include "base/jsonline.h"
#include "base/logger.h"
#include "decodecommand.h"
#include "exercisecommand.h"
#include "exitcode.h"
#include "framedecoder.h"
#include "interruptwatcher.h"
#include "monitorcommand.h"
#include "portlock.h"
#include "portscommand.h"
#include "probecommand.h"
#include "progressbar.h"
#include "sectionsession.h"
#include "serial/hardwareserialconnection.h"
#include "serial/isectionconnection.h"
#include "serial/iserialmessagesender.h"
#include "serial/serialconnectionfactory.h"
#include "surface/deviceidtable.h"
#include "tasks/monotonicclock.h"
#include "tasks/taskpool.h"
#include "toolcontext.h"
#include "tooloutput.h"
#include "toolsettings.h"
#include "tracecommand.h"
#include "trafficprinter.h"
#include "updater/bootloaderpacket.h"
#include "updater/isectionupdaterlistener.h"
#include "updater/sectionupdater.h"

using namespace Velmora::Worksurface;

namespace {

// How many times flash lets the updater write the image into a section that stays in its
// bootloader after the reset (the updater's own retry), before it gives up on the section.
constexpr int kMaxUpdatePasses = 2;
// After Ctrl-C: how long the reset (flash) or the dark LEDs (exercise) get to leave the
// port before it closes.
constexpr int kInterruptDrainMs = 200;

int exitForFailure(int reason)
{
    switch (reason) {
        case ISectionUpdaterListener::ResendsExhausted:
            return ExitCode::ResendsExhausted;
        case ISectionUpdaterListener::BootloaderErrorStatus:
            return ExitCode::BootloaderError;
        case ISectionUpdaterListener::StoppedAnswering:
            return ExitCode::StoppedAnswering;
        default:
            return ExitCode::FileError;
    }
}

QString failureText(const SectionSession::FailureDetail& detail, qint64 totalBlocks)
{
    switch (detail.reason) {
        case ISectionUpdaterListener::StoppedAnswering:
            return QStringLiteral(
                       "the bootloader stopped answering at block %1 of %2 (waiting for the "
                       "answer to %3); the section waits in its bootloader: run flash again")
                .arg(detail.blocksSent)
                .arg(totalBlocks)
                .arg(detail.command);
        case ISectionUpdaterListener::ResendsExhausted:
            return QStringLiteral("resends exhausted: %1 refused at offset %2")
                .arg(detail.command)
                .arg(detail.offset);
        case ISectionUpdaterListener::BootloaderErrorStatus:
            return QStringLiteral(
                       "the bootloader reported an error status: %1 after %2 at "
                       "offset %3")
                .arg(detail.status >= 0 ? bootloaderCommandName(uint8_t(detail.status))
                                        : QStringLiteral("unknown"),
                     detail.command)
                .arg(detail.offset);
        default:
            return QStringLiteral("the firmware file is missing or unreadable");
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
    // The commands in classes of their own run on a context of their own.
    ToolContext context(m_options);
    if (command == QLatin1String("ports")) {
        const int code = PortsCommand(context).run();
        context.stopLinks();
        return code;
    }
    if (command == QLatin1String("probe")) {
        const int code = ProbeCommand(context).run();
        context.stopLinks();
        return code;
    }
    if (command == QLatin1String("decode")) {
        const int code = DecodeCommand(context).run();
        context.stopLinks();
        return code;
    }
    if (command == QLatin1String("exercise")) {
        const int code = ExerciseCommand(context).run();
        context.stopLinks();
        return code;
    }
    if (command == QLatin1String("monitor")) {
        const int code = MonitorCommand(context).run();
        context.stopLinks();
        return code;
    }
    m_pool = std::make_shared<TaskPool>();
    m_pool->start();
    int code = ExitCode::Usage;
    if (command == QLatin1String("flash")) {
        code = flash();
    }
    m_pool->stop();
    return code;
}

std::shared_ptr<ISettings> WorksurfaceTool::settings(const QString& firmware) const
{
    auto result = std::make_shared<ToolSettings>(m_options.mode, firmware, m_options.verbose);
    if (!firmware.isEmpty()) {
        // flash: an update whose bootloader stops answering ends after the same time-out,
        // where the tool can tell which block the section stopped at.
        result->setUpdateTimeout(m_options.timeoutMs);
    }
    return result;
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

// --- flash -------------------------------------------------------------------------------

QString WorksurfaceTool::imageProblem(const QByteArray& head, qint64 size) const
{
    if (size == 0) {
        return QStringLiteral("is empty");
    }
    if (head.startsWith("\x7f"
                        "ELF")) {
        return QStringLiteral(
            "is an ELF file, not a binary image (make one with objcopy -O "
            "binary)");
    }
    // Text images: every line a record of hex digits, Intel HEX lines beginning with a
    // colon, S-records with S and the record type.
    const QList<QByteArray> lines = head.split('\n');
    const auto hexText = [&](const QByteArray& line, int from) {
        const QByteArray body = line.trimmed().mid(from);
        if (body.size() < 8) {
            return false;
        }
        for (const char c : body) {
            if (!std::isxdigit(static_cast<unsigned char>(c))) {
                return false;
            }
        }
        return true;
    };
    const QByteArray first = lines.value(0).trimmed();
    if (first.startsWith(':') && hexText(first, 1)) {
        return QStringLiteral(
            "is Intel HEX text, not a binary image (make one with objcopy -I "
            "ihex -O binary)");
    }
    if (first.size() > 2 && first.at(0) == 'S' && first.at(1) >= '0' && first.at(1) <= '9' &&
        hexText(first, 2)) {
        return QStringLiteral(
            "is S-record text, not a binary image (make one with objcopy -I "
            "srec -O binary)");
    }
    if (size > m_options.maxSize) {
        return QStringLiteral("is %1 bytes, more than the %2 a section takes (--max-size)")
            .arg(size)
            .arg(m_options.maxSize);
    }
    return QString();
}

namespace {

// One section's flash: its link, what the tool has shown of its progress, and its end.
struct FlashJob
{
    enum class Outcome
    {
        Running,
        Done,
        Failed,
        Application,
        Silent,
        StaysInBootloader,
        Ready,  // --dry-run: in its bootloader, would be written
        Interrupted,
        PortError,
    };

    uint8_t index = 0;
    QString device;
    std::unique_ptr<SectionSession> s;
    Outcome outcome = Outcome::Running;
    // Waiting for the reset after a failure to be heard, or for the version after the
    // update; 0 while not.
    qint64 failedAtNs = 0;
    qint64 versionDeadlineNs = 0;
    bool resetSent = false;

    int lastPercent = -1;
    int lastDecade = -1;
    qint64 lastBlocks = -1;
    bool barDrawn = false;
    int pass = 0;

    // With several sections the lines of each are held and printed together, in section
    // order; with one they go out as they come.
    bool live = true;
    QByteArray held;
    bool printed = false;
};

}  // namespace

int WorksurfaceTool::flash()
{
    const QFileInfo info(m_options.file);
    QFile file(info.absoluteFilePath());
    const bool readable = info.isFile() && file.open(QIODevice::ReadOnly);
    const qint64 total = readable ? file.size() : 0;
    const qint64 totalBlocks =
        (total + SectionUpdater::kBlockSize - 1) / SectionUpdater::kBlockSize;
    QByteArray image;
    if (readable && total <= m_options.maxSize) {
        image = file.readAll();
    } else if (readable) {
        image = file.read(4096);
    }
    file.close();

    const auto failed = [&](FlashJob* job, uint8_t index, int exit, const QString& why, int reason,
                            const QString& error, const JsonLine& extra) {
        QByteArray bytes;
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
            line.append(extra);
            bytes = line.toJson() + '\n';
        } else {
            bytes = QStringLiteral("section %1  failed  %2 (exit %3)")
                        .arg(index)
                        .arg(why)
                        .arg(exit)
                        .toLocal8Bit() +
                    '\n';
        }
        if (job && !job->live) {
            job->held += bytes;
        } else {
            m_output->raw(bytes);
        }
    };

    int code = ExitCode::Success;
    if (!readable) {
        for (const auto& entry : sections()) {
            failed(nullptr, entry.first, ExitCode::FileError,
                   QStringLiteral("cannot read %1").arg(m_options.file),
                   ISectionUpdaterListener::FirmwareFileError, QString(), JsonLine());
        }
        return ExitCode::FileError;
    }
    // What a section's bootloader writes is the file's bytes as they are: a text image
    // or an ELF file would be written as its text or its headers.
    const QString problem = imageProblem(image.left(4096), total);
    if (!problem.isEmpty()) {
        const QString why = QStringLiteral("%1 %2").arg(m_options.file, problem);
        for (const auto& entry : sections()) {
            failed(nullptr, entry.first, ExitCode::FileError, why,
                   ISectionUpdaterListener::FirmwareFileError, why, JsonLine());
        }
        return ExitCode::FileError;
    }
    ToolOutput::note(QStringLiteral("image %1  %2 bytes  sha256 %3")
                         .arg(m_options.file)
                         .arg(total)
                         .arg(QString::fromLatin1(
                             QCryptographicHash::hash(image, QCryptographicHash::Sha256).toHex())));

    InterruptWatcher watcher;
    std::vector<std::unique_ptr<FlashJob>> jobs;
    const auto entries = sections();
    for (const auto& entry : entries) {
        auto job = std::make_unique<FlashJob>();
        job->index = entry.first;
        job->device = entry.second;
        job->live = entries.size() == 1;
        job->s = session(job->index, job->device, info.absoluteFilePath());
        if (!job->s->open(m_options.dryRun)) {
            job->outcome = FlashJob::Outcome::PortError;
        }
        jobs.push_back(std::move(job));
    }

    const bool bar = !m_output->isJson() && ToolOutput::isTerminal();
    const auto emitBytes = [&](FlashJob& job, const QByteArray& bytes) {
        if (job.live) {
            m_output->raw(bytes);
        } else {
            job.held += bytes;
        }
    };
    const auto emitText = [&](FlashJob& job, const QString& text) {
        emitBytes(job, text.toLocal8Bit() + '\n');
    };
    const auto emitJson = [&](FlashJob& job, const JsonLine& line) {
        emitBytes(job, line.toJson() + '\n');
    };

    const auto showProgress = [&](FlashJob& job) {
        SectionSession& s = *job.s;
        if (!s.hasProgress()) {
            return;
        }
        if (s.updatePasses() != job.pass) {
            job.pass = s.updatePasses();
            job.lastPercent = -1;
            job.lastDecade = -1;
            if (!m_output->isJson()) {
                if (job.barDrawn) {
                    emitBytes(job, "\n");
                    job.barDrawn = false;
                }
                emitText(job, QStringLiteral("section %1  %2  updating from %3 (%4 bytes)")
                                  .arg(job.index)
                                  .arg(job.device, m_options.file)
                                  .arg(total));
            }
        }
        const int percent = s.percent();
        const qint64 blocks = s.blocksSent();
        if (percent == job.lastPercent && blocks == job.lastBlocks) {
            return;
        }
        const qint64 bytes = qMin(blocks * SectionUpdater::kBlockSize, total);
        job.lastBlocks = blocks;
        if (m_output->isJson()) {
            if (percent != job.lastPercent) {
                emitJson(job, JsonLine()
                                  .add("section", static_cast<int>(job.index))
                                  .add("event", "progress")
                                  .add("percent", percent)
                                  .add("bytes", bytes)
                                  .add("total", total));
            }
        } else if (bar && job.live) {
            if (percent != job.lastPercent) {
                // At least a millisecond: a small image may pass within one.
                const qint64 elapsedMs =
                    qMax<qint64>(1, (MonotonicClock::nowNs() - s.transferStartNs()) / kNsPerMs);
                emitBytes(job, '\r' + ProgressBar::line(job.index, percent, bytes, total, elapsedMs)
                                          .toLocal8Bit());
                job.barDrawn = true;
            }
        } else if (percent / 10 > job.lastDecade) {
            job.lastDecade = percent / 10;
            emitText(job, QStringLiteral("section %1  %2 %  %3/%4 bytes")
                              .arg(job.index)
                              .arg(percent, 3)
                              .arg(bytes)
                              .arg(total));
        }
        job.lastPercent = percent;
    };

    // One look at a running section; sets its outcome once it has one.
    const auto poll = [&](FlashJob& job) {
        SectionSession& s = *job.s;
        const qint64 now = MonotonicClock::nowNs();
        const qint64 timeoutNs = m_options.timeoutMs * kNsPerMs;
        // The section owes an answer unless the updater itself is waiting (the second
        // between the acknowledged reset and its next probe).
        // A running update is watched by the updater's own time-out, which knows the block.
        const bool idleTooLong = !s.updaterHasPendingAutoUpdate() && !s.updaterInUpdateExchange() &&
                                 now - s.lastActivityNs() > timeoutNs;
        showProgress(job);
        if (!s.failures().empty()) {
            // The updater resets the section after a failure: let that be heard before the
            // port closes.
            if (job.failedAtNs == 0) {
                job.failedAtNs = now;
            }
            // No reset follows a bootloader that stopped answering: nothing to wait for.
            if (s.failureDetail().reason == ISectionUpdaterListener::StoppedAnswering ||
                s.updaterHasPendingAutoUpdate() || now - job.failedAtNs > timeoutNs) {
                job.outcome = FlashJob::Outcome::Failed;
            }
            return;
        }
        if (job.versionDeadlineNs != 0) {
            if (s.hasVersion()) {
                job.outcome = FlashJob::Outcome::Done;
            } else if (now > job.versionDeadlineNs) {
                job.outcome = FlashJob::Outcome::Silent;
            }
            return;
        }
        if (s.updatePasses() == 0 && s.linkState() == ISectionConnection::Connected) {
            job.outcome = FlashJob::Outcome::Application;
            return;
        }
        if (s.updatePasses() >= kMaxUpdatePasses && s.updaterHasPendingAutoUpdate()) {
            // The last transfer is through and the section reset: the updater's next
            // probe only looks, so a section still in its bootloader is not written a
            // third time.
            s.setProbeOnly(true);
        }
        if (s.updaterState() == SectionUpdater::InBootloader) {
            job.outcome = m_options.dryRun && s.updatePasses() == 0
                              ? FlashJob::Outcome::Ready
                              : FlashJob::Outcome::StaysInBootloader;
            return;
        }
        if (s.updatePasses() > 0 && s.linkState() == ISectionConnection::Connected &&
            s.updaterState() == SectionUpdater::Idle) {
            // Back in its application: the link pings, the answer has the version.
            job.versionDeadlineNs = now + timeoutNs;
            if (s.hasVersion()) {
                job.outcome = FlashJob::Outcome::Done;
            }
            return;
        }
        if (idleTooLong) {
            job.outcome = FlashJob::Outcome::Silent;
        }
    };

    const auto report = [&](FlashJob& job) {
        SectionSession& s = *job.s;
        const uint8_t index = job.index;
        switch (job.outcome) {
            case FlashJob::Outcome::Running:
                break;
            case FlashJob::Outcome::Done:
                if (m_output->isJson()) {
                    emitJson(job, JsonLine()
                                      .add("section", static_cast<int>(index))
                                      .add("event", "done")
                                      .add("version", s.version()));
                } else {
                    emitText(
                        job,
                        QStringLiteral("section %1  done  version %2").arg(index).arg(s.version()));
                }
                if (m_options.expectVersion >= 0 && s.version() != m_options.expectVersion) {
                    failed(&job, index, ExitCode::WrongVersion,
                           QStringLiteral("came back with version %1, not %2")
                               .arg(s.version())
                               .arg(m_options.expectVersion),
                           -1, QString(),
                           JsonLine()
                               .add("version", s.version())
                               .add("expected", m_options.expectVersion));
                    ExitCode::keepFirst(code, ExitCode::WrongVersion);
                }
                break;
            case FlashJob::Outcome::Ready:
                if (m_output->isJson()) {
                    emitJson(job, JsonLine()
                                      .add("section", static_cast<int>(index))
                                      .add("event", "ready")
                                      .add("total", total));
                } else {
                    emitText(job, QStringLiteral("section %1  %2  in its bootloader: would "
                                                 "write %3 bytes (dry run)")
                                      .arg(index)
                                      .arg(job.device)
                                      .arg(total));
                }
                break;
            case FlashJob::Outcome::Failed: {
                const SectionSession::FailureDetail& detail = s.failureDetail();
                JsonLine extra;
                if (detail.reason != ISectionUpdaterListener::FirmwareFileError) {
                    if (detail.status >= 0) {
                        extra.add("status", bootloaderCommandName(uint8_t(detail.status)));
                    }
                    extra.add("command", detail.command).add("offset", detail.offset);
                }
                if (detail.reason == ISectionUpdaterListener::StoppedAnswering) {
                    extra.add("block", detail.blocksSent).add("blocks", totalBlocks);
                }
                failed(&job, index, exitForFailure(detail.reason), failureText(detail, totalBlocks),
                       detail.reason, QString(), extra);
                ExitCode::keepFirst(code, exitForFailure(detail.reason));
                break;
            }
            case FlashJob::Outcome::Application:
                failed(&job, index, ExitCode::NotInBootloader,
                       QStringLiteral("running its application, not its bootloader: not flashed"),
                       -1, QString(), JsonLine());
                ExitCode::keepFirst(code, ExitCode::NotInBootloader);
                break;
            case FlashJob::Outcome::Silent:
                failed(&job, index, ExitCode::NoAnswer, QStringLiteral("no answer in time"), -1,
                       QString(), JsonLine());
                ExitCode::keepFirst(code, ExitCode::NoAnswer);
                break;
            case FlashJob::Outcome::StaysInBootloader:
                failed(&job, index, ExitCode::StillInBootloader,
                       QStringLiteral("still in its bootloader after %1 updates")
                           .arg(kMaxUpdatePasses),
                       -1, QString(), JsonLine());
                ExitCode::keepFirst(code, ExitCode::StillInBootloader);
                break;
            case FlashJob::Outcome::Interrupted: {
                const QString what = job.resetSent ? QStringLiteral("interrupted: section reset")
                                                   : QStringLiteral("interrupted");
                if (m_output->isJson()) {
                    emitJson(job, JsonLine()
                                      .add("section", static_cast<int>(index))
                                      .add("event", "interrupted")
                                      .add("reset", job.resetSent)
                                      .add("exit", int(ExitCode::Interrupted)));
                } else {
                    emitText(job, QStringLiteral("section %1  %2 (exit %3)")
                                      .arg(index)
                                      .arg(what)
                                      .arg(ExitCode::Interrupted));
                }
                ExitCode::keepFirst(code, ExitCode::Interrupted);
                break;
            }
            case FlashJob::Outcome::PortError: {
                const QString error = s.portError();
                failed(&job, index, ExitCode::PortError,
                       QStringLiteral("port error: %1").arg(error), -1, error, JsonLine());
                ExitCode::keepFirst(code, ExitCode::PortError);
                break;
            }
        }
    };

    const auto finish = [&](FlashJob& job) {
        showProgress(job);
        if (job.barDrawn) {
            emitBytes(job, "\n");
            job.barDrawn = false;
        }
        job.s->close();
        report(job);
    };
    // Held groups go out in section order, each as soon as it and those before it are done.
    const auto printGroups = [&] {
        for (auto& job : jobs) {
            if (job->outcome == FlashJob::Outcome::Running) {
                return;
            }
            if (!job->printed) {
                job->printed = true;
                if (!job->live) {
                    m_output->raw(job->held);
                }
            }
        }
    };

    for (auto& job : jobs) {
        if (job->outcome == FlashJob::Outcome::PortError) {
            finish(*job);
        }
    }
    for (;;) {
        bool running = false;
        for (auto& job : jobs) {
            if (job->outcome != FlashJob::Outcome::Running) {
                continue;
            }
            poll(*job);
            if (job->outcome != FlashJob::Outcome::Running) {
                finish(*job);
            } else {
                running = true;
            }
        }
        printGroups();
        if (!running) {
            break;
        }
        if (watcher.isInterrupted()) {
            // Ctrl-C: no section is left mid-transfer in its bootloader where a reset can
            // take it out.
            for (auto& job : jobs) {
                if (job->outcome == FlashJob::Outcome::Running) {
                    job->resetSent = job->s->abortUpdate();
                }
            }
            waitUntil([] { return false; }, kInterruptDrainMs);
            for (auto& job : jobs) {
                if (job->outcome == FlashJob::Outcome::Running) {
                    job->outcome = FlashJob::Outcome::Interrupted;
                    finish(*job);
                }
            }
            printGroups();
            break;
        }
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return code;
}
