#include <QByteArray>
#include <QList>
#include <QStringList>
#include <QtTest/QtTest>
#include <functional>
#include <memory>
#include <stdexcept>
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
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/recordingstatelistener.h"
#include "support/sectionlinkrig.h"
#include "support/serialframes.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

// Like a board that has been up for a while: far from the clock's origin, so that the
// link's "last ping" of 0 lies long in the past.
constexpr uint8_t kSection = 2;
// The device id the stand-in component takes messages for.
constexpr uint8_t kComponentId = 9;

using State = ISectionConnection::State;

const QByteArray kPingFrame = QByteArray::fromHex("03000003");
const QByteArray kSerialErrorFrame = QByteArray::fromHex("03020005");
const QByteArray kCalibrationFrame = QByteArray::fromHex("03030006");

// A fader touch for the component: a message a handler takes.
QByteArray handledFrame()
{
    return SerialFrames::frame(MessageType::FaderTouch, kComponentId, QByteArray(1, '\x01'));
}

LogCapture::Line logLine(QtMsgType level, const QString& text)
{
    return LogCapture::Line{level, text};
}

// The shared section-link rig on a real task pool, under a manual clock, with its log
// captured and the time of each state report noted.
struct Rig : SectionLinkRig<TaskPool>
{
    ManualClock clock{kStartNs};
    LogCapture log;
    // When each state was reported.
    std::vector<std::pair<int, qint64>> stateTimes;

    Rig() : SectionLinkRig(kSection, kComponentId)
    {
        listener.setOnStateChanged(
            [this](uint8_t, uint8_t state) { stateTimes.emplace_back(state, clock.nowNs()); });
    }

    int state() const { return link->state(); }

    // The time the last report of `state` came, or -1.
    qint64 lastTimeOf(int state) const
    {
        for (auto it = stateTimes.rbegin(); it != stateTimes.rend(); ++it) {
            if (it->first == state) {
                return it->second;
            }
        }
        return -1;
    }

    void receive(const QByteArray& bytes) { QVERIFY(push(bytes)); }

    void tickAt(qint64 ns)
    {
        clock.setNs(ns);
        pool->runPendingTasks();
    }

    // Ticks every `stepNs` while the next tick stays at or before `untilNs`.
    void tickEvery(qint64 stepNs, qint64 untilNs)
    {
        while (clock.nowNs() + stepNs <= untilNs) {
            clock.advanceNs(stepNs);
            pool->runPendingTasks();
        }
    }

    // Ticks every millisecond (so that a pass runs every 51 ms) until the state is reached;
    // false if it is not reached within `limitMs`.
    bool tickUntilState(int wanted, qint64 limitMs)
    {
        const qint64 end = clock.nowNs() + limitMs * kMs;
        while (state() != wanted && clock.nowNs() < end) {
            clock.advanceMs(1);
            pool->runPendingTasks();
        }
        return state() == wanted;
    }

    // Opens the link and lets the component take a message: Connected now.
    void connectNow()
    {
        if (!line->isOpen()) {
            link->open();
        }
        receive(handledFrame());
    }

    int pingCount() const { return line->flushes().count(kPingFrame); }

    // Brings a freshly built link into `state` by the same roads the section would take.
    bool bringTo(int wanted)
    {
        switch (wanted) {
            case State::Closed:
                link->open();
                link->close();
                break;
            case State::Connecting:
                link->open();
                break;
            case State::Connected:
                connectNow();
                break;
            case State::Updating:
                link->open();
                updater->setActive(true);
                updater->setUpdating(true);
                updater->notifyStateChanged();
                break;
            case State::Calibrating:
                connectNow();
                link->startCalibration();
                break;
            case State::SerialError:
                connectNow();
                receive(kSerialErrorFrame);
                break;
            case State::NoResponse:
                connectNow();
                tickUntilState(State::NoResponse, 21000);
                break;
        }
        return state() == wanted;
    }
};

void addStateColumn()
{
    QTest::addColumn<int>("state");
}

}  // namespace

class TestSectionConnection : public QObject
{
    Q_OBJECT

private slots:
    void withoutReconnectIntervalAStalledLinkIsNeverRestarted();
    void stalledLinkIsReprobedOnceItHasBeenConnectingForTheInterval();
    void aLinkWaitingForItsBusyUpdaterIsNeverTakenAsStalled_data();
    void aLinkWaitingForItsBusyUpdaterIsNeverTakenAsStalled();
    void reprobesRepeatEveryIntervalWithOneWarningAndNoNewTask();
    void vanishedLineIsReopenedAfterOneIntervalAndTheReturnIsLogged();
    void noRetryWhileUpdatingOrAfterClose();
    void updateFailuresAndSuccessesReachTheListener();
    void portIsReportedOnceWhileItDoesNotChange();
    // Construction, open and close.
    void freshConnectionIsClosedAndKnowsItsIndex();
    void openOpensLineSetsConnectingStartsUpdaterAndSchedulesTask();
    void openOnOpenLineDoesNothing();
    void openWhoseLineFailsStillSetsConnectingAndSchedules();
    void openForgetsHalfAFrameFromBeforeTheRestart();
    void openOnConnectionNotHeldBySharedPointerThrowsBadWeakPtr();
    void everyOpenAddsFurtherSupervisionTask();
    void closeClosesLineAndReportsClosed();
    void closeOnClosedLineOnlyReportsClosed();
    void settingTheSameStateAgainReportsNothing();
    void operationsWithoutListenerDoNotCrash();

    // Reaching Connected.
    void firstHandledMessageConnects();
    void unhandledMessageWhileConnectingKeepsConnecting();
    void handledMessageConnectsFromAnyState_data();
    void handledMessageConnectsFromAnyState();
    void updaterReportingNotInBootloaderConnectsWithGracePeriod();
    void updaterStateChangeSetsLinkState_data();
    void updaterStateChangeSetsLinkState();

    // The updater's side of the line.
    void updaterCallbacksFromInsideOpenDoNotDeadlock();
    void updateProgressIsForwardedWithSectionIndex();
    void sendBootloaderPacketWritesRawToLine();
    void updaterFailureIsIgnored();
    void bytesGoToUpdaterWhileItIsActiveAndNotToParser();

    // Keep-alive pings.
    void freshlyOpenedConnectionPingsOnlyOnceHandledMessageMadeItConnected();
    void pingsEveryTwoSecondsWhileConnected();
    void pingIntervalBoundary_data();
    void pingIntervalBoundary();
    void pingsContinueInNoResponseAndStopAfterRestart();
    void noPingOutsideConnectedAndNoResponse_data();
    void noPingOutsideConnectedAndNoResponse();

    // Silence: NoResponse and restart.
    void silentSectionGoesNoResponseAfterGraceAndSilenceThenRestarts();
    void noResponseBoundary_data();
    void noResponseBoundary();
    void handledMessageWhileConnectedDoesNotRenewGracePeriod();
    void garbageBytesCountAsSignOfLife();
    void restartClosesReopensAndSchedulesFurtherTask();
    void restartBoundary_data();
    void restartBoundary();
    void restartedConnectionRunsTwoPassesPerTick();
    void bytesInNoResponseDelayRestartWithoutReconnecting();

    // Serial errors.
    void serialErrorFromSectionWritesZeroFillAndReturnsToConnectedAfterOneSecond();
    void serialErrorRetryBoundary_data();
    void serialErrorRetryBoundary();
    void returnFromSerialErrorGrantsGracePeriodAndLeavesLinkNotReady();

    // Calibration.
    void startCalibrationFromConnectedSendsCalibrationFrameAtOnce();
    void startCalibrationOutsideConnectedIsIgnored_data();
    void startCalibrationOutsideConnectedIsIgnored();
    void handledMessageDuringCalibratingEndsCalibration();
    void calibrationDoneFromSectionConnectsAndMarksLinkReady();
    void queueIsNotDrainedWhileCalibrating();
    void stopCalibrationChangesNothing();

