#include <QSignalSpy>
#include <QtTest>
#include <memory>

#include "base/logger.h"
#include "base/settings.h"
#include "serial/isectionconnection.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/serialmessage.h"
#include "serial/serialmessagequeue.h"
#include "support/fakesectionconnection.h"
#include "support/fakesectioninfoprovider.h"
#include "support/fakeserialconnection.h"
#include "support/fakeserialconnectionfactory.h"
#include "support/fakesettings.h"
#include "support/manualclock.h"
#include "support/recordingsectioninfo.h"
#include "surface/buttonhandle.h"
#include "surface/componentfactory.h"
#include "surface/connectionfactory.h"
#include "surface/ibutton.h"
#include "surface/iconnectionfactory.h"
#include "surface/ifader.h"
#include "surface/iled.h"
#include "surface/imeter.h"
#include "surface/ipot.h"
#include "surface/irgbled.h"
#include "surface/irotary.h"
#include "surface/isection.h"
#include "surface/isectionfactory.h"
#include "surface/sectionfactory.h"
#include "surface/surface.h"
#include "surface/surfacebuilder.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

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

// The console's settings as the real Settings gives them for a model, or the same answers
// from a FakeSettings.
std::shared_ptr<ISettings> settingsFor(bool real, uint8_t mode)
{
    if (real) {
        auto settings = std::make_shared<Settings>();
        settings->setMode(mode);
        settings->setDebugEnabled(false);
        return settings;
    }
    auto settings = std::make_shared<FakeSettings>();
    settings->setMode(mode);
    settings->setDebugEnabled(false);
    settings->setSectionCount(mode == 1 ? 2 : mode == 2 ? 3 : 0);
    settings->setMasterSectionIndex(mode == 1 ? 1 : mode == 2 ? 2 : 255);
    return settings;
}

// The real factories, as the surface service wires them, on fake serial lines.
struct Bench
{
    ManualClock clock{kStartNs};
    std::shared_ptr<ISettings> settings;
    std::shared_ptr<TaskPool> pool = std::make_shared<TaskPool>();
    std::shared_ptr<Logger> logger;
    RecordingSectionInfo infos[3];
    FakeSectionInfoProvider provider;
    std::shared_ptr<FakeSerialConnectionFactory::Record> lines;
    std::shared_ptr<Surface> surface;

    Bench(bool realSettings, uint8_t mode) : settings(settingsFor(realSettings, mode))
    {
        logger = std::make_shared<Logger>(settings);
        for (uint8_t i = 0; i < 3; ++i) {
            provider.set(i, &infos[i]);
        }
        auto serial = std::make_unique<FakeSerialConnectionFactory>();
        lines = serial->record();
        SectionFactory sections(&provider, std::make_unique<ComponentFactory>(pool));
        ConnectionFactory connections(std::move(serial), pool, logger);
        surface = SurfaceBuilder::build(settings, sections, connections);
    }

    FakeSerialConnection& line(std::size_t i) { return *lines->at(i).line; }

    // Opens every link and lets every section answer the bootloader probe as a running
    // application does.
    void startAndConnect()
    {
        surface->start();
        for (const auto& made : *lines) {
            made.line->pushData(QByteArray::fromHex("aa"));
            made.line->clearRecords();
        }
    }

    void pass()
    {
        clock.advanceMs(51);
        pool->runPendingTasks();
    }
};

// What the builder gives the factories, in call order.
struct BuildLog
{
    QStringList calls;
    std::vector<std::shared_ptr<ISerialMessageHandlerRepository>> repositories;
    std::vector<std::shared_ptr<ISerialMessageSender>> senders;
    std::vector<std::shared_ptr<ISerialMessageHandler>> roots;
    std::vector<std::shared_ptr<ISerialMessageQueue>> queues;
    std::vector<std::shared_ptr<ISettings>> settings;
};

class LoggingSectionFactory : public ISectionFactory
{
public:
    explicit LoggingSectionFactory(BuildLog& log) : m_log(log) {}
    std::shared_ptr<ISection> createSection(
        const std::shared_ptr<ISettings>& settings,
        const std::shared_ptr<ISerialMessageHandlerRepository>& handlers,
        const std::shared_ptr<ISerialMessageSender>& sender, uint8_t sectionIndex) override
    {
        m_log.calls << QStringLiteral("section %1").arg(sectionIndex);
        m_log.repositories.push_back(handlers);
        m_log.senders.push_back(sender);
        m_log.settings.push_back(settings);
        return m_inner.createSection(settings, handlers, sender, sectionIndex);
    }

private:
    BuildLog& m_log;
    SectionFactory m_inner{nullptr,
                           std::make_unique<ComponentFactory>(std::make_shared<TaskPool>())};
};

