// Sections that go away and come back, over real serial devices, as the console's
// application sees them: the surface service (Surface) builds a K40 hardware surface whose
// section 0 uses a device path in a temporary folder, a symbolic link to the slave of a
// pty section simulator that the test creates, removes and replaces (a USB serial adapter
// unplugged and plugged in again); section 1 is a healthy simulated section throughout.
// What is checked is what QML sees on Surface.section(0) (linkState, portName, portError,
// lastUpdateFailure, updateFailed), the bytes on the line and the exact log lines.
//
// Time is manual: the clock moves and the supervision passes run only when the test says
// so (the task pool's own timer finds nothing due in between); real waits are only for
// bytes crossing a pty.

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>
#include <vector>

#include "bindings/surfaceconnection.h"
#include "qml/sectioninfomodel.h"
#include "qml/surfacesettings.h"
#include "qml/worksurfacefunctions.h"
#include "serial/linkruntime.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/ptysectionsimulator.h"
#include "support/servicepools.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kTimeout = 5000;
// One supervision pass: just over the task's 50 ms interval.
constexpr qint64 kPassNs = 50 * kMs + 1;
constexpr const char* kPortsVariable = "TARVIX_WORKSURFACE_SERIAL_PORTS";
constexpr int kInterval = 2000;

const QByteArray kAutoBaud = QByteArray::fromHex("5555");
const QByteArray kPingFrame = QByteArray::fromHex("03000003");

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

// Records every value a section model's link state takes, in order.
class LinkStates : public QObject
{
public:
    explicit LinkStates(SectionInfoModel* model)
    {
        connect(model, &SectionInfoModel::linkStateChanged, this,
                [this, model] { values.push_back(model->linkState()); });
        connect(model, &SectionInfoModel::portErrorChanged, this,
                [this, model] { portErrors << model->portError(); });
    }
    std::vector<int> values;
    QStringList portErrors;
};

}  // namespace

class TestSectionReconnectPty : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void missingDeviceIsOpenedWithinAnIntervalOfAppearing();
    void deviceReplacedWhileConnectedComesBackWithoutTheNoResponseRestart();
    void sectionBootingThroughTheProbeIsConnectedAfterTheNextReprobe();
    void withoutTheSettingASectionMissingTheProbeStaysConnecting();
    void changingTheIntervalAppliesToTheRunningLink();
    void aThousandRetriesAddNoTaskAndNoLogLine();
    void noRetryWhileAnUpdateRuns();
    void aFullUpdateIsNeverInterruptedByReconnection_data();
    void aFullUpdateIsNeverInterruptedByReconnection();
    void failedUpdatesAreToldWithTheirReasonAndASuccessResetsTheFailure();
    void aNewConnectStartsTheModelsOverAndASectionTheModelLacksIsClosed();
    void aConnectThatBuildsNothingStartsTheOldLinksAgainOnTheirOwnPool();

private:
    // Connects a K40 hardware surface; waits for section 1 to come up unless told not to.
    void startSurface(int intervalMs, bool otherComesUp = true);
    // Moves the clock by one pass, runs what is due and then the event loop once.
    void pass();
    // Runs passes until the clock has moved by at least ms.
    void runFor(qint64 ms);
    // Points section 0's device path at a new simulator (nullptr: removes the device).
    PtySectionSimulator* plugIn();
    void unplug();
    SectionInfoModel* first() const { return m_service->section(0); }
    qint64 elapsedMs() const { return (m_clock->nowNs() - kStartNs) / kMs; }
    // The captured lines that concern section 0's link (those of section 1 and of the
    // updater's probe answers are left out).
    static QStringList sectionZeroLines(const LogCapture& log);

    std::unique_ptr<ManualClock> m_clock;
    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_devicePath;
    QByteArray m_savedPorts;
    bool m_hadPorts = false;
    QByteArray m_savedHome;
    std::unique_ptr<PtySectionSimulator> m_other;
    std::vector<std::unique_ptr<PtySectionSimulator>> m_sims;
    std::unique_ptr<WorksurfaceFunctions> m_service;
    std::shared_ptr<TaskPool> m_pool;
};

