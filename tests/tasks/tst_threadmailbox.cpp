// The mailbox through which the links on the surface thread and the QML thread hand each
// other work: the order work runs in, the thread it runs on, and a mailbox that goes after
// the thread that drained it has finished, as the surface service's and the links' do.
#include <QThread>
#include <QtTest>
#include <cstring>
#include <new>
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

QTEST_GUILESS_MAIN(TestThreadMailbox)
#include "tst_threadmailbox.moc"
