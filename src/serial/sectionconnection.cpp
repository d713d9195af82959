#include "serial/sectionconnection.h"

#include <QString>
#include <utility>

#include "base/isettings.h"
#include "base/logcategories.h"
#include "base/logger.h"
#include "serial/isectionstatelistener.h"
#include "serial/iserialconnection.h"
#include "serial/iserialmessagehandler.h"
#include "serial/iserialmessagequeue.h"
#include "tasks/itaskpool.h"
#include "tasks/monotonicclock.h"
#include "updater/bootloaderpacket.h"
#include "updater/isectionupdater.h"

namespace Velmora::Worksurface {

namespace {

QString number(uint8_t value)
{
    return QString::number(static_cast<unsigned>(value));
}

}  // namespace

SectionConnection::SectionConnection(uint8_t sectionIndex,
                                     std::shared_ptr<ISerialMessageHandler> rootHandler,
                                     std::shared_ptr<ISerialMessageQueue> queue,
                                     std::shared_ptr<ISerialConnection> connection,
                                     std::shared_ptr<ITaskPool> taskPool,
                                     std::unique_ptr<ISectionUpdater> updater,
                                     std::shared_ptr<Logger> logger, int traceCapacity)
    : m_sectionIndex(sectionIndex),
      m_rootHandler(std::move(rootHandler)),
      m_queue(std::move(queue)),
      m_connection(std::move(connection)),
      m_updater(std::move(updater)),
      m_logger(logger ? logger->inCategory(lcLink()) : nullptr),
      m_taskPool(std::move(taskPool)),
      m_recorder(std::make_shared<FlightRecorder>(traceCapacity))
{}

SectionConnection::~SectionConnection() = default;

uint8_t SectionConnection::sectionIndex() const
{
    return m_sectionIndex;
}

uint8_t SectionConnection::state() const
{
    return m_state.load();
}

int64_t SectionConnection::msSince(int64_t nowNs, int64_t thenNs)
{
    // Truncated towards zero; "then" may lie in the future while the grace period runs.
    return (nowNs - thenNs) / kNsPerMs;
}

bool SectionConnection::setStateLocked(uint8_t state)
{
    if (state == m_state.load()) {
        return false;
    }
    if (state == Connected) {
        // A section that has just come up (or back) gets a grace period: the silence checks
        // count from 10 s from now, so a section busy starting up is not declared dead.
        m_lastReceiveNs = MonotonicClock::nowNs() + kGracePeriodMs * kNsPerMs;
    }
    m_state.store(state);
    m_recorder->recordEvent(MonotonicClock::nowNs(), FlightRecorder::Event::State, state);
    // Told once the mutex is released (tellListener), in the order the changes happened.
    m_pendingStates.push_back(state);
    return true;
}

void SectionConnection::setState(uint8_t state)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        setStateLocked(state);
    }
    tellListener();
}

void SectionConnection::tellListener()
{
    // One change at a time, each taken out under the mutex and told without it: a listener
    // that changes the state again from inside sectionStateChanged (calibrate from a QML
    // handler) is told of that change from its own call, after the one it is handling, so
    // the listener sees every change in the order it happened and no lock is held meanwhile.
    for (;;) {
        uint8_t state = 0;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_pendingStates.empty()) {
                return;
            }
            state = m_pendingStates.front();
            m_pendingStates.pop_front();
        }
        if (m_stateListener) {
            m_stateListener->sectionStateChanged(m_sectionIndex, state);
        }
        if (state == Connected) {
            m_traceSaved = false;
        } else if (state == SerialError || state == NoResponse) {
            failureForTrace();
        }
    }
}

QString SectionConnection::portName() const
{
    return m_connection->portName();
}

void SectionConnection::setTraceHandler(std::function<void()> handler)
{
    m_traceHandler = std::move(handler);
}

void SectionConnection::failureForTrace()
{
    if (m_traceSaved || !m_traceHandler) {
        return;
    }
    m_traceSaved = true;
    m_traceHandler();
}

