#include <QtTest>

#include "softwarecontroltest.h"

class TestButtonControl : public QObject
{
    Q_OBJECT

private slots:
    // Device ids.
    void buttonDeviceIdFollowsTypeAndIndex_data();
    void buttonDeviceIdFollowsTypeAndIndex();

    // Button.
    void buttonShowsTheLedLevelAsBrightness();
    void buttonAnnouncesEveryLevelEvenARepeatedOne();
    void buttonReportsPressAndRelease();
    void buttonRepeatingItsStateSendsNothing();
    void inactiveButtonDoesNotSendWhenPressed();
    void masterSoloButtonNeverTakesLedLevelsForARealDevice();
    void masterSoloButtonSendsItsPressesToDevice255();
    void buttonLeavesOtherMessageTypesAlone();
};

// ---------------------------------------------------------------------------------------
// Device ids.

void TestButtonControl::buttonDeviceIdFollowsTypeAndIndex_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("deviceId");
    for (int type = 0; type <= 12; ++type) {
        for (int index : kIndices) {
            QTest::addRow("type %d index %d", type, index)
                << type << index << expectedButtonId(type, index);
        }
    }
}

void TestButtonControl::buttonDeviceIdFollowsTypeAndIndex()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, deviceId);
    Rig rig;
    ButtonControl button;
    button.setType(static_cast<ButtonBinding::ButtonType>(type));
    attach(button, rig, 1, index);

    QCOMPARE(int(button.deviceId()), deviceId);
    QVERIFY(button.handleSoftwareMessage(
        1, message(MessageType::Led, static_cast<uint8_t>(deviceId), {123, 0})));
    QCOMPARE(button.brightness(), 123);
    QVERIFY(!button.handleSoftwareMessage(
        1, message(MessageType::Led, static_cast<uint8_t>(deviceId + 1), {1, 0})));
    button.setPressed(true);
    QCOMPARE(rig.receiver[1].chunks(),
             QList<QByteArray>{SerialFrames::frame(MessageType::ButtonState,
                                                   static_cast<uint8_t>(deviceId), bytes({1}))});
}

// ---------------------------------------------------------------------------------------
// Button.

void TestButtonControl::buttonShowsTheLedLevelAsBrightness()
{
    Rig rig;
    ButtonControl button;
    button.setType(ButtonBinding::Solo);
    attach(button, rig, 0, 3);
    QSignalSpy brightness(&button, &ButtonControl::brightnessChanged);
    FakeSoftwareHandler after;
    after.takeAll(true);
    rig.controller->addSoftwareHandler(&after);

    rig.fromPlugin(0, message(MessageType::Led, 13, {200, 0}));

    QCOMPARE(button.brightness(), 200);
    QCOMPARE(brightness.count(), 1);
    QCOMPARE(after.offerCount(), 0);  // taken
    rig.fromPlugin(0, message(MessageType::Led, 13, {0, 0}));
    QCOMPARE(button.brightness(), 0);
    QCOMPARE(brightness.count(), 2);
    rig.controller->removeSoftwareHandler(&after);
}

void TestButtonControl::buttonAnnouncesEveryLevelEvenARepeatedOne()
{
    Rig rig;
    ButtonControl button;
    button.setType(ButtonBinding::Mute);
    attach(button, rig, 0, 0);
    QSignalSpy brightness(&button, &ButtonControl::brightnessChanged);

    rig.fromPlugin(0, message(MessageType::Led, 0, {255, 0}));
    rig.fromPlugin(0, message(MessageType::Led, 0, {255, 0}));

    QCOMPARE(brightness.count(), 2);
    QCOMPARE(button.brightness(), 255);
}

void TestButtonControl::buttonReportsPressAndRelease()
{
    Rig rig;
    ButtonControl button;
    button.setType(ButtonBinding::Mute);
    attach(button, rig, 2, 3);
    QSignalSpy pressed(&button, &ButtonControl::pressedChanged);

    button.setPressed(true);
    button.setPressed(false);

    QCOMPARE(pressed.count(), 2);
    QCOMPARE(rig.receiver[2].chunks(), (QList<QByteArray>{QByteArray::fromHex("041403011c"),
                                                          QByteArray::fromHex("041403001b")}));
    QCOMPARE(rig.receiver[0].count(), 0);
    QCOMPARE(rig.receiver[1].count(), 0);
}

void TestButtonControl::buttonRepeatingItsStateSendsNothing()
{
    Rig rig;
    ButtonControl button;
    button.setType(ButtonBinding::LayerUp);
    attach(button, rig, 1, 0);
    QSignalSpy pressed(&button, &ButtonControl::pressedChanged);

    button.setPressed(false);
    QCOMPARE(rig.receiver[1].count(), 0);
    button.setPressed(true);
    button.setPressed(true);

    QCOMPARE(pressed.count(), 1);
    QCOMPARE(rig.receiver[1].chunks(), QList<QByteArray>{QByteArray::fromHex("0414280141")});
}

void TestButtonControl::inactiveButtonDoesNotSendWhenPressed()
{
    Rig rig;
    ButtonControl button;
    button.setType(ButtonBinding::Mute);
    attach(button, rig, 0, 3, false);
    QSignalSpy pressed(&button, &ButtonControl::pressedChanged);

    button.setPressed(true);

    QCOMPARE(rig.receiver[0].count(), 0);
    // The widget's state is still kept and announced.
    QCOMPARE(button.pressed(), true);
    QCOMPARE(pressed.count(), 1);

    button.setActive(true);
    button.setPressed(false);
    QCOMPARE(rig.receiver[0].chunks(), QList<QByteArray>{QByteArray::fromHex("041403001b")});
}

void TestButtonControl::masterSoloButtonNeverTakesLedLevelsForARealDevice()
{
    Rig rig;
    ButtonControl button;
    button.setType(ButtonBinding::MasterSolo);
    attach(button, rig, 1, 0);
    QSignalSpy brightness(&button, &ButtonControl::brightnessChanged);

    for (int device = 0; device < 255; ++device) {
        QVERIFY(!button.handleSoftwareMessage(
            1, message(MessageType::Led, static_cast<uint8_t>(device), {200, 0})));
    }

    QCOMPARE(brightness.count(), 0);
    QCOMPARE(button.brightness(), 0);
    QCOMPARE(int(button.deviceId()), 255);
}

void TestButtonControl::masterSoloButtonSendsItsPressesToDevice255()
{
    Rig rig;
    ButtonControl button;
    button.setType(ButtonBinding::MasterSolo);
    attach(button, rig, 1, 0);

    button.setPressed(true);
    button.setPressed(false);

    QCOMPARE(rig.receiver[1].chunks(), (QList<QByteArray>{QByteArray::fromHex("0414ff0118"),
                                                          QByteArray::fromHex("0414ff0017")}));
}

void TestButtonControl::buttonLeavesOtherMessageTypesAlone()
{
    Rig rig;
    ButtonControl button;
    button.setType(ButtonBinding::Mute);
    attach(button, rig, 0, 6);

    for (int type = 0; type < 23; ++type) {
        if (type == MessageType::Led) {
            continue;
        }
        QVERIFY2(!button.handleSoftwareMessage(
                     0, message(static_cast<uint8_t>(type), 6, {77, 77, 77, 77})),
                 qPrintable(QString::number(type)));
    }
    QCOMPARE(button.brightness(), 0);
}

QTEST_GUILESS_MAIN(TestButtonControl)
#include "tst_buttoncontrol.moc"
