#include <QPointer>
#include <QtTest/QtTest>
#include <memory>

#include "serial/serialmessagequeue.h"
#include "support/componentrig.h"
#include "support/deferreddeletes.h"
#include "support/manualclock.h"
#include "support/queuedrain.h"
#include "support/recordingsender.h"
#include "surface/meter.h"
#include "surface/meterhandle.h"

using namespace Velmora::Worksurface;

namespace {

constexpr qint64 kStart = 3000 * kMs;
constexpr uint8_t kLevelType = 13;
constexpr uint8_t kPeakType = 14;
// The right master meter.
constexpr uint8_t kDevice = 1;
constexpr uint8_t kSection = 1;

QString levelMessage(const char* payloadHex, qint64 atNs = kStart)
{
    return expectedMessage(kLevelType, kDevice, payloadHex, atNs);
}

QString peakMessage(const char* payloadHex, qint64 atNs = kStart)
{
    return expectedMessage(kPeakType, kDevice, payloadHex, atNs);
}

struct RecordingRig : ComponentRig<RecordingSender>
{
    RecordingRig() : ComponentRig(kStart) {}
    Meter meter{kDevice, kSection, MeterType::MasterRight, sender};
};

}  // namespace

class TestMeter : public QObject
{
    Q_OBJECT

private slots:
    void reportsItsIdentity();

    void value135Sends0_data();
    void value135Sends0();
    void value255Sends24();
    void values140And144BothGive1AndOnlyTheFirstIsSent();
    void value0SendsE5();
    void aFirstValueFrom135To139SendsNothing_data();
    void aFirstValueFrom135To139SendsNothing();
    void sectionByteOfSelectedValues_data();
    void sectionByteOfSelectedValues();
    void sectionByteIsTheTruncatedFifthAboveTheFloorForEveryValue();
    void levelAndPeakKeepTheirOwnLastByte();
    void levelAndPeakLeaveTheQueueAtOnce();

    void handleMethodsReachTheMeter();
    void releasingTheHandleSendsNothing();
    void secondHandleDetachesTheFirst();
    void detachedHandleDoesNothing();
    void handleStandsForItsSectionAndDevice();
    void handleIsDeletedLaterWhenItsLastOwnerGoes();
    void destroyingTheMeterCutsItsHandleOff();
};

void TestMeter::reportsItsIdentity()
{
    RecordingRig rig;
    QCOMPARE(rig.meter.deviceId(), kDevice);
    QCOMPARE(rig.meter.sectionIndex(), kSection);
    QCOMPARE(rig.meter.meterType(), MeterType::MasterRight);
}

void TestMeter::value135Sends0_data()
{
    QTest::addColumn<bool>("peak");
    QTest::newRow("level") << false;
    QTest::newRow("peak") << true;
}

void TestMeter::value135Sends0()
{
    QFETCH(bool, peak);
    RecordingRig rig;
    auto set = [&](uint8_t value) {
        if (peak) {
            rig.meter.setPeak(value);
        } else {
            rig.meter.setLevel(value);
        }
    };
    auto message = peak ? &peakMessage : &levelMessage;
    // After any other byte (a fresh meter already stands at 0; see below).
    set(200);
    set(135);
    QCOMPARE(rig.take(), QStringList({message("0d", kStart), message("00", kStart)}));
}

void TestMeter::value255Sends24()
{
    RecordingRig rig;
    rig.meter.setLevel(255);
    rig.meter.setPeak(255);
    QCOMPARE(rig.take(), QStringList({levelMessage("18"), peakMessage("18")}));
}

void TestMeter::values140And144BothGive1AndOnlyTheFirstIsSent()
{
    RecordingRig rig;
    rig.meter.setLevel(140);
    rig.meter.setLevel(144);
    rig.meter.setPeak(140);
    rig.meter.setPeak(144);
    QCOMPARE(rig.take(), QStringList({levelMessage("01"), peakMessage("01")}));
    QCOMPARE(Meter::sectionByte(140), uint8_t(1));
    QCOMPARE(Meter::sectionByte(144), uint8_t(1));
}

