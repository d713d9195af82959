// A section link never calls anything while it holds its own mutex: its state listener (the
// surface, whose QML handlers may call straight back into the link), its line, its updater,
// its root handler, its queue, the logger (the application's message handler) or the task
// pool. Each case reproduces a road that used to take the link's mutex twice on one thread
// (a freeze) or that took it before the pool's (a lock-order inversion); one case checks
// every call out of the link, by name, on every road a link takes.
#include <QtTest/QtTest>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "base/logger.h"
#include "serial/hardwareserialconnection.h"
#include "serial/isectionconnection.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/sectionconnection.h"
#include "serial/serialmessage.h"
#include "serial/serialmessagequeue.h"
#include "support/fakesectionupdater.h"
#include "support/fakeserialconnection.h"
#include "support/fakeserialmessagehandler.h"
#include "support/fakesettings.h"
#include "support/lockprobe.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/ptysectionsimulator.h"
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

// Whether the link's mutex is free right now: another thread takes it (through
// stopCalibration, which only takes and releases it) and must get it within the time. When
// the caller holds it, the probe thread is left to finish once the caller lets go (it keeps
// the link alive until then).
bool linkMutexIsFree(SectionConnection* link)
{
    std::shared_ptr<SectionConnection> shared = link->shared_from_this();
    return isFreeFromAnotherThread([shared] { shared->stopCalibration(); }, shared);
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

// ---- Every call out of the link, by name --------------------------------------------------

// Counts each call out of a link by name, and the calls made while the link's mutex was
// held. Probes only once `link` is set and while `probing` is on.
struct CallOuts
{
    struct Count
    {
        int calls = 0;
        int underLinkMutex = 0;
    };

    void made(const char* name)
    {
        if (link == nullptr || !probing) {
            return;
        }
        Count& count = counts[QString::fromLatin1(name)];
        ++count.calls;
        if (!linkMutexIsFree(link)) {
            ++count.underLinkMutex;
        }
    }

    SectionConnection* link = nullptr;
    bool probing = true;
    std::map<QString, Count> counts;
};

class ProbedListener : public RecordingStateListener
{
public:
    explicit ProbedListener(CallOuts* calls) : m_calls(calls) {}
    void sectionStateChanged(uint8_t sectionIndex, uint8_t state) override
    {
        m_calls->made("listener.sectionStateChanged");
        RecordingStateListener::sectionStateChanged(sectionIndex, state);
    }
    void sectionUpdateProgress(uint8_t sectionIndex, uint8_t value) override
    {
        m_calls->made("listener.sectionUpdateProgress");
        RecordingStateListener::sectionUpdateProgress(sectionIndex, value);
    }
    void sentMessageCount(uint64_t count) override
    {
        m_calls->made("listener.sentMessageCount");
        RecordingStateListener::sentMessageCount(count);
    }
    void sectionPortChanged(uint8_t sectionIndex, const QString& portName,
                            const QString& portError) override
    {
        m_calls->made("listener.sectionPortChanged");
        RecordingStateListener::sectionPortChanged(sectionIndex, portName, portError);
    }
    void sectionUpdateResult(uint8_t sectionIndex, int failureReason) override
    {
        m_calls->made("listener.sectionUpdateResult");
        RecordingStateListener::sectionUpdateResult(sectionIndex, failureReason);
    }

private:
    CallOuts* m_calls;
};

class ProbedLine : public FakeSerialConnection
{
public:
    explicit ProbedLine(CallOuts* calls) : m_calls(calls) {}
    bool isOpen() const override
    {
        m_calls->made("line.isOpen");
        return FakeSerialConnection::isOpen();
    }
    uint64_t messageCount() const override
    {
        m_calls->made("line.messageCount");
        return FakeSerialConnection::messageCount();
    }
    void open() override
    {
        m_calls->made("line.open");
        FakeSerialConnection::open();
    }
    void close() override
    {
        m_calls->made("line.close");
        FakeSerialConnection::close();
    }
    void writeRaw(const BootloaderPacket& packet) override
    {
        m_calls->made("line.writeRaw");
        FakeSerialConnection::writeRaw(packet);
    }
    void sendMessage(const SerialMessage& message) override
    {
        m_calls->made("line.sendMessage");
        FakeSerialConnection::sendMessage(message);
    }
    void flush() override
    {
        m_calls->made("line.flush");
        FakeSerialConnection::flush();
    }
    QString portName() const override
    {
        m_calls->made("line.portName");
        return QStringLiteral("/dev/ttyProbe");
    }
    QString portError() const override
    {
        m_calls->made("line.portError");
        return QString();
    }
    void reopen() override
    {
        m_calls->made("line.reopen");
        FakeSerialConnection::open();
    }

private:
    CallOuts* m_calls;
};

class ProbedUpdater : public FakeSectionUpdater
{
public:
    explicit ProbedUpdater(CallOuts* calls) : m_calls(calls) {}
    bool isActive() const override
    {
        m_calls->made("updater.isActive");
        return FakeSectionUpdater::isActive();
    }
    bool isUpdating() const override
    {
        m_calls->made("updater.isUpdating");
        return FakeSectionUpdater::isUpdating();
    }
    bool isProbing() const override
    {
        m_calls->made("updater.isProbing");
        return FakeSectionUpdater::isProbing();
    }
    void start(ISectionUpdaterListener* listener) override
    {
        m_calls->made("updater.start");
        FakeSectionUpdater::start(listener);
    }
    void dataReceived(const QByteArray& data) override
    {
        m_calls->made("updater.dataReceived");
        FakeSectionUpdater::dataReceived(data);
    }

private:
    CallOuts* m_calls;
};

class ProbedRootHandler : public ISerialMessageHandler
{
public:
    ProbedRootHandler(CallOuts* calls, std::shared_ptr<RootSerialMessageHandler> root)
        : m_calls(calls), m_root(std::move(root))
    {}
    bool handleMessage(const SerialMessage& message) override
    {
        m_calls->made("rootHandler.handleMessage");
        return m_root->handleMessage(message);
    }
    void setLinkReady(bool ready) override
    {
        m_calls->made("rootHandler.setLinkReady");
        m_root->setLinkReady(ready);
    }

private:
    CallOuts* m_calls;
    std::shared_ptr<RootSerialMessageHandler> m_root;
};

class ProbedQueue : public SerialMessageQueue
{
public:
    explicit ProbedQueue(CallOuts* calls) : m_calls(calls) {}
    bool hasNoDueMessage() const override
    {
        m_calls->made("queue.hasNoDueMessage");
        return SerialMessageQueue::hasNoDueMessage();
    }
    SerialMessage takeNextMessage() override
    {
        m_calls->made("queue.takeNextMessage");
        return SerialMessageQueue::takeNextMessage();
    }
    void enqueue(const SerialMessage& message) override
    {
        m_calls->made("queue.enqueue");
        SerialMessageQueue::enqueue(message);
    }

private:
    CallOuts* m_calls;
};

class ProbedPool : public ITaskPool
{
public:
    explicit ProbedPool(CallOuts* calls) : m_calls(calls) {}
    void scheduleOnce(uint64_t intervalMs, const std::shared_ptr<ITask>& task) override
    {
        m_calls->made("pool.scheduleOnce");
        real->scheduleOnce(intervalMs, task);
    }
    std::shared_ptr<ITaskHandle> schedulePeriodic(uint64_t intervalMs,
                                                  const std::shared_ptr<ITask>& task) override
    {
        m_calls->made("pool.schedulePeriodic");
        return real->schedulePeriodic(intervalMs, task);
    }
    std::shared_ptr<TaskPool> real = std::make_shared<TaskPool>();

private:
    CallOuts* m_calls;
};

// A link whose every neighbour reports each call it gets, and a message handler that
// reports each log line (the Logger writes through it), all probing the link's mutex.
struct ProbedRig
{
    CallOuts calls;
    ProbedListener listener{&calls};
    std::shared_ptr<FakeSettings> settings = std::make_shared<FakeSettings>();
    std::shared_ptr<Logger> logger = std::make_shared<Logger>(settings);
    std::shared_ptr<RootSerialMessageHandler> root = std::make_shared<RootSerialMessageHandler>();
    std::shared_ptr<FakeSerialMessageHandler> component =
        std::make_shared<FakeSerialMessageHandler>();
    std::shared_ptr<ProbedQueue> queue = std::make_shared<ProbedQueue>(&calls);
    std::shared_ptr<ProbedLine> line = std::make_shared<ProbedLine>(&calls);
    std::shared_ptr<ProbedPool> pool = std::make_shared<ProbedPool>(&calls);
    ProbedUpdater* updater = nullptr;
    std::shared_ptr<SectionConnection> link;

    ProbedRig()
    {
        component->takeDevice(kComponentId);
        root->addHandler(component);
        auto probedUpdater = std::make_unique<ProbedUpdater>(&calls);
        updater = probedUpdater.get();
        link = std::make_shared<SectionConnection>(
            kSection, std::make_shared<ProbedRootHandler>(&calls, root), queue, line, pool,
            std::move(probedUpdater), logger);
        line->setDataReceiver(link.get());
        link->setStateListener(&listener);
        link->setReconnectSettings(settings);
        calls.link = link.get();
    }
    ~ProbedRig() { line->setDataReceiver(nullptr); }

    void receive(const QByteArray& bytes) { QVERIFY(line->pushData(bytes)); }
    void pass(ManualClock& clock, int64_t ms)
    {
        clock.advanceMs(ms);
        pool->real->runPendingTasks();
    }
};

// The call-outs every road of a link makes, each of which must find the mutex free.
const QStringList kEveryCallOut = {
    QStringLiteral("listener.sectionStateChanged"),
    QStringLiteral("listener.sectionUpdateProgress"),
    QStringLiteral("listener.sentMessageCount"),
    QStringLiteral("listener.sectionPortChanged"),
    QStringLiteral("listener.sectionUpdateResult"),
    QStringLiteral("line.isOpen"),
    QStringLiteral("line.messageCount"),
    QStringLiteral("line.open"),
    QStringLiteral("line.close"),
    QStringLiteral("line.writeRaw"),
    QStringLiteral("line.sendMessage"),
    QStringLiteral("line.flush"),
    QStringLiteral("line.portName"),
    QStringLiteral("line.portError"),
    QStringLiteral("line.reopen"),
    QStringLiteral("updater.isActive"),
    QStringLiteral("updater.isUpdating"),
    QStringLiteral("updater.isProbing"),
    QStringLiteral("updater.start"),
    QStringLiteral("updater.dataReceived"),
    QStringLiteral("rootHandler.handleMessage"),
    QStringLiteral("rootHandler.setLinkReady"),
    QStringLiteral("queue.enqueue"),
    QStringLiteral("queue.hasNoDueMessage"),
    QStringLiteral("queue.takeNextMessage"),
    QStringLiteral("pool.scheduleOnce"),
    QStringLiteral("pool.schedulePeriodic"),
    QStringLiteral("logger"),
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
    void listenerMayCloseFromTheConnectingReportOfOpen();
    void listenerMayCloseAndReopenFromTheConnectingReportOfOpen();
    void everyCallOutOfTheLinkFindsTheMutexFree();
    void hardwareLineOpensClosesAndReportsWithoutTheLinkMutex();
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

// close() from the listener's Connecting report inside open(): the link stays closed; the
// rest of that open (the updater's probe, the supervision task) does not happen.
void TestSectionConnectionReentrancy::listenerMayCloseFromTheConnectingReportOfOpen()
{
    Watchdog dog("close from the Connecting report of open()", 20);
    Rig rig;
    // An updater that finds no bootloader at once would bring the link up.
    rig.updater->setOnStart(
        [](ISectionUpdaterListener* listener) { listener->updaterStateChanged(); });
    rig.onChange([&](uint8_t state) {
        if (state == State::Connecting) {
            rig.link->close();
        }
    });
    rig.link->open();
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Closed}));
    QCOMPARE(rig.link->state(), uint8_t(State::Closed));
    QVERIFY(!rig.line->isOpen());
    QCOMPARE(rig.updater->startCount(), 0);
    QCOMPARE(rig.pool->calls, 0);
    QCOMPARE(rig.toldUnderLinkMutex, 0);

    // A later open() opens as usual.
    rig.onChange(nullptr);
    rig.link->open();
    QCOMPARE(rig.link->state(), uint8_t(State::Connected));
    QCOMPARE(rig.updater->startCount(), 1);
    QCOMPARE(rig.pool->calls, 1);
}