    // Draining the outgoing queue.
    void drainSendsDueMessagesInOneFlushAndReportsSentCount();
    void atMostTwentyMessagesLeavePerPass();
    void messagesEnqueuedWhileNotConnectedWait();
    void enqueueMessageGoesThroughCoalescingQueue();
    void delayedMessageLeavesOnFirstPassAfterItIsDue();
    void sentMessageCountIsReportedOnEveryConnectedPassOnly();

    // Messages no component takes.
    void unhandledMessageTypesLogOneCriticalLine_data();
    void unhandledMessageTypesLogOneCriticalLine();
    void echoLogsTwoLines();
    void bootloaderReportLogsTwoLines();
    void elevenBadBytesSendSerialErrorToSectionTenDoNot_data();
    void elevenBadBytesSendSerialErrorToSectionTenDoNot();
};

// ---------------------------------------------------------------------------------------
// Construction, open and close.

void TestSectionConnection::freshConnectionIsClosedAndKnowsItsIndex()
{
    Rig rig;
    QCOMPARE(rig.state(), int(State::Closed));
    QCOMPARE(int(rig.link->sectionIndex()), int(kSection));
    QCOMPARE(rig.pool->taskCount(), std::size_t{0});
    rig.tickEvery(kMs, kStartNs + 3000 * kMs);
    QCOMPARE(rig.line->openCount(), 0);
    QCOMPARE(rig.line->flushCount(), 0);
    QCOMPARE(rig.listener.stateChangeCount(), 0);
    QCOMPARE(rig.updater->startCount(), 0);
}

void TestSectionConnection::openOpensLineSetsConnectingStartsUpdaterAndSchedulesTask()
{
    Rig rig;
    rig.link->open();
    QVERIFY(rig.line->isOpen());
    QCOMPARE(rig.line->openCount(), 1);
    QCOMPARE(rig.state(), int(State::Connecting));
    QCOMPARE(rig.states(), QList<int>{State::Connecting});
    QCOMPARE(int(rig.listener.stateReports().front().sectionIndex), int(kSection));
    QCOMPARE(rig.updater->startCount(), 1);
    QCOMPARE(rig.updater->listener(), static_cast<ISectionUpdaterListener*>(rig.link.get()));
    QCOMPARE(rig.pool->taskCount(), std::size_t{1});
    QCOMPARE(rig.line->flushCount(), 0);
    QVERIFY(rig.log.lines().isEmpty());
}

void TestSectionConnection::openOnOpenLineDoesNothing()
{
    {
        Rig rig;
        rig.line->setOpen(true);
        rig.link->open();
        QCOMPARE(rig.line->openCount(), 0);
        QCOMPARE(rig.state(), int(State::Closed));
        QCOMPARE(rig.listener.stateChangeCount(), 0);
        QCOMPARE(rig.updater->startCount(), 0);
        QCOMPARE(rig.pool->taskCount(), std::size_t{0});
    }

    // Once opened, a second open changes nothing either.
    Rig other;
    other.link->open();
    other.link->open();
    QCOMPARE(other.line->openCount(), 1);
    QCOMPARE(other.updater->startCount(), 1);
    QCOMPARE(other.pool->taskCount(), std::size_t{1});
    QCOMPARE(other.states(), QList<int>{State::Connecting});
}

void TestSectionConnection::openWhoseLineFailsStillSetsConnectingAndSchedules()
{
    Rig rig;
    rig.line->setOpenResult(false);
    rig.link->open();
    QVERIFY(!rig.line->isOpen());
    QCOMPARE(rig.state(), int(State::Connecting));
    QCOMPARE(rig.updater->startCount(), 1);
    QCOMPARE(rig.pool->taskCount(), std::size_t{1});

    // The line is still closed, so the next open tries again and adds another task.
    rig.link->open();
    QCOMPARE(rig.line->openCount(), 2);
    QCOMPARE(rig.updater->startCount(), 2);
    QCOMPARE(rig.pool->taskCount(), std::size_t{2});
    QCOMPARE(rig.states(), QList<int>{State::Connecting});
}

void TestSectionConnection::openForgetsHalfAFrameFromBeforeTheRestart()
{
    Rig rig;
    rig.link->open();
    rig.receive(handledFrame().left(2));
    QCOMPARE(rig.link->pendingSize(), 2);
    rig.link->close();
    rig.link->open();
    QCOMPARE(rig.link->pendingSize(), 0);

    // Glued to the stale half frame, this frame would have been lost.
    rig.receive(handledFrame());
    QCOMPARE(rig.component->taken().size(), std::size_t{1});
    QCOMPARE(rig.state(), int(State::Connected));
    QVERIFY(rig.log.lines().isEmpty());
}

void TestSectionConnection::openOnConnectionNotHeldBySharedPointerThrowsBadWeakPtr()
{
    ManualClock clock(kStartNs);
    auto line = std::make_shared<FakeSerialConnection>();
    SectionConnection link(kSection, std::make_shared<RootSerialMessageHandler>(),
                           std::make_shared<SerialMessageQueue>(), line,
                           std::make_shared<TaskPool>(), std::make_unique<FakeSectionUpdater>(),
                           std::make_shared<Logger>(std::make_shared<FakeSettings>()));
    QVERIFY_EXCEPTION_THROWN(link.open(), std::bad_weak_ptr);
}

void TestSectionConnection::everyOpenAddsFurtherSupervisionTask()
{
    Rig rig;
    rig.link->open();
    rig.link->close();
    rig.link->open();
    QCOMPARE(rig.pool->taskCount(), std::size_t{2});
    rig.link->open();  // already open: nothing
    QCOMPARE(rig.pool->taskCount(), std::size_t{2});
    rig.link->close();
    rig.link->open();
    QCOMPARE(rig.pool->taskCount(), std::size_t{3});
}

void TestSectionConnection::closeClosesLineAndReportsClosed()
{
    Rig rig;
    rig.connectNow();
    rig.link->close();
    QVERIFY(!rig.line->isOpen());
    QCOMPARE(rig.line->closeCount(), 1);
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Connected, State::Closed}));
}

void TestSectionConnection::closeOnClosedLineOnlyReportsClosed()
{
    Rig rig;
    rig.link->close();  // fresh: already Closed, nothing to report
    QCOMPARE(rig.listener.stateChangeCount(), 0);
    QCOMPARE(rig.line->closeCount(), 0);

    rig.line->setOpenResult(false);
    rig.link->open();
    rig.link->close();
    QCOMPARE(rig.line->closeCount(), 0);
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Closed}));
}

void TestSectionConnection::settingTheSameStateAgainReportsNothing()
{
    Rig rig;
    rig.connectNow();
    rig.receive(handledFrame());
    rig.receive(handledFrame());
    QCOMPARE(rig.component->taken().size(), std::size_t{3});
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Connected}));
}

void TestSectionConnection::operationsWithoutListenerDoNotCrash()
{
    Rig rig;
    rig.link->setStateListener(nullptr);
    rig.connectNow();
    rig.link->enqueueMessage(SerialMessage(MessageType::MeterLevel, 4, {9}));
    rig.tickEvery(kMs, kStartNs + 200 * kMs);
    rig.link->updateProgress(50);
    rig.link->startCalibration();
    rig.link->close();
    QCOMPARE(rig.state(), int(State::Closed));
    QCOMPARE(rig.listener.stateChangeCount(), 0);
    QCOMPARE(rig.listener.progressCount(), 0);
    QCOMPARE(rig.listener.sentCountReports(), 0);
    QVERIFY(rig.line->writtenBytes().contains(QByteArray::fromHex("040d04091e")));
}

// ---------------------------------------------------------------------------------------
// Reaching Connected.

void TestSectionConnection::firstHandledMessageConnects()
{
    Rig rig;
    rig.link->open();
    rig.tickEvery(kMs, kStartNs + 500 * kMs);
    QCOMPARE(rig.state(), int(State::Connecting));

    rig.receive(handledFrame());
    QCOMPARE(rig.state(), int(State::Connected));
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Connected}));
    for (const auto& report : rig.listener.stateReports()) {
        QCOMPARE(int(report.sectionIndex), int(kSection));
    }
    QCOMPARE(rig.component->taken().size(), std::size_t{1});
    QVERIFY(rig.component->taken().front() ==
            SerialMessage(MessageType::FaderTouch, kComponentId, {1}));
    QVERIFY(rig.log.lines().isEmpty());
}

