#include <QtTest>
#include <memory>

#include "bindings/surfaceconnection.h"
#include "serial/isectionconnection.h"
#include "software/buttoncontrol.h"
#include "software/fadercontrol.h"
#include "software/metercontrol.h"
#include "software/potcontrol.h"
#include "software/qmlcontrollerconnection.h"
#include "software/rgbledcontrol.h"
#include "software/rotarycontrol.h"
#include "software/sectioncontrol.h"
#include "support/deferreddeletes.h"
#include "support/manualclock.h"
#include "support/softwaresurfacefixture.h"
#include "surface/buttonhandle.h"
#include "surface/controltypes.h"
#include "surface/fader.h"
#include "surface/faderhandle.h"
#include "surface/ibutton.h"
#include "surface/iled.h"
#include "surface/imeter.h"
#include "surface/ipot.h"
#include "surface/irgbled.h"
#include "surface/irotary.h"
#include "surface/isection.h"
#include "surface/ledhandle.h"
#include "surface/meterhandle.h"
#include "surface/pothandle.h"
#include "surface/rgbledhandle.h"
#include "surface/rotaryhandle.h"
#include "surface/surface.h"

using namespace Velmora::Worksurface;

namespace {

// The clock reads like a board that has been up for a while, as steady_clock does.

template <typename Type>
int32_t raw(Type type)
{
    return static_cast<int32_t>(type);
}

// A whole software worksurface under the manual clock, with the SurfaceConnection that a
// QML page would give its controls (built on the fixture's controller, as the surface
// service builds it on its own) and every link up.
struct Scene
{
    ManualClock clock{kStartNs};
    SoftwareSurfaceFixture fixture;
    SurfaceConnection connection;

    explicit Scene(uint8_t mode)
        : fixture(clock, mode), connection(fixture.sharedController(), nullptr)
    {
        fixture.installInto(connection);
        fixture.start();
        // A fader holds a requested position back while a hand move may still be under
        // way, and counts its making as the last one; the page is shown a moment later.
        fixture.runForMs(1);
    }

    ~Scene()
    {
        // Handles are deleted later; let them go while their components still exist.
        flushDeferredDeletes();
    }

    Surface& surface() { return fixture.surface(); }

    void attach(SurfaceControlBase& control, int section, int index)
    {
        control.setConnection(&connection);
        control.setSectionIndex(section);
        control.setIndex(index);
        control.setActive(true);
    }

    // Delivers the handles' queued calls to their components.
    static void deliverQueuedCalls() { QCoreApplication::sendPostedEvents(); }
};

}  // namespace

class TestSoftwareControlSurface : public QObject
{
    Q_OBJECT

private slots:
    void faderMoveByHandReachesTheFaderAndItsHandle_data();
    void faderMoveByHandReachesTheFaderAndItsHandle();
    void faderTouchReachesTheFaderAndItsHandle_data();
    void faderTouchReachesTheFaderAndItsHandle();
    void handlePositionReachesFaderControlValue_data();
    void handlePositionReachesFaderControlValue();
    void masterFaderPositionReachesTheMasterFaderControl_data();
    void masterFaderPositionReachesTheMasterFaderControl();
    void buttonPressAndReleaseReachTheButtonHandle_data();
    void buttonPressAndReleaseReachTheButtonHandle();
    void rotaryTurnTouchAndPressReachTheRotaryHandle_data();
    void rotaryTurnTouchAndPressReachTheRotaryHandle();
    void rotaryRingColourReachesRotaryControl_data();
    void rotaryRingColourReachesRotaryControl();
    void ledOnReachesButtonControlBrightness_data();
    void ledOnReachesButtonControlBrightness();
    void rgbLedColourReachesRgbLedControl_data();
    void rgbLedColourReachesRgbLedControl();
    void meterLevelAndPeakReachMeterControl_data();
    void meterLevelAndPeakReachMeterControl();
    void potPositionReachesThePotHandle_data();
    void potPositionReachesThePotHandle();
    void potAnswersThePotsValueRequest_data();
    void potAnswersThePotsValueRequest();
    void sectionTemperatureReachesTheSectionAfterAPing_data();
    void sectionTemperatureReachesTheSectionAfterAPing();
    void surfaceCalibrationReachesSectionControl_data();
    void surfaceCalibrationReachesSectionControl();
    void stopCalibrationBringsTheLinkBackToConnected_data();
    void stopCalibrationBringsTheLinkBackToConnected();
    void controlCreatedLateCatchesUpOnActivation_data();
    void controlCreatedLateCatchesUpOnActivation();

private:
    void consoles();
};

