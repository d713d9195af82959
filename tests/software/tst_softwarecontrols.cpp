#include <QtTest>
#include <memory>
#include <vector>

#include "bindings/surfaceconnection.h"
#include "serial/serialmessage.h"
#include "software/buttoncontrol.h"
#include "software/fadercontrol.h"
#include "software/metercontrol.h"
#include "software/potcontrol.h"
#include "software/qmlcontrollerconnection.h"
#include "software/rgbledcontrol.h"
#include "software/rotarycontrol.h"
#include "software/sectioncontrol.h"
#include "software/surfacecontrolbase.h"
#include "support/fakesoftwarehandler.h"
#include "support/recordingdatareceiver.h"
#include "support/recordingsoftwarecontroller.h"
#include "support/serialframes.h"

using namespace Velmora::Worksurface;

Q_DECLARE_METATYPE(const QMetaObject*)

namespace {

constexpr int kSections = 3;

SerialMessage message(uint8_t type, uint8_t deviceId, std::vector<uint8_t> payload = {})
{
    return SerialMessage(type, deviceId, std::move(payload));
}

QByteArray bytes(std::initializer_list<uint8_t> values)
{
    QByteArray result;
    for (uint8_t value : values) {
        result.append(static_cast<char>(value));
    }
    return result;
}

// The plugin's side of a software surface: the real controller with a recording receiver
// per section standing where each section connection would parse the controls' frames.
struct Rig
{
    std::shared_ptr<QmlControllerConnection> controller =
        std::make_shared<QmlControllerConnection>();
    SurfaceConnection connection{controller, nullptr};
    RecordingDataReceiver receiver[kSections];

    Rig()
    {
        for (int s = 0; s < kSections; ++s) {
            controller->setDataReceiver(static_cast<uint8_t>(s), &receiver[s]);
        }
    }

    void fromPlugin(uint8_t section, const SerialMessage& m)
    {
        controller->messageFromPlugin(section, m);
    }

    void clearReceivers()
    {
        for (auto& r : receiver) {
            r.clear();
        }
    }
};

// The common wiring a QML page gives a control.
void attach(SurfaceControlBase& control, Rig& rig, int section, int index, bool active = true)
{
    control.setConnection(&rig.connection);
    control.setSectionIndex(section);
    control.setIndex(index);
    control.setActive(active);
}

QStringList ownProperties(const QMetaObject& meta)
{
    QStringList names;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        names << QString::fromLatin1(meta.property(i).name()) + QLatin1Char(':') +
                     QString::fromLatin1(meta.property(i).typeName());
    }
    return names;
}

QStringList ownSignals(const QMetaObject& meta)
{
    QStringList names;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        if (meta.method(i).methodType() == QMetaMethod::Signal) {
            names << QString::fromLatin1(meta.method(i).methodSignature());
        }
    }
    return names;
}

QStringList ownInvokables(const QMetaObject& meta)
{
    QStringList names;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        if (meta.method(i).methodType() == QMetaMethod::Method) {
            names << QString::fromLatin1(meta.method(i).methodSignature());
        }
    }
    return names;
}

// The device-id rules of the software controls, written out here from the console's
// numbering so the controls are checked against more than the table they use.
int expectedButtonId(int type, int i)
{
    switch (type) {
        case 1:
            return i < 10 ? i : 255;
        case 2:
            return i < 10 ? i + 10 : 255;
        case 3:
            return 20;
        case 5:
            return 39;
        case 6:
            return 38;
        case 7:
            return 40;
        case 8:
            return 42;
        case 9:
            return 37;
        case 10:
            return 41;
        case 11:
            return i < 10 ? i + 21 : 255;
        case 12:
            return i < 6 ? i + 31 : 255;
        default:  // None, MasterSolo
            return 255;
    }
}

int expectedFaderId(int type, int i)
{
    if (type == 1) {
        return i < 10 ? i : 255;
    }
    return type == 2 ? 10 : 255;
}

int expectedRotaryId(int type, int i)
{
    if (type == 1) {
        return i < 10 ? i : 255;
    }
    if (type == 2) {
        return i < 6 ? i + 10 : 255;
    }
    return 255;
}

