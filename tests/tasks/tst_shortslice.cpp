// The short turns a thread serving a serial line asks the kernel for: granted on a kernel
// that lets each thread choose its turn, with the thread's nice value and policy left as
// they were; a thread under another policy is left alone.
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <QtTest>
#include <cerrno>
#include <functional>
#include <thread>

#include "tasks/shortslice.h"

using namespace Velmora::Worksurface;

namespace {

// Runs `body` on a thread of its own, so that what it changes goes with that thread.
void onOwnThread(const std::function<void()>& body)
{
    std::thread thread(body);
    thread.join();
}

// Whether this system answers sched_getattr at all (an emulator may not).
bool kernelAnswersSchedAttr()
{
    unsigned char attr[56] = {};
    return syscall(SYS_sched_getattr, 0, attr, sizeof(attr), 0) == 0 || errno != ENOSYS;
}

}  // namespace

class TestShortSlice : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void aThreadUnderTheNormalPolicyGetsShortTurnsAndKeepsItsNiceValue();
    void aThreadUnderAnotherPolicyIsLeftAlone();
};

void TestShortSlice::init()
{
    if (!kernelAnswersSchedAttr()) {
        QSKIP("sched_getattr is not answered here (user-mode emulation)");
    }
}

void TestShortSlice::aThreadUnderTheNormalPolicyGetsShortTurnsAndKeepsItsNiceValue()
{
    std::int64_t before = -1;
    bool granted = false;
    std::int64_t after = -1;
    int niceAfter = 0;
    int policyAfter = -1;
    onOwnThread([&] {
        // A nicer thread than the process: what the call leaves must be this, not 0.
        setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 4);
        before = ownSliceNs();
        granted = askForShortSlice();
        after = ownSliceNs();
        niceAfter = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
        policyAfter = sched_getscheduler(0);
    });
    QCOMPARE(niceAfter, 4);
    QCOMPARE(policyAfter, SCHED_OTHER);
    if (before == 0) {
        // A kernel that keeps no turn per thread: nothing is granted, nothing changes.
        QVERIFY(!granted);
        QCOMPARE(after, std::int64_t{0});
        return;
    }
    // The kernel's default turn is longer than the short one, and the short one is kept.
    QVERIFY2(before > kShortSliceNs, qPrintable(QString::number(before)));
    QVERIFY(granted);
    QCOMPARE(after, kShortSliceNs);
}

void TestShortSlice::aThreadUnderAnotherPolicyIsLeftAlone()
{
    int setTo = -1;
    bool granted = true;
    int policyAfter = -1;
    std::int64_t after = -1;
    onOwnThread([&] {
        const sched_param param{};
        setTo = sched_setscheduler(0, SCHED_IDLE, &param);
        granted = askForShortSlice();
        policyAfter = sched_getscheduler(0);
        after = ownSliceNs();
    });
    QCOMPARE(setTo, 0);
    QVERIFY(!granted);
    QCOMPARE(policyAfter, SCHED_IDLE);
    QCOMPARE(after, std::int64_t{0});
}

QTEST_GUILESS_MAIN(TestShortSlice)
#include "tst_shortslice.moc"
