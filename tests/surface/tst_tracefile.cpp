// Trace files: what a saved trace holds, line by line, and how saving fails and prunes.
#include <fcntl.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest/QtTest>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/logger.h"
#include "serial/flightrecorder.h"
#include "support/fakesectionconnection.h"
#include "support/fakesettings.h"
#include "support/filesizelimit.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "surface/tracefile.h"

using namespace Velmora::Worksurface;
using Kind = FlightRecorder::Kind;
using Event = FlightRecorder::Event;

namespace {

// A link with a recorder of its own and a port, as the section connection has.
class RecordingLink : public FakeSectionConnection
{
public:
    RecordingLink(uint8_t section, int capacity, QString port)
        : FakeSectionConnection(section),
          ring(std::make_shared<FlightRecorder>(capacity)),
          port(std::move(port))
    {}
    std::shared_ptr<FlightRecorder> recorder() const override { return ring; }
    QString portName() const override { return port; }

    std::shared_ptr<FlightRecorder> ring;
    QString port;
};

QList<QByteArray> linesOf(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    QList<QByteArray> lines = file.readAll().split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty()) {
        lines.removeLast();
    }
    return lines;
}

// Everything in a folder, hidden files included (a save's temporary file among them).
QStringList everythingIn(const QString& folder)
{
    return QDir(folder).entryList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

// What the file system answers to making a file beside path, or empty when it can be
// made (and it is removed again).
QString refusalToMakeAFileBeside(const QString& path)
{
    const QByteArray name = QFile::encodeName(path + QStringLiteral(".probe"));
    const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (fd >= 0) {
        ::close(fd);
        ::unlink(name.constData());
        return QString();
    }
    return QString::fromLocal8Bit(::strerror(errno));
}

// A full ring of fader moves: about 110 bytes a line, far more than Qt buffers per write.
void fillWithFaderMoves(FlightRecorder& ring)
{
    for (int i = 0; i < ring.capacity(); ++i) {
        ring.record(i * 1000000LL, Kind::FrameIn, QByteArray::fromHex("0507030190a0"));
    }
}

}  // namespace

class TestTraceFile : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void framesAndEventsHaveMonitorsKeysAndValues();
    void headerNamesFormatModelTypePortsCapacityAndT0();
    void sectionsAreMergedInTimeOrder();
    void savingToAMissingFolderAReadOnlyPlaceOrAFolderFailsWithItsReason();
    void traceCutShortByTheFileSizeLimitIsWarnedAndLeavesNoFile_data();
    void traceCutShortByTheFileSizeLimitIsWarnedAndLeavesNoFile();
    void automaticTraceCutShortByTheFileSizeLimitIsWarnedForItsSection();
    void automaticTraceToAFolderThatCannotBeMadeIsWarnedAndWritesNothing_data();
    void automaticTraceToAFolderThatCannotBeMadeIsWarnedAndWritesNothing();
    void automaticTraceIsNamedBySectionAndUtcTime();
    void automaticTracesArePrunedToTheNewestTwenty();
    void environmentVariableNamesTheAutomaticFolder();
    void backgroundSaveChecksThePathAtOnceAndWritesTheRingsAsTheyWere();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::shared_ptr<FakeSettings> m_settings;
};

void TestTraceFile::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_settings = std::make_shared<FakeSettings>();
    m_settings->setMode(static_cast<uint8_t>(SurfaceMode::K60));
    qunsetenv(TraceFile::kDirectoryVariable);
}

