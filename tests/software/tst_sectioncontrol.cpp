#include <QtTest>

#include "softwarecontroltest.h"

namespace {

// A section's control on the plugin's side of a software surface, as QML sets it up.
struct SectionRig : Rig
{
    explicit SectionRig(int index)
    {
        section.setConnection(&connection);
        section.setSectionIndex(index);
    }
    SectionControl section;
};

}  // namespace

class TestSectionControl : public QObject
{
    Q_OBJECT

private slots:
    // Section.
    void sectionControlAnswersPingWithItsTemperature();
    void pingWithoutSectionControlIsAnsweredWith55PlusIndex();
    void sectionControlOfAnotherSectionLeavesThePingToTheController();
    void sectionControlTakesOnlyDevice0();
    void sectionControlStartsCalibrationOnThePluginsRequest();
    void sectionControlStopCalibrationReportsDone();
    void sectionControlStopCalibrationTellsThePluginBeforeItShowsTheStop();
    void sectionControlSectionIndexAndTemperatureEmitOnlyOnChange();
    void sectionControlClampsTheTemperatureOnTheWire();
    void sectionControlPutsItsVersionOnTheWireClamped();
};

// ---------------------------------------------------------------------------------------
// Section.

void TestSectionControl::sectionControlAnswersPingWithItsTemperature()
{
    SectionRig rig(1);
    SectionControl& section = rig.section;
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

void TestSectionControl::pingWithoutSectionControlIsAnsweredWith55PlusIndex()
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

void TestSectionControl::sectionControlOfAnotherSectionLeavesThePingToTheController()
{
    SectionRig rig(2);
    SectionControl& section = rig.section;
    section.setTemperature(40);

    QVERIFY(!section.handleSoftwareMessage(0, message(MessageType::Ping, 0)));
    rig.fromPlugin(0, message(MessageType::Ping, 0));

    QCOMPARE(rig.receiver[0].chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a223769")});
    QCOMPARE(rig.receiver[2].count(), 0);
}

void TestSectionControl::sectionControlTakesOnlyDevice0()
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

void TestSectionControl::sectionControlStartsCalibrationOnThePluginsRequest()
{
    SectionRig rig(2);
    SectionControl& section = rig.section;
    QSignalSpy calibrating(&section, &SectionControl::calibratingChanged);

    QVERIFY(section.handleSoftwareMessage(2, message(MessageType::Calibration, 0)));
    QCOMPARE(section.calibrating(), true);
    QCOMPARE(calibrating.count(), 1);
    // Each start is announced, a repeated one too.
    rig.fromPlugin(2, message(MessageType::Calibration, 0));
    QCOMPARE(calibrating.count(), 2);
    QCOMPARE(rig.receiver[2].count(), 0);
}

void TestSectionControl::sectionControlStopCalibrationReportsDone()
{
    SectionRig rig(1);
    SectionControl& section = rig.section;
    rig.fromPlugin(1, message(MessageType::Calibration, 0));
    QSignalSpy calibrating(&section, &SectionControl::calibratingChanged);

    section.stopCalibration();

    QCOMPARE(rig.receiver[1].chunks(), QList<QByteArray>{QByteArray::fromHex("03030006")});
    QCOMPARE(section.calibrating(), false);
    QCOMPARE(calibrating.count(), 1);
}

void TestSectionControl::sectionControlStopCalibrationTellsThePluginBeforeItShowsTheStop()
{
    SectionRig rig(1);
    SectionControl& section = rig.section;
    rig.fromPlugin(1, message(MessageType::Calibration, 0));
    // What the plugin had received when QML saw the stop.
    QList<QByteArray> seenAtTheSignal{QByteArray("not emitted")};
    QObject::connect(&section, &SectionControl::calibratingChanged,
                     [&] { seenAtTheSignal = rig.receiver[1].chunks(); });

    section.stopCalibration();

    QCOMPARE(seenAtTheSignal, QList<QByteArray>{QByteArray::fromHex("03030006")});
}

void TestSectionControl::sectionControlSectionIndexAndTemperatureEmitOnlyOnChange()
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

void TestSectionControl::sectionControlClampsTheTemperatureOnTheWire()
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

// Both bytes of the version go into the ping answer as they are set: 12.7, then clamped to a
// byte each (300 -> ff, -1 -> 00). Checksum: the sum of the frame's bytes before it.
void TestSectionControl::sectionControlPutsItsVersionOnTheWireClamped()
{
    Rig rig;
    SectionControl section;
    section.setConnection(&rig.connection);
    section.setTemperature(40);

    section.setVersionMajor(12);
    section.setVersionMinor(7);
    rig.fromPlugin(0, message(MessageType::Ping, 0));
    section.setVersionMajor(300);
    section.setVersionMinor(-1);
    rig.fromPlugin(0, message(MessageType::Ping, 0));

    QCOMPARE(section.versionMajor(), 300);
    QCOMPARE(section.versionMinor(), -1);
    QCOMPARE(rig.receiver[0].chunks(), (QList<QByteArray>{QByteArray::fromHex("0600000c072841"),
                                                          QByteArray::fromHex("060000ff00282d")}));
}

QTEST_GUILESS_MAIN(TestSectionControl)
#include "tst_sectioncontrol.moc"