// close() and open() from that report: the inner open() did the whole job, once.
void TestSectionConnectionReentrancy::listenerMayCloseAndReopenFromTheConnectingReportOfOpen()
{
    Watchdog dog("close and open from the Connecting report of open()", 20);
    Rig rig;
    bool reopened = false;
    rig.onChange([&](uint8_t state) {
        if (state == State::Connecting && !reopened) {
            reopened = true;
            rig.link->close();
            rig.link->open();
        }
    });
    rig.link->open();
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Closed, State::Connecting}));
    QCOMPARE(rig.link->state(), uint8_t(State::Connecting));
    QVERIFY(rig.line->isOpen());
    QCOMPARE(rig.updater->startCount(), 1);
    QCOMPARE(rig.pool->calls, 1);
    QCOMPARE(rig.toldUnderLinkMutex, 0);
}

// Every call the link makes to anything else, on every road it takes: opening, an update
// with progress, a failure and a success, bytes while the updater listens, the section
// coming up, pings and the queue's drain, the port report, a serial error and its retry, a
// calibration, an echo, bad data, silence to NoResponse and the restart, a stalled
// reconnection with its log lines, and closing. Each named call-out must have been made
// and must have found the link's mutex free every time.
void TestSectionConnectionReentrancy::everyCallOutOfTheLinkFindsTheMutexFree()
{
    Watchdog dog("every call out of the link", 120);
    ManualClock clock{1000000LL * 1000000LL};
    ProbedRig rig;
    rig.settings->setReconnectInterval(100);
    LogCapture log;
    std::unique_ptr<LockProbingMessageHandler> logProbe =
        std::make_unique<LockProbingMessageHandler>([&rig] {
            rig.calls.made("logger");
            return true;
        });

    // Open, and an update that reports progress and fails, then one that succeeds.
    rig.link->open();
    rig.receive(QByteArray::fromHex("cc"));  // to the updater while it is active
    rig.updater->setActive(true);
    rig.receive(QByteArray::fromHex("cc"));
    rig.updater->setUpdating(true);
    rig.updater->notifyStateChanged();
    ISectionUpdaterListener* fromUpdater = rig.updater->listener();
    QVERIFY(fromUpdater != nullptr);
    fromUpdater->sendBootloaderPacket(BootloaderPacket(BootloaderCommand::Ping));
    fromUpdater->updateProgress(40);
    fromUpdater->failed(1);
    rig.updater->setUpdating(false);
    rig.updater->notifyStateChanged();
    rig.updater->setUpdating(true);
    rig.updater->notifyStateChanged();
    rig.updater->setUpdating(false);
    rig.updater->setActive(false);
    rig.updater->notifyStateChanged();
    QCOMPARE(rig.link->state(), uint8_t(State::Connected));

    // Passes: the port report, pings and the queue's drain with the sent count.
    rig.link->enqueueMessage(SerialMessage(MessageType::Led, 3, {1, 0}));
    rig.pass(clock, 2100);
    rig.pass(clock, 51);

    // The section's own messages.
    rig.receive(SerialFrames::frame(MessageType::FaderTouch, kComponentId, QByteArray(1, '\x01')));
    rig.receive(SerialFrames::frame(MessageType::SerialError, 0, QByteArray()));
    rig.pass(clock, 1100);
    QCOMPARE(rig.link->state(), uint8_t(State::Connected));
    rig.link->startCalibration();
    rig.receive(SerialFrames::frame(MessageType::Calibration, 0, QByteArray()));
    rig.receive(SerialFrames::frame(MessageType::Echo, 0, QByteArray()));
    rig.receive(QByteArray(11, '\x7f'));

    // Silence: NoResponse, then the restart, which probes again and stalls.
    rig.pass(clock, 20100);
    QCOMPARE(rig.link->state(), uint8_t(State::NoResponse));
    rig.updater->setActive(true);
    rig.updater->setProbing(true);
    rig.pass(clock, 10100);
    QCOMPARE(rig.link->state(), uint8_t(State::Connecting));
    rig.pass(clock, 51);
    rig.pass(clock, 200);
    QVERIFY(rig.link->reconnectAttempts() >= 1);
    // The section answers: the link is back.
    rig.updater->setActive(false);
    rig.updater->setProbing(false);
    rig.receive(SerialFrames::frame(MessageType::FaderTouch, kComponentId, QByteArray(1, '\x00')));
    rig.pass(clock, 51);
    rig.link->close();
    logProbe.reset();

    QVERIFY2(log.texts().filter(QStringLiteral("is back after")).size() == 1,
             qPrintable(log.texts().join(QLatin1Char('\n'))));
    QStringList missing;
    QStringList underLock;
    for (const QString& name : kEveryCallOut) {
        const auto found = rig.calls.counts.find(name);
        if (found == rig.calls.counts.end() || found->second.calls == 0) {
            if (name != QLatin1String("pool.scheduleOnce")) {
                missing << name;
            }
            continue;
        }
        if (found->second.underLinkMutex > 0) {
            underLock << QStringLiteral("%1 (%2 of %3 calls)")
                             .arg(name)
                             .arg(found->second.underLinkMutex)
                             .arg(found->second.calls);
        }
    }
    for (const auto& [name, count] : rig.calls.counts) {
        QVERIFY2(kEveryCallOut.contains(name), qPrintable(QStringLiteral("unlisted: ") + name));
    }
    QVERIFY2(missing.isEmpty() && underLock.isEmpty(),
             qPrintable(QStringLiteral("made with the link's mutex held: [%1]; never made: [%2]")
                            .arg(underLock.join(QStringLiteral(", ")),
                                 missing.join(QStringLiteral(", ")))));
}

