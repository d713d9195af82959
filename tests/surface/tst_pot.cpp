#include <QPointer>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <memory>

#include "serial/serialmessagequeue.h"
#include "support/componentrig.h"
#include "support/deferreddeletes.h"
#include "support/manualclock.h"
#include "support/queuedrain.h"
#include "support/recordingsender.h"
#include "support/storeorderrace.h"
#include "surface/deviceidtable.h"
#include "surface/pot.h"
#include "surface/pothandle.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

constexpr qint64 kStart = 7000 * kMs;
constexpr uint8_t kColorType = 12;
constexpr uint8_t kPotValueType = 17;
constexpr uint8_t kSection = 1;
// The headphone pot and its light, the headphone logo's RGB LED.
const DeviceIdTable::PotIds kIds = DeviceIdTable::pot(PotType::Headphone);

QString colorMessage(const char* payloadHex, qint64 atNs)
{
    return expectedMessage(kColorType, kIds.light, payloadHex, atNs);
}

QString requestMessage(qint64 atNs)
{
    return expectedMessage(kPotValueType, 0, "", atNs);
}

SerialMessage valueMessage(std::vector<uint8_t> payload, uint8_t deviceId = kIds.pot)
{
    return SerialMessage(kPotValueType, deviceId, std::move(payload));
}

template <typename Sender>
struct Rig : ComponentRig<Sender>
{
    Rig() : ComponentRig<Sender>(kStart) {}
    std::shared_ptr<Pot> pot = std::make_shared<Pot>(kIds.pot, kIds.light, kSection,
                                                     PotType::Headphone, this->sender, this->pool);
};

using QueueRig = Rig<SerialMessageQueue>;
using RecordingRig = Rig<RecordingSender>;

}  // namespace

class TestPot : public QObject
{
    Q_OBJECT

private slots:
    void reportsItsIdentity();
    void handleSignalIsPotValueChanged();

    // Value requests and reports
    void aPotKeepsRequestingItsValueEverySecondUntilTheSectionAnswers();
    void aReportedValueOf700IsStoredAndSignalledAs511();
    void valueReportsReachTheHandleEveryTime_data();
    void valueReportsReachTheHandleEveryTime();
    void aShortPayloadKeepsTheValueButStillStopsTheRequests_data();
    void aShortPayloadKeepsTheValueButStillStopsTheRequests();
    void aReportWithoutAHandleIsStoredSilently();
    void messagesNotForThePotAreNotTaken_data();
    void messagesNotForThePotAreNotTaken();
    void nothingIsRequestedBeforeTheRequestsAreStarted();
    void startingTheRequestsAgainReplacesTheRunningTask();

    // Colour
    void setColorSendsToTheLightIdEveryTime();
    void resendStateZeroSendsTheColorAtOnce();
    void resendStateOtherThanZeroSendsNothing();
    void twoThreadsSettingColoursLeaveTheLastStoredColourSentLast();

    // Handles
    void releasingTheHandleTurnsTheLightBlackAfter100ms();
    void releasingAStaleHandleStillTurnsTheLightBlack();
    void secondHandleDetachesTheFirst();
    void handleMethodsReachThePot();
    void detachedHandleDoesNothing();
    void handleStandsForItsSectionAndDevice();
    void handleIsDeletedLaterWhenItsLastOwnerGoes();
    void destroyingThePotCutsItsHandleOffAndDropsItsTask();
};

void TestPot::reportsItsIdentity()
{
    RecordingRig rig;
    QCOMPARE(rig.pot->potDeviceId(), uint8_t(0));
    QCOMPARE(rig.pot->lightDeviceId(), uint8_t(18));
    QCOMPARE(rig.pot->sectionIndex(), kSection);
    QCOMPARE(rig.pot->potType(), PotType::Headphone);
    QCOMPARE(rig.pot->value(), uint16_t(0));
    QCOMPARE(rig.pot->color(), QColor(Qt::black));
}

void TestPot::handleSignalIsPotValueChanged()
{
    const QMetaObject& meta = PotHandle::staticMetaObject;
    const int first = meta.methodOffset();
    QCOMPARE(meta.methodCount() - first, 1);
    QCOMPARE(meta.method(first).methodSignature(), QByteArray("potValueChanged(ushort)"));
    QCOMPARE(meta.method(first).parameterNames(), QList<QByteArray>{"value"});
    QCOMPARE(meta.method(first).methodType(), QMetaMethod::Signal);
}