void TestSectionReconnectPty::init()
{
    m_clock = std::make_unique<ManualClock>(kStartNs);
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_devicePath = m_dir->filePath(QStringLiteral("ttyWS0"));
    m_other = std::make_unique<PtySectionSimulator>();
    QVERIFY2(m_other->isOpen(), qPrintable(m_other->errorString()));
    m_hadPorts = qEnvironmentVariableIsSet(kPortsVariable);
    m_savedPorts = qgetenv(kPortsVariable);
    qputenv(kPortsVariable, (m_devicePath + QLatin1Char(',') + m_other->slavePath()).toLocal8Bit());
    // No firmware image unless a test puts one there.
    m_savedHome = qgetenv("HOME");
    qputenv("HOME", m_dir->path().toLocal8Bit());
    m_service = std::make_unique<WorksurfaceFunctions>();
}

void TestSectionReconnectPty::cleanup()
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
    qputenv("HOME", m_savedHome);
    m_dir.reset();
    m_clock.reset();
}

void TestSectionReconnectPty::startSurface(int intervalMs, bool otherComesUp)
{
    m_service->settings()->setType(SurfaceSettings::Hardware);
    m_service->settings()->setMode(SurfaceSettings::K40);
    m_service->settings()->setReconnectInterval(intervalMs);
    m_service->connect();
    QTRY_VERIFY_WITH_TIMEOUT(m_service->connection()->surface() != nullptr, kTimeout);
    m_pool = linkPoolOf(*m_service);
    QVERIFY(m_pool);
    QVERIFY(verifyLinksWhereTheModeSays(*m_service));
    if (!otherComesUp) {
        return;
    }
    // The healthy section answers the probe and comes up.
    QTRY_COMPARE_WITH_TIMEOUT(m_service->section(1)->linkState(), int(SectionInfoModel::Connected),
                              kTimeout);
}

void TestSectionReconnectPty::pass()
{
    passService(*m_service, *m_clock, kPassNs);
}

void TestSectionReconnectPty::runFor(qint64 ms)
{
    runServiceFor(*m_service, *m_clock, kPassNs, ms);
}

PtySectionSimulator* TestSectionReconnectPty::plugIn()
{
    auto sim = std::make_unique<PtySectionSimulator>();
    if (!sim->isOpen()) {
        qWarning("%s", qPrintable(sim->errorString()));
        return nullptr;
    }
    QFile::remove(m_devicePath);
    if (!QFile::link(sim->slavePath(), m_devicePath)) {
        return nullptr;
    }
    m_sims.push_back(std::move(sim));
    return m_sims.back().get();
}

void TestSectionReconnectPty::unplug()
{
    QFile::remove(m_devicePath);
}

QStringList TestSectionReconnectPty::sectionZeroLines(const LogCapture& log)
{
    QStringList lines;
    for (const QString& line : log.texts()) {
        if (line.contains(QLatin1String("section 0")) ||
            line.contains(QLatin1String("Section 0")) || line.contains(QLatin1String("ttyWS0")) ||
            line.startsWith(QLatin1String("Error was:"))) {
            lines << line;
        }
    }
    return lines;
}

