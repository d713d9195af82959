// The seam through which a test runner owns the plugin's time, and the driven clock the test
// runners build on it: a pool's tick and a ClockTimer run when the driven clock reaches their
// time and not before, each on its own thread; every hand-over between threads is counted
// until it has run, and the clock moves only once none is left; without a runner, pools and
// timers wait on Qt timers as an application's do.
#include <QScopeGuard>
#include <QThread>
#include <QtTest>
#include <memory>
#include <vector>

#include "support/drivenclock.h"
#include "tasks/clocktimer.h"
#include "tasks/monotonicclock.h"
#include "tasks/taskpool.h"
#include "tasks/threadmailbox.h"
#include "tasks/timedrive.h"

using namespace Velmora::Worksurface;

namespace {

class NotingTask : public ITask
{
public:
    void run() override
    {
        times.push_back(MonotonicClock::nowNs());
        threads.push_back(QThread::currentThread());
    }
    std::vector<qint64> times;
    std::vector<QThread*> threads;
};

const TarvixTimeDrive* drive()
{
    return tarvixWorksurfaceTimeDrive();
}

}  // namespace

class TestTimeDrive : public QObject
{
    Q_OBJECT

private slots:
    void withoutARunnerPoolsAndTimersWaitOnQtTimers();
    void theSeamIsVersionOne();
    void aTickRunsWhenTheClockReachesItsTimeAndNotBefore();
    void aClockTimerFiresAtItsTimeToTheNanosecondOnceOnly();
    void aStoppedClockTimerIsNotFired();
    void aPoolOnAnotherThreadIsTickedOnItsThreadBeforeTheClockMovesOn();
    void mailboxWorkIsAHandOverUntilItHasRun();
    void workDroppedWithItsMailboxEndsItsHandOver();
    void advanceUntilStopsAtTheTickThatMadeTheConditionTrue();
    void theClockNeverStandsStillBetweenTwoReadings();
};

void TestTimeDrive::withoutARunnerPoolsAndTimersWaitOnQtTimers()
{
    QVERIFY(!TimeDrive::isOn());
    TaskPool pool;
    pool.start();
    QVERIFY(pool.armedWaitMs() >= 0 && pool.armedWaitMs() <= TaskPool::kIdleWaitMs);
    QCOMPARE(drive()->handOversInFlight(), 0);
    ClockTimer timer;
    QSignalSpy fired(&timer, &ClockTimer::timeout);
    timer.start(1);
    QVERIFY(timer.isActive());
    QVERIFY(fired.wait(5000));
    QCOMPARE(fired.count(), 1);
    QVERIFY(!timer.isActive());
    // Nothing counts hand-overs: posting to a mailbox is free of the drive.
    ThreadMailbox mailbox;
    mailbox.post([]() {});
    QCOMPARE(drive()->handOversInFlight(), 0);
    QCoreApplication::processEvents();
}

void TestTimeDrive::theSeamIsVersionOne()
{
    QCOMPARE(drive()->version, 1);
    QVERIFY(drive()->takeOver != nullptr && drive()->nextDueNs != nullptr &&
            drive()->fireNext != nullptr && drive()->handOversInFlight != nullptr);
}

void TestTimeDrive::aTickRunsWhenTheClockReachesItsTimeAndNotBefore()
{
    DrivenClock clock(drive());
    QVERIFY(TimeDrive::isOn());
    TaskPool pool;
    auto task = std::make_shared<NotingTask>();
    const qint64 scheduled = clock.nowNs();
    pool.schedulePeriodic(50, task);
    pool.start();
    // The Qt timer is armed but would wait for weeks: only the clock runs the tick.
    QVERIFY(pool.armedWaitMs() > 24 * 3600 * 1000);
    clock.advance(49);
    QVERIFY(task->times.empty());
    // Due once strictly more than 50 ms have passed: at the tick 50 ms after start(), which
    // came a reading after the scheduling, as on a real clock.
    clock.advance(2);
    QCOMPARE(task->times.size(), std::size_t(1));
    QVERIFY(task->times[0] - scheduled > 50 * kNsPerMs);
    QVERIFY(task->times[0] - scheduled < 50 * kNsPerMs + 1000);
    // Twenty seconds of 50 ms periods in one call.
    clock.advance(20000);
    QCOMPARE(task->times.size(), std::size_t(1 + 20000 / 50));
    QCOMPARE(task->threads, std::vector<QThread*>(task->times.size(), QThread::currentThread()));
    pool.stop();
}

