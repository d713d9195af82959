#include <QtTest>

#include "softwarecontroltest.h"

class TestMeterControl : public QObject
{
    Q_OBJECT

private slots:
    // Device ids.
    void meterDeviceIdFollowsTypeOnly_data();
    void meterDeviceIdFollowsTypeOnly();

    // Meter.
    void meterShowsLevelAndPeak();
    void meterAnnouncesOnlyChanges();
    void inactiveMeterTakesLevelMessagesButHoldsZero();
    void meterDeactivationResetsPeakAndValueWithTheirSignals();
};

// ---------------------------------------------------------------------------------------
// Device ids.

void TestMeterControl::meterDeviceIdFollowsTypeOnly_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("deviceId");
    for (int index : kIndices) {
        QTest::addRow("None index %d", index) << 0 << index << 255;
        QTest::addRow("MasterLeft index %d", index) << 1 << index << 0;
        QTest::addRow("MasterRight index %d", index) << 2 << index << 1;
    }
}

void TestMeterControl::meterDeviceIdFollowsTypeOnly()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, deviceId);
    Rig rig;
    MeterControl meter;
    meter.setMeterType(static_cast<MeterBinding::MeterType>(type));
    attach(meter, rig, 2, index);

    QCOMPARE(int(meter.deviceId()), deviceId);
    QVERIFY(meter.handleSoftwareMessage(
        2, message(MessageType::MeterLevel, static_cast<uint8_t>(deviceId), {17})));
    QCOMPARE(meter.value(), 17);
    QVERIFY(!meter.handleSoftwareMessage(
        2, message(MessageType::MeterLevel, static_cast<uint8_t>(deviceId + 1), {18})));
    QCOMPARE(meter.value(), 17);
}

// ---------------------------------------------------------------------------------------
// Meter.

void TestMeterControl::meterShowsLevelAndPeak()
{
    Rig rig;
    MeterControl meter;
    meter.setMeterType(MeterBinding::MasterRight);
    attach(meter, rig, 2, 0);

    rig.fromPlugin(2, message(MessageType::MeterLevel, 1, {24}));
    rig.fromPlugin(2, message(MessageType::MeterPeak, 1, {13}));
    rig.fromPlugin(2, message(MessageType::MeterLevel, 0, {99}));  // the left meter's

    QCOMPARE(meter.value(), 24);
    QCOMPARE(meter.peak(), 13);
}

void TestMeterControl::meterAnnouncesOnlyChanges()
{
    Rig rig;
    MeterControl meter;
    meter.setMeterType(MeterBinding::MasterLeft);
    attach(meter, rig, 1, 0);
    QSignalSpy value(&meter, &MeterControl::valueChanged);
    QSignalSpy peak(&meter, &MeterControl::peakChanged);

    rig.fromPlugin(1, message(MessageType::MeterLevel, 0, {5}));
    rig.fromPlugin(1, message(MessageType::MeterLevel, 0, {5}));
    rig.fromPlugin(1, message(MessageType::MeterPeak, 0, {6}));
    rig.fromPlugin(1, message(MessageType::MeterPeak, 0, {6}));

    QCOMPARE(value.count(), 1);
    QCOMPARE(peak.count(), 1);
}

void TestMeterControl::inactiveMeterTakesLevelMessagesButHoldsZero()
{
    Rig rig;
    MeterControl meter;
    meter.setMeterType(MeterBinding::MasterLeft);
    attach(meter, rig, 1, 0, false);
    QSignalSpy value(&meter, &MeterControl::valueChanged);
    QSignalSpy peak(&meter, &MeterControl::peakChanged);
    FakeSoftwareHandler after;
    after.takeAll(true);
    rig.controller->addSoftwareHandler(&after);

    QVERIFY(meter.handleSoftwareMessage(1, message(MessageType::MeterLevel, 0, {200})));
    QVERIFY(meter.handleSoftwareMessage(1, message(MessageType::MeterPeak, 0, {210})));
    rig.fromPlugin(1, message(MessageType::MeterLevel, 0, {201}));

    QCOMPARE(meter.value(), 0);
    QCOMPARE(meter.peak(), 0);
    QCOMPARE(value.count(), 0);
    QCOMPARE(peak.count(), 0);
    QCOMPARE(after.offerCount(), 0);  // taken all the same
    rig.controller->removeSoftwareHandler(&after);
}

void TestMeterControl::meterDeactivationResetsPeakAndValueWithTheirSignals()
{
    Rig rig;
    MeterControl meter;
    meter.setMeterType(MeterBinding::MasterLeft);
    attach(meter, rig, 1, 0);
    rig.fromPlugin(1, message(MessageType::MeterLevel, 0, {20}));
    rig.fromPlugin(1, message(MessageType::MeterPeak, 0, {22}));
    QStringList order;
    connect(&meter, &MeterControl::peakChanged, [&] { order << "peak"; });
    connect(&meter, &MeterControl::valueChanged, [&] { order << "value"; });

    meter.setActive(false);

    QCOMPARE(meter.value(), 0);
    QCOMPARE(meter.peak(), 0);
    QCOMPARE(order, (QStringList{"peak", "value"}));

    // Activation fetches the last level and peak again.
    order.clear();
    meter.setActive(true);
    QCOMPARE(meter.value(), 20);
    QCOMPARE(meter.peak(), 22);
    QCOMPARE(order, (QStringList{"value", "peak"}));

    // A meter already at rest still announces both when switched off.
    MeterControl idle;
    idle.setMeterType(MeterBinding::MasterRight);
    attach(idle, rig, 1, 0);
    QSignalSpy value(&idle, &MeterControl::valueChanged);
    QSignalSpy peak(&idle, &MeterControl::peakChanged);
    idle.setActive(false);
    QCOMPARE(value.count(), 1);
    QCOMPARE(peak.count(), 1);
}

QTEST_GUILESS_MAIN(TestMeterControl)
#include "tst_metercontrol.moc"
