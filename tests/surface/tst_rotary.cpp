#include <QPointer>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "serial/serialmessagequeue.h"
#include "support/componentrig.h"
#include "support/deferreddeletes.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/queuedrain.h"
#include "support/recordingsender.h"
#include "support/signallog.h"
#include "support/storeorderrace.h"
#include "surface/deviceidtable.h"
#include "surface/iglobalrotarybindingtarget.h"
#include "surface/rotary.h"
#include "surface/rotaryhandle.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

constexpr qint64 kStart = 2000 * kMs;
constexpr uint8_t kColorType = 12;
constexpr uint8_t kSection = 0;

const QString kRefusedWarning = QStringLiteral(
    "Rotary global target can be bound only into one binding at the time. Rotary id: %1");

// A rotary's three ids, as the component factory gives them.
struct Ids
{
    uint8_t rotary;
    uint8_t light;
    uint8_t button;
};

Ids idsOf(RotaryType type, uint8_t index)
{
    const DeviceIdTable::RotaryIds ids = DeviceIdTable::rotary(type, index);
    return Ids{ids.rotary, ids.light, ids.button};
}

// A global binding standing in for a rotary binding in global scope; its bind() may do
// what that binding does, look the rotary's handle up anew.
class FakeGlobalTarget : public IGlobalRotaryBindingTarget
{
public:
    void bind() override
    {
        ++binds;
        if (onBind) {
            onBind();
        }
    }
    int binds = 0;
    std::function<void()> onBind;
};

template <typename Sender>
struct Rig : ComponentRig<Sender>
{
    explicit Rig(RotaryType type = RotaryType::UnderScreen, uint8_t index = 3)
        : ComponentRig<Sender>(kStart),
          ids(idsOf(type, index)),
          rotary(std::make_shared<Rotary>(ids.rotary, ids.light, ids.button, kSection, type,
                                          this->sender, this->pool))
    {}

    QString color(const char* payloadHex, qint64 atNs) const
    {
        return expectedMessage(kColorType, ids.light, payloadHex, atNs);
    }

    Ids ids;
    std::shared_ptr<Rotary> rotary;
};

using QueueRig = Rig<SerialMessageQueue>;
using RecordingRig = Rig<RecordingSender>;

// The three handle signals, in the order they came.
struct HandleSignals : SignalLog
{
    explicit HandleSignals(RotaryHandle* handle)
    {
        recordWithValue(handle, &RotaryHandle::rotaryRotated, "rotated");
        record(handle, &RotaryHandle::rotaryTouched, "touched");
        record(handle, &RotaryHandle::rotaryPressed, "pressed");
    }
};

// Starts a red rotary flashing at 400 ms at kStart.
template <typename R>
void startRedFlash(R& rig)
{
    rig.rotary->setColor(QColor(Qt::red));
    rig.rotary->setFlashInterval(400);
    rig.rotary->setFlashEnabled(true);
}

}  // namespace

class TestRotary : public QObject
{
    Q_OBJECT

private slots:
    void reportsItsIdentity();
    void handleSignalsAreInOrder();

    // Messages
    void rotationReachesTheHandleAsASignedStep_data();
    void rotationReachesTheHandleAsASignedStep();
    void rotationWithoutPayloadIsStepZero();
    void rotationWithoutAHandleIsTakenSilently();
    void touchIsStoredAndSignalledEveryTime();
    void aTouchMessageWithoutAHandleChangesTheStateWithoutASignal();
    void aMissingTouchOrPressByteKeepsTheStoredValue();
    void pressComesOnTheButtonId();
    void messagesNotForThisRotaryAreNotTaken_data();
    void messagesNotForThisRotaryAreNotTaken();

    // Colour and flashing
    void setColorSendsToTheLightIdEveryTime();
    void twoThreadsSettingColoursLeaveTheLastStoredColourSentLast();
    void flashWithInterval400AlternatesBlackAndTheColorEvery200ms();
    void aBlackRotarySendsNothingWhileFlashing();
    void aColorSetWhileFlashingIsUsedFromTheNextStep();
    void stoppingTheFlashSendsTheColorSteadily_data();
    void stoppingTheFlashSendsTheColorSteadily();
    void flashStepIsHalfTheIntervalRoundedDown();
    void equalFlashSettingsDoNotReschedule();
    void aNewHandleOnAFlashingRotaryStopsTheFlashing();

