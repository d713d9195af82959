#include <QSignalSpy>
#include <QtTest>
#include <memory>

#include "qml/sectioninfomodel.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/serialmessage.h"
#include "support/fakesectioninfoprovider.h"
#include "support/fakesettings.h"
#include "support/manualclock.h"
#include "support/recordingcomponentfactory.h"
#include "support/recordinghandlerrepository.h"
#include "support/recordingsectioninfo.h"
#include "support/recordingsender.h"
#include "surface/componentfactory.h"
#include "surface/ibutton.h"
#include "surface/ifader.h"
#include "surface/iled.h"
#include "surface/imeter.h"
#include "surface/ipot.h"
#include "surface/irgbled.h"
#include "surface/irotary.h"
#include "surface/isection.h"
#include "surface/sectionfactory.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

// The handlers of one channel strip, in the order they are registered.
QStringList stripHandlers(int strip)
{
    return {
        QStringLiteral("fader 1 %1").arg(strip),    QStringLiteral("button 1 %1").arg(strip),
        QStringLiteral("led 1 %1").arg(strip),      QStringLiteral("button 2 %1").arg(strip + 10),
        QStringLiteral("led 2 %1").arg(strip + 10), QStringLiteral("rotary 1 %1").arg(strip)};
}

QStringList stripHandlers()
{
    QStringList all;
    for (int strip = 0; strip < 10; ++strip) {
        all << stripHandlers(strip);
    }
    return all;
}

// What only the master section registers, after its strips and before itself.
const QStringList kMasterHandlers{
    "fader 2 10",  "button 3 20", "led 3 20",    "button 8 42", "led 8 26",    "button 7 40",
    "led 7 24",    "button 5 39", "led 5 23",    "button 6 38", "led 6 22",    "button 10 41",
    "led 10 25",   "button 9 37", "led 9 21",    "rotary 2 10", "rotary 2 11", "rotary 2 12",
    "rotary 2 13", "rotary 2 14", "rotary 2 15", "pot 1 0",     "rgbled 3 16", "rgbled 4 17",
    "rgbled 5 18", "rgbled 6 19", "rgbled 7 20", "rgbled 8 21"};

QStringList stripCalls(int strip)
{
    return {QStringLiteral("createFader 1 %1").arg(strip),
            QStringLiteral("createLed 1 %1").arg(strip),
            QStringLiteral("createButton 1 %1").arg(strip),
            QStringLiteral("createLed 2 %1").arg(strip),
            QStringLiteral("createButton 2 %1").arg(strip),
            QStringLiteral("createRotary 1 %1").arg(strip)};
}

const QStringList kMasterCalls{
    "createFader 2 0",   "createLed 3 0",    "createButton 3 0", "createLed 8 0",
    "createButton 8 0",  "createLed 7 0",    "createButton 7 0", "createLed 5 0",
    "createButton 5 0",  "createLed 6 0",    "createButton 6 0", "createLed 10 0",
    "createButton 10 0", "createLed 9 0",    "createButton 9 0", "createRotary 2 0",
    "createRotary 2 1",  "createRotary 2 2", "createRotary 2 3", "createRotary 2 4",
    "createRotary 2 5",  "createPot 1 0",    "createMeter 1 0",  "createMeter 2 0",
    "createRgbLed 3 0",  "createRgbLed 4 0", "createRgbLed 5 0", "createRgbLed 6 0",
    "createRgbLed 7 0",  "createRgbLed 8 0"};

std::shared_ptr<FakeSettings> consoleSettings(uint8_t sections, uint8_t master)
{
    auto settings = std::make_shared<FakeSettings>();
    settings->setSectionCount(sections);
    settings->setMasterSectionIndex(master);
    return settings;
}

template <typename List, typename Id>
QList<int> ids(const List& list, Id idOf)
{
    QList<int> result;
    for (const auto& component : list) {
        result << int(idOf(*component));
    }
    return result;
}

