// The mailbox through which the links on the surface thread and the QML thread hand each
// other work: the order work runs in, the thread it runs on, and a mailbox that goes after
// the thread that drained it has finished, as the surface service's and the links' do.
#include <QThread>
#include <QtTest>
#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "tasks/threadmailbox.h"

using namespace Velmora::Worksurface;

class TestThreadMailbox : public QObject
{
    Q_OBJECT

private slots:
    void workRunsOnTheMailboxThreadInTheOrderItWasPosted();
    void runAndWaitOnTheMailboxThreadRunsAtOnce();
    void aMailboxGoingAfterItsThreadFinishedIsOrderedAfterItsLastDrain();
    void severalProducersAtOnceKeepEachOnesOrderAndLoseNothing();
    void workThatPostsWorkRunsItAfterEverythingPostedBefore();
    void workStillWaitingWhenTheMailboxGoesIsDroppedWithoutRunning();
};

void TestThreadMailbox::workRunsOnTheMailboxThreadInTheOrderItWasPosted()
{
    QThread thread;
    ThreadMailbox mailbox;
    mailbox.moveToThread(&thread);
    thread.start();
    std::vector<int> order;
    std::vector<QThread*> ranOn;
    for (int i = 0; i < 5; ++i) {
        mailbox.post([&order, &ranOn, i]() {
            order.push_back(i);
            ranOn.push_back(QThread::currentThread());
        });
    }
    mailbox.runAndWait([]() {});
    thread.quit();
    thread.wait();
    QCOMPARE(order, (std::vector<int>{0, 1, 2, 3, 4}));
    QCOMPARE(ranOn, std::vector<QThread*>(5, &thread));
}

void TestThreadMailbox::runAndWaitOnTheMailboxThreadRunsAtOnce()
{
    ThreadMailbox mailbox;
    bool ran = false;
    mailbox.runAndWait([&ran]() { ran = true; });
    QVERIFY(ran);
}

// The thread that drained the mailbox looks at the queue once more after the last work has
// run, and then finishes. When it has finished before QThread::wait() is called, the wait
// returns on a flag read under Qt's own mutex, which ThreadSanitizer cannot see. When the
// mailbox goes and its memory is used again (the next link's, the next test rig's), that last
// look must still be ordered before it where ThreadSanitizer sees it, or `make tsan` reports
// a race, as it did on a loaded machine. How the two threads meet varies from run to run, so
// the same round is played many times.
void TestThreadMailbox::aMailboxGoingAfterItsThreadFinishedIsOrderedAfterItsLastDrain()
{
    constexpr int kRounds = 200;
    alignas(ThreadMailbox) unsigned char storage[sizeof(ThreadMailbox)];
    int ran = 0;
    for (int round = 0; round < kRounds; ++round) {
        QThread thread;
        auto* mailbox = new (storage) ThreadMailbox;
        mailbox->moveToThread(&thread);
        thread.start();
        mailbox->runAndWait([&ran]() { ++ran; });
        thread.quit();
        thread.wait();
        mailbox->~ThreadMailbox();
        // The memory used again, as the next mailbox's.
        std::memset(storage, round, sizeof storage);
    }
    QCOMPARE(ran, kRounds);
}

// The links' thread, the QML thread and a trace writer may all hand work to one mailbox at
// once: nothing is lost, and each producer's work runs in the order that producer posted it.
void TestThreadMailbox::severalProducersAtOnceKeepEachOnesOrderAndLoseNothing()
{
    constexpr int kProducers = 4;
    constexpr int kEach = 2000;
    QThread thread;
    ThreadMailbox mailbox;
    mailbox.moveToThread(&thread);
    thread.start();
    // Written only on the mailbox's thread, read here after the last runAndWait.
    std::vector<std::vector<int>> seen(kProducers);
    std::atomic<int> ready{0};
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p]() {
            ready.fetch_add(1);
            while (ready.load() < kProducers) {
                std::this_thread::yield();
            }
            for (int i = 0; i < kEach; ++i) {
                mailbox.post([&seen, p, i]() { seen[std::size_t(p)].push_back(i); });
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    mailbox.runAndWait([]() {});
    thread.quit();
    thread.wait();
    for (int p = 0; p < kProducers; ++p) {
        QCOMPARE(seen[std::size_t(p)].size(), std::size_t(kEach));
        for (int i = 0; i < kEach; ++i) {
            QCOMPARE(seen[std::size_t(p)][std::size_t(i)], i);
        }
    }
}

void TestThreadMailbox::workThatPostsWorkRunsItAfterEverythingPostedBefore()
{
    QThread thread;
    ThreadMailbox mailbox;
    mailbox.moveToThread(&thread);
    std::vector<QString> order;
    // Both pieces are posted before the thread starts: started first, it could run "first"
    // (and queue what it posts) before "second" was posted at all.
    mailbox.post([&]() {
        order.push_back(QStringLiteral("first"));
        mailbox.post([&]() {
            order.push_back(QStringLiteral("posted by first"));
            mailbox.post([&]() { order.push_back(QStringLiteral("posted by that")); });
        });
    });
    mailbox.post([&]() { order.push_back(QStringLiteral("second")); });
    thread.start();
    // Each wait is posted after the work that posted the next piece has run.
    for (int i = 0; i < 3; ++i) {
        mailbox.runAndWait([]() {});
    }
    thread.quit();
    thread.wait();
    QCOMPARE(order, (std::vector<QString>{QStringLiteral("first"), QStringLiteral("second"),
                                          QStringLiteral("posted by first"),
                                          QStringLiteral("posted by that")}));
}

// Work for a thread that will not run it again (it has finished) is let go with the mailbox,
// on the thread that destroys it, and never runs.
void TestThreadMailbox::workStillWaitingWhenTheMailboxGoesIsDroppedWithoutRunning()
{
    QThread thread;
    auto mailbox = std::make_unique<ThreadMailbox>();
    mailbox->moveToThread(&thread);
    thread.start();
    mailbox->runAndWait([]() {});
    thread.quit();
    thread.wait();
    std::atomic<int> ran{0};
    auto held = std::make_shared<int>(7);
    std::weak_ptr<int> watch = held;
    for (int i = 0; i < 3; ++i) {
        mailbox->post([&ran, held]() { ran.fetch_add(*held); });
    }
    held.reset();
    QVERIFY(!watch.expired());
    mailbox.reset();
    QVERIFY(watch.expired());
    QCOMPARE(ran.load(), 0);
}

QTEST_GUILESS_MAIN(TestThreadMailbox)
#include "tst_threadmailbox.moc"
