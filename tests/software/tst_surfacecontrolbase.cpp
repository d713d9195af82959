#include <QtTest>

#include "softwarecontroltest.h"

class TestSurfaceControlBase : public QObject
{
    Q_OBJECT

private slots:
    // The QML face of every control.
    void baseExposesConnectionSectionIndexActiveInOrder();
    void controlsExposeTheirPropertiesSignalsAndInvokablesInOrder_data();
    void controlsExposeTheirPropertiesSignalsAndInvokablesInOrder();

    // Registration with the software controller.
    void settingTheConnectionRegistersTheControl();
    void settingTheConnectionTwiceRegistersTwice();
    void destroyingAControlRemovesEveryRegistration();
    void destroyingASectionControlRemovesEveryRegistration();
    void movingToAnotherControllerLeavesTheOldOne();
    void nullConnectionKeepsTheRegistration();
    void controlWithoutConnectionSendsNothing();

    // Common property rules.
    void sectionIndexAndIndexEmitOnlyOnChange();
    void sectionIndexAndIndexOutsideAByteAreIgnored();
    void activeEmitsOnlyOnChange();
    void controlsIgnoreOtherSections();
    void inactiveControlsIgnoreTheirMessages();

    // Replay on refresh.
    void activationReplaysTheLastMessagesForTheDevice();
    void indexChangeReplaysForTheNewDevice();
    void sectionIndexChangeReplaysFromTheNewSection();
    void typeChangeReplaysForTheNewDevice();
    void eachControlReplaysTheTypesItTakes();
};

// ---------------------------------------------------------------------------------------
// The QML face of every control.

void TestSurfaceControlBase::baseExposesConnectionSectionIndexActiveInOrder()
{
    QCOMPARE(ownProperties(SurfaceControlBase::staticMetaObject),
             (QStringList{"connection:SurfaceConnection*", "sectionIndex:int", "index:int",
                          "active:bool"}));
    QCOMPARE(ownSignals(SurfaceControlBase::staticMetaObject),
             (QStringList{"sectionIndexChanged()", "indexChanged()", "activeChanged()"}));
    const QMetaProperty connection = SurfaceControlBase::staticMetaObject.property(
        SurfaceControlBase::staticMetaObject.indexOfProperty("connection"));
    QVERIFY(!connection.hasNotifySignal());
    QVERIFY(connection.isWritable());
}

void TestSurfaceControlBase::controlsExposeTheirPropertiesSignalsAndInvokablesInOrder_data()
{
    QTest::addColumn<const QMetaObject*>("meta");
    QTest::addColumn<const QMetaObject*>("super");
    QTest::addColumn<QStringList>("properties");
    QTest::addColumn<QStringList>("signalNames");
    QTest::addColumn<QStringList>("invokables");

    const QMetaObject* base = &SurfaceControlBase::staticMetaObject;
    QTest::newRow("ButtonControl")
        << &ButtonControl::staticMetaObject << base
        << QStringList{"type:ButtonBinding::ButtonType", "pressed:bool", "brightness:int"}
        << QStringList{"typeChanged()", "pressedChanged()", "brightnessChanged()"} << QStringList{};
    QTest::newRow("FaderControl") << &FaderControl::staticMetaObject << base
                                  << QStringList{"type:FaderBinding::FaderType", "value:int",
                                                 "touched:bool"}
                                  << QStringList{"typeChanged()", "valueChanged()",
                                                 "touchedChanged()"}
                                  << QStringList{"moveByHand(int)"};
    QTest::newRow("RotaryControl")
        << &RotaryControl::staticMetaObject << base
        << QStringList{"type:RotaryBinding::RotaryType", "touched:bool", "pressed:bool",
                       "color:QColor"}
        << QStringList{"typeChanged()", "touchedChanged()", "pressedChanged()", "colorChanged()"}
        << QStringList{"rotate(int)"};
    QTest::newRow("PotControl") << &PotControl::staticMetaObject << base
                                << QStringList{"type:PotBinding::PotType", "color:QColor",
                                               "position:int"}
                                << QStringList{"typeChanged()", "positionChanged()",
                                               "colorChanged()"}
                                << QStringList{};
    QTest::newRow("RgbLedControl")
        << &RgbLedControl::staticMetaObject << base
        << QStringList{"type:RgbLedBinding::RgbLedType", "color:QColor"}
        << QStringList{"typeChanged()", "colorChanged()"} << QStringList{};
    QTest::newRow("MeterControl") << &MeterControl::staticMetaObject << base
                                  << QStringList{"meterType:MeterBinding::MeterType", "value:int",
                                                 "peak:int"}
                                  << QStringList{"typeChanged()", "valueChanged()", "peakChanged()"}
                                  << QStringList{};
    QTest::newRow("SectionControl")
        << &SectionControl::staticMetaObject
        << &QObject::staticMetaObject
        // The section's own members first, in their order; then the faults it can play.
        << QStringList{"connection:SurfaceConnection*",
                       "sectionIndex:int",
                       "calibrating:bool",
                       "temperature:int",
                       "answering:bool",
                       "plugged:bool",
                       "bootloader:bool",
                       "flashStatus:int",
                       "nakCount:int",
                       "receivedBytes:int",
                       "imageCrc32:QString",
                       "versionMajor:int",
                       "versionMinor:int"}
        << QStringList{"sectionIndexChanged()", "calibratingChanged()",  "temperatureChanged()",
                       "answeringChanged()",    "pluggedChanged()",      "bootloaderChanged()",
                       "flashStatusChanged()",  "nakCountChanged()",     "receivedBytesChanged()",
                       "imageCrc32Changed()",   "versionMajorChanged()", "versionMinorChanged()"}
        << QStringList{"stopCalibration()", "sendRaw(QVariant)", "powerCycle()"};
}

