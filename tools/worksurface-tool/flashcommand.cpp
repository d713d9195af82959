#include "flashcommand.h"

#include <QCoreApplication>
#include <algorithm>

#include "exitcode.h"
#include "flashjob.h"
#include "sectionsession.h"
#include "tasks/monotonicclock.h"
#include "toolcontext.h"
#include "tooloutput.h"

using namespace Velmora::Worksurface;

namespace {

// After Ctrl-C: how long the reset gets to leave the port before it closes.
constexpr int kResetDrainMs = 200;

std::vector<uint8_t> indexesOf(const std::vector<SectionDevice>& sections)
{
    std::vector<uint8_t> indexes;
    for (const SectionDevice& section : sections) {
        indexes.push_back(section.index);
    }
    return indexes;
}

}  // namespace

FlashCommand::FlashCommand(ToolContext& context)
    : m_context(context),
      m_image(context.options().file, context.options().maxSize),
      m_printer(context.output(), m_image, indexesOf(context.sections()))
{}

FlashCommand::~FlashCommand() = default;

int FlashCommand::run()
{
    if (!m_image.isReadable() || !m_image.problem().isEmpty()) {
        return refuseImage();
    }
    openJobs();
    // Said once a port is the flash's, before any of the image is written: a flash that got
    // no port writes nothing.
    if (std::any_of(m_jobs.begin(), m_jobs.end(), [](const auto& job) {
            return job->outcome() != FlashJob::Outcome::PortError;
        })) {
        FlashPrinter::imageNote(m_image);
    }
    for (auto& job : m_jobs) {
        if (job->outcome() == FlashJob::Outcome::PortError) {
            finish(*job);
        }
    }
    while (pollJobs()) {
        if (m_watcher.isInterrupted()) {
            interruptJobs();
            break;
        }
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return m_code;
}

int FlashCommand::refuseImage()
{
    // What a section's bootloader writes is the file's bytes as they are: a text image or
    // an ELF file would be written as its text or its headers.
    const QString problem = m_image.problem();
    if (!m_image.isReadable()) {
        FlashPrinter::unreadableNote(m_image);
    }
    for (const SectionDevice& section : m_context.sections()) {
        if (!m_image.isReadable()) {
            m_printer.unreadable(section.index, ExitCode::FileError);
        } else {
            m_printer.refused(section.index, m_image.path() + ' ' + problem, ExitCode::FileError);
        }
        m_printer.finished(section.index);
    }
    return ExitCode::FileError;
}

void FlashCommand::openJobs()
{
    const ToolCommandLine::Options& options = m_context.options();
    for (const SectionDevice& section : m_context.sections()) {
        auto job = std::make_unique<FlashJob>(m_context.session(section, m_image.absolutePath()),
                                              static_cast<qint64>(options.timeoutMs) * kNsPerMs,
                                              options.dryRun);
        job->open();
        m_jobs.push_back(std::move(job));
    }
}

bool FlashCommand::pollJobs()
{
    bool running = false;
    for (auto& job : m_jobs) {
        if (!job->isRunning()) {
            continue;
        }
        showProgress(*job);
        job->poll(MonotonicClock::nowNs());
        if (job->isRunning()) {
            running = true;
        } else {
            finish(*job);
        }
    }
    return running;
}

void FlashCommand::showProgress(FlashJob& job)
{
    const SectionSession& s = job.session();
    if (!s.hasProgress()) {
        return;
    }
    FlashPrinter::Progress progress;
    progress.pass = s.updatePasses();
    progress.percent = s.percent();
    progress.blocks = s.blocksSent();
    // At least a millisecond: a small image may pass within one.
    progress.elapsedMs =
        qMax<qint64>(1, (MonotonicClock::nowNs() - s.transferStartNs()) / kNsPerMs);
    m_printer.progress(s.index(), s.device(), progress);
}

void FlashCommand::interruptJobs()
{
    for (auto& job : m_jobs) {
        job->interrupt();
    }
    ToolContext::waitUntil([] { return false; }, kResetDrainMs);
    for (auto& job : m_jobs) {
        if (job->isRunning()) {
            job->endInterrupted();
            finish(*job);
        }
    }
}

void FlashCommand::finish(FlashJob& job)
{
    showProgress(job);
    job.close();
    report(job);
    ExitCode::keepFirst(m_code, job.exitCode());
    m_printer.finished(job.session().index());
}

void FlashCommand::report(FlashJob& job)
{
    SectionSession& s = job.session();
    const uint8_t index = s.index();
    const int exit = job.exitCode();
    switch (job.outcome()) {
        case FlashJob::Outcome::Running:
            break;
        case FlashJob::Outcome::Done: {
            m_printer.done(index, s.version());
            const int expected = m_context.options().expectVersion;
            if (expected >= 0 && s.version() != expected) {
                m_printer.wrongVersion(index, s.version(), expected, ExitCode::WrongVersion);
                ExitCode::keepFirst(m_code, ExitCode::WrongVersion);
            }
            break;
        }
        case FlashJob::Outcome::Ready:
            m_printer.ready(index, s.device());
            break;
        case FlashJob::Outcome::Failed:
            m_printer.updaterFailed(index, s.failureDetail(), exit);
            break;
        case FlashJob::Outcome::Application:
            m_printer.notInBootloader(index, exit);
            break;
        case FlashJob::Outcome::Silent:
            m_printer.noAnswer(index, exit);
            break;
        case FlashJob::Outcome::StaysInBootloader:
            m_printer.stillInBootloader(index, FlashJob::kMaxUpdatePasses, exit);
            break;
        case FlashJob::Outcome::Interrupted:
            m_printer.interrupted(index, job.resetSent(), exit);
            break;
        case FlashJob::Outcome::PortError:
            m_printer.portError(index, s.portError(), exit);
            break;
    }
}
