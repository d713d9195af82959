#include "surface/flashschedule.h"

#include <utility>

namespace Velmora::Worksurface {

FlashSchedule::FlashSchedule(std::shared_ptr<ITaskPool> taskPool) : m_taskPool(std::move(taskPool))
{}

FlashSchedule::~FlashSchedule() = default;

bool FlashSchedule::enabled() const
{
    return m_enabled;
}

bool FlashSchedule::setEnabled(bool enabled)
{
    if (m_enabled == enabled) {
        return false;
    }
    m_enabled = enabled;
    return true;
}

int64_t FlashSchedule::interval() const
{
    return m_interval;
}

bool FlashSchedule::setInterval(int64_t intervalMs)
{
    if (m_interval == intervalMs) {
        return false;
    }
    m_interval = intervalMs;
    return true;
}

bool FlashSchedule::phase() const
{
    return m_phase;
}

bool FlashSchedule::togglePhase()
{
    const bool was = m_phase;
    m_phase = !was;
    return was;
}

bool FlashSchedule::running() const
{
    return !m_task.expired();
}

void FlashSchedule::stop()
{
    cancelTask();
    ++m_generation;
}

void FlashSchedule::start(std::unique_lock<std::mutex>& lock, const std::shared_ptr<ITask>& step)
{
    stop();
    const uint64_t generation = m_generation;
    const auto halfIntervalMs = static_cast<uint64_t>(m_interval / 2);
    lock.unlock();
    std::shared_ptr<ITaskHandle> task = m_taskPool->schedulePeriodic(halfIntervalMs, step);
    lock.lock();
    if (generation == m_generation) {
        m_task = task;
    } else if (task) {
        // Overtaken by a later change while the mutex was free: that one decides.
        task->cancel();
    }
}

void FlashSchedule::end()
{
    cancelTask();
    m_phase = false;
}

void FlashSchedule::cancelTask()
{
    if (const std::shared_ptr<ITaskHandle> task = m_task.lock()) {
        task->cancel();
    }
    // Forgotten at once rather than when the pool drops the cancelled record, so that the
    // light can start flashing again without waiting for that.
    m_task.reset();
}

}  // namespace Velmora::Worksurface
