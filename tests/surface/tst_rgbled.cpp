#include <QPointer>
#include <QtTest/QtTest>
#include <memory>

#include "serial/serialmessagequeue.h"
#include "support/componentrig.h"
#include "support/deferreddeletes.h"
#include "support/manualclock.h"
#include "support/queuedrain.h"
#include "support/recordingsender.h"
#include "support/storeorderrace.h"
#include "surface/rgbled.h"
#include "surface/rgbledhandle.h"

using namespace Velmora::Worksurface;

namespace {

constexpr qint64 kStart = 5000 * kMs;
constexpr uint8_t kColorType = 12;
// The snapshot logo of the master section.
constexpr uint8_t kDevice = 19;
constexpr uint8_t kSection = 1;

QString colorMessage(const char* payloadHex, qint64 atNs)
{
    return expectedMessage(kColorType, kDevice, payloadHex, atNs);
}

// The snapshot logo on the section's real queue (QueueRig) or on a recording sender
// (RecordingRig), under a manual clock.
template <typename Sender>
struct RgbLedRig : ComponentRig<Sender>
{
    RgbLedRig() : ComponentRig<Sender>(kStart) {}
    RgbLed rgbLed{kDevice, kSection, RgbLedType::SnapshotLogo, this->sender};
};
using QueueRig = RgbLedRig<SerialMessageQueue>;
using RecordingRig = RgbLedRig<RecordingSender>;

}  // namespace

class TestRgbLed : public QObject
{
    Q_OBJECT

private slots:
    void reportsItsIdentity();
    void takesNoMessage();

    void setColorSendsRedGreenBlueAndZeroAtOnce();
    void alphaIsNotSent();
    void settingTheSameColorTwiceSendsOneMessage();
    void blackFirstSendsNothingBecauseTheLedStartsBlack();
    void equalityIsQColorEquality_data();
    void equalityIsQColorEquality();

    void resendStateZeroSendsTheStoredColorAtOnce();
    void resendStateOtherThanZeroSendsNothing();

    void releasingTheHandleTurnsTheLedBlackAfter100ms();
    void aNewBindingsColorReplacesThePendingBlack();
    void afterAReleaseTheOldColorIsSentAgain();
    void secondHandleDetachesTheFirst();
    void releasingAStaleHandleKeepsTheCurrentOne();
    void detachedHandleDoesNothing();
    void handleStandsForItsSectionAndDevice();
    void handleIsDeletedLaterWhenItsLastOwnerGoes();
    void destroyingTheLedCutsItsHandleOff();

    void twoThreadsSettingColoursLeaveTheLastStoredColourSentLast();
};

void TestRgbLed::reportsItsIdentity()
{
    RecordingRig rig;
    QCOMPARE(rig.rgbLed.deviceId(), kDevice);
    QCOMPARE(rig.rgbLed.sectionIndex(), kSection);
    QCOMPARE(rig.rgbLed.rgbLedType(), RgbLedType::SnapshotLogo);
    QCOMPARE(rig.rgbLed.color(), QColor(Qt::black));
}

void TestRgbLed::takesNoMessage()
{
    RecordingRig rig;
    QVERIFY(!rig.rgbLed.handleMessage(SerialMessage(12, kDevice, {1, 2, 3, 0})));
    QVERIFY(!rig.rgbLed.handleMessage(SerialMessage(20, kDevice, {1})));
    QCOMPARE(rig.sender->count(), std::size_t(0));
}

void TestRgbLed::setColorSendsRedGreenBlueAndZeroAtOnce()
{
    QueueRig rig;
    rig.rgbLed.setColor(QColor(0x12, 0x34, 0x56));
    QCOMPARE(rig.rgbLed.color(), QColor(0x12, 0x34, 0x56));
    QCOMPARE(rig.drainUntil(kStart + 500 * kMs), QStringList{colorMessage("12345600", kStart)});
}

void TestRgbLed::alphaIsNotSent()
{
    RecordingRig rig;
    rig.rgbLed.setColor(QColor(0xfe, 0x01, 0x80, 0x10));
    QCOMPARE(rig.take(), QStringList{colorMessage("fe018000", kStart)});
}

void TestRgbLed::settingTheSameColorTwiceSendsOneMessage()
{
    RecordingRig rig;
    rig.rgbLed.setColor(QColor(Qt::red));
    rig.rgbLed.setColor(QColor(Qt::red));
    QCOMPARE(rig.take(), QStringList{colorMessage("ff000000", kStart)});
    rig.rgbLed.setColor(QColor(Qt::blue));
    rig.rgbLed.setColor(QColor(Qt::red));
    QCOMPARE(rig.take(),
             QStringList({colorMessage("0000ff00", kStart), colorMessage("ff000000", kStart)}));
}