QList<int> range(int first, int last)
{
    QList<int> result;
    for (int id = first; id <= last; ++id) {
        result << id;
    }
    return result;
}

struct Bench
{
    ManualClock clock{kStartNs};
    std::shared_ptr<TaskPool> pool = std::make_shared<TaskPool>();
    std::shared_ptr<RecordingSender> sender = std::make_shared<RecordingSender>();
    std::shared_ptr<RecordingHandlerRepository> handlers =
        std::make_shared<RecordingHandlerRepository>();
    FakeSectionInfoProvider provider;
    RecordingComponentFactory* components = nullptr;  // owned by the factory
    std::unique_ptr<SectionFactory> factory;

    explicit Bench(bool realComponents = true)
    {
        auto recording = std::make_unique<RecordingComponentFactory>(
            realComponents ? std::make_unique<ComponentFactory>(pool) : nullptr);
        components = recording.get();
        factory = std::make_unique<SectionFactory>(&provider, std::move(recording));
    }

    std::shared_ptr<ISection> create(const std::shared_ptr<FakeSettings>& settings, uint8_t index)
    {
        return factory->createSection(settings, handlers, sender, index);
    }
};

}  // namespace

class TestSectionFactory : public QObject
{
    Q_OBJECT

private slots:
    void stripSectionRegistersItsHandlersInOrder();
    void masterSectionRegistersItsHandlersInOrder();
    void stripSectionMakesItsComponentsInOrder();
    void masterSectionMakesItsComponentsInOrder();
    void everyComponentIsMadeForTheSectionAndItsSender();
    void sectionListsHoldWhatWasMadeInOrder();
    void stripSectionHasNoMasterControls();
    void noMasterSectionWhenTheConsoleHasNone();
    void loopsFollowTheSettingsCounts();
    void controlsThatDoNotExistAreLeftOut();
    void sectionGetsTheInformationModelOfItsIndex();
    void sectionThreeWithoutAModelToleratesAVersionReport();
    void factoryWithoutProviderMakesSectionsWithoutModels();
};

void TestSectionFactory::stripSectionRegistersItsHandlersInOrder()
{
    Bench bench;
    const auto section = bench.create(consoleSettings(3, 2), 0);
    QCOMPARE(bench.handlers->descriptions(), stripHandlers() << "section 0");
    QCOMPARE(bench.handlers->handlers.back().get(),
             dynamic_cast<ISerialMessageHandler*>(section.get()));
}

void TestSectionFactory::masterSectionRegistersItsHandlersInOrder()
{
    // Of each LED and switch pair the switch is registered first; the meters take no
    // messages and are not registered; the section comes last, after every control.
    Bench bench;
    const auto section = bench.create(consoleSettings(3, 2), 2);
    QCOMPARE(bench.handlers->descriptions(), stripHandlers() << kMasterHandlers << "section 2");
}

void TestSectionFactory::stripSectionMakesItsComponentsInOrder()
{
    // Of each LED and switch pair the LED is made first.
    Bench bench;
    const auto section = bench.create(consoleSettings(2, 1), 0);
    QStringList expected;
    for (int strip = 0; strip < 10; ++strip) {
        expected << stripCalls(strip);
    }
    QCOMPARE(bench.components->calls, expected);
}

void TestSectionFactory::masterSectionMakesItsComponentsInOrder()
{
    Bench bench;
    const auto section = bench.create(consoleSettings(2, 1), 1);
    QStringList expected;
    for (int strip = 0; strip < 10; ++strip) {
        expected << stripCalls(strip);
    }
    expected << kMasterCalls;
    QCOMPARE(bench.components->calls, expected);
}

