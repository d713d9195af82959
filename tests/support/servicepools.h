#pragma once

#include <QCoreApplication>
#include <QThread>
#include <cstddef>
#include <cstdio>
#include <memory>

#include "qml/worksurfacefunctions.h"
#include "serial/linkruntime.h"
#include "support/linkplacement.h"
#include "support/manualclock.h"
#include "surface/isurface.h"
#include "tasks/taskpool.h"

// One tick of every task pool the surface service runs, for tests that drive time by hand:
// the model's pool here, and the links' pool on the surface thread when the links run there
// (waiting for its tick), so that a test reads the same state after a pass in either mode
// once the QML thread has taken what the links posted (processEvents).
inline void runServicePools(WorksurfaceFunctions& service)
{
    if (const auto pool = service.taskPool()) {
        pool->runPendingTasks();
    }
    if (const auto links = service.linkTaskPool()) {
        service.linkRuntime().runOnLinkThread([links]() { links->runPendingTasks(); });
    }
}

// Before moving the manual clock: with the links on the surface thread, lets them finish
// what this thread asked of them so far (the links' open() after connect(), above all), so
// that it happens at the time it was asked for, as it does when the links run here. An open
// that ran after the clock had moved would schedule the link's pass from the later time, and
// the pass the test then runs would find it not yet due.
inline void catchUpServiceLinks(WorksurfaceFunctions& service)
{
    if (service.linkTaskPool()) {
        service.linkRuntime().runOnLinkThread([]() {});
    }
}

// After a pass: with the links on the surface thread, lets what the simulators answered during
// the pass reach the links there and what the links made of it reach this thread, as one
// run of this thread's event loop does when the links run here. The kernel hands a pty's
// bytes over a moment after they were written (about a millisecond), and the link thread
// takes them when its event loop next looks; the two waits on it make sure a read that had
// begun by then has finished. Real waits, for real I/O only.
inline void settleServiceLinks(WorksurfaceFunctions& service)
{
    QCoreApplication::processEvents();
    const auto links = service.linkTaskPool();
    if (!links) {
        return;
    }
    QThread::msleep(2);
    for (int round = 0; round < 2; ++round) {
        service.linkRuntime().runOnLinkThread([]() {});
    }
    // Everything the links posted is in this thread's queue by now: delivered directly, as
    // one pass of the event loop need not get to posted events when other sources are
    // ready first.
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
}

// One pass of a pty test that drives the service by hand: the links catch up with what was
// asked of them, the clock moves by passNs, every pool runs once, and the ports write what
// the pass sent (a port closed before that would drop it) while the simulators read and
// answer; the clock does not move meanwhile. The same in either mode.
inline void passService(WorksurfaceFunctions& service, ManualClock& clock, qint64 passNs)
{
    catchUpServiceLinks(service);
    clock.advanceNs(passNs);
    runServicePools(service);
    settleServiceLinks(service);
}

// Passes until the clock has moved by at least ms.
inline void runServiceFor(WorksurfaceFunctions& service, ManualClock& clock, qint64 passNs,
                          qint64 ms)
{
    const qint64 until = clock.nowNs() + ms * kMs;
    while (clock.nowNs() < until) {
        passService(service, clock, passNs);
    }
}

// The pool the service's links are scheduled on: the links' own pool when they run on the
// surface thread, the model's otherwise.
inline std::shared_ptr<Velmora::Worksurface::TaskPool> linkPoolOf(
    const WorksurfaceFunctions& service)
{
    const auto links = service.linkTaskPool();
    return links ? links : service.taskPool();
}

// Right after the service has built a surface: whether its links are where this run puts
// them. With TARVIX_WORKSURFACE_LINK_THREAD=1 the service says its links run on the surface
// thread, and each link of the surface is a face whose link was made on that thread;
// otherwise each is the link itself, made on the QML thread. A run with the variable set
// therefore fails here when the service builds as it would without it.
inline bool verifyLinksWhereTheModeSays(WorksurfaceFunctions& service)
{
    const Velmora::Worksurface::ISurface* surface = service.connection()->surface();
    if (service.linksOnSurfaceThread() != linkThreadRequested() || surface == nullptr) {
        std::fprintf(stderr, "The service built %s, with its links %s the surface thread\n",
                     surface ? "a surface" : "no surface",
                     service.linksOnSurfaceThread() ? "on" : "off");
        return false;
    }
    return linksWhereTheModeSays(surface->sectionLinks(), &service.surfaceThread());
}
