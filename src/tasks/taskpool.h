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
#include "tasks/timedrive.h"

namespace Velmora::Worksurface {

// Runs all periodic and delayed work of one surface (link supervision and queue draining,
// fader steps, LED and rotary flashing, pot value requests, the updater's auto-baud step)
// from one Qt timer on the pool's thread, which is the QML thread unless the links have
// their own pool on the surface thread (docs/threads.md). Scheduling, cancelling (through the
// handle) and stop() are safe from any thread; start() and the tick run on the pool's thread.
//
// The schedule keeps a 5 ms tick: each tick stops the timer, runs what is due and re-arms
// it, so ticks are 5 ms apart measured from the end of the previous tick, and a repeating
// task's next run is measured from the end of its previous run (a long run stretches the
// period instead of piling up runs). The pool does not wake for ticks that would find
// nothing due: it arms its timer straight for the first tick of that 5 ms grid at which the
// earliest record comes due, and re-arms earlier when a task is scheduled that comes due
// before it. A task therefore runs at the same tick, and in the same order relative to the
// others, as with a timer firing every 5 ms, while an idle console sleeps between passes.
// Tasks are held weakly: a task whose owner has released it is dropped at its next due time
// without being run.
//
// Repeating tasks of the same interval keep one phase, so that they share a tick. A
// repeating task that comes due waits while another repeating task of its interval, one
// that last ran (or was scheduled) after it by at most half the interval, is not due yet,
// and then runs in that task's tick. The 50 ms tasks of a surface (31 fader steps, the three
// links' passes), scheduled over several cells of the grid by a slow start-up or pulled
// apart by a run that took long, so come together in one tick a period again instead of
// keeping two or three ticks for good. A task still never runs before its interval has
// passed since its last run; waiting for the others makes one run at most half an interval
// late (to the grid), and only while the phases differ. Tasks that share a tick already,
// one-offs and tasks of different intervals keep their own times.
//
// A pool that was never started runs its tick when called (tests drive it by hand). Once
// stopped, it runs nothing until start(): a tick that still comes (a timer event on its
// way, a runner's fire) finds it stopped and neither runs a task nor arms the timer. A stop
// that comes during a tick, from one of its tasks or from another thread, lets the task
// under way finish and ends the walk there: the tasks it had not reached yet do not run,
// because a stopped surface must not step its faders or flash its lights any more, and
// they keep their last-run times, so that start() runs them at its first tick. stop() from
// another thread does not wait for the tick to end.
//
// While a test runner owns time (TimeDrive), the timer is armed but never fires by itself:
// the runner runs the armed tick when its clock gets there.
class TaskPool : public QObject, public ITaskPool, private TimeDrive::Waiter
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
    // The longest the pool sleeps with nothing due (an empty pool, or records too far off):
    // it then wakes, finds nothing and sleeps again.
    static constexpr int kIdleWaitMs = 10000;

    explicit TaskPool(QObject* parent = nullptr);
    ~TaskPool() override;

    TaskPool(const TaskPool&) = delete;
    TaskPool& operator=(const TaskPool&) = delete;

    void scheduleOnce(uint64_t intervalMs, const std::shared_ptr<ITask>& task) override;
    std::shared_ptr<ITaskHandle> schedulePeriodic(uint64_t intervalMs,
                                                  const std::shared_ptr<ITask>& task) override;

    // Called when the surface thread starts, on the pool's thread: arms the tick timer
    // unless it is armed already. The first tick is 5 ms away, or later when nothing is due
    // by then.
    void start();
    // Called when the surface thread finishes, from any thread: disarms the pool at once (on
    // another thread the Qt timer itself is stopped by an event on the pool's thread; a tick
    // it fires meanwhile runs nothing). The records stay; the next start() resumes them with
    // their old last-run times.
    void stop();