void TestSurfaceControlBase::controlsExposeTheirPropertiesSignalsAndInvokablesInOrder()
{
    QFETCH(const QMetaObject*, meta);
    QFETCH(const QMetaObject*, super);
    QFETCH(QStringList, properties);
    QFETCH(QStringList, signalNames);
    QFETCH(QStringList, invokables);

    QCOMPARE(meta->superClass(), super);
    QCOMPARE(ownProperties(*meta), properties);
    QCOMPARE(ownSignals(*meta), signalNames);
    QCOMPARE(ownInvokables(*meta), invokables);
}

// ---------------------------------------------------------------------------------------
// Registration with the software controller.

void TestSurfaceControlBase::settingTheConnectionRegistersTheControl()
{
    Rig rig;
    ButtonControl button;
    QCOMPARE(rig.controller->handlerCount(), std::size_t(0));

    button.setConnection(&rig.connection);

    QCOMPARE(rig.controller->handlerCount(), std::size_t(1));
    QCOMPARE(button.connection(), &rig.connection);
    button.setType(ButtonBinding::Mute);
    button.setIndex(2);
    button.setActive(true);
    rig.fromPlugin(0, message(MessageType::Led, 2, {90, 0}));
    QCOMPARE(button.brightness(), 90);
}

void TestSurfaceControlBase::settingTheConnectionTwiceRegistersTwice()
{
    Rig rig;
    PotControl pot;
    pot.setType(PotBinding::Headphone);
    pot.setPosition(300);
    attach(pot, rig, 1, 0);
    pot.setConnection(&rig.connection);
    QCOMPARE(rig.controller->handlerCount(), std::size_t(2));

    // The value request is not taken, so it is offered to both registrations: two answers.
    rig.fromPlugin(1, message(MessageType::PotValue, 0));

    const QByteArray answer = QByteArray::fromHex("051100012c43");
    QCOMPARE(rig.receiver[1].chunks(), (QList<QByteArray>{answer, answer}));
}

void TestSurfaceControlBase::destroyingAControlRemovesEveryRegistration()
{
    Rig rig;
    FakeSoftwareHandler after;
    auto* button = new ButtonControl;
    button->setType(ButtonBinding::Mute);
    attach(*button, rig, 0, 4);
    button->setConnection(&rig.connection);
    rig.controller->addSoftwareHandler(&after);
    QCOMPARE(rig.controller->handlerCount(), std::size_t(3));

    delete button;

    QCOMPARE(rig.controller->handlerCount(), std::size_t(1));
    // The plugin's LED level for the gone button now reaches the next control, and nothing
    // touches the destroyed object.
    rig.fromPlugin(0, message(MessageType::Led, 4, {10, 0}));
    QCOMPARE(after.offerCount(), 1);
    rig.controller->removeSoftwareHandler(&after);
}