void TestSectionConnection::unhandledMessageWhileConnectingKeepsConnecting()
{
    Rig rig;
    rig.link->open();
    rig.receive(SerialFrames::frame(MessageType::ButtonState, 3, QByteArray(1, '\x01')));
    QCOMPARE(rig.state(), int(State::Connecting));
    QCOMPARE(rig.states(), QList<int>{State::Connecting});
    QCOMPARE(rig.component->offerCount(), 1);
    QCOMPARE(rig.log.lines(),
             (QList<LogCapture::Line>{logLine(QtCriticalMsg,
                                              "Unable to handle unkown message from section 2. "
                                              "Device id: 3 message type: 20")}));
}

void TestSectionConnection::handledMessageConnectsFromAnyState_data()
{
    addStateColumn();
    QTest::newRow("Closed") << int(State::Closed);
    QTest::newRow("Connecting") << int(State::Connecting);
    QTest::newRow("Updating") << int(State::Updating);
    QTest::newRow("Calibrating") << int(State::Calibrating);
    QTest::newRow("SerialError") << int(State::SerialError);
    QTest::newRow("NoResponse") << int(State::NoResponse);
}

void TestSectionConnection::handledMessageConnectsFromAnyState()
{
    QFETCH(int, state);
    Rig rig;
    QVERIFY(rig.bringTo(state));
    // While the updater is in its exchange the bytes are its own; here it has just left it
    // without reporting yet.
    rig.updater->setActive(false);
    const int reportsBefore = rig.listener.stateChangeCount();

    rig.receive(handledFrame());
    QCOMPARE(rig.state(), int(State::Connected));
    QCOMPARE(rig.listener.stateChangeCount(), reportsBefore + 1);
    QCOMPARE(int(rig.listener.lastState()), int(State::Connected));
}

void TestSectionConnection::updaterReportingNotInBootloaderConnectsWithGracePeriod()
{
    Rig rig;
    rig.link->open();
    QVERIFY(!rig.updater->isActive());
    QVERIFY(rig.updater->notifyStateChanged());
    QCOMPARE(rig.state(), int(State::Connected));
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Connected}));

    // Silence counts from 10 s after that moment.
    const qint64 connectedAt = rig.clock.nowNs();
    rig.tickEvery(kMs, connectedAt + 20000 * kMs);
    QCOMPARE(rig.state(), int(State::Connected));
    QVERIFY(rig.tickUntilState(State::NoResponse, 60));
}

void TestSectionConnection::updaterStateChangeSetsLinkState_data()
{
    QTest::addColumn<int>("from");
    QTest::addColumn<bool>("active");
    QTest::addColumn<bool>("updating");
    QTest::addColumn<int>("expected");
    QTest::newRow("idle -> Connected")
        << int(State::Connecting) << false << false << int(State::Connected);
    QTest::newRow("exchange -> Connecting")
        << int(State::Connected) << true << false << int(State::Connecting);
    QTest::newRow("writing -> Updating")
        << int(State::Connected) << true << true << int(State::Updating);
    QTest::newRow("writing, exchange over -> Updating")
        << int(State::Connecting) << false << true << int(State::Updating);
    QTest::newRow("update done -> Connected")
        << int(State::Updating) << false << false << int(State::Connected);
}

void TestSectionConnection::updaterStateChangeSetsLinkState()
{
    QFETCH(int, from);
    QFETCH(bool, active);
    QFETCH(bool, updating);
    QFETCH(int, expected);
    Rig rig;
    QVERIFY(rig.bringTo(from));
    rig.updater->setActive(active);
    rig.updater->setUpdating(updating);
    QVERIFY(rig.updater->notifyStateChanged());
    QCOMPARE(rig.state(), expected);
    QCOMPARE(int(rig.listener.lastState()), expected);
    QVERIFY(rig.log.lines().isEmpty());
}

// ---------------------------------------------------------------------------------------
// The updater's side of the line.

void TestSectionConnection::updaterCallbacksFromInsideOpenDoNotDeadlock()
{
    Rig rig;
    // As the real updater does on start: it sends its auto-baud probe, which puts it into
    // its exchange and reports that.
    rig.updater->setOnStart([&rig](ISectionUpdaterListener* listener) {
        rig.updater->setActive(true);
        listener->sendBootloaderPacket(BootloaderPacket(BootloaderCommand::AutoBaud));
        listener->updaterStateChanged();
        listener->updateProgress(0);
    });
    rig.link->open();
    QCOMPARE(rig.state(), int(State::Connecting));
    QCOMPARE(rig.states(), QList<int>{State::Connecting});
    QCOMPARE(rig.line->rawPackets().size(), std::size_t{1});
    QVERIFY(rig.line->rawPackets().front() == BootloaderPacket(BootloaderCommand::AutoBaud));
    QCOMPARE(rig.pool->taskCount(), std::size_t{1});
}

void TestSectionConnection::updateProgressIsForwardedWithSectionIndex()
{
    Rig rig;
    rig.link->updateProgress(0);
    rig.link->updateProgress(42);
    rig.link->updateProgress(100);
    QCOMPARE(rig.listener.progressReports(),
             (std::vector<RecordingStateListener::Report>{{2, 0}, {2, 42}, {2, 100}}));
    QCOMPARE(rig.listener.stateChangeCount(), 0);
}

void TestSectionConnection::sendBootloaderPacketWritesRawToLine()
{
    Rig rig;
    rig.link->open();
    const BootloaderPacket packet(BootloaderCommand::SendData, QByteArray(64, '\x5a'));
    rig.link->sendBootloaderPacket(packet);
    QCOMPARE(rig.line->rawPackets().size(), std::size_t{1});
    QVERIFY(rig.line->rawPackets().front() == packet);
    QVERIFY(rig.line->sentMessages().empty());
    QCOMPARE(rig.line->flushCount(), 0);
}

void TestSectionConnection::updaterFailureIsIgnored()
{
    Rig rig;
    rig.connectNow();
    rig.listener.clear();
    rig.link->failed(ISectionUpdaterListener::FirmwareFileError);
    rig.link->failed(ISectionUpdaterListener::ResendsExhausted);
    rig.link->failed(ISectionUpdaterListener::BootloaderErrorStatus);
    QCOMPARE(rig.state(), int(State::Connected));
    QCOMPARE(rig.listener.stateChangeCount(), 0);
    QCOMPARE(rig.line->flushCount(), 0);
    QVERIFY(rig.log.lines().isEmpty());
}

void TestSectionConnection::bytesGoToUpdaterWhileItIsActiveAndNotToParser()
{
    Rig rig;
    rig.link->open();
    rig.updater->setActive(true);
    const QByteArray bytes = handledFrame() + QByteArray::fromHex("ccffffffffffffffffffffffff");
    rig.receive(bytes);
    QCOMPARE(rig.updater->chunks(), QList<QByteArray>{bytes});
    QCOMPARE(rig.component->offerCount(), 0);
    QCOMPARE(rig.link->pendingSize(), 0);
    QCOMPARE(rig.state(), int(State::Connecting));
    QVERIFY(rig.line->sentMessages().empty());
    QVERIFY(rig.log.lines().isEmpty());

    // Out of the exchange, the parser has them again.
    rig.updater->setActive(false);
    rig.receive(handledFrame());
    QCOMPARE(rig.updater->chunks().size(), 1);
    QCOMPARE(rig.component->offerCount(), 1);
    QCOMPARE(rig.state(), int(State::Connected));
}

// ---------------------------------------------------------------------------------------
// Keep-alive pings.