// The same over a real serial device: opening reports synchronously (QSerialPort's error
// signal into the line's error handler, and the line's log lines into the application's
// message handler) and may wait for the device's lock file. Each log line of the line's
// open, close and error path, on the first open, on reconnection attempts while the device
// is missing, on the attempt that finds it back, and when it goes away, must find the
// link's mutex free.
void TestSectionConnectionReentrancy::hardwareLineOpensClosesAndReportsWithoutTheLinkMutex()
{
    Watchdog dog("the hardware line's open, close and error path", 120);
    ManualClock clock{1000000LL * 1000000LL};
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString device = dir.filePath(QStringLiteral("ttyWS0"));

    auto settings = std::make_shared<FakeSettings>();
    settings->setReconnectInterval(100);
    auto logger = std::make_shared<Logger>(settings);
    auto root = std::make_shared<RootSerialMessageHandler>();
    auto line = std::make_shared<HardwareSerialConnection>(kSection, device);
    auto pool = std::make_shared<TaskPool>();
    auto updater = std::make_unique<FakeSectionUpdater>();
    FakeSectionUpdater* fakeUpdater = updater.get();
    auto link =
        std::make_shared<SectionConnection>(kSection, root, std::make_shared<SerialMessageQueue>(),
                                            line, pool, std::move(updater), logger);
    line->setDataReceiver(link.get());
    link->setReconnectSettings(settings);
    RecordingStateListener listener;
    link->setStateListener(&listener);
    const auto pass = [&](int64_t ms) {
        clock.advanceMs(ms);
        pool->runPendingTasks();
        QCoreApplication::processEvents();
    };

    LogCapture log;
    LockProbingMessageHandler probe([&link] { return linkMutexIsFree(link.get()); });

    // Missing: the first open fails and says so; attempts follow every interval.
    link->open();
    QVERIFY(!line->isOpen());
    for (int i = 0; i < 6; ++i) {
        pass(51);
    }
    const int failureLines = probe.lineCount();
    QVERIFY2(failureLines >= 3, qPrintable(log.texts().join(QLatin1Char('\n'))));

    // Plugged in: the next attempt opens it, logging from inside the reopen.
    PtySectionSimulator sim;
    QVERIFY2(sim.isOpen(), qPrintable(sim.errorString()));
    QVERIFY(QFile::link(sim.slavePath(), device));
    for (int i = 0; i < 6 && !line->isOpen(); ++i) {
        pass(51);
    }
    QVERIFY(line->isOpen());
    QCOMPARE(link->state(), uint8_t(State::Connecting));
    QVERIFY(probe.lineCount() > failureLines);
    QVERIFY(log.texts().contains(QStringLiteral("WS section %1 serial port: \"%2\" ready and open.")
                                     .arg(kSection)
                                     .arg(device)));

    // Pulled again: the port's error handler logs and closes the port.
    const int beforeHangUp = probe.lineCount();
    sim.hangUp();
    QTRY_VERIFY_WITH_TIMEOUT(!line->isOpen(), 5000);
    QVERIFY(probe.lineCount() > beforeHangUp);
    QFile::remove(device);
    for (int i = 0; i < 6; ++i) {
        pass(51);
    }
    QCOMPARE(fakeUpdater->startCount() >= 2, true);

    QVERIFY2(probe.linesUnderLock().isEmpty(),
             qPrintable(QStringLiteral("logged with the link's mutex held: ") +
                        probe.linesUnderLock().join(QStringLiteral(" | "))));
    link->close();
    line->setDataReceiver(nullptr);
}

QTEST_GUILESS_MAIN(TestSectionConnectionReentrancy)
#include "tst_sectionconnectionreentrancy.moc"
