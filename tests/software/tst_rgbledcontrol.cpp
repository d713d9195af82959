#include <QtTest>

#include "softwarecontroltest.h"

class TestRgbLedControl : public QObject
{
    Q_OBJECT

private slots:
    // Device ids.
    void rgbLedDeviceIdFollowsTypeAndIndex_data();
    void rgbLedDeviceIdFollowsTypeAndIndex();

    // RGB LED.
    void rgbLedShowsTheColourOpaque();
    void rgbLedLeavesOtherDevicesAlone();
};

// ---------------------------------------------------------------------------------------
// Device ids.

void TestRgbLedControl::rgbLedDeviceIdFollowsTypeAndIndex_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("deviceId");
    for (int type = 0; type <= 8; ++type) {
        for (int index : kIndices) {
            QTest::addRow("type %d index %d", type, index)
                << type << index << expectedRgbLedId(type, index);
        }
    }
}

void TestRgbLedControl::rgbLedDeviceIdFollowsTypeAndIndex()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, deviceId);
    Rig rig;
    RgbLedControl led;
    led.setType(static_cast<RgbLedBinding::RgbLedType>(type));
    attach(led, rig, 1, index);

    QCOMPARE(int(led.deviceId()), deviceId);
    QVERIFY(led.handleSoftwareMessage(
        1, message(MessageType::RgbColor, static_cast<uint8_t>(deviceId), {4, 5, 6, 0})));
    QCOMPARE(led.color(), QColor(4, 5, 6));
    QVERIFY(!led.handleSoftwareMessage(
        1, message(MessageType::RgbColor, static_cast<uint8_t>(deviceId + 1), {7, 8, 9, 0})));
    QCOMPARE(led.color(), QColor(4, 5, 6));
}

// ---------------------------------------------------------------------------------------
// RGB LED.

void TestRgbLedControl::rgbLedShowsTheColourOpaque()
{
    Rig rig;
    RgbLedControl led;
    led.setType(RgbLedBinding::OverviewLogo);
    attach(led, rig, 1, 0);
    QSignalSpy color(&led, &RgbLedControl::colorChanged);

    rig.fromPlugin(1, message(MessageType::RgbColor, 21, {0xFF, 0x80, 0x00, 0}));
    rig.fromPlugin(1, message(MessageType::RgbColor, 21, {0xFF, 0x80, 0x00, 0}));

    QCOMPARE(led.color(), QColor(0xFF, 0x80, 0x00));
    QCOMPARE(led.color().alpha(), 255);
    QCOMPARE(color.count(), 2);
}

void TestRgbLedControl::rgbLedLeavesOtherDevicesAlone()
{
    Rig rig;
    RgbLedControl led;
    led.setType(RgbLedBinding::UnderscreenRotaryButton);
    attach(led, rig, 0, 4);

    QVERIFY(!led.handleSoftwareMessage(0, message(MessageType::RgbColor, 5, {1, 2, 3, 0})));
    QVERIFY(!led.handleSoftwareMessage(0, message(MessageType::Led, 4, {1, 0})));
    QCOMPARE(led.color(), QColor(Qt::black));
}

QTEST_GUILESS_MAIN(TestRgbLedControl)
#include "tst_rgbledcontrol.moc"