void TestSectionReconnectPty::missingDeviceIsOpenedWithinAnIntervalOfAppearing()
{
    LogCapture log;
    LinkStates states(first());
    startSurface(kInterval);

    // Opening failed at connect(): the link waits Connecting, and QML learns why.
    QCOMPARE(first()->linkState(), int(SectionInfoModel::Connecting));
    pass();
    QCOMPARE(first()->portName(), m_devicePath);
    const QString notFound = QStringLiteral("Device not found: %1").arg(m_devicePath);
    QCOMPARE(first()->portError(), notFound);

    // The device appears 3 s after connect(); the attempts before it fail quietly.
    runFor(3000 - elapsedMs());
    PtySectionSimulator* sim = plugIn();
    QVERIFY(sim);
    const qint64 appearedMs = elapsedMs();
    QCOMPARE(first()->linkState(), int(SectionInfoModel::Connecting));
    QCOMPARE(first()->portError(), notFound);

    // Within one interval the link opens the device, probes and is up.
    while (elapsedMs() - appearedMs <= kInterval && sim->commandCount(0x55) == 0) {
        pass();
        QCoreApplication::processEvents();
    }
    QTRY_COMPARE_WITH_TIMEOUT(first()->linkState(), int(SectionInfoModel::Connected), kTimeout);
    QVERIFY2(elapsedMs() - appearedMs <= kInterval, qPrintable(QString::number(elapsedMs())));
    QCOMPARE(first()->portError(), QString());
    QCOMPARE(sim->receivedBytes(), kAutoBaud);
    pass();

    QCOMPARE(states.values,
             (std::vector<int>{SectionInfoModel::Connecting, SectionInfoModel::Connected}));
    QCOMPARE(states.portErrors, (QStringList{notFound, QString()}));
    QCOMPARE(
        sectionZeroLines(log),
        (QStringList{
            QStringLiteral("Unable to open connection to WS section 0  Connection name: %1 "
                           "The device was not found.")
                .arg(quoted(m_devicePath)),
            QStringLiteral("Unable to open WS section 0 serial port with name:  %1")
                .arg(quoted(m_devicePath)),
            QStringLiteral("Error was: DeviceNotFoundError"),
            QStringLiteral("Section 0 link is down (%1). Retrying every 2000 ms.").arg(notFound),
            QStringLiteral("WS section 0 serial port: %1 ready and open.")
                .arg(quoted(m_devicePath)),
            QStringLiteral("Section 0 is back after 4 s"),
        }));
    // The open failure's lines once for both failed attempts.
    QCOMPARE(log.count(QtCriticalMsg, QStringLiteral("Error was: DeviceNotFoundError")), 1);

    // Up for good: the section is pinged two seconds on.
    runFor(2100);
    QTRY_VERIFY_WITH_TIMEOUT(sim->receivedBytes().startsWith(kAutoBaud + kPingFrame), kTimeout);
}

void TestSectionReconnectPty::deviceReplacedWhileConnectedComesBackWithoutTheNoResponseRestart()
{
    PtySectionSimulator* sim = plugIn();
    QVERIFY(sim);
    startSurface(kInterval);
    QTRY_COMPARE_WITH_TIMEOUT(first()->linkState(), int(SectionInfoModel::Connected), kTimeout);
    pass();
    QCOMPARE(first()->portName(), m_devicePath);
    QCOMPARE(first()->portError(), QString());

    LogCapture log;
    LinkStates states(first());
    // The cable is pulled: the device node goes and the port reports it.
    sim->hangUp();
    unplug();
    QTRY_VERIFY_WITH_TIMEOUT((pass(), first()->linkState() == SectionInfoModel::Connecting),
                             kTimeout);
    const qint64 goneMs = elapsedMs();
    const QString gone = QStringLiteral("Device gone: %1").arg(m_devicePath);
    QCOMPARE(first()->portError(), gone);

    // A new adapter at the same path, half a second later.
    runFor(500);
    PtySectionSimulator* replacement = plugIn();
    QVERIFY(replacement);
    while (replacement->commandCount(0x55) == 0 && elapsedMs() - goneMs <= kInterval + 100) {
        pass();
        QCoreApplication::processEvents();
    }
    QTRY_COMPARE_WITH_TIMEOUT(first()->linkState(), int(SectionInfoModel::Connected), kTimeout);
    // Far from the 10 s + 20 s of the no-response restart.
    QVERIFY2(elapsedMs() - goneMs <= kInterval + 100, qPrintable(QString::number(elapsedMs())));
    QCOMPARE(replacement->receivedBytes(), kAutoBaud);
    pass();
    QCOMPARE(first()->portError(), QString());
    QCOMPARE(states.values,
             (std::vector<int>{SectionInfoModel::Connecting, SectionInfoModel::Connected}));
    QCOMPARE(states.portErrors, (QStringList{gone, QString()}));

    const QStringList lines = sectionZeroLines(log);
    QCOMPARE(lines.size(), 4);
    QVERIFY2(lines[0] == QStringLiteral("Error while reading data from the serial port %1")
                             .arg(quoted(m_devicePath)) ||
                 lines[0] == QStringLiteral("Serial port error in WS section 0 Error core: 9"),
             qPrintable(lines[0]));
    QCOMPARE(lines.mid(1),
             (QStringList{
                 QStringLiteral("Section 0 link is down (%1). Retrying every 2000 ms.").arg(gone),
                 QStringLiteral("WS section 0 serial port: %1 ready and open.")
                     .arg(quoted(m_devicePath)),
                 QStringLiteral("Section 0 is back after 2 s"),
             }));
}