void TestSectionFactory::everyComponentIsMadeForTheSectionAndItsSender()
{
    Bench bench;
    const auto section = bench.create(consoleSettings(3, 2), 2);
    QCOMPARE(bench.components->sections.size(), std::size_t(10 * 6 + 30));
    for (std::size_t i = 0; i < bench.components->sections.size(); ++i) {
        QCOMPARE(bench.components->sections[i], uint8_t(2));
        QCOMPARE(bench.components->senders[i].get(),
                 static_cast<ISerialMessageSender*>(bench.sender.get()));
    }
    for (const auto& fader : section->faders()) {
        QCOMPARE(fader->sectionIndex(), uint8_t(2));
    }
    QCOMPARE(section->pot()->sectionIndex(), uint8_t(2));
}

void TestSectionFactory::sectionListsHoldWhatWasMadeInOrder()
{
    Bench bench;
    const auto section = bench.create(consoleSettings(2, 1), 1);
    QCOMPARE(section->index(), uint8_t(1));
    QCOMPARE(ids(section->faders(), [](const IFader& f) { return f.deviceId(); }), range(0, 10));
    QList<int> stripPairs;
    for (int strip = 0; strip < 10; ++strip) {
        stripPairs << strip << strip + 10;
    }
    QCOMPARE(ids(section->buttons(), [](const IButton& b) { return b.deviceId(); }),
             QList<int>(stripPairs) << 20 << 42 << 40 << 39 << 38 << 41 << 37);
    QCOMPARE(ids(section->leds(), [](const ILed& l) { return l.deviceId(); }),
             QList<int>(stripPairs) << 20 << 26 << 24 << 23 << 22 << 25 << 21);
    QCOMPARE(ids(section->rotaries(), [](const IRotary& r) { return r.rotaryDeviceId(); }),
             range(0, 15));
    QCOMPARE(ids(section->rgbLeds(), [](const IRgbLed& l) { return l.deviceId(); }), range(16, 21));
    QCOMPARE(ids(section->meters(), [](const IMeter& m) { return m.deviceId(); }), range(0, 1));
    QVERIFY(section->pot());
    QCOMPARE(section->pot()->potType(), PotType::Headphone);
}

void TestSectionFactory::stripSectionHasNoMasterControls()
{
    Bench bench;
    const auto section = bench.create(consoleSettings(2, 1), 0);
    QCOMPARE(ids(section->faders(), [](const IFader& f) { return f.deviceId(); }), range(0, 9));
    QCOMPARE(ids(section->rotaries(), [](const IRotary& r) { return r.rotaryDeviceId(); }),
             range(0, 9));
    QCOMPARE(section->buttons().size(), std::size_t(20));
    QCOMPARE(section->leds().size(), std::size_t(20));
    QVERIFY(section->rgbLeds().empty());
    QVERIFY(section->meters().empty());
    QVERIFY(!section->pot());
}

void TestSectionFactory::noMasterSectionWhenTheConsoleHasNone()
{
    Bench bench;
    const auto settings = consoleSettings(3, 255);
    for (uint8_t index = 0; index < 3; ++index) {
        const auto section = bench.create(settings, index);
        QCOMPARE(section->faders().size(), std::size_t(10));
        QVERIFY(!section->pot());
    }
}

void TestSectionFactory::loopsFollowTheSettingsCounts()
{
    Bench bench;
    auto settings = consoleSettings(1, 0);
    settings->setStripCount(2);
    settings->setMasterStripCount(2);
    settings->setSideRotaryCount(1);
    const auto section = bench.create(settings, 0);
    QStringList expected = stripCalls(0) << stripCalls(1);
    expected << "createFader 2 0"
             << "createLed 3 0"
             << "createButton 3 0"
             << "createFader 2 1"
             << "createLed 3 1"
             << "createButton 3 1";
    expected << kMasterCalls.mid(3, 12) << "createRotary 2 0" << kMasterCalls.mid(21);
    QCOMPARE(bench.components->calls, expected);
    // The master fader has id 10 whatever its index.
    QCOMPARE(ids(section->faders(), [](const IFader& f) { return f.deviceId(); }),
             (QList<int>{0, 1, 10, 10}));
}

