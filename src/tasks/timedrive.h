#pragma once

#include <QtGlobal>
#include <cstdint>

class QObject;

namespace Velmora::Worksurface {

// How the project's own test runners own time (docs/testing.md). An application never turns
// it on: pools and timers then wait on Qt timers measured on the steady clock, and what is
// counted below costs one relaxed atomic load.
//
// Turned on, the runner's clock is the plugin's "now" and no pool's or ClockTimer's Qt timer
// fires by itself. The runner moves its clock to the earliest time something waits for, runs
// that waiter on the waiter's own thread, and lets every hand-over between threads finish
// before it moves the clock again. A 20-second link time-out then costs microseconds, and
// the order of events is the one the tasks define, however fast or loaded the machine is.
class TimeDrive
{
public:
    // Something that waits for a time on the plugin's clock: a task pool's next tick, a
    // single-shot timer. Registered for its lifetime.
    class Waiter
    {
    public:
        virtual ~Waiter() = default;
        // The clock time it waits for; -1 when it waits for nothing. Read from the runner's
        // thread, so it takes no lock.
        virtual int64_t driveDueNs() const = 0;
        // Runs what is due; called on the thread `context` (given to add()) lives on.
        virtual void driveFire() = 0;
    };

    // Whether a runner owns time.
    static bool isOn();

    static void add(Waiter* waiter, QObject* context);
    static void remove(Waiter* waiter);

    // A hand-over to another thread (or back to this one through the event loop) that the
    // runner must see finished before it moves the clock: work posted to a thread mailbox, a
    // surface thread whose start has not reached the QML thread yet. Counted only while a
    // runner owns time: begins returns whether it counted, and only what was counted ends.
    static bool handOverBegins();
    static void handOverEnds(int count = 1);
};

}  // namespace Velmora::Worksurface

// The seam a runner reaches through the loaded plugin (dlsym), so that the plugin's clock and
// timers are driven without a QML-visible member. Version 1.
extern "C" {

struct TarvixTimeDrive
{
    int version;
    // Makes `source` the plugin's clock and stops pools and timers from waiting on Qt timers;
    // nullptr gives time back. Called before the plugin makes a pool, and given back only
    // once every pool and timer made meanwhile is gone.
    void (*takeOver)(qint64 (*source)());
    // The earliest clock time a pool or timer waits for; -1 when none waits.
    qint64 (*nextDueNs)();
    // Runs the waiter due earliest at or before nowNs (the oldest first among equals): at once
    // when it lives on the calling thread, otherwise posted to its thread and counted as a
    // hand-over until it has run. Returns 1 when one was due, 0 otherwise.
    int (*fireNext)(qint64 nowNs);
    // Hand-overs between threads not yet finished.
    int (*handOversInFlight)();
};

Q_DECL_EXPORT const TarvixTimeDrive* tarvixWorksurfaceTimeDrive();
}