void TestSectionConnection::freshlyOpenedConnectionPingsOnlyOnceHandledMessageMadeItConnected()
{
    Rig rig;
    rig.link->open();
    rig.tickEvery(kMs, kStartNs + 5000 * kMs);
    QCOMPARE(rig.state(), int(State::Connecting));
    QCOMPARE(rig.line->flushCount(), 0);
    QVERIFY(rig.line->sentMessages().empty());

    rig.receive(handledFrame());
    rig.tickEvery(kMs, rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.line->flushes(), QList<QByteArray>{kPingFrame});
    QCOMPARE(rig.line->sentMessages().size(), std::size_t{1});
    QVERIFY(rig.line->sentMessages().front() == SerialMessage(MessageType::Ping, 0));
}

void TestSectionConnection::pingsEveryTwoSecondsWhileConnected()
{
    Rig rig;
    rig.connectNow();
    const qint64 start = rig.clock.nowNs();
    QList<qint64> pingTimes;
    int flushes = 0;
    while (rig.clock.nowNs() < start + 10000 * kMs) {
        rig.clock.advanceMs(1);
        // The section keeps answering.
        if ((rig.clock.nowNs() - start) % (1000 * kMs) == 0) {
            rig.receive(handledFrame());
        }
        rig.pool->runPendingTasks();
        if (rig.line->flushes().size() != flushes) {
            flushes = rig.line->flushes().size();
            QCOMPARE(rig.line->flushes().last(), kPingFrame);
            pingTimes << rig.clock.nowNs();
        }
    }
    QCOMPARE(rig.state(), int(State::Connected));
    // The first pass after connecting pings at once (the last ping lies long back).
    QVERIFY(!pingTimes.isEmpty());
    QCOMPARE(pingTimes.first(), start + 51 * kMs);
    QVERIFY(pingTimes.size() >= 4);
    for (int i = 1; i < pingTimes.size(); ++i) {
        const qint64 gap = pingTimes[i] - pingTimes[i - 1];
        QVERIFY2(gap > 2000 * kMs && gap <= 2051 * kMs, qPrintable(QString::number(gap)));
    }
}

void TestSectionConnection::pingIntervalBoundary_data()
{
    QTest::addColumn<qint64>("sinceLastPingNs");
    QTest::addColumn<int>("newPings");
    QTest::newRow("2000 ms") << 2000 * kMs << 0;
    QTest::newRow("2000.999999 ms") << 2001 * kMs - 1 << 0;
    QTest::newRow("2001 ms") << 2001 * kMs << 1;
}

void TestSectionConnection::pingIntervalBoundary()
{
    QFETCH(qint64, sinceLastPingNs);
    QFETCH(int, newPings);
    Rig rig;
    rig.connectNow();
    const qint64 pingAt = kStartNs + 51 * kMs;
    rig.tickAt(pingAt);
    QCOMPARE(rig.pingCount(), 1);

    rig.tickEvery(51 * kMs, pingAt + sinceLastPingNs - 60 * kMs);
    QCOMPARE(rig.pingCount(), 1);
    const int passesBefore = rig.listener.sentCountReports();
    rig.tickAt(pingAt + sinceLastPingNs);
    QCOMPARE(rig.listener.sentCountReports(), passesBefore + 1);  // a pass did run
    QCOMPARE(rig.pingCount(), 1 + newPings);
}

void TestSectionConnection::pingsContinueInNoResponseAndStopAfterRestart()
{
    Rig rig;
    rig.connectNow();
    const qint64 connectedAt = rig.clock.nowNs();
    QVERIFY(rig.tickUntilState(State::NoResponse, 21000));
    const int pingsBefore = rig.pingCount();
    rig.tickEvery(kMs, connectedAt + 30000 * kMs);
    QCOMPARE(rig.state(), int(State::NoResponse));
    // Ten seconds of NoResponse: a ping every 2 s or so.
    QVERIFY2(rig.pingCount() - pingsBefore >= 4, qPrintable(QString::number(rig.pingCount())));

    QVERIFY(rig.tickUntilState(State::Connecting, 60));
    const int pingsAfterRestart = rig.pingCount();
    rig.tickEvery(kMs, rig.clock.nowNs() + 5000 * kMs);
    QCOMPARE(rig.state(), int(State::Connecting));
    QCOMPARE(rig.pingCount(), pingsAfterRestart);
}

void TestSectionConnection::noPingOutsideConnectedAndNoResponse_data()
{
    addStateColumn();
    QTest::newRow("Closed") << int(State::Closed);
    QTest::newRow("Connecting") << int(State::Connecting);
    QTest::newRow("Updating") << int(State::Updating);
    QTest::newRow("Calibrating") << int(State::Calibrating);
    QTest::newRow("SerialError") << int(State::SerialError);
}

void TestSectionConnection::noPingOutsideConnectedAndNoResponse()
{
    QFETCH(int, state);
    Rig rig;
    QVERIFY(rig.bringTo(state));
    const int flushesBefore = rig.line->flushes().size();
    const std::size_t sentBefore = rig.line->sentMessages().size();
    // Long enough for many passes, short enough that a serial error has not yet cleared.
    rig.tickEvery(kMs, rig.clock.nowNs() + 900 * kMs);
    QCOMPARE(rig.state(), state);
    QCOMPARE(rig.line->flushes().size(), flushesBefore);
    QCOMPARE(rig.line->sentMessages().size(), sentBefore);
    QCOMPARE(rig.pingCount(), 0);
}

// ---------------------------------------------------------------------------------------
// Silence: NoResponse and restart.

void TestSectionConnection::silentSectionGoesNoResponseAfterGraceAndSilenceThenRestarts()
{
    Rig rig;
    rig.link->open();
    rig.clock.advanceMs(20);
    rig.receive(handledFrame());
    const qint64 connectedAt = rig.clock.nowNs();
    rig.log.clear();

    rig.tickEvery(kMs, connectedAt + 40000 * kMs);

    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Connected, State::NoResponse,
                                       State::Closed, State::Connecting}));
    // 10 s grace plus more than 10 s of silence, seen on the next 50 ms pass.
    const qint64 noResponseAt = rig.lastTimeOf(State::NoResponse);
    QVERIFY2(noResponseAt >= connectedAt + 20001 * kMs && noResponseAt <= connectedAt + 20052 * kMs,
             qPrintable(QString::number(noResponseAt - connectedAt)));
    // More than 20 s of silence after the grace period: restarted.
    const qint64 restartAt = rig.lastTimeOf(State::Closed);
    QVERIFY2(restartAt >= connectedAt + 30001 * kMs && restartAt <= connectedAt + 30052 * kMs,
             qPrintable(QString::number(restartAt - connectedAt)));
    QCOMPARE(rig.lastTimeOf(State::Connecting), restartAt);
    QCOMPARE(rig.log.lines(),
             (QList<LogCapture::Line>{
                 logLine(QtWarningMsg,
                         "Section 2 has not received response in timely manner. "
                         "Setting state to NoResponse."),
                 logLine(QtWarningMsg,
                         "Section 2 has not received response in long time. Restart "
                         "the connection...")}));
}

void TestSectionConnection::noResponseBoundary_data()
{
    QTest::addColumn<qint64>("silenceNs");
    QTest::addColumn<int>("expected");
    QTest::newRow("10000 ms: still draining") << 10000 * kMs << int(State::Connected);
    QTest::newRow("10000.999999 ms: still draining") << 10001 * kMs - 1 << int(State::Connected);
    QTest::newRow("10001 ms: NoResponse") << 10001 * kMs << int(State::NoResponse);
}

void TestSectionConnection::noResponseBoundary()
{
    QFETCH(qint64, silenceNs);
    QFETCH(int, expected);
    Rig rig;
    rig.connectNow();
    const qint64 graceEnd = rig.clock.nowNs() + 10000 * kMs;
    rig.tickEvery(51 * kMs, graceEnd + silenceNs - 60 * kMs);
    QCOMPARE(rig.state(), int(State::Connected));
    rig.queue->sendMeterLevel(3, 0x40);
    rig.log.clear();
    const int drainsBefore = rig.listener.sentCountReports();

    rig.tickAt(graceEnd + silenceNs);
    QCOMPARE(rig.state(), expected);
    if (expected == State::Connected) {
        QCOMPARE(rig.listener.sentCountReports(), drainsBefore + 1);
        QCOMPARE(rig.line->flushes().last(), QByteArray::fromHex("040d034054"));
        QVERIFY(rig.log.lines().isEmpty());
    } else {
        QCOMPARE(rig.listener.sentCountReports(), drainsBefore);
        QCOMPARE(rig.queue->size(), std::size_t{1});
        QCOMPARE(rig.log.lines(), (QList<LogCapture::Line>{logLine(
                                      QtWarningMsg,
                                      "Section 2 has not received response in timely manner. "
                                      "Setting state to NoResponse.")}));
    }
}

