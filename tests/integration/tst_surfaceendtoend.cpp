// The whole surface model end to end: a worksurface built by the surface builder from the
// real factories, with its sections' bytes going through the real parser, dispatch and
// components to the handles and the section information models, and back out through the
// queues and the section links.
//
// Over the in-process software link everything is synchronous: the manual clock stands
// still unless the test moves it and the task pool runs only when the test ticks it.
// Over ptys (one simulated section per pty, opened by the hardware serial connections
// through the serial-port override) the tests wait for the real I/O, but the pool's ticks
// and the clock are still the test's.

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>
#include <vector>

#include "base/logger.h"
#include "base/settings.h"
#include "qml/sectioninfomodel.h"
#include "serial/isectionconnection.h"
#include "serial/serialconnectionfactory.h"
#include "serial/serialmessage.h"
#include "software/qmlcontrollerconnection.h"
#include "support/fakesectioninfoprovider.h"
#include "support/fakesoftwarehandler.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/ptysectionsimulator.h"
#include "support/softwaresurfacefixture.h"
#include "surface/componentfactory.h"
#include "surface/connectionfactory.h"
#include "surface/faderhandle.h"
#include "surface/ifader.h"
#include "surface/iled.h"
#include "surface/isection.h"
#include "surface/sectionfactory.h"
#include "surface/surface.h"
#include "surface/surfacebuilder.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kTimeout = 5000;
constexpr uint8_t kHardware = 0;
constexpr const char* kPortsVariable = "TARVIX_WORKSURFACE_SERIAL_PORTS";

// The surface service's three section information models and its provider face, which
// has no model for a fourth section.
struct InfoModels
{
    SectionInfoModel first{0, nullptr};
    SectionInfoModel second{1, nullptr};
    SectionInfoModel third{2, nullptr};
    FakeSectionInfoProvider provider;

    InfoModels()
    {
        provider.set(0, &first);
        provider.set(1, &second);
        provider.set(2, &third);
    }

    SectionInfoModel& operator[](int section)
    {
        return section == 0 ? first : section == 1 ? second : third;
    }
};

// The messages the plugin sent to one device of one section, as the simulated sections
// heard them.
std::vector<SerialMessage> sentTo(const FakeSoftwareHandler& sections, uint8_t section,
                                  uint8_t type, uint8_t deviceId)
{
    std::vector<SerialMessage> result;
    for (const auto& offer : sections.offers()) {
        if (offer.sectionIndex == section && offer.message.type == type &&
            offer.message.deviceId == deviceId) {
            result.push_back(offer.message);
        }
    }
    return result;
}

// A hardware console whose sections are played by pty simulators: the real settings in
// hardware mode, the serial-port override pointing each section at its simulator's slave.
struct PtyConsole
{
    ManualClock clock{kStartNs};
    std::shared_ptr<Settings> settings = std::make_shared<Settings>();
    std::shared_ptr<Logger> logger = std::make_shared<Logger>(settings);
    std::shared_ptr<TaskPool> pool = std::make_shared<TaskPool>();
    std::shared_ptr<QmlControllerConnection> controller =
        std::make_shared<QmlControllerConnection>();
    InfoModels models;
    std::vector<std::unique_ptr<PtySectionSimulator>> sections;
    std::shared_ptr<Surface> surface;

    // The simulators are made first; build() then builds the surface on their ptys.
    explicit PtyConsole(uint8_t mode)
    {
        settings->setType(kHardware);
        settings->setMode(mode);
        for (uint8_t i = 0; i < settings->sectionCount(); ++i) {
            sections.push_back(std::make_unique<PtySectionSimulator>());
        }
    }

    bool simulatorsOpen() const
    {
        for (const auto& section : sections) {
            if (!section->isOpen()) {
                return false;
            }
        }
        return true;
    }

    void build()
    {
        QStringList ports;
        for (const auto& section : sections) {
            ports << section->slavePath();
        }
        const QByteArray previous = qgetenv(kPortsVariable);
        const bool hadPrevious = qEnvironmentVariableIsSet(kPortsVariable);
        qputenv(kPortsVariable, ports.join(QLatin1Char(',')).toLocal8Bit());
        SectionFactory sectionFactory(&models.provider, std::make_unique<ComponentFactory>(pool));
        ConnectionFactory connectionFactory(
            std::make_unique<SerialConnectionFactory>(settings, controller), pool, logger);
        surface = SurfaceBuilder::build(settings, sectionFactory, connectionFactory);
        if (hadPrevious) {
            qputenv(kPortsVariable, previous);
        } else {
            qunsetenv(kPortsVariable);
        }
    }