void TestTraceFile::framesAndEventsHaveMonitorsKeysAndValues()
{
    auto link = std::make_shared<RecordingLink>(1, 16, QStringLiteral("/dev/ttymxc1"));
    // Fader 3's position 399, a ping, noise, a bad checksum, a bootloader ACK and events.
    link->ring->record(1500000, Kind::FrameIn, QByteArray::fromHex("0507030190a0"));
    link->ring->record(2000000, Kind::FrameOut, QByteArray::fromHex("03000003"));
    link->ring->record(2500000, Kind::Noise, QByteArray::fromHex("fffe"));
    link->ring->record(3000000, Kind::BadChecksum, QByteArray::fromHex("03000004"));
    link->ring->record(3500000, Kind::BootloaderIn, QByteArray::fromHex("79"));
    link->ring->recordEvent(4000000, Event::State, 6);
    link->ring->recordEvent(4500000, Event::PortError, 0, QStringLiteral("/dev/ttymxc1"),
                            QStringLiteral("Resource busy"));
    link->ring->recordEvent(5000000, Event::UpdateProgress, 30);
    link->ring->recordEvent(5500000, Event::UpdateFailed, 2);
    link->ring->recordEvent(6000000, Event::PortOpen, 0, QStringLiteral("/dev/ttymxc1"),
                            QStringLiteral("No such file or directory"));

    const QString path = m_dir->filePath(QStringLiteral("t.jsonl"));
    QCOMPARE(TraceFile::save(path, TraceFile::header(*m_settings, {link}), {link}), QString());
    const QList<QByteArray> lines = linesOf(path);
    QCOMPARE(lines.size(), 11);
    const QList<QByteArray> expected = {
        R"({"t":0.001500,"section":1,"dir":"in","type":7,"typeName":"fader position","device":3,"control":"fader 3","value":400,"hex":"0507030190a0"})",
        R"({"t":0.002000,"section":1,"dir":"out","type":0,"typeName":"ping","device":0,"control":"section","hex":"03000003"})",
        R"({"t":0.002500,"section":1,"dir":"in","noise":"fffe"})",
        R"({"t":0.003000,"section":1,"dir":"in","type":0,"typeName":"ping","device":0,"control":"section","hex":"03000004","badChecksum":true})",
        R"({"t":0.003500,"section":1,"dir":"in","bootloader":"79"})",
        R"({"t":0.004000,"section":1,"event":"state","state":"NoResponse"})",
        R"({"t":0.004500,"section":1,"event":"portError","port":"/dev/ttymxc1","error":"Resource busy"})",
        R"({"t":0.005000,"section":1,"event":"updateProgress","percent":30})",
        R"({"t":0.005500,"section":1,"event":"updateFailed","reason":2})",
        R"({"t":0.006000,"section":1,"event":"portOpen","port":"/dev/ttymxc1","opened":false,"error":"No such file or directory"})",
    };
    QCOMPARE(lines.mid(1), expected);
}

void TestTraceFile::headerNamesFormatModelTypePortsCapacityAndT0()
{
    ManualClock clock(5000 * kMs);
    auto a = std::make_shared<RecordingLink>(0, 32, QStringLiteral("/dev/ttymxc0"));
    auto b = std::make_shared<RecordingLink>(2, 32, QStringLiteral("/dev/ttymxc2"));
    const QDateTime before = QDateTime::currentDateTimeUtc();
    const TraceFile::Header header = TraceFile::header(*m_settings, {a, b});
    const QDateTime after = QDateTime::currentDateTimeUtc();
    const QJsonObject o = QJsonDocument::fromJson(TraceFile::headerLine(header)).object();
    QCOMPARE(o.value("format").toString(), QStringLiteral("tarvix-worksurface-trace"));
    QCOMPARE(o.value("version").toInt(), 1);
    QVERIFY(!o.value("plugin").toString().isEmpty());
    QCOMPARE(o.value("model").toString(), QStringLiteral("K60"));
    QCOMPARE(o.value("surfaceType").toString(), QStringLiteral("hardware"));
    QVERIFY(TraceFile::headerLine(header).contains(
        R"("ports":[{"section":0,"port":"/dev/ttymxc0"},{"section":2,"port":"/dev/ttymxc2"}])"));
    QCOMPARE(o.value("capacity").toInt(), 32);
    // t = 0 lies 5 s before now (the monotonic clock reads 5 s).
    const QDateTime t0 = QDateTime::fromString(o.value("t0").toString(), Qt::ISODateWithMs);
    QVERIFY(t0.isValid());
    QVERIFY(t0.msecsTo(before) <= 5000 + 1);
    QVERIFY(t0.msecsTo(after) >= 5000 - 1);
}

void TestTraceFile::sectionsAreMergedInTimeOrder()
{
    auto a = std::make_shared<RecordingLink>(0, 8, QString());
    auto b = std::make_shared<RecordingLink>(1, 8, QString());
    a->ring->recordEvent(1000, Event::Restart);
    a->ring->recordEvent(4000, Event::Restart);
    b->ring->recordEvent(2000, Event::Reconnect);
    b->ring->recordEvent(4000, Event::Reconnect);
    b->ring->recordEvent(5000, Event::Reconnect);
    const QString path = m_dir->filePath(QStringLiteral("m.jsonl"));
    QCOMPARE(TraceFile::save(path, TraceFile::header(*m_settings, {a, b}), {a, b}), QString());
    const QList<QByteArray> expected = {
        R"({"t":0.000001,"section":0,"event":"restart"})",
        R"({"t":0.000002,"section":1,"event":"reconnect"})",
        R"({"t":0.000004,"section":0,"event":"restart"})",
        R"({"t":0.000004,"section":1,"event":"reconnect"})",
        R"({"t":0.000005,"section":1,"event":"reconnect"})",
    };
    QCOMPARE(linesOf(path).mid(1), expected);
}