void TestSectionConnection::handledMessageWhileConnectedDoesNotRenewGracePeriod()
{
    Rig rig;
    rig.connectNow();
    const qint64 connectedAt = rig.clock.nowNs();
    rig.tickEvery(kMs, connectedAt + 5000 * kMs);
    rig.receive(handledFrame());  // already Connected: silence now counts from here
    rig.tickEvery(kMs, connectedAt + 15000 * kMs);
    QCOMPARE(rig.state(), int(State::Connected));
    QVERIFY(rig.tickUntilState(State::NoResponse, 60));
    const qint64 at = rig.lastTimeOf(State::NoResponse);
    QVERIFY(at >= connectedAt + 15001 * kMs && at <= connectedAt + 15052 * kMs);
}

void TestSectionConnection::garbageBytesCountAsSignOfLife()
{
    Rig rig;
    rig.connectNow();
    const qint64 connectedAt = rig.clock.nowNs();
    rig.tickEvery(kMs, connectedAt + 15000 * kMs);
    // Too short to be looked at by the parser, but bytes all the same.
    rig.receive(QByteArray::fromHex("ffffff"));
    QCOMPARE(rig.link->pendingSize(), 3);
    rig.tickEvery(kMs, connectedAt + 25000 * kMs);
    QCOMPARE(rig.state(), int(State::Connected));
    QVERIFY(rig.tickUntilState(State::NoResponse, 60));
    const qint64 at = rig.lastTimeOf(State::NoResponse);
    QVERIFY(at >= connectedAt + 25001 * kMs && at <= connectedAt + 25052 * kMs);
}

void TestSectionConnection::restartClosesReopensAndSchedulesFurtherTask()
{
    Rig rig;
    QVERIFY(rig.bringTo(State::NoResponse));
    rig.log.clear();
    QCOMPARE(rig.line->openCount(), 1);
    QCOMPARE(rig.line->closeCount(), 0);
    QCOMPARE(rig.pool->taskCount(), std::size_t{1});

    QVERIFY(rig.tickUntilState(State::Connecting, 11000));
    QCOMPARE(rig.line->closeCount(), 1);
    QCOMPARE(rig.line->openCount(), 2);
    QVERIFY(rig.line->isOpen());
    QCOMPARE(rig.updater->startCount(), 2);
    QCOMPARE(rig.pool->taskCount(), std::size_t{2});
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Connected, State::NoResponse,
                                       State::Closed, State::Connecting}));
    QCOMPARE(rig.log.lines(),
             (QList<LogCapture::Line>{logLine(QtWarningMsg,
                                              "Section 2 has not received response in long "
                                              "time. Restart the connection...")}));
}

void TestSectionConnection::restartBoundary_data()
{
    QTest::addColumn<qint64>("silenceNs");
    QTest::addColumn<int>("expected");
    QTest::newRow("20000 ms: waits") << 20000 * kMs << int(State::NoResponse);
    QTest::newRow("20000.999999 ms: waits") << 20001 * kMs - 1 << int(State::NoResponse);
    QTest::newRow("20001 ms: restarts") << 20001 * kMs << int(State::Connecting);
}

void TestSectionConnection::restartBoundary()
{
    QFETCH(qint64, silenceNs);
    QFETCH(int, expected);
    Rig rig;
    rig.connectNow();
    const qint64 graceEnd = rig.clock.nowNs() + 10000 * kMs;
    rig.tickEvery(51 * kMs, graceEnd + silenceNs - 60 * kMs);
    QCOMPARE(rig.state(), int(State::NoResponse));
    rig.tickAt(graceEnd + silenceNs);
    QCOMPARE(rig.state(), expected);
    QCOMPARE(rig.line->openCount(), expected == State::Connecting ? 2 : 1);
}

void TestSectionConnection::restartedConnectionRunsTwoPassesPerTick()
{
    Rig rig;
    rig.connectNow();
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);
    int reports = rig.listener.sentCountReports();
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.listener.sentCountReports(), reports + 1);

    QVERIFY(rig.tickUntilState(State::NoResponse, 21000));
    QVERIFY(rig.tickUntilState(State::Connecting, 11000));
    rig.receive(handledFrame());
    QCOMPARE(rig.state(), int(State::Connected));

    // The first supervision task was never cancelled: both it and the one the restart added
    // run on every tick.
    QCOMPARE(rig.pool->taskCount(), std::size_t{2});
    reports = rig.listener.sentCountReports();
    const int flushCount = rig.line->flushCount();
    const int pings = rig.pingCount();
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.listener.sentCountReports(), reports + 2);
    // Two drains, and at most one ping: the second pass finds the first one's ping fresh.
    const int newPings = rig.pingCount() - pings;
    QVERIFY(newPings <= 1);
    QCOMPARE(rig.line->flushCount(), flushCount + 2 + newPings);
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.listener.sentCountReports(), reports + 4);
}

void TestSectionConnection::bytesInNoResponseDelayRestartWithoutReconnecting()
{
    Rig rig;
    QVERIFY(rig.bringTo(State::NoResponse));
    rig.tickEvery(kMs, rig.clock.nowNs() + 5000 * kMs);
    rig.receive(QByteArray::fromHex("ffffff"));
    const qint64 receivedAt = rig.clock.nowNs();
    QCOMPARE(rig.state(), int(State::NoResponse));

    rig.tickEvery(kMs, receivedAt + 20000 * kMs);
    QCOMPARE(rig.state(), int(State::NoResponse));
    QCOMPARE(rig.line->openCount(), 1);
    QVERIFY(rig.tickUntilState(State::Connecting, 60));
    QVERIFY(rig.lastTimeOf(State::Closed) <= receivedAt + 20052 * kMs);
}

// ---------------------------------------------------------------------------------------
// Serial errors.

void TestSectionConnection::
    serialErrorFromSectionWritesZeroFillAndReturnsToConnectedAfterOneSecond()
{
    Rig rig;
    rig.connectNow();
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.line->flushes(), QList<QByteArray>{kPingFrame});
    rig.clock.advanceMs(20);
    rig.log.clear();
    const qint64 errorAt = rig.clock.nowNs();

    rig.receive(kSerialErrorFrame);
    QCOMPARE(rig.state(), int(State::SerialError));
    QCOMPARE(rig.line->flushes(), (QList<QByteArray>{kPingFrame, QByteArray(1024, '\0')}));
    QVERIFY(rig.line->sentMessages().back().zeroFill);
    QCOMPARE(rig.component->linkReadyCalls(), std::vector<bool>{false});
    QCOMPARE(rig.log.lines(), (QList<LogCapture::Line>{logLine(
                                  QtCriticalMsg, "Received serial error from the section 2.")}));

    // Nothing leaves for a second: no ping, no queue.
    rig.link->enqueueMessage(SerialMessage(MessageType::FaderDriveMode, 4, {1}));
    rig.tickEvery(kMs, errorAt + 1000 * kMs);
    QCOMPARE(rig.state(), int(State::SerialError));
    QCOMPARE(rig.line->flushes().size(), 2);

    QVERIFY(rig.tickUntilState(State::Connected, 60));
    const qint64 backAt = rig.lastTimeOf(State::Connected);
    QVERIFY(backAt > errorAt + 1000 * kMs && backAt <= errorAt + 1051 * kMs);
    // The pass that clears the error does nothing else; the next one drains what waited (the
    // last ping is not yet 2 s old).
    QCOMPARE(rig.line->flushes().size(), 2);
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.line->flushes().mid(2), QList<QByteArray>{QByteArray::fromHex("040a040113")});
}