    uint8_t state(std::size_t section) const { return surface->connections()[section]->state(); }

    bool allConnected() const
    {
        for (const auto& connection : surface->connections()) {
            if (connection->state() != ISectionConnection::Connected) {
                return false;
            }
        }
        return true;
    }

    // One 50 ms pass of every periodic task.
    void pass()
    {
        clock.advanceMs(51);
        pool->runPendingTasks();
    }
};

}  // namespace

class TestSurfaceEndToEnd : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // Software link
    void startBringsEveryLinkUpThroughTheBootloaderProbe_data();
    void startBringsEveryLinkUpThroughTheBootloaderProbe();
    void faderMoveReportedBySectionReachesTheFaderHandle_data();
    void faderMoveReportedBySectionReachesTheFaderHandle();
    void positionsSetOnTheHandleLeaveCoalescedOnTheNextPass_data();
    void positionsSetOnTheHandleLeaveCoalescedOnTheNextPass();
    void versionReportUpdatesTheSectionInformation_data();
    void versionReportUpdatesTheSectionInformation();

    // Pty link
    void ptyLinksComeUpAndAFaderMoveArrives();
    void ptyLedDriveLeavesTheLineOnTheNextPass();
    void ptyFirmwareUpdateShowsUpdatingThenEndsAtHundredPercent();

private:
    static void addModels();
    QByteArray m_savedHome;
};

void TestSurfaceEndToEnd::init()
{
    m_savedHome = qgetenv("HOME");
}

void TestSurfaceEndToEnd::cleanup()
{
    qputenv("HOME", m_savedHome);
}

void TestSurfaceEndToEnd::addModels()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("master");
    QTest::newRow("two sections") << 1 << 1;
    QTest::newRow("three sections") << 2 << 2;
}

// ---- software link --------------------------------------------------------------------

void TestSurfaceEndToEnd::startBringsEveryLinkUpThroughTheBootloaderProbe_data()
{
    addModels();
}

void TestSurfaceEndToEnd::startBringsEveryLinkUpThroughTheBootloaderProbe()
{
    QFETCH(int, mode);
    ManualClock clock(kStartNs);
    LogCapture log;
    SoftwareSurfaceFixture console(clock, uint8_t(mode));
    const auto& connections = console.surface().connections();
    QCOMPARE(int(connections.size()), mode + 1);
    for (const auto& connection : connections) {
        QCOMPARE(connection->state(), uint8_t(ISectionConnection::Closed));
    }

    console.start();

    // Each link probed for the bootloader (AutoBaud) and the simulated section answered
    // NotBootLoader at once: the application runs, the link is up.
    for (const auto& connection : connections) {
        QCOMPARE(connection->state(), uint8_t(ISectionConnection::Connected));
    }
    QCOMPARE(log.count(QtInfoMsg, "WS UPDATER: Received not in bootloader. Finished updating"),
             mode + 1);
    QCOMPARE(log.texts(QtWarningMsg), QStringList());
    QCOMPARE(log.texts(QtCriticalMsg), QStringList());
    // The probe is not a section message: no simulated control heard anything.
    QCOMPARE(console.sectionSide().offerCount(), 0);
}

void TestSurfaceEndToEnd::faderMoveReportedBySectionReachesTheFaderHandle_data()
{
    addModels();
}

void TestSurfaceEndToEnd::faderMoveReportedBySectionReachesTheFaderHandle()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    ManualClock clock(kStartNs);
    SoftwareSurfaceFixture console(clock, uint8_t(mode));
    console.start();

    const auto strip = console.surface().fader(1, 0, 3);
    const auto masterFader = console.surface().fader(2, master, 0);
    QVERIFY(strip && masterFader);
    const auto stripHandle = strip->getHandle();
    const auto masterHandle = masterFader->getHandle();
    QSignalSpy stripMoves(stripHandle.get(), &FaderHandle::faderMoved);
    QSignalSpy masterMoves(masterHandle.get(), &FaderHandle::faderMoved);

    console.sendToPlugin(0, MessageType::FaderPosition, 3, {0x01, 0x2c});
    console.sendToPlugin(uint8_t(master), MessageType::FaderPosition, 10, {0x01, 0xff});
    // The same strip number on another section is another fader.
    console.sendToPlugin(1, MessageType::FaderPosition, 3, {0x00, 0x05});

    QCOMPARE(stripMoves.count(), 1);
    QCOMPARE(stripMoves.at(0).at(0).value<quint16>(), quint16(300));
    QCOMPARE(masterMoves.count(), 1);
    QCOMPARE(masterMoves.at(0).at(0).value<quint16>(), quint16(511));
}

