#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
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
#include "support/filesizelimit.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/recordingstatelistener.h"
#include "support/serialframes.h"
#include "surface/connectionfactory.h"
#include "surface/tracefile.h"
#include "tasks/taskpool.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

const QByteArray kPingFrame = QByteArray::fromHex("03000003");
const QByteArray kSerialErrorFrame = QByteArray::fromHex("03020005");
const QByteArray kFaderFrame = QByteArray::fromHex("050704012c3d");

// The lines a link of section 2 writes as it comes up and as the section reports a serial
// error, before anything of its trace.
const QStringList kUpAndSerialError = {
    QStringLiteral("tarvix.worksurface.updater info: WS UPDATER: Received not in bootloader. "
                   "Finished updating"),
    QStringLiteral("tarvix.worksurface.link critical: Received serial error from the section 2."),
};

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

    // The master section's link opened on the first line, its probe answered by the
    // application ("aa"): Connected.
    std::shared_ptr<ISectionConnection> connectedMaster()
    {
        auto connection = create(2);
        connection->open();
        line().pushData(QByteArray::fromHex("aa"));
        return connection;
    }

    // One 50 ms supervision pass.
    void pass()
    {
        clock.advanceMs(51);
        pool->runPendingTasks();
    }

    void runFor(qint64 ms)
    {
        for (qint64 passed = 0; passed < ms; passed += 51) {
            pass();
        }
    }

    // Automatic traces go to the folder (the environment must not name another).
    void traceTo(const QString& folder)
    {
        qunsetenv(TraceFile::kDirectoryVariable);
        settings->setTraceDirectory(folder);
    }
};

QStringList tracesIn(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                                  QDir::Name);
}

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
    void failingLinkSavesItsTraceWithALineInTheLinkCategory();
    void automaticTraceToAFolderThatCannotBeMadeIsWarnedAndTheLinkCarriesOn();
    void automaticTraceCutShortByTheFileSizeLimitIsWarnedInTheLinkCategory();
    void withoutATraceFolderAFailingLinkSavesNothing();
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
    const auto connection = bench.connectedMaster();

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

void TestConnectionFactory::failingLinkSavesItsTraceWithALineInTheLinkCategory()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString folder = dir.filePath(QStringLiteral("traces"));
    Bench bench;
    bench.traceTo(folder);
    LogCapture log;
    const auto connection = bench.connectedMaster();

    bench.line().pushData(kSerialErrorFrame);
    QCOMPARE(connection->state(), uint8_t(ISectionConnection::SerialError));
    TraceFile::waitForBackgroundSaves();

    const QStringList traces = tracesIn(folder);
    QCOMPARE(traces.size(), 1);
    QVERIFY2(traces.first().startsWith(QStringLiteral("worksurface-trace-s2-")),
             qPrintable(traces.first()));
    const QString path = QDir(folder).filePath(traces.first());
    QCOMPARE(log.described(),
             kUpAndSerialError + QStringList{QStringLiteral("tarvix.worksurface.link info: Saved "
                                                            "the trace of section 2 to %1")
                                                 .arg(path)});
    // The link's ring as it was when the error came, after the header: the start-up, the
    // error frame, the zero fill written in reply and the state it put the link in.
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QList<QByteArray> lines = file.readAll().split('\n');
    const QByteArray zeroFill = QByteArray(1024, '\0').toHex();
    const QList<QByteArray> expected = {
        R"({"t":1000.000000,"section":2,"event":"portOpen","port":"","opened":true})",
        R"({"t":1000.000000,"section":2,"event":"state","state":"Connecting"})",
        R"({"t":1000.000000,"section":2,"dir":"out","bootloader":"5555"})",
        R"({"t":1000.000000,"section":2,"dir":"in","bootloader":"aa"})",
        R"({"t":1000.000000,"section":2,"event":"state","state":"Connected"})",
        R"({"t":1000.000000,"section":2,"dir":"in","type":2,"typeName":"serial error","device":0,"control":"section","hex":"03020005"})",
        R"({"t":1000.000000,"section":2,"dir":"out","type":0,"typeName":"ping","device":0,"control":"section","value":{"version":0,"temperature":0},"hex":")" +
            zeroFill + R"("})",
        R"({"t":1000.000000,"section":2,"event":"state","state":"SerialError"})",
        QByteArray(),
    };
    QCOMPARE(lines.mid(1), expected);
}

