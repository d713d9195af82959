#pragma once

#include <QObject>
#include <QtGlobal>
#include <functional>

#include "tasks/timedrive.h"

// Owns the plugin's time for a test: the plugin reads this clock, no pool or timer of it waits
// on a Qt timer, and time moves only when the test waits (and by a nanosecond at each reading,
// as a real clock never stands still between two events). A wait runs every pool tick and
// timer on the way, each at its own time and on its own thread, and after each lets this
// thread's events and every hand-over between threads (mailboxes, the surface thread's start)
// finish: so a 20 s link time-out costs microseconds and the order of events is the one the
// tasks define, however fast or loaded the machine is.
//
// The QML test runner reaches the plugin it loads through the plugin's exported seam; a C++
// test passes the one linked into it. One at a time; made before the plugin makes any pool.
class DrivenClock : public QObject
{
    Q_OBJECT
    Q_PROPERTY(double nowMs READ nowMs)

public:
    static constexpr qint64 kStartNs = 1000LL * 1000 * 1000 * 1000;

    explicit DrivenClock(const TarvixTimeDrive* drive, QObject* parent = nullptr);
    ~DrivenClock() override;

    // The seam of the plugin module at `path`, loaded as the QML engine will load it (the same
    // file, so the same library). Exits the test run when it cannot.
    static const TarvixTimeDrive* pluginDrive(const char* path);

    qint64 nowNs() const;
    double nowMs() const { return static_cast<double>(nowNs()) / 1e6; }

    // This thread's events and every hand-over between threads run to their end; the clock
    // stands still. Waits for other threads only while they still have work handed to them,
    // never longer than a generous bound (a hang fails loudly). Returns false on that bound.
    Q_INVOKABLE bool settle();
    // Moves the clock on by ms, running on the way every tick and timer at its time.
    Q_INVOKABLE void advance(double ms);
    // Moves the clock on, tick by tick, until `done` holds or ms have passed; returns done().
    bool advanceUntil(const std::function<bool()>& done, qint64 ms);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    // Runs every waiter due at the clock's time, settling after each.
    void runDueNow();
    // Moves the clock to the next time a waiter is due, or to untilNs when none is due by
    // then (returning false).
    bool moveToNextDue(qint64 untilNs);

    const TarvixTimeDrive* m_drive;
    bool m_filtering = false;
    quint64 m_events = 0;
};