void SectionConnection::recordSent(const SerialMessage& message)
{
    if (m_recorder->capacity() > 0) {
        m_recorder->record(MonotonicClock::nowNs(), FlightRecorder::Kind::FrameOut,
                           encode(message));
    }
}

void SectionConnection::sendDirect(const SerialMessage& message)
{
    recordSent(message);
    m_connection->sendMessage(message);
    m_connection->flush();
}

void SectionConnection::open()
{
    // Throws std::bad_weak_ptr before anything changes when this object is not held by a
    // shared_ptr: the pool could never reach it.
    const std::shared_ptr<ITask> self = shared_from_this();
    TARVIX_ASSERT_THREAD(m_affinity);

    // No lock is held while the line, the updater, the listener or the task pool is called:
    // each of them may call back into this link (the software line answers at once, a QML
    // handler may calibrate), and the pool's lock is taken before ours while a pass runs.
    if (m_connection->isOpen()) {
        return;
    }
    // Half a frame from before a restart must not be glued to the first bytes after it.
    clear();
    m_connection->open();
    m_recorder->recordEvent(MonotonicClock::nowNs(), FlightRecorder::Event::PortOpen,
                            m_connection->isOpen() ? 1 : 0, m_connection->portName(),
                            m_connection->portError());
    const uint64_t opening = ++m_opens;
    m_updateCutOff = false;
    // The listener hears of Connecting before the updater starts, and without the link's
    // mutex held, so that it may call back into the link.
    setState(Connecting);
    // The listener may close the link from that report (or close and open it again, which
    // started its own updater and task): what it did stands, and this open is over.
    if (m_opens != opening || m_state.load() != Connecting) {
        return;
    }
    // The updater probes the section's bootloader first; its answer (or the section's
    // first message) moves the link out of Connecting.
    m_updater->start(this);
    // The handle is deliberately not kept: the task lives as long as this object.
    m_taskPool->schedulePeriodic(kTaskIntervalMs, self);
}

void SectionConnection::close()
{
    TARVIX_ASSERT_THREAD(m_affinity);
    if (m_connection->isOpen()) {
        m_connection->close();
    }
    setState(Closed);
}

void SectionConnection::startCalibration()
{
    TARVIX_ASSERT_THREAD(m_affinity);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state.load() != Connected || !setStateLocked(Calibrating)) {
            return;
        }
    }
    m_recorder->recordEvent(MonotonicClock::nowNs(), FlightRecorder::Event::CalibrationStart);
    // The listener hears of Calibrating before the section is told, and without the link's
    // mutex held, so that it may call back into the link.
    tellListener();
    // Straight to the line: the queue is not drained while calibrating.
    sendDirect(SerialMessage(MessageType::Calibration, 0));
}

void SectionConnection::stopCalibration()
{
    // The section reports the end of calibration itself; nothing to send. Taking the lock
    // only waits for a state change in progress to finish.
    std::lock_guard<std::mutex> lock(m_mutex);
}

void SectionConnection::enqueueMessage(const SerialMessage& message)
{
    m_queue->enqueue(message);
}

void SectionConnection::setStateListener(ISectionStateListener* listener)
{
    m_stateListener = listener;
}

void SectionConnection::dataReceived(const QByteArray& data)
{
    TARVIX_ASSERT_THREAD(m_affinity);
    // Any bytes at all, even garbage, show that the section is alive.
    const int64_t now = MonotonicClock::nowNs();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lastReceiveNs = now;
    }
    m_receivedNs = now;
    if (m_updater->isActive()) {
        m_recorder->record(now, FlightRecorder::Kind::BootloaderIn, data);
        m_updater->dataReceived(data);
        return;
    }
    parse(data);
}

void SectionConnection::bytesJudged(Verdict verdict, const char* bytes, int size)
{
    FlightRecorder::Kind kind = FlightRecorder::Kind::FrameIn;
    if (verdict == Verdict::BadChecksum) {
        kind = FlightRecorder::Kind::BadChecksum;
    } else if (verdict == Verdict::Noise) {
        kind = FlightRecorder::Kind::Noise;
    }
    // Every frame of a chunk carries the chunk's arrival time: no clock read per frame.
    m_recorder->record(m_receivedNs, kind, bytes, size);
}