int expectedRotaryButtonId(int type, int i)
{
    if (type == 1) {
        return i < 10 ? i + 21 : 255;
    }
    if (type == 2) {
        return i < 6 ? i + 31 : 255;
    }
    return 255;
}

int expectedRgbLedId(int type, int i)
{
    if (type == 1) {
        return i < 10 ? i : 255;
    }
    if (type == 2) {
        return i < 6 ? i + 10 : 255;
    }
    if (type >= 3 && type <= 8) {
        return 13 + type;  // logos 16..21
    }
    return 255;
}

const int kIndices[] = {0, 1, 3, 5, 6, 9, 10, 12, 255};

}  // namespace

class TestSoftwareControls : public QObject
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

    // Device ids.
    void buttonDeviceIdFollowsTypeAndIndex_data();
    void buttonDeviceIdFollowsTypeAndIndex();
    void faderDeviceIdFollowsTypeAndIndex_data();
    void faderDeviceIdFollowsTypeAndIndex();
    void rotaryDeviceIdsFollowTypeAndIndex_data();
    void rotaryDeviceIdsFollowTypeAndIndex();
    void potDeviceIdFollowsTypeOnly_data();
    void potDeviceIdFollowsTypeOnly();
    void rgbLedDeviceIdFollowsTypeAndIndex_data();
    void rgbLedDeviceIdFollowsTypeAndIndex();
    void meterDeviceIdFollowsTypeOnly_data();
    void meterDeviceIdFollowsTypeOnly();

    // Button.
    void buttonShowsTheLedLevelAsBrightness();
    void buttonAnnouncesEveryLevelEvenARepeatedOne();
    void buttonReportsPressAndRelease();
    void buttonRepeatingItsStateSendsNothing();
    void inactiveButtonDoesNotSendWhenPressed();
    void masterSoloButtonNeverTakesLedLevelsForARealDevice();
    void masterSoloButtonSendsItsPressesToDevice255();
    void buttonLeavesOtherMessageTypesAlone();

    // Fader.
    void faderTakesThePositionBigEndian();
    void faderKeepsItsValueOnAShortPosition();
    void faderTakesBackstopAndDetentWithoutEffect();
    void faderTakesTouchFromThePluginWithoutReportingIt();
    void faderReportsEveryTouchWrite();
    void inactiveFaderDoesNotReportTouches();
    void faderOfIndex12HasNoDeviceAndTakesOnlyDevice255();
    void faderMoveByHandStoresAndReportsThePosition();
    void faderMoveByHandClampsTo0Through511();
    void inactiveFaderMoveByHandStoresButDoesNotReport();
    void faderDeactivationResetsTheValueToZero();

    // Rotary.
    void rotaryShowsTheRingColour();
    void rotaryRotateReportsTheAmountAsAByte();
    void rotaryReportsEveryTouchWrite();
    void rotaryReportsPressesFromItsPushSwitch();
    void inactiveRotarySendsNothing();
    void rotaryLeavesOtherTypesAndDevicesAlone();

    // Pot.
    void potPositionOf600IsStoredAndSentAs511();
    void potPositionEqualToTheStoredOneDoesNothing();
    void potComparesBeforeClamping();
    void potClampsNegativePositionsToZero();
    void potAnswersTheValueRequestAndLeavesItToOthers();
    void inactivePotNeitherAnswersNorReports();
    void potShowsTheHeadphoneLightColour();
    void potWithoutTypeReportsFromDevice255();

    // RGB LED.
    void rgbLedShowsTheColourOpaque();
    void rgbLedLeavesOtherDevicesAlone();

    // Meter.
    void meterShowsLevelAndPeak();
    void meterAnnouncesOnlyChanges();
    void inactiveMeterTakesLevelMessagesButHoldsZero();
    void meterDeactivationResetsPeakAndValueWithTheirSignals();

    // Replay on refresh.
    void activationReplaysTheLastMessagesForTheDevice();
    void indexChangeReplaysForTheNewDevice();
    void sectionIndexChangeReplaysFromTheNewSection();
    void typeChangeReplaysForTheNewDevice();
    void eachControlReplaysTheTypesItTakes();

    // Section.
    void sectionControlAnswersPingWithItsTemperature();
    void pingWithoutSectionControlIsAnsweredWith55PlusIndex();
    void sectionControlOfAnotherSectionLeavesThePingToTheController();
    void sectionControlTakesOnlyDevice0();
    void sectionControlStartsCalibrationOnThePluginsRequest();
    void sectionControlStopCalibrationReportsDone();
    void sectionControlSectionIndexAndTemperatureEmitOnlyOnChange();
    void sectionControlClampsTheTemperatureOnTheWire();
};

