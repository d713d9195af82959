#pragma once

#include <QObject>
#include <QTimer>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "tasks/itask.h"
#include "tasks/itaskhandle.h"
#include "tasks/itaskpool.h"

namespace Velmora::Worksurface {

// Runs all periodic and delayed work of one surface (link supervision and queue draining,
// fader steps, LED and rotary flashing, pot value requests, the updater's auto-baud step)
// from one 5 ms Qt timer on the model thread, which is the QML thread (docs/threads.md).
// Scheduling and cancelling are safe from any thread.
//
// The timer is single-stepped: each tick stops it, runs what is due and re-arms it, so
// ticks are 5 ms apart measured from the end of the previous tick, and a repeating task's
// next run is measured from the end of its previous run (a long run stretches the period
// instead of piling up runs). Tasks are held weakly: a task whose owner has released it is
// dropped at its next due time without being run.
class TaskPool : public QObject, public ITaskPool
{
    Q_OBJECT

public:
    // The pool's record of one scheduled task; handed out as the task's handle.
    class TaskData : public ITaskHandle
    {
    public:
        TaskData(uint64_t id, int64_t intervalMs, int64_t lastRunNs, std::weak_ptr<ITask> task,
                 bool singleShot);

        uint64_t id() const override;
        bool cancel() override;

        int64_t intervalMs() const { return m_intervalMs; }
        bool isCancelled() const { return m_cancelled.load(); }
        bool isSingleShot() const { return m_singleShot; }

    private:
        friend class TaskPool;

        // Whether more than the interval has passed since the last run at `nowNs`.
        bool isDue(int64_t nowNs) const;

        const uint64_t m_id;
        const int64_t m_intervalMs;
        // Written only by the tick, under the pool's mutex.
        int64_t m_lastRunNs;
        const std::weak_ptr<ITask> m_task;
        // Set from any thread through the handle; read by the tick.
        std::atomic<bool> m_cancelled{false};
        const bool m_singleShot;
    };

    static constexpr int kTickMs = 5;

    explicit TaskPool(QObject* parent = nullptr);
    ~TaskPool() override;

    TaskPool(const TaskPool&) = delete;
    TaskPool& operator=(const TaskPool&) = delete;

    void scheduleOnce(uint64_t intervalMs, const std::shared_ptr<ITask>& task) override;
    std::shared_ptr<ITaskHandle> schedulePeriodic(uint64_t intervalMs,
                                                  const std::shared_ptr<ITask>& task) override;

    // Called when the surface thread starts: arms the tick timer unless it already runs.
    void start();
    // Called when the surface thread finishes: disarms the timer. The records stay; the
    // next start() resumes them with their old last-run times.
    void stop();

    bool isRunning() const;
    bool isTimerActive() const;
    int timerIntervalMs() const;
    // Records still in the list, including cancelled and single-shot ones that have not
    // yet reached the due time at which they are dropped.
    std::size_t taskCount() const;

public slots:
    void runPendingTasks();

private:
    std::shared_ptr<TaskData> addTask(uint64_t intervalMs, const std::shared_ptr<ITask>& task,
                                      bool singleShot);

    QTimer m_timer;
    bool m_running = false;
    uint64_t m_nextId = 0;
    // Recursive because a task may schedule on this pool from inside its run while the
    // tick holds the lock (the section connection's restart reopens the link and schedules
    // its new supervision task from within its own pass).
    using Mutex = std::recursive_mutex;
    mutable Mutex m_mutex;
    std::vector<std::shared_ptr<TaskData>> m_tasks;
};

}  // namespace Velmora::Worksurface