void TestRgbLed::blackFirstSendsNothingBecauseTheLedStartsBlack()
{
    RecordingRig rig;
    rig.rgbLed.setColor(QColor(0, 0, 0));
    QCOMPARE(rig.sender->count(), std::size_t(0));
}

void TestRgbLed::equalityIsQColorEquality_data()
{
    QTest::addColumn<QColor>("first");
    QTest::addColumn<QColor>("second");
    QTest::addColumn<int>("messages");
    QTest::newRow("same rgb") << QColor(10, 20, 30) << QColor(10, 20, 30) << 1;
    // The same bytes on the wire, but not the same QColor: sent again.
    QTest::newRow("alpha differs") << QColor(10, 20, 30, 255) << QColor(10, 20, 30, 128) << 2;
    QTest::newRow("hsv colour model") << QColor(Qt::red) << QColor::fromHsv(0, 255, 255) << 2;
    QTest::newRow("named") << QColor("#102030") << QColor(16, 32, 48) << 1;
}

void TestRgbLed::equalityIsQColorEquality()
{
    QFETCH(QColor, first);
    QFETCH(QColor, second);
    QFETCH(int, messages);
    RecordingRig rig;
    rig.rgbLed.setColor(first);
    rig.rgbLed.setColor(second);
    const std::vector<SentMessage> sent = rig.sender->take();
    QCOMPARE(int(sent.size()), messages);
    for (const SentMessage& one : sent) {
        QCOMPARE(one.message, sent.front().message);
    }
}

void TestRgbLed::resendStateZeroSendsTheStoredColorAtOnce()
{
    {
        QueueRig rig;
        rig.rgbLed.setColor(QColor(0xaa, 0xbb, 0xcc));
        rig.drainUntil(kStart + 40 * kMs);
        rig.rgbLed.setLinkReady(false);
        QCOMPARE(rig.drainUntil(kStart + 500 * kMs),
                 QStringList{colorMessage("aabbcc00", kStart + 40 * kMs)});
    }
    // A black LED sends its black again too.
    QueueRig black;
    black.rgbLed.setLinkReady(false);
    QCOMPARE(black.drainUntil(kStart + 500 * kMs), QStringList{colorMessage("00000000", kStart)});
}

void TestRgbLed::resendStateOtherThanZeroSendsNothing()
{
    RecordingRig rig;
    rig.rgbLed.setColor(QColor(1, 2, 3));
    rig.sender->clear();
    rig.rgbLed.setLinkReady(true);
    QCOMPARE(rig.sender->count(), std::size_t(0));
}

void TestRgbLed::releasingTheHandleTurnsTheLedBlackAfter100ms()
{
    QueueRig rig;
    const std::shared_ptr<RgbLedHandle> handle = rig.rgbLed.getHandle();
    handle->setColor(QColor(0x00, 0xff, 0x7f));
    QCOMPARE(rig.drainUntil(kStart + 10 * kMs), QStringList{colorMessage("00ff7f00", kStart)});

    handle->detach();
    QCOMPARE(handle->rgbLed(), nullptr);
    QCOMPARE(rig.rgbLed.color(), QColor(Qt::black));
    QCOMPARE(rig.drainUntil(kStart + 1000 * kMs),
             QStringList{colorMessage("00000000", kStart + 110 * kMs)});
}

void TestRgbLed::aNewBindingsColorReplacesThePendingBlack()
{
    QueueRig rig;
    const std::shared_ptr<RgbLedHandle> first = rig.rgbLed.getHandle();
    first->setColor(QColor(Qt::yellow));
    rig.drainUntil(kStart);

    // The old handle's release queues black for 100 ms later; the new binding's colour,
    // sent at once, takes its place in the queue.
    const std::shared_ptr<RgbLedHandle> second = rig.rgbLed.getHandle();
    second->setColor(QColor(Qt::green));
    QCOMPARE(rig.drainUntil(kStart + 1000 * kMs), QStringList{colorMessage("00ff0000", kStart)});
}

void TestRgbLed::afterAReleaseTheOldColorIsSentAgain()
{
    RecordingRig rig;
    const std::shared_ptr<RgbLedHandle> first = rig.rgbLed.getHandle();
    first->setColor(QColor(Qt::cyan));
    const std::shared_ptr<RgbLedHandle> second = rig.rgbLed.getHandle();
    second->setColor(QColor(Qt::cyan));
    QCOMPARE(rig.take(), QStringList({colorMessage("00ffff00", kStart),
                                      colorMessage("00000000", kStart + 100 * kMs),
                                      colorMessage("00ffff00", kStart)}));
}

