#include <QtTest>

#include "softwarecontroltest.h"

class TestRotaryControl : public QObject
{
    Q_OBJECT

private slots:
    // Device ids.
    void rotaryDeviceIdsFollowTypeAndIndex_data();
    void rotaryDeviceIdsFollowTypeAndIndex();

    // Rotary.
    void rotaryShowsTheRingColour();
    void rotaryRotateReportsTheAmountAsAByte();
    void rotaryReportsEveryTouchWrite();
    void rotaryReportsPressesFromItsPushSwitch();
    void inactiveRotarySendsNothing();
    void rotaryLeavesOtherTypesAndDevicesAlone();
};

// ---------------------------------------------------------------------------------------
// Device ids.

void TestRotaryControl::rotaryDeviceIdsFollowTypeAndIndex_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("deviceId");
    QTest::addColumn<int>("buttonId");
    for (int type = 0; type <= 2; ++type) {
        for (int index : kIndices) {
            QTest::addRow("type %d index %d", type, index)
                << type << index << expectedRotaryId(type, index)
                << expectedRotaryButtonId(type, index);
        }
    }
}

void TestRotaryControl::rotaryDeviceIdsFollowTypeAndIndex()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, deviceId);
    QFETCH(int, buttonId);
    Rig rig;
    RotaryControl rotary;
    rotary.setType(static_cast<RotaryBinding::RotaryType>(type));
    attach(rotary, rig, 0, index);

    QCOMPARE(int(rotary.deviceId()), deviceId);
    QCOMPARE(int(rotary.buttonDeviceId()), buttonId);
    QVERIFY(rotary.handleSoftwareMessage(
        0, message(MessageType::RgbColor, static_cast<uint8_t>(deviceId), {1, 2, 3, 0})));
    QCOMPARE(rotary.color(), QColor(1, 2, 3));
    rotary.rotate(1);
    rotary.setTouched(true);
    rotary.setPressed(true);
    const auto id = static_cast<uint8_t>(deviceId);
    QCOMPARE(rig.receiver[0].chunks(),
             (QList<QByteArray>{SerialFrames::frame(MessageType::RotaryStep, id, bytes({1})),
                                SerialFrames::frame(MessageType::RotaryTouch, id, bytes({1})),
                                SerialFrames::frame(MessageType::ButtonState,
                                                    static_cast<uint8_t>(buttonId), bytes({1}))}));
}

// ---------------------------------------------------------------------------------------
// Rotary.

void TestRotaryControl::rotaryShowsTheRingColour()
{
    Rig rig;
    RotaryControl rotary;
    rotary.setType(RotaryBinding::SideRotary);
    attach(rotary, rig, 2, 2);
    QSignalSpy color(&rotary, &RotaryControl::colorChanged);

    rig.fromPlugin(2, message(MessageType::RgbColor, 12, {0x10, 0x20, 0x30, 0}));
    QCOMPARE(rotary.color(), QColor(0x10, 0x20, 0x30));
    QCOMPARE(rotary.color().alpha(), 255);
    QCOMPARE(color.count(), 1);
    // A flashing ring repeats its colours: each one is shown.
    rig.fromPlugin(2, message(MessageType::RgbColor, 12, {0x10, 0x20, 0x30, 0}));
    QCOMPARE(color.count(), 2);
}

void TestRotaryControl::rotaryRotateReportsTheAmountAsAByte()
{
    Rig rig;
    RotaryControl rotary;
    rotary.setType(RotaryBinding::UnderScreen);
    attach(rotary, rig, 0, 3);

    rotary.rotate(-3);
    rotary.rotate(5);
    rotary.rotate(300);  // only the low 8 bits go on the wire

    QCOMPARE(rig.receiver[0].chunks(), (QList<QByteArray>{QByteArray::fromHex("041203fd16"),
                                                          QByteArray::fromHex("041203051e"),
                                                          QByteArray::fromHex("0412032c45")}));
}

void TestRotaryControl::rotaryReportsEveryTouchWrite()
{
    Rig rig;
    RotaryControl rotary;
    rotary.setType(RotaryBinding::SideRotary);
    attach(rotary, rig, 1, 0);
    QSignalSpy touched(&rotary, &RotaryControl::touchedChanged);

    rotary.setTouched(true);
    rotary.setTouched(true);
    rotary.setTouched(false);

    QCOMPARE(touched.count(), 2);
    QCOMPARE(rig.receiver[1].chunks(), (QList<QByteArray>{QByteArray::fromHex("04130a0122"),
                                                          QByteArray::fromHex("04130a0122"),
                                                          QByteArray::fromHex("04130a0021")}));
}

void TestRotaryControl::rotaryReportsPressesFromItsPushSwitch()
{
    Rig rig;
    RotaryControl rotary;
    rotary.setType(RotaryBinding::UnderScreen);
    attach(rotary, rig, 0, 3);
    QSignalSpy pressed(&rotary, &RotaryControl::pressedChanged);

    rotary.setPressed(true);
    rotary.setPressed(true);
    rotary.setPressed(false);

    QCOMPARE(pressed.count(), 2);
    // The push switch of strip rotary 3 is button 24.
    QCOMPARE(rig.receiver[0].chunks(), (QList<QByteArray>{QByteArray::fromHex("0414180131"),
                                                          QByteArray::fromHex("0414180030")}));
}

void TestRotaryControl::inactiveRotarySendsNothing()
{
    Rig rig;
    RotaryControl rotary;
    rotary.setType(RotaryBinding::UnderScreen);
    attach(rotary, rig, 0, 0, false);

    rotary.rotate(1);
    rotary.setTouched(true);
    rotary.setPressed(true);

    QCOMPARE(rig.receiver[0].count(), 0);
    QCOMPARE(rotary.touched(), true);
    QCOMPARE(rotary.pressed(), true);
}

void TestRotaryControl::rotaryLeavesOtherTypesAndDevicesAlone()
{
    Rig rig;
    RotaryControl rotary;
    rotary.setType(RotaryBinding::UnderScreen);
    attach(rotary, rig, 0, 3);

    // Its push switch's id (24) is not its colour id; steps and touches only go out.
    QVERIFY(!rotary.handleSoftwareMessage(0, message(MessageType::RgbColor, 24, {9, 9, 9, 0})));
    QVERIFY(!rotary.handleSoftwareMessage(0, message(MessageType::RotaryStep, 3, {1})));
    QVERIFY(!rotary.handleSoftwareMessage(0, message(MessageType::RotaryTouch, 3, {1})));
    QVERIFY(!rotary.handleSoftwareMessage(0, message(MessageType::ButtonState, 24, {1})));
    QVERIFY(!rotary.handleSoftwareMessage(0, message(MessageType::Led, 3, {1, 0})));
    QCOMPARE(rotary.color(), QColor(Qt::black));
    QCOMPARE(rotary.touched(), false);
    QCOMPARE(rotary.pressed(), false);
}

QTEST_GUILESS_MAIN(TestRotaryControl)
#include "tst_rotarycontrol.moc"