void TestSurfaceEndToEnd::positionsSetOnTheHandleLeaveCoalescedOnTheNextPass_data()
{
    addModels();
}

void TestSurfaceEndToEnd::positionsSetOnTheHandleLeaveCoalescedOnTheNextPass()
{
    QFETCH(int, mode);
    QFETCH(int, master);
    ManualClock clock(kStartNs);
    SoftwareSurfaceFixture console(clock, uint8_t(mode));
    console.start();
    const auto fader = console.surface().fader(1, master, 3);
    const auto handle = fader->getHandle();
    // Past the start-up: the unbound faders are parked, every queue is drained.
    console.runForMs(300);
    console.sectionSide().clear();

    emit handle->internalSendFaderPosition(400);
    emit handle->internalSendFaderPosition(450);
    QCoreApplication::sendPostedEvents();
    QVERIFY(sentTo(console.sectionSide(), uint8_t(master), MessageType::FaderPosition, 3).empty());

    console.drain();

    const auto sent = sentTo(console.sectionSide(), uint8_t(master), MessageType::FaderPosition, 3);
    QCOMPARE(sent.size(), std::size_t(1));
    QCOMPARE(encode(sent[0]), QByteArray::fromHex("05070301c2d2"));
    // Nothing for the same strip of the other sections.
    for (int section = 0; section < mode + 1; ++section) {
        if (section != master) {
            QVERIFY(sentTo(console.sectionSide(), uint8_t(section), MessageType::FaderPosition, 3)
                        .empty());
        }
    }
}

void TestSurfaceEndToEnd::versionReportUpdatesTheSectionInformation_data()
{
    addModels();
}

void TestSurfaceEndToEnd::versionReportUpdatesTheSectionInformation()
{
    QFETCH(int, mode);
    ManualClock clock(kStartNs);
    InfoModels models;
    SoftwareSurfaceFixture console(clock, uint8_t(mode), &models.provider);
    const int sections = mode + 1;
    console.start();

    // The first pass pings every section; each simulated section answers with version 34
    // and a temperature of 55 plus its index.
    console.drain();
    for (int section = 0; section < sections; ++section) {
        QCOMPARE(models[section].version(), 34);
        QCOMPARE(models[section].temperature(), 55 + section);
        QCOMPARE(int(console.surface().sections()[std::size_t(section)]->version()), 34);
    }
    if (sections == 2) {
        QCOMPARE(models[2].version(), 0);
    }

    // A report with other values, from the last section only.
    const int last = sections - 1;
    QSignalSpy versions(&models[last], &SectionInfoModel::versionChanged);
    QSignalSpy temperatures(&models[last], &SectionInfoModel::temperatureChanged);
    console.controller().sendToPlugin(uint8_t(last),
                                      SerialMessage(MessageType::Ping, 0, {10, 7, 40}, true));
    QCOMPARE(models[last].version(), 7);
    QCOMPARE(models[last].temperature(), 40);
    QCOMPARE(versions.count(), 1);
    QCOMPARE(temperatures.count(), 1);
    QCOMPARE(models[0].version(), 34);
}

// ---- pty link ---------------------------------------------------------------------------

void TestSurfaceEndToEnd::ptyLinksComeUpAndAFaderMoveArrives()
{
    PtyConsole console(1);
    QVERIFY(console.simulatorsOpen());
    console.build();
    QVERIFY(console.surface);

    console.surface->start();
    QTRY_VERIFY_WITH_TIMEOUT(console.allConnected(), kTimeout);
    for (const auto& section : console.sections) {
        QCOMPARE(section->commandCount(0x55), 1);
    }

    const auto fader = console.surface->fader(1, 0, 3);
    const auto handle = fader->getHandle();
    QSignalSpy moves(handle.get(), &FaderHandle::faderMoved);
    const auto masterHandle = console.surface->fader(2, 1, 0)->getHandle();
    QSignalSpy masterMoves(masterHandle.get(), &FaderHandle::faderMoved);

    console.sections[0]->sendFaderPosition(3, 300);
    QTRY_COMPARE_WITH_TIMEOUT(moves.count(), 1, kTimeout);
    QCOMPARE(moves.at(0).at(0).value<quint16>(), quint16(300));
    console.sections[1]->sendFaderPosition(10, 12);
    QTRY_COMPARE_WITH_TIMEOUT(masterMoves.count(), 1, kTimeout);
    QCOMPARE(masterMoves.at(0).at(0).value<quint16>(), quint16(12));
    QCOMPARE(moves.count(), 1);
}

