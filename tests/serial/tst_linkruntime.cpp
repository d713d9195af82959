// The surface thread and the links' side of it, owned by one object: builds that put their
// links on the thread, a stop that waits for the links' close there and never terminates a
// thread that has run links, a build that makes nothing, and a runtime that goes before the
// faces of its links.
#include <QThread>
#include <QtTest>
#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "base/logger.h"
#include "serial/linkruntime.h"
#include "serial/linkthreadconnection.h"
#include "serial/sectionconnection.h"
#include "serial/serialmessagequeue.h"
#include "support/fakesectionupdater.h"
#include "support/fakeserialconnection.h"
#include "support/fakeserialmessagehandler.h"
#include "support/fakesettings.h"
#include "support/logcapture.h"
#include "support/recordingsoftwarecontroller.h"
#include "tasks/itask.h"
#include "tasks/shortslice.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kTimeoutMs = 10000;

// A line that notes the thread it was closed on and the one it was destroyed on.
class LineNotingItsThreads : public FakeSerialConnection
{
public:
    struct Notes
    {
        std::atomic<QThread*> closedOn{nullptr};
        std::atomic<QThread*> endedOn{nullptr};
        std::atomic<int> closes{0};
    };

    explicit LineNotingItsThreads(std::shared_ptr<Notes> notes) : m_notes(std::move(notes)) {}
    ~LineNotingItsThreads() override { m_notes->endedOn.store(QThread::currentThread()); }

    void close() override
    {
        m_notes->closedOn.store(QThread::currentThread());
        m_notes->closes.fetch_add(1);
        FakeSerialConnection::close();
    }

private:
    std::shared_ptr<LineNotingItsThreads::Notes> m_notes;
};

struct Rig
{
    Rig() : runtime(std::make_unique<LinkRuntime>(logger)) {}

    // One build with its links on the thread: `sections` links, their lines noted.
    std::vector<std::shared_ptr<ISectionConnection>> build(
        int sections, LinkRuntime::BuildPool pool = LinkRuntime::BuildPool::RunsItself)
    {
        runtime->beginBuild(true, controller, pool);
        std::vector<std::shared_ptr<ISectionConnection>> faces;
        for (int i = 0; i < sections; ++i) {
            auto notes = std::make_shared<LineNotingItsThreads::Notes>();
            lines.push_back(notes);
            faces.push_back(runtime->makeLink(
                static_cast<uint8_t>(i), std::make_shared<FakeSerialMessageHandler>(),
                [this, notes, i](const std::shared_ptr<ISerialMessageHandler>& handler) {
                    madeOn.push_back(QThread::currentThread());
                    auto line = std::make_shared<LineNotingItsThreads>(notes);
                    auto link = std::make_shared<SectionConnection>(
                        static_cast<uint8_t>(i), handler, std::make_shared<SerialMessageQueue>(),
                        line, runtime->buildPool(), std::make_unique<FakeSectionUpdater>(), logger);
                    line->setDataReceiver(link.get());
                    return link;
                }));
        }
        runtime->endBuild(true);
        // Opened as the surface starts them, and waited for on their thread.
        for (const auto& face : faces) {
            face->open();
        }
        runtime->runOnLinkThread([]() {});
        return faces;
    }

    std::shared_ptr<Logger> logger = std::make_shared<Logger>(std::make_shared<FakeSettings>());
    std::shared_ptr<RecordingSoftwareController> controller =
        std::make_shared<RecordingSoftwareController>();
    std::vector<std::shared_ptr<LineNotingItsThreads::Notes>> lines;
    std::vector<QThread*> madeOn;
    std::unique_ptr<LinkRuntime> runtime;
};

// Counts its runs; run on the links' thread only.
class CountingTask : public ITask
{
public:
    void run() override { ++runs; }
    int runs = 0;
};

bool builtWithSanitizer()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    return true;
#else
    return false;
#endif
#else
    return false;
#endif
}

}  // namespace