void TestSoftwareControlSurface::consoles()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("master");
    QTest::addColumn<int>("sections");
    QTest::newRow("K40") << 1 << 1 << 2;
    QTest::newRow("K60") << 2 << 2 << 3;
}

void TestSoftwareControlSurface::faderMoveByHandReachesTheFaderAndItsHandle_data()
{
    consoles();
}

void TestSoftwareControlSurface::faderMoveByHandReachesTheFaderAndItsHandle()
{
    QFETCH(int, mode);
    QFETCH(int, sections);
    Scene scene(static_cast<uint8_t>(mode));
    for (int s = 0; s < sections; ++s) {
        const auto fader =
            std::dynamic_pointer_cast<Fader>(scene.surface().fader(raw(FaderType::Fader), s, 4));
        QVERIFY(fader);
        const std::shared_ptr<FaderHandle> handle = fader->getHandle();
        QSignalSpy moved(handle.get(), &FaderHandle::faderMoved);
        FaderControl control;
        control.setType(FaderBinding::Fader);
        scene.attach(control, s, 4);

        control.moveByHand(300);

        QCOMPARE(fader->position(), uint16_t(300));
        QCOMPARE(moved.count(), 1);
        QCOMPARE(moved.at(0).at(0).value<quint16>(), quint16(300));
        QCOMPARE(control.value(), 300);

        control.moveByHand(900);  // past the top: the knob stops at 511
        QCOMPARE(fader->position(), uint16_t(511));
        QCOMPARE(moved.count(), 2);
        QCOMPARE(moved.at(1).at(0).value<quint16>(), quint16(511));
        handle->release();
    }
}

void TestSoftwareControlSurface::faderTouchReachesTheFaderAndItsHandle_data()
{
    consoles();
}

void TestSoftwareControlSurface::faderTouchReachesTheFaderAndItsHandle()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    Scene scene(static_cast<uint8_t>(mode));
    const std::shared_ptr<IFader> fader = scene.surface().fader(raw(FaderType::Fader), master, 7);
    const std::shared_ptr<FaderHandle> handle = fader->getHandle();
    QSignalSpy touched(handle.get(), &FaderHandle::faderTouched);
    FaderControl control;
    control.setType(FaderBinding::Fader);
    scene.attach(control, master, 7);

    control.setTouched(true);
    QCOMPARE(fader->touched(), true);
    QCOMPARE(handle->touched(), true);
    control.setTouched(false);

    QCOMPARE(fader->touched(), false);
    QCOMPARE(touched.count(), 2);
    QCOMPARE(touched.at(0).at(0).toBool(), true);
    QCOMPARE(touched.at(1).at(0).toBool(), false);
    handle->release();
}

void TestSoftwareControlSurface::handlePositionReachesFaderControlValue_data()
{
    consoles();
}

void TestSoftwareControlSurface::handlePositionReachesFaderControlValue()
{
    QFETCH(int, mode);
    QFETCH(int, sections);
    Scene scene(static_cast<uint8_t>(mode));
    for (int s = 0; s < sections; ++s) {
        FaderControl control;
        control.setType(FaderBinding::Fader);
        scene.attach(control, s, 2);
        const std::shared_ptr<FaderHandle> handle =
            scene.surface().fader(raw(FaderType::Fader), s, 2)->getHandle();

        emit handle->internalSendFaderPosition(quint16(200 + s));
        Scene::deliverQueuedCalls();
        QCOMPARE(control.value(), 0);  // still in the section's queue
        scene.fixture.drain();

        QCOMPARE(control.value(), 200 + s);
        handle->release();
    }
}

void TestSoftwareControlSurface::masterFaderPositionReachesTheMasterFaderControl_data()
{
    consoles();
}

void TestSoftwareControlSurface::masterFaderPositionReachesTheMasterFaderControl()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    Scene scene(static_cast<uint8_t>(mode));
    FaderControl control;
    control.setType(FaderBinding::MasterFader);
    scene.attach(control, master, 0);
    FaderControl strip;  // strip fader 0 of the same section: not the master fader
    strip.setType(FaderBinding::Fader);
    scene.attach(strip, master, 0);
    const std::shared_ptr<IFader> fader =
        scene.surface().fader(raw(FaderType::MasterFader), master, 0);
    QVERIFY(fader);
    const std::shared_ptr<FaderHandle> handle = fader->getHandle();

    emit handle->internalSendFaderPosition(quint16(450));
    Scene::deliverQueuedCalls();
    scene.fixture.drain();

    QCOMPARE(control.value(), 450);
    QCOMPARE(strip.value(), 0);
    handle->release();
}

