// A section link never calls anything while it holds its own mutex: its state listener (the
// surface, whose QML handlers may call straight back into the link), its line, its updater
// or the task pool. Each case reproduces a road that used to take the link's mutex twice on
// one thread (a freeze) or that took it before the pool's (a lock-order inversion).
#include <QtTest/QtTest>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "base/logger.h"
#include "serial/isectionconnection.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/sectionconnection.h"
#include "serial/serialmessage.h"
#include "serial/serialmessagequeue.h"
#include "support/fakesectionupdater.h"
#include "support/fakeserialconnection.h"
#include "support/fakeserialmessagehandler.h"
#include "support/fakesettings.h"
#include "support/manualclock.h"
#include "support/recordingstatelistener.h"
#include "support/sectionlinkrig.h"
#include "support/serialframes.h"
#include "tasks/itaskhandle.h"
#include "tasks/itaskpool.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

constexpr uint8_t kSection = 1;
constexpr uint8_t kComponentId = 9;
using State = ISectionConnection::State;

// Fails a hang instead of stalling the run: unless disarmed (destroyed) within the time,
// it names the case and aborts the process.
class Watchdog
{
public:
    Watchdog(const char* what, int seconds) : m_what(what)
    {
        m_thread = std::thread([this, seconds]() {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (!m_done.wait_for(lock, std::chrono::seconds(seconds),
                                 [this] { return m_disarmed; })) {
                std::fprintf(stderr, "FAIL: hung: %s\n", m_what);
                std::fflush(stderr);
                std::abort();
            }
        });
    }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_disarmed = true;
        }
        m_done.notify_all();
        m_thread.join();
    }

private:
    const char* m_what;
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_disarmed = false;
    std::thread m_thread;
};

// Whether the link's mutex is free right now: another thread takes it (through
// stopCalibration, which only takes and releases it) and must get it within the time. When
// the caller holds it, the probe thread is left to finish once the caller lets go (it keeps
// the link alive until then).
bool linkMutexIsFree(SectionConnection* link)
{
    std::shared_ptr<SectionConnection> shared = link->shared_from_this();
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread probe([shared, done]() {
        shared->stopCalibration();
        done->set_value();
    });
    if (finished.wait_for(std::chrono::milliseconds(1500)) == std::future_status::ready) {
        probe.join();
        return true;
    }
    probe.detach();
    return false;
}

// A task pool that checks, on every call, that the calling link does not hold its mutex
// (the pool's own lock must never be taken after a component's), then schedules on a real
// pool.
class ProbingPool : public ITaskPool
{
public:
    void scheduleOnce(uint64_t intervalMs, const std::shared_ptr<ITask>& task) override
    {
        probe();
        real->scheduleOnce(intervalMs, task);
    }
    std::shared_ptr<ITaskHandle> schedulePeriodic(uint64_t intervalMs,
                                                  const std::shared_ptr<ITask>& task) override
    {
        probe();
        return real->schedulePeriodic(intervalMs, task);
    }

    void probe()
    {
        ++calls;
        if (link != nullptr && !linkMutexIsFree(link)) {
            ++callsUnderLinkMutex;
        }
    }

    std::shared_ptr<TaskPool> real = std::make_shared<TaskPool>();
    SectionConnection* link = nullptr;
    int calls = 0;
    int callsUnderLinkMutex = 0;
};

// The shared section-link rig on a pool that checks the link's mutex on every call.
struct Rig : SectionLinkRig<ProbingPool>
{
    // State changes told while the link's mutex was held.
    int toldUnderLinkMutex = 0;
    bool probeEveryChange = true;

    Rig() : SectionLinkRig(kSection, kComponentId) { pool->link = link.get(); }

    // Runs `reaction` on every state change, after checking that the link's mutex is free.
    void onChange(std::function<void(uint8_t)> reaction)
    {
        listener.setOnStateChanged([this, reaction](uint8_t, uint8_t state) {
            if (probeEveryChange && !linkMutexIsFree(link.get())) {
                ++toldUnderLinkMutex;
            }
            if (reaction) {
                reaction(state);
            }
        });
    }

    void receive(const QByteArray& bytes) { QVERIFY(push(bytes)); }
    void connectNow()
    {
        if (!line->isOpen()) {
            link->open();
        }
        receive(SerialFrames::frame(MessageType::FaderTouch, kComponentId, QByteArray(1, '\x01')));
    }
};

}  // namespace

class TestSectionConnectionReentrancy : public QObject
{
    Q_OBJECT

private slots:
    void listenerIsNeverToldWithTheMutexHeld();
    void closeWithAListenerThatCalibratesReturns();
    void listenerMayCalibrateWhenTheLinkComesUp();
    void listenerMayCloseAndReopenFromAStateChange();
    void updaterCallbacksInsideOpenAreToldInOrderWithoutTheMutex();
    void taskPoolIsNeverCalledWithTheMutexHeld();
    void restartFromAPassSchedulesWithoutTheMutex();
};