void TestTraceFile::savingToAMissingFolderAReadOnlyPlaceOrAFolderFailsWithItsReason()
{
    auto link = std::make_shared<RecordingLink>(0, 8, QString());
    link->ring->recordEvent(1000, Event::Restart);
    const auto header = TraceFile::header(*m_settings, {link});

    const QString missing = m_dir->filePath(QStringLiteral("no/such/folder/t.jsonl"));
    QCOMPARE(TraceFile::save(missing, header, {link}),
             QStringLiteral("the folder %1 does not exist").arg(m_dir->filePath("no/such/folder")));
    QVERIFY(!QFileInfo::exists(m_dir->filePath(QStringLiteral("no"))));

    QCOMPARE(TraceFile::save(m_dir->path(), header, {link}),
             QStringLiteral("%1 is a folder").arg(m_dir->path()));

    // A folder that is a plain file.
    const QString plain = m_dir->filePath(QStringLiteral("plain"));
    QFile plainFile(plain);
    QVERIFY(plainFile.open(QIODevice::WriteOnly));
    plainFile.close();
    QCOMPARE(TraceFile::save(plain + QStringLiteral("/t.jsonl"), header, {link}),
             QStringLiteral("the folder %1 does not exist").arg(plain));
    QCOMPARE(QFileInfo(plain).size(), qint64(0));

    // A place nobody may write to, root included: the file system's own reason.
    const QString readOnly = QStringLiteral("/proc/worksurface-trace.jsonl");
    const QString refusal = refusalToMakeAFileBeside(readOnly);
    QVERIFY(!refusal.isEmpty());
    QCOMPARE(TraceFile::save(readOnly, header, {link}), refusal);
    QVERIFY(!QFileInfo::exists(readOnly));
    QCOMPARE(everythingIn(m_dir->path()), QStringList{QStringLiteral("plain")});
}

void TestTraceFile::traceCutShortByTheFileSizeLimitIsWarnedAndLeavesNoFile_data()
{
    QTest::addColumn<int>("entries");
    QTest::addColumn<QByteArray>("earlier");
    // One line: small enough for Qt's write buffer, where the limit would be met only in the
    // flush at commit().
    QTest::newRow("short trace") << 1 << QByteArray();
    // About 110 KB: more than Qt buffers, cut short by the limit in a write.
    QTest::newRow("long trace") << 1000 << QByteArray();
    // An earlier trace at the same path stays as it was.
    QTest::newRow("over an earlier trace") << 1000 << QByteArray("earlier trace\n");
}

void TestTraceFile::traceCutShortByTheFileSizeLimitIsWarnedAndLeavesNoFile()
{
    QFETCH(int, entries);
    QFETCH(QByteArray, earlier);
    LogCapture log;
    auto logger = std::make_shared<Logger>(m_settings);
    auto link = std::make_shared<RecordingLink>(0, entries, QString());
    fillWithFaderMoves(*link->ring);
    const auto header = TraceFile::header(*m_settings, {link});
    const QString path = m_dir->filePath(QStringLiteral("t.jsonl"));
    if (!earlier.isEmpty()) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(earlier), qint64(earlier.size()));
    }

    bool written = false;
    {
        // Fewer bytes than the header line alone.
        FileSizeLimit limit(100);
        QVERIFY(limit.inForce());
        QCOMPARE(TraceFile::saveInBackground(path, header, {link}, logger,
                                             [&written](const QString&) { written = true; }),
                 QString());
        TraceFile::waitForBackgroundSaves();
    }
    QVERIFY(!written);
    QCOMPARE(log.lines(),
             (QList<LogCapture::Line>{
                 {QtWarningMsg,
                  QStringLiteral("Cannot save the trace to %1: File too large").arg(path)}}));
    // Nothing of the trace is left: no partial file, no temporary one.
    if (earlier.isEmpty()) {
        QCOMPARE(everythingIn(m_dir->path()), QStringList());
    } else {
        QCOMPARE(everythingIn(m_dir->path()), QStringList{QStringLiteral("t.jsonl")});
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), earlier);
    }

    // The same trace is written in full once the limit is gone.
    log.clear();
    QCOMPARE(TraceFile::saveInBackground(path, header, {link}, logger), QString());
    TraceFile::waitForBackgroundSaves();
    QCOMPARE(linesOf(path).size(), 1 + entries);
    QCOMPARE(log.lines(), QList<LogCapture::Line>());
}