void SectionConnection::messageReceived(const SerialMessage& message)
{
    if (m_rootHandler->handleMessage(message)) {
        // A component understood the section: the link is up, whatever it was doing (this
        // also ends calibration, an update or a serial error from the link's point of view).
        setState(Connected);
        return;
    }
    handleLinkMessage(message);
}

void SectionConnection::handleLinkMessage(const SerialMessage& message)
{
    const QString section = number(m_sectionIndex);
    switch (message.type) {
        case MessageType::SerialError:
            m_logger->critical(
                QStringLiteral("Received serial error from the section %1.").arg(section));
            // The section's receiver is out of step: flush it with a run of zero bytes, then
            // give it a second before traffic resumes.
            sendDirect(SerialMessage::makeZeroFill());
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                setStateLocked(SerialError);
                m_errorRetryNs = MonotonicClock::nowNs() + kSerialErrorRetryMs * kNsPerMs;
            }
            tellListener();
            m_rootHandler->setLinkReady(false);
            return;
        case MessageType::Calibration:
            m_logger->info(QStringLiteral("Calibration of section %1 done.").arg(section));
            m_recorder->recordEvent(MonotonicClock::nowNs(), FlightRecorder::Event::CalibrationEnd);
            setState(Connected);
            m_rootHandler->setLinkReady(true);
            return;
        case MessageType::Bootloader:
            m_logger->critical(QStringLiteral("Received bootloader from the section %1 but the "
                                              "section is not in bootloader mode.")
                                   .arg(section));
            // Also reported as unhandled below: the section should not be sending this.
            break;
        case MessageType::Echo:
            m_logger->info(QStringLiteral("Echo from section %1").arg(section));
            // Also reported as unhandled below: nothing consumes echoes.
            break;
        default:
            break;
    }
    m_logger->critical(QStringLiteral("Unable to handle unkown message from section %1. Device "
                                      "id: %2 message type: %3")
                           .arg(section, number(message.deviceId), number(message.type)));
}

void SectionConnection::badDataReceived(const QByteArray& data)
{
    if (data.size() > kBadDataReportThreshold) {
        // Tell the section that its bytes arrive mangled.
        sendDirect(SerialMessage(MessageType::SerialError, 0));
    }
    m_logger->warning(QStringLiteral("Section %1 received bad data: '%2'")
                          .arg(number(m_sectionIndex), QString::fromLatin1(data.toHex())));
}

void SectionConnection::run()
{
    TARVIX_ASSERT_THREAD(m_affinity);
    const int64_t now = MonotonicClock::nowNs();
    superviseReconnect(now);

    // Keep-alive: only once the section has answered (or while we wait for it to answer
    // again); a section still starting up or in its bootloader is left alone.
    const uint8_t current = m_state.load();
    bool ping = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (msSince(now, m_lastPingNs) > kPingIntervalMs &&
            (current == Connected || current == NoResponse)) {
            m_lastPingNs = now;
            ping = true;
        }
    }
    // The line is driven without the mutex: the software line answers from inside the
    // flush, and the answer comes back through dataReceived.
    if (ping) {
        sendDirect(SerialMessage(MessageType::Ping, 0));
    }

    if (m_state.load() == SerialError) {
        bool retry = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            retry = m_errorRetryNs < now;
        }
        if (retry) {
            setState(Connected);
        }
        return;
    }

    if (m_state.load() == Connected) {
        bool silent = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            silent = msSince(now, m_lastReceiveNs) > kNoResponseMs;
        }
        if (silent) {
            m_logger->warning(QStringLiteral("Section %1 has not received response in "
                                             "timely manner. Setting state to NoResponse.")
                                  .arg(number(m_sectionIndex)));
            setState(NoResponse);
            return;
        }
        // A bounded burst per pass keeps one busy section from hogging the model thread;
        // whatever is left goes out on the next pass. The queue has its own lock.
        for (int i = 0; i < kMaxMessagesPerPass; ++i) {
            if (m_queue->hasNoDueMessage()) {
                break;
            }
            const SerialMessage message = m_queue->takeNextMessage();
            if (message.isValid()) {
                recordSent(message);
                m_connection->sendMessage(message);
            }
        }
        m_connection->flush();
        if (m_stateListener) {
            m_stateListener->sentMessageCount(m_connection->messageCount());
        }
        return;
    }

    bool restart = false;
    if (m_state.load() == NoResponse) {
        std::lock_guard<std::mutex> lock(m_mutex);
        restart = msSince(now, m_lastReceiveNs) > kRestartMs;
    }
    if (restart) {
        m_logger->warning(QStringLiteral("Section %1 has not received response in long time. "
                                         "Restart the connection...")
                              .arg(number(m_sectionIndex)));
        m_recorder->recordEvent(now, FlightRecorder::Event::Restart);
        close();
        open();
    }
}