// ---------------------------------------------------------------------------------------
// The QML face of every control.

void TestSoftwareControls::baseExposesConnectionSectionIndexActiveInOrder()
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

void TestSoftwareControls::controlsExposeTheirPropertiesSignalsAndInvokablesInOrder_data()
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
        << &SectionControl::staticMetaObject << &QObject::staticMetaObject
        << QStringList{"connection:SurfaceConnection*", "sectionIndex:int", "calibrating:bool",
                       "temperature:int"}
        << QStringList{"sectionIndexChanged()", "calibratingChanged()", "temperatureChanged()"}
        << QStringList{"stopCalibration()"};
}

void TestSoftwareControls::controlsExposeTheirPropertiesSignalsAndInvokablesInOrder()
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

void TestSoftwareControls::settingTheConnectionRegistersTheControl()
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

void TestSoftwareControls::settingTheConnectionTwiceRegistersTwice()
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

void TestSoftwareControls::destroyingAControlRemovesEveryRegistration()
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

void TestSoftwareControls::destroyingASectionControlRemovesEveryRegistration()
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

void TestSoftwareControls::movingToAnotherControllerLeavesTheOldOne()
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

void TestSoftwareControls::nullConnectionKeepsTheRegistration()
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

void TestSoftwareControls::controlWithoutConnectionSendsNothing()
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

void TestSoftwareControls::sectionIndexAndIndexEmitOnlyOnChange()
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

void TestSoftwareControls::sectionIndexAndIndexOutsideAByteAreIgnored()
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

void TestSoftwareControls::activeEmitsOnlyOnChange()
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

void TestSoftwareControls::controlsIgnoreOtherSections()
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

void TestSoftwareControls::inactiveControlsIgnoreTheirMessages()
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
// Device ids.

void TestSoftwareControls::buttonDeviceIdFollowsTypeAndIndex_data()
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

void TestSoftwareControls::buttonDeviceIdFollowsTypeAndIndex()
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

void TestSoftwareControls::faderDeviceIdFollowsTypeAndIndex_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("deviceId");
    for (int type = 0; type <= 2; ++type) {
        for (int index : kIndices) {
            QTest::addRow("type %d index %d", type, index)
                << type << index << expectedFaderId(type, index);
        }
    }
}

void TestSoftwareControls::faderDeviceIdFollowsTypeAndIndex()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, deviceId);
    Rig rig;
    FaderControl fader;
    fader.setType(static_cast<FaderBinding::FaderType>(type));
    attach(fader, rig, 2, index);

    QCOMPARE(int(fader.deviceId()), deviceId);
    QVERIFY(fader.handleSoftwareMessage(
        2, message(MessageType::FaderPosition, static_cast<uint8_t>(deviceId), {1, 2})));
    QCOMPARE(fader.value(), 258);
    QVERIFY(!fader.handleSoftwareMessage(
        2, message(MessageType::FaderPosition, static_cast<uint8_t>(deviceId + 1), {0, 1})));
    fader.setTouched(true);
    QCOMPARE(rig.receiver[2].chunks(),
             QList<QByteArray>{SerialFrames::frame(MessageType::FaderTouch,
                                                   static_cast<uint8_t>(deviceId), bytes({1}))});
}

void TestSoftwareControls::rotaryDeviceIdsFollowTypeAndIndex_data()
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

void TestSoftwareControls::rotaryDeviceIdsFollowTypeAndIndex()
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

void TestSoftwareControls::potDeviceIdFollowsTypeOnly_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("deviceId");
    for (int index : kIndices) {
        QTest::addRow("None index %d", index) << 0 << index << 255;
        QTest::addRow("Headphone index %d", index) << 1 << index << 0;
    }
}