void TestRgbLed::secondHandleDetachesTheFirst()
{
    RecordingRig rig;
    const std::shared_ptr<RgbLedHandle> first = rig.rgbLed.getHandle();
    const std::shared_ptr<RgbLedHandle> second = rig.rgbLed.getHandle();
    QVERIFY(second != first);
    QCOMPARE(first->rgbLed(), nullptr);
    QCOMPARE(second->rgbLed(), &rig.rgbLed);
    rig.sender->clear();
    first->setColor(QColor(Qt::red));
    QCOMPARE(rig.sender->count(), std::size_t(0));
    second->setColor(QColor(Qt::red));
    QCOMPARE(rig.take(), QStringList{colorMessage("ff000000", kStart)});
}

void TestRgbLed::releasingAStaleHandleKeepsTheCurrentOne()
{
    RecordingRig rig;
    const std::shared_ptr<RgbLedHandle> first = rig.rgbLed.getHandle();
    const std::shared_ptr<RgbLedHandle> second = rig.rgbLed.getHandle();
    second->setColor(QColor(Qt::red));
    rig.sender->clear();

    rig.rgbLed.releaseHandle(first.get());
    // Black all the same, but the current handle stays.
    QCOMPARE(rig.take(), QStringList{colorMessage("00000000", kStart + 100 * kMs)});
    QCOMPARE(second->rgbLed(), &rig.rgbLed);
}

void TestRgbLed::detachedHandleDoesNothing()
{
    RecordingRig rig;
    const std::shared_ptr<RgbLedHandle> handle = rig.rgbLed.getHandle();
    handle->detach();
    rig.sender->clear();
    handle->setColor(QColor(Qt::white));
    handle->detach();
    QCOMPARE(rig.sender->count(), std::size_t(0));
    QCOMPARE(rig.rgbLed.color(), QColor(Qt::black));
}

void TestRgbLed::handleStandsForItsSectionAndDevice()
{
    RecordingRig rig;
    const std::shared_ptr<RgbLedHandle> handle = rig.rgbLed.getHandle();
    QVERIFY(handle->standsFor(kSection, kDevice));
    QVERIFY(!handle->standsFor(0, kDevice));
    QVERIFY(!handle->standsFor(kSection, 18));
    handle->detach();
    QVERIFY(!handle->standsFor(kSection, kDevice));
}

void TestRgbLed::handleIsDeletedLaterWhenItsLastOwnerGoes()
{
    RecordingRig rig;
    std::shared_ptr<RgbLedHandle> handle = rig.rgbLed.getHandle();
    QPointer<RgbLedHandle> watch(handle.get());
    handle->detach();
    handle.reset();
    QVERIFY(watch);
    flushDeferredDeletes();
    QVERIFY(!watch);
}

void TestRgbLed::destroyingTheLedCutsItsHandleOff()
{
    ManualClock clock(kStart);
    auto sender = std::make_shared<RecordingSender>();
    auto rgbLed = std::make_unique<RgbLed>(kDevice, kSection, RgbLedType::SnapshotLogo, sender);
    const std::shared_ptr<RgbLedHandle> handle = rgbLed->getHandle();
    rgbLed.reset();
    QCOMPARE(handle->rgbLed(), nullptr);
    handle->setColor(QColor(Qt::red));
    handle->detach();
    QCOMPARE(sender->count(), std::size_t(0));
}

// Two threads set different colours at once: whichever colour the LED keeps is the one
// its last frame carries. Sent in the opposite order, the equality check would then keep
// the other colour on the hardware until the colour changes.
void TestRgbLed::twoThreadsSettingColoursLeaveTheLastStoredColourSentLast()
{
    ComponentRig<DawdlingSender> rig(kStart);
    RgbLed rgbLed{kDevice, kSection, RgbLedType::SnapshotLogo, rig.sender};
    const QString difference = raceTwoStores(
        300, [&](int which, int round) { rgbLed.setColor(racingColor(which, round)); },
        [&](int) { return colorDifference(rgbLed.color(), rig.sender->lastPayload()); });
    QVERIFY2(difference.isEmpty(), qPrintable(difference));
}

QTEST_GUILESS_MAIN(TestRgbLed)
#include "tst_rgbled.moc"