class TestLinkRuntime : public QObject
{
    Q_OBJECT

private slots:
    void theThreadIsTheWorksurfaceThreadAndWaitsForStart();
    void aBuildOnTheThreadMakesItsPoolAndItsLinksThere();
    void theThreadRunsInShortTurnsWhereTheKernelGrantsThem();
    void aStopClosesTheLinksOnTheirThreadAndLeavesThemWithTheirFaces();
    void aLinkThreadLateBy400msIsWaitedForAndNeverTerminated();
    void aCloseLongerThanTheBoundIsWarnedAboutAndWaitedFor();
    void aBuildThatMakesNothingKeepsTheRunningPoolAndStartsItAgain();
    void aPoolDrivenByHandRunsOnlyWhenTickedAndNoBuildStartsIt();
    void aBuildThatMakesASurfaceRetiresThePreviousPoolOnItsThread();
    void goingReleasesTheLinksOfEveryFaceStillStandingOnTheirThread();
    void aFaceThatOutlivesTheRuntimeHoldsAndPostsNothing();
    void aThreadThatNeverRanALinkIsTerminatedAfter200msWithTheWarning();
};

void TestLinkRuntime::theThreadIsTheWorksurfaceThreadAndWaitsForStart()
{
    Rig rig;
    QCOMPARE(rig.runtime->thread().objectName(), QStringLiteral("WorksurfaceThread"));
    QVERIFY(!rig.runtime->thread().isRunning());
    QVERIFY(!rig.runtime->linksOnThread());
    QVERIFY(rig.runtime->linkPool() == nullptr);
    // A stop with nothing running does nothing.
    LogCapture log;
    rig.runtime->stop(false);
    QVERIFY(log.lines().isEmpty());
}

void TestLinkRuntime::aBuildOnTheThreadMakesItsPoolAndItsLinksThere()
{
    Rig rig;
    rig.runtime->start();
    const auto faces = rig.build(2);
    QCOMPARE(faces.size(), std::size_t{2});
    QVERIFY(rig.runtime->linksOnThread());
    const auto pool = rig.runtime->linkPool();
    QVERIFY(pool != nullptr);
    QCOMPARE(pool->thread(), &rig.runtime->thread());
    QCOMPARE(rig.madeOn, (std::vector<QThread*>(2, &rig.runtime->thread())));
    for (const auto& face : faces) {
        QVERIFY(dynamic_cast<LinkThreadConnection*>(face.get()) != nullptr);
    }
    bool running = false;
    rig.runtime->runOnLinkThread([&]() { running = pool->isRunning() && pool->isTimerActive(); });
    QVERIFY(running);
}

void TestLinkRuntime::theThreadRunsInShortTurnsWhereTheKernelGrantsThem()
{
    // What this kernel grants a thread that asks (nothing before Linux 6.12).
    bool granted = false;
    std::thread scratch([&granted]() { granted = askForShortSlice(); });
    scratch.join();

    // Asked on every start: a thread started again after a stop is a new thread to the
    // kernel, with the default turn.
    Rig rig;
    for (int start = 0; start < 2; ++start) {
        rig.runtime->start();
        std::int64_t slice = -1;
        rig.runtime->runOnLinkThread([&slice]() { slice = ownSliceNs(); });
        QCOMPARE(slice == kShortSliceNs, granted);
        rig.runtime->stop(false);
        QVERIFY(!rig.runtime->thread().isRunning());
    }
}

void TestLinkRuntime::aStopClosesTheLinksOnTheirThreadAndLeavesThemWithTheirFaces()
{
    Rig rig;
    rig.runtime->start();
    const auto faces = rig.build(2);
    QThread* const thread = &rig.runtime->thread();
    const auto pool = rig.runtime->linkPool();
    LogCapture log;
    rig.runtime->stop(false);
    QVERIFY(!thread->isRunning());
    for (const auto& notes : rig.lines) {
        QCOMPARE(notes->closes.load(), 1);
        QCOMPARE(notes->closedOn.load(), thread);
        QVERIFY(notes->endedOn.load() == nullptr);
    }
    for (const auto& face : faces) {
        QVERIFY(static_cast<LinkThreadConnection*>(face.get())->link() != nullptr);
    }
    QVERIFY(!pool->isRunning());
    QVERIFY(!pool->isTimerActive());
    QVERIFY(log.lines().isEmpty());
}