void TestSoftwareControls::potDeviceIdFollowsTypeOnly()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, deviceId);
    Rig rig;
    PotControl pot;
    pot.setType(static_cast<PotBinding::PotType>(type));
    attach(pot, rig, 2, index);

    QCOMPARE(int(pot.deviceId()), deviceId);
    pot.setPosition(2);
    QCOMPARE(rig.receiver[2].chunks(),
             QList<QByteArray>{SerialFrames::frame(MessageType::PotValue,
                                                   static_cast<uint8_t>(deviceId), bytes({0, 2}))});
}

void TestSoftwareControls::rgbLedDeviceIdFollowsTypeAndIndex_data()
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

void TestSoftwareControls::rgbLedDeviceIdFollowsTypeAndIndex()
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

void TestSoftwareControls::meterDeviceIdFollowsTypeOnly_data()
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

void TestSoftwareControls::meterDeviceIdFollowsTypeOnly()
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
// Button.

void TestSoftwareControls::buttonShowsTheLedLevelAsBrightness()
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

void TestSoftwareControls::buttonAnnouncesEveryLevelEvenARepeatedOne()
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

void TestSoftwareControls::buttonReportsPressAndRelease()
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

void TestSoftwareControls::buttonRepeatingItsStateSendsNothing()
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

void TestSoftwareControls::inactiveButtonDoesNotSendWhenPressed()
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

void TestSoftwareControls::masterSoloButtonNeverTakesLedLevelsForARealDevice()
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

void TestSoftwareControls::masterSoloButtonSendsItsPressesToDevice255()
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

void TestSoftwareControls::buttonLeavesOtherMessageTypesAlone()
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

// ---------------------------------------------------------------------------------------
// Fader.

void TestSoftwareControls::faderTakesThePositionBigEndian()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 1, 4);
    QSignalSpy value(&fader, &FaderControl::valueChanged);

    rig.fromPlugin(1, message(MessageType::FaderPosition, 4, {0x01, 0x2C}));
    QCOMPARE(fader.value(), 300);
    QCOMPARE(value.count(), 1);

    rig.fromPlugin(1, message(MessageType::FaderPosition, 4, {0x01, 0x2C}));
    QCOMPARE(value.count(), 1);  // the same position announces nothing
    QVERIFY(rig.receiver[1].chunks().isEmpty());
}

void TestSoftwareControls::faderKeepsItsValueOnAShortPosition()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::MasterFader);
    attach(fader, rig, 2, 0);
    rig.fromPlugin(2, message(MessageType::FaderPosition, 10, {0x00, 0x80}));
    QSignalSpy value(&fader, &FaderControl::valueChanged);

    QVERIFY(fader.handleSoftwareMessage(2, message(MessageType::FaderPosition, 10, {0x01})));
    QVERIFY(fader.handleSoftwareMessage(2, message(MessageType::FaderPosition, 10)));

    QCOMPARE(fader.value(), 128);
    QCOMPARE(value.count(), 0);
}

void TestSoftwareControls::faderTakesBackstopAndDetentWithoutEffect()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 0, 9);
    QSignalSpy value(&fader, &FaderControl::valueChanged);
    QSignalSpy touched(&fader, &FaderControl::touchedChanged);

    QVERIFY(fader.handleSoftwareMessage(0, message(MessageType::FaderBackstop, 9, {0x01, 0x00})));
    QVERIFY(fader.handleSoftwareMessage(0, message(MessageType::FaderDetent, 9, {0x01, 0x40})));
    QVERIFY(!fader.handleSoftwareMessage(0, message(MessageType::FaderDriveMode, 9, {1})));
    QVERIFY(!fader.handleSoftwareMessage(0, message(MessageType::Led, 9, {1, 0})));

    QCOMPARE(fader.value(), 0);
    QCOMPARE(value.count(), 0);
    QCOMPARE(touched.count(), 0);
}

void TestSoftwareControls::faderTakesTouchFromThePluginWithoutReportingIt()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 0, 1);
    QSignalSpy touched(&fader, &FaderControl::touchedChanged);

    QVERIFY(fader.handleSoftwareMessage(0, message(MessageType::FaderTouch, 1, {1})));
    QVERIFY(fader.handleSoftwareMessage(0, message(MessageType::FaderTouch, 1, {7})));
    QCOMPARE(fader.touched(), true);
    QCOMPARE(touched.count(), 1);
    QVERIFY(fader.handleSoftwareMessage(0, message(MessageType::FaderTouch, 1, {0})));
    QCOMPARE(fader.touched(), false);
    QCOMPARE(touched.count(), 2);
    QCOMPARE(rig.receiver[0].count(), 0);
}

