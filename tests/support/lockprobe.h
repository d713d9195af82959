#pragma once

#include <QString>
#include <QStringList>
#include <QtGlobal>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

// Fails a hang instead of stalling the run (a lock taken twice on one thread): unless
// disarmed (destroyed) within the time, it names the case and aborts the process.
class Watchdog
{
public:
    Watchdog(const char* what, int seconds);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    const char* m_what;
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_disarmed = false;
    std::thread m_thread;
};

// Whether a mutex is free right now: `take` (a call that takes the mutex and lets it go
// again, e.g. SectionConnection::stopCalibration()) runs on another thread and must return
// within the time. When the caller holds the mutex the probe thread is left to finish once
// it is let go; `keepAlive` keeps what `take` uses alive until then.
bool isFreeFromAnotherThread(const std::function<void()>& take,
                             std::shared_ptr<void> keepAlive = nullptr, int timeoutMs = 1500);

// Checks on every Qt log line, while it lives, that a mutex is free: the plugin's lines go
// through the application's message handler, which must never be called with a lock of the
// link held. Each line is then passed on to the handler installed before (a LogCapture, for
// instance). Nests like LogCapture; not for lines from several threads at once.
class LockProbingMessageHandler
{
public:
    explicit LockProbingMessageHandler(std::function<bool()> isFree);
    ~LockProbingMessageHandler();
    LockProbingMessageHandler(const LockProbingMessageHandler&) = delete;
    LockProbingMessageHandler& operator=(const LockProbingMessageHandler&) = delete;

    int lineCount() const { return m_lineCount; }
    // The lines written while the mutex was held.
    const QStringList& linesUnderLock() const { return m_linesUnderLock; }

private:
    static void handler(QtMsgType type, const QMessageLogContext& context, const QString& msg);
    std::function<bool()> m_isFree;
    QtMessageHandler m_previous;
    LockProbingMessageHandler* m_outer;
    int m_lineCount = 0;
    QStringList m_linesUnderLock;
};