void SectionConnection::updaterStateChanged()
{
    trackUpdateResult();
    if (m_updater->isUpdating()) {
        setState(Updating);
    } else if (m_updater->isActive()) {
        setState(Connecting);
    } else {
        // The section is not (or no longer) in its bootloader: it runs its application.
        setState(Connected);
    }
}

void SectionConnection::updateProgress(uint8_t percent)
{
    // Every 10 %, not every packet's step.
    const int tenth = percent / 10;
    if (tenth > m_tracedProgress) {
        m_tracedProgress = tenth;
        m_recorder->recordEvent(MonotonicClock::nowNs(), FlightRecorder::Event::UpdateProgress,
                                percent);
    }
    if (m_stateListener) {
        m_stateListener->sectionUpdateProgress(m_sectionIndex, percent);
    }
}

void SectionConnection::sendBootloaderPacket(const BootloaderPacket& packet)
{
    if (m_recorder->capacity() > 0) {
        m_recorder->record(MonotonicClock::nowNs(), FlightRecorder::Kind::BootloaderOut,
                           encodeBootloaderPacket(packet));
    }
    m_connection->writeRaw(packet);
}

void SectionConnection::failed(int reason)
{
    // The updater has already reset the section and logged why; the link recovers through
    // the usual state machine. QML learns why.
    m_updateFailed = true;
    if (reason == StoppedAnswering) {
        // The section still sits in its bootloader with part of the image: the link probes
        // it again (superviseReconnect), which runs the update again.
        m_updateCutOff = true;
    }
    m_recorder->recordEvent(MonotonicClock::nowNs(), FlightRecorder::Event::UpdateFailed, reason);
    if (m_stateListener) {
        m_stateListener->sectionUpdateResult(m_sectionIndex, reason);
    }
    failureForTrace();
}

void SectionConnection::trackUpdateResult()
{
    const bool updating = m_updater->isUpdating();
    if (updating && !m_updateRunning) {
        m_updateRunning = true;
        m_updateFailed = false;
        m_tracedProgress = -1;
        m_recorder->recordEvent(MonotonicClock::nowNs(), FlightRecorder::Event::UpdateStart);
    } else if (!updating && m_updateRunning) {
        m_updateRunning = false;
        if (!m_updateFailed) {
            m_recorder->recordEvent(MonotonicClock::nowNs(), FlightRecorder::Event::UpdateEnd);
        }
        if (!m_updateFailed && m_stateListener) {
            m_stateListener->sectionUpdateResult(m_sectionIndex, -1);
        }
    }
}

void SectionConnection::setReconnectSettings(std::shared_ptr<const ISettings> settings)
{
    m_reconnectSettings = std::move(settings);
}

void SectionConnection::reportPort()
{
    const QString name = m_connection->portName();
    const QString error = m_connection->portError();
    if (m_portReported && name == m_reportedPortName && error == m_reportedPortError) {
        return;
    }
    m_portReported = true;
    m_reportedPortName = name;
    m_reportedPortError = error;
    if (!error.isEmpty()) {
        m_recorder->recordEvent(MonotonicClock::nowNs(), FlightRecorder::Event::PortError, 0, name,
                                error);
    }
    if (m_stateListener) {
        m_stateListener->sectionPortChanged(m_sectionIndex, name, error);
    }
    if (!error.isEmpty()) {
        // The device went away (or would not open): the link has failed.
        failureForTrace();
    }
}

