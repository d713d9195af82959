// The flight recorder over real serial devices, as the console's application uses it: the
// surface service builds a K40 hardware surface whose section 0 sits behind a device path
// in a temporary folder (a symbolic link to a pty section simulator's slave, removed and
// replaced as a USB serial adapter is unplugged and plugged in again); section 1 is a
// healthy simulated section. The traces saved from the QML API and by the failing link are
// read back line by line.
//
// Time is manual; real waits are only for bytes crossing a pty.

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>
#include <vector>

#include "bindings/surfaceconnection.h"
#include "qml/sectioninfomodel.h"
#include "qml/surfacesettings.h"
#include "qml/worksurfacefunctions.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/ptysectionsimulator.h"
#include "support/servicepools.h"
#include "surface/tracefile.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kTimeout = 5000;
constexpr qint64 kPassNs = 50 * kMs + 1;
constexpr const char* kPortsVariable = "TARVIX_WORKSURFACE_SERIAL_PORTS";
constexpr const char* kTraceVariable = "TARVIX_WORKSURFACE_TRACE_DIR";

QList<QJsonObject> entriesOf(const QString& path, int section)
{
    QList<QJsonObject> entries;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return entries;
    }
    file.readLine();  // the header
    while (!file.atEnd()) {
        const QJsonObject o = QJsonDocument::fromJson(file.readLine()).object();
        if (o.value("section").toInt() == section) {
            entries << o;
        }
    }
    return entries;
}

// What a test pins of an entry: received frames and noise by their bytes, the link's state
// changes and port news by name. Sent frames (pings on the link's own pace) and the
// bootloader probe are left out.
QStringList story(const QList<QJsonObject>& entries)
{
    QStringList lines;
    for (const QJsonObject& o : entries) {
        const QString event = o.value("event").toString();
        if (event == QLatin1String("state")) {
            lines << QStringLiteral("state ") + o.value("state").toString();
        } else if (event == QLatin1String("portError")) {
            lines << QStringLiteral("portError ") + o.value("error").toString();
        } else if (event == QLatin1String("portOpen")) {
            lines << QStringLiteral("portOpen ") + (o.value("opened").toBool()
                                                        ? QStringLiteral("opened")
                                                        : QStringLiteral("failed"));
        } else if (event == QLatin1String("reconnect")) {
            lines << QStringLiteral("reconnect");
        } else if (o.contains("noise")) {
            lines << QStringLiteral("noise ") + o.value("noise").toString();
        } else if (o.value("dir").toString() == QLatin1String("in") && o.contains("hex")) {
            lines << QStringLiteral("in ") + o.value("typeName").toString() + ' ' +
                         o.value("hex").toString();
        }
    }
    return lines;
}

}  // namespace

class TestFlightRecorderPty : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void savedTraceHoldsTheFramesNoiseHangUpAndReconnectInOrder();
    void aHealthyLinkWritesNoAutomaticTrace();
    void anAutomaticTraceThatCannotBeSavedLeavesTheLinksRunning();
    void saveTraceWithoutASurfaceOrToABadPlaceFailsWithOneWarning();
    void capacityZeroSavesAHeaderOnly();

private:
    void startSurface();
    void pass();
    void runFor(qint64 ms);
    PtySectionSimulator* plugIn();
    QStringList traceFiles() const;

    std::unique_ptr<ManualClock> m_clock;
    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_devicePath;
    QString m_traceDir;
    QByteArray m_savedPorts;
    bool m_hadPorts = false;
    QByteArray m_savedHome;
    std::unique_ptr<PtySectionSimulator> m_other;
    std::vector<std::unique_ptr<PtySectionSimulator>> m_sims;
    std::unique_ptr<WorksurfaceFunctions> m_service;
    std::shared_ptr<TaskPool> m_pool;
};

void TestFlightRecorderPty::init()
{
    m_clock = std::make_unique<ManualClock>(kStartNs);
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_devicePath = m_dir->filePath(QStringLiteral("ttyWS0"));
    m_traceDir = m_dir->filePath(QStringLiteral("traces"));
    m_other = std::make_unique<PtySectionSimulator>();
    QVERIFY2(m_other->isOpen(), qPrintable(m_other->errorString()));
    m_hadPorts = qEnvironmentVariableIsSet(kPortsVariable);
    m_savedPorts = qgetenv(kPortsVariable);
    qputenv(kPortsVariable, (m_devicePath + QLatin1Char(',') + m_other->slavePath()).toLocal8Bit());
    qunsetenv(kTraceVariable);
    m_savedHome = qgetenv("HOME");
    qputenv("HOME", m_dir->path().toLocal8Bit());
    m_service = std::make_unique<WorksurfaceFunctions>();
}

