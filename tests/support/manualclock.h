#pragma once

#include <QtGlobal>

#include "tasks/monotonicclock.h"

// Nanoseconds in a millisecond: times in tests are written as `150 * kMs`.
constexpr qint64 kMs = 1000000;
// Where a test's clock starts unless it says otherwise: 1000 s, far from zero, so that
// "150 ms before construction" is an ordinary time.
constexpr qint64 kStartNs = 1000000 * kMs;

// Replaces the plugin's monotonic clock for the lifetime of the object. Time moves only
// when the test says so; together with calling TaskPool::runPendingTasks() by hand this
// makes every time-out and interval exact and instant. One instance at a time.
class ManualClock
{
public:
    explicit ManualClock(qint64 startNs = 0);
    ~ManualClock();
    ManualClock(const ManualClock&) = delete;
    ManualClock& operator=(const ManualClock&) = delete;

    qint64 nowNs() const;
    qint64 nowMs() const { return nowNs() / 1000000; }
    void setNs(qint64 ns);
    void advanceNs(qint64 ns);
    void advanceMs(qint64 ms) { advanceNs(ms * 1000000); }

private:
    Velmora::Worksurface::MonotonicClock::Source m_previous;
};