// A link thread that is late (a trace being saved after a fault, a long queue of work, a
// loaded board) is waited for: the links are closed on it, after the work it was doing.
void TestLinkRuntime::aLinkThreadLateBy400msIsWaitedForAndNeverTerminated()
{
    Rig rig;
    rig.runtime->start();
    rig.build(3);
    std::atomic<bool> lateWorkDone{false};
    rig.runtime->postToLinkThread([&lateWorkDone]() {
        QThread::msleep(400);
        lateWorkDone.store(true);
    });
    LogCapture log;
    rig.runtime->stop(false);
    QVERIFY(lateWorkDone.load());
    QVERIFY(!rig.runtime->thread().isRunning());
    for (const auto& notes : rig.lines) {
        QCOMPARE(notes->closedOn.load(), &rig.runtime->thread());
    }
    QVERIFY2(log.lines().isEmpty(), qPrintable(log.texts().join('\n')));

    // The same before the runtime goes: its links are released there, after the late work.
    rig.runtime->start();
    lateWorkDone.store(false);
    rig.runtime->postToLinkThread([&lateWorkDone]() {
        QThread::msleep(400);
        lateWorkDone.store(true);
    });
    QThread* const thread = &rig.runtime->thread();
    rig.runtime.reset();
    QVERIFY(lateWorkDone.load());
    for (const auto& notes : rig.lines) {
        QCOMPARE(notes->endedOn.load(), thread);
    }
    QVERIFY2(log.lines().isEmpty(), qPrintable(log.texts().join('\n')));
}

void TestLinkRuntime::aCloseLongerThanTheBoundIsWarnedAboutAndWaitedFor()
{
    Rig rig;
    rig.runtime->start();
    rig.build(1);
    rig.runtime->setLinkCloseWarningMs(5);
    LogCapture log;
    const QString warning =
        QStringLiteral("Links on WorksurfaceThread still closing after 5 ms, waiting for them");
    // Holds the thread until the stop has warned: the stop must go on waiting after that.
    std::atomic<bool> released{false};
    rig.runtime->postToLinkThread([&]() {
        QElapsedTimer timer;
        timer.start();
        while (!log.contains(QtWarningMsg, warning) && timer.elapsed() < kTimeoutMs) {
            QThread::yieldCurrentThread();
        }
        released.store(true);
    });
    rig.runtime->stop(false);
    QVERIFY(released.load());
    QVERIFY(!rig.runtime->thread().isRunning());
    QCOMPARE(log.texts(), QStringList{warning});
    QCOMPARE(log.categories(), QStringList{QStringLiteral("tarvix.worksurface.service")});
    QCOMPARE(rig.lines.front()->closedOn.load(), &rig.runtime->thread());
}

void TestLinkRuntime::aBuildThatMakesNothingKeepsTheRunningPoolAndStartsItAgain()
{
    Rig rig;
    rig.runtime->start();
    const auto faces = rig.build(2);
    const auto pool = rig.runtime->linkPool();
    rig.runtime->stop(false);
    QVERIFY(!pool->isRunning());

    rig.runtime->start();
    rig.runtime->beginBuild(true, rig.controller);
    const auto unused = rig.runtime->buildPool();
    QVERIFY(unused != pool);
    rig.runtime->endBuild(false);
    QCOMPARE(rig.runtime->linkPool(), pool);
    QVERIFY(rig.runtime->linksOnThread());
    bool running = false;
    bool unusedRunning = true;
    rig.runtime->runOnLinkThread([&]() {
        running = pool->isRunning() && pool->isTimerActive();
        unusedRunning = unused->isRunning();
    });
    QVERIFY(running);
    QVERIFY(!unusedRunning);
}

void TestLinkRuntime::aPoolDrivenByHandRunsOnlyWhenTickedAndNoBuildStartsIt()
{
    Rig rig;
    rig.runtime->start();
    const auto faces = rig.build(1, LinkRuntime::BuildPool::DrivenByHand);
    const auto pool = rig.runtime->linkPool();
    QCOMPARE(pool->thread(), &rig.runtime->thread());
    const auto task = std::make_shared<CountingTask>();
    bool runningOrArmed = true;
    int runsBeforeTick = -1;
    int runsAfterTick = -1;
    rig.runtime->runOnLinkThread([&]() {
        runningOrArmed = pool->isRunning() || pool->isTimerActive();
        pool->scheduleOnce(0, task);
        runsBeforeTick = task->runs;
        pool->runPendingTasks();
        runsAfterTick = task->runs;
        runningOrArmed = runningOrArmed || pool->isRunning();
    });
    QVERIFY(!runningOrArmed);
    QCOMPARE(runsBeforeTick, 0);
    QCOMPARE(runsAfterTick, 1);

    // A build that makes nothing leaves it to its hand as well.
    rig.runtime->beginBuild(true, rig.controller);
    rig.runtime->endBuild(false);
    QCOMPARE(rig.runtime->linkPool(), pool);
    rig.runtime->runOnLinkThread([&]() { runningOrArmed = pool->isRunning(); });
    QVERIFY(!runningOrArmed);

    // So does one after the thread was stopped with the links kept and started again, where
    // a pool that runs itself is started once more.
    rig.runtime->stop(false);
    rig.runtime->start();
    rig.runtime->beginBuild(true, rig.controller);
    rig.runtime->endBuild(false);
    QCOMPARE(rig.runtime->linkPool(), pool);
    rig.runtime->runOnLinkThread(
        [&]() { runningOrArmed = pool->isRunning() || pool->isTimerActive(); });
    QVERIFY(!runningOrArmed);
}