void TestSoftwareControlSurface::buttonPressAndReleaseReachTheButtonHandle_data()
{
    consoles();
}

void TestSoftwareControlSurface::buttonPressAndReleaseReachTheButtonHandle()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    Scene scene(static_cast<uint8_t>(mode));
    const std::shared_ptr<ButtonHandle> solo =
        scene.surface().button(raw(ButtonType::Solo), 0, 6)->getHandle();
    const std::shared_ptr<ButtonHandle> layerDown =
        scene.surface().button(raw(ButtonType::LayerDown), master, 0)->getHandle();
    QSignalSpy soloPressed(solo.get(), &ButtonHandle::buttonPressed);
    QSignalSpy soloReleased(solo.get(), &ButtonHandle::buttonReleased);
    QSignalSpy layerPressed(layerDown.get(), &ButtonHandle::buttonPressed);
    ButtonControl soloControl;
    soloControl.setType(ButtonBinding::Solo);
    scene.attach(soloControl, 0, 6);
    ButtonControl layerControl;
    layerControl.setType(ButtonBinding::LayerDown);
    scene.attach(layerControl, master, 0);

    soloControl.setPressed(true);
    QCOMPARE(soloPressed.count(), 1);
    QCOMPARE(soloReleased.count(), 0);
    soloControl.setPressed(false);
    QCOMPARE(soloPressed.count(), 1);
    QCOMPARE(soloReleased.count(), 1);

    layerControl.setPressed(true);
    QCOMPARE(layerPressed.count(), 1);
    QCOMPARE(soloPressed.count(), 1);
    solo->detach();
    layerDown->detach();
}

void TestSoftwareControlSurface::rotaryTurnTouchAndPressReachTheRotaryHandle_data()
{
    consoles();
}

void TestSoftwareControlSurface::rotaryTurnTouchAndPressReachTheRotaryHandle()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    Scene scene(static_cast<uint8_t>(mode));
    struct Case
    {
        RotaryBinding::RotaryType controlType;
        RotaryType type;
        int section;
        int index;
    };
    const Case cases[] = {{RotaryBinding::UnderScreen, RotaryType::UnderScreen, 0, 5},
                          {RotaryBinding::SideRotary, RotaryType::SideRotary, master, 5}};
    for (const Case& c : cases) {
        const std::shared_ptr<IRotary> rotary =
            scene.surface().rotary(raw(c.type), c.section, c.index);
        QVERIFY(rotary);
        const std::shared_ptr<RotaryHandle> handle = rotary->getHandle();
        QSignalSpy rotated(handle.get(), &RotaryHandle::rotaryRotated);
        QSignalSpy touched(handle.get(), &RotaryHandle::rotaryTouched);
        QSignalSpy pressed(handle.get(), &RotaryHandle::rotaryPressed);
        RotaryControl control;
        control.setType(c.controlType);
        scene.attach(control, c.section, c.index);

        control.rotate(-3);
        QCOMPARE(rotated.count(), 1);
        QCOMPARE(int(rotated.at(0).at(0).value<qint8>()), -3);
        control.rotate(2);
        QCOMPARE(int(rotated.at(1).at(0).value<qint8>()), 2);

        control.setTouched(true);
        QCOMPARE(touched.count(), 1);
        QCOMPARE(handle->touched(), true);
        control.setPressed(true);
        QCOMPARE(pressed.count(), 1);
        QCOMPARE(handle->pressed(), true);
        handle->detach();
    }
}

void TestSoftwareControlSurface::rotaryRingColourReachesRotaryControl_data()
{
    consoles();
}

void TestSoftwareControlSurface::rotaryRingColourReachesRotaryControl()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    Scene scene(static_cast<uint8_t>(mode));
    RotaryControl control;
    control.setType(RotaryBinding::SideRotary);
    scene.attach(control, master, 3);
    const std::shared_ptr<RotaryHandle> handle =
        scene.surface().rotary(raw(RotaryType::SideRotary), master, 3)->getHandle();

    handle->setColor(QColor(200, 100, 50));
    scene.fixture.drain();

    QCOMPARE(control.color(), QColor(200, 100, 50));
    handle->detach();
}

void TestSoftwareControlSurface::ledOnReachesButtonControlBrightness_data()
{
    consoles();
}