class LoggingConnectionFactory : public IConnectionFactory
{
public:
    LoggingConnectionFactory(BuildLog& log, bool makes) : m_log(log), m_makes(makes) {}
    std::shared_ptr<ISectionConnection> createConnection(
        uint8_t sectionIndex, const std::shared_ptr<ISerialMessageHandler>& rootHandler,
        const std::shared_ptr<ISerialMessageQueue>& queue,
        const std::shared_ptr<ISettings>& settings) override
    {
        m_log.calls << QStringLiteral("connection %1").arg(sectionIndex);
        m_log.roots.push_back(rootHandler);
        m_log.queues.push_back(queue);
        m_log.settings.push_back(settings);
        if (!m_makes) {
            return nullptr;
        }
        return std::make_shared<FakeSectionConnection>(sectionIndex);
    }

private:
    BuildLog& m_log;
    bool m_makes;
};

void addSettingsKinds()
{
    QTest::addColumn<bool>("realSettings");
    QTest::newRow("fake settings") << false;
    QTest::newRow("real settings") << true;
}

}  // namespace

class TestSurfaceBuilder : public QObject
{
    Q_OBJECT

private slots:
    void twoSectionConsoleHasOnlyItsMasterControlsOnSectionOne_data();
    void twoSectionConsoleHasOnlyItsMasterControlsOnSectionOne();
    void threeSectionConsoleHasItsMasterControlsOnSectionTwo_data();
    void threeSectionConsoleHasItsMasterControlsOnSectionTwo();
    void consoleWithoutModelBuildsNoSurface_data();
    void consoleWithoutModelBuildsNoSurface();
    void eachSectionIsBuiltThenItsConnectionInIndexOrder();
    void sectionAndConnectionShareOneRootAndOneQueue();
    void noConnectionMeansNoSurface();
    void surfaceHearsEveryBuiltConnection();
    void eachSectionTalksOnlyOverItsOwnLink();
    void versionReportReachesTheSectionsInformation();
};

void TestSurfaceBuilder::twoSectionConsoleHasOnlyItsMasterControlsOnSectionOne_data()
{
    addSettingsKinds();
}

void TestSurfaceBuilder::twoSectionConsoleHasOnlyItsMasterControlsOnSectionOne()
{
    QFETCH(bool, realSettings);
    Bench bench(realSettings, 1);
    QVERIFY(bench.surface);
    const auto& sections = bench.surface->sections();
    QCOMPARE(sections.size(), std::size_t(2));
    QCOMPARE(bench.surface->connections().size(), std::size_t(2));

    const ISection& strips = *sections[0];
    QCOMPARE(strips.index(), uint8_t(0));
    QCOMPARE(ids(strips.faders(), [](const IFader& f) { return f.deviceId(); }), range(0, 9));
    QCOMPARE(ids(strips.rotaries(), [](const IRotary& r) { return r.rotaryDeviceId(); }),
             range(0, 9));
    QCOMPARE(strips.buttons().size(), std::size_t(20));
    QCOMPARE(strips.leds().size(), std::size_t(20));
    QVERIFY(!strips.pot());
    QVERIFY(strips.meters().empty());
    QVERIFY(strips.rgbLeds().empty());

    const ISection& master = *sections[1];
    QCOMPARE(master.index(), uint8_t(1));
    QCOMPARE(ids(master.faders(), [](const IFader& f) { return f.deviceId(); }), range(0, 10));
    QCOMPARE(ids(master.rotaries(), [](const IRotary& r) { return r.rotaryDeviceId(); }),
             range(0, 15));
    QCOMPARE(master.buttons().size(), std::size_t(27));
    QCOMPARE(master.leds().size(), std::size_t(27));
    QVERIFY(master.pot());
    QCOMPARE(master.pot()->sectionIndex(), uint8_t(1));
    QCOMPARE(ids(master.meters(), [](const IMeter& m) { return m.deviceId(); }), range(0, 1));
    QCOMPARE(ids(master.rgbLeds(), [](const IRgbLed& l) { return l.deviceId(); }), range(16, 21));

    // The connections follow the sections' order.
    QCOMPARE(bench.surface->connections()[0]->sectionIndex(), uint8_t(0));
    QCOMPARE(bench.surface->connections()[1]->sectionIndex(), uint8_t(1));
}