void TestSectionReconnectPty::sectionBootingThroughTheProbeIsConnectedAfterTheNextReprobe()
{
    // Still booting: the section hears the probe but says nothing but boot noise that the
    // probe cannot use; it answers from 5 s on.
    PtySectionSimulator* sim = plugIn();
    QVERIFY(sim);
    sim->setSilent(true);
    LogCapture log;
    LinkStates states(first());
    startSurface(kInterval);
    QTRY_COMPARE_WITH_TIMEOUT(sim->commandCount(0x55), 1, kTimeout);
    runFor(1000);
    sim->sendRaw(QByteArray("BOOT v1.2\r\n"));
    QVERIFY(sim->waitUntilPeerHasRead());
    runFor(5000 - elapsedMs());
    // Re-probed at about 2 s and 4 s, unanswered.
    QTRY_COMPARE_WITH_TIMEOUT(sim->commandCount(0x55), 3, kTimeout);
    sim->setSilent(false);
    QCOMPARE(first()->linkState(), int(SectionInfoModel::Connecting));
    // The probe at about 6 s is answered.
    runFor(6100 - elapsedMs());
    QTRY_COMPARE_WITH_TIMEOUT(first()->linkState(), int(SectionInfoModel::Connected), kTimeout);
    QCOMPARE(sim->commandCount(0x55), 4);
    // Nothing but the four probes before the answer; what the link sends once it is up may
    // already follow (it does when the links run on their own thread, which takes the answer
    // within the pass).
    const QByteArray probes = kAutoBaud + kAutoBaud + kAutoBaud + kAutoBaud;
    QCOMPARE(sim->receivedBytes().left(probes.size()), probes);
    pass();

    QCOMPARE(states.values,
             (std::vector<int>{SectionInfoModel::Connecting, SectionInfoModel::Connected}));
    QCOMPARE(first()->portError(), QString());
    QCOMPARE(sectionZeroLines(log),
             (QStringList{
                 QStringLiteral("WS section 0 serial port: %1 ready and open.")
                     .arg(quoted(m_devicePath)),
                 QStringLiteral("Section 0 link is down (no answer on %1). Retrying every 2000 ms.")
                     .arg(m_devicePath),
                 QStringLiteral("Section 0 is back after 6 s"),
             }));
}

void TestSectionReconnectPty::withoutTheSettingASectionMissingTheProbeStaysConnecting()
{
    PtySectionSimulator* sim = plugIn();
    QVERIFY(sim);
    sim->setSilent(true);
    LogCapture log;
    startSurface(0);
    QTRY_COMPARE_WITH_TIMEOUT(sim->commandCount(0x55), 1, kTimeout);
    runFor(5000);
    sim->setSilent(false);
    runFor(30000);
    QCoreApplication::processEvents();
    // No ping goes out while Connecting and nothing probes again: the link stays waiting.
    QCOMPARE(first()->linkState(), int(SectionInfoModel::Connecting));
    QCOMPARE(sim->receivedBytes(), kAutoBaud);
    QCOMPARE(sectionZeroLines(log),
             (QStringList{QStringLiteral("WS section 0 serial port: %1 ready and open.")
                              .arg(quoted(m_devicePath))}));
}

void TestSectionReconnectPty::changingTheIntervalAppliesToTheRunningLink()
{
    PtySectionSimulator* sim = plugIn();
    QVERIFY(sim);
    sim->setSilent(true);
    startSurface(0);
    QTRY_COMPARE_WITH_TIMEOUT(sim->commandCount(0x55), 1, kTimeout);
    runFor(3000);
    QCOMPARE(sim->commandCount(0x55), 1);

    // Three seconds in Connecting already exceed one interval: the next pass re-probes.
    m_service->settings()->setReconnectInterval(1000);
    pass();
    QTRY_COMPARE_WITH_TIMEOUT(sim->commandCount(0x55), 2, kTimeout);
    runFor(1000);
    QTRY_COMPARE_WITH_TIMEOUT(sim->commandCount(0x55), 3, kTimeout);

    // Off again: no more probes.
    m_service->settings()->setReconnectInterval(0);
    runFor(10000);
    QCoreApplication::processEvents();
    QCOMPARE(sim->commandCount(0x55), 3);
    QCOMPARE(first()->linkState(), int(SectionInfoModel::Connecting));
}