    // Resend after a link loss
    void resendStateZeroSendsTheColorOnlyWithAFlashInterval_data();
    void resendStateZeroSendsTheColorOnlyWithAFlashInterval();

    // Handles and the global target
    void releasingTheHandleSendsBlackAfter100ms();
    void releasingTheCurrentHandleAsksTheGlobalTargetToBind();
    void theGlobalTargetCanTakeANewHandleFromInsideBind();
    void aHandleReplacedByANewOneDoesNotWakeTheGlobalTarget();
    void globalTargetOfferAnswersByHandleState();
    void aSecondGlobalTargetIsRefusedWithTheWarning_data();
    void aSecondGlobalTargetIsRefusedWithTheWarning();
    void theSameTargetAgainOrNullSucceeds();
    void handleMethodsReachTheRotary();
    void detachedHandleDoesNothing();
    void handleStandsForItsSectionAndRotaryId();
    void handleIsDeletedLaterWhenItsLastOwnerGoes();
    void destroyingTheRotaryCutsItsHandleOffAndDropsItsTask();

    // Threads
    void handleCallsFromAnotherThreadWhileStepsRunDoNotDeadlock();
};

void TestRotary::reportsItsIdentity()
{
    RecordingRig rig(RotaryType::SideRotary, 2);
    QCOMPARE(rig.rotary->rotaryDeviceId(), uint8_t(12));
    QCOMPARE(rig.rotary->lightDeviceId(), uint8_t(12));
    QCOMPARE(rig.rotary->buttonDeviceId(), uint8_t(33));
    QCOMPARE(rig.rotary->sectionIndex(), kSection);
    QCOMPARE(rig.rotary->rotaryType(), RotaryType::SideRotary);
    QCOMPARE(rig.rotary->touched(), false);
    QCOMPARE(rig.rotary->pressed(), false);
    QCOMPARE(rig.rotary->color(), QColor(Qt::black));
    QCOMPARE(rig.rotary->flashEnabled(), false);
    QCOMPARE(rig.rotary->flashInterval(), int64_t(0));
    QCOMPARE(rig.rotary->flashPhase(), false);
}

void TestRotary::handleSignalsAreInOrder()
{
    const QMetaObject& meta = RotaryHandle::staticMetaObject;
    const int first = meta.methodOffset();
    QCOMPARE(meta.methodCount() - first, 3);
    QCOMPARE(meta.method(first).methodSignature(), QByteArray("rotaryRotated(signed char)"));
    QCOMPARE(meta.method(first).parameterNames(), QList<QByteArray>{"value"});
    QCOMPARE(meta.method(first + 1).methodSignature(), QByteArray("rotaryTouched()"));
    QCOMPARE(meta.method(first + 2).methodSignature(), QByteArray("rotaryPressed()"));
}

void TestRotary::rotationReachesTheHandleAsASignedStep_data()
{
    QTest::addColumn<int>("byte");
    QTest::addColumn<int>("step");
    QTest::newRow("01") << 0x01 << 1;
    QTest::newRow("ff") << 0xff << -1;
    QTest::newRow("05") << 0x05 << 5;
    QTest::newRow("fb") << 0xfb << -5;
    QTest::newRow("7f") << 0x7f << 127;
    QTest::newRow("80") << 0x80 << -128;
}

void TestRotary::rotationReachesTheHandleAsASignedStep()
{
    QFETCH(int, byte);
    QFETCH(int, step);
    RecordingRig rig;
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    QSignalSpy spy(handle.get(), &RotaryHandle::rotaryRotated);
    QVERIFY(
        rig.rotary->handleMessage(SerialMessage(18, rig.ids.rotary, {static_cast<uint8_t>(byte)})));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).value<qint8>(), qint8(step));
}

void TestRotary::rotationWithoutPayloadIsStepZero()
{
    RecordingRig rig;
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    HandleSignals log(handle.get());
    QVERIFY(rig.rotary->handleMessage(SerialMessage(18, rig.ids.rotary)));
    QCOMPARE(log.events, QStringList{"rotated 0"});
}

