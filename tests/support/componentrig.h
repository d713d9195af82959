#pragma once

#include <QStringList>
#include <QtGlobal>
#include <memory>

#include "support/manualclock.h"
#include "support/queuedrain.h"
#include "support/recordingsender.h"
#include "support/sentmessage.h"
#include "tasks/taskpool.h"

// What a test of one component builds around it: the manual clock, the sender the
// component writes to and a task pool ticked by hand. A test derives its rig from it and
// adds the component, made with `sender` and `pool`:
//
//     struct QueueRig : ComponentRig<SerialMessageQueue>
//     {
//         QueueRig() : ComponentRig(kStart) {}
//         std::shared_ptr<Led> led = std::make_shared<Led>(…, sender, pool);
//     };
//
// Sender is either the real SerialMessageQueue, whose messages drainUntil() takes with the
// time each became due, or a RecordingSender, whose calls take() returns.
template <typename Sender>
struct ComponentRig
{
    explicit ComponentRig(qint64 startNs) : clock(startNs) {}

    // Sets the clock and runs one pass of the task pool.
    void tickAt(qint64 ns)
    {
        clock.setNs(ns);
        pool->runPendingTasks();
    }
    // SerialMessageQueue only: what the section connection would send up to ns, with times.
    QStringList drainUntil(qint64 ns) { return describe(drainReleased(*sender, clock, ns)); }
    // RecordingSender only: the calls since the last take.
    QStringList take() { return describe(sender->take()); }

    ManualClock clock;
    std::shared_ptr<Sender> sender = std::make_shared<Sender>();
    std::shared_ptr<Velmora::Worksurface::TaskPool> pool =
        std::make_shared<Velmora::Worksurface::TaskPool>();
};