void TestSurfaceControlBase::destroyingASectionControlRemovesEveryRegistration()
{
    Rig rig;
    auto* section = new SectionControl;
    section->setConnection(&rig.connection);
    section->setConnection(&rig.connection);
    section->setTemperature(40);
    QCOMPARE(rig.controller->handlerCount(), std::size_t(2));

    delete section;

    QCOMPARE(rig.controller->handlerCount(), std::size_t(0));
    rig.fromPlugin(0, message(MessageType::Ping, 0));
    // The controller answers for the section again.
    QCOMPARE(rig.receiver[0].chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a223769")});
}

void TestSurfaceControlBase::movingToAnotherControllerLeavesTheOldOne()
{
    Rig first;
    Rig second;
    ButtonControl button;
    button.setType(ButtonBinding::Solo);
    attach(button, first, 0, 1);

    button.setConnection(&second.connection);

    QCOMPARE(first.controller->handlerCount(), std::size_t(0));
    QCOMPARE(second.controller->handlerCount(), std::size_t(1));
    first.fromPlugin(0, message(MessageType::Led, 11, {50, 0}));
    QCOMPARE(button.brightness(), 0);
    second.fromPlugin(0, message(MessageType::Led, 11, {60, 0}));
    QCOMPARE(button.brightness(), 60);
    button.setPressed(true);
    QCOMPARE(first.receiver[0].count(), 0);
    QCOMPARE(second.receiver[0].chunks(), QList<QByteArray>{QByteArray::fromHex("04140b0124")});
}

void TestSurfaceControlBase::nullConnectionKeepsTheRegistration()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 0, 2);

    fader.setConnection(nullptr);

    QCOMPARE(fader.connection(), static_cast<SurfaceConnection*>(nullptr));
    QCOMPARE(rig.controller->handlerCount(), std::size_t(1));
    rig.fromPlugin(0, message(MessageType::FaderPosition, 2, {0, 77}));
    QCOMPARE(fader.value(), 77);
}

void TestSurfaceControlBase::controlWithoutConnectionSendsNothing()
{
    ButtonControl button;
    button.setType(ButtonBinding::Mute);
    button.setActive(true);
    QSignalSpy pressed(&button, &ButtonControl::pressedChanged);

    button.setPressed(true);  // nowhere to send it: stored and announced only

    QCOMPARE(button.pressed(), true);
    QCOMPARE(pressed.count(), 1);
}

// ---------------------------------------------------------------------------------------
// Common property rules.

void TestSurfaceControlBase::sectionIndexAndIndexEmitOnlyOnChange()
{
    RgbLedControl led;
    QSignalSpy section(&led, &SurfaceControlBase::sectionIndexChanged);
    QSignalSpy index(&led, &SurfaceControlBase::indexChanged);
    QCOMPARE(led.sectionIndex(), 0);
    QCOMPARE(led.index(), 0);

    led.setSectionIndex(0);
    led.setIndex(0);
    QCOMPARE(section.count(), 0);
    QCOMPARE(index.count(), 0);

    led.setSectionIndex(2);
    led.setSectionIndex(2);
    led.setIndex(7);
    led.setIndex(7);
    QCOMPARE(section.count(), 1);
    QCOMPARE(index.count(), 1);
    QCOMPARE(led.sectionIndex(), 2);
    QCOMPARE(led.index(), 7);
}

void TestSurfaceControlBase::sectionIndexAndIndexOutsideAByteAreIgnored()
{
    ButtonControl button;
    button.setSectionIndex(1);
    button.setIndex(3);
    QSignalSpy section(&button, &SurfaceControlBase::sectionIndexChanged);
    QSignalSpy index(&button, &SurfaceControlBase::indexChanged);

    button.setSectionIndex(256);
    button.setSectionIndex(-1);
    button.setIndex(256);
    button.setIndex(-1);

    QCOMPARE(section.count(), 0);
    QCOMPARE(index.count(), 0);
    QCOMPARE(button.sectionIndex(), 1);
    QCOMPARE(button.index(), 3);
    button.setIndex(255);
    QCOMPARE(button.index(), 255);
}