void TestSectionFactory::controlsThatDoNotExistAreLeftOut()
{
    // A component factory that finds no device for anything: every call is still made, in
    // order, and only the section itself is registered.
    Bench bench(false);
    const auto section = bench.create(consoleSettings(2, 1), 1);
    QCOMPARE(bench.components->calls.size(), 10 * 6 + 30);
    QCOMPARE(bench.handlers->descriptions(), QStringList{"section 1"});
    QVERIFY(section->faders().empty());
    QVERIFY(section->buttons().empty());
    QVERIFY(section->rotaries().empty());
    QVERIFY(section->leds().empty());
    QVERIFY(section->rgbLeds().empty());
    QVERIFY(section->meters().empty());
    QVERIFY(!section->pot());
}

void TestSectionFactory::sectionGetsTheInformationModelOfItsIndex()
{
    Bench bench;
    RecordingSectionInfo first;
    RecordingSectionInfo second;
    bench.provider.set(0, &first);
    bench.provider.set(1, &second);
    const auto section = bench.create(consoleSettings(2, 1), 1);
    QCOMPARE(bench.provider.asked, std::vector<uint8_t>{1});

    auto* handler = dynamic_cast<ISerialMessageHandler*>(section.get());
    QVERIFY(handler->handleMessage(SerialMessage(MessageType::Ping, 0, {10, 34, 56}, true)));
    section->setUpdating(true);
    QVERIFY(first.calls.isEmpty());
    QCOMPARE(second.calls, (QStringList{"updateInfo 34 56", "setUpdating true"}));
}

void TestSectionFactory::sectionThreeWithoutAModelToleratesAVersionReport()
{
    // The surface service has models for sections 0 to 2 only; a fourth section gets none
    // and must still take its version report.
    Bench bench;
    SectionInfoModel models[] = {SectionInfoModel(0, nullptr), SectionInfoModel(1, nullptr),
                                 SectionInfoModel(2, nullptr)};
    for (auto& model : models) {
        bench.provider.set(uint8_t(model.index()), &model);
    }
    QSignalSpy versions(&models[0], &SectionInfoModel::versionChanged);
    auto root = std::make_shared<RootSerialMessageHandler>();
    const auto section = bench.factory->createSection(consoleSettings(4, 3), root, bench.sender, 3);
    QCOMPARE(bench.provider.asked, std::vector<uint8_t>{3});

    QVERIFY(root->handleMessage(SerialMessage(MessageType::Ping, 0, {10, 34, 58}, true)));
    QCOMPARE(section->version(), uint8_t(34));
    QCOMPARE(section->temperature(), uint8_t(58));
    section->setUpdating(true);
    section->setUpdateProgress(40);
    for (const auto& model : models) {
        QCOMPARE(model.version(), 0);
        QCOMPARE(model.updating(), false);
        QCOMPARE(model.updateProgress(), 0);
    }
    QCOMPARE(versions.count(), 0);
}

void TestSectionFactory::factoryWithoutProviderMakesSectionsWithoutModels()
{
    ManualClock clock(kStartNs);
    auto pool = std::make_shared<TaskPool>();
    SectionFactory factory(nullptr, std::make_unique<ComponentFactory>(pool));
    auto root = std::make_shared<RootSerialMessageHandler>();
    const auto section =
        factory.createSection(consoleSettings(2, 1), root, std::make_shared<RecordingSender>(), 0);
    QVERIFY(root->handleMessage(SerialMessage(MessageType::Ping, 0, {10, 9, 8}, true)));
    QCOMPARE(section->version(), uint8_t(9));
    QCOMPARE(root->handlerCount(), std::size_t(10 * 6 + 1));
}

QTEST_GUILESS_MAIN(TestSectionFactory)
#include "tst_sectionfactory.moc"