void TestTraceFile::automaticTraceCutShortByTheFileSizeLimitIsWarnedForItsSection()
{
    LogCapture log;
    auto logger = std::make_shared<Logger>(m_settings);
    auto link = std::make_shared<RecordingLink>(2, 1000, QString());
    fillWithFaderMoves(*link->ring);
    const QString folder = m_dir->filePath(QStringLiteral("traces"));
    QString path;
    {
        FileSizeLimit limit(4096);
        QVERIFY(limit.inForce());
        path = TraceFile::saveAutomatic(folder, *m_settings, link, logger);
        TraceFile::waitForBackgroundSaves();
    }
    QVERIFY(!path.isEmpty());
    QCOMPARE(log.lines(),
             (QList<LogCapture::Line>{
                 {QtWarningMsg,
                  QStringLiteral("Cannot save the trace of section 2 to %1: File too large")
                      .arg(path)}}));
    QCOMPARE(everythingIn(folder), QStringList());
}

void TestTraceFile::automaticTraceToAFolderThatCannotBeMadeIsWarnedAndWritesNothing_data()
{
    QTest::addColumn<QString>("folder");
    // Relative to the test's own folder, where "plain" is a plain file.
    QTest::newRow("below a plain file") << QStringLiteral("plain/traces");
    // Nobody may make a folder there, root included.
    QTest::newRow("read-only place") << QStringLiteral("/proc/worksurface-traces");
}

void TestTraceFile::automaticTraceToAFolderThatCannotBeMadeIsWarnedAndWritesNothing()
{
    QFETCH(QString, folder);
    folder = QDir(m_dir->path()).absoluteFilePath(folder);
    QFile plain(m_dir->filePath(QStringLiteral("plain")));
    QVERIFY(plain.open(QIODevice::WriteOnly));
    plain.close();
    LogCapture log;
    auto logger = std::make_shared<Logger>(m_settings);
    auto link = std::make_shared<RecordingLink>(1, 8, QString());
    link->ring->recordEvent(1000, Event::State, 6);

    QCOMPARE(TraceFile::saveAutomatic(folder, *m_settings, link, logger), QString());
    TraceFile::waitForBackgroundSaves();
    QCOMPARE(log.lines(),
             (QList<LogCapture::Line>{
                 {QtWarningMsg,
                  QStringLiteral("Cannot save the trace of section 1: cannot make the folder %1")
                      .arg(folder)}}));
    QVERIFY(!QFileInfo::exists(folder));
    QCOMPARE(everythingIn(m_dir->path()), QStringList{QStringLiteral("plain")});
    QVERIFY(QFileInfo(plain.fileName()).isFile());
    QCOMPARE(QFileInfo(plain.fileName()).size(), qint64(0));
}

void TestTraceFile::automaticTraceIsNamedBySectionAndUtcTime()
{
    LogCapture log;
    auto logger = std::make_shared<Logger>(m_settings);
    auto link = std::make_shared<RecordingLink>(2, 8, QStringLiteral("/dev/ttymxc2"));
    link->ring->recordEvent(1000, Event::State, 6);
    const QString folder = m_dir->filePath(QStringLiteral("traces/new"));
    const QDateTime before = QDateTime::currentDateTimeUtc();
    const QString path = TraceFile::saveAutomatic(folder, *m_settings, link, logger);
    QVERIFY(!path.isEmpty());
    TraceFile::waitForBackgroundSaves();
    const QString name = QFileInfo(path).fileName();
    QVERIFY2(name.startsWith(QStringLiteral("worksurface-trace-s2-")), qPrintable(name));
    QVERIFY2(name.endsWith(QStringLiteral("Z.jsonl")), qPrintable(name));
    const QDateTime stamp =
        QDateTime::fromString(name.mid(21, 19), QStringLiteral("yyyyMMdd'T'HHmmss.zzz"));
    QVERIFY2(stamp.isValid(), qPrintable(name));
    QVERIFY(qAbs(QDateTime(stamp.date(), stamp.time(), Qt::UTC).msecsTo(before)) < 5000);
    QCOMPARE(
        linesOf(path).mid(1),
        QList<QByteArray>{R"({"t":0.000001,"section":2,"event":"state","state":"NoResponse"})"});
    QCOMPARE(log.texts(QtInfoMsg),
             QStringList{QStringLiteral("Saved the trace of section 2 to %1").arg(path)});
}

