#include <QtTest>
#include <memory>
#include <vector>

#include "serial/rootserialmessagehandler.h"
#include "serial/serialmessage.h"
#include "support/fakeserialmessagehandler.h"
#include "support/recordingfader.h"
#include "support/recordingsectioninfo.h"
#include "support/recordingsender.h"
#include "surface/button.h"
#include "surface/led.h"
#include "surface/meter.h"
#include "surface/pot.h"
#include "surface/rgbled.h"
#include "surface/rotary.h"
#include "surface/section.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

// The report a section sends in answer to a ping: a lead byte, then its firmware version
// and its temperature.
SerialMessage versionReport(uint8_t version, uint8_t temperature, uint8_t deviceId = 0)
{
    return SerialMessage(MessageType::Ping, deviceId, {10, version, temperature}, true);
}

std::shared_ptr<Section> sectionWithFaders(uint8_t index, ISectionInfo* info,
                                           std::vector<std::shared_ptr<IFader>> faders)
{
    return std::make_shared<Section>(
        index, info, nullptr, std::move(faders), std::vector<std::shared_ptr<IButton>>{},
        std::vector<std::shared_ptr<IRotary>>{}, std::vector<std::shared_ptr<ILed>>{},
        std::vector<std::shared_ptr<IRgbLed>>{}, std::vector<std::shared_ptr<IMeter>>{});
}

std::shared_ptr<Section> emptySection(uint8_t index, ISectionInfo* info)
{
    return sectionWithFaders(index, info, {});
}

}  // namespace

class TestSection : public QObject
{
    Q_OBJECT

private slots:
    void startsWithItsIndexAndNothingReported();
    void keepsTheComponentsItWasGivenInOrder();
    void versionReportIsStoredAndPassedToTheSectionInfo();
    void everyVersionReportIsPassedOnEvenWhenUnchanged();
    void versionReportIsTakenWhateverItsDeviceId();
    void otherMessageTypesAreNotTaken_data();
    void otherMessageTypesAreNotTaken();
    void shortVersionReportKeepsWhatWasKnown();
    void sectionWithoutInformationModelTakesReportsAndIgnoresUpdates();
    void updatingAndProgressArePassedToTheSectionInfo();
    void restModeReachesEveryFaderInOrder();
    void linkReadyChangesNothing();
    void asLastHandlerItSeesOnlyReportsNoComponentTook();
};

void TestSection::startsWithItsIndexAndNothingReported()
{
    RecordingSectionInfo info;
    auto section = emptySection(2, &info);
    QCOMPARE(section->index(), uint8_t(2));
    QCOMPARE(section->version(), uint8_t(0));
    QCOMPARE(section->temperature(), uint8_t(0));
    QVERIFY(section->pot() == nullptr);
    QVERIFY(section->faders().empty());
    QVERIFY(info.calls.isEmpty());
}