void TestConnectionFactory::automaticTraceToAFolderThatCannotBeMadeIsWarnedAndTheLinkCarriesOn()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    // The folder would be made below a plain file: nobody can, root included.
    const QString plain = dir.filePath(QStringLiteral("plain"));
    QFile plainFile(plain);
    QVERIFY(plainFile.open(QIODevice::WriteOnly));
    plainFile.close();
    const QString folder = plain + QStringLiteral("/traces");
    Bench bench;
    bench.traceTo(folder);
    auto fader = std::make_shared<FakeSerialMessageHandler>();
    fader->takeDevice(4);
    bench.root->addHandler(fader);
    LogCapture log;
    const auto connection = bench.connectedMaster();

    bench.line().pushData(kSerialErrorFrame);
    TraceFile::waitForBackgroundSaves();
    const QString warning =
        QStringLiteral(
            "tarvix.worksurface.link warning: Cannot save the trace of section 2: "
            "cannot make the folder %1")
            .arg(folder);
    QCOMPARE(log.described(), kUpAndSerialError + QStringList{warning});

    // The link carries on: back a second after the error, it pings the section and takes
    // what the section sends.
    bench.runFor(1100);
    QCOMPARE(connection->state(), uint8_t(ISectionConnection::Connected));
    bench.line().clearRecords();
    bench.runFor(2100);
    QVERIFY2(bench.line().flushes().contains(kPingFrame),
             qPrintable(QString::number(bench.line().flushes().size())));
    QVERIFY(bench.line().pushData(kFaderFrame));
    QCOMPARE(fader->taken(), std::vector<SerialMessage>{
                                 SerialMessage(MessageType::FaderPosition, 4, {0x01, 0x2c})});
    QCOMPARE(connection->state(), uint8_t(ISectionConnection::Connected));

    // The next outage tries again, and meets the same folder.
    log.clear();
    bench.line().pushData(kSerialErrorFrame);
    TraceFile::waitForBackgroundSaves();
    QCOMPARE(log.described(), (QStringList{kUpAndSerialError.last(), warning}));
    QVERIFY(QFileInfo(plain).isFile());
    QCOMPARE(QFileInfo(plain).size(), qint64(0));
    QCOMPARE(tracesIn(dir.path()), QStringList{QStringLiteral("plain")});
}

void TestConnectionFactory::automaticTraceCutShortByTheFileSizeLimitIsWarnedInTheLinkCategory()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString folder = dir.filePath(QStringLiteral("traces"));
    Bench bench;
    bench.traceTo(folder);
    LogCapture log;
    const auto connection = bench.connectedMaster();
    {
        // Less than the trace's header line.
        FileSizeLimit limit(100);
        QVERIFY(limit.inForce());
        bench.line().pushData(kSerialErrorFrame);
        TraceFile::waitForBackgroundSaves();
    }
    const QStringList lines = log.described();
    QCOMPARE(lines.size(), 3);
    QCOMPARE(lines.mid(0, 2), kUpAndSerialError);
    const QRegularExpression failed(
        QStringLiteral(
            "^tarvix\\.worksurface\\.link warning: Cannot save the trace of section 2 "
            "to %1/worksurface-trace-s2-\\d{8}T\\d{6}\\.\\d{3}Z\\.jsonl: File too large$")
            .arg(QRegularExpression::escape(folder)));
    QVERIFY2(failed.match(lines.last()).hasMatch(), qPrintable(lines.last()));
    // Made for the trace, and left empty.
    QCOMPARE(tracesIn(folder), QStringList());
}

void TestConnectionFactory::withoutATraceFolderAFailingLinkSavesNothing()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    Bench bench;
    bench.traceTo(QString());
    // Where a trace would otherwise have gone: the current folder.
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(dir.path()));
    LogCapture log;
    const auto connection = bench.connectedMaster();
    bench.line().pushData(kSerialErrorFrame);
    TraceFile::waitForBackgroundSaves();
    QDir::setCurrent(previous);
    QCOMPARE(log.described(), kUpAndSerialError);
    QCOMPARE(tracesIn(dir.path()), QStringList());
}

QTEST_GUILESS_MAIN(TestConnectionFactory)
#include "tst_connectionfactory.moc"