void TestSoftwareControls::faderReportsEveryTouchWrite()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 1, 2);
    QSignalSpy touched(&fader, &FaderControl::touchedChanged);

    fader.setTouched(true);
    fader.setTouched(true);
    fader.setTouched(false);

    QCOMPARE(touched.count(), 2);
    const QByteArray on = QByteArray::fromHex(
        "04100201"
        "17");
    const QByteArray off = QByteArray::fromHex(
        "04100200"
        "16");
    QCOMPARE(rig.receiver[1].chunks(), (QList<QByteArray>{on, on, off}));
}

void TestSoftwareControls::inactiveFaderDoesNotReportTouches()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 1, 2, false);

    fader.setTouched(true);

    QCOMPARE(fader.touched(), true);
    QCOMPARE(rig.receiver[1].count(), 0);
}

void TestSoftwareControls::faderOfIndex12HasNoDeviceAndTakesOnlyDevice255()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 0, 12);
    QCOMPARE(int(fader.deviceId()), 255);

    const uint8_t types[] = {MessageType::FaderPosition, MessageType::FaderBackstop,
                             MessageType::FaderDetent, MessageType::FaderTouch};
    for (uint8_t type : types) {
        for (int device = 0; device < 255; ++device) {
            QVERIFY(!fader.handleSoftwareMessage(
                0, message(type, static_cast<uint8_t>(device), {0x01, 0x01})));
        }
    }
    QCOMPARE(fader.value(), 0);
    QCOMPARE(fader.touched(), false);

    QVERIFY(fader.handleSoftwareMessage(0, message(MessageType::FaderPosition, 255, {0x00, 0x09})));
    QCOMPARE(fader.value(), 9);
}

void TestSoftwareControls::faderMoveByHandStoresAndReportsThePosition()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 2, 4);
    QSignalSpy value(&fader, &FaderControl::valueChanged);

    fader.moveByHand(300);
    fader.moveByHand(300);

    QCOMPARE(fader.value(), 300);
    QCOMPARE(value.count(), 1);
    // Reported like a section's hand move, every time.
    const QByteArray frame = QByteArray::fromHex("050704012c3d");
    QCOMPARE(rig.receiver[2].chunks(), (QList<QByteArray>{frame, frame}));
}

void TestSoftwareControls::faderMoveByHandClampsTo0Through511()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::MasterFader);
    attach(fader, rig, 0, 0);

    fader.moveByHand(600);
    QCOMPARE(fader.value(), 511);
    fader.moveByHand(-5);
    QCOMPARE(fader.value(), 0);

    QCOMPARE(rig.receiver[0].chunks(), (QList<QByteArray>{QByteArray::fromHex("05070a01ff16"),
                                                          QByteArray::fromHex("05070a000016")}));
}

void TestSoftwareControls::inactiveFaderMoveByHandStoresButDoesNotReport()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 0, 0, false);
    QSignalSpy value(&fader, &FaderControl::valueChanged);

    fader.moveByHand(42);

    QCOMPARE(fader.value(), 42);
    QCOMPARE(value.count(), 1);
    QCOMPARE(rig.receiver[0].count(), 0);
}

void TestSoftwareControls::faderDeactivationResetsTheValueToZero()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 0, 3);
    rig.fromPlugin(0, message(MessageType::FaderPosition, 3, {0x01, 0x00}));
    QCOMPARE(fader.value(), 256);
    QSignalSpy value(&fader, &FaderControl::valueChanged);

    fader.setActive(false);

    QCOMPARE(fader.value(), 0);
    QCOMPARE(value.count(), 1);
    fader.setActive(true);  // the last position comes back
    QCOMPARE(fader.value(), 256);
    QCOMPARE(value.count(), 2);
}

// ---------------------------------------------------------------------------------------
// Rotary.

void TestSoftwareControls::rotaryShowsTheRingColour()
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

void TestSoftwareControls::rotaryRotateReportsTheAmountAsAByte()
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

void TestSoftwareControls::rotaryReportsEveryTouchWrite()
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

void TestSoftwareControls::rotaryReportsPressesFromItsPushSwitch()
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

void TestSoftwareControls::inactiveRotarySendsNothing()
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