void TestRotary::rotationWithoutAHandleIsTakenSilently()
{
    RecordingRig rig;
    QVERIFY(rig.rotary->handleMessage(SerialMessage(18, rig.ids.rotary, {1})));
    // A handle given out afterwards hears only what comes after.
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    HandleSignals log(handle.get());
    QVERIFY(rig.rotary->handleMessage(SerialMessage(18, rig.ids.rotary, {2})));
    QCOMPARE(log.events, QStringList{"rotated 2"});
}

void TestRotary::touchIsStoredAndSignalledEveryTime()
{
    RecordingRig rig;
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    HandleSignals log(handle.get());
    QVERIFY(rig.rotary->handleMessage(SerialMessage(19, rig.ids.rotary, {1})));
    QCOMPARE(rig.rotary->touched(), true);
    QCOMPARE(handle->touched(), true);
    // Unlike a button, a repeated touch state is signalled again.
    QVERIFY(rig.rotary->handleMessage(SerialMessage(19, rig.ids.rotary, {1})));
    QVERIFY(rig.rotary->handleMessage(SerialMessage(19, rig.ids.rotary, {0})));
    QCOMPARE(rig.rotary->touched(), false);
    QCOMPARE(log.events, QStringList({"touched", "touched", "touched"}));
}

void TestRotary::aTouchMessageWithoutAHandleChangesTheStateWithoutASignal()
{
    RecordingRig rig;
    auto handle = rig.rotary->getHandle();
    HandleSignals log(handle.get());
    handle->detach();  // the rotary has no handle now

    QVERIFY(rig.rotary->handleMessage(SerialMessage(19, rig.ids.rotary, {1})));
    QCOMPARE(rig.rotary->touched(), true);
    QVERIFY(rig.rotary->handleMessage(SerialMessage(20, rig.ids.button, {1})));
    QCOMPARE(rig.rotary->pressed(), true);
    QCOMPARE(log.events, QStringList());
}

void TestRotary::aMissingTouchOrPressByteKeepsTheStoredValue()
{
    RecordingRig rig;
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    HandleSignals log(handle.get());
    rig.rotary->handleMessage(SerialMessage(19, rig.ids.rotary, {1}));
    rig.rotary->handleMessage(SerialMessage(20, rig.ids.button, {1}));
    QVERIFY(rig.rotary->handleMessage(SerialMessage(19, rig.ids.rotary)));
    QVERIFY(rig.rotary->handleMessage(SerialMessage(20, rig.ids.button)));
    QCOMPARE(rig.rotary->touched(), true);
    QCOMPARE(rig.rotary->pressed(), true);
    QCOMPARE(log.events, QStringList({"touched", "pressed", "touched", "pressed"}));
}

void TestRotary::pressComesOnTheButtonId()
{
    RecordingRig rig;  // under-screen rotary 3: push switch 24
    QCOMPARE(rig.ids.button, uint8_t(24));
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    HandleSignals log(handle.get());
    QVERIFY(rig.rotary->handleMessage(SerialMessage(20, 24, {0x10})));
    QCOMPARE(rig.rotary->pressed(), true);
    QCOMPARE(handle->pressed(), true);
    QVERIFY(rig.rotary->handleMessage(SerialMessage(20, 24, {0})));
    QCOMPARE(rig.rotary->pressed(), false);
    QCOMPARE(log.events, QStringList({"pressed", "pressed"}));
}

void TestRotary::messagesNotForThisRotaryAreNotTaken_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("deviceId");
    // Device ids are per message type: a button message with id 3 is the mute switch of
    // strip 3, not the push switch of rotary 3.
    QTest::newRow("button message on the rotary id") << 20 << 3;
    QTest::newRow("colour on the rotary id") << 12 << 3;
    QTest::newRow("fader move on the rotary id") << 7 << 3;
    QTest::newRow("step on the button id") << 18 << 24;
    QTest::newRow("touch on the button id") << 19 << 24;
    QTest::newRow("step of another rotary") << 18 << 4;
    QTest::newRow("touch of another rotary") << 19 << 2;
    QTest::newRow("another push switch") << 20 << 25;
}

void TestRotary::messagesNotForThisRotaryAreNotTaken()
{
    QFETCH(int, type);
    QFETCH(int, deviceId);
    RecordingRig rig;
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    HandleSignals log(handle.get());
    QVERIFY(!rig.rotary->handleMessage(
        SerialMessage(static_cast<uint8_t>(type), static_cast<uint8_t>(deviceId), {1, 1, 1, 1})));
    QCOMPARE(log.events, QStringList());
    QCOMPARE(rig.rotary->touched(), false);
    QCOMPARE(rig.rotary->pressed(), false);
}