void TestFlightRecorderPty::cleanup()
{
    m_pool.reset();
    m_service.reset();
    m_sims.clear();
    m_other.reset();
    if (m_hadPorts) {
        qputenv(kPortsVariable, m_savedPorts);
    } else {
        qunsetenv(kPortsVariable);
    }
    qunsetenv(kTraceVariable);
    qputenv("HOME", m_savedHome);
    m_dir.reset();
    m_clock.reset();
}

void TestFlightRecorderPty::startSurface()
{
    m_service->settings()->setType(SurfaceSettings::Hardware);
    m_service->settings()->setMode(SurfaceSettings::K40);
    m_service->settings()->setReconnectInterval(2000);
    m_service->connect();
    QTRY_VERIFY_WITH_TIMEOUT(m_service->connection()->surface() != nullptr, kTimeout);
    m_pool = linkPoolOf(*m_service);
    QVERIFY(m_pool);
    QVERIFY(verifyLinksWhereTheModeSays(*m_service));
    QTRY_COMPARE_WITH_TIMEOUT(m_service->section(1)->linkState(), int(SectionInfoModel::Connected),
                              kTimeout);
}

void TestFlightRecorderPty::pass()
{
    passService(*m_service, *m_clock, kPassNs);
}

void TestFlightRecorderPty::runFor(qint64 ms)
{
    runServiceFor(*m_service, *m_clock, kPassNs, ms);
}

PtySectionSimulator* TestFlightRecorderPty::plugIn()
{
    auto sim = std::make_unique<PtySectionSimulator>();
    if (!sim->isOpen()) {
        return nullptr;
    }
    QFile::remove(m_devicePath);
    if (!QFile::link(sim->slavePath(), m_devicePath)) {
        return nullptr;
    }
    m_sims.push_back(std::move(sim));
    return m_sims.back().get();
}

QStringList TestFlightRecorderPty::traceFiles() const
{
    return QDir(m_traceDir)
        .entryList({QStringLiteral("worksurface-trace-*.jsonl")}, QDir::Files, QDir::Name);
}