void TestSurfaceBuilder::threeSectionConsoleHasItsMasterControlsOnSectionTwo_data()
{
    addSettingsKinds();
}

void TestSurfaceBuilder::threeSectionConsoleHasItsMasterControlsOnSectionTwo()
{
    QFETCH(bool, realSettings);
    Bench bench(realSettings, 2);
    QVERIFY(bench.surface);
    const auto& sections = bench.surface->sections();
    QCOMPARE(sections.size(), std::size_t(3));
    QCOMPARE(bench.surface->connections().size(), std::size_t(3));
    for (uint8_t i = 0; i < 3; ++i) {
        const ISection& section = *sections[i];
        const bool master = i == 2;
        QCOMPARE(section.index(), i);
        QCOMPARE(bench.surface->connections()[i]->sectionIndex(), i);
        QCOMPARE(ids(section.faders(), [](const IFader& f) { return f.deviceId(); }),
                 range(0, master ? 10 : 9));
        QCOMPARE(ids(section.rotaries(), [](const IRotary& r) { return r.rotaryDeviceId(); }),
                 range(0, master ? 15 : 9));
        QCOMPARE(section.buttons().size(), std::size_t(master ? 27 : 20));
        QCOMPARE(section.leds().size(), std::size_t(master ? 27 : 20));
        QCOMPARE(section.pot() != nullptr, master);
        QCOMPARE(section.meters().size(), std::size_t(master ? 2 : 0));
        QCOMPARE(section.rgbLeds().size(), std::size_t(master ? 6 : 0));
    }
    QCOMPARE(bench.lines->size(), std::size_t(3));
}

void TestSurfaceBuilder::consoleWithoutModelBuildsNoSurface_data()
{
    QTest::addColumn<bool>("realSettings");
    QTest::addColumn<int>("mode");
    QTest::newRow("fake settings, unknown") << false << 0;
    QTest::newRow("real settings, unknown") << true << 0;
    QTest::newRow("real settings, mode 3") << true << 3;
}

void TestSurfaceBuilder::consoleWithoutModelBuildsNoSurface()
{
    QFETCH(bool, realSettings);
    QFETCH(int, mode);
    Bench bench(realSettings, uint8_t(mode));
    QVERIFY(!bench.surface);
    QVERIFY(bench.lines->empty());
    QVERIFY(bench.provider.asked.empty());
    QCOMPARE(bench.pool->taskCount(), std::size_t(0));
}

void TestSurfaceBuilder::eachSectionIsBuiltThenItsConnectionInIndexOrder()
{
    BuildLog log;
    LoggingSectionFactory sections(log);
    LoggingConnectionFactory connections(log, true);
    const auto settings = settingsFor(false, 2);
    const auto surface = SurfaceBuilder::build(settings, sections, connections);
    QVERIFY(surface);
    QCOMPARE(log.calls, QStringList({"section 0", "connection 0", "section 1", "connection 1",
                                     "section 2", "connection 2"}));
    for (const auto& given : log.settings) {
        QCOMPARE(given, settings);
    }
}

void TestSurfaceBuilder::sectionAndConnectionShareOneRootAndOneQueue()
{
    BuildLog log;
    LoggingSectionFactory sections(log);
    LoggingConnectionFactory connections(log, true);
    const auto surface = SurfaceBuilder::build(settingsFor(false, 2), sections, connections);
    QCOMPARE(log.repositories.size(), std::size_t(3));
    for (std::size_t i = 0; i < 3; ++i) {
        // One RootSerialMessageHandler: the repository the section registers with is the
        // root the connection dispatches to.
        auto* root = dynamic_cast<RootSerialMessageHandler*>(log.roots[i].get());
        QVERIFY(root);
        QCOMPARE(static_cast<ISerialMessageHandlerRepository*>(root), log.repositories[i].get());
        // One SerialMessageQueue: what the components send is what the link drains.
        auto* queue = dynamic_cast<SerialMessageQueue*>(log.queues[i].get());
        QVERIFY(queue);
        QCOMPARE(static_cast<ISerialMessageSender*>(queue), log.senders[i].get());
        // The section registered its controls and itself there.
        QCOMPARE(root->handlerCount(), std::size_t(i == 2 ? 61 + 28 : 61));
        for (std::size_t j = 0; j < i; ++j) {
            QVERIFY(log.roots[j] != log.roots[i]);
            QVERIFY(log.queues[j] != log.queues[i]);
        }
    }
}

