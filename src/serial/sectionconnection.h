#pragma once

#include <QByteArray>
#include <QString>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "serial/flightrecorder.h"
#include "serial/isectionconnection.h"
#include "serial/iserialdatareceiver.h"
#include "serial/serialmessageparser.h"
#include "tasks/itask.h"
#include "tasks/threadaffinity.h"
#include "updater/isectionupdaterlistener.h"

namespace Velmora::Worksurface {

class ISectionStateListener;
class ISectionUpdater;
class ISettings;
class ISerialConnection;
class ISerialMessageHandler;
class ISerialMessageQueue;
class ITaskPool;
class Logger;

// Supervises one section's serial link and dispatches what the section sends.
//
// Received bytes are parsed here and each frame is offered to the section's root handler
// (its components); the few messages no component takes concern the link itself (serial
// error, calibration done, bootloader report, echo). A 50 ms task on the task pool pings
// the section every 2 s, drains the outgoing queue while the section answers, and walks
// the link's state machine: a section silent for 10 s (counted from 10 s after it came up)
// is marked NoResponse, one silent for 20 s is restarted. While a firmware update runs,
// received bytes go to the updater instead of the parser.
//
// Reconnecting: with settings whose reconnectInterval() is above 0, the task also brings
// the link back by itself. A port that failed to open, or closed because its device went
// away, is opened again every interval until it opens; a link that has stayed Connecting
// for an interval (the section missed the bootloader probe, e.g. it was still booting) is
// restarted, probing again, every interval. Such a restart reuses the running task: it
// schedules nothing. Nothing is retried while an update runs, and the log gets one warning
// when the outage begins and one line when the section is back, not a line per attempt.
//
// An update cut off halfway: a line that goes away during an update (with reconnecting on)
// ends it at once, and an updater with a time-out ends one whose bootloader fell silent;
// either way the update fails with StoppedAnswering, and the link probes the section again
// (at the next reconnection attempt, or at once when it does not reconnect by itself), which
// finds it in its bootloader and runs the whole update again.
//
// Always held by a shared_ptr: open() hands the task pool a weak reference to this object.
//
// Threads: QML-thread-only, like the rest of the surface (docs/threads.md), checked in debug
// builds; only state(), enqueueMessage() and stopCalibration() may be called from anywhere.
// The mutex guards the link's own fields (the state transition, the time stamps, the
// changes still to be told) and is never held while anything else is called: the serial
// line, the updater, the task pool, the root handler, the logger or the state listener.
// So a listener may call straight back into open(), close(), startCalibration() or
// stopCalibration() from sectionStateChanged (a QML handler on isCalibratingChanged that
// calibrates), and the one lock order is the task pool's before the link's (a pass runs
// under the pool's lock). The listener hears of every change synchronously, in order.
//
// Flight recorder: every frame in both directions (with the parser's verdict), every
// bootloader packet and the link's events go into the link's FlightRecorder, written only
// from the link's thread. When the link fails (SerialError, NoResponse, a port error, a
// failed update) the trace handler, if any, is called once per outage, so the owner can
// save the ring; the link must be Connected again before it is called again.
class SectionConnection : public SerialMessageParser,
                          public ISectionConnection,
                          public ISerialDataReceiver,
                          public ISectionUpdaterListener,
                          public ITask,
                          public std::enable_shared_from_this<SectionConnection>
{
public:
    // Link time-outs and paces, in milliseconds.
    static constexpr int64_t kTaskIntervalMs = 50;
    static constexpr int64_t kPingIntervalMs = 2000;
    static constexpr int64_t kGracePeriodMs = 10000;
    static constexpr int64_t kNoResponseMs = 10000;
    static constexpr int64_t kRestartMs = 20000;
    static constexpr int64_t kSerialErrorRetryMs = 1000;
    static constexpr int kMaxMessagesPerPass = 20;
    // More discarded bytes than this in one chunk make us tell the section about it.
    static constexpr int kBadDataReportThreshold = 10;

    SectionConnection(uint8_t sectionIndex, std::shared_ptr<ISerialMessageHandler> rootHandler,
                      std::shared_ptr<ISerialMessageQueue> queue,
                      std::shared_ptr<ISerialConnection> connection,
                      std::shared_ptr<ITaskPool> taskPool, std::unique_ptr<ISectionUpdater> updater,
                      std::shared_ptr<Logger> logger,
                      int traceCapacity = FlightRecorder::kDefaultCapacity);
    ~SectionConnection() override;

    SectionConnection(const SectionConnection&) = delete;
    SectionConnection& operator=(const SectionConnection&) = delete;

    // ISectionConnection
    uint8_t sectionIndex() const override;
    uint8_t state() const override;
    // Opens the line, starts the updater's start-up exchange and schedules a further 50 ms
    // supervision task. Nothing happens when the line is already open. The task's handle is
    // not kept: each open that gets this far adds one more task for this object, which
    // lives as long as the object does (so a connection restarted n times runs n + 1
    // supervision passes per tick).
    void open() override;
    void close() override;
    // Only from Connected: enters Calibrating and tells the section to calibrate at once,
    // bypassing the queue.
    void startCalibration() override;
    // The section ends calibration by itself; this only synchronises with the link.
    void stopCalibration() override;
    void enqueueMessage(const SerialMessage& message) override;
    void setStateListener(ISectionStateListener* listener) override;

    // Where the task reads the reconnect interval, on every pass (so a change applies to a
    // running link at once). Without settings the link does not reconnect by itself.
    void setReconnectSettings(std::shared_ptr<const ISettings> settings);
    // Never null; its capacity may be 0.
    std::shared_ptr<FlightRecorder> recorder() const override { return m_recorder; }
    // The thread the link was made on and runs on: the QML thread, or the surface thread
    // when the links have it to themselves.
    const QThread* thread() const { return m_affinity.thread(); }
    QString portName() const override;
    // Called on the link's thread, without any lock held, when the link fails: the first
    // SerialError or NoResponse, port error or failed update of an outage.
    void setTraceHandler(std::function<void()> handler);

    // Reconnection attempts made so far (diagnostics and tests).
    uint64_t reconnectAttempts() const { return m_reconnectAttempts; }

    // ISerialDataReceiver
    void dataReceived(const QByteArray& data) override;

    // ISectionUpdaterListener
    void updaterStateChanged() override;
    void updateProgress(uint8_t percent) override;
    void sendBootloaderPacket(const BootloaderPacket& packet) override;
    void failed(int reason) override;

    // ITask: one supervision pass.
    void run() override;

protected:
    // SerialMessageParser
    void messageReceived(const SerialMessage& message) override;
    void badDataReceived(const QByteArray& data) override;
    void bytesJudged(Verdict verdict, const char* bytes, int size) override;

private:
    // Records a change of state, to be told by tellListener(); returns whether it changed.
    // Called with the mutex held.
    bool setStateLocked(uint8_t state);
    // setStateLocked() under the mutex, then tellListener().
    void setState(uint8_t state);
    // Tells the listener of the recorded changes, oldest first. Called without the mutex.
    void tellListener();
    void handleLinkMessage(const SerialMessage& message);
    void sendDirect(const SerialMessage& message);
    static int64_t msSince(int64_t nowNs, int64_t thenNs);
    // Tells the listener when the connection's device or its error changed.
    void reportPort();
    // One pass of the reconnection supervision (see the class comment).
    void superviseReconnect(int64_t nowNs);
    // Closes the line if it is open and opens it again with a new bootloader probe, staying
    // Connecting; schedules nothing.
    void reopenLink(int64_t nowNs);
    // Notes the start and the end of a firmware update, telling the listener of a success.
    void trackUpdateResult();
    // Records a frame written to the line.
    void recordSent(const SerialMessage& message);
    // Calls the trace handler unless it was called since the link was last Connected.
    void failureForTrace();

    const uint8_t m_sectionIndex;
    const ThreadAffinity m_affinity;
    std::mutex m_mutex;
    const std::shared_ptr<ISerialMessageHandler> m_rootHandler;
    const std::shared_ptr<ISerialMessageQueue> m_queue;
    const std::shared_ptr<ISerialConnection> m_connection;
    const std::unique_ptr<ISectionUpdater> m_updater;
    const std::shared_ptr<Logger> m_logger;
    const std::shared_ptr<ITaskPool> m_taskPool;
    // Under the mutex.
    int64_t m_errorRetryNs = 0;
    ISectionStateListener* m_stateListener = nullptr;
    // Atomic so that state() needs no lock; changed under the mutex.
    std::atomic<uint8_t> m_state{Closed};
    // Under the mutex.
    int64_t m_lastPingNs = 0;
    int64_t m_lastReceiveNs = 0;

    // Reconnection, all on the model thread.
    std::shared_ptr<const ISettings> m_reconnectSettings;
    uint8_t m_supervisedState = Closed;  // the state the previous pass saw
    int64_t m_attemptNs = 0;             // entered Connecting, or the last attempt
    bool m_outage = false;
    int64_t m_outageStartNs = 0;
    uint64_t m_reconnectAttempts = 0;
    bool m_portReported = false;
    QString m_reportedPortName;
    QString m_reportedPortError;
    uint64_t m_opens = 0;  // opens that got past the open line check
    bool m_updateRunning = false;
    bool m_updateFailed = false;
    // The update failed because its bootloader stopped answering: the link starts over.
    bool m_updateCutOff = false;
    std::deque<uint8_t> m_pendingStates;

    // Flight recorder, all on the link's thread.
    const std::shared_ptr<FlightRecorder> m_recorder;
    std::function<void()> m_traceHandler;
    int64_t m_receivedNs = 0;   // when the chunk being parsed arrived
    bool m_traceSaved = false;  // the handler was called in this outage
    int m_tracedProgress = -1;  // the last tenth of the update's progress recorded
};

}  // namespace Velmora::Worksurface