void TestFlightRecorderPty::savedTraceHoldsTheFramesNoiseHangUpAndReconnectInOrder()
{
    PtySectionSimulator* sim = plugIn();
    QVERIFY(sim);
    m_service->settings()->setTraceDirectory(m_traceDir);
    startSurface();
    QTRY_COMPARE_WITH_TIMEOUT(m_service->section(0)->linkState(), int(SectionInfoModel::Connected),
                              kTimeout);
    QVERIFY(traceFiles().isEmpty());

    // Two fader moves, noise the parser must skip (no byte of it can start a frame) right
    // before a third, then the cable is pulled.
    const QByteArray first = PtySectionSimulator::encodeFrame(MessageType::FaderPosition, 0,
                                                              QByteArray::fromHex("0064"));
    const QByteArray second = PtySectionSimulator::encodeFrame(MessageType::FaderPosition, 1,
                                                               QByteArray::fromHex("0190"));
    const QByteArray noise = QByteArray::fromHex("fffefd00e7");
    const QByteArray third = PtySectionSimulator::encodeFrame(MessageType::FaderPosition, 0,
                                                              QByteArray::fromHex("03ff"));
    sim->sendRaw(first);
    sim->sendRaw(second);
    sim->sendRaw(noise + third);
    QTRY_VERIFY_WITH_TIMEOUT(
        (QCoreApplication::processEvents(),
         story(entriesOf((m_service->saveTrace(m_dir->filePath("probe.jsonl")),
                          m_dir->filePath("probe.jsonl")),
                         0))
             .contains(QStringLiteral("in fader position ") + QString::fromLatin1(third.toHex()))),
        kTimeout);
    sim->hangUp();
    QFile::remove(m_devicePath);
    QTRY_VERIFY_WITH_TIMEOUT(
        (pass(), m_service->section(0)->linkState() == SectionInfoModel::Connecting), kTimeout);
    // The lost device wrote one automatic trace; the retries write no more.
    runFor(500);
    TraceFile::waitForBackgroundSaves();
    QCOMPARE(traceFiles().size(), 1);
    const QString automatic = QDir(m_traceDir).filePath(traceFiles().first());
    QVERIFY(traceFiles().first().startsWith(QStringLiteral("worksurface-trace-s0-")));

    // A new adapter: the link comes back by itself.
    PtySectionSimulator* replacement = plugIn();
    QVERIFY(replacement);
    QTRY_VERIFY_WITH_TIMEOUT(
        (pass(), m_service->section(0)->linkState() == SectionInfoModel::Connected), kTimeout);
    pass();
    TraceFile::waitForBackgroundSaves();
    QCOMPARE(traceFiles().size(), 1);

    const QString saved = m_dir->filePath(QStringLiteral("saved.jsonl"));
    QVERIFY(m_service->saveTrace(saved));
    TraceFile::waitForBackgroundSaves();
    const QString firstHex = QString::fromLatin1(first.toHex());
    const QString secondHex = QString::fromLatin1(second.toHex());
    const QString thirdHex = QString::fromLatin1(third.toHex());
    QStringList before = {
        QStringLiteral("portOpen opened"),
        QStringLiteral("state Connecting"),
        QStringLiteral("state Connected"),
        QStringLiteral("in fader position ") + firstHex,
        QStringLiteral("in fader position ") + secondHex,
        QStringLiteral("noise fffefd00e7"),
        QStringLiteral("in fader position ") + thirdHex,
    };
    const QStringList savedStory = story(entriesOf(saved, 0));
    const int cut = savedStory.indexOf(QRegularExpression(QStringLiteral("^portError .*")));
    QVERIFY2(cut > 0, qPrintable(savedStory.join('\n')));
    QCOMPARE(savedStory.mid(0, cut), before);
    // After the hang-up: the error, Connecting, the reconnection that opens the new device
    // and the section back.
    const QStringList after = savedStory.mid(cut);
    QCOMPARE(after.mid(0, 5),
             (QStringList{QStringLiteral("portError Device gone: %1").arg(m_devicePath),
                          QStringLiteral("state Connecting"), QStringLiteral("reconnect"),
                          QStringLiteral("portOpen opened"), QStringLiteral("state Connected")}));
    // Then only the section's answers to the link's pings.
    for (const QString& line : after.mid(5)) {
        QVERIFY2(line.startsWith(QStringLiteral("in ping ")), qPrintable(line));
    }

    // The automatic trace ends where the outage began.
    const QStringList automaticStory = story(entriesOf(automatic, 0));
    QCOMPARE(automaticStory.mid(0, cut), before);
    QVERIFY2(automaticStory.last().startsWith(QStringLiteral("portError ")),
             qPrintable(automaticStory.join('\n')));
    // Only section 0 in the automatic trace; both in the saved one.
    QVERIFY(entriesOf(automatic, 1).isEmpty());
    QVERIFY(!entriesOf(saved, 1).isEmpty());
}

void TestFlightRecorderPty::aHealthyLinkWritesNoAutomaticTrace()
{
    PtySectionSimulator* sim = plugIn();
    QVERIFY(sim);
    qputenv(kTraceVariable, m_traceDir.toLocal8Bit());
    startSurface();
    QTRY_COMPARE_WITH_TIMEOUT(m_service->section(0)->linkState(), int(SectionInfoModel::Connected),
                              kTimeout);
    // 30 s of pings answered.
    for (int i = 0; i < 600; ++i) {
        pass();
        if (i % 40 == 0) {
            QTest::qWait(1);
        }
    }
    QTRY_COMPARE_WITH_TIMEOUT(m_service->section(0)->linkState(), int(SectionInfoModel::Connected),
                              kTimeout);
    TraceFile::waitForBackgroundSaves();
    QVERIFY(traceFiles().isEmpty());
    QVERIFY(!QFileInfo::exists(m_traceDir));
}

