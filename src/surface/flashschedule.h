#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "tasks/itask.h"
#include "tasks/itaskhandle.h"
#include "tasks/itaskpool.h"

namespace Velmora::Worksurface {

// The flash state of a flashing light (an LED, a rotary's ring): whether flashing is
// enabled, its interval, the phase of the cycle, and the periodic task on the surface's
// task pool that runs the light's flash step at half the interval. The light decides when
// it flashes and what a step sends; this class only keeps the task in step with it.
//
// Threads: not guarded by itself. Every call is made with the owning light's mutex held;
// start() releases that mutex while it asks the task pool (the pool's lock is taken before
// the light's while a step runs, so taking them the other way round could deadlock).
class FlashSchedule
{
public:
    explicit FlashSchedule(std::shared_ptr<ITaskPool> taskPool);
    ~FlashSchedule();

    FlashSchedule(const FlashSchedule&) = delete;
    FlashSchedule& operator=(const FlashSchedule&) = delete;

    bool enabled() const;
    // Returns whether the value changed.
    bool setEnabled(bool enabled);
    int64_t interval() const;
    // Returns whether the value changed.
    bool setInterval(int64_t intervalMs);

    // The phase of the flash cycle; which half it stands for is the light's own choice.
    bool phase() const;
    // Flips the phase and returns the phase it had before.
    bool togglePhase();

    // Whether a flash task is scheduled.
    bool running() const;

    // Cancels the running task, if any, and starts a new generation, so that a schedule
    // still waiting for the task pool is cancelled when it comes back.
    void stop();
    // stop(), then schedules `step` periodically at half the interval. `lock` holds the
    // owner's mutex; it is released while the task pool is asked and taken again before
    // returning.
    void start(std::unique_lock<std::mutex>& lock, const std::shared_ptr<ITask>& step);
    // For a step that finds the light should not flash any more: cancels the running task
    // and clears the phase.
    void end();

private:
    void cancelTask();

    const std::shared_ptr<ITaskPool> m_taskPool;
    int64_t m_interval = 0;
    bool m_enabled = false;
    bool m_phase = false;
    std::weak_ptr<ITaskHandle> m_task;
    // Counts stops, so that a schedule that was overtaken by a later change while the
    // owner's mutex was released is recognised and cancelled.
    uint64_t m_generation = 0;
};

}  // namespace Velmora::Worksurface
