#include <QtTest>
#include <memory>

#include "base/logger.h"
#include "serial/isectionconnection.h"
#include "serial/iserialdatareceiver.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/sectionconnection.h"
#include "serial/serialmessage.h"
#include "serial/serialmessagequeue.h"
#include "support/fakeserialconnection.h"
#include "support/fakeserialconnectionfactory.h"
#include "support/fakeserialmessagehandler.h"
#include "support/fakesettings.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/recordingstatelistener.h"
#include "support/serialframes.h"
#include "surface/connectionfactory.h"
#include "tasks/taskpool.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

struct Bench
{
    ManualClock clock{kStartNs};
    std::shared_ptr<FakeSettings> settings = std::make_shared<FakeSettings>();
    std::shared_ptr<Logger> logger = std::make_shared<Logger>(settings);
    std::shared_ptr<TaskPool> pool = std::make_shared<TaskPool>();
    std::shared_ptr<FakeSerialConnectionFactory::Record> lines;
    std::unique_ptr<ConnectionFactory> factory;
    std::shared_ptr<RootSerialMessageHandler> root = std::make_shared<RootSerialMessageHandler>();
    std::shared_ptr<SerialMessageQueue> queue = std::make_shared<SerialMessageQueue>();

    Bench()
    {
        settings->setSectionCount(3);
        settings->setMasterSectionIndex(2);
        auto serial = std::make_unique<FakeSerialConnectionFactory>();
        lines = serial->record();
        factory = std::make_unique<ConnectionFactory>(std::move(serial), pool, logger);
    }

    std::shared_ptr<ISectionConnection> create(uint8_t section)
    {
        return factory->createConnection(section, root, queue, settings);
    }

    FakeSerialConnection& line(std::size_t i = 0) { return *lines->at(i).line; }

    // One 50 ms supervision pass.
    void pass()
    {
        clock.advanceMs(51);
        pool->runPendingTasks();
    }
};

}  // namespace

class TestConnectionFactory : public QObject
{
    Q_OBJECT

private slots:
    void asksForTheSectionsSerialLineWithTheSettings();
    void makesASectionConnectionThatIsClosed();
    void lineDeliversItsBytesToTheSectionConnection();
    void openingProbesForTheBootloaderThroughTheLine();
    void answerToTheProbeBringsTheLinkUp();
    void receivedMessagesReachTheRootHandler();
    void queueIsDrainedOntoTheLineByATaskOnThePool();
    void updaterReadsTheFirmwarePathFromTheSettings();
    void linkLogsThroughTheSharedLogger();
    void everySectionGetsItsOwnLine();
};

void TestConnectionFactory::asksForTheSectionsSerialLineWithTheSettings()
{
    Bench bench;
    const auto connection = bench.create(2);
    QCOMPARE(bench.lines->size(), std::size_t(1));
    QCOMPARE(bench.lines->at(0).sectionIndex, uint8_t(2));
    QCOMPARE(bench.lines->at(0).settings.get(), static_cast<ISettings*>(bench.settings.get()));
}

void TestConnectionFactory::makesASectionConnectionThatIsClosed()
{
    Bench bench;
    const auto connection = bench.create(2);
    QVERIFY(dynamic_cast<SectionConnection*>(connection.get()));
    QCOMPARE(connection->sectionIndex(), uint8_t(2));
    QCOMPARE(connection->state(), uint8_t(ISectionConnection::Closed));
    QCOMPARE(bench.line().openCount(), 0);
    QCOMPARE(bench.pool->taskCount(), std::size_t(0));
}

void TestConnectionFactory::lineDeliversItsBytesToTheSectionConnection()
{
    Bench bench;
    const auto connection = bench.create(1);
    QCOMPARE(bench.line().dataReceiver(),
             static_cast<ISerialDataReceiver*>(dynamic_cast<SectionConnection*>(connection.get())));
}

void TestConnectionFactory::openingProbesForTheBootloaderThroughTheLine()
{
    Bench bench;
    RecordingStateListener listener;
    const auto connection = bench.create(0);
    connection->setStateListener(&listener);

    connection->open();

    QCOMPARE(bench.line().openCount(), 1);
    QVERIFY(bench.line().isOpen());
    QCOMPARE(bench.line().rawPackets(),
             std::vector<BootloaderPacket>{BootloaderPacket(BootloaderCommand::AutoBaud)});
    QCOMPARE(connection->state(), uint8_t(ISectionConnection::Connecting));
    QCOMPARE(listener.states(), std::vector<uint8_t>{ISectionConnection::Connecting});
    // The supervision pass runs on the pool the factory was given.
    QCOMPARE(bench.pool->taskCount(), std::size_t(1));
}