void TestRotary::setColorSendsToTheLightIdEveryTime()
{
    RecordingRig rig(RotaryType::SideRotary, 5);
    QCOMPARE(rig.ids.light, uint8_t(15));
    rig.rotary->setColor(QColor(0x11, 0x22, 0x33, 0x44));
    rig.rotary->setColor(QColor(0x11, 0x22, 0x33, 0x44));
    rig.rotary->setColor(QColor(Qt::black));
    QCOMPARE(rig.rotary->color(), QColor(Qt::black));
    QCOMPARE(rig.take(), QStringList({rig.color("11223300", kStart), rig.color("11223300", kStart),
                                      rig.color("00000000", kStart)}));
}

void TestRotary::flashWithInterval400AlternatesBlackAndTheColorEvery200ms()
{
    QueueRig rig;
    rig.rotary->setColor(QColor(0x20, 0x40, 0x60));
    rig.rotary->setFlashEnabled(true);  // interval still 0: the colour, steady
    rig.rotary->setFlashInterval(400);
    QCOMPARE(rig.drainUntil(kStart), QStringList{rig.color("20406000", kStart)});
    QCOMPARE(rig.pool->taskCount(), std::size_t(1));

    // The first step shows black, then colour and black alternate; each goes out at once.
    qint64 step = kStart + 200 * kMs + 1;
    const char* expected[] = {"00000000", "20406000", "00000000", "20406000", "00000000"};
    for (const char* payload : expected) {
        rig.tickAt(step - 1);
        QCOMPARE(rig.drainUntil(step - 1), QStringList());
        rig.tickAt(step);
        QCOMPARE(rig.drainUntil(step + 100 * kMs), QStringList{rig.color(payload, step)});
        step += 200 * kMs + 1;
    }
}

void TestRotary::aBlackRotarySendsNothingWhileFlashing()
{
    RecordingRig rig;
    rig.rotary->setFlashInterval(400);
    rig.rotary->setFlashEnabled(true);
    rig.sender->clear();
    QCOMPARE(rig.pool->taskCount(), std::size_t(1));
    // Three steps' worth of ticks (at 200, 400 and 600 ms).
    for (qint64 t = kStart; t <= kStart + 700 * kMs; t += 5 * kMs) {
        rig.tickAt(t);
    }
    QCOMPARE(rig.sender->count(), std::size_t(0));
    // Still flashing, and the phase has not moved: it waits for a colour.
    QCOMPARE(rig.pool->taskCount(), std::size_t(1));
    QCOMPARE(rig.rotary->flashPhase(), false);

    // So the first step with a colour shows black, as a fresh flash would.
    rig.rotary->setColor(QColor(Qt::red));
    rig.sender->clear();
    rig.tickAt(kStart + 800 * kMs + 20 * kMs);
    QCOMPARE(rig.take(), QStringList{rig.color("00000000", kStart + 820 * kMs)});
    QCOMPARE(rig.rotary->flashPhase(), true);
}

void TestRotary::aColorSetWhileFlashingIsUsedFromTheNextStep()
{
    RecordingRig rig;
    startRedFlash(rig);
    rig.tickAt(kStart + 200 * kMs + 1);  // black
    rig.clock.setNs(kStart + 300 * kMs);
    rig.rotary->setColor(QColor(Qt::blue));
    rig.tickAt(kStart + 400 * kMs + 2);  // colour
    rig.tickAt(kStart + 600 * kMs + 3);  // black
    QCOMPARE(rig.take(),
             QStringList({
                 rig.color("ff000000", kStart),
                 rig.color("ff000000", kStart),  // the interval, set with flash off: steady
                 rig.color("00000000", kStart + 200 * kMs + 1),
                 rig.color("0000ff00", kStart + 300 * kMs),
                 rig.color("0000ff00", kStart + 400 * kMs + 2),
                 rig.color("00000000", kStart + 600 * kMs + 3),
             }));
}

void TestRotary::stoppingTheFlashSendsTheColorSteadily_data()
{
    QTest::addColumn<bool>("byDisabling");
    QTest::newRow("disabled") << true;
    QTest::newRow("interval 0") << false;
}