void TestPot::aPotKeepsRequestingItsValueEverySecondUntilTheSectionAnswers()
{
    QueueRig rig;
    rig.pot->startValueRequests();
    QCOMPARE(rig.pool->taskCount(), std::size_t(1));

    qint64 due = kStart + 1000 * kMs + 1;
    for (int i = 0; i < 4; ++i) {
        rig.tickAt(due - 1);
        QCOMPARE(rig.drainUntil(due - 1), QStringList());
        rig.tickAt(due);
        QCOMPARE(rig.drainUntil(due + 500 * kMs), QStringList{requestMessage(due)});
        due += 1000 * kMs + 1;
    }

    QVERIFY(rig.pot->handleMessage(valueMessage({0x01, 0x00})));
    QCOMPARE(rig.pot->value(), uint16_t(256));
    for (qint64 t = due - 1; t <= due + 5000 * kMs; t += 5 * kMs) {
        rig.tickAt(t);
    }
    QCOMPARE(rig.drainUntil(due + 6000 * kMs), QStringList());
    QCOMPARE(rig.pool->taskCount(), std::size_t(0));
}

void TestPot::aReportedValueOf700IsStoredAndSignalledAs511()
{
    RecordingRig rig;
    const std::shared_ptr<PotHandle> handle = rig.pot->getHandle();
    QSignalSpy spy(handle.get(), &PotHandle::potValueChanged);
    QVERIFY(rig.pot->handleMessage(valueMessage({0x02, 0xbc})));
    QCOMPARE(rig.pot->value(), uint16_t(511));
    QCOMPARE(handle->value(), quint16(511));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).value<quint16>(), quint16(511));
}

void TestPot::valueReportsReachTheHandleEveryTime_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<int>("value");
    QTest::newRow("0") << QByteArray("0000") << 0;
    QTest::newRow("1") << QByteArray("0001") << 1;
    QTest::newRow("511") << QByteArray("01ff") << 511;
    QTest::newRow("512") << QByteArray("0200") << 511;
    QTest::newRow("ffff") << QByteArray("ffff") << 511;
    QTest::newRow("trailing byte ignored") << QByteArray("012345") << 0x123;
}

void TestPot::valueReportsReachTheHandleEveryTime()
{
    QFETCH(QByteArray, payload);
    QFETCH(int, value);
    RecordingRig rig;
    const std::shared_ptr<PotHandle> handle = rig.pot->getHandle();
    QSignalSpy spy(handle.get(), &PotHandle::potValueChanged);
    const QByteArray bytes = QByteArray::fromHex(payload);
    const SerialMessage message = valueMessage(std::vector<uint8_t>(bytes.cbegin(), bytes.cend()));
    QVERIFY(rig.pot->handleMessage(message));
    // The same value again is signalled again.
    QVERIFY(rig.pot->handleMessage(message));
    QCOMPARE(rig.pot->value(), uint16_t(value));
    QCOMPARE(spy.count(), 2);
    QCOMPARE(spy.at(0).at(0).value<quint16>(), quint16(value));
    QCOMPARE(spy.at(1).at(0).value<quint16>(), quint16(value));
}

void TestPot::aShortPayloadKeepsTheValueButStillStopsTheRequests_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("one byte") << QByteArray("01");
}

void TestPot::aShortPayloadKeepsTheValueButStillStopsTheRequests()
{
    QFETCH(QByteArray, payload);
    RecordingRig rig;
    rig.pot->handleMessage(valueMessage({0x01, 0x2c}));
    rig.pot->startValueRequests();
    const std::shared_ptr<PotHandle> handle = rig.pot->getHandle();
    QSignalSpy spy(handle.get(), &PotHandle::potValueChanged);

    const QByteArray bytes = QByteArray::fromHex(payload);
    QVERIFY(
        rig.pot->handleMessage(valueMessage(std::vector<uint8_t>(bytes.cbegin(), bytes.cend()))));
    QCOMPARE(rig.pot->value(), uint16_t(300));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).value<quint16>(), quint16(300));
    rig.tickAt(kStart + 5000 * kMs);
    QCOMPARE(rig.sender->count(), std::size_t(0));
}

void TestPot::aReportWithoutAHandleIsStoredSilently()
{
    RecordingRig rig;
    QVERIFY(rig.pot->handleMessage(valueMessage({0x00, 0x64})));
    QCOMPARE(rig.pot->value(), uint16_t(100));
    const std::shared_ptr<PotHandle> handle = rig.pot->getHandle();
    QCOMPARE(handle->value(), quint16(100));
}