void TestSoftwareControlSurface::ledOnReachesButtonControlBrightness()
{
    QFETCH(int, mode);
    QFETCH(int, sections);
    Scene scene(static_cast<uint8_t>(mode));
    const int section = sections - 1;
    ButtonControl control;
    control.setType(ButtonBinding::Mute);
    scene.attach(control, section, 1);
    const std::shared_ptr<LedHandle> handle =
        scene.surface().led(raw(LedType::MuteButton), section, 1)->getHandle();

    handle->setOn(1);
    scene.fixture.drain();
    QCOMPARE(control.brightness(), 255);

    handle->setBrightness(100);
    scene.fixture.drain();
    QCOMPARE(control.brightness(), 100);

    handle->setOn(0);
    scene.fixture.drain();
    QCOMPARE(control.brightness(), 0);
    handle->detach();
}

void TestSoftwareControlSurface::rgbLedColourReachesRgbLedControl_data()
{
    consoles();
}

void TestSoftwareControlSurface::rgbLedColourReachesRgbLedControl()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    Scene scene(static_cast<uint8_t>(mode));
    RgbLedControl logo;
    logo.setType(RgbLedBinding::NameLogo);
    scene.attach(logo, master, 0);
    RgbLedControl overview;
    overview.setType(RgbLedBinding::OverviewLogo);
    scene.attach(overview, master, 0);
    const std::shared_ptr<RgbLedHandle> logoHandle =
        scene.surface().rgbLed(raw(RgbLedType::NameLogo), master, 0)->getHandle();
    const std::shared_ptr<RgbLedHandle> overviewHandle =
        scene.surface().rgbLed(raw(RgbLedType::OverviewLogo), master, 0)->getHandle();

    logoHandle->setColor(QColor(10, 20, 30));
    overviewHandle->setColor(QColor(Qt::green));
    scene.fixture.drain();

    QCOMPARE(logo.color(), QColor(10, 20, 30));
    QCOMPARE(overview.color(), QColor(0, 255, 0));
    logoHandle->detach();
    overviewHandle->detach();
}

void TestSoftwareControlSurface::meterLevelAndPeakReachMeterControl_data()
{
    consoles();
}

void TestSoftwareControlSurface::meterLevelAndPeakReachMeterControl()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    Scene scene(static_cast<uint8_t>(mode));
    MeterControl left;
    left.setMeterType(MeterBinding::MasterLeft);
    scene.attach(left, master, 0);
    MeterControl right;
    right.setMeterType(MeterBinding::MasterRight);
    scene.attach(right, master, 0);
    const std::shared_ptr<MeterHandle> handle =
        scene.surface().meter(raw(MeterType::MasterLeft), master)->getHandle();

    handle->setLevel(255);
    handle->setPeak(200);
    scene.fixture.drain();

    // The console's meter scale: (level - 135) / 5.
    QCOMPARE(left.value(), 24);
    QCOMPARE(left.peak(), 13);
    QCOMPARE(right.value(), 0);
    QCOMPARE(right.peak(), 0);
    handle->detach();
}

void TestSoftwareControlSurface::potPositionReachesThePotHandle_data()
{
    consoles();
}

void TestSoftwareControlSurface::potPositionReachesThePotHandle()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    Scene scene(static_cast<uint8_t>(mode));
    const std::shared_ptr<IPot> pot = scene.surface().pot(raw(PotType::Headphone), master);
    QVERIFY(pot);
    const std::shared_ptr<PotHandle> handle = pot->getHandle();
    QSignalSpy changed(handle.get(), &PotHandle::potValueChanged);
    PotControl control;
    control.setType(PotBinding::Headphone);
    scene.attach(control, master, 0);

    control.setPosition(300);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(changed.at(0).at(0).value<quint16>(), quint16(300));
    QCOMPARE(handle->value(), quint16(300));

    control.setPosition(600);
    QCOMPARE(changed.count(), 2);
    QCOMPARE(changed.at(1).at(0).value<quint16>(), quint16(511));
    QCOMPARE(pot->value(), uint16_t(511));
    handle->detach();
}

void TestSoftwareControlSurface::potAnswersThePotsValueRequest_data()
{
    consoles();
}

void TestSoftwareControlSurface::potAnswersThePotsValueRequest()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    Scene scene(static_cast<uint8_t>(mode));
    PotControl control;
    control.setType(PotBinding::Headphone);
    control.setPosition(123);  // before it is connected: the pot has not heard it
    scene.attach(control, master, 0);
    const std::shared_ptr<IPot> pot = scene.surface().pot(raw(PotType::Headphone), master);
    QCOMPARE(pot->value(), uint16_t(0));

    // The pot asks for its value once a second until it gets an answer.
    scene.fixture.runForMs(1100);

    QCOMPARE(pot->value(), uint16_t(123));
}