void TestConnectionFactory::answerToTheProbeBringsTheLinkUp()
{
    Bench bench;
    LogCapture log;
    RecordingStateListener listener;
    const auto connection = bench.create(0);
    connection->setStateListener(&listener);
    connection->open();

    QVERIFY(bench.line().pushData(QByteArray::fromHex("aa")));

    QCOMPARE(connection->state(), uint8_t(ISectionConnection::Connected));
    QCOMPARE(listener.states(),
             (std::vector<uint8_t>{ISectionConnection::Connecting, ISectionConnection::Connected}));
    QCOMPARE(log.texts(QtInfoMsg),
             QStringList{"WS UPDATER: Received not in bootloader. Finished updating"});
}

void TestConnectionFactory::receivedMessagesReachTheRootHandler()
{
    Bench bench;
    auto fader = std::make_shared<FakeSerialMessageHandler>();
    fader->takeDevice(4);
    bench.root->addHandler(fader);
    const auto connection = bench.create(0);
    connection->open();
    bench.line().pushData(QByteArray::fromHex("aa"));

    QVERIFY(bench.line().pushData(QByteArray::fromHex("050704012c3d")));

    QCOMPARE(fader->taken().size(), std::size_t(1));
    QCOMPARE(fader->taken()[0], SerialMessage(MessageType::FaderPosition, 4, {0x01, 0x2c}));
}

void TestConnectionFactory::queueIsDrainedOntoTheLineByATaskOnThePool()
{
    Bench bench;
    const auto connection = bench.create(0);
    connection->open();
    bench.line().pushData(QByteArray::fromHex("aa"));
    bench.line().clearRecords();

    bench.queue->sendLed(3, 255, 0, 0);
    connection->enqueueMessage(SerialMessage(MessageType::SurfaceBrightness, 0, {0x40}));
    QVERIFY(bench.line().flushes().isEmpty());

    bench.pass();

    // The pass's ping, then the queue in order, in one write.
    QCOMPARE(bench.line().flushes().size(), 2);
    QCOMPARE(bench.line().flushes()[0], QByteArray::fromHex("03000003"));
    QCOMPARE(bench.line().flushes()[1], QByteArray::fromHex("050b03ff0012"
                                                            "040600404a"));
}

void TestConnectionFactory::updaterReadsTheFirmwarePathFromTheSettings()
{
    Bench bench;
    bench.settings->setFirmwarePath(QStringLiteral("/nonexistent/worksurface.bin"));
    LogCapture log;
    const auto connection = bench.create(1);
    connection->open();

    // The section sits in its bootloader and acknowledges the probe.
    bench.line().pushData(QByteArray::fromHex("cc"));

    QCOMPARE(log.texts(QtInfoMsg), QStringList{"WS UPDATER: Starting WS update"});
    QCOMPARE(log.texts(QtWarningMsg),
             QStringList{"WS UPDATER: Unable to update the worksurface from file: "
                         "/nonexistent/worksurface.bin. The file does not exist."});
    QCOMPARE(bench.line().rawPackets().back(), BootloaderPacket(BootloaderCommand::Reset));
}

void TestConnectionFactory::linkLogsThroughTheSharedLogger()
{
    Bench bench;
    LogCapture log;
    const auto connection = bench.create(2);
    connection->open();
    bench.line().pushData(QByteArray::fromHex("aa"));

    bench.line().pushData(SerialFrames::frame(MessageType::Reserved1, 9));

    QCOMPARE(log.texts(QtCriticalMsg),
             QStringList{"Unable to handle unkown message from section 2. Device id: 9 message "
                         "type: 1"});
}

void TestConnectionFactory::everySectionGetsItsOwnLine()
{
    Bench bench;
    const auto first = bench.create(0);
    const auto second = bench.create(1);
    QCOMPARE(bench.lines->size(), std::size_t(2));
    QCOMPARE(bench.lines->at(1).sectionIndex, uint8_t(1));
    QVERIFY(bench.lines->at(0).line != bench.lines->at(1).line);
    QCOMPARE(bench.line(0).dataReceiver(),
             static_cast<ISerialDataReceiver*>(dynamic_cast<SectionConnection*>(first.get())));
    QCOMPARE(bench.line(1).dataReceiver(),
             static_cast<ISerialDataReceiver*>(dynamic_cast<SectionConnection*>(second.get())));

    // Each link has its own updater: opening one probes only its own line.
    second->open();
    QVERIFY(bench.line(0).rawPackets().empty());
    QCOMPARE(bench.line(1).rawPackets().size(), std::size_t(1));
}

QTEST_GUILESS_MAIN(TestConnectionFactory)
#include "tst_connectionfactory.moc"