void TestFlightRecorderPty::anAutomaticTraceThatCannotBeSavedLeavesTheLinksRunning()
{
    // The trace folder would be made below a plain file: nobody can, root included.
    const QString plain = m_dir->filePath(QStringLiteral("plain"));
    QFile plainFile(plain);
    QVERIFY(plainFile.open(QIODevice::WriteOnly));
    plainFile.close();
    const QString folder = plain + QStringLiteral("/traces");
    PtySectionSimulator* sim = plugIn();
    QVERIFY(sim);
    m_service->settings()->setTraceDirectory(folder);
    LogCapture log;
    startSurface();
    QTRY_COMPARE_WITH_TIMEOUT(m_service->section(0)->linkState(), int(SectionInfoModel::Connected),
                              kTimeout);

    sim->hangUp();
    QFile::remove(m_devicePath);
    QTRY_VERIFY_WITH_TIMEOUT(
        (pass(), m_service->section(0)->linkState() == SectionInfoModel::Connecting), kTimeout);
    runFor(500);
    TraceFile::waitForBackgroundSaves();
    const QStringList warned = {
        QStringLiteral("tarvix.worksurface.link warning: Cannot save the trace of section 0: "
                       "cannot make the folder %1")
            .arg(folder)};
    auto traceLines = [&log]() {
        return log.described().filter(
            QRegularExpression(QStringLiteral(": (Cannot save|Saved) the trace ")));
    };
    QCOMPARE(traceLines(), warned);
    // The other section never noticed.
    QCOMPARE(m_service->section(1)->linkState(), int(SectionInfoModel::Connected));

    // A new adapter: the link comes back by itself and stays up, its pings answered, for
    // ten seconds.
    QVERIFY(plugIn());
    QTRY_VERIFY_WITH_TIMEOUT(
        (pass(), m_service->section(0)->linkState() == SectionInfoModel::Connected), kTimeout);
    for (int i = 0; i < 200; ++i) {
        pass();
        if (i % 40 == 0) {
            QTest::qWait(1);
        }
    }
    QTRY_COMPARE_WITH_TIMEOUT(m_service->section(0)->linkState(), int(SectionInfoModel::Connected),
                              kTimeout);
    QCOMPARE(m_service->section(1)->linkState(), int(SectionInfoModel::Connected));
    TraceFile::waitForBackgroundSaves();
    QCOMPARE(traceLines(), warned);
    QVERIFY(QFileInfo(plain).isFile());
    QCOMPARE(QFileInfo(plain).size(), qint64(0));
}

void TestFlightRecorderPty::saveTraceWithoutASurfaceOrToABadPlaceFailsWithOneWarning()
{
    LogCapture log;
    const QString path = m_dir->filePath(QStringLiteral("t.jsonl"));
    QVERIFY(!m_service->saveTrace(path));
    QVERIFY(!m_service->section(1)->saveTrace(path));
    QCOMPARE(log.texts(QtWarningMsg),
             (QStringList{
                 QStringLiteral("Cannot save the trace to %1: no surface").arg(path),
                 QStringLiteral("Cannot save the trace to %1: no link for section 1").arg(path)}));
    QVERIFY(!QFileInfo::exists(path));

    QVERIFY(plugIn());
    startSurface();
    log.clear();
    const QString missing = m_dir->filePath(QStringLiteral("no/such/t.jsonl"));
    QVERIFY(!m_service->saveTrace(missing));
    QVERIFY(!m_service->section(0)->saveTrace(m_dir->path()));
    const QStringList warned = {
        QStringLiteral("Cannot save the trace to %1: the folder %2 does not exist")
            .arg(missing, m_dir->filePath(QStringLiteral("no/such"))),
        QStringLiteral("Cannot save the trace to %1: %1 is a folder").arg(m_dir->path())};
    // The sections' own start-up lines (port open, bootloader check) may still be arriving
    // from the link thread, so only what was said about traces is counted: one warning each.
    auto traceTalk = [&log]() { return log.texts().filter(QStringLiteral("trace")); };
    QCOMPARE(log.texts(QtWarningMsg), warned);
    QCOMPARE(traceTalk(), warned);
    // Nothing else disturbed: the links run on and a good path still works, silently.
    QCOMPARE(m_service->section(1)->linkState(), int(SectionInfoModel::Connected));
    QVERIFY(m_service->section(1)->saveTrace(path));
    TraceFile::waitForBackgroundSaves();
    QCOMPARE(log.texts(QtWarningMsg), warned);
    QCOMPARE(traceTalk(), warned);
    QVERIFY(!entriesOf(path, 1).isEmpty());
    QVERIFY(entriesOf(path, 0).isEmpty());
}

void TestFlightRecorderPty::capacityZeroSavesAHeaderOnly()
{
    QVERIFY(plugIn());
    m_service->settings()->setTraceCapacity(0);
    startSurface();
    const QString path = m_dir->filePath(QStringLiteral("t.jsonl"));
    QVERIFY(m_service->saveTrace(path));
    TraceFile::waitForBackgroundSaves();
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QList<QByteArray> lines = file.readAll().trimmed().split('\n');
    QCOMPARE(lines.size(), 1);
    QCOMPARE(QJsonDocument::fromJson(lines.first()).object().value("capacity").toInt(), 0);
}

QTEST_GUILESS_MAIN(TestFlightRecorderPty)
#include "tst_flightrecorderpty.moc"