void TestSurfaceEndToEnd::ptyLedDriveLeavesTheLineOnTheNextPass()
{
    PtyConsole console(1);
    QVERIFY(console.simulatorsOpen());
    console.build();
    console.surface->start();
    QTRY_VERIFY_WITH_TIMEOUT(console.allConnected(), kTimeout);
    for (const auto& section : console.sections) {
        section->clearReceived();
    }

    // Mute LED 2 of the master section: device 2, full brightness.
    console.surface->led(1, 1, 2)->setOn(1);
    QTest::qWait(20);
    QVERIFY(console.sections[1]->receivedMessages(MessageType::Led).isEmpty());

    console.pass();

    QTRY_VERIFY_WITH_TIMEOUT(!console.sections[1]->receivedMessages(MessageType::Led).isEmpty(),
                             kTimeout);
    QCOMPARE(console.sections[1]->receivedMessages(MessageType::Led),
             QList<SerialMessage>{SerialMessage(MessageType::Led, 2, {0xff, 0x00})});
    QVERIFY(console.sections[1]->receivedBytes().contains(QByteArray::fromHex("050b02ff0011")));
    QVERIFY(console.sections[0]->receivedMessages(MessageType::Led).isEmpty());

    // The pass also pinged; the sections' version reports reach their models.
    QTRY_COMPARE_WITH_TIMEOUT(console.models[1].version(), 0x22, kTimeout);
    QCOMPARE(console.models[1].temperature(), 0x28);
    QTRY_COMPARE_WITH_TIMEOUT(console.models[0].version(), 0x22, kTimeout);
}

void TestSurfaceEndToEnd::ptyFirmwareUpdateShowsUpdatingThenEndsAtHundredPercent()
{
    QTemporaryDir home;
    QVERIFY(home.isValid());
    QVERIFY(QDir(home.path()).mkpath(QStringLiteral(".firmware")));
    QByteArray image(200, '\0');
    for (int i = 0; i < image.size(); ++i) {
        image[i] = char(i * 7 + 1);
    }
    QFile file(home.path() + QStringLiteral("/.firmware/worksurface.bin"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(image), qint64(image.size()));
    file.close();
    qputenv("HOME", QFile::encodeName(home.path()));

    LogCapture log;
    PtyConsole console(1);
    QVERIFY(console.simulatorsOpen());
    // The master section's microcontroller sits in its serial bootloader.
    console.sections[1]->setMode(PtySectionSimulator::Mode::Bootloader);
    console.build();
    SectionInfoModel& model = console.models[1];
    QList<bool> updating;
    QList<int> progress;
    connect(&model, &SectionInfoModel::updatingChanged, this,
            [&] { updating << model.updating(); });
    connect(&model, &SectionInfoModel::updateProgressChanged, this,
            [&] { progress << model.updateProgress(); });

    console.surface->start();

    // The image goes down in four 64-byte blocks; the microcontroller is reset at the end.
    QTRY_VERIFY_WITH_TIMEOUT(
        log.contains(QtDebugMsg,
                     "WS UPDATER: Reset acknowledged register task for sending AutoBaud."),
        kTimeout);
    QCOMPARE(updating, (QList<bool>{true, false}));
    QCOMPARE(progress, (QList<int>{32, 64, 96, 100}));
    QCOMPARE(model.updateProgress(), 100);
    QCOMPARE(console.sections[1]->image(), image + QByteArray(56, '\xff'));
    QCOMPARE(console.sections[1]->mode(), PtySectionSimulator::Mode::Application);
    QCOMPARE(console.state(1), uint8_t(ISectionConnection::Connecting));
    // The other section was never touched by the update.
    QCOMPARE(console.state(0), uint8_t(ISectionConnection::Connected));
    QCOMPARE(console.models[0].updating(), false);
    QCOMPARE(console.models[0].updateProgress(), 0);

    // A second later the updater asks again; the application answers, the link comes up.
    console.clock.advanceMs(1001);
    console.pool->runPendingTasks();
    QTRY_COMPARE_WITH_TIMEOUT(console.state(1), uint8_t(ISectionConnection::Connected), kTimeout);
    QCOMPARE(updating, (QList<bool>{true, false}));
    QCOMPARE(model.updating(), false);
    QCOMPARE(model.updateProgress(), 100);
    QCOMPARE(console.sections[1]->commandCount(0x55), 2);
    QCOMPARE(log.texts(QtCriticalMsg), QStringList());
}

QTEST_GUILESS_MAIN(TestSurfaceEndToEnd)
#include "tst_surfaceendtoend.moc"