void TestSection::keepsTheComponentsItWasGivenInOrder()
{
    auto sender = std::make_shared<RecordingSender>();
    auto pool = std::make_shared<TaskPool>();
    auto fader0 = std::make_shared<RecordingFader>(1, 0);
    auto fader10 = std::make_shared<RecordingFader>(1, 10, FaderType::MasterFader);
    auto mute = std::make_shared<Button>(3, 1, ButtonType::Mute);
    auto solo = std::make_shared<Button>(13, 1, ButtonType::Solo);
    auto rotary = std::make_shared<Rotary>(10, 10, 31, 1, RotaryType::SideRotary, sender, pool);
    auto led = std::make_shared<Led>(20, 1, LedType::MasterMuteButton, sender, pool);
    auto logo = std::make_shared<RgbLed>(16, 1, RgbLedType::NameLogo, sender);
    auto left = std::make_shared<Meter>(0, 1, MeterType::MasterLeft, sender);
    auto right = std::make_shared<Meter>(1, 1, MeterType::MasterRight, sender);
    auto pot = std::make_shared<Pot>(0, 18, 1, PotType::Headphone, sender, pool);

    const Section section(1, nullptr, pot, {fader10, fader0}, {solo, mute}, {rotary}, {led}, {logo},
                          {left, right});

    QCOMPARE(section.pot(), std::shared_ptr<IPot>(pot));
    QCOMPARE(section.faders(), (std::vector<std::shared_ptr<IFader>>{fader10, fader0}));
    QCOMPARE(section.buttons(), (std::vector<std::shared_ptr<IButton>>{solo, mute}));
    QCOMPARE(section.rotaries(), (std::vector<std::shared_ptr<IRotary>>{rotary}));
    QCOMPARE(section.leds(), (std::vector<std::shared_ptr<ILed>>{led}));
    QCOMPARE(section.rgbLeds(), (std::vector<std::shared_ptr<IRgbLed>>{logo}));
    QCOMPARE(section.meters(), (std::vector<std::shared_ptr<IMeter>>{left, right}));
    // The accessors hand out the section's own lists, not copies.
    QCOMPARE(&section.faders(), &section.faders());
    QCOMPARE(&section.meters(), &section.meters());
}

void TestSection::versionReportIsStoredAndPassedToTheSectionInfo()
{
    RecordingSectionInfo info;
    auto section = emptySection(1, &info);

    QVERIFY(section->handleMessage(versionReport(0x22, 0x39)));

    QCOMPARE(section->version(), uint8_t(0x22));
    QCOMPARE(section->temperature(), uint8_t(0x39));
    QCOMPARE(info.calls, QStringList{"updateInfo 34 57"});
}

void TestSection::everyVersionReportIsPassedOnEvenWhenUnchanged()
{
    // The section does not filter; the model decides what changed.
    RecordingSectionInfo info;
    auto section = emptySection(0, &info);
    QVERIFY(section->handleMessage(versionReport(7, 40)));
    QVERIFY(section->handleMessage(versionReport(7, 40)));
    QVERIFY(section->handleMessage(versionReport(7, 41)));
    QCOMPARE(info.calls, (QStringList{"updateInfo 7 40", "updateInfo 7 40", "updateInfo 7 41"}));
    QCOMPARE(section->temperature(), uint8_t(41));
}

void TestSection::versionReportIsTakenWhateverItsDeviceId()
{
    RecordingSectionInfo info;
    auto section = emptySection(0, &info);
    QVERIFY(section->handleMessage(versionReport(3, 30, 9)));
    QCOMPARE(info.calls, QStringList{"updateInfo 3 30"});
}

void TestSection::otherMessageTypesAreNotTaken_data()
{
    QTest::addColumn<int>("type");
    for (int type = 1; type <= MessageType::NoMessage; ++type) {
        QTest::addRow("type %d", type) << type;
    }
}

void TestSection::otherMessageTypesAreNotTaken()
{
    QFETCH(int, type);
    RecordingSectionInfo info;
    auto section = emptySection(0, &info);
    QVERIFY(section->handleMessage(versionReport(5, 25)));
    info.calls.clear();

    SerialMessage message(static_cast<uint8_t>(type), 0, {10, 99, 99}, true);
    QVERIFY(!section->handleMessage(message));

    QCOMPARE(section->version(), uint8_t(5));
    QCOMPARE(section->temperature(), uint8_t(25));
    QVERIFY(info.calls.isEmpty());
}

void TestSection::shortVersionReportKeepsWhatWasKnown()
{
    RecordingSectionInfo info;
    auto section = emptySection(0, &info);
    QVERIFY(section->handleMessage(versionReport(12, 45)));

    // Only the version arrived: the temperature stays.
    QVERIFY(section->handleMessage(SerialMessage(MessageType::Ping, 0, {10, 13}, true)));
    QCOMPARE(section->version(), uint8_t(13));
    QCOMPARE(section->temperature(), uint8_t(45));

    // An empty report (the shape of the plugin's own ping) is still the section's and
    // changes nothing.
    QVERIFY(section->handleMessage(SerialMessage(MessageType::Ping, 0)));
    QCOMPARE(section->version(), uint8_t(13));
    QCOMPARE(section->temperature(), uint8_t(45));

    QCOMPARE(info.calls, (QStringList{"updateInfo 12 45", "updateInfo 13 45", "updateInfo 13 45"}));
}