void TestSectionConnection::serialErrorRetryBoundary_data()
{
    QTest::addColumn<qint64>("sinceErrorNs");
    QTest::addColumn<int>("expected");
    QTest::newRow("1000 ms: waits") << 1000 * kMs << int(State::SerialError);
    QTest::newRow("1000 ms + 1 ns: Connected") << 1000 * kMs + 1 << int(State::Connected);
}

void TestSectionConnection::serialErrorRetryBoundary()
{
    QFETCH(qint64, sinceErrorNs);
    QFETCH(int, expected);
    Rig rig;
    rig.connectNow();
    const qint64 errorAt = rig.clock.nowNs();
    rig.receive(kSerialErrorFrame);
    rig.tickEvery(51 * kMs, errorAt + sinceErrorNs - 60 * kMs);
    QCOMPARE(rig.state(), int(State::SerialError));
    rig.tickAt(errorAt + sinceErrorNs);
    QCOMPARE(rig.state(), expected);
}

void TestSectionConnection::returnFromSerialErrorGrantsGracePeriodAndLeavesLinkNotReady()
{
    Rig rig;
    QVERIFY(rig.bringTo(State::SerialError));
    QVERIFY(rig.tickUntilState(State::Connected, 1100));
    const qint64 backAt = rig.clock.nowNs();
    rig.tickEvery(kMs, backAt + 20000 * kMs);
    QCOMPARE(rig.state(), int(State::Connected));
    QVERIFY(rig.tickUntilState(State::NoResponse, 60));
    // Only the section's "calibration done" tells the components the link is ready again.
    QCOMPARE(rig.component->linkReadyCalls(), std::vector<bool>{false});
}

// ---------------------------------------------------------------------------------------
// Calibration.

void TestSectionConnection::startCalibrationFromConnectedSendsCalibrationFrameAtOnce()
{
    Rig rig;
    rig.connectNow();
    rig.link->enqueueMessage(SerialMessage(MessageType::FaderPosition, 1, {0, 0}));
    rig.link->startCalibration();
    QCOMPARE(rig.state(), int(State::Calibrating));
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Connected, State::Calibrating}));
    QCOMPARE(rig.line->flushes(), QList<QByteArray>{kCalibrationFrame});
    QVERIFY(rig.line->sentMessages().back() == SerialMessage(MessageType::Calibration, 0));
    // Not through the queue, and the queue is left alone.
    QCOMPARE(rig.queue->size(), std::size_t{1});
}

void TestSectionConnection::startCalibrationOutsideConnectedIsIgnored_data()
{
    addStateColumn();
    QTest::newRow("Closed") << int(State::Closed);
    QTest::newRow("Connecting") << int(State::Connecting);
    QTest::newRow("Updating") << int(State::Updating);
    QTest::newRow("Calibrating") << int(State::Calibrating);
    QTest::newRow("SerialError") << int(State::SerialError);
    QTest::newRow("NoResponse") << int(State::NoResponse);
}

void TestSectionConnection::startCalibrationOutsideConnectedIsIgnored()
{
    QFETCH(int, state);
    Rig rig;
    QVERIFY(rig.bringTo(state));
    const int reports = rig.listener.stateChangeCount();
    const int flushes = rig.line->flushCount();
    const uint64_t sent = rig.line->messageCount();

    rig.link->startCalibration();
    QCOMPARE(rig.state(), state);
    QCOMPARE(rig.listener.stateChangeCount(), reports);
    QCOMPARE(rig.line->flushCount(), flushes);
    QCOMPARE(rig.line->messageCount(), sent);
}

void TestSectionConnection::handledMessageDuringCalibratingEndsCalibration()
{
    Rig rig;
    QVERIFY(rig.bringTo(State::Calibrating));
    rig.receive(handledFrame());
    QCOMPARE(rig.state(), int(State::Connected));
    QCOMPARE(rig.states(), (QList<int>{State::Connecting, State::Connected, State::Calibrating,
                                       State::Connected}));
    // A component's message is not "calibration done": the components are not told.
    QVERIFY(rig.component->linkReadyCalls().empty());
    QVERIFY(rig.log.lines().isEmpty());
}

void TestSectionConnection::calibrationDoneFromSectionConnectsAndMarksLinkReady()
{
    Rig rig;
    QVERIFY(rig.bringTo(State::Calibrating));
    rig.tickEvery(kMs, rig.clock.nowNs() + 3000 * kMs);
    const qint64 doneAt = rig.clock.nowNs();
    rig.receive(kCalibrationFrame);
    QCOMPARE(rig.state(), int(State::Connected));
    QCOMPARE(rig.component->linkReadyCalls(), std::vector<bool>{true});
    QCOMPARE(rig.log.lines(),
             (QList<LogCapture::Line>{logLine(QtInfoMsg, "Calibration of section 2 done.")}));
    // Back in Connected with a fresh grace period.
    rig.tickEvery(kMs, doneAt + 20000 * kMs);
    QCOMPARE(rig.state(), int(State::Connected));
    QVERIFY(rig.tickUntilState(State::NoResponse, 60));
}

void TestSectionConnection::queueIsNotDrainedWhileCalibrating()
{
    Rig rig;
    QVERIFY(rig.bringTo(State::Calibrating));
    rig.link->enqueueMessage(SerialMessage(MessageType::FaderDriveMode, 4, {1}));
    rig.tickEvery(kMs, rig.clock.nowNs() + 3000 * kMs);
    QCOMPARE(rig.line->flushes(), QList<QByteArray>{kCalibrationFrame});
    QCOMPARE(rig.queue->size(), std::size_t{1});

    rig.receive(kCalibrationFrame);
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.line->flushes(),
             (QList<QByteArray>{kCalibrationFrame, kPingFrame, QByteArray::fromHex("040a040113")}));
}

void TestSectionConnection::stopCalibrationChangesNothing()
{
    {
        Rig rig;
        QVERIFY(rig.bringTo(State::Calibrating));
        const int flushes = rig.line->flushCount();
        rig.link->stopCalibration();
        QCOMPARE(rig.state(), int(State::Calibrating));
        QCOMPARE(rig.line->flushCount(), flushes);
        QCOMPARE(rig.states(),
                 (QList<int>{State::Connecting, State::Connected, State::Calibrating}));
    }

    Rig connected;
    connected.connectNow();
    connected.link->stopCalibration();
    QCOMPARE(connected.state(), int(State::Connected));
    QCOMPARE(connected.line->flushCount(), 0);
}

// ---------------------------------------------------------------------------------------
// Draining the outgoing queue.

void TestSectionConnection::drainSendsDueMessagesInOneFlushAndReportsSentCount()
{
    Rig rig;
    rig.connectNow();
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);  // the first ping
    rig.link->enqueueMessage(SerialMessage(MessageType::FaderPosition, 3, {0x00, 0x64}));
    rig.link->enqueueMessage(SerialMessage(MessageType::Led, 5, {0x02, 0x00}));
    rig.link->enqueueMessage(SerialMessage(MessageType::MeterLevel, 6, {0x7f}));
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.line->flushes(),
             (QList<QByteArray>{kPingFrame, QByteArray::fromHex("050703006473"
                                                                "050b05020017"
                                                                "040d067f96")}));
    QCOMPARE(rig.line->messageCount(), uint64_t{4});
    QCOMPARE(rig.listener.sentCounts().back(), uint64_t{4});
    QCOMPARE(rig.queue->size(), std::size_t{0});
}

void TestSectionConnection::atMostTwentyMessagesLeavePerPass()
{
    Rig rig;
    rig.connectNow();
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);  // the first ping
    for (uint8_t device = 1; device <= 25; ++device) {
        rig.queue->sendLed(device, 1, 0, 0);
    }
    QByteArray first20;
    QByteArray last5;
    for (uint8_t device = 1; device <= 25; ++device) {
        (device <= 20 ? first20 : last5)
            .append(SerialFrames::frame(MessageType::Led, device, QByteArray::fromHex("0100")));
    }

    rig.tickAt(rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.line->flushes().size(), 2);
    QCOMPARE(rig.line->flushes().last(), first20);
    QCOMPARE(rig.queue->size(), std::size_t{5});
    QCOMPARE(rig.listener.sentCounts().back(), uint64_t{21});

    rig.tickAt(rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.line->flushes().size(), 3);
    QCOMPARE(rig.line->flushes().last(), last5);
    QCOMPARE(rig.queue->size(), std::size_t{0});
}