void TestRotary::stoppingTheFlashSendsTheColorSteadily()
{
    QFETCH(bool, byDisabling);
    QueueRig rig;
    startRedFlash(rig);
    rig.drainUntil(kStart);
    rig.tickAt(kStart + 200 * kMs + 1);
    QCOMPARE(rig.drainUntil(kStart + 250 * kMs),
             QStringList{rig.color("00000000", kStart + 200 * kMs + 1)});

    if (byDisabling) {
        rig.rotary->setFlashEnabled(false);
    } else {
        rig.rotary->setFlashInterval(0);
    }
    QCOMPARE(rig.drainUntil(kStart + 250 * kMs),
             QStringList{rig.color("ff000000", kStart + 250 * kMs)});
    for (qint64 t = kStart + 255 * kMs; t <= kStart + 2000 * kMs; t += 5 * kMs) {
        rig.tickAt(t);
    }
    QCOMPARE(rig.drainUntil(kStart + 2500 * kMs), QStringList());
    QCOMPARE(rig.pool->taskCount(), std::size_t(0));
}

void TestRotary::flashStepIsHalfTheIntervalRoundedDown()
{
    RecordingRig rig;
    rig.rotary->setColor(QColor(Qt::white));
    rig.rotary->setFlashEnabled(true);
    rig.rotary->setFlashInterval(401);
    rig.sender->clear();
    rig.tickAt(kStart + 200 * kMs);
    QCOMPARE(rig.sender->count(), std::size_t(0));
    rig.tickAt(kStart + 200 * kMs + 1);
    QCOMPARE(rig.take(), QStringList{rig.color("00000000", kStart + 200 * kMs + 1)});

    // An interval of 1 steps on every tick.
    rig.rotary->setFlashInterval(1);
    rig.sender->clear();
    rig.tickAt(kStart + 200 * kMs + 2);
    rig.tickAt(kStart + 200 * kMs + 3);
    QCOMPARE(rig.take(), QStringList({rig.color("ffffff00", kStart + 200 * kMs + 2),
                                      rig.color("00000000", kStart + 200 * kMs + 3)}));
}

void TestRotary::equalFlashSettingsDoNotReschedule()
{
    RecordingRig rig;
    startRedFlash(rig);
    rig.sender->clear();
    rig.clock.setNs(kStart + 100 * kMs);
    rig.rotary->setFlashInterval(400);
    rig.rotary->setFlashEnabled(true);
    QCOMPARE(rig.sender->count(), std::size_t(0));
    QCOMPARE(rig.pool->taskCount(), std::size_t(1));
    rig.tickAt(kStart + 200 * kMs + 1);
    QCOMPARE(rig.sender->count(), std::size_t(1));
}

void TestRotary::aNewHandleOnAFlashingRotaryStopsTheFlashing()
{
    QueueRig rig;
    const std::shared_ptr<RotaryHandle> first = rig.rotary->getHandle();
    first->setColor(QColor(Qt::green));
    first->setFlashInterval(400);
    first->setFlashEnabled(true);
    QCOMPARE(rig.drainUntil(kStart), QStringList{rig.color("00ff0000", kStart)});
    rig.tickAt(kStart + 200 * kMs + 1);
    QCOMPARE(rig.drainUntil(kStart + 250 * kMs),
             QStringList{rig.color("00000000", kStart + 200 * kMs + 1)});
    rig.tickAt(kStart + 400 * kMs + 2);
    QCOMPARE(rig.drainUntil(kStart + 450 * kMs),
             QStringList{rig.color("00ff0000", kStart + 400 * kMs + 2)});
    QCOMPARE(rig.rotary->flashPhase(), false);
    rig.tickAt(kStart + 600 * kMs + 3);
    QCOMPARE(rig.drainUntil(kStart + 650 * kMs),
             QStringList{rig.color("00000000", kStart + 600 * kMs + 3)});
    QCOMPARE(rig.rotary->flashPhase(), true);

    const std::shared_ptr<RotaryHandle> second = rig.rotary->getHandle();
    QCOMPARE(rig.rotary->flashEnabled(), false);
    QCOMPARE(rig.rotary->flashInterval(), int64_t(0));
    // The old handle's release turns the light black after 100 ms; the flash task stops at
    // its next step, which sends nothing and clears the phase.
    QCOMPARE(rig.drainUntil(kStart + 800 * kMs + 3),
             QStringList{rig.color("00000000", kStart + 750 * kMs)});
    QCOMPARE(rig.pool->taskCount(), std::size_t(1));
    rig.tickAt(kStart + 800 * kMs + 4);
    QCOMPARE(rig.rotary->flashPhase(), false);
    for (qint64 t = kStart + 805 * kMs; t <= kStart + 2000 * kMs; t += 5 * kMs) {
        rig.tickAt(t);
    }
    QCOMPARE(rig.drainUntil(kStart + 2500 * kMs), QStringList());
    QCOMPARE(rig.pool->taskCount(), std::size_t(0));
}