    // Started and not stopped since.
    bool isRunning() const;
    // Whether the pool is armed: its timer waits for the next tick that has work.
    bool isTimerActive() const;
    // The tick the schedule keeps (5 ms); every wake lands on a tick of this grid.
    int timerIntervalMs() const;
    // How long the armed timer waits, in milliseconds, from when it was last armed; -1 when
    // it is not armed. A multiple of the tick unless a schedule call woke the pool early.
    int armedWaitMs() const;
    // The clock time of the tick the timer is armed for; -1 when it is not armed.
    int64_t armedForNs() const;
    // Records still in the list, including cancelled and single-shot ones that have not
    // yet reached the due time at which they are dropped.
    std::size_t taskCount() const;

public slots:
    void runPendingTasks();

protected:
    bool event(QEvent* event) override;

private:
    std::shared_ptr<TaskData> addTask(uint64_t intervalMs, const std::shared_ptr<ITask>& task,
                                      bool singleShot);
    enum class State
    {
        NotStarted,
        Running,
        Stopped
    };

    // The earliest (in a tick) or latest (for the next wake) last run among the records of
    // one interval that keep the phase.
    struct PhaseMark
    {
        int64_t intervalMs;
        int64_t lastRunNs;
    };

    // The clock time of the first tick after `anchorNs` (on its 5 ms grid) at which a
    // record with this interval and last run comes due, at most kIdleWaitMs away.
    static int64_t wakeForNs(int64_t intervalMs, int64_t lastRunNs, int64_t anchorNs);
    static int64_t wakeForRecordNs(const TaskData& record, int64_t anchorNs);
    // Whether the record keeps its interval's phase: repeating, not cancelled, and with an
    // interval the clock can reach.
    static bool keepsPhase(const TaskData& record);
    // Notes, per interval, the earliest last run among the records that keep the phase and
    // are not due at `nowNs`: those a due record of the interval may wait for. Under the
    // mutex, at the start of a tick.
    void markPhases(int64_t nowNs);
    // Whether the due `record` waits for a record of its interval noted by markPhases().
    bool waitsForItsPhase(const TaskData& record) const;
    // The clock time of the first tick after `anchorNs` that has work: the earliest due tick
    // of a record, taking for a record that will wait for the latest of its interval that
    // one's. Under the mutex.
    int64_t nextWakeNs(int64_t anchorNs) const;
    // Arms the timer for the first tick after `anchorNs` that has work, unless the pool is
    // stopped. On the pool's thread, under the mutex.
    void armFrom(int64_t anchorNs);
    // A schedule call's wake: re-arms for an earlier tick when the new record needs one and
    // the pool is armed and not inside its own tick. On the pool's thread.
    void rearmIfEarlier();
    // Disarmed: the pool is stopped, or a tick has begun. Under the state mutex.
    void disarm();

    int64_t driveDueNs() const override;
    void driveFire() override;

    QTimer m_timer;
    uint64_t m_nextId = 0;
    // Where the 5 ms grid is anchored: the end of the last tick, or the last start(); and
    // whether a tick is walking the list. Under the mutex.
    int64_t m_anchorNs = 0;
    bool m_inTick = false;
    // Scratch lists of markPhases() and nextWakeNs(), kept to spare an allocation a tick.
    // Under the mutex.
    std::vector<PhaseMark> m_tickMarks;
    mutable std::vector<PhaseMark> m_wakeMarks;
    // Whether the pool runs, whether it is armed and for which clock time. Under the state
    // mutex, a leaf taken after the mutex or alone: stop() from another thread takes only
    // this one, so it neither waits for a tick nor races the tick's re-arming.
    mutable std::mutex m_stateMutex;
    State m_state = State::NotStarted;
    bool m_armed = false;
    int64_t m_armedForNs = 0;
    // Counts stop() calls: a tick that sees it change stops walking.
    std::atomic<uint64_t> m_stops{0};
    // Set while a wake posted from another thread is on its way, so a burst of schedule
    // calls posts one.
    std::atomic<bool> m_wakePosted{false};
    // Whether that wake counts as a hand-over for a runner that owns time.
    std::atomic<bool> m_wakeCounted{false};
    // The armed tick as the runner reads it, without the mutex; -1 when disarmed.
    std::atomic<int64_t> m_driveDueNs{-1};
    // Recursive because a task may schedule on this pool from inside its run while the
    // tick holds the lock (the section connection's restart reopens the link and schedules
    // its new supervision task from within its own pass).
    using Mutex = std::recursive_mutex;
    mutable Mutex m_mutex;
    std::vector<std::shared_ptr<TaskData>> m_tasks;
};

}  // namespace Velmora::Worksurface