void TestSectionReconnectPty::aThousandRetriesAddNoTaskAndNoLogLine()
{
    // Both sections are missing, so that nothing but reconnection runs on their links.
    const QString otherPath = m_dir->filePath(QStringLiteral("ttyWS1"));
    qputenv(kPortsVariable, (m_devicePath + QLatin1Char(',') + otherPath).toLocal8Bit());
    startSurface(kInterval, false);
    pass();
    QCOMPARE(first()->linkState(), int(SectionInfoModel::Connecting));
    const std::size_t tasks = m_pool->taskCount();
    {
        LogCapture log;
        // One attempt per pass: each pass moves the clock by a whole interval.
        for (int i = 0; i < 1000; ++i) {
            m_clock->advanceNs(kInterval * kMs);
            runServicePools(*m_service);
        }
        QCOMPARE(log.texts(), QStringList());
    }
    QCOMPARE(m_pool->taskCount(), tasks);
    qInfo("supervision: %zu tasks in the pool before and after 1000 reconnection attempts", tasks);
    QCOMPARE(first()->portError(), QStringLiteral("Device not found: %1").arg(m_devicePath));

    // The device appears: the next attempt still opens it.
    PtySectionSimulator* sim = plugIn();
    QVERIFY(sim);
    m_clock->advanceNs(kInterval * kMs);
    runServicePools(*m_service);
    QTRY_COMPARE_WITH_TIMEOUT(first()->linkState(), int(SectionInfoModel::Connected), kTimeout);
    QCOMPARE(m_pool->taskCount(), tasks);
}

void TestSectionReconnectPty::noRetryWhileAnUpdateRuns()
{
    // A section in its bootloader with a firmware image to load, that stops answering
    // half-way: the link stays Updating, nothing reopens the port or probes again.
    QVERIFY(QDir(m_dir->path()).mkpath(QStringLiteral(".firmware")));
    QFile image(m_dir->filePath(QStringLiteral(".firmware/worksurface.bin")));
    QVERIFY(image.open(QIODevice::WriteOnly));
    image.write(QByteArray(64 * 40, char(0x5A)));
    image.close();

    PtySectionSimulator* sim = plugIn();
    QVERIFY(sim);
    sim->setMode(PtySectionSimulator::Mode::Bootloader);
    connect(sim, &PtySectionSimulator::bootloaderPacketReceived, sim, [sim](int command) {
        if (command == 0x24 && sim->image().size() >= 64 * 3) {
            sim->setSilent(true);
        }
    });
    startSurface(kInterval);
    QTRY_COMPARE_WITH_TIMEOUT(first()->linkState(), int(SectionInfoModel::Updating), kTimeout);
    QTRY_VERIFY_WITH_TIMEOUT(sim->isSilent(), kTimeout);
    runFor(3 * kInterval);
    QCoreApplication::processEvents();
    QCOMPARE(first()->linkState(), int(SectionInfoModel::Updating));
    QCOMPARE(sim->commandCount(0x55), 1);
}

// A section found in its bootloader is updated, reset and asked again a second later, at
// any interval, also one shorter than that second: the link waits for the updater all
// along. One AutoBaud at the start and one after the reset, no other, the link never flaps
// and nothing logs an outage.
void TestSectionReconnectPty::aFullUpdateIsNeverInterruptedByReconnection_data()
{
    QTest::addColumn<int>("interval");
    QTest::newRow("100 ms") << 100;
    QTest::newRow("500 ms") << 500;
    QTest::newRow("2000 ms") << 2000;
}