void TestSoftwareControls::rotaryLeavesOtherTypesAndDevicesAlone()
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

// ---------------------------------------------------------------------------------------
// Pot.

void TestSoftwareControls::potPositionOf600IsStoredAndSentAs511()
{
    Rig rig;
    PotControl pot;
    pot.setType(PotBinding::Headphone);
    attach(pot, rig, 1, 0);
    QSignalSpy position(&pot, &PotControl::positionChanged);

    pot.setPosition(600);

    QCOMPARE(pot.position(), 511);
    QCOMPARE(position.count(), 1);
    // Variable-length type 17 from device 0, payload 01 FF.
    QCOMPARE(rig.receiver[1].chunks(), QList<QByteArray>{QByteArray::fromHex("05110001ff16")});
}

void TestSoftwareControls::potPositionEqualToTheStoredOneDoesNothing()
{
    Rig rig;
    PotControl pot;
    pot.setType(PotBinding::Headphone);
    attach(pot, rig, 1, 0);
    pot.setPosition(100);
    rig.clearReceivers();
    QSignalSpy position(&pot, &PotControl::positionChanged);

    pot.setPosition(100);

    QCOMPARE(position.count(), 0);
    QCOMPARE(rig.receiver[1].count(), 0);
}

void TestSoftwareControls::potComparesBeforeClamping()
{
    Rig rig;
    PotControl pot;
    pot.setType(PotBinding::Headphone);
    attach(pot, rig, 1, 0);
    pot.setPosition(600);
    rig.clearReceivers();
    QSignalSpy position(&pot, &PotControl::positionChanged);

    // 600 differs from the stored 511, so it goes through again as 511.
    pot.setPosition(600);
    QCOMPARE(pot.position(), 511);
    QCOMPARE(position.count(), 1);
    QCOMPARE(rig.receiver[1].chunks(), QList<QByteArray>{QByteArray::fromHex("05110001ff16")});

    // 511 itself is the stored value: nothing.
    pot.setPosition(511);
    QCOMPARE(position.count(), 1);
    QCOMPARE(rig.receiver[1].count(), 1);
}

void TestSoftwareControls::potClampsNegativePositionsToZero()
{
    Rig rig;
    PotControl pot;
    pot.setType(PotBinding::Headphone);
    attach(pot, rig, 0, 0);
    pot.setPosition(5);
    rig.clearReceivers();

    pot.setPosition(-20);

    QCOMPARE(pot.position(), 0);
    QCOMPARE(rig.receiver[0].chunks(), QList<QByteArray>{QByteArray::fromHex("051100000016")});
}

void TestSoftwareControls::potAnswersTheValueRequestAndLeavesItToOthers()
{
    Rig rig;
    PotControl pot;
    pot.setType(PotBinding::Headphone);
    pot.setPosition(300);  // not yet connected: nothing sent
    attach(pot, rig, 2, 0);
    FakeSoftwareHandler after;
    rig.controller->addSoftwareHandler(&after);

    QVERIFY(!pot.handleSoftwareMessage(2, message(MessageType::PotValue, 0)));
    QCOMPARE(rig.receiver[2].chunks(), QList<QByteArray>{QByteArray::fromHex("051100012c43")});

    // Any device: the request is answered, and still offered on.
    rig.clearReceivers();
    rig.fromPlugin(2, message(MessageType::PotValue, 7));
    QCOMPARE(rig.receiver[2].chunks(), QList<QByteArray>{QByteArray::fromHex("051100012c43")});
    QCOMPARE(after.offerCount(), 1);
    QCOMPARE(after.offers()[0].message.type, uint8_t(MessageType::PotValue));
    rig.controller->removeSoftwareHandler(&after);
}

void TestSoftwareControls::inactivePotNeitherAnswersNorReports()
{
    Rig rig;
    PotControl pot;
    pot.setType(PotBinding::Headphone);
    attach(pot, rig, 2, 0, false);

    pot.setPosition(10);
    rig.fromPlugin(2, message(MessageType::PotValue, 0));

    QCOMPARE(pot.position(), 10);
    QCOMPARE(rig.receiver[2].count(), 0);
}