void TestSectionConnection::messagesEnqueuedWhileNotConnectedWait()
{
    Rig rig;
    rig.link->open();
    rig.link->enqueueMessage(SerialMessage(MessageType::FaderDetent, 2, {0x01, 0x00}));
    rig.tickEvery(kMs, rig.clock.nowNs() + 2000 * kMs);
    QCOMPARE(rig.line->flushCount(), 0);
    QCOMPARE(rig.queue->size(), std::size_t{1});

    rig.receive(handledFrame());
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.line->flushes(),
             (QList<QByteArray>{kPingFrame, QByteArray::fromHex("050902010011")}));
    QCOMPARE(rig.queue->size(), std::size_t{0});
}

void TestSectionConnection::enqueueMessageGoesThroughCoalescingQueue()
{
    Rig rig;
    rig.connectNow();
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);  // the first ping
    rig.link->enqueueMessage(SerialMessage(MessageType::FaderPosition, 3, {0x00, 100}));
    rig.link->enqueueMessage(SerialMessage(MessageType::FaderPosition, 3, {0x00, 200}));
    QCOMPARE(rig.queue->size(), std::size_t{1});
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.line->flushes().last(), QByteArray::fromHex("05070300c8d7"));
}

void TestSectionConnection::delayedMessageLeavesOnFirstPassAfterItIsDue()
{
    Rig rig;
    rig.connectNow();
    rig.tickAt(rig.clock.nowNs() + 51 * kMs);  // the first ping
    const qint64 enqueuedAt = rig.clock.nowNs();
    rig.queue->sendLed(5, 1, 0, 100);
    rig.tickAt(enqueuedAt + 51 * kMs);
    QCOMPARE(rig.line->flushes().size(), 1);
    rig.tickAt(enqueuedAt + 102 * kMs);
    QCOMPARE(rig.line->flushes().size(), 2);
    QCOMPARE(rig.line->flushes().last(), QByteArray::fromHex("050b05010016"));
}

void TestSectionConnection::sentMessageCountIsReportedOnEveryConnectedPassOnly()
{
    Rig rig;
    rig.link->open();
    rig.tickEvery(kMs, rig.clock.nowNs() + 500 * kMs);
    QCOMPARE(rig.listener.sentCountReports(), 0);

    rig.receive(handledFrame());
    for (int pass = 1; pass <= 5; ++pass) {
        rig.tickAt(rig.clock.nowNs() + 51 * kMs);
        QCOMPARE(rig.listener.sentCountReports(), pass);
        QCOMPARE(rig.listener.sentCounts().back(), rig.line->messageCount());
    }
    QCOMPARE(rig.line->messageCount(), uint64_t{1});  // the one ping
}

// ---------------------------------------------------------------------------------------
// Messages no component takes.

void TestSectionConnection::unhandledMessageTypesLogOneCriticalLine_data()
{
    QTest::addColumn<int>("type");
    for (int type : {0, 1, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22}) {
        QTest::addRow("type %d", type) << type;
    }
}

void TestSectionConnection::unhandledMessageTypesLogOneCriticalLine()
{
    QFETCH(int, type);
    Rig rig;
    rig.connectNow();
    rig.receive(SerialFrames::frame(uint8_t(type), 200, QByteArray::fromHex("0102")));
    QCOMPARE(rig.state(), int(State::Connected));
    QCOMPARE(rig.log.lines(),
             (QList<LogCapture::Line>{
                 logLine(QtCriticalMsg, QStringLiteral("Unable to handle unkown message from "
                                                       "section 2. Device id: 200 message type: %1")
                                            .arg(type))}));
    QVERIFY(rig.line->sentMessages().empty());
    QVERIFY(rig.component->linkReadyCalls().empty());
}

void TestSectionConnection::echoLogsTwoLines()
{
    Rig rig;
    rig.connectNow();
    rig.receive(SerialFrames::frame(MessageType::Echo, 200, "hi"));
    QCOMPARE(rig.log.lines(),
             (QList<LogCapture::Line>{
                 logLine(QtInfoMsg, "Echo from section 2"),
                 logLine(QtCriticalMsg,
                         "Unable to handle unkown message from section 2. Device id: "
                         "200 message type: 5")}));
    QCOMPARE(rig.log.categories(),
             QStringList({"tarvix.worksurface.link", "tarvix.worksurface.link"}));
    QCOMPARE(rig.state(), int(State::Connected));
}

void TestSectionConnection::bootloaderReportLogsTwoLines()
{
    Rig rig;
    rig.connectNow();
    rig.receive(SerialFrames::frame(MessageType::Bootloader, 0));
    QCOMPARE(rig.log.lines(),
             (QList<LogCapture::Line>{
                 logLine(QtCriticalMsg,
                         "Received bootloader from the section 2 but the section is "
                         "not in bootloader mode."),
                 logLine(QtCriticalMsg,
                         "Unable to handle unkown message from section 2. Device id: "
                         "0 message type: 4")}));
    QCOMPARE(rig.state(), int(State::Connected));
}

void TestSectionConnection::elevenBadBytesSendSerialErrorToSectionTenDoNot_data()
{
    QTest::addColumn<QByteArray>("garbage");
    QTest::addColumn<QString>("logged");
    QTest::addColumn<bool>("reported");
    // Every byte here is discarded at once: a length below 3 or a frame longer than 26.
    QTest::newRow("ten") << QByteArray::fromHex("abcdef00ff1a2b3c4d5e")
                         << "Section 2 received bad data: 'abcdef00ff1a2b3c4d5e'" << false;
    QTest::newRow("eleven") << QByteArray::fromHex("abcdef00ff1a2b3c4d5e6f")
                            << "Section 2 received bad data: 'abcdef00ff1a2b3c4d5e6f'" << true;
}

void TestSectionConnection::elevenBadBytesSendSerialErrorToSectionTenDoNot()
{
    QFETCH(QByteArray, garbage);
    QFETCH(QString, logged);
    QFETCH(bool, reported);
    Rig rig;
    rig.connectNow();
    rig.log.clear();
    // The garbage and a good frame in one chunk: all of the garbage is discarded in this call.
    rig.receive(garbage + handledFrame());
    QCOMPARE(rig.component->taken().size(), std::size_t{2});
    QCOMPARE(rig.state(), int(State::Connected));
    QCOMPARE(rig.log.lines(), (QList<LogCapture::Line>{logLine(QtWarningMsg, logged)}));
    if (reported) {
        QCOMPARE(rig.line->flushes(), QList<QByteArray>{kSerialErrorFrame});
        QVERIFY(rig.line->sentMessages().back() == SerialMessage(MessageType::SerialError, 0));
    } else {
        QCOMPARE(rig.line->flushCount(), 0);
        QVERIFY(rig.line->sentMessages().empty());
    }
}

void TestSectionConnection::withoutReconnectIntervalAStalledLinkIsNeverRestarted()
{
    Rig rig;
    rig.link->setReconnectSettings(rig.settings);
    rig.link->open();
    rig.tickEvery(51 * kMs, kStartNs + 60000 * kMs);
    QCOMPARE(rig.line->openCount(), 1);
    QCOMPARE(rig.updater->startCount(), 1);
    QCOMPARE(rig.state(), int(State::Connecting));
    QVERIFY(rig.log.lines().isEmpty());
}