void TestSoftwareControlSurface::sectionTemperatureReachesTheSectionAfterAPing_data()
{
    consoles();
}

void TestSoftwareControlSurface::sectionTemperatureReachesTheSectionAfterAPing()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    QFETCH(int, sections);
    Scene scene(static_cast<uint8_t>(mode));
    SectionControl control;
    control.setConnection(&scene.connection);
    control.setSectionIndex(master);
    control.setTemperature(40);

    scene.fixture.runForMs(2100);

    const auto& list = scene.surface().sections();
    QCOMPARE(int(list.size()), sections);
    for (int s = 0; s < sections; ++s) {
        QCOMPARE(int(list[s]->version()), 34);
        // The played section reports its control's temperature; the others the software
        // controller's 55 + index.
        QCOMPARE(int(list[s]->temperature()), s == master ? 40 : 55 + s);
    }

    control.setTemperature(47);
    scene.fixture.runForMs(2100);
    QCOMPARE(int(list[master]->temperature()), 47);
}

void TestSoftwareControlSurface::surfaceCalibrationReachesSectionControl_data()
{
    consoles();
}

void TestSoftwareControlSurface::surfaceCalibrationReachesSectionControl()
{
    QFETCH(int, mode);
    QFETCH(int, sections);
    Scene scene(static_cast<uint8_t>(mode));
    std::vector<std::unique_ptr<SectionControl>> controls;
    for (int s = 0; s < sections; ++s) {
        controls.push_back(std::make_unique<SectionControl>());
        controls.back()->setConnection(&scene.connection);
        controls.back()->setSectionIndex(s);
    }

    scene.surface().calibrate();

    QVERIFY(scene.surface().isCalibrating());
    for (int s = 0; s < sections; ++s) {
        QCOMPARE(controls[s]->calibrating(), true);
        QCOMPARE(scene.surface().connections()[s]->state(),
                 uint8_t(ISectionConnection::Calibrating));
    }
}

void TestSoftwareControlSurface::stopCalibrationBringsTheLinkBackToConnected_data()
{
    consoles();
}

void TestSoftwareControlSurface::stopCalibrationBringsTheLinkBackToConnected()
{
    QFETCH(int, mode);
    QFETCH(int, sections);
    Scene scene(static_cast<uint8_t>(mode));
    std::vector<std::unique_ptr<SectionControl>> controls;
    for (int s = 0; s < sections; ++s) {
        controls.push_back(std::make_unique<SectionControl>());
        controls.back()->setConnection(&scene.connection);
        controls.back()->setSectionIndex(s);
    }
    scene.surface().calibrate();
    QSignalSpy calibratingChanged(&scene.surface(), &ISurface::isCalibratingChanged);

    controls[0]->stopCalibration();

    QCOMPARE(controls[0]->calibrating(), false);
    QCOMPARE(scene.surface().connections()[0]->state(), uint8_t(ISectionConnection::Connected));
    QVERIFY(scene.surface().isCalibrating());  // the other sections are still at it
    for (int s = 1; s < sections; ++s) {
        controls[s]->stopCalibration();
    }
    QVERIFY(!scene.surface().isCalibrating());
    for (int s = 0; s < sections; ++s) {
        QCOMPARE(scene.surface().connections()[s]->state(), uint8_t(ISectionConnection::Connected));
    }
    QCOMPARE(calibratingChanged.count(), sections);
}

void TestSoftwareControlSurface::controlCreatedLateCatchesUpOnActivation_data()
{
    consoles();
}

void TestSoftwareControlSurface::controlCreatedLateCatchesUpOnActivation()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    Scene scene(static_cast<uint8_t>(mode));
    const std::shared_ptr<FaderHandle> handle =
        scene.surface().fader(raw(FaderType::Fader), master, 9)->getHandle();
    emit handle->internalSendFaderPosition(quint16(333));
    Scene::deliverQueuedCalls();
    scene.fixture.drain();

    // The page creates its fader only now.
    FaderControl control;
    control.setType(FaderBinding::Fader);
    scene.attach(control, master, 9);

    QCOMPARE(control.value(), 333);
    handle->release();
}

QTEST_GUILESS_MAIN(TestSoftwareControlSurface)
#include "tst_softwarecontrolsurface.moc"