void TestSurfaceControlBase::activeEmitsOnlyOnChange()
{
    Rig rig;
    FaderControl fader;
    fader.setConnection(&rig.connection);
    QSignalSpy active(&fader, &SurfaceControlBase::activeChanged);
    QCOMPARE(fader.active(), false);

    fader.setActive(false);
    QCOMPARE(active.count(), 0);
    fader.setActive(true);
    fader.setActive(true);
    QCOMPARE(active.count(), 1);
    fader.setActive(false);
    QCOMPARE(active.count(), 2);
}

void TestSurfaceControlBase::controlsIgnoreOtherSections()
{
    Rig rig;
    ButtonControl button;
    button.setType(ButtonBinding::Mute);
    attach(button, rig, 1, 5);
    MeterControl meter;
    meter.setMeterType(MeterBinding::MasterLeft);
    attach(meter, rig, 1, 0);

    QVERIFY(!button.handleSoftwareMessage(0, message(MessageType::Led, 5, {1, 0})));
    QVERIFY(!button.handleSoftwareMessage(2, message(MessageType::Led, 5, {1, 0})));
    QVERIFY(!meter.handleSoftwareMessage(0, message(MessageType::MeterLevel, 0, {9})));
    QCOMPARE(button.brightness(), 0);
    QCOMPARE(meter.value(), 0);
    QVERIFY(button.handleSoftwareMessage(1, message(MessageType::Led, 5, {1, 0})));
    QVERIFY(meter.handleSoftwareMessage(1, message(MessageType::MeterLevel, 0, {9})));
}

void TestSurfaceControlBase::inactiveControlsIgnoreTheirMessages()
{
    Rig rig;
    ButtonControl button;
    button.setType(ButtonBinding::Mute);
    attach(button, rig, 0, 1, false);
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 0, 1, false);
    RotaryControl rotary;
    rotary.setType(RotaryBinding::UnderScreen);
    attach(rotary, rig, 0, 1, false);
    PotControl pot;
    pot.setType(PotBinding::Headphone);
    attach(pot, rig, 0, 0, false);
    RgbLedControl led;
    led.setType(RgbLedBinding::NameLogo);
    attach(led, rig, 0, 0, false);

    QVERIFY(!button.handleSoftwareMessage(0, message(MessageType::Led, 1, {1, 0})));
    QVERIFY(!fader.handleSoftwareMessage(0, message(MessageType::FaderPosition, 1, {0, 5})));
    QVERIFY(!fader.handleSoftwareMessage(0, message(MessageType::FaderDetent, 1, {0, 5})));
    QVERIFY(!rotary.handleSoftwareMessage(0, message(MessageType::RgbColor, 1, {1, 2, 3, 0})));
    QVERIFY(!pot.handleSoftwareMessage(0, message(MessageType::RgbColor, 18, {1, 2, 3, 0})));
    QVERIFY(!led.handleSoftwareMessage(0, message(MessageType::RgbColor, 16, {1, 2, 3, 0})));
    QCOMPARE(button.brightness(), 0);
    QCOMPARE(fader.value(), 0);
    QCOMPARE(rotary.color(), QColor(Qt::black));
    QCOMPARE(pot.color(), QColor(Qt::black));
    QCOMPARE(led.color(), QColor(Qt::black));
}

// ---------------------------------------------------------------------------------------
// Replay on refresh.

void TestSurfaceControlBase::activationReplaysTheLastMessagesForTheDevice()
{
    Rig rig;
    // The plugin spoke before the page created its controls.
    rig.fromPlugin(0, message(MessageType::Led, 5, {10, 0}));
    rig.fromPlugin(0, message(MessageType::Led, 5, {180, 0}));
    rig.fromPlugin(0, message(MessageType::Led, 6, {99, 0}));
    ButtonControl button;
    button.setType(ButtonBinding::Mute);
    attach(button, rig, 0, 5, false);
    QCOMPARE(button.brightness(), 0);

    button.setActive(true);

    QCOMPARE(button.brightness(), 180);
}