void TestPot::messagesNotForThePotAreNotTaken_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("deviceId");
    QTest::newRow("value of another device") << 17 << 1;
    QTest::newRow("fader move with the pot's id") << 7 << 0;
    QTest::newRow("rotary step with the pot's id") << 18 << 0;
    QTest::newRow("colour of the light") << 12 << 18;
    QTest::newRow("ping") << 0 << 0;
}

void TestPot::messagesNotForThePotAreNotTaken()
{
    QFETCH(int, type);
    QFETCH(int, deviceId);
    RecordingRig rig;
    rig.pot->startValueRequests();
    const std::shared_ptr<PotHandle> handle = rig.pot->getHandle();
    QSignalSpy spy(handle.get(), &PotHandle::potValueChanged);
    QVERIFY(!rig.pot->handleMessage(
        SerialMessage(static_cast<uint8_t>(type), static_cast<uint8_t>(deviceId), {0x01, 0x00})));
    QCOMPARE(rig.pot->value(), uint16_t(0));
    QCOMPARE(spy.count(), 0);
    // The requests go on.
    rig.tickAt(kStart + 1000 * kMs + 1);
    QCOMPARE(rig.take(), QStringList{requestMessage(kStart + 1000 * kMs + 1)});
}

void TestPot::nothingIsRequestedBeforeTheRequestsAreStarted()
{
    RecordingRig rig;
    QCOMPARE(rig.pool->taskCount(), std::size_t(0));
    rig.tickAt(kStart + 5000 * kMs);
    QCOMPARE(rig.sender->count(), std::size_t(0));
}

void TestPot::startingTheRequestsAgainReplacesTheRunningTask()
{
    RecordingRig rig;
    rig.pot->startValueRequests();
    rig.clock.setNs(kStart + 400 * kMs);
    rig.pot->startValueRequests();
    rig.tickAt(kStart + 1000 * kMs + 1);
    QCOMPARE(rig.sender->count(), std::size_t(0));
    rig.tickAt(kStart + 1400 * kMs + 1);
    rig.tickAt(kStart + 2400 * kMs + 2);
    QCOMPARE(rig.take(), QStringList({requestMessage(kStart + 1400 * kMs + 1),
                                      requestMessage(kStart + 2400 * kMs + 2)}));
    QCOMPARE(rig.pool->taskCount(), std::size_t(1));
    rig.pot->handleMessage(valueMessage({0, 1}));
    rig.tickAt(kStart + 3400 * kMs + 3);
    QCOMPARE(rig.sender->count(), std::size_t(0));
}

void TestPot::setColorSendsToTheLightIdEveryTime()
{
    {
        QueueRig rig;
        rig.pot->setColor(QColor(0x10, 0x20, 0x30, 0x40));
        QCOMPARE(rig.drainUntil(kStart + 100 * kMs), QStringList{colorMessage("10203000", kStart)});
    }
    // No equality test: the same colour goes out again, black included.
    RecordingRig rig;
    rig.pot->setColor(QColor(Qt::black));
    rig.pot->setColor(QColor(Qt::green));
    rig.pot->setColor(QColor(Qt::green));
    QCOMPARE(rig.take(),
             QStringList({colorMessage("00000000", kStart), colorMessage("00ff0000", kStart),
                          colorMessage("00ff0000", kStart)}));
}

void TestPot::resendStateZeroSendsTheColorAtOnce()
{
    QueueRig rig;
    rig.pot->setColor(QColor(Qt::cyan));
    rig.drainUntil(kStart + 20 * kMs);
    rig.pot->setLinkReady(false);
    QCOMPARE(rig.drainUntil(kStart + 500 * kMs),
             QStringList{colorMessage("00ffff00", kStart + 20 * kMs)});
}

void TestPot::resendStateOtherThanZeroSendsNothing()
{
    RecordingRig rig;
    rig.pot->setColor(QColor(Qt::cyan));
    rig.sender->clear();
    rig.pot->setLinkReady(true);
    QCOMPARE(rig.sender->count(), std::size_t(0));
}

void TestPot::releasingTheHandleTurnsTheLightBlackAfter100ms()
{
    QueueRig rig;
    const std::shared_ptr<PotHandle> handle = rig.pot->getHandle();
    handle->setColor(QColor(Qt::red));
    rig.drainUntil(kStart + 50 * kMs);
    handle->detach();
    QCOMPARE(handle->pot(), nullptr);
    QCOMPARE(rig.pot->color(), QColor(Qt::black));
    QCOMPARE(rig.drainUntil(kStart + 1000 * kMs),
             QStringList{colorMessage("00000000", kStart + 150 * kMs)});
}