void TestSoftwareControls::potShowsTheHeadphoneLightColour()
{
    Rig rig;
    PotControl pot;
    pot.setType(PotBinding::Headphone);
    attach(pot, rig, 2, 0);
    QSignalSpy color(&pot, &PotControl::colorChanged);

    QVERIFY(!pot.handleSoftwareMessage(2, message(MessageType::RgbColor, 0, {1, 1, 1, 0})));
    QVERIFY(!pot.handleSoftwareMessage(2, message(MessageType::RgbColor, 17, {1, 1, 1, 0})));
    QCOMPARE(color.count(), 0);
    QVERIFY(pot.handleSoftwareMessage(2, message(MessageType::RgbColor, 18, {0, 128, 255, 0})));

    QCOMPARE(pot.color(), QColor(0, 128, 255));
    QCOMPARE(pot.color().alpha(), 255);
    QCOMPARE(color.count(), 1);
}

void TestSoftwareControls::potWithoutTypeReportsFromDevice255()
{
    Rig rig;
    PotControl pot;
    attach(pot, rig, 0, 0);

    pot.setPosition(1);

    QCOMPARE(rig.receiver[0].chunks(), QList<QByteArray>{QByteArray::fromHex("0511ff000116")});
}

// ---------------------------------------------------------------------------------------
// RGB LED.

void TestSoftwareControls::rgbLedShowsTheColourOpaque()
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

void TestSoftwareControls::rgbLedLeavesOtherDevicesAlone()
{
    Rig rig;
    RgbLedControl led;
    led.setType(RgbLedBinding::UnderscreenRotaryButton);
    attach(led, rig, 0, 4);

    QVERIFY(!led.handleSoftwareMessage(0, message(MessageType::RgbColor, 5, {1, 2, 3, 0})));
    QVERIFY(!led.handleSoftwareMessage(0, message(MessageType::Led, 4, {1, 0})));
    QCOMPARE(led.color(), QColor(Qt::black));
}

// ---------------------------------------------------------------------------------------
// Meter.

void TestSoftwareControls::meterShowsLevelAndPeak()
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

void TestSoftwareControls::meterAnnouncesOnlyChanges()
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

void TestSoftwareControls::inactiveMeterTakesLevelMessagesButHoldsZero()
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

void TestSoftwareControls::meterDeactivationResetsPeakAndValueWithTheirSignals()
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

// ---------------------------------------------------------------------------------------
// Replay on refresh.

void TestSoftwareControls::activationReplaysTheLastMessagesForTheDevice()
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

void TestSoftwareControls::indexChangeReplaysForTheNewDevice()
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

void TestSoftwareControls::sectionIndexChangeReplaysFromTheNewSection()
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

void TestSoftwareControls::typeChangeReplaysForTheNewDevice()
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

void TestSoftwareControls::eachControlReplaysTheTypesItTakes()
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

// ---------------------------------------------------------------------------------------
// Section.