void TestSurfaceControlBase::indexChangeReplaysForTheNewDevice()
{
    Rig rig;
    rig.fromPlugin(1, message(MessageType::FaderPosition, 2, {0, 20}));
    rig.fromPlugin(1, message(MessageType::FaderPosition, 3, {0, 30}));
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 1, 2);
    QCOMPARE(fader.value(), 20);
    QSignalSpy index(&fader, &SurfaceControlBase::indexChanged);

    fader.setIndex(3);

    QCOMPARE(index.count(), 1);
    QCOMPARE(fader.value(), 30);
}

void TestSurfaceControlBase::sectionIndexChangeReplaysFromTheNewSection()
{
    Rig rig;
    rig.fromPlugin(0, message(MessageType::RgbColor, 16, {1, 0, 0, 0}));
    rig.fromPlugin(2, message(MessageType::RgbColor, 16, {0, 0, 2, 0}));
    RgbLedControl led;
    led.setType(RgbLedBinding::NameLogo);
    attach(led, rig, 0, 0);
    QCOMPARE(led.color(), QColor(1, 0, 0));

    led.setSectionIndex(2);

    QCOMPARE(led.color(), QColor(0, 0, 2));
}

void TestSurfaceControlBase::typeChangeReplaysForTheNewDevice()
{
    Rig rig;
    rig.fromPlugin(1, message(MessageType::MeterLevel, 1, {40}));
    MeterControl meter;
    attach(meter, rig, 1, 0);
    QCOMPARE(meter.value(), 0);
    QSignalSpy type(&meter, &MeterControl::typeChanged);

    meter.setMeterType(MeterBinding::MasterRight);
    meter.setMeterType(MeterBinding::MasterRight);

    QCOMPARE(type.count(), 1);
    QCOMPARE(meter.value(), 40);
}

void TestSurfaceControlBase::eachControlReplaysTheTypesItTakes()
{
    RecordingSoftwareController controller;
    auto shared = std::shared_ptr<RecordingSoftwareController>(&controller, [](auto*) {});
    SurfaceConnection connection(shared, nullptr);
    auto replays = [&] {
        QStringList list;
        for (const auto& r : controller.replays) {
            list << QStringLiteral("%1/%2/%3").arg(r.sectionIndex).arg(r.type).arg(r.deviceId);
        }
        controller.replays.clear();
        return list;
    };
    auto prepare = [&](SurfaceControlBase& control) {
        control.setConnection(&connection);
        control.setSectionIndex(1);
        control.setIndex(3);
        controller.replays.clear();
    };

    ButtonControl button;
    button.setType(ButtonBinding::Solo);
    prepare(button);
    button.setActive(true);
    QCOMPARE(replays(), QStringList{"1/11/13"});

    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    prepare(fader);
    fader.setActive(true);
    QCOMPARE(replays(), QStringList{"1/7/3"});

    RotaryControl rotary;
    rotary.setType(RotaryBinding::SideRotary);
    prepare(rotary);
    rotary.setActive(true);
    QCOMPARE(replays(), QStringList{"1/12/13"});

    PotControl pot;
    pot.setType(PotBinding::Headphone);
    prepare(pot);
    pot.setActive(true);
    QCOMPARE(replays(), QStringList{"1/12/18"});

    RgbLedControl led;
    led.setType(RgbLedBinding::SideRotaryButton);
    prepare(led);
    led.setActive(true);
    QCOMPARE(replays(), QStringList{"1/12/13"});

    MeterControl meter;
    meter.setMeterType(MeterBinding::MasterRight);
    prepare(meter);
    meter.setActive(true);
    QCOMPARE(replays(), (QStringList{"1/13/1", "1/14/1"}));

    // Deactivation replays nothing; the next index change does, for the new device.
    button.setActive(false);
    QCOMPARE(replays(), QStringList{});
    button.setIndex(4);
    QCOMPARE(replays(), QStringList{"1/11/14"});
    QCOMPARE(controller.handlers.size(), std::size_t(6));
}

QTEST_GUILESS_MAIN(TestSurfaceControlBase)
#include "tst_surfacecontrolbase.moc"