void TestSurfaceBuilder::noConnectionMeansNoSurface()
{
    BuildLog log;
    LoggingSectionFactory sections(log);
    LoggingConnectionFactory connections(log, false);
    const auto surface = SurfaceBuilder::build(settingsFor(false, 1), sections, connections);
    QVERIFY(!surface);
    // The sections were built all the same, each before its connection was asked for.
    QCOMPARE(log.calls, QStringList({"section 0", "connection 0", "section 1", "connection 1"}));
}

void TestSurfaceBuilder::surfaceHearsEveryBuiltConnection()
{
    Bench bench(true, 2);
    QSignalSpy changed(bench.surface.get(), &ISurface::isCalibratingChanged);
    bench.surface->start();
    // Connecting for each, then Connected for the one whose section answers the probe.
    QCOMPARE(changed.count(), 3);
    bench.line(1).pushData(QByteArray::fromHex("aa"));
    QCOMPARE(changed.count(), 4);
    QCOMPARE(bench.surface->connections()[1]->state(), uint8_t(ISectionConnection::Connected));

    bench.surface->calibrate();
    QVERIFY(bench.surface->isCalibrating());
    QCOMPARE(changed.count(), 5);
    // Calibration goes straight to the line, around the queue.
    QCOMPARE(bench.line(1).flushes().last(), QByteArray::fromHex("03030006"));
    QVERIFY(bench.line(0).flushes().isEmpty());
}

void TestSurfaceBuilder::eachSectionTalksOnlyOverItsOwnLink()
{
    Bench bench(false, 2);
    bench.startAndConnect();
    const auto& sections = bench.surface->sections();

    // A press of mute 3 on section 1 reaches section 1's button only.
    std::vector<std::shared_ptr<ButtonHandle>> handles;
    std::vector<std::unique_ptr<QSignalSpy>> presses;
    for (const auto& section : sections) {
        handles.push_back(section->buttons()[6]->getHandle());
        QCOMPARE(section->buttons()[6]->deviceId(), uint8_t(3));
        presses.push_back(
            std::make_unique<QSignalSpy>(handles.back().get(), &ButtonHandle::buttonPressed));
    }
    QVERIFY(bench.line(1).pushData(QByteArray::fromHex("041403011c")));
    QCOMPARE(presses[0]->count(), 0);
    QCOMPARE(presses[1]->count(), 1);
    QCOMPARE(presses[2]->count(), 0);

    // An LED of section 2 leaves on section 2's line only, with the next pass.
    sections[2]->leds()[0]->setOn(1);
    bench.pass();
    QCOMPARE(bench.line(2).flushes().size(), 2);
    QCOMPARE(bench.line(2).flushes()[1].left(6), QByteArray::fromHex("050b00ff000f"));
    for (std::size_t i : {std::size_t(0), std::size_t(1)}) {
        for (const SerialMessage& sent : bench.line(i).sentMessages()) {
            QVERIFY(sent.type != MessageType::Led);
        }
    }
}

void TestSurfaceBuilder::versionReportReachesTheSectionsInformation()
{
    Bench bench(false, 1);
    bench.startAndConnect();
    // Connecting and Connected: each state change tells the section it is not updating.
    QCOMPARE(bench.infos[1].calls, QStringList({"setUpdating false", "setUpdating false"}));
    bench.infos[0].calls.clear();
    bench.infos[1].calls.clear();
    QVERIFY(bench.line(1).pushData(QByteArray::fromHex("0600000a22386a")));
    QCOMPARE(bench.infos[1].calls, QStringList{"updateInfo 34 56"});
    QCOMPARE(bench.surface->sections()[1]->version(), uint8_t(34));
    QVERIFY(bench.infos[0].calls.isEmpty());
    QVERIFY(bench.infos[2].calls.isEmpty());
}

QTEST_GUILESS_MAIN(TestSurfaceBuilder)
#include "tst_surfacebuilder.moc"