void TestRotary::resendStateZeroSendsTheColorOnlyWithAFlashInterval_data()
{
    QTest::addColumn<bool>("ready");
    QTest::addColumn<qint64>("interval");
    QTest::addColumn<bool>("enabled");
    QTest::addColumn<bool>("sends");
    QTest::newRow("lost, flashing") << false << qint64(400) << true << true;
    QTest::newRow("lost, interval set but flash disabled") << false << qint64(400) << false << true;
    QTest::newRow("lost, steady") << false << qint64(0) << false << false;
    QTest::newRow("lost, enabled without interval") << false << qint64(0) << true << false;
    QTest::newRow("lost, negative interval") << false << qint64(-400) << true << false;
    QTest::newRow("ready, flashing") << true << qint64(400) << true << false;
}

void TestRotary::resendStateZeroSendsTheColorOnlyWithAFlashInterval()
{
    QFETCH(bool, ready);
    QFETCH(qint64, interval);
    QFETCH(bool, enabled);
    QFETCH(bool, sends);
    QueueRig rig;
    rig.rotary->setColor(QColor(0x0a, 0x0b, 0x0c));
    rig.rotary->setFlashInterval(interval);
    rig.rotary->setFlashEnabled(enabled);
    rig.drainUntil(kStart + 10 * kMs);

    rig.rotary->setLinkReady(ready);
    QCOMPARE(rig.drainUntil(kStart + 10 * kMs),
             sends ? QStringList{rig.color("0a0b0c00", kStart + 10 * kMs)} : QStringList());
}

void TestRotary::releasingTheHandleSendsBlackAfter100ms()
{
    QueueRig rig;
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    handle->setColor(QColor(Qt::magenta));
    rig.drainUntil(kStart + 30 * kMs);
    handle->detach();
    QCOMPARE(handle->rotary(), nullptr);
    QCOMPARE(rig.rotary->color(), QColor(Qt::black));
    QCOMPARE(rig.drainUntil(kStart + 1000 * kMs),
             QStringList{rig.color("00000000", kStart + 130 * kMs)});
}

void TestRotary::releasingTheCurrentHandleAsksTheGlobalTargetToBind()
{
    RecordingRig rig;
    FakeGlobalTarget target;
    QCOMPARE(rig.rotary->setGlobalTarget(&target), int(IRotary::StoredUnbound));
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    QCOMPARE(target.binds, 0);
    handle->detach();
    QCOMPARE(target.binds, 1);
    handle->detach();
    QCOMPARE(target.binds, 1);
}

void TestRotary::theGlobalTargetCanTakeANewHandleFromInsideBind()
{
    QueueRig rig;
    FakeGlobalTarget target;
    std::shared_ptr<RotaryHandle> taken;
    target.onBind = [&]() {
        taken = rig.rotary->getHandle();
        taken->setColor(QColor(Qt::yellow));
    };
    rig.rotary->setGlobalTarget(&target);
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    handle->detach();

    QCOMPARE(target.binds, 1);
    QVERIFY(taken);
    QCOMPARE(taken->rotary(), rig.rotary.get());
    QCOMPARE(handle->rotary(), nullptr);
    // The global binding's colour, sent at once, replaces the release's pending black.
    QCOMPARE(rig.drainUntil(kStart + 1000 * kMs), QStringList{rig.color("ffff0000", kStart)});
    QCOMPARE(rig.rotary->setGlobalTarget(&target), int(IRotary::StoredBound));
}

