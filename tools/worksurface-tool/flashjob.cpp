#include "flashjob.h"

#include "exitcode.h"
#include "sectionsession.h"
#include "serial/isectionconnection.h"
#include "updater/isectionupdaterlistener.h"
#include "updater/sectionupdater.h"

using namespace Velmora::Worksurface;

FlashJob::FlashJob(std::unique_ptr<SectionSession> session, qint64 timeoutNs, bool dryRun)
    : m_session(std::move(session)), m_timeoutNs(timeoutNs), m_dryRun(dryRun)
{}

FlashJob::~FlashJob() = default;

void FlashJob::open()
{
    // A dry run's updater only probes: a section in its bootloader is left there.
    if (!m_session->open(m_dryRun)) {
        m_outcome = Outcome::PortError;
    }
}

void FlashJob::poll(qint64 nowNs)
{
    SectionSession& s = *m_session;
    const bool idleTooLong = isIdleTooLong(nowNs);
    if (!s.failures().empty()) {
        awaitResetAfterFailure(nowNs);
        return;
    }
    if (m_versionDeadlineNs != 0) {
        awaitVersion(nowNs);
        return;
    }
    if (runsItsApplication()) {
        m_outcome = Outcome::Application;
        return;
    }
    if (s.updatePasses() >= kMaxUpdatePasses && s.updaterHasPendingAutoUpdate()) {
        // The last transfer is through and the section reset: the updater's next probe
        // only looks, so a section still in its bootloader is not written a third time.
        s.setProbeOnly(true);
    }
    if (s.updaterState() == SectionUpdater::InBootloader) {
        m_outcome = m_dryRun && s.updatePasses() == 0 ? Outcome::Ready : Outcome::StaysInBootloader;
        return;
    }
    if (isBackInItsApplication()) {
        // The link pings; the answer has the version.
        m_versionDeadlineNs = nowNs + m_timeoutNs;
        awaitVersion(nowNs);
        return;
    }
    if (idleTooLong) {
        m_outcome = Outcome::Silent;
    }
}

void FlashJob::awaitResetAfterFailure(qint64 nowNs)
{
    // The updater resets the section after a failure: let that be heard before the port
    // closes. No reset follows a bootloader that stopped answering: nothing to wait for.
    if (m_failedAtNs == 0) {
        m_failedAtNs = nowNs;
    }
    const SectionSession& s = *m_session;
    if (s.failureDetail().reason == ISectionUpdaterListener::StoppedAnswering ||
        s.updaterHasPendingAutoUpdate() || nowNs - m_failedAtNs > m_timeoutNs) {
        m_outcome = Outcome::Failed;
    }
}

void FlashJob::awaitVersion(qint64 nowNs)
{
    if (m_session->hasVersion()) {
        m_outcome = Outcome::Done;
    } else if (nowNs > m_versionDeadlineNs) {
        m_outcome = Outcome::Silent;
    }
}

bool FlashJob::runsItsApplication() const
{
    // The link came up before any transfer: the probe found the application.
    return m_session->updatePasses() == 0 &&
           m_session->linkState() == ISectionConnection::Connected;
}

bool FlashJob::isBackInItsApplication() const
{
    return m_session->updatePasses() > 0 &&
           m_session->linkState() == ISectionConnection::Connected &&
           m_session->updaterState() == SectionUpdater::Idle;
}

bool FlashJob::isIdleTooLong(qint64 nowNs) const
{
    // The second between the acknowledged reset and the updater's next probe is the
    // updater's own wait; a running update is watched by the updater's own time-out, which
    // knows the block.
    const SectionSession& s = *m_session;
    return !s.updaterHasPendingAutoUpdate() && !s.updaterInUpdateExchange() &&
           nowNs - s.lastActivityNs() > m_timeoutNs;
}

void FlashJob::interrupt()
{
    // No section is left mid-transfer in its bootloader where a reset can take it out.
    if (isRunning()) {
        m_resetSent = m_session->abortUpdate();
    }
}

void FlashJob::endInterrupted()
{
    if (isRunning()) {
        m_outcome = Outcome::Interrupted;
    }
}

void FlashJob::close()
{
    m_session->close();
}

int FlashJob::exitCode() const
{
    switch (m_outcome) {
        case Outcome::Running:
        case Outcome::Done:
        case Outcome::Ready:
            return ExitCode::Success;
        case Outcome::Failed:
            switch (m_session->failureDetail().reason) {
                case ISectionUpdaterListener::ResendsExhausted:
                    return ExitCode::ResendsExhausted;
                case ISectionUpdaterListener::BootloaderErrorStatus:
                    return ExitCode::BootloaderError;
                case ISectionUpdaterListener::StoppedAnswering:
                    return ExitCode::StoppedAnswering;
                default:
                    return ExitCode::FileError;
            }
        case Outcome::Application:
            return ExitCode::NotInBootloader;
        case Outcome::Silent:
            return ExitCode::NoAnswer;
        case Outcome::StaysInBootloader:
            return ExitCode::StillInBootloader;
        case Outcome::Interrupted:
            return ExitCode::Interrupted;
        case Outcome::PortError:
            return ExitCode::PortError;
    }
    return ExitCode::Success;
}
