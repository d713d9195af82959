#include <QtTest/QtTest>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "surface/flashschedule.h"
#include "tasks/itask.h"
#include "tasks/itaskhandle.h"
#include "tasks/itaskpool.h"

using namespace Velmora::Worksurface;

namespace {

class RecordingTaskHandle : public ITaskHandle
{
public:
    explicit RecordingTaskHandle(uint64_t id) : m_id(id) {}
    uint64_t id() const override { return m_id; }
    bool cancel() override
    {
        const bool was = cancelled;
        cancelled = true;
        return was;
    }

    bool cancelled = false;

private:
    const uint64_t m_id;
};

// Records what it is asked to schedule and keeps the handles, as the real pool keeps its
// records; `whileScheduling` runs inside schedulePeriodic, before the handle is returned.
class RecordingTaskPool : public ITaskPool
{
public:
    void scheduleOnce(uint64_t /*intervalMs*/, const std::shared_ptr<ITask>& /*task*/) override {}
    std::shared_ptr<ITaskHandle> schedulePeriodic(uint64_t intervalMs,
                                                  const std::shared_ptr<ITask>& task) override
    {
        intervals.push_back(intervalMs);
        tasks.push_back(task);
        if (whileScheduling) {
            whileScheduling();
        }
        handles.push_back(std::make_shared<RecordingTaskHandle>(handles.size() + 1));
        return handles.back();
    }

    std::vector<uint64_t> intervals;
    std::vector<std::shared_ptr<ITask>> tasks;
    std::vector<std::shared_ptr<RecordingTaskHandle>> handles;
    std::function<void()> whileScheduling;
};

class CountingStep : public ITask
{
public:
    void run() override { ++runs; }
    int runs = 0;
};

struct Rig
{
    std::shared_ptr<RecordingTaskPool> pool = std::make_shared<RecordingTaskPool>();
    std::shared_ptr<CountingStep> step = std::make_shared<CountingStep>();
    std::mutex mutex;
    FlashSchedule flash{pool};
};

}  // namespace

class TestFlashSchedule : public QObject
{
    Q_OBJECT

private slots:
    void startsDisabledWithNoIntervalNoPhaseAndNoTask()
    {
        Rig rig;
        QCOMPARE(rig.flash.enabled(), false);
        QCOMPARE(rig.flash.interval(), int64_t(0));
        QCOMPARE(rig.flash.phase(), false);
        QCOMPARE(rig.flash.running(), false);
    }

    void settersReportWhetherTheValueChanged()
    {
        Rig rig;
        QCOMPARE(rig.flash.setEnabled(false), false);
        QCOMPARE(rig.flash.setEnabled(true), true);
        QCOMPARE(rig.flash.setEnabled(true), false);
        QCOMPARE(rig.flash.enabled(), true);
        QCOMPARE(rig.flash.setInterval(0), false);
        QCOMPARE(rig.flash.setInterval(500), true);
        QCOMPARE(rig.flash.setInterval(500), false);
        QCOMPARE(rig.flash.interval(), int64_t(500));
    }

    void togglePhaseReturnsThePhaseBeforeTheFlip()
    {
        Rig rig;
        QCOMPARE(rig.flash.togglePhase(), false);
        QCOMPARE(rig.flash.phase(), true);
        QCOMPARE(rig.flash.togglePhase(), true);
        QCOMPARE(rig.flash.phase(), false);
    }

    void startSchedulesTheStepPeriodicallyAtHalfTheInterval()
    {
        Rig rig;
        rig.flash.setInterval(501);
        std::unique_lock<std::mutex> lock(rig.mutex);
        rig.flash.start(lock, rig.step);
        QVERIFY(lock.owns_lock());
        QCOMPARE(rig.pool->intervals, std::vector<uint64_t>{250});
        QCOMPARE(rig.pool->tasks.size(), size_t(1));
        QCOMPARE(rig.pool->tasks.front().get(), static_cast<ITask*>(rig.step.get()));
        QCOMPARE(rig.flash.running(), true);
    }