void SectionConnection::superviseReconnect(int64_t nowNs)
{
    reportPort();
    const uint8_t state = m_state.load();
    if (state == Connecting && m_supervisedState != Connecting) {
        m_attemptNs = nowNs;
    }
    m_supervisedState = state;

    const int intervalMs = m_reconnectSettings ? m_reconnectSettings->reconnectInterval() : 0;
    if (intervalMs > 0 && state != Closed && !m_connection->isOpen()) {
        // The line went away: an update waiting for its bootloader is over at once.
        m_updater->lineLost();
    }
    if (intervalMs <= 0) {
        m_outage = false;
        if (m_updateCutOff) {
            // Nothing brings this link back by itself but a new start-up exchange, so it
            // starts one now: it finds the section in its bootloader and updates it again.
            reopenLink(nowNs);
        }
        return;
    }
    const QString section = number(m_sectionIndex);
    if (m_outage && state == Connected) {
        m_outage = false;
        m_logger->info(QStringLiteral("Section %1 is back after %2 s")
                           .arg(section)
                           .arg((nowNs - m_outageStartNs) / (1000 * kNsPerMs)));
        return;
    }
    // An application that closed the link wants it closed; an update owns the line.
    if (state == Closed || state == Updating || m_updater->isUpdating()) {
        return;
    }

    const bool portDown = !m_connection->isOpen();
    // An updater busy with a bootloader that answered (an update, the reset at its end, the
    // second it waits before asking again) holds the link in Connecting: the link waits for
    // it and is not stalled, and the interval counts from the end of that exchange. Only an
    // unanswered start-up probe, which a section still booting may not have heard, or a
    // line that has gone, is worth another attempt.
    // An update that stopped answering waits for nothing any more.
    const bool updaterBusy =
        !portDown && m_updater->isActive() && !m_updater->isProbing() && !m_updateCutOff;
    if (updaterBusy) {
        m_attemptNs = nowNs;
    }
    const bool stalled =
        state == Connecting && !updaterBusy && msSince(nowNs, m_attemptNs) >= intervalMs;
    if (!m_outage && (portDown || stalled)) {
        m_outage = true;
        m_outageStartNs = portDown ? nowNs : m_attemptNs;
        const QString port = m_connection->portName();
        QString what = m_connection->portError();
        if (what.isEmpty()) {
            what = port.isEmpty() ? QStringLiteral("no answer")
                                  : QStringLiteral("no answer on %1").arg(port);
        }
        m_logger->warning(QStringLiteral("Section %1 link is down (%2). Retrying every %3 ms.")
                              .arg(section, what)
                              .arg(intervalMs));
    }
    if (portDown && state != Connecting) {
        // The device went away under a running link: it is reconnecting from now on, the
        // first attempt one interval later.
        m_attemptNs = nowNs;
        m_supervisedState = Connecting;
        setState(Connecting);
        return;
    }
    if (stalled) {
        reopenLink(nowNs);
    }
}

void SectionConnection::reopenLink(int64_t nowNs)
{
    ++m_reconnectAttempts;
    m_updateCutOff = false;
    m_recorder->recordEvent(nowNs, FlightRecorder::Event::Reconnect);
    m_attemptNs = nowNs;
    // Without the mutex, like every other call out of the link: opening a serial port reports
    // its errors synchronously (into the line's error handler and the application's message
    // handler) and may wait for the device's lock file, and stopCalibration() from another
    // thread must not wait for that.
    if (m_connection->isOpen()) {
        m_connection->close();
    }
    clear();
    m_connection->reopen();
    m_recorder->recordEvent(MonotonicClock::nowNs(), FlightRecorder::Event::PortOpen,
                            m_connection->isOpen() ? 1 : 0, m_connection->portName(),
                            m_connection->portError());
    reportPort();
    // Probes the section's bootloader again; its answer, or the section's first message,
    // brings the link up as after open().
    m_updater->start(this);
}

}  // namespace Velmora::Worksurface