void TestSection::sectionWithoutInformationModelTakesReportsAndIgnoresUpdates()
{
    auto section = emptySection(3, nullptr);
    QVERIFY(section->handleMessage(versionReport(0x22, 0x3a)));
    QCOMPARE(section->version(), uint8_t(0x22));
    QCOMPARE(section->temperature(), uint8_t(0x3a));
    section->setUpdating(true);
    section->setUpdateProgress(50);
    section->setUpdating(false);
    QCOMPARE(section->version(), uint8_t(0x22));
}

void TestSection::updatingAndProgressArePassedToTheSectionInfo()
{
    RecordingSectionInfo info;
    auto section = emptySection(1, &info);
    section->setUpdating(true);
    section->setUpdateProgress(0);
    section->setUpdateProgress(42);
    section->setUpdateProgress(250);
    section->setUpdating(false);
    section->setUpdating(false);
    // Passed as they come: clamping and de-duplication are the model's business.
    QCOMPARE(info.calls,
             (QStringList{"setUpdating true", "setUpdateProgress 0", "setUpdateProgress 42",
                          "setUpdateProgress 250", "setUpdating false", "setUpdating false"}));
}

void TestSection::restModeReachesEveryFaderInOrder()
{
    QStringList log;
    auto section =
        sectionWithFaders(2, nullptr,
                          {std::make_shared<RecordingFader>(2, 0, FaderType::Fader, &log),
                           std::make_shared<RecordingFader>(2, 1, FaderType::Fader, &log),
                           std::make_shared<RecordingFader>(2, 10, FaderType::MasterFader, &log)});

    section->setFaderRestMode(RestMode::KeepCurrent);
    section->setFaderRestMode(RestMode::ForceMinimum);

    QCOMPARE(log, (QStringList{"fader 2/0: setRestMode 1", "fader 2/1: setRestMode 1",
                               "fader 2/10: setRestMode 1", "fader 2/0: setRestMode 0",
                               "fader 2/1: setRestMode 0", "fader 2/10: setRestMode 0"}));
    section.reset();
}

void TestSection::linkReadyChangesNothing()
{
    QStringList log;
    RecordingSectionInfo info;
    auto section = sectionWithFaders(
        0, &info, {std::make_shared<RecordingFader>(0, 0, FaderType::Fader, &log)});
    section->setLinkReady(false);
    section->setLinkReady(true);
    // The faders hear the link through their own registration, not through the section.
    QVERIFY(log.isEmpty());
    QVERIFY(info.calls.isEmpty());
    QCOMPARE(section->version(), uint8_t(0));
    section.reset();
}

void TestSection::asLastHandlerItSeesOnlyReportsNoComponentTook()
{
    RecordingSectionInfo info;
    auto section = emptySection(0, &info);
    auto component = std::make_shared<FakeSerialMessageHandler>();
    component->setRule([](const SerialMessage& message) { return message.deviceId == 1; });
    RootSerialMessageHandler root;
    root.addHandler(component);
    root.addHandler(section);

    QVERIFY(root.handleMessage(versionReport(1, 1, 1)));
    QVERIFY(info.calls.isEmpty());
    QVERIFY(root.handleMessage(versionReport(2, 2, 0)));
    QCOMPARE(info.calls, QStringList{"updateInfo 2 2"});
    QVERIFY(!root.handleMessage(SerialMessage(MessageType::Echo, 0, {1})));
    QCOMPARE(component->offerCount(), 3);
}

QTEST_GUILESS_MAIN(TestSection)
#include "tst_section.moc"