void TestMeter::value0SendsE5()
{
    RecordingRig rig;
    rig.meter.setLevel(0);
    rig.meter.setPeak(0);
    QCOMPARE(rig.take(), QStringList({levelMessage("e5"), peakMessage("e5")}));
}

void TestMeter::aFirstValueFrom135To139SendsNothing_data()
{
    QTest::addColumn<int>("value");
    for (int value = 131; value <= 139; ++value) {
        QTest::newRow(QByteArray::number(value).constData()) << value;
    }
}

void TestMeter::aFirstValueFrom135To139SendsNothing()
{
    QFETCH(int, value);
    // The last bytes start at 0, the byte of the whole range 131..139: the first such value
    // is taken as already shown.
    RecordingRig rig;
    rig.meter.setLevel(static_cast<uint8_t>(value));
    rig.meter.setPeak(static_cast<uint8_t>(value));
    QCOMPARE(rig.sender->count(), std::size_t(0));
    rig.meter.setLevel(140);
    QCOMPARE(rig.take(), QStringList{levelMessage("01")});
}

void TestMeter::sectionByteOfSelectedValues_data()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<int>("byte");
    QTest::newRow("0") << 0 << 0xe5;      // -27
    QTest::newRow("1") << 1 << 0xe6;      // -26.8 truncates toward zero to -26
    QTest::newRow("4") << 4 << 0xe6;      // -26.2
    QTest::newRow("5") << 5 << 0xe6;      // -26
    QTest::newRow("6") << 6 << 0xe7;      // -25.8
    QTest::newRow("100") << 100 << 0xf9;  // -7
    QTest::newRow("129") << 129 << 0xff;  // -1.2
    QTest::newRow("130") << 130 << 0xff;  // -1
    QTest::newRow("131") << 131 << 0x00;  // -0.8
    QTest::newRow("134") << 134 << 0x00;
    QTest::newRow("135") << 135 << 0x00;
    QTest::newRow("139") << 139 << 0x00;  // 0.8
    QTest::newRow("140") << 140 << 0x01;
    QTest::newRow("144") << 144 << 0x01;  // 1.8
    QTest::newRow("145") << 145 << 0x02;
    QTest::newRow("200") << 200 << 0x0d;  // 13
    QTest::newRow("254") << 254 << 0x17;  // 23.8
    QTest::newRow("255") << 255 << 0x18;  // 24
}

void TestMeter::sectionByteOfSelectedValues()
{
    QFETCH(int, value);
    QFETCH(int, byte);
    QCOMPARE(int(Meter::sectionByte(static_cast<uint8_t>(value))), byte);
}

void TestMeter::sectionByteIsTheTruncatedFifthAboveTheFloorForEveryValue()
{
    // In exact integers: with d = value - 135 and s the byte read as signed, truncation
    // toward zero means 5s <= d < 5s + 5 for d >= 0 and 5s - 5 < d <= 5s for d < 0.
    for (int value = 0; value <= 255; ++value) {
        const int d = value - 135;
        const int s = static_cast<int8_t>(Meter::sectionByte(static_cast<uint8_t>(value)));
        if (d >= 0) {
            QVERIFY2(5 * s <= d && d < 5 * s + 5, qPrintable(QString::number(value)));
        } else {
            QVERIFY2(5 * s - 5 < d && d <= 5 * s, qPrintable(QString::number(value)));
        }
    }
}

void TestMeter::levelAndPeakKeepTheirOwnLastByte()
{
    RecordingRig rig;
    rig.meter.setLevel(200);
    rig.meter.setPeak(200);
    rig.meter.setLevel(201);  // still 13
    rig.meter.setPeak(205);   // 14
    rig.meter.setLevel(135);
    rig.meter.setPeak(205);
    QCOMPARE(rig.take(), QStringList({levelMessage("0d"), peakMessage("0d"), peakMessage("0e"),
                                      levelMessage("00")}));
}

