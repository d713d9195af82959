#include <QtTest/QtTest>
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "support/drivenclock.h"
#include "support/manualclock.h"
#include "tasks/monotonicclock.h"
#include "tasks/taskpool.h"
#include "tasks/timedrive.h"

using namespace Velmora::Worksurface;

namespace {

// Counts its runs and optionally does something inside the run, the way a section
// connection or a fader step does its work from the pool.
class RecordingTask : public ITask
{
public:
    explicit RecordingTask(std::function<void()> body = {}) : m_body(std::move(body)) {}

    void run() override
    {
        ++runs;
        if (m_body) {
            m_body();
        }
    }

    int runs = 0;

private:
    std::function<void()> m_body;
};

// A task that notes its destruction in a flag the test owns, so a test can tell whether the
// pool kept it alive.
class LifetimeTask : public ITask
{
public:
    LifetimeTask(bool* destroyed, std::function<void(LifetimeTask*)> body)
        : m_destroyed(destroyed), m_body(std::move(body))
    {}
    ~LifetimeTask() override { *m_destroyed = true; }

    void run() override
    {
        ++runs;
        m_body(this);
        // Touches the object after the body: had the body freed it, this would be a
        // use-after-free that the sanitizer build reports.
        ++finishedRuns;
    }

    int runs = 0;
    int finishedRuns = 0;

private:
    bool* m_destroyed;
    std::function<void(LifetimeTask*)> m_body;
};

}  // namespace

class TestTaskPool : public QObject
{
    Q_OBJECT

private slots:
    // Scheduling
    void taskWithIntervalZeroRunsOnNextTick_data();
    void taskWithIntervalZeroRunsOnNextTick();
    void taskIsNotDueAtTheInstantItIsScheduled();
    void taskWithInterval100IsNotRunAtExactly100msButAtTheFirstTickAfter();
    void taskWithInterval100IsDueOneNanosecondAfter100ms();
    void handleIdsAreConsecutiveInSchedulingOrderAcrossBothOperations();
    void idsStartAtZeroForEachPool();
    void poolHoldsTasksOnlyWeakly();
    void dueTasksRunInSchedulingOrder();
    void intervalTooLongForNanosecondsIsNeverDue_data();
    void intervalTooLongForNanosecondsIsNeverDue();

    // Single shot
    void singleShotTaskRunsExactlyOnce();
    void singleShotRecordStaysOneMoreIntervalThenIsErased();

    // Repeating
    void repeatingTaskRunsOncePerElapsedInterval();
    void repeatingTaskNextRunIsMeasuredFromTheEndOfItsRun();
    void repeatingTaskWhoseOwnerIsDestroyedIsRemovedAtNextDueTimeWithoutCall();

    // Cancelling
    void cancelReturnsFalseTheFirstTimeAndTrueAfterwards();
    void cancelledTaskIsNeverRunAgain();
    void taskCancelledBeforeItsFirstRunIsNeverRun();
    void recordAfterAnErasedOneIsStillRunInTheSameTick();

    // Work done from inside a run
    void taskScheduledFromInsideARunIsNotRunInTheSameWalk();
    void manyTasksScheduledFromInsideARunKeepTheWalkValid();
    void taskCancellingItsOwnHandleInsideItsRunIsNotRunAgain();
    void taskCancelledByAnEarlierTaskInTheSameTickIsNotRun();
    void taskWhoseOwnerIsReleasedInsideAnotherTasksRunIsDroppedWithoutCall();
    void taskReleasingItsOwnLastOwnerInsideItsRunFinishesTheRun();

    // Timer and lifecycle
    void schedulingDoesNotStartTheTimer();
    void startArmsTheTimerWithFiveMilliseconds();
    void startLeavesAnActiveTimerAlone();
    void stopClearsRunningAndDisarmsTheTimer();
    void tickRearmsTheTimerWithFiveMilliseconds_data();
    void tickRearmsTheTimerWithFiveMilliseconds();
    void tickOnAStoppedPoolLeavesItDisarmed();
    void stopKeepsRecordsAndStartResumesWithOldLastRunTimes();
    void destroyingThePoolReleasesRecordsWithoutRunningThem();

    // Stopping during a tick
    void taskStoppingItsPoolFinishesItsRunAndEndsTheTick();
    void drivenPoolStoppedByItsOwnTaskIsNotTickedAgain();
    void stopFromAnotherThreadDuringATickEndsTheTickWithoutWaitingForIt();
    void startAfterAStopInATickRunsWhatTheTickLeftOutAtTheFirstTick();

    // Sleeping between ticks that have work
    void startArmsForTheFirstTickAtWhichATaskIsDue();
    void tickArmsForTheNextTickWithWorkMeasuredFromItsEnd();
    void emptyPoolSleepsForTheIdleWait();
    void recordsTooFarOffLeaveThePoolOnTheIdleWait();
    void schedulingWakesASleepingPoolForAnEarlierTick();
    void schedulingALaterTaskLeavesTheArmedTickAlone();
    void schedulingInsideARunIsArmedForByTheEndOfTheTick();
    void schedulingFromAnotherThreadWakesThePoolThroughItsEventLoop();
    void sleepingRunsEveryTaskAtTheSameTickAndInTheSameOrderAsTheFiveMsTick();

    // One phase per interval
    void fiftyMsTasksScheduledOverTwentyMsComeToShareOneTick_data();
    void fiftyMsTasksScheduledOverTwentyMsComeToShareOneTick();
    void tasksSplitByALongRunShareOneTickAgainFromTheNextPeriod();
    void taskWaitsForItsIntervalsOthersAtMostHalfAnIntervalAndNeverRunsEarly_data();
    void taskWaitsForItsIntervalsOthersAtMostHalfAnIntervalAndNeverRunsEarly();
    void tasksOfDifferentIntervalsKeepTheirOwnTicks();

    // Threads
    void schedulingFromSeveralThreadsGivesEveryTaskItsOwnConsecutiveId();
};

void TestTaskPool::taskWithIntervalZeroRunsOnNextTick_data()
{
    QTest::addColumn<bool>("singleShot");
    QTest::newRow("once") << true;
    QTest::newRow("periodic") << false;
}

void TestTaskPool::taskWithIntervalZeroRunsOnNextTick()
{
    QFETCH(bool, singleShot);
    ManualClock clock(1000 * kMs);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    std::shared_ptr<ITaskHandle> handle;
    if (singleShot) {
        pool.scheduleOnce(0, task);
    } else {
        handle = pool.schedulePeriodic(0, task);
    }

    clock.advanceMs(TaskPool::kTickMs);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 1);
}