void TestPot::releasingAStaleHandleStillTurnsTheLightBlack()
{
    RecordingRig rig;
    const std::shared_ptr<PotHandle> first = rig.pot->getHandle();
    const std::shared_ptr<PotHandle> second = rig.pot->getHandle();
    second->setColor(QColor(Qt::blue));
    rig.sender->clear();
    rig.pot->releaseHandle(first.get());
    QCOMPARE(rig.take(), QStringList{colorMessage("00000000", kStart + 100 * kMs)});
    QCOMPARE(second->pot(), rig.pot.get());
}

void TestPot::secondHandleDetachesTheFirst()
{
    RecordingRig rig;
    const std::shared_ptr<PotHandle> first = rig.pot->getHandle();
    QSignalSpy firstSpy(first.get(), &PotHandle::potValueChanged);
    const std::shared_ptr<PotHandle> second = rig.pot->getHandle();
    QSignalSpy secondSpy(second.get(), &PotHandle::potValueChanged);
    QVERIFY(first != second);
    QCOMPARE(first->pot(), nullptr);
    QCOMPARE(rig.take(), QStringList{colorMessage("00000000", kStart + 100 * kMs)});

    rig.pot->handleMessage(valueMessage({0, 42}));
    QCOMPARE(firstSpy.count(), 0);
    QCOMPARE(secondSpy.count(), 1);
}

void TestPot::handleMethodsReachThePot()
{
    RecordingRig rig;
    const std::shared_ptr<PotHandle> handle = rig.pot->getHandle();
    QCOMPARE(handle->pot(), rig.pot.get());
    rig.pot->handleMessage(valueMessage({0x01, 0x90}));
    QCOMPARE(handle->value(), quint16(400));
    handle->setColor(QColor(Qt::white));
    handle->setColor(QColor(Qt::white));
    QCOMPARE(rig.take(),
             QStringList({colorMessage("ffffff00", kStart), colorMessage("ffffff00", kStart)}));
}

void TestPot::detachedHandleDoesNothing()
{
    RecordingRig rig;
    rig.pot->handleMessage(valueMessage({0x01, 0x90}));
    const std::shared_ptr<PotHandle> handle = rig.pot->getHandle();
    handle->detach();
    rig.sender->clear();
    QCOMPARE(handle->value(), quint16(0));
    handle->setColor(QColor(Qt::white));
    handle->detach();
    QCOMPARE(rig.sender->count(), std::size_t(0));
}

void TestPot::handleStandsForItsSectionAndDevice()
{
    RecordingRig rig;
    const std::shared_ptr<PotHandle> handle = rig.pot->getHandle();
    QVERIFY(handle->standsFor(kSection, 0));
    QVERIFY(!handle->standsFor(kSection, 18));
    QVERIFY(!handle->standsFor(0, 0));
}

void TestPot::handleIsDeletedLaterWhenItsLastOwnerGoes()
{
    RecordingRig rig;
    std::shared_ptr<PotHandle> handle = rig.pot->getHandle();
    QPointer<PotHandle> watch(handle.get());
    handle.reset();
    flushDeferredDeletes();
    QVERIFY(watch);
    rig.pot->getHandle();
    QVERIFY(watch);
    flushDeferredDeletes();
    QVERIFY(!watch);
}

void TestPot::destroyingThePotCutsItsHandleOffAndDropsItsTask()
{
    RecordingRig rig;
    rig.pot->startValueRequests();
    const std::shared_ptr<PotHandle> handle = rig.pot->getHandle();
    rig.pot.reset();
    QCOMPARE(handle->pot(), nullptr);
    handle->setColor(QColor(Qt::red));
    handle->detach();
    rig.tickAt(kStart + 1000 * kMs + 1);
    QCOMPARE(rig.sender->count(), std::size_t(0));
    QCOMPARE(rig.pool->taskCount(), std::size_t(0));
}

// Two threads set different colours at once: whichever colour the pot keeps is the one
// its light's last frame carries.
void TestPot::twoThreadsSettingColoursLeaveTheLastStoredColourSentLast()
{
    Rig<DawdlingSender> rig;
    const QString difference = raceTwoStores(
        300, [&](int which, int round) { rig.pot->setColor(racingColor(which, round)); },
        [&](int) { return colorDifference(rig.pot->color(), rig.sender->lastPayload()); });
    QVERIFY2(difference.isEmpty(), qPrintable(difference));
}

QTEST_GUILESS_MAIN(TestPot)
#include "tst_pot.moc"
