#pragma once

#include <cstdint>
#include <memory>

#include "tasks/itask.h"
#include "tasks/itaskhandle.h"

namespace Velmora::Worksurface {

// Runs tasks once after a delay or repeatedly at an interval. Tasks are held weakly:
// one whose owner has gone is dropped without being run.
class ITaskPool
{
public:
    virtual ~ITaskPool() = default;
    virtual void scheduleOnce(uint64_t intervalMs, const std::shared_ptr<ITask>& task) = 0;
    virtual std::shared_ptr<ITaskHandle> schedulePeriodic(uint64_t intervalMs,
                                                          const std::shared_ptr<ITask>& task) = 0;
};

}  // namespace Velmora::Worksurface