void TestSoftwareControls::sectionControlAnswersPingWithItsTemperature()
{
    Rig rig;
    SectionControl section;
    section.setConnection(&rig.connection);
    section.setSectionIndex(1);
    section.setTemperature(40);
    FakeSoftwareHandler after;
    after.takeAll(true);
    rig.controller->addSoftwareHandler(&after);

    QVERIFY(section.handleSoftwareMessage(1, message(MessageType::Ping, 0)));
    QCOMPARE(rig.receiver[1].chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a22285a")});

    rig.clearReceivers();
    rig.fromPlugin(1, message(MessageType::Ping, 0));
    // Answered once, by the section control (the controller adds no answer of its own).
    QCOMPARE(rig.receiver[1].chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a22285a")});
    QCOMPARE(after.offerCount(), 0);
    rig.controller->removeSoftwareHandler(&after);
}

void TestSoftwareControls::pingWithoutSectionControlIsAnsweredWith55PlusIndex()
{
    Rig rig;
    ButtonControl button;  // a control that does not play the section itself
    button.setType(ButtonBinding::Mute);
    attach(button, rig, 1, 0);

    rig.fromPlugin(1, message(MessageType::Ping, 0));
    rig.fromPlugin(2, message(MessageType::Ping, 0));

    QCOMPARE(rig.receiver[1].chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a22386a")});
    QCOMPARE(rig.receiver[2].chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a22396b")});
}

void TestSoftwareControls::sectionControlOfAnotherSectionLeavesThePingToTheController()
{
    Rig rig;
    SectionControl section;
    section.setConnection(&rig.connection);
    section.setSectionIndex(2);
    section.setTemperature(40);

    QVERIFY(!section.handleSoftwareMessage(0, message(MessageType::Ping, 0)));
    rig.fromPlugin(0, message(MessageType::Ping, 0));

    QCOMPARE(rig.receiver[0].chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a223769")});
    QCOMPARE(rig.receiver[2].count(), 0);
}

void TestSoftwareControls::sectionControlTakesOnlyDevice0()
{
    Rig rig;
    SectionControl section;
    section.setConnection(&rig.connection);
    QSignalSpy calibrating(&section, &SectionControl::calibratingChanged);

    QVERIFY(!section.handleSoftwareMessage(0, message(MessageType::Ping, 1)));
    QVERIFY(!section.handleSoftwareMessage(0, message(MessageType::Calibration, 4)));
    QVERIFY(!section.handleSoftwareMessage(0, message(MessageType::SurfaceBrightness, 0, {9})));
    QVERIFY(!section.handleSoftwareMessage(0, message(MessageType::SerialError, 0)));

    QCOMPARE(rig.receiver[0].count(), 0);
    QCOMPARE(calibrating.count(), 0);
}

void TestSoftwareControls::sectionControlStartsCalibrationOnThePluginsRequest()
{
    Rig rig;
    SectionControl section;
    section.setConnection(&rig.connection);
    section.setSectionIndex(2);
    QSignalSpy calibrating(&section, &SectionControl::calibratingChanged);

    QVERIFY(section.handleSoftwareMessage(2, message(MessageType::Calibration, 0)));
    QCOMPARE(section.calibrating(), true);
    QCOMPARE(calibrating.count(), 1);
    // Each start is announced, a repeated one too.
    rig.fromPlugin(2, message(MessageType::Calibration, 0));
    QCOMPARE(calibrating.count(), 2);
    QCOMPARE(rig.receiver[2].count(), 0);
}

void TestSoftwareControls::sectionControlStopCalibrationReportsDone()
{
    Rig rig;
    SectionControl section;
    section.setConnection(&rig.connection);
    section.setSectionIndex(1);
    rig.fromPlugin(1, message(MessageType::Calibration, 0));
    QSignalSpy calibrating(&section, &SectionControl::calibratingChanged);

    section.stopCalibration();

    QCOMPARE(rig.receiver[1].chunks(), QList<QByteArray>{QByteArray::fromHex("03030006")});
    QCOMPARE(section.calibrating(), false);
    QCOMPARE(calibrating.count(), 1);
}

void TestSoftwareControls::sectionControlSectionIndexAndTemperatureEmitOnlyOnChange()
{
    SectionControl section;
    QSignalSpy index(&section, &SectionControl::sectionIndexChanged);
    QSignalSpy temperature(&section, &SectionControl::temperatureChanged);

    section.setSectionIndex(0);
    section.setTemperature(0);
    QCOMPARE(index.count(), 0);
    QCOMPARE(temperature.count(), 0);

    section.setSectionIndex(2);
    section.setSectionIndex(2);
    section.setSectionIndex(256);
    section.setSectionIndex(-1);
    section.setTemperature(41);
    section.setTemperature(41);
    QCOMPARE(index.count(), 1);
    QCOMPARE(temperature.count(), 1);
    QCOMPARE(section.sectionIndex(), 2);
    QCOMPARE(section.temperature(), 41);
}

void TestSoftwareControls::sectionControlClampsTheTemperatureOnTheWire()
{
    Rig rig;
    SectionControl section;
    section.setConnection(&rig.connection);

    section.setTemperature(300);
    rig.fromPlugin(0, message(MessageType::Ping, 0));
    section.setTemperature(-4);
    rig.fromPlugin(0, message(MessageType::Ping, 0));

    QCOMPARE(section.temperature(), -4);
    QCOMPARE(rig.receiver[0].chunks(), (QList<QByteArray>{QByteArray::fromHex("0600000a22ff31"),
                                                          QByteArray::fromHex("0600000a220032")}));
}

QTEST_GUILESS_MAIN(TestSoftwareControls)
#include "tst_softwarecontrols.moc"