void TestTaskPool::taskIsNotDueAtTheInstantItIsScheduled()
{
    ManualClock clock(1000 * kMs);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(0, task);

    pool.runPendingTasks();
    QCOMPARE(task->runs, 0);

    clock.advanceNs(1);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 1);
}

void TestTaskPool::taskWithInterval100IsNotRunAtExactly100msButAtTheFirstTickAfter()
{
    ManualClock clock(0);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(100, task);

    // Ticks every 5 ms up to and including 100 ms.
    for (int t = TaskPool::kTickMs; t <= 100; t += TaskPool::kTickMs) {
        clock.setNs(t * kMs);
        pool.runPendingTasks();
        QCOMPARE(task->runs, 0);
    }
    clock.setNs(105 * kMs);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 1);
}

void TestTaskPool::taskWithInterval100IsDueOneNanosecondAfter100ms()
{
    ManualClock clock(0);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(100, task);

    clock.setNs(100 * kMs - 1);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 0);
    clock.setNs(100 * kMs);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 0);
    clock.setNs(100 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 1);
}

void TestTaskPool::handleIdsAreConsecutiveInSchedulingOrderAcrossBothOperations()
{
    ManualClock clock;
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();

    auto first = pool.schedulePeriodic(50, task);
    pool.scheduleOnce(50, task);
    auto third = pool.schedulePeriodic(50, task);
    pool.scheduleOnce(50, task);
    pool.scheduleOnce(50, task);
    auto sixth = pool.schedulePeriodic(50, task);
    auto seventh = pool.schedulePeriodic(50, task);

    QCOMPARE(first->id(), uint64_t(0));
    QCOMPARE(third->id(), uint64_t(2));
    QCOMPARE(sixth->id(), uint64_t(5));
    QCOMPARE(seventh->id(), uint64_t(6));
    QCOMPARE(pool.taskCount(), std::size_t(7));
}

void TestTaskPool::idsStartAtZeroForEachPool()
{
    ManualClock clock;
    auto task = std::make_shared<RecordingTask>();
    TaskPool firstPool;
    firstPool.schedulePeriodic(10, task);
    firstPool.schedulePeriodic(10, task);

    TaskPool secondPool;
    QCOMPARE(secondPool.schedulePeriodic(10, task)->id(), uint64_t(0));
}

void TestTaskPool::poolHoldsTasksOnlyWeakly()
{
    ManualClock clock;
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(10, task);
    pool.scheduleOnce(10, task);

    QCOMPARE(task.use_count(), 1L);
    // The record is shared between the pool and the caller.
    QCOMPARE(handle.use_count(), 2L);
}

void TestTaskPool::dueTasksRunInSchedulingOrder()
{
    ManualClock clock;
    TaskPool pool;
    QStringList order;
    auto a = std::make_shared<RecordingTask>([&] { order << "a"; });
    auto b = std::make_shared<RecordingTask>([&] { order << "b"; });
    auto c = std::make_shared<RecordingTask>([&] { order << "c"; });
    auto ha = pool.schedulePeriodic(30, a);
    pool.scheduleOnce(20, b);
    auto hc = pool.schedulePeriodic(10, c);

    clock.advanceMs(31);
    pool.runPendingTasks();
    QCOMPARE(order, QStringList({"a", "b", "c"}));
}

void TestTaskPool::intervalTooLongForNanosecondsIsNeverDue_data()
{
    QTest::addColumn<quint64>("intervalMs");
    QTest::newRow("just past the nanosecond range")
        << quint64(std::numeric_limits<int64_t>::max() / kMs + 1);
    QTest::newRow("past the signed range") << quint64(std::numeric_limits<int64_t>::max()) + 1;
    QTest::newRow("largest") << std::numeric_limits<quint64>::max();
}

void TestTaskPool::intervalTooLongForNanosecondsIsNeverDue()
{
    QFETCH(quint64, intervalMs);
    ManualClock clock(0);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(intervalMs, task);
    pool.scheduleOnce(intervalMs, task);

    clock.setNs(std::numeric_limits<int64_t>::max() / 2);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 0);
    QCOMPARE(pool.taskCount(), std::size_t(2));
}

void TestTaskPool::singleShotTaskRunsExactlyOnce()
{
    ManualClock clock;
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    pool.scheduleOnce(10, task);

    for (int i = 0; i < 200; ++i) {
        clock.advanceMs(TaskPool::kTickMs);
        pool.runPendingTasks();
    }
    QCOMPARE(task->runs, 1);
    QCOMPARE(pool.taskCount(), std::size_t(0));
}

void TestTaskPool::singleShotRecordStaysOneMoreIntervalThenIsErased()
{
    ManualClock clock(0);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    pool.scheduleOnce(100, task);

    clock.setNs(100 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 1);
    QCOMPARE(pool.taskCount(), std::size_t(1));

    // Its last run is the end of that run; the record is dropped when it is next due.
    clock.setNs(200 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(pool.taskCount(), std::size_t(1));
    clock.setNs(200 * kMs + 2);
    pool.runPendingTasks();
    QCOMPARE(pool.taskCount(), std::size_t(0));
    QCOMPARE(task->runs, 1);
}

void TestTaskPool::repeatingTaskRunsOncePerElapsedInterval()
{
    ManualClock clock(0);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(50, task);

    // Ticks every 5 ms for one second: runs at 55, 110, 165, ... (strictly more than
    // 50 ms after the previous run, on the 5 ms grid).
    for (int t = TaskPool::kTickMs; t <= 1000; t += TaskPool::kTickMs) {
        clock.setNs(t * kMs);
        pool.runPendingTasks();
    }
    QCOMPARE(task->runs, 18);
}

void TestTaskPool::repeatingTaskNextRunIsMeasuredFromTheEndOfItsRun()
{
    ManualClock clock(0);
    TaskPool pool;
    // A run that takes 30 ms.
    auto task = std::make_shared<RecordingTask>([&] { clock.advanceMs(30); });
    auto handle = pool.schedulePeriodic(50, task);

    clock.setNs(50 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 1);
    QCOMPARE(clock.nowNs(), 80 * kMs + 1);

    // 50 ms after the start of the run is not enough, nor is exactly 50 ms after its end.
    clock.setNs(130 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 1);
    clock.setNs(130 * kMs + 2);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 2);
}