void TestSectionConnectionReentrancy::listenerIsNeverToldWithTheMutexHeld()
{
    Watchdog dog("listenerIsNeverToldWithTheMutexHeld", 30);
    Rig rig;
    rig.onChange(nullptr);
    rig.connectNow();
    rig.link->startCalibration();
    rig.receive(SerialFrames::frame(MessageType::Calibration, 0, QByteArray()));
    rig.link->close();
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Connected, State::Calibrating,
                                       State::Connected, State::Closed}));
    QCOMPARE(rig.toldUnderLinkMutex, 0);
}

// The freeze of a QML handler on isCalibratingChanged that calibrates: close() tells the
// surface of Closed, whose handler calls startCalibration() on the same link.
void TestSectionConnectionReentrancy::closeWithAListenerThatCalibratesReturns()
{
    Watchdog dog("close() with a listener that calibrates", 20);
    Rig rig;
    rig.connectNow();
    int calibrateCalls = 0;
    rig.onChange([&](uint8_t) {
        ++calibrateCalls;
        rig.link->startCalibration();
    });
    rig.link->close();
    QCOMPARE(calibrateCalls, 1);
    QCOMPARE(rig.link->state(), uint8_t(State::Closed));
    QCOMPARE(rig.toldUnderLinkMutex, 0);
    // And the link still works afterwards.
    rig.onChange(nullptr);
    rig.connectNow();
    QCOMPARE(rig.link->state(), uint8_t(State::Connected));
}

void TestSectionConnectionReentrancy::listenerMayCalibrateWhenTheLinkComesUp()
{
    Watchdog dog("calibrate from the Connected report", 20);
    Rig rig;
    rig.onChange([&](uint8_t state) {
        if (state == State::Connected) {
            rig.link->startCalibration();
        }
    });
    rig.connectNow();
    // Told synchronously, in the order the changes happened: the calibration the handler
    // started is reported after the Connected it was reacting to.
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Connected, State::Calibrating}));
    QCOMPARE(rig.link->state(), uint8_t(State::Calibrating));
    QVERIFY(rig.line->writtenBytes().contains(QByteArray::fromHex("03030006")));
    QCOMPARE(rig.toldUnderLinkMutex, 0);
}

void TestSectionConnectionReentrancy::listenerMayCloseAndReopenFromAStateChange()
{
    Watchdog dog("close and open from a state report", 20);
    Rig rig;
    bool reopened = false;
    rig.onChange([&](uint8_t state) {
        if (state == State::Calibrating && !reopened) {
            reopened = true;
            rig.link->close();
            rig.link->open();
        }
    });
    rig.connectNow();
    rig.link->startCalibration();
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Connected, State::Calibrating,
                                       State::Closed, State::Connecting}));
    QCOMPARE(rig.toldUnderLinkMutex, 0);
}

void TestSectionConnectionReentrancy::updaterCallbacksInsideOpenAreToldInOrderWithoutTheMutex()
{
    Watchdog dog("updater callbacks inside open()", 20);
    Rig rig;
    rig.onChange(nullptr);
    // The updater finds no bootloader at once (as with a software line): Connected from
    // inside open().
    rig.updater->setOnStart([](ISectionUpdaterListener* listener) {
        listener->sendBootloaderPacket(BootloaderPacket(BootloaderCommand::AutoBaud));
        listener->updaterStateChanged();
    });
    rig.link->open();
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Connected}));
    QCOMPARE(rig.toldUnderLinkMutex, 0);
}

// The lock-order inversion: open() used to schedule its pass with the link's mutex held,
// while a pass runs with the pool's lock held and takes the link's.
void TestSectionConnectionReentrancy::taskPoolIsNeverCalledWithTheMutexHeld()
{
    Watchdog dog("taskPoolIsNeverCalledWithTheMutexHeld", 20);
    Rig rig;
    rig.link->open();
    QCOMPARE(rig.pool->calls, 1);
    QCOMPARE(rig.pool->callsUnderLinkMutex, 0);
}

void TestSectionConnectionReentrancy::restartFromAPassSchedulesWithoutTheMutex()
{
    Watchdog dog("restart from a pass", 60);
    ManualClock clock{1000000LL * 1000000LL};
    Rig rig;
    rig.probeEveryChange = false;
    rig.connectNow();
    // A silent section: NoResponse after the grace period and the silence, then a restart
    // that reopens the link and schedules its new pass from inside a pass, while the real
    // pool holds its own lock.
    for (int ms = 0; ms < 45000 && rig.pool->calls < 2; ++ms) {
        clock.advanceMs(1);
        rig.pool->real->runPendingTasks();
    }
    QCOMPARE(rig.pool->calls, 2);
    QCOMPARE(rig.pool->callsUnderLinkMutex, 0);
    QVERIFY(rig.states().contains(State::NoResponse));
    QCOMPARE(rig.states().mid(rig.states().size() - 2),
             (QList<int>{State::Closed, State::Connecting}));
}

QTEST_GUILESS_MAIN(TestSectionConnectionReentrancy)
#include "tst_sectionconnectionreentrancy.moc"