void TestSectionConnection::stalledLinkIsReprobedOnceItHasBeenConnectingForTheInterval()
{
    Rig rig;
    rig.settings->setReconnectInterval(1000);
    rig.link->setReconnectSettings(rig.settings);
    rig.link->open();
    // The first pass sees the link Connecting: the interval counts from there.
    const qint64 firstPass = kStartNs + 50 * kMs + 1;
    rig.tickAt(firstPass);
    rig.tickAt(firstPass + 999 * kMs + 999999);
    QCOMPARE(rig.updater->startCount(), 1);
    QCOMPARE(rig.line->closeCount(), 0);
    rig.tickAt(firstPass + 999 * kMs + 999999 + 50 * kMs + 1);
    QCOMPARE(rig.line->closeCount(), 1);
    QCOMPARE(rig.line->openCount(), 2);
    QCOMPARE(rig.updater->startCount(), 2);
    QCOMPARE(rig.link->reconnectAttempts(), uint64_t{1});
    // Still Connecting: no Closed in between.
    QCOMPARE(rig.states(), QList<int>({State::Connecting}));
    QCOMPARE(rig.log.lines(),
             (QList<LogCapture::Line>{logLine(
                 QtWarningMsg, "Section 2 link is down (no answer). Retrying every 1000 ms.")}));
}

// The updater busy with a bootloader that answered (an update's reset and the second it
// waits before asking again) holds the link in Connecting: at any interval nothing reopens
// the line, restarts the updater or logs an outage. Once it probes again unanswered, the
// interval counts from the end of that exchange.
void TestSectionConnection::aLinkWaitingForItsBusyUpdaterIsNeverTakenAsStalled_data()
{
    QTest::addColumn<int>("interval");
    QTest::newRow("100 ms") << 100;
    QTest::newRow("500 ms") << 500;
    QTest::newRow("2000 ms") << 2000;
}

void TestSectionConnection::aLinkWaitingForItsBusyUpdaterIsNeverTakenAsStalled()
{
    QFETCH(int, interval);
    Rig rig;
    rig.settings->setReconnectInterval(interval);
    rig.link->setReconnectSettings(rig.settings);
    rig.link->open();
    rig.updater->setActive(true);
    rig.updater->notifyStateChanged();
    QCOMPARE(rig.state(), int(State::Connecting));
    rig.tickEvery(51 * kMs, kStartNs + 6000 * kMs);
    QCOMPARE(rig.line->openCount(), 1);
    QCOMPARE(rig.line->closeCount(), 0);
    QCOMPARE(rig.updater->startCount(), 1);
    QCOMPARE(rig.link->reconnectAttempts(), uint64_t{0});
    QVERIFY(rig.log.lines().isEmpty());

    // Its AutoBaud goes unanswered: the next attempt comes one interval later, not at once.
    rig.updater->setProbing(true);
    const qint64 probedAt = rig.clock.nowNs();
    rig.tickEvery(51 * kMs, probedAt + (interval - 60) * kMs);
    QCOMPARE(rig.updater->startCount(), 1);
    rig.tickEvery(51 * kMs, probedAt + (interval + 50) * kMs);
    QCOMPARE(rig.updater->startCount(), 2);
    QCOMPARE(rig.link->reconnectAttempts(), uint64_t{1});
    QCOMPARE(rig.states(), QList<int>({State::Connecting}));
}

void TestSectionConnection::reprobesRepeatEveryIntervalWithOneWarningAndNoNewTask()
{
    Rig rig;
    rig.settings->setReconnectInterval(500);
    rig.link->setReconnectSettings(rig.settings);
    rig.link->open();
    const std::size_t tasks = rig.pool->taskCount();
    rig.tickEvery(51 * kMs, kStartNs + 10000 * kMs);
    // Every 510 ms (ten 51 ms passes) from the first pass at 51 ms.
    QCOMPARE(rig.link->reconnectAttempts(), uint64_t{19});
    QCOMPARE(rig.updater->startCount(), 20);
    QCOMPARE(rig.pool->taskCount(), tasks);
    QCOMPARE(rig.log.lines().size(), 1);

    // The section answers: the link is up, and the next pass says since when it was down.
    rig.receive(handledFrame());
    QCOMPARE(rig.state(), int(State::Connected));
    rig.tickEvery(51 * kMs, rig.clock.nowNs() + 51 * kMs);
    QCOMPARE(rig.log.lines().size(), 2);
    QCOMPARE(rig.log.lines().at(1), logLine(QtInfoMsg, "Section 2 is back after 9 s"));
}

void TestSectionConnection::vanishedLineIsReopenedAfterOneIntervalAndTheReturnIsLogged()
{
    Rig rig;
    rig.settings->setReconnectInterval(2000);
    rig.link->setReconnectSettings(rig.settings);
    rig.link->open();
    rig.receive(handledFrame());
    QCOMPARE(rig.state(), int(State::Connected));
    rig.tickAt(kStartNs + 100 * kMs);

    // The device goes away under the running link.
    rig.line->setOpen(false);
    const qint64 gone = kStartNs + 200 * kMs;
    rig.tickAt(gone);
    QCOMPARE(rig.state(), int(State::Connecting));
    QCOMPARE(rig.log.lines(),
             (QList<LogCapture::Line>{logLine(
                 QtWarningMsg, "Section 2 link is down (no answer). Retrying every 2000 ms.")}));
    rig.tickAt(gone + 1999 * kMs);
    QCOMPARE(rig.line->openCount(), 1);
    // The next pass, 51 ms on.
    rig.tickAt(gone + 2050 * kMs);
    QCOMPARE(rig.line->openCount(), 2);
    QVERIFY(rig.line->isOpen());
    QCOMPARE(rig.updater->startCount(), 2);
    rig.receive(handledFrame());
    rig.tickAt(gone + 3500 * kMs);
    QCOMPARE(rig.log.lines().size(), 2);
    QCOMPARE(rig.log.lines().at(1), logLine(QtInfoMsg, "Section 2 is back after 3 s"));
    QCOMPARE(rig.states(), QList<int>({State::Connecting, State::Connected, State::Connecting,
                                       State::Connected}));
}

void TestSectionConnection::noRetryWhileUpdatingOrAfterClose()
{
    Rig rig;
    rig.settings->setReconnectInterval(100);
    rig.link->setReconnectSettings(rig.settings);
    rig.link->open();
    rig.updater->setActive(true);
    rig.updater->setUpdating(true);
    rig.link->updaterStateChanged();
    QCOMPARE(rig.state(), int(State::Updating));
    rig.line->setOpen(false);
    rig.tickEvery(51 * kMs, kStartNs + 5000 * kMs);
    QCOMPARE(rig.line->openCount(), 1);
    QCOMPARE(rig.updater->startCount(), 1);

    rig.updater->setUpdating(false);
    rig.updater->setActive(false);
    rig.link->close();
    rig.tickEvery(51 * kMs, kStartNs + 10000 * kMs);
    QCOMPARE(rig.line->openCount(), 1);
    QCOMPARE(rig.state(), int(State::Closed));
    QVERIFY(rig.log.lines().isEmpty());
}

void TestSectionConnection::updateFailuresAndSuccessesReachTheListener()
{
    Rig rig;
    rig.link->open();
    // Fails before it begins (no firmware): the reason only.
    rig.link->failed(0);
    QCOMPARE(rig.listener.updateResults(), std::vector<int>({0}));

    // Runs and fails: the reason, and no success when it ends.
    rig.updater->setActive(true);
    rig.updater->setUpdating(true);
    rig.link->updaterStateChanged();
    rig.link->failed(2);
    rig.updater->setUpdating(false);
    rig.link->updaterStateChanged();
    QCOMPARE(rig.listener.updateResults(), std::vector<int>({0, 2}));

    // Runs and ends without a failure: a success.
    rig.updater->setUpdating(true);
    rig.link->updaterStateChanged();
    rig.updater->setUpdating(false);
    rig.link->updaterStateChanged();
    QCOMPARE(rig.listener.updateResults(), std::vector<int>({0, 2, -1}));
}

void TestSectionConnection::portIsReportedOnceWhileItDoesNotChange()
{
    Rig rig;
    rig.link->open();
    rig.tickEvery(51 * kMs, kStartNs + 1000 * kMs);
    QCOMPARE(rig.listener.portReports(), std::vector<QString>({QStringLiteral("|")}));
}

QTEST_GUILESS_MAIN(TestSectionConnection)
#include "tst_sectionconnection.moc"