void TestMeter::levelAndPeakLeaveTheQueueAtOnce()
{
    ManualClock clock(kStart);
    auto queue = std::make_shared<SerialMessageQueue>();
    Meter meter(kDevice, kSection, MeterType::MasterRight, queue);
    meter.setLevel(180);
    meter.setPeak(250);
    QCOMPARE(describe(drainReleased(*queue, clock, kStart + 1000 * kMs)),
             QStringList({levelMessage("09"), peakMessage("17")}));

    Meter left(0, kSection, MeterType::MasterLeft, queue);
    clock.setNs(kStart + 2000 * kMs);
    left.setLevel(255);
    QCOMPARE(describe(drainReleased(*queue, clock, kStart + 3000 * kMs)),
             QStringList{expectedMessage(kLevelType, 0, "18", kStart + 2000 * kMs)});
}

void TestMeter::handleMethodsReachTheMeter()
{
    RecordingRig rig;
    const std::shared_ptr<MeterHandle> handle = rig.meter.getHandle();
    QVERIFY(handle);
    QCOMPARE(handle->meter(), &rig.meter);
    handle->setLevel(255);
    handle->setPeak(145);
    QCOMPARE(rig.take(), QStringList({levelMessage("18"), peakMessage("02")}));
}

void TestMeter::releasingTheHandleSendsNothing()
{
    RecordingRig rig;
    const std::shared_ptr<MeterHandle> handle = rig.meter.getHandle();
    handle->setLevel(255);
    rig.sender->clear();
    handle->detach();
    QCOMPARE(handle->meter(), nullptr);
    QCOMPARE(rig.sender->count(), std::size_t(0));
    // The meter still knows what it shows.
    rig.meter.setLevel(255);
    QCOMPARE(rig.sender->count(), std::size_t(0));
}

void TestMeter::secondHandleDetachesTheFirst()
{
    RecordingRig rig;
    const std::shared_ptr<MeterHandle> first = rig.meter.getHandle();
    const std::shared_ptr<MeterHandle> second = rig.meter.getHandle();
    QVERIFY(first != second);
    QCOMPARE(first->meter(), nullptr);
    QCOMPARE(second->meter(), &rig.meter);
    first->setLevel(255);
    QCOMPARE(rig.sender->count(), std::size_t(0));
    second->setLevel(255);
    QCOMPARE(rig.take(), QStringList{levelMessage("18")});
    // A release naming the stale handle leaves the current one in place.
    rig.meter.releaseHandle(first.get());
    QCOMPARE(second->meter(), &rig.meter);
}

void TestMeter::detachedHandleDoesNothing()
{
    RecordingRig rig;
    const std::shared_ptr<MeterHandle> handle = rig.meter.getHandle();
    handle->detach();
    handle->setLevel(255);
    handle->setPeak(255);
    handle->detach();
    QCOMPARE(rig.sender->count(), std::size_t(0));
}

void TestMeter::handleStandsForItsSectionAndDevice()
{
    RecordingRig rig;
    const std::shared_ptr<MeterHandle> handle = rig.meter.getHandle();
    QVERIFY(handle->standsFor(kSection, kDevice));
    QVERIFY(!handle->standsFor(kSection, 0));
    QVERIFY(!handle->standsFor(0, kDevice));
}

void TestMeter::handleIsDeletedLaterWhenItsLastOwnerGoes()
{
    RecordingRig rig;
    std::shared_ptr<MeterHandle> handle = rig.meter.getHandle();
    QPointer<MeterHandle> watch(handle.get());
    handle.reset();
    rig.meter.getHandle();
    QVERIFY(watch);
    flushDeferredDeletes();
    QVERIFY(!watch);
}

void TestMeter::destroyingTheMeterCutsItsHandleOff()
{
    auto sender = std::make_shared<RecordingSender>();
    auto meter = std::make_unique<Meter>(kDevice, kSection, MeterType::MasterRight, sender);
    const std::shared_ptr<MeterHandle> handle = meter->getHandle();
    meter.reset();
    QCOMPARE(handle->meter(), nullptr);
    handle->setLevel(255);
    QCOMPARE(sender->count(), std::size_t(0));
}

QTEST_GUILESS_MAIN(TestMeter)
#include "tst_meter.moc"