void TestTraceFile::automaticTracesArePrunedToTheNewestTwenty()
{
    auto logger = std::make_shared<Logger>(m_settings);
    LogCapture log;
    const QString folder = m_dir->path();
    // 25 older traces of two sections, and a file of somebody else's.
    for (int i = 0; i < 25; ++i) {
        QFile old(QDir(folder).filePath(
            QStringLiteral("worksurface-trace-s%1-2020010%2T0000%3.000Z.jsonl")
                .arg(i % 2)
                .arg(1 + i / 10)
                .arg(i % 10, 2, 10, QLatin1Char('0'))));
        QVERIFY(old.open(QIODevice::WriteOnly));
    }
    QFile other(QDir(folder).filePath(QStringLiteral("notes.txt")));
    QVERIFY(other.open(QIODevice::WriteOnly));
    other.close();

    auto link = std::make_shared<RecordingLink>(1, 8, QString());
    const QString path = TraceFile::saveAutomatic(folder, *m_settings, link, logger);
    QVERIFY(!path.isEmpty());
    TraceFile::waitForBackgroundSaves();
    const QStringList traces = QDir(folder).entryList({QStringLiteral("worksurface-trace-*.jsonl")},
                                                      QDir::Files, QDir::Name);
    QCOMPARE(traces.size(), 20);
    QVERIFY(traces.contains(QFileInfo(path).fileName()));
    // The six oldest went: 2020-01-01 00:00:00 to :05.
    for (int i = 0; i < 6; ++i) {
        QVERIFY(!traces.contains(QStringLiteral("worksurface-trace-s%1-20200101T0000%2.000Z.jsonl")
                                     .arg(i % 2)
                                     .arg(i, 2, 10, QLatin1Char('0'))));
    }
    QVERIFY(traces.contains(QStringLiteral("worksurface-trace-s0-20200101T000006.000Z.jsonl")));
    QVERIFY(QFileInfo::exists(QDir(folder).filePath(QStringLiteral("notes.txt"))));
}

void TestTraceFile::environmentVariableNamesTheAutomaticFolder()
{
    m_settings->setTraceDirectory(QStringLiteral("/from/qml"));
    QCOMPARE(TraceFile::automaticDirectory(*m_settings), QStringLiteral("/from/qml"));
    qputenv(TraceFile::kDirectoryVariable, "/from/environment");
    QCOMPARE(TraceFile::automaticDirectory(*m_settings), QStringLiteral("/from/environment"));
    qunsetenv(TraceFile::kDirectoryVariable);
    m_settings->setTraceDirectory(QString());
    QCOMPARE(TraceFile::automaticDirectory(*m_settings), QString());
}

void TestTraceFile::backgroundSaveChecksThePathAtOnceAndWritesTheRingsAsTheyWere()
{
    LogCapture log;
    auto logger = std::make_shared<Logger>(m_settings);
    auto link = std::make_shared<RecordingLink>(0, 8, QString());
    link->ring->recordEvent(1000, Event::Restart);
    const auto header = TraceFile::header(*m_settings, {link});
    QCOMPARE(TraceFile::saveInBackground(m_dir->path(), header, {link}, logger),
             QStringLiteral("%1 is a folder").arg(m_dir->path()));
    const QString readOnly = QStringLiteral("/proc/worksurface-trace.jsonl");
    QCOMPARE(TraceFile::saveInBackground(readOnly, header, {link}, logger),
             refusalToMakeAFileBeside(readOnly));

    const QString path = m_dir->filePath(QStringLiteral("b.jsonl"));
    QString written;
    QCOMPARE(TraceFile::saveInBackground(path, header, {link}, logger,
                                         [&written](const QString& file) { written = file; }),
             QString());
    // Recorded after the call: not in the file.
    link->ring->recordEvent(2000, Event::Reconnect);
    TraceFile::waitForBackgroundSaves();
    QCOMPARE(written, path);
    QCOMPARE(linesOf(path).mid(1),
             QList<QByteArray>{R"({"t":0.000001,"section":0,"event":"restart"})"});
    QVERIFY(log.texts(QtWarningMsg).isEmpty());
}

QTEST_GUILESS_MAIN(TestTraceFile)
#include "tst_tracefile.moc"