void TestTaskPool::repeatingTaskWhoseOwnerIsDestroyedIsRemovedAtNextDueTimeWithoutCall()
{
    ManualClock clock(0);
    TaskPool pool;
    auto calls = std::make_shared<int>(0);
    auto task = std::make_shared<RecordingTask>([calls] { ++*calls; });
    auto handle = pool.schedulePeriodic(50, task);

    clock.setNs(50 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(*calls, 1);

    task.reset();
    // Not yet due: the record waits for its due time.
    clock.setNs(100 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(pool.taskCount(), std::size_t(1));

    clock.setNs(100 * kMs + 2);
    pool.runPendingTasks();
    QCOMPARE(pool.taskCount(), std::size_t(0));
    QCOMPARE(*calls, 1);
    // The caller's handle outlives the record in the pool.
    QCOMPARE(handle.use_count(), 1L);
    QCOMPARE(handle->id(), uint64_t(0));
}

void TestTaskPool::cancelReturnsFalseTheFirstTimeAndTrueAfterwards()
{
    ManualClock clock;
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(10, task);

    QCOMPARE(handle->cancel(), false);
    QCOMPARE(handle->cancel(), true);
    QCOMPARE(handle->cancel(), true);
}

void TestTaskPool::cancelledTaskIsNeverRunAgain()
{
    ManualClock clock(0);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(10, task);

    clock.setNs(10 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 1);

    QCOMPARE(handle->cancel(), false);
    for (int i = 0; i < 100; ++i) {
        clock.advanceMs(TaskPool::kTickMs);
        pool.runPendingTasks();
    }
    QCOMPARE(task->runs, 1);
    QCOMPARE(pool.taskCount(), std::size_t(0));
}

void TestTaskPool::recordAfterAnErasedOneIsStillRunInTheSameTick()
{
    ManualClock clock(0);
    TaskPool pool;
    auto cancelled = std::make_shared<RecordingTask>();
    auto gone = std::make_shared<RecordingTask>();
    auto next = std::make_shared<RecordingTask>();
    auto cancelledHandle = pool.schedulePeriodic(10, cancelled);
    auto goneHandle = pool.schedulePeriodic(10, gone);
    auto nextHandle = pool.schedulePeriodic(10, next);
    cancelledHandle->cancel();
    gone.reset();

    clock.setNs(10 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(next->runs, 1);
    QCOMPARE(cancelled->runs, 0);
    QCOMPARE(pool.taskCount(), std::size_t(1));
}

void TestTaskPool::taskCancelledBeforeItsFirstRunIsNeverRun()
{
    ManualClock clock(0);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(10, task);
    handle->cancel();

    // The record stays until it comes due, then goes without a call.
    clock.setNs(10 * kMs);
    pool.runPendingTasks();
    QCOMPARE(pool.taskCount(), std::size_t(1));
    clock.setNs(10 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(pool.taskCount(), std::size_t(0));
    QCOMPARE(task->runs, 0);
}

void TestTaskPool::taskScheduledFromInsideARunIsNotRunInTheSameWalk()
{
    // The link restart reopens the port and schedules its new supervision task from within
    // the pass that found the link dead.
    ManualClock clock(0);
    TaskPool pool;
    auto inner = std::make_shared<RecordingTask>();
    std::shared_ptr<ITaskHandle> innerHandle;
    auto outer = std::make_shared<RecordingTask>([&] {
        if (!innerHandle) {
            innerHandle = pool.schedulePeriodic(0, inner);
        }
    });
    auto outerHandle = pool.schedulePeriodic(0, outer);

    clock.advanceMs(TaskPool::kTickMs);
    pool.runPendingTasks();
    QCOMPARE(outer->runs, 1);
    QVERIFY(innerHandle);
    QCOMPARE(innerHandle->id(), uint64_t(1));
    QCOMPARE(pool.taskCount(), std::size_t(2));
    QCOMPARE(inner->runs, 0);

    clock.advanceMs(TaskPool::kTickMs);
    pool.runPendingTasks();
    QCOMPARE(outer->runs, 2);
    QCOMPARE(inner->runs, 1);
}

void TestTaskPool::manyTasksScheduledFromInsideARunKeepTheWalkValid()
{
    ManualClock clock(0);
    TaskPool pool;
    auto inner = std::make_shared<RecordingTask>();
    std::vector<std::shared_ptr<ITaskHandle>> innerHandles;
    // Enough appends to make the record list grow its storage several times over while the
    // walk is inside this run.
    auto outer = std::make_shared<RecordingTask>([&] {
        for (int i = 0; i < 200; ++i) {
            innerHandles.push_back(pool.schedulePeriodic(0, inner));
            pool.scheduleOnce(0, inner);
        }
    });
    auto first = std::make_shared<RecordingTask>();
    auto last = std::make_shared<RecordingTask>();
    auto firstHandle = pool.schedulePeriodic(0, first);
    pool.scheduleOnce(0, outer);
    auto lastHandle = pool.schedulePeriodic(0, last);

    clock.advanceMs(TaskPool::kTickMs);
    pool.runPendingTasks();
    QCOMPARE(first->runs, 1);
    QCOMPARE(outer->runs, 1);
    QCOMPARE(last->runs, 1);
    QCOMPARE(inner->runs, 0);
    QCOMPARE(pool.taskCount(), std::size_t(403));
    QCOMPARE(innerHandles.back()->id(), uint64_t(401));

    clock.advanceMs(TaskPool::kTickMs);
    pool.runPendingTasks();
    QCOMPARE(inner->runs, 400);
    QCOMPARE(outer->runs, 1);
}

void TestTaskPool::taskCancellingItsOwnHandleInsideItsRunIsNotRunAgain()
{
    ManualClock clock(0);
    TaskPool pool;
    std::shared_ptr<ITaskHandle> handle;
    bool cancelResult = true;
    auto task = std::make_shared<RecordingTask>([&] { cancelResult = handle->cancel(); });
    handle = pool.schedulePeriodic(10, task);

    clock.setNs(10 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 1);
    QCOMPARE(cancelResult, false);
    QCOMPARE(pool.taskCount(), std::size_t(1));

    clock.setNs(20 * kMs + 2);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 1);
    QCOMPARE(pool.taskCount(), std::size_t(0));
}

void TestTaskPool::taskCancelledByAnEarlierTaskInTheSameTickIsNotRun()
{
    ManualClock clock(0);
    TaskPool pool;
    std::shared_ptr<ITaskHandle> laterHandle;
    auto earlier = std::make_shared<RecordingTask>([&] { laterHandle->cancel(); });
    auto later = std::make_shared<RecordingTask>();
    auto earlierHandle = pool.schedulePeriodic(10, earlier);
    laterHandle = pool.schedulePeriodic(10, later);

    clock.setNs(10 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(earlier->runs, 1);
    QCOMPARE(later->runs, 0);
    QCOMPARE(pool.taskCount(), std::size_t(1));
}

void TestTaskPool::taskWhoseOwnerIsReleasedInsideAnotherTasksRunIsDroppedWithoutCall()
{
    ManualClock clock(0);
    TaskPool pool;
    auto laterCalls = std::make_shared<int>(0);
    auto later = std::make_shared<RecordingTask>([laterCalls] { ++*laterCalls; });
    auto earlier = std::make_shared<RecordingTask>([&] { later.reset(); });
    auto earlierHandle = pool.schedulePeriodic(10, earlier);
    auto laterHandle = pool.schedulePeriodic(10, later);

    clock.setNs(10 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(earlier->runs, 1);
    QCOMPARE(*laterCalls, 0);
    QCOMPARE(pool.taskCount(), std::size_t(1));
    QCOMPARE(laterHandle.use_count(), 1L);
}

void TestTaskPool::taskReleasingItsOwnLastOwnerInsideItsRunFinishesTheRun()
{
    ManualClock clock(0);
    TaskPool pool;
    bool destroyed = false;
    bool destroyedDuringRun = true;
    std::shared_ptr<LifetimeTask> owner;
    owner = std::make_shared<LifetimeTask>(&destroyed, [&](LifetimeTask*) {
        owner.reset();
        destroyedDuringRun = destroyed;
    });
    std::weak_ptr<LifetimeTask> watch = owner;
    auto handle = pool.schedulePeriodic(10, owner);

    clock.setNs(10 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(destroyedDuringRun, false);
    // The pool let go of it as soon as the run returned.
    QCOMPARE(destroyed, true);
    QVERIFY(watch.expired());

    clock.setNs(20 * kMs + 2);
    pool.runPendingTasks();
    QCOMPARE(pool.taskCount(), std::size_t(0));
}

void TestTaskPool::schedulingDoesNotStartTheTimer()
{
    ManualClock clock;
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    pool.scheduleOnce(0, task);
    auto handle = pool.schedulePeriodic(0, task);

    QCOMPARE(pool.isTimerActive(), false);
    QCOMPARE(pool.isRunning(), false);
}

void TestTaskPool::startArmsTheTimerWithFiveMilliseconds()
{
    TaskPool pool;
    pool.start();
    QCOMPARE(pool.isRunning(), true);
    QCOMPARE(pool.isTimerActive(), true);
    QCOMPARE(pool.timerIntervalMs(), 5);
}

void TestTaskPool::startLeavesAnActiveTimerAlone()
{
    TaskPool pool;
    pool.start();
    pool.start();
    QCOMPARE(pool.isTimerActive(), true);
    QCOMPARE(pool.timerIntervalMs(), 5);
}

void TestTaskPool::stopClearsRunningAndDisarmsTheTimer()
{
    TaskPool pool;
    pool.start();
    pool.stop();
    QCOMPARE(pool.isRunning(), false);
    QCOMPARE(pool.isTimerActive(), false);
}

void TestTaskPool::tickRearmsTheTimerWithFiveMilliseconds_data()
{
    QTest::addColumn<bool>("startFirst");
    QTest::addColumn<bool>("running");
    QTest::newRow("running") << true << true;
    // A pool that was never started is driven by hand: its tick arms the timer as well.
    QTest::newRow("never started") << false << false;
}

void TestTaskPool::tickRearmsTheTimerWithFiveMilliseconds()
{
    QFETCH(bool, startFirst);
    QFETCH(bool, running);
    ManualClock clock;
    TaskPool pool;
    if (startFirst) {
        pool.start();
    }

    pool.runPendingTasks();
    QCOMPARE(pool.isRunning(), running);
    QCOMPARE(pool.isTimerActive(), true);
    QCOMPARE(pool.timerIntervalMs(), 5);
}

void TestTaskPool::tickOnAStoppedPoolLeavesItDisarmed()
{
    ManualClock clock;
    TaskPool pool;
    pool.start();
    pool.stop();

    pool.runPendingTasks();
    QCOMPARE(pool.isRunning(), false);
    QCOMPARE(pool.isTimerActive(), false);
    QCOMPARE(pool.armedForNs(), int64_t(-1));
}

void TestTaskPool::stopKeepsRecordsAndStartResumesWithOldLastRunTimes()
{
    ManualClock clock(0);
    TaskPool pool;
    auto periodic = std::make_shared<RecordingTask>();
    auto once = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(100, periodic);
    pool.scheduleOnce(100, once);
    pool.start();
    pool.stop();
    QCOMPARE(pool.taskCount(), std::size_t(2));

    // Had start() reset the last-run times, nothing would be due at 150 ms.
    clock.setNs(150 * kMs);
    pool.start();
    QCOMPARE(pool.taskCount(), std::size_t(2));
    pool.runPendingTasks();
    QCOMPARE(periodic->runs, 1);
    QCOMPARE(once->runs, 1);
}

void TestTaskPool::destroyingThePoolReleasesRecordsWithoutRunningThem()
{
    ManualClock clock(0);
    auto task = std::make_shared<RecordingTask>();
    std::shared_ptr<ITaskHandle> handle;
    {
        TaskPool pool;
        handle = pool.schedulePeriodic(0, task);
        pool.scheduleOnce(0, task);
        pool.start();
        clock.setNs(1000 * kMs);
        QCOMPARE(handle.use_count(), 2L);
    }
    QCOMPARE(handle.use_count(), 1L);
    QCOMPARE(task->runs, 0);
    QCOMPARE(task.use_count(), 1L);
    // The handle stays usable on its own.
    QCOMPARE(handle->cancel(), false);
}

void TestTaskPool::taskStoppingItsPoolFinishesItsRunAndEndsTheTick()
{
    ManualClock clock(0);
    TaskPool pool;
    auto before = std::make_shared<RecordingTask>();
    bool stopperFinished = false;
    auto stopper = std::make_shared<RecordingTask>([&] {
        pool.stop();
        stopperFinished = true;
    });
    auto after = std::make_shared<RecordingTask>();
    auto beforeHandle = pool.schedulePeriodic(50, before);
    auto stopperHandle = pool.schedulePeriodic(50, stopper);
    auto afterHandle = pool.schedulePeriodic(50, after);
    pool.start();
    clock.setNs(pool.armedForNs());
    pool.runPendingTasks();

    // The task that stopped the pool finishes its run; the rest of the walk does not run: a
    // stopped surface steps no fader and flashes no light any more.
    QCOMPARE(before->runs, 1);
    QCOMPARE(stopper->runs, 1);
    QVERIFY(stopperFinished);
    QCOMPARE(after->runs, 0);
    // Nor does the end of the tick arm the pool again.
    QCOMPARE(pool.isRunning(), false);
    QCOMPARE(pool.isTimerActive(), false);
    QCOMPARE(pool.armedForNs(), int64_t(-1));
    QCOMPARE(pool.armedWaitMs(), -1);

    // A tick that still comes (a timer event already on its way) runs and arms nothing.
    for (int i = 0; i < 40; ++i) {
        clock.advanceMs(TaskPool::kTickMs);
        pool.runPendingTasks();
    }
    QCOMPARE(before->runs, 1);
    QCOMPARE(stopper->runs, 1);
    QCOMPARE(after->runs, 0);
    QCOMPARE(pool.isTimerActive(), false);
    QCOMPARE(pool.armedForNs(), int64_t(-1));
    QCOMPARE(pool.taskCount(), std::size_t(3));
}

void TestTaskPool::drivenPoolStoppedByItsOwnTaskIsNotTickedAgain()
{
    const TarvixTimeDrive* const drive = tarvixWorksurfaceTimeDrive();
    DrivenClock clock(drive);
    TaskPool pool;
    bool stopOnThirdRun = true;
    int stopperRuns = 0;
    auto stopper = std::make_shared<RecordingTask>([&] {
        if (++stopperRuns == 3 && stopOnThirdRun) {
            pool.stop();
        }
    });
    auto other = std::make_shared<RecordingTask>();
    auto stopperHandle = pool.schedulePeriodic(50, stopper);
    auto otherHandle = pool.schedulePeriodic(50, other);
    pool.start();

    clock.advance(1000);
    QCOMPARE(stopper->runs, 3);
    QCOMPARE(other->runs, 2);
    QCOMPARE(pool.armedForNs(), int64_t(-1));
    // Nothing of the pool is left for the runner to fire.
    QCOMPARE(drive->nextDueNs(), qint64(-1));

    // Started again, it runs both at its first tick, 5 ms on, and every period from there.
    stopOnThirdRun = false;
    pool.start();
    clock.advance(60);
    QCOMPARE(stopper->runs, 5);
    QCOMPARE(other->runs, 4);
    pool.stop();
}

void TestTaskPool::stopFromAnotherThreadDuringATickEndsTheTickWithoutWaitingForIt()
{
    ManualClock clock(0);
    TaskPool pool;
    std::mutex mutex;
    std::condition_variable changed;
    bool inTick = false;
    bool stopReturned = false;
    bool stopReturnedDuringTheRun = false;
    // Bounded waits, so that a stop() that waited for the tick fails the test instead of
    // hanging it.
    constexpr auto kBound = std::chrono::seconds(10);
    auto waiter = std::make_shared<RecordingTask>([&] {
        std::unique_lock<std::mutex> lock(mutex);
        inTick = true;
        changed.notify_all();
        stopReturnedDuringTheRun = changed.wait_for(lock, kBound, [&] { return stopReturned; });
    });
    auto after = std::make_shared<RecordingTask>();
    auto waiterHandle = pool.schedulePeriodic(50, waiter);
    auto afterHandle = pool.schedulePeriodic(50, after);
    pool.start();

    // The other thread stops the pool while this one is inside the waiter's run.
    std::thread other([&] {
        {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait_for(lock, kBound, [&] { return inTick; });
        }
        pool.stop();
        std::lock_guard<std::mutex> lock(mutex);
        stopReturned = true;
        changed.notify_all();
    });
    clock.setNs(pool.armedForNs());
    pool.runPendingTasks();
    other.join();

    QVERIFY(stopReturnedDuringTheRun);
    QCOMPARE(waiter->runs, 1);
    QCOMPARE(after->runs, 0);
    QCOMPARE(pool.isRunning(), false);
    QCOMPARE(pool.armedForNs(), int64_t(-1));
    // The timer is only touched on its own thread, where the stop reaches it as an event.
    QCoreApplication::sendPostedEvents(&pool);
    QCOMPARE(pool.isTimerActive(), false);

    for (int i = 0; i < 40; ++i) {
        clock.advanceMs(TaskPool::kTickMs);
        pool.runPendingTasks();
    }
    QCOMPARE(waiter->runs, 1);
    QCOMPARE(after->runs, 0);
    QCOMPARE(pool.isTimerActive(), false);
}

void TestTaskPool::startAfterAStopInATickRunsWhatTheTickLeftOutAtTheFirstTick()
{
    ManualClock clock(0);
    TaskPool pool;
    bool stopNow = true;
    auto stopper = std::make_shared<RecordingTask>([&] {
        if (stopNow) {
            pool.stop();
        }
    });
    auto after = std::make_shared<RecordingTask>();
    auto stopperHandle = pool.schedulePeriodic(50, stopper);
    auto afterHandle = pool.schedulePeriodic(50, after);
    pool.start();
    clock.setNs(55 * kMs);
    pool.runPendingTasks();
    QCOMPARE(stopper->runs, 1);
    QCOMPARE(after->runs, 0);

    // The surface thread starts again a second later.
    stopNow = false;
    clock.setNs(1055 * kMs);
    pool.start();
    QCOMPARE(pool.isRunning(), true);
    QCOMPARE(pool.isTimerActive(), true);
    // Both are overdue: the first tick, 5 ms after start(), runs them.
    QCOMPARE(pool.armedForNs(), 1060 * kMs);
    QCOMPARE(pool.armedWaitMs(), TaskPool::kTickMs);
    clock.setNs(1060 * kMs);
    pool.runPendingTasks();
    QCOMPARE(stopper->runs, 2);
    QCOMPARE(after->runs, 1);
    // And every 55 ms on the 5 ms grid from there, both in the same tick.
    QCOMPARE(pool.armedForNs(), 1115 * kMs);
    clock.setNs(1115 * kMs);
    pool.runPendingTasks();
    QCOMPARE(stopper->runs, 3);
    QCOMPARE(after->runs, 2);
}

void TestTaskPool::startArmsForTheFirstTickAtWhichATaskIsDue()
{
    ManualClock clock(0);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(50, task);
    pool.start();
    // A tick at exactly 50 ms would not run it (strictly more than the interval): 55 ms.
    QCOMPARE(pool.armedForNs(), 55 * kMs);
    QCOMPARE(pool.armedWaitMs(), 55);
    QCOMPARE(pool.timerIntervalMs(), TaskPool::kTickMs);
}

void TestTaskPool::tickArmsForTheNextTickWithWorkMeasuredFromItsEnd()
{
    ManualClock clock(0);
    TaskPool pool;
    // The run takes 2 ms: the next run is due 50 ms after its end, and the grid is anchored
    // at the end of the tick, as a timer re-armed with 5 ms at that moment would be.
    auto task = std::make_shared<RecordingTask>([&clock] { clock.advanceMs(2); });
    auto handle = pool.schedulePeriodic(50, task);
    pool.start();
    clock.setNs(55 * kMs);
    pool.runPendingTasks();
    QCOMPARE(task->runs, 1);
    QCOMPARE(clock.nowNs(), 57 * kMs);
    // Last run 57; ticks at 62, 67, ... 107 (exactly 50 after: not due), 112.
    QCOMPARE(pool.armedForNs(), 112 * kMs);
    QCOMPARE(pool.armedWaitMs(), 55);
}

void TestTaskPool::emptyPoolSleepsForTheIdleWait()
{
    ManualClock clock(0);
    TaskPool pool;
    pool.start();
    QCOMPARE(pool.armedWaitMs(), TaskPool::kIdleWaitMs);
    clock.setNs(TaskPool::kIdleWaitMs * kMs);
    pool.runPendingTasks();
    QCOMPARE(pool.armedForNs(), 2 * TaskPool::kIdleWaitMs * kMs);
}

void TestTaskPool::recordsTooFarOffLeaveThePoolOnTheIdleWait()
{
    ManualClock clock(0);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    auto hour = pool.schedulePeriodic(3600 * 1000, task);
    auto never = pool.schedulePeriodic(std::numeric_limits<uint64_t>::max(), task);
    pool.start();
    QCOMPARE(pool.armedForNs(), TaskPool::kIdleWaitMs * kMs);
    QCOMPARE(task->runs, 0);
}

void TestTaskPool::schedulingWakesASleepingPoolForAnEarlierTick()
{
    ManualClock clock(0);
    TaskPool pool;
    auto slow = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(1000, slow);
    pool.start();
    QCOMPARE(pool.armedForNs(), 1005 * kMs);

    // The 5 ms timer would have ticked at 15 ms and run it there; so does the sleeping pool.
    clock.setNs(12 * kMs);
    auto quick = std::make_shared<RecordingTask>();
    pool.scheduleOnce(0, quick);
    QCOMPARE(pool.armedForNs(), 15 * kMs);
    QCOMPARE(pool.armedWaitMs(), 3);

    clock.setNs(15 * kMs);
    pool.runPendingTasks();
    QCOMPARE(quick->runs, 1);
    QCOMPARE(slow->runs, 0);
    // The single-shot record is dropped when it next comes due, 5 ms on.
    QCOMPARE(pool.armedForNs(), 20 * kMs);
}

void TestTaskPool::schedulingALaterTaskLeavesTheArmedTickAlone()
{
    ManualClock clock(0);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(50, task);
    pool.start();
    clock.setNs(3 * kMs);
    pool.scheduleOnce(200, task);
    QCOMPARE(pool.armedForNs(), 55 * kMs);
    QCOMPARE(pool.armedWaitMs(), 55);
}

void TestTaskPool::schedulingInsideARunIsArmedForByTheEndOfTheTick()
{
    ManualClock clock(0);
    TaskPool pool;
    auto inner = std::make_shared<RecordingTask>();
    auto outer = std::make_shared<RecordingTask>([&] { pool.scheduleOnce(7, inner); });
    pool.scheduleOnce(20, outer);
    pool.start();
    QCOMPARE(pool.armedForNs(), 25 * kMs);
    clock.setNs(25 * kMs);
    pool.runPendingTasks();
    QCOMPARE(outer->runs, 1);
    // Inner was scheduled at 25: due after 32, so the tick at 35.
    QCOMPARE(pool.armedForNs(), 35 * kMs);
    clock.setNs(35 * kMs);
    pool.runPendingTasks();
    QCOMPARE(inner->runs, 1);
}

void TestTaskPool::schedulingFromAnotherThreadWakesThePoolThroughItsEventLoop()
{
    ManualClock clock(0);
    TaskPool pool;
    auto slow = std::make_shared<RecordingTask>();
    auto handle = pool.schedulePeriodic(1000, slow);
    pool.start();
    QCOMPARE(pool.armedForNs(), 1005 * kMs);

    auto quick = std::make_shared<RecordingTask>();
    std::thread other([&] { pool.scheduleOnce(10, quick); });
    other.join();
    // The timer belongs to this thread: the other one only posts the wake.
    QCOMPARE(pool.armedForNs(), 1005 * kMs);
    QCoreApplication::sendPostedEvents(&pool);
    QCOMPARE(pool.armedForNs(), 15 * kMs);
}

namespace {

// One run of a scenario with a mix of the pool's real customers (three 50 ms link passes
// scheduled a little apart, a 25 ms flash step that takes 1 ms, a 1000 ms pot request, a
// single-shot auto-baud step, a task that schedules another from inside its run and
// cancels itself later, and a schedule call between ticks), driven either by a tick every
// 5 ms or by ticks only when the pool is armed for them. Returns "name@ms" per run.
std::vector<QString> runScenario(bool sleeping, int* ticks)
{
    ManualClock clock(0);
    TaskPool pool;
    std::vector<QString> log;
    std::vector<std::shared_ptr<ITask>> keep;
    std::vector<std::shared_ptr<ITaskHandle>> handles;
    auto make = [&](const QString& name, std::function<void()> body = {}) {
        auto task = std::make_shared<RecordingTask>([&log, &clock, name, body] {
            log.push_back(name + QLatin1Char('@') + QString::number(clock.nowNs() / kMs));
            if (body) {
                body();
            }
        });
        keep.push_back(task);
        return task;
    };

    handles.push_back(pool.schedulePeriodic(50, make(QStringLiteral("link0"))));
    clock.setNs(1 * kMs);
    handles.push_back(pool.schedulePeriodic(50, make(QStringLiteral("link1"))));
    clock.setNs(3 * kMs);
    handles.push_back(pool.schedulePeriodic(50, make(QStringLiteral("link2"))));
    handles.push_back(
        pool.schedulePeriodic(25, make(QStringLiteral("flash"), [&clock] { clock.advanceMs(1); })));
    handles.push_back(pool.schedulePeriodic(1000, make(QStringLiteral("pot"))));
    pool.scheduleOnce(7, make(QStringLiteral("autobaud")));
    int spawnerRuns = 0;
    std::shared_ptr<ITaskHandle> spawnerHandle;
    auto spawned = make(QStringLiteral("spawned"));
    spawnerHandle = pool.schedulePeriodic(40, make(QStringLiteral("spawner"), [&] {
                                              ++spawnerRuns;
                                              if (spawnerRuns == 3) {
                                                  pool.scheduleOnce(0, spawned);
                                              }
                                              if (spawnerRuns == 5) {
                                                  spawnerHandle->cancel();
                                              }
                                          }));
    auto late = make(QStringLiteral("late"));
    pool.start();

    constexpr int64_t kEndNs = 2600 * kMs;
    constexpr int64_t kOutsideCallNs = 331 * kMs;
    bool outsideCallDone = false;
    // The plain timer is re-armed with 5 ms at the end of each tick.
    int64_t plainNext = clock.nowNs() + TaskPool::kTickMs * kMs;
    *ticks = 0;
    for (;;) {
        const int64_t next = sleeping ? pool.armedForNs() : plainNext;
        if (next >= kEndNs) {
            break;
        }
        if (!outsideCallDone && next > kOutsideCallNs) {
            // A call from the QML side between two ticks.
            outsideCallDone = true;
            clock.setNs(kOutsideCallNs);
            pool.scheduleOnce(2, late);
            continue;
        }
        clock.setNs(next);
        pool.runPendingTasks();
        plainNext = clock.nowNs() + TaskPool::kTickMs * kMs;
        ++*ticks;
    }
    return log;
}

}  // namespace

void TestTaskPool::sleepingRunsEveryTaskAtTheSameTickAndInTheSameOrderAsTheFiveMsTick()
{
    int plainTicks = 0;
    int sleepingTicks = 0;
    const std::vector<QString> plain = runScenario(false, &plainTicks);
    const std::vector<QString> sleeping = runScenario(true, &sleepingTicks);

    QVERIFY2(plain.size() > 200, qPrintable(QString::number(plain.size())));
    QCOMPARE(sleeping, plain);
    // Spot checks that the scenario is what it claims to be.
    QVERIFY(std::find(plain.begin(), plain.end(), QStringLiteral("autobaud@13")) != plain.end());
    QCOMPARE(std::count_if(plain.begin(), plain.end(),
                           [](const QString& s) { return s.startsWith(QLatin1String("late@33")); }),
             std::ptrdiff_t(1));
    QCOMPARE(
        std::count_if(plain.begin(), plain.end(),
                      [](const QString& s) { return s.startsWith(QLatin1String("spawned@")); }),
        std::ptrdiff_t(1));
    QCOMPARE(std::count_if(plain.begin(), plain.end(),
                           [](const QString& s) { return s.startsWith(QLatin1String("spawner")); }),
             std::ptrdiff_t(5));
    // The flash step wakes it every 30 ms at most (25 ms due, 1 ms run, 5 ms grid); the
    // link passes share ticks. Far fewer wakes than one per 5 ms.
    QVERIFY2(sleepingTicks * 2 < plainTicks,
             qPrintable(QStringLiteral("%1 of %2").arg(sleepingTicks).arg(plainTicks)));
}

namespace {

// Runs `pool` by hand until the manual clock has moved on by `ms`, each tick at the clock
// time the pool is armed for, as its timer would. Returns how many tasks each tick ran, by
// the tick's time; `runs` counts every run of the tasks watched.
std::map<int64_t, int> runArmedTicks(TaskPool& pool, ManualClock& clock, const int& runs,
                                     int64_t ms)
{
    std::map<int64_t, int> ranAt;
    const int64_t untilNs = clock.nowNs() + ms * kMs;
    while (pool.armedForNs() >= 0 && pool.armedForNs() < untilNs) {
        clock.setNs(pool.armedForNs());
        const int64_t tickNs = clock.nowNs();
        const int before = runs;
        pool.runPendingTasks();
        if (runs > before) {
            ranAt[tickNs] = runs - before;
        }
    }
    return ranAt;
}

// The ms of each tick in `ranAt` that ran something, from `originNs`.
QList<qint64> tickMs(const std::map<int64_t, int>& ranAt, int64_t originNs = 0)
{
    QList<qint64> ms;
    for (const auto& tick : ranAt) {
        ms << (tick.first - originNs) / kMs;
    }
    return ms;
}

}  // namespace

void TestTaskPool::fiftyMsTasksScheduledOverTwentyMsComeToShareOneTick_data()
{
    QTest::addColumn<bool>("driven");
    QTest::newRow("ticks by hand") << false;
    QTest::newRow("driven clock") << true;
}

void TestTaskPool::fiftyMsTasksScheduledOverTwentyMsComeToShareOneTick()
{
    // A slow start-up: the 31 fader steps and three link passes of a K60 surface scheduled
    // over 20 ms, across five cells of the 5 ms grid.
    QFETCH(bool, driven);
    constexpr int kTasks = 34;
    std::unique_ptr<ManualClock> manual;
    std::unique_ptr<DrivenClock> drivenClock;
    if (driven) {
        drivenClock = std::make_unique<DrivenClock>(tarvixWorksurfaceTimeDrive());
    } else {
        manual = std::make_unique<ManualClock>(0);
    }
    const int64_t startNs = MonotonicClock::nowNs();
    TaskPool pool;
    std::vector<int64_t> runTimes;
    int runs = 0;
    std::vector<std::shared_ptr<RecordingTask>> tasks;
    std::vector<std::shared_ptr<ITaskHandle>> handles;
    for (int i = 0; i < kTasks; ++i) {
        const int64_t atNs = startNs + i * 20 * kMs / (kTasks - 1);
        if (driven) {
            drivenClock->advance(static_cast<double>(atNs - MonotonicClock::nowNs()) / kMs);
        } else {
            manual->setNs(atNs);
        }
        tasks.push_back(std::make_shared<RecordingTask>([&runTimes, &runs] {
            runTimes.push_back(MonotonicClock::nowNs());
            ++runs;
        }));
        handles.push_back(pool.schedulePeriodic(50, tasks.back()));
    }
    pool.start();
    if (driven) {
        drivenClock->advance(2000);
    } else {
        runArmedTicks(pool, *manual, runs, 2000);
    }
    pool.stop();

    // The ticks of the last second; runs less than a millisecond apart share a tick.
    std::vector<std::pair<int64_t, int>> ticks;
    for (const int64_t t : runTimes) {
        if (t < startNs + 1000 * kMs) {
            continue;
        }
        if (ticks.empty() || t - ticks.back().first >= kMs) {
            ticks.emplace_back(t, 0);
        }
        ++ticks.back().second;
    }
    // One tick a period, and every task in it.
    QVERIFY2(ticks.size() >= 17, qPrintable(QString::number(ticks.size())));
    for (std::size_t i = 0; i < ticks.size(); ++i) {
        QVERIFY2(ticks[i].second == kTasks,
                 qPrintable(QStringLiteral("%1 runs in the tick at %2 ms")
                                .arg(ticks[i].second)
                                .arg(double(ticks[i].first - startNs) / kMs)));
        if (i > 0) {
            QVERIFY(ticks[i].first - ticks[i - 1].first > 50 * kMs);
        }
    }
}

void TestTaskPool::tasksSplitByALongRunShareOneTickAgainFromTheNextPeriod()
{
    // Ten 50 ms tasks share a tick until one run takes 12 ms (the thread was preempted): the
    // tasks after it end 12 ms later than those before it.
    ManualClock clock(0);
    TaskPool pool;
    int runs = 0;
    std::vector<std::shared_ptr<RecordingTask>> tasks;
    std::vector<std::shared_ptr<ITaskHandle>> handles;
    for (int i = 0; i < 10; ++i) {
        tasks.push_back(std::make_shared<RecordingTask>([&runs, &clock, i] {
            if (++runs == 2 * 10 + 5 && i == 4) {
                clock.advanceMs(12);
            }
        }));
        handles.push_back(pool.schedulePeriodic(50, tasks.back()));
    }
    pool.start();
    const std::map<int64_t, int> ranAt = runArmedTicks(pool, clock, runs, 500);

    // 55, 110, then 165 (the long tick, ending at 177); the tasks that ended at 165 wait for
    // those that ended at 177 and all run at 232, and on together from there.
    QCOMPARE(tickMs(ranAt), QList<qint64>({55, 110, 165, 232, 287, 342, 397, 452}));
    for (const auto& tick : ranAt) {
        QCOMPARE(tick.second, 10);
    }
}

void TestTaskPool::taskWaitsForItsIntervalsOthersAtMostHalfAnIntervalAndNeverRunsEarly_data()
{
    QTest::addColumn<int>("laterMs");
    QTest::addColumn<QList<qint64>>("firstRuns");
    QTest::addColumn<QList<qint64>>("laterRuns");
    // Scheduled together: both run 55 ms on, and every 55 ms.
    QTest::newRow("same time") << 0 << QList<qint64>({55, 110, 165})
                               << QList<qint64>({55, 110, 165});
    // The first waits for the second, 20 ms behind it, and runs with it from the first run.
    QTest::newRow("20 ms behind") << 20 << QList<qint64>({75, 130, 185})
                                  << QList<qint64>({75, 130, 185});
    // Exactly half an interval behind: still one phase.
    QTest::newRow("25 ms behind") << 25 << QList<qint64>({80, 135, 190})
                                  << QList<qint64>({80, 135, 190});
    // More than half an interval behind: the first runs on its own time; once it has run, the
    // second is the one behind, by less than half an interval, and waits for it.
    QTest::newRow("30 ms behind") << 30 << QList<qint64>({55, 110, 165})
                                  << QList<qint64>({110, 165});
    // The longest wait: 26 ms behind, the second runs at 80; the first, whose next run was
    // due at 110, waits for the second's at 135: half an interval late, to the grid.
    QTest::newRow("26 ms behind") << 26 << QList<qint64>({55, 135, 190})
                                  << QList<qint64>({80, 135, 190});
}

void TestTaskPool::taskWaitsForItsIntervalsOthersAtMostHalfAnIntervalAndNeverRunsEarly()
{
    QFETCH(int, laterMs);
    QFETCH(QList<qint64>, firstRuns);
    QFETCH(QList<qint64>, laterRuns);
    ManualClock clock(0);
    TaskPool pool;
    int runs = 0;
    QList<qint64> firstAt;
    QList<qint64> laterAt;
    auto first = std::make_shared<RecordingTask>([&] {
        ++runs;
        firstAt << clock.nowNs() / kMs;
    });
    auto later = std::make_shared<RecordingTask>([&] {
        ++runs;
        laterAt << clock.nowNs() / kMs;
    });
    auto firstHandle = pool.schedulePeriodic(50, first);
    pool.start();
    clock.setNs(laterMs * kMs);
    auto laterHandle = pool.schedulePeriodic(50, later);
    runArmedTicks(pool, clock, runs, 200 - laterMs);

    QCOMPARE(firstAt, firstRuns);
    QCOMPARE(laterAt, laterRuns);
}

void TestTaskPool::tasksOfDifferentIntervalsKeepTheirOwnTicks()
{
    ManualClock clock(0);
    TaskPool pool;
    int runs = 0;
    QList<qint64> fiftyAt;
    QList<qint64> sixtyAt;
    QList<qint64> onceAt;
    auto fifty = std::make_shared<RecordingTask>([&] {
        ++runs;
        fiftyAt << clock.nowNs() / kMs;
    });
    auto sixty = std::make_shared<RecordingTask>([&] {
        ++runs;
        sixtyAt << clock.nowNs() / kMs;
    });
    auto once = std::make_shared<RecordingTask>([&] {
        ++runs;
        onceAt << clock.nowNs() / kMs;
    });
    auto cancelled = std::make_shared<RecordingTask>([&] { ++runs; });
    auto fiftyHandle = pool.schedulePeriodic(50, fifty);
    pool.start();
    // 10 ms behind the 50 ms task: a task of another interval, a one-off of the same and a
    // cancelled one of the same hold nothing back.
    clock.setNs(10 * kMs);
    auto sixtyHandle = pool.schedulePeriodic(60, sixty);
    pool.scheduleOnce(50, once);
    auto cancelledHandle = pool.schedulePeriodic(50, cancelled);
    cancelledHandle->cancel();
    runArmedTicks(pool, clock, runs, 190);

    QCOMPARE(fiftyAt, QList<qint64>({55, 110, 165}));
    QCOMPARE(sixtyAt, QList<qint64>({75, 140}));
    QCOMPARE(onceAt, QList<qint64>({65}));
}

void TestTaskPool::schedulingFromSeveralThreadsGivesEveryTaskItsOwnConsecutiveId()
{
    ManualClock clock(0);
    TaskPool pool;
    auto task = std::make_shared<RecordingTask>();
    constexpr int perThread = 500;
    std::vector<std::shared_ptr<ITaskHandle>> handlesA;
    std::vector<std::shared_ptr<ITaskHandle>> handlesB;
    auto scheduleMany = [&](std::vector<std::shared_ptr<ITaskHandle>>* out) {
        for (int i = 0; i < perThread; ++i) {
            out->push_back(pool.schedulePeriodic(1000, task));
            out->back()->cancel();
        }
    };
    std::thread a(scheduleMany, &handlesA);
    std::thread b(scheduleMany, &handlesB);
    // Ticks on this thread while the others schedule; nothing is due yet.
    for (int i = 0; i < 50; ++i) {
        pool.runPendingTasks();
    }
    a.join();
    b.join();

    std::vector<uint64_t> ids;
    for (const auto& h : handlesA) {
        ids.push_back(h->id());
    }
    for (const auto& h : handlesB) {
        ids.push_back(h->id());
    }
    std::sort(ids.begin(), ids.end());
    for (std::size_t i = 0; i < ids.size(); ++i) {
        QCOMPARE(ids[i], uint64_t(i));
    }
    QCOMPARE(pool.taskCount(), std::size_t(2 * perThread));

    clock.setNs(1000 * kMs + 1);
    pool.runPendingTasks();
    QCOMPARE(pool.taskCount(), std::size_t(0));
    QCOMPARE(task->runs, 0);
}

QTEST_GUILESS_MAIN(TestTaskPool)
#include "tst_taskpool.moc"