    void startReleasesTheMutexWhileAskingThePool()
    {
        Rig rig;
        rig.flash.setInterval(200);
        bool couldLock = false;
        rig.pool->whileScheduling = [&rig, &couldLock] {
            couldLock = rig.mutex.try_lock();
            if (couldLock) {
                rig.mutex.unlock();
            }
        };
        std::unique_lock<std::mutex> lock(rig.mutex);
        rig.flash.start(lock, rig.step);
        QVERIFY(couldLock);
        QVERIFY(lock.owns_lock());
    }

    void startCancelsTheTaskItReplaces()
    {
        Rig rig;
        rig.flash.setInterval(200);
        std::unique_lock<std::mutex> lock(rig.mutex);
        rig.flash.start(lock, rig.step);
        rig.flash.start(lock, rig.step);
        QCOMPARE(rig.pool->handles.size(), size_t(2));
        QCOMPARE(rig.pool->handles[0]->cancelled, true);
        QCOMPARE(rig.pool->handles[1]->cancelled, false);
        QCOMPARE(rig.flash.running(), true);
    }

    void stopCancelsTheRunningTaskAndForgetsIt()
    {
        Rig rig;
        rig.flash.setInterval(200);
        std::unique_lock<std::mutex> lock(rig.mutex);
        rig.flash.start(lock, rig.step);
        rig.flash.stop();
        QCOMPARE(rig.pool->handles.front()->cancelled, true);
        // Forgotten at once, although the pool still holds the cancelled record.
        QCOMPARE(rig.flash.running(), false);
    }

    void aStopWhileThePoolIsAskedCancelsTheTaskThatComesBack()
    {
        Rig rig;
        rig.flash.setInterval(200);
        rig.pool->whileScheduling = [&rig] {
            std::lock_guard<std::mutex> lock(rig.mutex);
            rig.flash.stop();
        };
        std::unique_lock<std::mutex> lock(rig.mutex);
        rig.flash.start(lock, rig.step);
        QCOMPARE(rig.pool->handles.size(), size_t(1));
        QCOMPARE(rig.pool->handles.front()->cancelled, true);
        QCOMPARE(rig.flash.running(), false);
    }

    void aStartWhileThePoolIsAskedKeepsOnlyTheLaterTask()
    {
        Rig rig;
        rig.flash.setInterval(200);
        bool nested = false;
        rig.pool->whileScheduling = [&rig, &nested] {
            if (nested) {
                return;
            }
            nested = true;
            std::unique_lock<std::mutex> lock(rig.mutex);
            rig.flash.start(lock, rig.step);
        };
        std::unique_lock<std::mutex> lock(rig.mutex);
        rig.flash.start(lock, rig.step);
        // The nested start's handle is made first, the overtaken outer one second.
        QCOMPARE(rig.pool->handles.size(), size_t(2));
        QCOMPARE(rig.pool->handles[0]->cancelled, false);
        QCOMPARE(rig.pool->handles[1]->cancelled, true);
        QCOMPARE(rig.flash.running(), true);
        rig.flash.stop();
        QCOMPARE(rig.pool->handles[0]->cancelled, true);
    }

    void endCancelsTheTaskAndClearsThePhase()
    {
        Rig rig;
        rig.flash.setInterval(200);
        std::unique_lock<std::mutex> lock(rig.mutex);
        rig.flash.start(lock, rig.step);
        rig.flash.togglePhase();
        rig.flash.end();
        QCOMPARE(rig.pool->handles.front()->cancelled, true);
        QCOMPARE(rig.flash.running(), false);
        QCOMPARE(rig.flash.phase(), false);
    }

    void endLeavesAScheduleInFlightToFinish()
    {
        Rig rig;
        rig.flash.setInterval(200);
        rig.pool->whileScheduling = [&rig] {
            std::lock_guard<std::mutex> lock(rig.mutex);
            rig.flash.end();
        };
        std::unique_lock<std::mutex> lock(rig.mutex);
        rig.flash.start(lock, rig.step);
        QCOMPARE(rig.pool->handles.front()->cancelled, false);
        QCOMPARE(rig.flash.running(), true);
    }
};

QTEST_GUILESS_MAIN(TestFlashSchedule)
#include "tst_flashschedule.moc"
