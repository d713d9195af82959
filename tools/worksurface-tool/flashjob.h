#pragma once

#include <QtGlobal>
#include <memory>

class SectionSession;

// One section's flash, from its opened line to its outcome. The updater does the work (its
// probe, the transfer, the reset, its own second transfer for a section still in its
// bootloader); the job watches it, one look at a time, and decides how the section ends:
//
//   1. An updater failure ends it once the updater's reset has had its time on the line.
//   2. A section that answers the probe from its application is not flashed.
//   3. After the second transfer the updater only looks: a section still in its
//      bootloader is left there (with --dry-run, one found there is ready to be written).
//   4. A section back in its application after the reset is done once its ping answer
//      gives the new version.
//   5. A section that owes an answer and sends nothing for the time-out is silent.
class FlashJob
{
public:
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

    // How many times the updater writes the image into a section that stays in its
    // bootloader after the reset (its own retry), before the job gives up on the section.
    static constexpr int kMaxUpdatePasses = 2;

    FlashJob(std::unique_ptr<SectionSession> session, qint64 timeoutNs, bool dryRun);
    ~FlashJob();

    SectionSession& session() { return *m_session; }
    Outcome outcome() const { return m_outcome; }
    bool isRunning() const { return m_outcome == Outcome::Running; }
    // Ctrl-C found the section being written and told it to reset.
    bool resetSent() const { return m_resetSent; }

    // Opens the line and starts the updater's probe; a port that does not open ends the
    // job at once.
    void open();
    // One look at the running section; sets the outcome once it has one.
    void poll(qint64 nowNs);
    // Ctrl-C: a section being written is told to reset; the job ends interrupted.
    void interrupt();
    // Ctrl-C: the reset has had its time on the line.
    void endInterrupted();
    void close();
    // The tool's exit code for the outcome: Success for Done and Ready.
    int exitCode() const;

private:
    void awaitResetAfterFailure(qint64 nowNs);
    void awaitVersion(qint64 nowNs);
    bool runsItsApplication() const;
    bool isBackInItsApplication() const;
    // The section owes an answer (the updater is not waiting itself, nor watching an
    // update with its own time-out) and has sent nothing for the time-out.
    bool isIdleTooLong(qint64 nowNs) const;

    std::unique_ptr<SectionSession> m_session;
    const qint64 m_timeoutNs;
    const bool m_dryRun;
    Outcome m_outcome = Outcome::Running;
    // Waiting for the reset after a failure to be heard, or for the version after the
    // update; 0 while not.
    qint64 m_failedAtNs = 0;
    qint64 m_versionDeadlineNs = 0;
    bool m_resetSent = false;
};