void TestSectionReconnectPty::aFullUpdateIsNeverInterruptedByReconnection()
{
    QFETCH(int, interval);
    QVERIFY(QDir(m_dir->path()).mkpath(QStringLiteral(".firmware")));
    QFile image(m_dir->filePath(QStringLiteral(".firmware/worksurface.bin")));
    QVERIFY(image.open(QIODevice::WriteOnly));
    const QByteArray content(64 * 5, char(0x3C));
    image.write(content);
    image.close();

    PtySectionSimulator* sim = plugIn();
    QVERIFY(sim);
    sim->setMode(PtySectionSimulator::Mode::Bootloader);
    LogCapture log;
    LinkStates states(first());
    startSurface(interval);
    // The image crosses the line in real time, the clock standing still; then the section is
    // reset into its application.
    QTRY_COMPARE_WITH_TIMEOUT(sim->mode(), PtySectionSimulator::Mode::Application, kTimeout);
    QCOMPARE(sim->image(), content);
    // Pass by pass until the updater asks again, then the answer crosses the line (in real
    // time: the clock stands still while a section answers).
    const qint64 resetMs = elapsedMs();
    while (sim->commandCount(0x55) < 2 && elapsedMs() < resetMs + 3000) {
        pass();
    }
    QTRY_COMPARE_WITH_TIMEOUT(first()->linkState(), int(SectionInfoModel::Connected), kTimeout);
    runFor(3000);
    QCoreApplication::processEvents();

    QCOMPARE(sim->commandCount(0x55), 2);
    QCOMPARE(states.values,
             (std::vector<int>{SectionInfoModel::Connecting, SectionInfoModel::Updating,
                               SectionInfoModel::Connecting, SectionInfoModel::Connected}));
    QCOMPARE(first()->lastUpdateFailure(), -1);
    QCOMPARE(sectionZeroLines(log),
             (QStringList{QStringLiteral("WS section 0 serial port: %1 ready and open.")
                              .arg(quoted(m_devicePath))}));
    // The link is the parser's again: the section's pings are answered and counted.
    QVERIFY(sim->receivedBytes().contains(kPingFrame));
}

void TestSectionReconnectPty::failedUpdatesAreToldWithTheirReasonAndASuccessResetsTheFailure()
{
    PtySectionSimulator* sim = plugIn();
    QVERIFY(sim);
    sim->setMode(PtySectionSimulator::Mode::Bootloader);
    QSignalSpy failed(first(), &SectionInfoModel::updateFailed);
    QSignalSpy changed(first(), &SectionInfoModel::lastUpdateFailureChanged);
    LogCapture log;
    startSurface(0);

    // No image anywhere: reason 0.
    QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, kTimeout);
    QCOMPARE(failed.at(0).at(0).toInt(), 0);
    QCOMPARE(first()->lastUpdateFailure(), 0);

    QVERIFY(QDir(m_dir->path()).mkpath(QStringLiteral(".firmware")));
    QFile image(m_dir->filePath(QStringLiteral(".firmware/worksurface.bin")));
    QVERIFY(image.open(QIODevice::WriteOnly));
    image.write(QByteArray(100, char(0x42)));
    image.close();

    // The section is reset after each update and probed a second later; it stays in its
    // bootloader for the next round. The second is counted from when the link heard the
    // reset's acknowledgement (it crosses the pty in real time, and with the links on their
    // thread is taken there): the clock moves only once the link has scheduled its probe.
    int resets = 0;
    const auto nextRound = [this, sim, &log, &resets] {
        QTRY_COMPARE_WITH_TIMEOUT(sim->mode(), PtySectionSimulator::Mode::Application, kTimeout);
        sim->setMode(PtySectionSimulator::Mode::Bootloader);
        ++resets;
        QTRY_VERIFY_WITH_TIMEOUT(
            log.count(QtDebugMsg, QStringLiteral("WS UPDATER: Reset acknowledged register task "
                                                 "for sending AutoBaud.")) >= resets,
            kTimeout);
        catchUpServiceLinks(*m_service);
        m_clock->advanceNs(1001 * kMs);
        runServicePools(*m_service);
    };

    // The bootloader refuses every data block: reason 1.
    sim->nakCommand(0x24, -1);
    nextRound();
    QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 2, kTimeout);
    QCOMPARE(failed.at(1).at(0).toInt(), 1);
    QCOMPARE(first()->lastUpdateFailure(), 1);
    sim->nakCommand(0x24, 0);

    // The flash fails: reason 2.
    sim->enqueueStatusReply(0x44);
    nextRound();
    QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 3, kTimeout);
    QCOMPARE(failed.at(2).at(0).toInt(), 2);
    QCOMPARE(first()->lastUpdateFailure(), 2);
    QCOMPARE(changed.count(), 3);

    // A good update: no failure, and the last one is forgotten.
    nextRound();
    QTRY_COMPARE_WITH_TIMEOUT(first()->lastUpdateFailure(), -1, kTimeout);
    QCOMPARE(failed.count(), 3);
    QCOMPARE(changed.count(), 4);
    QCOMPARE(sim->image(), QByteArray(100, char(0x42)) + QByteArray(28, char(0xFF)));
    QCOMPARE(first()->updateProgress(), 100);
}