void TestRotary::aHandleReplacedByANewOneDoesNotWakeTheGlobalTarget()
{
    RecordingRig rig;
    FakeGlobalTarget target;
    rig.rotary->setGlobalTarget(&target);
    const std::shared_ptr<RotaryHandle> first = rig.rotary->getHandle();
    rig.sender->clear();
    const std::shared_ptr<RotaryHandle> second = rig.rotary->getHandle();
    QCOMPARE(target.binds, 0);
    // Its release still turned the light black.
    QCOMPARE(rig.take(), QStringList{rig.color("00000000", kStart + 100 * kMs)});
    // A release naming a stale handle does not either.
    rig.rotary->releaseHandle(first.get());
    QCOMPARE(target.binds, 0);
    QCOMPARE(second->rotary(), rig.rotary.get());
}

void TestRotary::globalTargetOfferAnswersByHandleState()
{
    RecordingRig rig;
    FakeGlobalTarget target;
    QCOMPARE(rig.rotary->setGlobalTarget(&target), 1);
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    QCOMPARE(rig.rotary->setGlobalTarget(&target), 2);
    QCOMPARE(rig.rotary->setGlobalTarget(nullptr), 2);
    handle->detach();
    QCOMPARE(target.binds, 0);  // cleared before the release
    QCOMPARE(rig.rotary->setGlobalTarget(nullptr), 1);
}

void TestRotary::aSecondGlobalTargetIsRefusedWithTheWarning_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("rotaryId");
    QTest::newRow("under-screen 3") << int(RotaryType::UnderScreen) << 3 << 3;
    QTest::newRow("under-screen 0") << int(RotaryType::UnderScreen) << 0 << 0;
    QTest::newRow("side 2") << int(RotaryType::SideRotary) << 2 << 12;
}

void TestRotary::aSecondGlobalTargetIsRefusedWithTheWarning()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, rotaryId);
    RecordingRig rig(static_cast<RotaryType>(type), static_cast<uint8_t>(index));
    FakeGlobalTarget owner;
    FakeGlobalTarget intruder;
    QCOMPARE(rig.rotary->setGlobalTarget(&owner), 1);

    LogCapture log;
    QCOMPARE(rig.rotary->setGlobalTarget(&intruder), 0);
    const QList<LogCapture::Line> expected{{QtWarningMsg, kRefusedWarning.arg(rotaryId)}};
    QCOMPARE(log.lines(), expected);
    QCOMPARE(log.categories(), QStringList({"tarvix.worksurface.surface"}));

    // The old target stays: it is the one asked to bind.
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    QCOMPARE(rig.rotary->setGlobalTarget(&intruder), 0);
    handle->detach();
    QCOMPARE(owner.binds, 1);
    QCOMPARE(intruder.binds, 0);
    QCOMPARE(log.lines().size(), 2);
}

void TestRotary::theSameTargetAgainOrNullSucceeds()
{
    RecordingRig rig;
    FakeGlobalTarget owner;
    FakeGlobalTarget other;
    LogCapture log;
    QCOMPARE(rig.rotary->setGlobalTarget(&owner), 1);
    QCOMPARE(rig.rotary->setGlobalTarget(&owner), 1);
    QCOMPARE(rig.rotary->setGlobalTarget(nullptr), 1);
    QCOMPARE(rig.rotary->setGlobalTarget(nullptr), 1);
    // Once cleared, another target may claim the rotary.
    QCOMPARE(rig.rotary->setGlobalTarget(&other), 1);
    QCOMPARE(log.lines(), QList<LogCapture::Line>());

    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    handle->detach();
    QCOMPARE(owner.binds, 0);
    QCOMPARE(other.binds, 1);
}

void TestRotary::handleMethodsReachTheRotary()
{
    RecordingRig rig;
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    QCOMPARE(handle->rotary(), rig.rotary.get());
    handle->setColor(QColor(0x01, 0x02, 0x03));
    handle->setFlashInterval(600);
    handle->setFlashEnabled(true);
    QCOMPARE(rig.rotary->color(), QColor(0x01, 0x02, 0x03));
    QCOMPARE(rig.rotary->flashInterval(), int64_t(600));
    QCOMPARE(rig.rotary->flashEnabled(), true);
    QCOMPARE(rig.pool->taskCount(), std::size_t(1));
    // The interval change, with flash still disabled, made the light steady.
    QCOMPARE(rig.take(),
             QStringList({rig.color("01020300", kStart), rig.color("01020300", kStart)}));
    QCOMPARE(handle->touched(), false);
    QCOMPARE(handle->pressed(), false);
}