void TestTimeDrive::aClockTimerFiresAtItsTimeToTheNanosecondOnceOnly()
{
    DrivenClock clock(drive());
    ClockTimer timer;
    std::vector<qint64> firedAt;
    connect(&timer, &ClockTimer::timeout,
            [&firedAt]() { firedAt.push_back(MonotonicClock::nowNs()); });
    const qint64 started = clock.nowNs();
    timer.start(3);
    QVERIFY(timer.isActive());
    QCOMPARE(drive()->nextDueNs(), started + 1 + 3 * kNsPerMs);
    clock.advance(2);
    QVERIFY(firedAt.empty());
    clock.advance(2);
    QCOMPARE(firedAt.size(), std::size_t(1));
    // Not on a 5 ms grid: at 3 ms, and the clock had moved on by the readings' nanoseconds only.
    QVERIFY(firedAt[0] - started >= 3 * kNsPerMs);
    QVERIFY(firedAt[0] - started < 3 * kNsPerMs + 1000);
    QVERIFY(!timer.isActive());
    clock.advance(100);
    QCOMPARE(firedAt.size(), std::size_t(1));
}

void TestTimeDrive::aStoppedClockTimerIsNotFired()
{
    DrivenClock clock(drive());
    ClockTimer timer;
    QSignalSpy fired(&timer, &ClockTimer::timeout);
    timer.start(3);
    timer.stop();
    QVERIFY(!timer.isActive());
    QCOMPARE(drive()->nextDueNs(), qint64(-1));
    clock.advance(10);
    QCOMPARE(fired.count(), 0);
}

void TestTimeDrive::aPoolOnAnotherThreadIsTickedOnItsThreadBeforeTheClockMovesOn()
{
    DrivenClock clock(drive());
    QThread thread;
    ThreadMailbox mailbox;
    mailbox.moveToThread(&thread);
    thread.start();
    std::shared_ptr<TaskPool> pool;
    const auto stop = qScopeGuard([&]() {
        mailbox.runAndWait([&pool]() { pool.reset(); });
        thread.quit();
        thread.wait();
    });
    auto task = std::make_shared<NotingTask>();
    mailbox.runAndWait([&pool, &task]() {
        pool = std::make_shared<TaskPool>();
        pool->schedulePeriodic(50, task);
        pool->start();
    });
    // Each tick ran on the pool's thread, at the time it was due, and had run before the
    // clock went on to the next: a tick's time is the clock's when it ran, 50 ms apart.
    clock.advance(1010);
    QCOMPARE(task->times.size(), std::size_t(20));
    QCOMPARE(task->threads, std::vector<QThread*>(task->times.size(), &thread));
    for (std::size_t i = 1; i < task->times.size(); ++i) {
        QVERIFY(task->times[i] - task->times[i - 1] > 50 * kNsPerMs);
        QVERIFY(task->times[i] - task->times[i - 1] < 50 * kNsPerMs + 1000);
    }
    QCOMPARE(drive()->handOversInFlight(), 0);
}

void TestTimeDrive::mailboxWorkIsAHandOverUntilItHasRun()
{
    DrivenClock clock(drive());
    QThread thread;
    ThreadMailbox mailbox;
    mailbox.moveToThread(&thread);
    // Not started yet: the work waits, counted.
    bool ran = false;
    mailbox.post([&ran]() { ran = true; });
    mailbox.post([]() {});
    QCOMPARE(drive()->handOversInFlight(), 2);
    thread.start();
    // settle() waits for the other thread's work, for its result.
    QVERIFY(clock.settle());
    QVERIFY(ran);
    QCOMPARE(drive()->handOversInFlight(), 0);
    thread.quit();
    thread.wait();
}

void TestTimeDrive::workDroppedWithItsMailboxEndsItsHandOver()
{
    DrivenClock clock(drive());
    {
        QThread thread;
        ThreadMailbox mailbox;
        mailbox.moveToThread(&thread);
        mailbox.post([]() {});
        QCOMPARE(drive()->handOversInFlight(), 1);
    }
    QCOMPARE(drive()->handOversInFlight(), 0);
}

void TestTimeDrive::advanceUntilStopsAtTheTickThatMadeTheConditionTrue()
{
    DrivenClock clock(drive());
    TaskPool pool;
    auto task = std::make_shared<NotingTask>();
    pool.schedulePeriodic(100, task);
    pool.start();
    const qint64 start = clock.nowNs();
    QVERIFY(clock.advanceUntil([&task]() { return task->times.size() == 3; }, 20000));
    // Three runs, 100 ms apart: the clock stands at the third, not at 20 s.
    QVERIFY(clock.nowNs() - start > 300 * kNsPerMs);
    QVERIFY(clock.nowNs() - start < 301 * kNsPerMs);
    // A condition that never holds: the whole time passes and the answer is false.
    QVERIFY(!clock.advanceUntil([]() { return false; }, 1000));
    QVERIFY(clock.nowNs() - start > 1300 * kNsPerMs);
    pool.stop();
}

void TestTimeDrive::theClockNeverStandsStillBetweenTwoReadings()
{
    DrivenClock clock(drive());
    const qint64 first = MonotonicClock::nowNs();
    const qint64 second = MonotonicClock::nowNs();
    QVERIFY(second > first);
    QVERIFY(second - first < 10);
}

QTEST_GUILESS_MAIN(TestTimeDrive)
#include "tst_timedrive.moc"