void TestSectionReconnectPty::aNewConnectStartsTheModelsOverAndASectionTheModelLacksIsClosed()
{
    const QString thirdPath = m_dir->filePath(QStringLiteral("ttyWS2"));
    qputenv(kPortsVariable, QStringList({m_devicePath, m_other->slavePath(), thirdPath})
                                .join(QLatin1Char(','))
                                .toLocal8Bit());
    m_service->settings()->setType(SurfaceSettings::Hardware);
    m_service->settings()->setMode(SurfaceSettings::K60);
    m_service->connect();
    QTRY_VERIFY_WITH_TIMEOUT(m_service->connection()->surface() != nullptr, kTimeout);
    m_pool = linkPoolOf(*m_service);
    QVERIFY(verifyLinksWhereTheModeSays(*m_service));
    pass();
    SectionInfoModel* third = m_service->section(2);
    QCOMPARE(third->linkState(), int(SectionInfoModel::Connecting));
    QCOMPARE(third->portName(), thirdPath);
    QCOMPARE(third->portError(), QStringLiteral("Device not found: %1").arg(thirdPath));

    // A K40 has no third section: after the next connect() its model shows no link at all.
    QSignalSpy surfaceChanged(m_service->connection(), &SurfaceConnection::surfaceChanged);
    QSignalSpy portChanged(third, &SectionInfoModel::portNameChanged);
    m_service->settings()->setMode(SurfaceSettings::K40);
    m_service->connect();
    QTRY_COMPARE_WITH_TIMEOUT(surfaceChanged.count(), 1, kTimeout);
    m_pool = linkPoolOf(*m_service);
    QVERIFY(verifyLinksWhereTheModeSays(*m_service));
    pass();
    QCOMPARE(third->linkState(), int(SectionInfoModel::Closed));
    QCOMPARE(third->portName(), QString());
    QCOMPARE(third->portError(), QString());
    QCOMPARE(portChanged.count(), 1);
    // The sections the new surface has follow their new links.
    QCOMPARE(first()->portName(), m_devicePath);
    QCOMPARE(first()->linkState(), int(SectionInfoModel::Connecting));
}

// connect() with no console model builds nothing: the surface that ran stays and is started
// again, and its links open and probe once more. Links on the surface thread keep their own
// pool, which starts again with them: they are supervised as before, and the healthy section
// is pinged every 2 s. Links on the QML thread are on the model's pool, which every start
// replaces: nothing pings any more (docs/surface-service.md).
void TestSectionReconnectPty::aConnectThatBuildsNothingStartsTheOldLinksAgainOnTheirOwnPool()
{
    startSurface(kInterval);
    const auto modelPool = m_service->taskPool();
    const auto linkPool = m_service->linkTaskPool();
    QSignalSpy surfaceChanged(m_service->connection(), &SurfaceConnection::surfaceChanged);
    m_service->settings()->setMode(SurfaceSettings::Unknown);
    m_service->connect();
    QTRY_VERIFY_WITH_TIMEOUT(m_service->taskPool() != modelPool, kTimeout);
    QCOMPARE(surfaceChanged.count(), 0);
    QCOMPARE(m_service->linkTaskPool(), linkPool);
    QTRY_COMPARE_WITH_TIMEOUT(m_service->section(1)->linkState(), int(SectionInfoModel::Connected),
                              kTimeout);
    const int pingsBefore = m_other->pingCount();
    runFor(5000);
    if (m_service->linksOnSurfaceThread()) {
        QVERIFY2(m_other->pingCount() - pingsBefore >= 2,
                 qPrintable(QString::number(m_other->pingCount() - pingsBefore)));
        bool running = false;
        m_service->linkRuntime().runOnLinkThread(
            [&]() { running = linkPool->isRunning() && linkPool->isTimerActive(); });
        QVERIFY(running);
    } else {
        QCOMPARE(m_other->pingCount(), pingsBefore);
    }
}

QTEST_GUILESS_MAIN(TestSectionReconnectPty)
#include "tst_sectionreconnectpty.moc"