void TestRotary::detachedHandleDoesNothing()
{
    RecordingRig rig;
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    rig.rotary->handleMessage(SerialMessage(19, rig.ids.rotary, {1}));
    rig.rotary->handleMessage(SerialMessage(20, rig.ids.button, {1}));
    handle->detach();
    rig.sender->clear();

    QCOMPARE(handle->touched(), false);
    QCOMPARE(handle->pressed(), false);
    handle->setColor(QColor(Qt::red));
    handle->setFlashInterval(400);
    handle->setFlashEnabled(true);
    handle->detach();
    QCOMPARE(rig.sender->count(), std::size_t(0));
    QCOMPARE(rig.rotary->flashEnabled(), false);
    QCOMPARE(rig.pool->taskCount(), std::size_t(0));
}

void TestRotary::handleStandsForItsSectionAndRotaryId()
{
    RecordingRig rig(RotaryType::SideRotary, 4);
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    QVERIFY(handle->standsFor(kSection, 14));
    QVERIFY(!handle->standsFor(kSection, 35));  // its button id
    QVERIFY(!handle->standsFor(1, 14));
}

void TestRotary::handleIsDeletedLaterWhenItsLastOwnerGoes()
{
    RecordingRig rig;
    std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    QPointer<RotaryHandle> watch(handle.get());
    handle.reset();
    flushDeferredDeletes();
    QVERIFY(watch);
    rig.rotary->getHandle();
    QVERIFY(watch);
    flushDeferredDeletes();
    QVERIFY(!watch);
}

void TestRotary::destroyingTheRotaryCutsItsHandleOffAndDropsItsTask()
{
    RecordingRig rig;
    const std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    handle->setColor(QColor(Qt::red));
    handle->setFlashInterval(400);
    handle->setFlashEnabled(true);
    rig.sender->clear();
    rig.rotary.reset();
    QCOMPARE(handle->rotary(), nullptr);
    handle->setColor(QColor(Qt::blue));
    handle->detach();
    rig.tickAt(kStart + 200 * kMs + 1);
    QCOMPARE(rig.sender->count(), std::size_t(0));
    QCOMPARE(rig.pool->taskCount(), std::size_t(0));
}

void TestRotary::handleCallsFromAnotherThreadWhileStepsRunDoNotDeadlock()
{
    RecordingRig rig;
    FakeGlobalTarget target;
    rig.rotary->setGlobalTarget(&target);
    std::shared_ptr<RotaryHandle> handle = rig.rotary->getHandle();
    handle->setColor(QColor(Qt::red));

    std::atomic<bool> done{false};
    std::thread user([&]() {
        for (int i = 0; i < 3000; ++i) {
            handle->setFlashInterval(2 + (i % 3));
            handle->setFlashEnabled(i % 5 != 0);
            handle->setColor(i % 7 == 0 ? QColor(Qt::black) : QColor(Qt::red));
            rig.rotary->setGlobalTarget(i % 11 == 0 ? nullptr : &target);
        }
        done = true;
    });
    qint64 t = kStart;
    while (!done.load()) {
        t += 1 * kMs + 1;
        rig.tickAt(t);
        rig.rotary->handleMessage(SerialMessage(18, rig.ids.rotary, {1}));
    }
    user.join();
    for (int i = 0; i < 10; ++i) {
        t += 5 * kMs;
        rig.tickAt(t);
    }
    const bool flashing = rig.rotary->flashEnabled() && rig.rotary->flashInterval() >= 1;
    QCOMPARE(rig.pool->taskCount(), std::size_t(flashing ? 1 : 0));
}

// Two threads set different colours at once: whichever colour the rotary keeps is the one
// its light's last frame carries.
void TestRotary::twoThreadsSettingColoursLeaveTheLastStoredColourSentLast()
{
    Rig<DawdlingSender> rig;
    const QString difference = raceTwoStores(
        300, [&](int which, int round) { rig.rotary->setColor(racingColor(which, round)); },
        [&](int) { return colorDifference(rig.rotary->color(), rig.sender->lastPayload()); });
    QVERIFY2(difference.isEmpty(), qPrintable(difference));
}

QTEST_GUILESS_MAIN(TestRotary)
#include "tst_rotary.moc"