void TestLinkRuntime::aBuildThatMakesASurfaceRetiresThePreviousPoolOnItsThread()
{
    Rig rig;
    rig.runtime->start();
    auto faces = rig.build(1);
    const std::weak_ptr<TaskPool> first = rig.runtime->linkPool();
    rig.runtime->stop(false);
    rig.runtime->start();
    rig.build(1);
    QVERIFY(rig.runtime->linkPool() != first.lock());
    // The old face lets its link go (to its thread); the old pool goes with it there.
    faces.clear();
    rig.runtime->runOnLinkThread([]() {});
    QTRY_VERIFY_WITH_TIMEOUT(first.expired(), kTimeoutMs);
    QCOMPARE(rig.lines.front()->endedOn.load(), &rig.runtime->thread());
}

void TestLinkRuntime::goingReleasesTheLinksOfEveryFaceStillStandingOnTheirThread()
{
    Rig rig;
    rig.runtime->start();
    // A face of an earlier build that something still holds, and the running build's.
    const auto early = rig.build(1);
    rig.runtime->stop(false);
    rig.runtime->start();
    const auto running = rig.build(1);
    QThread* const thread = &rig.runtime->thread();
    rig.runtime.reset();
    QCOMPARE(rig.lines.size(), std::size_t{2});
    for (const auto& notes : rig.lines) {
        QCOMPARE(notes->endedOn.load(), thread);
    }
    QVERIFY(static_cast<LinkThreadConnection*>(early.front().get())->link() == nullptr);
    QVERIFY(static_cast<LinkThreadConnection*>(running.front().get())->link() == nullptr);
}

// The surface, and with it the faces, goes after the runtime when the service is destroyed;
// a face must then neither post to the runtime's mailboxes nor hold a link.
void TestLinkRuntime::aFaceThatOutlivesTheRuntimeHoldsAndPostsNothing()
{
    Rig rig;
    rig.runtime->start();
    auto faces = rig.build(2);
    rig.runtime.reset();
    for (const auto& face : faces) {
        face->open();
        face->startCalibration();
        face->stopCalibration();
        face->enqueueMessage(SerialMessage(MessageType::SurfaceBrightness, 0, {5}));
        face->close();
        QCOMPARE(face->state(), uint8_t{ISectionConnection::Closed});
    }
    faces.clear();
    for (const auto& notes : rig.lines) {
        QVERIFY(notes->endedOn.load() != nullptr);
    }
}

// Without links the thread runs only its event loop, and the service's stop keeps its 200 ms
// and terminates a thread that does not quit by then.
void TestLinkRuntime::aThreadThatNeverRanALinkIsTerminatedAfter200msWithTheWarning()
{
    if (builtWithSanitizer()) {
        QSKIP("terminating a thread cancels it, which the sanitizers' runtimes do not follow");
    }
    Rig rig;
    rig.runtime->start();
    std::atomic<bool> busy{false};
    rig.runtime->postToLinkThread([&busy]() {
        busy.store(true);
        QThread::sleep(30);
    });
    // A quit that comes before the event loop has run anything ends it before the work.
    QTRY_VERIFY_WITH_TIMEOUT(busy.load(), kTimeoutMs);
    LogCapture log;
    QElapsedTimer stopping;
    stopping.start();
    rig.runtime->stop(false);
    QVERIFY(stopping.elapsed() < 5000);
    QVERIFY(!rig.runtime->thread().isRunning());
    // Qt adds a line of its own: the cancellation unwinds through its event dispatch.
    QCOMPARE(log.textsIn(QStringLiteral("tarvix.worksurface.service")),
             QStringList{QStringLiteral(
                 "WS thread did not shut down in timely manner and was terminated...")});
}

QTEST_GUILESS_MAIN(TestLinkRuntime)
#include "tst_linkruntime.moc"
