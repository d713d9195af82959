#pragma once

#include <cstddef>
#include <memory>

#include "qml/worksurfacefunctions.h"
#include "tasks/runon.h"
#include "tasks/taskpool.h"

// One tick of every task pool the surface service runs, for tests that drive time by hand:
// the model's pool here, and the links' pool on the surface thread when the links run there
// (waiting for its tick), so that a test reads the same state after a pass in either mode
// once the QML thread has taken what the links posted (processEvents).
inline void runServicePools(const WorksurfaceFunctions& service)
{
    if (const auto pool = service.taskPool()) {
        pool->runPendingTasks();
    }
    if (const auto links = service.linkTaskPool()) {
        Velmora::Worksurface::runOn(
            links.get(), [links]() { links->runPendingTasks(); }, true);
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
