// The bench tool end to end: the built worksurface-tool runs as its own process against
// sections played by pty section simulators in this process (pointed at with --ports), so
// every command goes through real serial devices. The simulators answer on this process's
// event loop, so the tool is waited for with QSignalSpy::wait or waitFor(), never with a
// blocking wait. These are real waits for real process and pty I/O; each waits for a
// condition and is bounded generously, never for a fixed time. Where a test shows that
// something did not happen within some time of the tool's, the tool itself shows that this
// time has passed: the time on a line it printed.

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>
#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSerialPort>
#include <QSocketNotifier>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>
#include <csignal>
#include <functional>
#include <memory>

#include "support/ptysectionsimulator.h"
#include "surface/controltypes.h"
#include "surface/deviceidtable.h"
#include "toolprocess.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kRunTimeout = 60000;
constexpr const char* kPortsVariable = "TARVIX_WORKSURFACE_SERIAL_PORTS";

using Run = ToolProcess::Run;

QByteArray frame(uint8_t type, uint8_t device, const QByteArray& payload = QByteArray())
{
    return PtySectionSimulator::encodeFrame(type, device, payload);
}

// Image bytes that differ from their neighbours and from the 0xFF padding.
QByteArray imageOfSize(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 7 + 3) % 251);
    }
    return bytes;
}

// The tool's time, in milliseconds since it started, of the first line of text that
// matches the pattern after its time ("   2.345  section 0  ..."); -1 if there is none.
qint64 shownAtMs(const QString& text, const QString& pattern)
{
    const QRegularExpression line(QStringLiteral(R"(^ *(\d+)\.(\d{3})  )") + pattern,
                                  QRegularExpression::MultilineOption);
    const QRegularExpressionMatch m = line.match(text);
    if (!m.hasMatch()) {
        return -1;
    }
    return m.captured(1).toLongLong() * 1000 + m.captured(2).toLongLong();
}

}  // namespace

class tst_WorksurfaceTool : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    // Command line
    void helpListsEveryCommandAndEveryExitCode();
    void everyCommandHasItsHelp_data();
    void everyCommandHasItsHelp();
    void versionPrintsTheToolsVersion();
    void usageErrorsExitWithOne_data();
    void usageErrorsExitWithOne();

    // ports
    void portsReportsEachSectionsDeviceAsText();
    void portsReportsEachSectionsDeviceAsJson();
    void portsTakeTheEnvironmentsDevicesUnlessPortsOverridesThem();

    // probe
    void probeReportsTheApplicationWithVersionAndTemperature();
    void probeReportsTheApplicationAsJson();
    void probeLeavesASectionInItsBootloaderUntouched();
    void probeReportsASilentSection();
    void probeReportsAMissingDeviceAsPortError();
    void probeOfSeveralSectionsReturnsTheFirstFailureAndReportsAll();

    // flash
    void flashWritesAHundredByteImageByteForByte();
    void flashWritesA256KiBImageByteForByteWithJsonProgress();
    void flashRefusesASectionRunningItsApplication();
    void flashStopsOnANakStormWithExitFive();
    void flashStopsOnAnErrorStatusWithExitSix();
    void flashWithAMissingFileExitsWithFourWithoutOpeningAPort();
    void flashOfASilentSectionExitsWithThree();
    void flashOfASectionThatStopsAnsweringExitsWithElevenAndTheNextFlashCompletes();
    void flashOfAMissingDeviceExitsWithTwo();
    void flashDrawsAProgressBarOnATerminal();
    void flashGivesUpOnASectionThatStaysInItsBootloader();

    // monitor
    void monitorShowsTrafficInOrderAndEndsCleanlyOnSigint();
    void monitorAsJsonWithRawBytes();
    void monitorLeavesASectionInItsBootloaderAlone();

    // decode
    void decodeNamesEveryMessageTypeAndPlacesSplitNoise();
    void decodeReadsStandardInputAsJson();
    void decodeOfAMissingFileExitsWithFour();

    // exercise
    void exerciseSendsThePatternToASection();

    // On a real bench
    void monitorShowsALateSectionAndWhatItSentBeforeItsAnswer();
    void aSectionThatSendsGarbageIsGarbledNotSilent();
    void monitorEndsWithTwoWhenTheDeviceIsLost();
    void monitorWithFollowKeepsWaitingForALostDevice();
    void monitorListenOnlySendsNothing();
    void monitorFiltersByTypeDeviceAndDirection();
    void monitorTimesAsIsoOrDelta();
    void flashRefusesWhatIsNoBinaryImage_data();
    void flashRefusesWhatIsNoBinaryImage();
    void flashPrintsTheImagesSizeAndSha256();
    void flashDryRunProbesAndWritesNothing();
    void flashExpectVersionFailsOnAnotherVersion();
    void flashReportsTheStatusCommandAndOffsetOfAnErrorInTheImage();
    void flashInterruptedResetsTheSectionOutOfItsBootloader();
    void flashWritesThreeSectionsAtOnceGroupedPerSection();
    void portsNamesTheProcessHoldingTheDevice();
    void anotherNameOfAHeldDeviceIsNotOpened();
    void portsScanListsSerialDevices();
    void aSinglePortsEntryIsTheGivenSections();
    void tooManyPortsEntriesAreAUsageError();
    void shortOptionsAreAccepted();
    void helpIsACommand();
    void decodeReadsStandardInputFromDash();
    void decodeOfAKnownSectionNamesOnlyItsControls();
    void decodeOfAMissingFileSaysWhy();
    void probeChecksEverySectionAtOnce();
    void exerciseCoversTheMasterSection();
    void exerciseSkipsASectionThatDoesNotAnswer();
    void exerciseReportsASectionThatStopsAnswering();
    void exerciseInterruptedTurnsTheLedsOff_data();
    void exerciseInterruptedTurnsTheLedsOff();
    void aSecondCtrlCEndsAtOnce();

private:
    Run run(const QStringList& arguments, int timeoutMs = kRunTimeout);
    // Starts the tool without waiting for it.
    QProcess* start(const QStringList& arguments);
    static Run finish(QProcess& process, int timeoutMs);
    QString writeImage(const QByteArray& image);
    QString missingDevice() const { return m_dir->filePath(QStringLiteral("no-such-tty")); }
    // Runs the event loop until the process's standard output and error so far satisfy the
    // condition; what was read is kept in out and err.
    bool readUntil(QProcess& process,
                   const std::function<bool(const QString& out, const QString& err)>& condition,
                   int timeoutMs = 10000);
    // Runs until a running monitor has shown, with a time of its own clock at or after
    // toolMs, a frame that sim (its section `section`) sent: the tool's event loop has run
    // past that moment, however slow or busy the machine is. The frames are fader positions
    // of device 4.
    bool waitUntilToolTime(QProcess& process, PtySectionSimulator& sim, int section, qint64 toolMs,
                           int timeoutMs = 20000);
    QString m_out;
    QString m_err;

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<PtySectionSimulator> m_sim;
    std::unique_ptr<QProcess> m_process;
    QProcessEnvironment m_env;
};

void tst_WorksurfaceTool::initTestCase()
{
    qRegisterMetaType<QProcess::ExitStatus>();
}

void tst_WorksurfaceTool::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_sim = std::make_unique<PtySectionSimulator>();
    QVERIFY2(m_sim->isOpen(), qPrintable(m_sim->errorString()));
    m_env = QProcessEnvironment::systemEnvironment();
    m_env.remove(QString::fromLatin1(kPortsVariable));
}

void tst_WorksurfaceTool::cleanup()
{
    if (m_process && m_process->state() != QProcess::NotRunning) {
        m_process->kill();
        m_process->waitForFinished(5000);
    }
    m_process.reset();
    m_out.clear();
    m_err.clear();
    m_sim.reset();
    m_dir.reset();
}

QProcess* tst_WorksurfaceTool::start(const QStringList& arguments)
{
    m_process = std::make_unique<QProcess>();
    m_process->setProcessEnvironment(m_env);
    m_process->start(QStringLiteral(TARVIX_TOOL_PATH), arguments);
    return m_process.get();
}

Run tst_WorksurfaceTool::finish(QProcess& process, int timeoutMs)
{
    if (!ToolProcess::waitForEnd(process, timeoutMs)) {
        return Run();
    }
    return ToolProcess::ended(process, QString::fromLocal8Bit(process.readAllStandardOutput()),
                              QString::fromLocal8Bit(process.readAllStandardError()));
}

Run tst_WorksurfaceTool::run(const QStringList& arguments, int timeoutMs)
{
    return finish(*start(arguments), timeoutMs);
}

bool tst_WorksurfaceTool::readUntil(
    QProcess& process, const std::function<bool(const QString&, const QString&)>& condition,
    int timeoutMs)
{
    const auto read = [&] {
        m_out += QString::fromLocal8Bit(process.readAllStandardOutput());
        m_err += QString::fromLocal8Bit(process.readAllStandardError());
        return condition(m_out, m_err);
    };
    // The simulators answer on this event loop.
    waitFor([&] { return read() || process.state() == QProcess::NotRunning; }, timeoutMs);
    // What a tool that has ended wrote last.
    return read();
}

bool tst_WorksurfaceTool::waitUntilToolTime(QProcess& process, PtySectionSimulator& sim,
                                            int section, qint64 toolMs, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    for (int round = 0; timer.elapsed() < timeoutMs; ++round) {
        const int position = 600 + round;
        sim.sendFaderPosition(4, static_cast<uint16_t>(position));
        const QString shown =
            QStringLiteral(R"(section %1  in   fader position  device 4  [^\n]*position %2$)")
                .arg(section)
                .arg(position);
        qint64 at = -1;
        if (!readUntil(
                process,
                [&](const QString& out, const QString&) {
                    at = shownAtMs(out, shown);
                    return at >= 0;
                },
                timeoutMs)) {
            return false;
        }
        if (at >= toolMs) {
            return true;
        }
        // The tool printed the frame before we read it, and both clocks are the system's
        // monotonic clock: once toolMs - at more has passed here, the tool's clock is past
        // toolMs, and the next frame is read after that. The next round checks it all the
        // same.
        const QDeadlineTimer due(toolMs - at, Qt::PreciseTimer);
        waitFor([&] { return due.hasExpired(); }, static_cast<int>(toolMs - at) + 1000);
    }
    return false;
}

QString tst_WorksurfaceTool::writeImage(const QByteArray& image)
{
    const QString path = m_dir->filePath(QStringLiteral("worksurface-new.bin"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(image) != image.size()) {
        qFatal("cannot write the test image");
    }
    return path;
}

// --- Command line ------------------------------------------------------------------------

void tst_WorksurfaceTool::helpListsEveryCommandAndEveryExitCode()
{
    const Run r = run({"--help"});
    QCOMPARE(r.exitCode, 0);
    const QString help = r.out.join('\n');
    for (const char* command : {"ports", "probe", "flash", "monitor", "decode", "exercise"}) {
        QVERIFY2(help.contains(QStringLiteral("\n  %1 ").arg(QLatin1String(command))), command);
    }
    for (const char* line :
         {"  0  success", "  1  usage error", "  2  a port could not be opened",
          "  3  a section did not answer in time", "  4  the firmware file",
          "  5  resends exhausted during an update", "  6  the bootloader reported an error status",
          "  7  flash found a section running its application instead of its bootloader"}) {
        QVERIFY2(help.contains(QLatin1String(line)), line);
    }
}

void tst_WorksurfaceTool::everyCommandHasItsHelp_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QStringList>("absent");
    const QStringList common{"--model", "--ports", "--section", "--timeout", "--json"};
    QTest::newRow("ports") << "ports" << (common + QStringList{"--scan"}) << QStringList{};
    QTest::newRow("probe") << "probe" << common << QStringList{};
    QTest::newRow("flash") << "flash"
                           << (common + QStringList{"--max-size", "--expect-version", "--dry-run"})
                           << QStringList{};
    // Monitor waits for nothing; decode opens no port.
    QTest::newRow("monitor") << "monitor"
                             << QStringList{"--model", "--ports", "--port",        "--section",
                                            "--json",  "--raw",   "--listen-only", "--follow",
                                            "--time",  "--type",  "--device",      "--dir"}
                             << QStringList{"--timeout"};
    QTest::newRow("decode") << "decode"
                            << QStringList{"--model", "--section", "--json", "--raw", "(default 0)"}
                            << QStringList{"--ports", "--port ", "--timeout", "default: all"};
    QTest::newRow("exercise") << "exercise" << (common + QStringList{"--step-ms"}) << QStringList{};
}

void tst_WorksurfaceTool::everyCommandHasItsHelp()
{
    QFETCH(QString, command);
    QFETCH(QStringList, options);
    QFETCH(QStringList, absent);
    const Run r = run({command, "--help"});
    QCOMPARE(r.exitCode, 0);
    const QString help = r.out.join('\n');
    QVERIFY(help.contains(QLatin1String("Exit codes:")));
    QVERIFY(help.contains(QLatin1String("  7  flash found a section running its application")));
    for (const QString& option : options) {
        QVERIFY2(help.contains(option), qPrintable(option));
    }
    for (const QString& option : absent) {
        QVERIFY2(!help.contains(option), qPrintable(option));
    }
    // The usage line names the tool as it is typed, not the binary's build path.
    const QString file = command == QLatin1String("flash")    ? QStringLiteral(" FILE")
                         : command == QLatin1String("decode") ? QStringLiteral(" [FILE]")
                                                              : QString();
    QCOMPARE(r.out.first(),
             QStringLiteral("Usage: worksurface-tool %1 [options]%2").arg(command, file));
    QVERIFY(!help.contains(QLatin1String(TARVIX_TOOL_PATH)));
    // "help COMMAND" is the same text.
    const Run viaHelp = run({"help", command});
    QCOMPARE(viaHelp.exitCode, 0);
    QCOMPARE(viaHelp.out, r.out);
}

void tst_WorksurfaceTool::versionPrintsTheToolsVersion()
{
    const Run r = run({"--version"});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out, QStringList({"worksurface-tool 1.0"}));
}

void tst_WorksurfaceTool::usageErrorsExitWithOne_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("message");
    QTest::newRow("no command") << QStringList{} << "worksurface-tool: no command given";
    QTest::newRow("unknown command")
        << QStringList{"blink"} << "worksurface-tool: unknown command: blink";
    QTest::newRow("unknown option")
        << QStringList{"probe", "--fast"} << "worksurface-tool: Unknown option 'fast'.";
    QTest::newRow("unknown model") << QStringList{"probe", "--model", "K50"}
                                   << "worksurface-tool: unknown model: K50 (K40 or K60)";
    QTest::newRow("section beyond the model")
        << QStringList{"probe", "--model", "K40", "--section", "2"}
        << "worksurface-tool: bad --section: 2 (the K40 has sections 0 to 1)";
    QTest::newRow("bad time-out") << QStringList{"probe", "--timeout", "soon"}
                                  << "worksurface-tool: bad --timeout: soon";
    QTest::newRow("flash without file")
        << QStringList{"flash"} << "worksurface-tool: flash needs one FILE";
    QTest::newRow("probe with a file")
        << QStringList{"probe", "x.bin"} << "worksurface-tool: unexpected argument: x.bin";
    QTest::newRow("raw outside monitor")
        << QStringList{"probe", "--raw"} << "worksurface-tool: Unknown option 'raw'.";
}

void tst_WorksurfaceTool::usageErrorsExitWithOne()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, message);
    const Run r = run(arguments);
    QCOMPARE(r.exitCode, 1);
    QVERIFY(r.out.isEmpty());
    QCOMPARE(r.err.split('\n').first(), message);
}

// --- ports -------------------------------------------------------------------------------

void tst_WorksurfaceTool::portsReportsEachSectionsDeviceAsText()
{
    const QString sim = m_sim->slavePath();
    const Run r = run({"ports", "--model", "K40", "--ports", sim + "," + missingDevice()});
    QCOMPARE(r.exitCode, 2);
    QCOMPARE(r.out, QStringList({
                        QStringLiteral("section 0  %1  exists  openable").arg(sim),
                        QStringLiteral("section 1  %1  missing  not openable: No such file or "
                                       "directory")
                            .arg(missingDevice()),
                    }));

    const Run one = run({"ports", "--model", "K40", "--section", "0", "--ports", sim});
    QCOMPARE(one.exitCode, 0);
    QCOMPARE(one.out, QStringList({QStringLiteral("section 0  %1  exists  openable").arg(sim)}));
    // Opened for the check only: the section heard nothing.
    QVERIFY(m_sim->receivedBytes().isEmpty());
}

void tst_WorksurfaceTool::portsReportsEachSectionsDeviceAsJson()
{
    const QString sim = m_sim->slavePath();
    const Run r =
        run({"ports", "--json", "--model", "K40", "--ports", sim + "," + missingDevice()});
    QCOMPARE(r.exitCode, 2);
    QCOMPARE(
        r.out,
        QStringList({
            QStringLiteral(R"({"section":0,"device":"%1","exists":true,"openable":true})").arg(sim),
            QStringLiteral(R"({"section":1,"device":"%1","exists":false,"openable":false,)"
                           R"("error":"No such file or directory"})")
                .arg(missingDevice()),
        }));
}

void tst_WorksurfaceTool::portsTakeTheEnvironmentsDevicesUnlessPortsOverridesThem()
{
    const QString sim = m_sim->slavePath();
    // The plugin's own naming: the variable's entries, then the model's devices.
    m_env.insert(QString::fromLatin1(kPortsVariable), QStringLiteral(" ,%1").arg(sim));
    const Run r = run({"ports", "--json", "--model", "K40"});
    QCOMPARE(r.out.size(), 2);
    QVERIFY2(r.out.at(0).startsWith(QLatin1String(R"({"section":0,"device":"/dev/ttymxc1",)")),
             qPrintable(r.out.at(0)));
    QCOMPARE(
        r.out.at(1),
        QStringLiteral(R"({"section":1,"device":"%1","exists":true,"openable":true})").arg(sim));

    const Run overridden = run(
        {"ports", "--json", "--model", "K60", "--section", "1", "--ports", "," + missingDevice()});
    QCOMPARE(overridden.out.size(), 1);
    QVERIFY2(overridden.out.at(0).startsWith(
                 QStringLiteral(R"({"section":1,"device":"%1",)").arg(missingDevice())),
             qPrintable(overridden.out.at(0)));
}

// --- probe -------------------------------------------------------------------------------

void tst_WorksurfaceTool::probeReportsTheApplicationWithVersionAndTemperature()
{
    m_sim->setVersionReport(34, 41);
    const QString sim = m_sim->slavePath();
    const Run r = run({"probe", "--section", "0", "--ports", sim});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out, QStringList({QStringLiteral("section 0  %1  application  version 34  "
                                                "temperature 41")
                                     .arg(sim)}));
    // The bootloader probe, then a ping; nothing else.
    QCOMPARE(m_sim->commandCount(BootloaderCommand::AutoBaud), 1);
    QVERIFY(m_sim->pingCount() >= 1);
    QVERIFY(m_sim->receivedPackets().isEmpty());
    QCOMPARE(m_sim->receivedBytes().left(6), QByteArray::fromHex("555503000003"));
}

void tst_WorksurfaceTool::probeReportsTheApplicationAsJson()
{
    m_sim->setVersionReport(34, 41);
    const QString sim = m_sim->slavePath();
    const Run r = run({"probe", "--json", "--section", "0", "--ports", sim});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out, QStringList({QStringLiteral(R"({"section":0,"device":"%1","state":)"
                                                R"("application","version":34,"temperature":41})")
                                     .arg(sim)}));
}

void tst_WorksurfaceTool::probeLeavesASectionInItsBootloaderUntouched()
{
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    const QString sim = m_sim->slavePath();
    const Run r = run({"probe", "--section", "0", "--ports", sim});
    QCOMPARE(r.exitCode, 3);
    QCOMPARE(r.out, QStringList({QStringLiteral("section 0  %1  bootloader").arg(sim)}));
    // Only the probe went out: no update began, no reset, no ping.
    QCOMPARE(m_sim->receivedBytes(), QByteArray::fromHex("5555"));
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Bootloader);

    const Run json = run({"probe", "--json", "--section", "0", "--ports", sim});
    QCOMPARE(json.exitCode, 3);
    QCOMPARE(json.out,
             QStringList(
                 {QStringLiteral(R"({"section":0,"device":"%1","state":"bootloader"})").arg(sim)}));
    QCOMPARE(m_sim->receivedBytes(), QByteArray::fromHex("55555555"));
}

void tst_WorksurfaceTool::probeReportsASilentSection()
{
    m_sim->setSilent(true);
    const QString sim = m_sim->slavePath();
    const Run r = run({"probe", "--timeout", "0.3", "--section", "0", "--ports", sim});
    QCOMPARE(r.exitCode, 3);
    QCOMPARE(r.out, QStringList({QStringLiteral("section 0  %1  silent").arg(sim)}));

    const Run json = run({"probe", "--json", "--timeout", "0.3", "--section", "0", "--ports", sim});
    QCOMPARE(json.exitCode, 3);
    QCOMPARE(
        json.out,
        QStringList({QStringLiteral(R"({"section":0,"device":"%1","state":"silent"})").arg(sim)}));
}

void tst_WorksurfaceTool::probeReportsAMissingDeviceAsPortError()
{
    const Run r = run({"probe", "--section", "0", "--ports", missingDevice()});
    QCOMPARE(r.exitCode, 2);
    QCOMPARE(r.out, QStringList({QStringLiteral("section 0  %1  port-error  No such file or "
                                                "directory")
                                     .arg(missingDevice())}));
    const Run json = run({"probe", "--json", "--section", "0", "--ports", missingDevice()});
    QCOMPARE(json.exitCode, 2);
    QCOMPARE(json.out, QStringList({QStringLiteral(R"({"section":0,"device":"%1","state":)"
                                                   R"("port-error","error":"No such file or )"
                                                   R"(directory"})")
                                        .arg(missingDevice())}));
}

void tst_WorksurfaceTool::probeOfSeveralSectionsReturnsTheFirstFailureAndReportsAll()
{
    PtySectionSimulator silent;
    QVERIFY(silent.isOpen());
    silent.setSilent(true);
    m_sim->setVersionReport(34, 41);
    const QString ports =
        QStringList{m_sim->slavePath(), missingDevice(), silent.slavePath()}.join(',');
    const Run r = run({"probe", "--timeout", "0.3", "--ports", ports});
    QCOMPARE(r.exitCode, 2);
    QCOMPARE(r.out, QStringList({
                        QStringLiteral("section 0  %1  application  version 34  temperature 41")
                            .arg(m_sim->slavePath()),
                        QStringLiteral("section 1  %1  port-error  No such file or directory")
                            .arg(missingDevice()),
                        QStringLiteral("section 2  %1  silent").arg(silent.slavePath()),
                    }));
}

// --- flash -------------------------------------------------------------------------------

void tst_WorksurfaceTool::flashWritesAHundredByteImageByteForByte()
{
    const QByteArray image = imageOfSize(100);
    const QString path = writeImage(image);
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_sim->setVersionReport(35, 40);
    const QString sim = m_sim->slavePath();

    // The second between the acknowledged reset and the updater's next probe is the
    // updater's own wait, not the section's silence: a shorter time-out does not end it.
    const Run r = run({"flash", path, "--timeout", "0.8", "--section", "0", "--ports", sim});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(m_sim->downloadSize(), 128u);
    QCOMPARE(m_sim->image(), image + QByteArray(28, '\xff'));
    QCOMPARE(r.out,
             QStringList({
                 QStringLiteral("section 0  %1  updating from %2 (100 bytes)").arg(sim, path),
                 "section 0    0 %  0/100 bytes",
                 "section 0   64 %  64/100 bytes",
                 "section 0  100 %  100/100 bytes",
                 "section 0  done  version 35",
             }));
    // Back in its application after the reset, which the tool saw by its version.
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Application);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Reset), 1);
}

void tst_WorksurfaceTool::flashWritesA256KiBImageByteForByteWithJsonProgress()
{
    const QByteArray image = imageOfSize(256 * 1024);
    const QString path = writeImage(image);
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_sim->setVersionReport(35, 40);

    const Run r = run({"flash", path, "--json", "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(m_sim->downloadSize(), 262144u);
    QVERIFY(m_sim->image() == image);

    QVERIFY(r.out.size() >= 3);
    QCOMPARE(
        r.out.first(),
        QStringLiteral(R"({"section":0,"event":"progress","percent":0,"bytes":0,"total":262144})"));
    QCOMPARE(
        r.out.at(r.out.size() - 2),
        QStringLiteral(
            R"({"section":0,"event":"progress","percent":100,"bytes":262144,"total":262144})"));
    QCOMPARE(r.out.last(), QStringLiteral(R"({"section":0,"event":"done","version":35})"));
    // One object per percent, each with the bytes sent so far.
    QCOMPARE(r.out.size(), 101 + 1);
    const QRegularExpression progress(
        R"(^\{"section":0,"event":"progress","percent":(\d+),"bytes":(\d+),"total":262144\}$)");
    int lastPercent = -1;
    for (int i = 0; i + 1 < r.out.size(); ++i) {
        const QRegularExpressionMatch m = progress.match(r.out.at(i));
        QVERIFY2(m.hasMatch(), qPrintable(r.out.at(i)));
        const int percent = m.captured(1).toInt();
        const qint64 bytes = m.captured(2).toLongLong();
        QCOMPARE(percent, lastPercent + 1);
        QCOMPARE(bytes * 100 / 262144, qint64(percent));
        QCOMPARE(bytes % 64, qint64(0));
        lastPercent = percent;
    }
}

void tst_WorksurfaceTool::flashRefusesASectionRunningItsApplication()
{
    const QString path = writeImage(imageOfSize(100));
    const QString sim = m_sim->slavePath();
    const Run r = run({"flash", path, "--section", "0", "--ports", sim});
    QCOMPARE(r.exitCode, 7);
    QCOMPARE(r.out, QStringList({"section 0  failed  running its application, not its "
                                 "bootloader: not flashed (exit 7)"}));
    // The probe was answered as an application: nothing of an update went out.
    QCOMPARE(m_sim->commandCount(BootloaderCommand::AutoBaud), 1);
    QVERIFY(!m_sim->receivedBytes().contains(QByteArray::fromHex("032020")));

    const Run json = run({"flash", path, "--json", "--section", "0", "--ports", sim});
    QCOMPARE(json.exitCode, 7);
    QCOMPARE(json.out, QStringList({R"({"section":0,"event":"failed","exit":7})"}));
}

void tst_WorksurfaceTool::flashStopsOnANakStormWithExitFive()
{
    const QString path = writeImage(imageOfSize(300));
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_sim->nakCommand(BootloaderCommand::SendData, -1);
    const Run r = run({"flash", path, "--json", "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(r.exitCode, 5);
    // The refused command and where in the image it was.
    QCOMPARE(r.out.last(), QStringLiteral(R"({"section":0,"event":"failed","reason":1,"exit":5,)"
                                          R"("command":"SendData","offset":0})"));
    // The first block, then five resends; then the section is reset.
    QCOMPARE(m_sim->commandCount(BootloaderCommand::SendData), 6);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Reset), 1);

    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    const Run text = run({"flash", path, "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(text.exitCode, 5);
    QCOMPARE(text.out.last(),
             QStringLiteral("section 0  failed  resends exhausted: SendData refused at offset 0 "
                            "(exit 5)"));
}

void tst_WorksurfaceTool::flashStopsOnAnErrorStatusWithExitSix()
{
    const QString path = writeImage(imageOfSize(300));
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_sim->enqueueStatusReply(BootloaderCommand::FlashFailure);
    const Run r = run({"flash", path, "--json", "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(r.exitCode, 6);
    QCOMPARE(r.out, QStringList({
                        R"({"section":0,"event":"progress","percent":0,"bytes":0,"total":300})",
                        R"({"section":0,"event":"failed","reason":2,"exit":6,)"
                        R"("status":"FlashFailure","command":"Download","offset":0})",
                    }));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::SendData), 0);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Reset), 1);

    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_sim->enqueueStatusReply(BootloaderCommand::FlashFailure);
    const Run text = run({"flash", path, "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(text.exitCode, 6);
    QCOMPARE(text.out.last(),
             QStringLiteral("section 0  failed  the bootloader reported an error status: "
                            "FlashFailure after Download at offset 0 (exit 6)"));
}

void tst_WorksurfaceTool::flashWithAMissingFileExitsWithFourWithoutOpeningAPort()
{
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    const QString missing = m_dir->filePath(QStringLiteral("missing.bin"));
    const QString ports = m_sim->slavePath() + "," + m_sim->slavePath();
    const Run r = run({"flash", missing, "--model", "K40", "--ports", ports});
    QCOMPARE(r.exitCode, 4);
    QCOMPARE(r.out, QStringList({
                        QStringLiteral("section 0  failed  cannot read %1 (exit 4)").arg(missing),
                        QStringLiteral("section 1  failed  cannot read %1 (exit 4)").arg(missing),
                    }));
    const Run json =
        run({"flash", missing, "--json", "--section", "1", "--model", "K40", "--ports", ports});
    QCOMPARE(json.exitCode, 4);
    QCOMPARE(json.out, QStringList({R"({"section":1,"event":"failed","reason":0,"exit":4})"}));
    QVERIFY(m_sim->receivedBytes().isEmpty());
}

void tst_WorksurfaceTool::flashOfASilentSectionExitsWithThree()
{
    const QString path = writeImage(imageOfSize(100));
    m_sim->setSilent(true);
    const Run r =
        run({"flash", path, "--timeout", "0.3", "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(r.exitCode, 3);
    QCOMPARE(r.out, QStringList({"section 0  failed  no answer in time (exit 3)"}));
    const Run json = run({"flash", path, "--json", "--timeout", "0.3", "--section", "0", "--ports",
                          m_sim->slavePath()});
    QCOMPARE(json.exitCode, 3);
    QCOMPARE(json.out, QStringList({R"({"section":0,"event":"failed","exit":3})"}));
}

// The section's cable comes loose at the eighth of 20 blocks: the block's answer never
// comes, and after the time-out flash names the block and exits 11 without resetting the
// section, which waits in its bootloader. Run again, flash writes the whole image.
void tst_WorksurfaceTool::flashOfASectionThatStopsAnsweringExitsWithElevenAndTheNextFlashCompletes()
{
    const QByteArray image = imageOfSize(20 * 64);
    const QString path = writeImage(image);
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_sim->setVersionReport(35, 40);
    int silentAt = 8;
    const auto cut = connect(m_sim.get(), &PtySectionSimulator::bootloaderPacketReceived, this,
                             [&](int command, const QByteArray&) {
                                 if (command == BootloaderCommand::SendData &&
                                     m_sim->commandCount(BootloaderCommand::SendData) == silentAt) {
                                     m_sim->setSilent(true);
                                 }
                             });
    const Run r =
        run({"flash", path, "--timeout", "0.5", "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(r.exitCode, 11);
    QCOMPARE(r.out.last(),
             QStringLiteral("section 0  failed  the bootloader stopped answering at block 8 of 20 "
                            "(waiting for the answer to SendData); the section waits in its "
                            "bootloader: run flash again (exit 11)"));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Reset), 0);
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Bootloader);

    // The same in JSON, cut at the third block of the next try.
    m_sim->setSilent(false);
    silentAt = m_sim->commandCount(BootloaderCommand::SendData) + 3;
    const Run json = run({"flash", path, "--json", "--timeout", "0.5", "--section", "0", "--ports",
                          m_sim->slavePath()});
    QCOMPARE(json.exitCode, 11);
    QCOMPARE(json.out.last(),
             QStringLiteral(R"({"section":0,"event":"failed","reason":3,"exit":11,)"
                            R"("command":"SendData","offset":128,"block":3,"blocks":20})"));
    disconnect(cut);

    m_sim->setSilent(false);
    const Run again = run({"flash", path, "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(again.exitCode, 0);
    QCOMPARE(again.out.last(), QStringLiteral("section 0  done  version 35"));
    QVERIFY(m_sim->image() == image);
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Application);
}

void tst_WorksurfaceTool::flashOfAMissingDeviceExitsWithTwo()
{
    const QString path = writeImage(imageOfSize(100));
    const Run r = run({"flash", path, "--json", "--section", "0", "--ports", missingDevice()});
    QCOMPARE(r.exitCode, 2);
    QCOMPARE(r.out, QStringList({R"({"section":0,"event":"failed","exit":2,"error":"No such )"
                                 R"(file or directory"})"}));
}

void tst_WorksurfaceTool::flashDrawsAProgressBarOnATerminal()
{
    // The tool's standard output is the slave of a pseudo-terminal of our own.
    int master = -1;
    int slave = -1;
    QVERIFY(::openpty(&master, &slave, nullptr, nullptr, nullptr) == 0);
    const QString terminal = QString::fromLocal8Bit(::ttyname(slave));
    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
    QByteArray screen;
    QSocketNotifier notifier(master, QSocketNotifier::Read);
    connect(&notifier, &QSocketNotifier::activated, this, [&] {
        char buffer[4096];
        ssize_t n;
        while ((n = ::read(master, buffer, sizeof buffer)) > 0) {
            screen.append(buffer, static_cast<int>(n));
        }
    });

    const QString path = writeImage(imageOfSize(1000));
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_sim->setVersionReport(35, 40);
    m_process = std::make_unique<QProcess>();
    m_process->setProcessEnvironment(m_env);
    m_process->setStandardOutputFile(terminal);
    m_process->start(QStringLiteral(TARVIX_TOOL_PATH),
                     {"flash", path, "--section", "0", "--ports", m_sim->slavePath()});
    const Run r = finish(*m_process, kRunTimeout);
    QVERIFY(waitFor([&] { return screen.contains("done  version 35"); }));
    ::close(slave);
    ::close(master);

    QCOMPARE(r.exitCode, 0);
    QCOMPARE(m_sim->image(), imageOfSize(1000) + QByteArray(24, '\xff'));
    // The bar redraws one line with carriage returns; the terminal turns line ends into
    // CR LF.
    const QString text = QString::fromLocal8Bit(screen);
    const QStringList lines = text.split(QStringLiteral("\r\n"), Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 3);
    QCOMPARE(lines.at(0), QStringLiteral("section 0  %1  updating from %2 (1000 bytes)")
                              .arg(m_sim->slavePath(), path));
    const QStringList redraws = lines.at(1).split('\r', Qt::SkipEmptyParts);
    QVERIFY(redraws.size() >= 2);
    QVERIFY2(redraws.first().startsWith(QLatin1String("section 0  [--------------------]   0 %  "
                                                      "0/1000 bytes")),
             qPrintable(redraws.first()));
    const QRegularExpression last(
        R"(^section 0  \[####################\] 100 %  1000/1000 bytes  \d+\.\d KiB/s  0:00 left$)");
    QVERIFY2(last.match(redraws.last()).hasMatch(), qPrintable(redraws.last()));
    QCOMPARE(lines.at(2), QStringLiteral("section 0  done  version 35"));
}

void tst_WorksurfaceTool::flashGivesUpOnASectionThatStaysInItsBootloader()
{
    const QByteArray image = imageOfSize(200);
    const QString path = writeImage(image);
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    // A section whose reset does not start its application.
    connect(m_sim.get(), &PtySectionSimulator::modeChanged, this, [this] {
        if (m_sim->mode() == PtySectionSimulator::Mode::Application) {
            m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
        }
    });
    const Run r = run({"flash", path, "--json", "--section", "0", "--ports", m_sim->slavePath()});
    // It answered: not a silent section (3) but one of its own (8).
    QCOMPARE(r.exitCode, 8);
    QCOMPARE(r.out.last(), QStringLiteral(R"({"section":0,"event":"failed","exit":8})"));
    // The updater's own retry wrote the image a second time; after that the tool only
    // probed, and left the section where it was.
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Download), 2);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Reset), 2);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::AutoBaud), 3);
    QCOMPARE(m_sim->receivedBytes().right(2), QByteArray::fromHex("5555"));
    QCOMPARE(r.out.count(QStringLiteral(
                 R"({"section":0,"event":"progress","percent":100,"bytes":200,"total":200})")),
             2);
}

// --- monitor -----------------------------------------------------------------------------

void tst_WorksurfaceTool::monitorShowsTrafficInOrderAndEndsCleanlyOnSigint()
{
    m_sim->setVersionReport(34, 41);
    QProcess* process = start({"monitor", "--section", "0", "--ports", m_sim->slavePath()});
    QString out;
    const auto readOut = [&] {
        out += QString::fromLocal8Bit(process->readAllStandardOutput());
        return out;
    };
    // The link is up once the section has answered a ping.
    QVERIFY(
        waitFor([&] { return readOut().contains(QLatin1String("version 34 temperature 41")); }));

    m_sim->sendFaderPosition(3, 399);
    m_sim->sendFaderTouch(3, true);
    m_sim->sendButton(2, true);
    // A noise burst and, in the same write, the frame after it.
    m_sim->sendRaw(QByteArray::fromHex("fffefdfcfb") + frame(18, 12, QByteArray::fromHex("fe")));
    QVERIFY(waitFor([&] { return readOut().contains(QLatin1String("steps -2")); }));
    // Noise at the very end: its last three bytes are too few for the parser to look at
    // until more arrives, and are shown when the monitor ends.
    m_sim->sendRaw(QByteArray::fromHex("fafaf9f8f7"));
    QVERIFY(waitFor([&] { return readOut().contains(QLatin1String("noise  fafa\n")); }));

    ::kill(static_cast<pid_t>(process->processId()), SIGINT);
    const Run r = finish(*process, 10000);
    QCOMPARE(r.exitStatus, QProcess::NormalExit);
    QCOMPARE(r.exitCode, 0);
    QVERIFY2(r.err.contains(QLatin1String("monitor ended")), qPrintable(r.err));
    out += r.out.join('\n');

    // Times, then the rest of each line exactly.
    const QRegularExpression timed(R"(^ *\d+\.\d{3}  (.*)$)");
    QStringList lines;
    for (const QString& line : out.split('\n', Qt::SkipEmptyParts)) {
        const QRegularExpressionMatch m = timed.match(line);
        QVERIFY2(m.hasMatch(), qPrintable(line));
        lines << m.captured(1);
    }
    QCOMPARE(lines.at(0), QStringLiteral("section 0  out  ping  device 0  section"));
    QCOMPARE(lines.at(1),
             QStringLiteral("section 0  in   ping  device 0  section  version 34 temperature 41"));
    QStringList reports;
    for (const QString& line : lines) {
        if (!line.contains(QLatin1String(" ping "))) {
            reports << line;
        }
    }
    QCOMPARE(reports, QStringList({
                          "section 0  in   fader position  device 3  fader 3  position 399",
                          "section 0  in   fader touch  device 3  fader 3  touch on",
                          "section 0  in   button  device 2  mute 2  pressed",
                          "section 0  in   noise  fffefdfcfb",
                          // Section 0 of a K60 is a strip section: device 12 names
                          // none of its controls (side rotaries are the master's).
                          "section 0  in   rotary step  device 12  steps -2",
                          "section 0  in   noise  fafa",
                          "section 0  in   noise  f9f8f7",
                      }));
}

void tst_WorksurfaceTool::monitorAsJsonWithRawBytes()
{
    m_sim->setVersionReport(34, 41);
    // Section 2 is the K60's master section, with the master fader.
    QProcess* process =
        start({"monitor", "--json", "--raw", "--section", "2", "--ports", m_sim->slavePath()});
    QString out;
    const auto readOut = [&] {
        out += QString::fromLocal8Bit(process->readAllStandardOutput());
        return out;
    };
    QVERIFY(waitFor([&] { return readOut().contains(QLatin1String("\"temperature\":41")); }));
    m_sim->sendRaw(QByteArray::fromHex("ffff") + frame(7, 10, QByteArray::fromHex("01ff")));
    QVERIFY(waitFor([&] { return readOut().contains(QLatin1String("master fader")); }));
    ::kill(static_cast<pid_t>(process->processId()), SIGINT);
    const Run r = finish(*process, 10000);
    QCOMPARE(r.exitCode, 0);

    const QRegularExpression timed(R"(^\{"t":\d+\.\d{3},(.*)$)");
    QStringList lines;
    for (const QString& line : out.split('\n', Qt::SkipEmptyParts)) {
        const QRegularExpressionMatch m = timed.match(line);
        QVERIFY2(m.hasMatch(), qPrintable(line));
        lines << m.captured(1);
    }
    QVERIFY(lines.size() >= 4);
    QCOMPARE(lines.at(0), QStringLiteral(R"("section":2,"dir":"out","type":0,"typeName":"ping",)"
                                         R"("device":0,"control":"section","hex":"03000003"})"));
    QCOMPARE(lines.at(1),
             QStringLiteral(R"("section":2,"dir":"in","type":0,"typeName":"ping","device":0,)"
                            R"("control":"section","value":{"version":34,"temperature":41},)"
                            R"("hex":"0600000a22295b"})"));
    QVERIFY(lines.contains(QStringLiteral(R"("section":2,"dir":"in","noise":"ffff"})")));
    QVERIFY(lines.contains(QStringLiteral(
        R"("section":2,"dir":"in","type":7,"typeName":"fader position",)"
        R"("device":10,"control":"master fader","value":511,"hex":"05070a01ff16"})")));
}

void tst_WorksurfaceTool::monitorLeavesASectionInItsBootloaderAlone()
{
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    QProcess* process = start({"monitor", "--section", "0", "--ports", m_sim->slavePath()});
    QString err;
    QVERIFY(waitFor([&] {
        return (err += QString::fromLocal8Bit(process->readAllStandardError()))
            .contains(QLatin1String("section 0 is in its bootloader: left there"));
    }));
    ::kill(static_cast<pid_t>(process->processId()), SIGINT);
    const Run r = finish(*process, 10000);
    QCOMPARE(r.exitCode, 0);
    QVERIFY(r.out.isEmpty());
    // The probe, and nothing after it.
    QCOMPARE(m_sim->receivedBytes(), QByteArray::fromHex("5555"));
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Bootloader);
}

// --- decode ------------------------------------------------------------------------------

void tst_WorksurfaceTool::decodeNamesEveryMessageTypeAndPlacesSplitNoise()
{
    QByteArray capture;
    QStringList expected;
    const auto add = [&](const QByteArray& bytes, const QString& words) {
        expected << QStringLiteral("%1  section 2  in   %2").arg(capture.size(), 8).arg(words);
        capture += bytes;
    };
    add(frame(0, 0, QByteArray::fromHex("0a2228")),
        "ping  device 0  section  version 34 temperature 40");
    add(frame(1, 0), "reserved 1  device 0");
    add(frame(2, 0), "serial error  device 0  section");
    add(QByteArray::fromHex("fefd"), "noise  fefd");
    add(frame(3, 0), "calibration  device 0  section");
    add(frame(4, 0), "bootloader  device 0  section");
    add(frame(5, 0, QByteArray::fromHex("0102")), "echo  device 0  section");
    add(frame(6, 0, QByteArray::fromHex("80")), "surface brightness  device 0  section  level 128");
    add(frame(7, 10, QByteArray::fromHex("01ff")),
        "fader position  device 10  master fader  position 511");
    // A frame with a broken checksum is noise up to the next good frame.
    add(QByteArray::fromHex("050703018f00"), "noise  050703018f00");
    add(frame(8, 2, QByteArray::fromHex("ffff")),
        "fader backstop  device 2  fader 2  position none");
    add(frame(9, 2, QByteArray::fromHex("00c8")), "fader detent  device 2  fader 2  position 200");
    add(frame(10, 2, QByteArray::fromHex("00")), "fader drive mode  device 2  fader 2  mode 0");
    add(frame(11, 12, QByteArray::fromHex("ff00")), "led  device 12  solo 2 led  level 255");
    add(frame(11, 26, QByteArray::fromHex("0000")), "led  device 26  layer down led  level 0");
    add(frame(12, 3, QByteArray::fromHex("00ff0000")),
        "rgb colour  device 3  rotary 3 ring  colour #00ff00");
    add(frame(12, 17, QByteArray::fromHex("0000ff00")),
        "rgb colour  device 17  main logo  colour #0000ff");
    add(frame(13, 1, QByteArray::fromHex("10")),
        "meter level  device 1  master meter right  level 16");
    add(frame(14, 0, QByteArray::fromHex("18")),
        "meter peak  device 0  master meter left  level 24");
    add(frame(15, 0, QByteArray::fromHex("00")), "reserved 15  device 0");
    add(frame(16, 3, QByteArray::fromHex("00")), "fader touch  device 3  fader 3  touch off");
    add(frame(17, 0, QByteArray::fromHex("0100")), "pot value  device 0  headphone pot  value 256");
    add(QByteArray::fromHex("ff"), "noise  ff");
    add(frame(18, 4, QByteArray::fromHex("03")), "rotary step  device 4  rotary 4  steps +3");
    add(frame(19, 15, QByteArray::fromHex("01")),
        "rotary touch  device 15  side rotary 5  touch on");
    add(frame(20, 2, QByteArray::fromHex("00")), "button  device 2  mute 2  released");
    add(frame(20, 39, QByteArray::fromHex("01")), "button  device 39  next snapshot  pressed");
    add(frame(20, 36, QByteArray::fromHex("01")), "button  device 36  side rotary 5 push  pressed");
    add(frame(21, 0, QByteArray::fromHex("000000")), "reserved 21  device 0");
    add(frame(22, 0, QByteArray::fromHex("ff")),
        "surface over-brightness  device 0  section  level 255");
    add(frame(7, 99, QByteArray::fromHex("0001")), "fader position  device 99  position 1");
    // The capture ends inside a frame: what is left is noise.
    add(QByteArray::fromHex("0510"), "noise  0510");

    const QString path = m_dir->filePath(QStringLiteral("capture.bin"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(capture);
    file.close();

    const Run r = run({"decode", path, "--section", "2"});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out, expected);

    // --raw adds each frame's bytes.
    const Run raw = run({"decode", path, "--section", "2", "--raw"});
    QCOMPARE(raw.out.size(), expected.size());
    QCOMPARE(raw.out.at(0), expected.at(0) + QStringLiteral("  [0600000a22285a]"));
}

void tst_WorksurfaceTool::decodeReadsStandardInputAsJson()
{
    const QByteArray capture = frame(7, 3, QByteArray::fromHex("018f")) +
                               QByteArray::fromHex("fffe") +
                               frame(20, 40, QByteArray::fromHex("01"));
    m_process = std::make_unique<QProcess>();
    m_process->setProcessEnvironment(m_env);
    m_process->start(QStringLiteral(TARVIX_TOOL_PATH), {"decode", "--json", "--raw"});
    QVERIFY(m_process->waitForStarted(10000));
    // Split inside the noise and inside the second frame.
    m_process->write(capture.left(7));
    m_process->waitForBytesWritten(5000);
    // The rest comes late, after the tool has shown the frame it has read: it reads on until
    // the pipe is closed. (Peeked, so that finish() still reads every line.)
    QVERIFY(waitFor(
        [&] { return m_process->peek(m_process->bytesAvailable()).contains("{\"offset\":0,"); }));
    m_process->write(capture.mid(7));
    m_process->closeWriteChannel();
    const Run r = finish(*m_process, kRunTimeout);
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out,
             QStringList({
                 R"({"offset":0,"section":0,"dir":"in","type":7,"typeName":"fader position",)"
                 R"("device":3,"control":"fader 3","value":399,"hex":"050703018f9f"})",
                 R"({"offset":6,"section":0,"dir":"in","noise":"fffe"})",
                 R"({"offset":8,"section":0,"dir":"in","type":20,"typeName":"button",)"
                 R"("device":40,"control":"layer up","value":"pressed","hex":"0414280141"})",
             }));
}

void tst_WorksurfaceTool::decodeOfAMissingFileExitsWithFour()
{
    const Run r = run({"decode", m_dir->filePath(QStringLiteral("none.bin"))});
    QCOMPARE(r.exitCode, 4);
    QVERIFY(r.out.isEmpty());
}

// --- exercise ----------------------------------------------------------------------------

void tst_WorksurfaceTool::exerciseSendsThePatternToASection()
{
    const Run r =
        run({"exercise", "--step-ms", "0", "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(r.exitCode, 0);
    // The last frames may still wait in the pty for the simulator to read them.
    waitFor([&] { return m_sim->receivedMessages(12).size() == 40; });
    QCOMPARE(m_sim->receivedMessages(12).size(), 40);

    // Every fader to the bottom, the top and back, in that order.
    QList<SerialMessage> faders = m_sim->receivedMessages(7);
    QCOMPARE(faders.size(), 30);
    for (int i = 0; i < 30; ++i) {
        const uint16_t position = (i / 10 == 1) ? 511 : 0;
        QCOMPARE(faders.at(i), SerialMessage(7, uint8_t(i % 10),
                                             {uint8_t(position >> 8), uint8_t(position & 0xFF)}));
    }
    // Every LED on in turn: mute 0, solo 0, mute 1, ... each switched off with the next.
    const QList<SerialMessage> leds = m_sim->receivedMessages(11);
    QCOMPARE(leds.size(), 40);
    QCOMPARE(leds.at(0), SerialMessage(11, 0, {255, 0}));
    QCOMPARE(leds.at(1), SerialMessage(11, 0, {0, 0}));
    QCOMPARE(leds.at(2), SerialMessage(11, 10, {255, 0}));
    QCOMPARE(leds.last(), SerialMessage(11, 19, {0, 0}));
    // Every ring red, green, blue, then dark.
    const QList<SerialMessage> rings = m_sim->receivedMessages(12);
    QCOMPARE(rings.size(), 40);
    QCOMPARE(rings.at(0), SerialMessage(12, 0, {255, 0, 0, 0}));
    QCOMPARE(rings.at(10), SerialMessage(12, 0, {0, 255, 0, 0}));
    QCOMPARE(rings.at(29), SerialMessage(12, 9, {0, 0, 255, 0}));
    QCOMPARE(rings.at(39), SerialMessage(12, 9, {0, 0, 0, 0}));
    // A strip section has no meters.
    QVERIFY(m_sim->receivedMessages(13).isEmpty());

    // What was sent is printed as it went out.
    QVERIFY(r.out.size() >= 110);
    const QRegularExpression timed(R"(^ *\d+\.\d{3}  (.*)$)");
    QStringList lines;
    for (const QString& line : r.out) {
        const QRegularExpressionMatch m = timed.match(line);
        QVERIFY2(m.hasMatch(), qPrintable(line));
        if (!line.contains(QLatin1String(" ping "))) {
            lines << m.captured(1);
        }
    }
    QCOMPARE(lines.size(), 110);
    QCOMPARE(lines.first(),
             QStringLiteral("section 0  out  fader position  device 0  fader 0  position 0"));
    QCOMPARE(lines.at(10),
             QStringLiteral("section 0  out  fader position  device 0  fader 0  position 511"));
    QCOMPARE(lines.at(30), QStringLiteral("section 0  out  led  device 0  mute 0 led  level 255"));
    QCOMPARE(lines.last(),
             QStringLiteral("section 0  out  rgb colour  device 9  rotary 9 ring  colour #000000"));
}

// --- On a real bench ---------------------------------------------------------------------

void tst_WorksurfaceTool::monitorShowsALateSectionAndWhatItSentBeforeItsAnswer()
{
    // The board is powered after the monitor started: it misses the first probe, then
    // talks.
    m_sim->setSilent(true);
    m_sim->setVersionReport(34, 41);
    QProcess* process = start({"monitor", "--section", "0", "--ports", m_sim->slavePath()});
    QVERIFY(waitFor([&] { return m_sim->commandCount(BootloaderCommand::AutoBaud) >= 1; }));
    // A report sent while the link still waits for its probe answer reaches no one; it is
    // shown as it came.
    m_sim->sendFrame(7, 3, QByteArray::fromHex("018f"));
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String("section 0  in   noise  050703018f9f"));
    }));
    m_sim->setSilent(false);
    // The link probes again within a second and comes up.
    QVERIFY(readUntil(*process, [](const QString& out, const QString& err) {
        return out.contains(QLatin1String("version 34 temperature 41")) &&
               err.contains(QLatin1String("section 0  link connected"));
    }));
    QVERIFY2(m_err.contains(QRegularExpression(
                 R"(\d+\.\d{3}  section 0  no answer to the probe yet; probing again every 1 s)")),
             qPrintable(m_err));
    m_sim->sendFaderPosition(3, 399);
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String("in   fader position  device 3  fader 3  position 399"));
    }));
    ::kill(static_cast<pid_t>(process->processId()), SIGINT);
    const Run r = finish(*process, 10000);
    QCOMPARE(r.exitCode, 0);
    QVERIFY(m_sim->commandCount(BootloaderCommand::AutoBaud) >= 2);
}

void tst_WorksurfaceTool::aSectionThatSendsGarbageIsGarbledNotSilent()
{
    // A section on another baud rate: whatever it is asked, bytes come back that mean
    // nothing (and none of them a bootloader answer).
    const QByteArray garbage = QByteArray::fromHex("f0e1d2c3b4a59687");
    m_sim->setSilent(true);
    connect(m_sim.get(), &PtySectionSimulator::autoBaudReceived, this,
            [&] { m_sim->sendRaw(garbage); });
    const QString sim = m_sim->slavePath();
    const Run r = run({"probe", "--timeout", "0.5", "--section", "0", "--ports", sim});
    QCOMPARE(r.exitCode, 3);
    QCOMPARE(r.out, QStringList({QStringLiteral("section 0  %1  garbled").arg(sim)}));
    const Run json = run({"probe", "--json", "--timeout", "0.5", "--section", "0", "--ports", sim});
    QCOMPARE(json.out, QStringList({QStringLiteral(R"({"section":0,"device":"%1","state":)"
                                                   R"("garbled"})")
                                        .arg(sim)}));

    // Monitor shows those bytes.
    QProcess* process = start({"monitor", "--section", "0", "--ports", sim});
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String("section 0  in   noise  f0e1d2c3b4a59687"));
    }));
    ::kill(static_cast<pid_t>(process->processId()), SIGINT);
    QCOMPARE(finish(*process, 10000).exitCode, 0);
}

void tst_WorksurfaceTool::monitorEndsWithTwoWhenTheDeviceIsLost()
{
    m_sim->setVersionReport(34, 41);
    const QString sim = m_sim->slavePath();
    QProcess* process = start({"monitor", "--section", "0", "--ports", sim});
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String("version 34 temperature 41"));
    }));
    m_sim->hangUp();
    const Run r = finish(*process, 10000);
    QCOMPARE(r.exitStatus, QProcess::NormalExit);
    QCOMPARE(r.exitCode, 2);
    m_err += r.err;
    QVERIFY2(m_err.contains(QRegularExpression(
                 QStringLiteral(R"(\d+\.\d{3}  section 0  device lost: Device gone: %1\n)")
                     .arg(QRegularExpression::escape(sim)))),
             qPrintable(m_err));
    QVERIFY(m_err.endsWith(QLatin1String("monitor ended\n")));

    // As JSON, an event object among the traffic.
    auto other = std::make_unique<PtySectionSimulator>();
    QVERIFY(other->isOpen());
    other->setVersionReport(34, 41);
    m_out.clear();
    m_err.clear();
    process = start({"monitor", "--json", "--section", "0", "--ports", other->slavePath()});
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String("\"temperature\":41"));
    }));
    const QString otherPath = other->slavePath();
    other->hangUp();
    const Run json = finish(*process, 10000);
    QCOMPARE(json.exitCode, 2);
    m_out += json.out.join('\n');
    QVERIFY2(m_out.contains(
                 QRegularExpression(QStringLiteral(R"(\{"t":\d+\.\d{3},"section":0,"event":"lost",)"
                                                   R"("error":"Device gone: %1"\})")
                                        .arg(QRegularExpression::escape(otherPath)))),
             qPrintable(m_out));
}

void tst_WorksurfaceTool::monitorWithFollowKeepsWaitingForALostDevice()
{
    m_sim->setVersionReport(34, 41);
    // A K40's section 1 stays: what it sends is shown with the tool's time, which tells how
    // far the tool has got while section 0 is gone. (Without --follow the monitor ends on the
    // loss of any one section, so section 1 does not keep it running.)
    PtySectionSimulator other;
    QVERIFY2(other.isOpen(), qPrintable(other.errorString()));
    QProcess* process = start({"monitor", "--follow", "--model", "K40", "--ports",
                               m_sim->slavePath() + ',' + other.slavePath()});
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(
            QLatin1String("section 0  in   ping  device 0  section  version 34 "
                          "temperature 41"));
    }));
    m_sim->hangUp();
    QVERIFY(readUntil(*process, [](const QString&, const QString& err) {
        return err.contains(QLatin1String("; waiting for it"));
    }));
    const qint64 lostAt =
        shownAtMs(m_err, QStringLiteral("section 0  device lost: [^\\n]*; waiting for it"));
    QVERIFY2(lostAt >= 0, qPrintable(m_err));
    // Past the next reconnection attempts (one a second), it is still there: it has shown a
    // frame of section 1 that it read 1.5 s, by its own clock, after it told of the loss.
    QVERIFY2(waitUntilToolTime(*process, other, 1, lostAt + 1500), qPrintable(m_out + m_err));
    QCOMPARE(process->state(), QProcess::Running);
    ::kill(static_cast<pid_t>(process->processId()), SIGINT);
    const Run r = finish(*process, 10000);
    QCOMPARE(r.exitCode, 0);
}

void tst_WorksurfaceTool::monitorListenOnlySendsNothing()
{
    QProcess* process =
        start({"monitor", "--listen-only", "--section", "0", "--ports", m_sim->slavePath()});
    QVERIFY(readUntil(*process, [](const QString&, const QString& err) {
        return err.contains(QLatin1String("monitoring section 0"));
    }));
    m_sim->sendFaderPosition(3, 399);
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String("in   fader position  device 3  fader 3  position 399"));
    }));
    // Over ten bad bytes in one read: the link would answer with a serial error. (The
    // last few wait for more bytes before the parser gives up on them.)
    m_sim->sendRaw(QByteArray::fromHex("fffefdfcfbfaf9f8f7f6f5f4"));
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String("noise  fffefdfcfbfaf9f8f7"));
    }));
    // A ping (every 2 s) would be due by now: the tool has shown a frame it read 2.5 s, by
    // its own clock, after it showed the noise.
    const qint64 noiseAt =
        shownAtMs(m_out, QStringLiteral("section 0  in   noise  fffefdfcfbfaf9f8f7"));
    QVERIFY2(noiseAt >= 0, qPrintable(m_out));
    QVERIFY2(waitUntilToolTime(*process, *m_sim, 0, noiseAt + 2500), qPrintable(m_out));
    ::kill(static_cast<pid_t>(process->processId()), SIGINT);
    QCOMPARE(finish(*process, 10000).exitCode, 0);
    QCOMPARE(m_sim->receivedBytes(), QByteArray());
}

void tst_WorksurfaceTool::monitorFiltersByTypeDeviceAndDirection()
{
    m_sim->setVersionReport(34, 41);
    QProcess* process = start({"monitor", "--type", "7,16", "--device", "3", "--dir", "in",
                               "--time", "delta", "--section", "0", "--ports", m_sim->slavePath()});
    QVERIFY(waitFor([&] { return m_sim->pingCount() >= 1; }));
    m_sim->sendButton(3, true);                   // another type
    m_sim->sendFaderPosition(2, 100);             // another device
    m_sim->sendRaw(QByteArray::fromHex("fffe"));  // noise has neither
    m_sim->sendFaderPosition(3, 399);
    m_sim->sendFaderTouch(3, true);
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String("touch on"));
    }));
    ::kill(static_cast<pid_t>(process->processId()), SIGINT);
    const Run r = finish(*process, 10000);
    QCOMPARE(r.exitCode, 0);
    const QStringList lines = (m_out + r.out.join('\n')).split('\n', Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 2);
    // Each line's time is the time since the line before it.
    QVERIFY2(QRegularExpression(
                 R"(^ *\+0\.000  section 0  in   fader position  device 3  fader 3  position 399$)")
                 .match(lines.at(0))
                 .hasMatch(),
             qPrintable(lines.at(0)));
    QVERIFY2(QRegularExpression(
                 R"(^ *\+\d+\.\d{3}  section 0  in   fader touch  device 3  fader 3  touch on$)")
                 .match(lines.at(1))
                 .hasMatch(),
             qPrintable(lines.at(1)));

    const Run bad = run({"monitor", "--dir", "sideways"});
    QCOMPARE(bad.exitCode, 1);
    QCOMPARE(bad.err.split('\n').first(),
             QStringLiteral("worksurface-tool: bad --dir: sideways (in or out)"));
}

void tst_WorksurfaceTool::monitorTimesAsIsoOrDelta()
{
    m_sim->setVersionReport(34, 41);
    QProcess* process = start({"monitor", "--time", "iso", "--json", "--dir", "in", "--section",
                               "0", "--ports", m_sim->slavePath()});
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String("\"temperature\":41"));
    }));
    ::kill(static_cast<pid_t>(process->processId()), SIGINT);
    QCOMPARE(finish(*process, 10000).exitCode, 0);
    const QString first = m_out.split('\n').first();
    QVERIFY2(
        QRegularExpression(
            R"(^\{"t":\d+\.\d{3},"time":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[^"]*","section":0,"dir":"in","type":0,)")
            .match(first)
            .hasMatch(),
        qPrintable(first));
}

void tst_WorksurfaceTool::flashRefusesWhatIsNoBinaryImage_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QString>("what");
    QTest::newRow("empty") << QByteArray() << QStringList{} << "is empty";
    QTest::newRow("elf") << (QByteArray("\x7f"
                                        "ELF\x01\x01\x01",
                                        7) +
                             QByteArray(100, '\0'))
                         << QStringList{}
                         << "is an ELF file, not a binary image (make one with objcopy -O "
                            "binary)";
    QTest::newRow("intel hex") << QByteArray(
                                      ":10000000000102030405060708090A0B0C0D0E0F78\n"
                                      ":00000001FF\n")
                               << QStringList{}
                               << "is Intel HEX text, not a binary image (make one with "
                                  "objcopy -I ihex -O binary)";
    QTest::newRow("s-record")
        << QByteArray(
               "S00F000068656C6C6F202020202000003C\r\n"
               "S11F00007C0802A6900100049421FFF07C6C1B787C8C23783C6000003863000026\r\n")
        << QStringList{}
        << "is S-record text, not a binary image (make one with objcopy "
           "-I srec -O binary)";
    QTest::newRow("too large") << imageOfSize(200) << QStringList{"--max-size", "100"}
                               << "is 200 bytes, more than the 100 a section takes (--max-size)";
    QTest::newRow("over the default")
        << imageOfSize(256 * 1024 + 1) << QStringList{}
        << "is 262145 bytes, more than the 262144 a section takes (--max-size)";
}

void tst_WorksurfaceTool::flashRefusesWhatIsNoBinaryImage()
{
    QFETCH(QByteArray, content);
    QFETCH(QStringList, options);
    QFETCH(QString, what);
    const QString path = writeImage(content);
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    const Run r =
        run(QStringList{"flash", path, "--section", "0", "--ports", m_sim->slavePath()} + options);
    QCOMPARE(r.exitCode, 4);
    QCOMPARE(r.out,
             QStringList({QStringLiteral("section 0  failed  %1 %2 (exit 4)").arg(path, what)}));
    const Run json =
        run(QStringList{"flash", path, "--json", "--section", "0", "--ports", m_sim->slavePath()} +
            options);
    QCOMPARE(json.exitCode, 4);
    QCOMPARE(json.out,
             QStringList({QStringLiteral(R"({"section":0,"event":"failed","reason":0,"exit":4,)"
                                         R"("error":"%1 %2"})")
                              .arg(path, what)}));
    // Refused before any port was opened.
    QCOMPARE(m_sim->receivedBytes(), QByteArray());
}

void tst_WorksurfaceTool::flashPrintsTheImagesSizeAndSha256()
{
    const QByteArray image = imageOfSize(100);
    const QString path = writeImage(image);
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_sim->setVersionReport(35, 40);
    const Run r = run({"flash", path, "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(
        r.err.split('\n').first(),
        QStringLiteral("image %1  100 bytes  sha256 %2")
            .arg(path, QString::fromLatin1(
                           QCryptographicHash::hash(image, QCryptographicHash::Sha256).toHex())));
}

void tst_WorksurfaceTool::flashDryRunProbesAndWritesNothing()
{
    const QString path = writeImage(imageOfSize(100));
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    const QString sim = m_sim->slavePath();
    const Run r = run({"flash", path, "--dry-run", "--section", "0", "--ports", sim});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out, QStringList({QStringLiteral("section 0  %1  in its bootloader: would write "
                                                "100 bytes (dry run)")
                                     .arg(sim)}));
    QCOMPARE(m_sim->receivedBytes(), QByteArray::fromHex("5555"));
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Bootloader);
    const Run json = run({"flash", path, "--json", "--dry-run", "--section", "0", "--ports", sim});
    QCOMPARE(json.out, QStringList({R"({"section":0,"event":"ready","total":100})"}));

    // A section running its application is still refused.
    m_sim->setMode(PtySectionSimulator::Mode::Application);
    QCOMPARE(run({"flash", path, "--dry-run", "--section", "0", "--ports", sim}).exitCode, 7);
}

void tst_WorksurfaceTool::flashExpectVersionFailsOnAnotherVersion()
{
    const QString path = writeImage(imageOfSize(100));
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_sim->setVersionReport(35, 40);
    const QString sim = m_sim->slavePath();
    const Run r = run({"flash", path, "--expect-version", "36", "--section", "0", "--ports", sim});
    QCOMPARE(r.exitCode, 10);
    QCOMPARE(r.out.mid(r.out.size() - 2),
             QStringList({"section 0  done  version 35",
                          "section 0  failed  came back with version 35, not 36 (exit 10)"}));

    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    const Run json =
        run({"flash", path, "--json", "--expect-version", "36", "--section", "0", "--ports", sim});
    QCOMPARE(json.exitCode, 10);
    QCOMPARE(json.out.last(), QStringLiteral(R"({"section":0,"event":"failed","exit":10,)"
                                             R"("version":35,"expected":36})"));

    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    QCOMPARE(
        run({"flash", path, "--expect-version", "35", "--section", "0", "--ports", sim}).exitCode,
        0);
}

void tst_WorksurfaceTool::flashReportsTheStatusCommandAndOffsetOfAnErrorInTheImage()
{
    const QString path = writeImage(imageOfSize(300));
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    // Download and the first two blocks pass; the third block fails to program.
    m_sim->enqueueStatusReply(BootloaderCommand::Success);
    m_sim->enqueueStatusReply(BootloaderCommand::Success);
    m_sim->enqueueStatusReply(BootloaderCommand::Success);
    m_sim->enqueueStatusReply(BootloaderCommand::CRCheckFailure);
    const Run r = run({"flash", path, "--json", "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(r.exitCode, 6);
    QCOMPARE(r.out.last(), QStringLiteral(R"({"section":0,"event":"failed","reason":2,"exit":6,)"
                                          R"("status":"CRCheckFailure","command":"SendData",)"
                                          R"("offset":128})"));

    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    // The second block is refused over and over: the refusals begin with the status check
    // after the first block.
    int checks = 0;
    connect(m_sim.get(), &PtySectionSimulator::bootloaderPacketReceived, this, [&](int command) {
        if (command == BootloaderCommand::GetStatus && ++checks == 2) {
            m_sim->nakCommand(BootloaderCommand::SendData, -1);
        }
    });
    const Run text = run({"flash", path, "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(text.exitCode, 5);
    QCOMPARE(text.out.last(), QStringLiteral("section 0  failed  resends exhausted: SendData "
                                             "refused at offset 64 (exit 5)"));
}

void tst_WorksurfaceTool::flashInterruptedResetsTheSectionOutOfItsBootloader()
{
    const QByteArray image = imageOfSize(256 * 1024);
    const QString path = writeImage(image);
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    QProcess* process =
        start({"flash", path, "--json", "--section", "0", "--ports", m_sim->slavePath()});
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String("\"percent\":5,"));
    }));
    ::kill(static_cast<pid_t>(process->processId()), SIGINT);
    const Run r = finish(*process, 10000);
    QCOMPARE(r.exitStatus, QProcess::NormalExit);
    QCOMPARE(r.exitCode, 9);
    QCOMPARE(r.out.last(),
             QStringLiteral(R"({"section":0,"event":"interrupted","reset":true,"exit":9})"));
    // Told to reset, the section left its bootloader.
    waitFor([&] { return m_sim->commandCount(BootloaderCommand::Reset) == 1; });
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Reset), 1);
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Application);
    QVERIFY(m_sim->image().size() < image.size());

    // In text.
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_out.clear();
    process = start({"flash", path, "--section", "0", "--ports", m_sim->slavePath()});
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String(" 10 %"));
    }));
    ::kill(static_cast<pid_t>(process->processId()), SIGTERM);
    const Run text = finish(*process, 10000);
    QCOMPARE(text.exitCode, 9);
    QCOMPARE(text.out.last(), QStringLiteral("section 0  interrupted: section reset (exit 9)"));
}

void tst_WorksurfaceTool::flashWritesThreeSectionsAtOnceGroupedPerSection()
{
    const QByteArray image = imageOfSize(32 * 1024);
    const QString path = writeImage(image);
    std::vector<std::unique_ptr<PtySectionSimulator>> sims;
    QStringList ports;
    for (int i = 0; i < 3; ++i) {
        sims.push_back(std::make_unique<PtySectionSimulator>());
        QVERIFY(sims.back()->isOpen());
        sims.back()->setMode(PtySectionSimulator::Mode::Bootloader);
        sims.back()->setVersionReport(uint8_t(40 + i), 30);
        ports << sims.back()->slavePath();
    }
    // Section 2 gets its Download only once section 0 has written at least one block: one
    // after another, it would have finished by then.
    bool section2Started = false;
    int section0Blocks = 0;
    connect(sims[0].get(), &PtySectionSimulator::bootloaderPacketReceived, this, [&](int command) {
        if (command == BootloaderCommand::SendData) {
            ++section0Blocks;
        }
    });
    int section0BlocksWhen2Started = -1;
    connect(sims[2].get(), &PtySectionSimulator::bootloaderPacketReceived, this, [&](int command) {
        if (command == BootloaderCommand::Download && !section2Started) {
            section2Started = true;
            section0BlocksWhen2Started = section0Blocks;
        }
    });
    QElapsedTimer timer;
    timer.start();
    const Run r = run({"flash", path, "--ports", ports.join(',')});
    const qint64 elapsed = timer.elapsed();
    QCOMPARE(r.exitCode, 0);
    qInfo("three sections of 32 KiB each flashed in %lld ms", elapsed);
    for (auto& sim : sims) {
        QVERIFY(sim->image() == image);
    }
    QVERIFY2(section0BlocksWhen2Started >= 0 && section0BlocksWhen2Started < 512,
             qPrintable(QString::number(section0BlocksWhen2Started)));
    // Grouped: every line of section 0, then of 1, then of 2.
    QStringList sections;
    for (const QString& line : r.out) {
        const QString prefix = line.left(9);
        if (sections.isEmpty() || sections.last() != prefix) {
            sections << prefix;
        }
    }
    QCOMPARE(sections, QStringList({"section 0", "section 1", "section 2"}));
    QCOMPARE(r.out.last(), QStringLiteral("section 2  done  version 42"));
    QVERIFY(r.out.contains(QStringLiteral("section 0  done  version 40")));
}

void tst_WorksurfaceTool::portsNamesTheProcessHoldingTheDevice()
{
    const QString sim = m_sim->slavePath();
    QSerialPort holder(sim);
    QVERIFY(holder.open(QIODevice::ReadWrite));
    const QString inUse =
        QStringLiteral("in use by pid %1").arg(QCoreApplication::applicationPid());
    const Run r = run({"ports", "--section", "0", "--ports", sim});
    QCOMPARE(r.exitCode, 2);
    QCOMPARE(
        r.out,
        QStringList({QStringLiteral("section 0  %1  exists  not openable: %2").arg(sim, inUse)}));
    const Run json = run({"ports", "--json", "--section", "0", "--ports", sim});
    QCOMPARE(json.out, QStringList({QStringLiteral(R"({"section":0,"device":"%1","exists":true,)"
                                                   R"("openable":false,"error":"%2"})")
                                        .arg(sim, inUse)}));
    holder.close();
    QCOMPARE(run({"ports", "--section", "0", "--ports", sim}).exitCode, 0);
}

void tst_WorksurfaceTool::anotherNameOfAHeldDeviceIsNotOpened()
{
    m_sim->setVersionReport(34, 41);
    const QString link = m_dir->filePath(QStringLiteral("section0"));
    QVERIFY(QFile::link(m_sim->slavePath(), link));
    QSerialPort holder(m_sim->slavePath());
    QVERIFY(holder.open(QIODevice::ReadWrite));
    const Run r = run({"probe", "--section", "0", "--ports", link});
    QCOMPARE(r.exitCode, 2);
    QCOMPARE(r.out, QStringList({QStringLiteral("section 0  %1  port-error  in use by pid %2")
                                     .arg(link)
                                     .arg(QCoreApplication::applicationPid())}));
    QVERIFY(m_sim->receivedBytes().isEmpty());
    holder.close();
    // Free, the link's name works as any other.
    const Run free = run({"probe", "--section", "0", "--ports", link});
    QCOMPARE(free.exitCode, 0);
    QCOMPARE(free.out, QStringList({QStringLiteral("section 0  %1  application  version 34  "
                                                   "temperature 41")
                                        .arg(link)}));
}

void tst_WorksurfaceTool::portsScanListsSerialDevices()
{
    // What a machine has differs; every line is a device, and JSON lines parse.
    const Run r = run({"ports", "--scan", "--json"});
    QCOMPARE(r.exitCode, 0);
    for (const QString& line : r.out) {
        const QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
        QVERIFY2(object.value(QLatin1String("device")).toString().startsWith(QLatin1String("/")),
                 qPrintable(line));
    }
    const Run text = run({"ports", "--scan"});
    QCOMPARE(text.exitCode, 0);
    QCOMPARE(text.out.size(), r.out.size());
    if (r.out.isEmpty()) {
        QCOMPARE(text.err, QStringLiteral("no serial devices found\n"));
    }
}

void tst_WorksurfaceTool::aSinglePortsEntryIsTheGivenSections()
{
    m_sim->setVersionReport(34, 41);
    const QString sim = m_sim->slavePath();
    const Run r = run({"probe", "--section", "1", "--ports", sim});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out, QStringList({QStringLiteral("section 1  %1  application  version 34  "
                                                "temperature 41")
                                     .arg(sim)}));
    const Run port = run({"probe", "--section", "2", "--port", sim});
    QCOMPARE(port.exitCode, 0);
    QCOMPARE(port.out, QStringList({QStringLiteral("section 2  %1  application  version 34  "
                                                   "temperature 41")
                                        .arg(sim)}));
    const Run alone = run({"probe", "--port", sim});
    QCOMPARE(alone.exitCode, 1);
    QCOMPARE(alone.err.split('\n').first(),
             QStringLiteral("worksurface-tool: --port needs --section N"));
}

void tst_WorksurfaceTool::tooManyPortsEntriesAreAUsageError()
{
    const Run r = run({"probe", "--ports", "a,b,c,d"});
    QCOMPARE(r.exitCode, 1);
    QCOMPARE(r.err.split('\n').first(),
             QStringLiteral("worksurface-tool: --ports has 4 entries; the K60 has 3 sections"));
    const Run k40 = run({"ports", "--model", "K40", "--ports", "a,b,c"});
    QCOMPARE(k40.exitCode, 1);
    QCOMPARE(k40.err.split('\n').first(),
             QStringLiteral("worksurface-tool: --ports has 3 entries; the K40 has 2 sections"));
}

void tst_WorksurfaceTool::shortOptionsAreAccepted()
{
    m_sim->setSilent(true);
    const QString sim = m_sim->slavePath();
    const Run r = run({"probe", "-t", "0.3", "-m", "K40", "-s", "1", "-p", sim});
    QCOMPARE(r.exitCode, 3);
    QCOMPARE(r.out, QStringList({QStringLiteral("section 1  %1  silent").arg(sim)}));
}

void tst_WorksurfaceTool::helpIsACommand()
{
    const Run help = run({"help"});
    QCOMPARE(help.exitCode, 0);
    QCOMPARE(help.out, run({"--help"}).out);
    QVERIFY(
        help.out.join('\n').contains(QLatin1String("  10 flash: a section came back with "
                                                   "another version than --expect-version")));
}

void tst_WorksurfaceTool::decodeReadsStandardInputFromDash()
{
    const QByteArray capture = frame(7, 3, QByteArray::fromHex("018f"));
    m_process = std::make_unique<QProcess>();
    m_process->setProcessEnvironment(m_env);
    m_process->start(QStringLiteral(TARVIX_TOOL_PATH), {"decode", "-"});
    QVERIFY(m_process->waitForStarted(10000));
    m_process->write(capture);
    m_process->closeWriteChannel();
    const Run r = finish(*m_process, kRunTimeout);
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out, QStringList({"       0  section 0  in   fader position  device 3  fader 3  "
                                 "position 399"}));
}

void tst_WorksurfaceTool::decodeOfAKnownSectionNamesOnlyItsControls()
{
    const QByteArray capture =
        frame(18, 12, QByteArray::fromHex("fe")) + frame(20, 40, QByteArray::fromHex("01"));
    const QString path = m_dir->filePath(QStringLiteral("capture.bin"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(capture);
    file.close();
    // A strip section of the K60 has no side rotary and no layer switch.
    const Run strip = run({"decode", path, "--section", "0"});
    QCOMPARE(strip.out, QStringList({"       0  section 0  in   rotary step  device 12  steps -2",
                                     "       5  section 0  in   button  device 40  pressed"}));
    const Run master = run({"decode", path, "--section", "1", "--model", "K40"});
    QCOMPARE(
        master.out,
        QStringList({"       0  section 1  in   rotary step  device 12  side rotary 2  steps -2",
                     "       5  section 1  in   button  device 40  layer up  pressed"}));
}

void tst_WorksurfaceTool::decodeOfAMissingFileSaysWhy()
{
    const QString missing = m_dir->filePath(QStringLiteral("none.bin"));
    const Run r = run({"decode", missing});
    QCOMPARE(r.exitCode, 4);
    QCOMPARE(r.err, QStringLiteral("worksurface-tool: cannot read %1: No such file or directory\n")
                        .arg(missing));
}

void tst_WorksurfaceTool::probeChecksEverySectionAtOnce()
{
    // Section 0 answers its probe only once section 2 has been probed: one section after
    // another, section 0's time-out would be over before section 2 heard anything.
    PtySectionSimulator late;
    PtySectionSimulator third;
    QVERIFY(late.isOpen() && third.isOpen());
    late.setSilent(true);
    late.setVersionReport(34, 41);
    third.setVersionReport(36, 42);
    connect(&third, &PtySectionSimulator::autoBaudReceived, this, [&] {
        late.setSilent(false);
        late.sendRaw(QByteArray::fromHex("aa"));
    });
    const QString ports =
        QStringList{late.slavePath(), missingDevice(), third.slavePath()}.join(',');
    const Run r = run({"probe", "--timeout", "1", "--ports", ports});
    QCOMPARE(r.exitCode, 2);
    QCOMPARE(r.out, QStringList({
                        QStringLiteral("section 0  %1  application  version 34  temperature 41")
                            .arg(late.slavePath()),
                        QStringLiteral("section 1  %1  port-error  No such file or directory")
                            .arg(missingDevice()),
                        QStringLiteral("section 2  %1  application  version 36  temperature 42")
                            .arg(third.slavePath()),
                    }));
}

void tst_WorksurfaceTool::exerciseCoversTheMasterSection()
{
    // Section 1 is the K40's master section.
    const Run r = run({"exercise", "--model", "K40", "--step-ms", "0", "--section", "1", "--ports",
                       m_sim->slavePath()});
    QCOMPARE(r.exitCode, 0);
    // Ten strips and the master fader, three moves each.
    waitFor([&] { return m_sim->receivedMessages(13).size() == 18; });
    QCOMPARE(m_sim->receivedMessages(13).size(), 18);
    const QList<SerialMessage> faders = m_sim->receivedMessages(7);
    QCOMPARE(faders.size(), 33);
    QCOMPARE(faders.at(10), SerialMessage(7, 10, {0, 0}));
    QCOMPARE(faders.at(21), SerialMessage(7, 10, {1, 255}));
    // The strips' twenty LEDs and the seven master switches', each on and off.
    const QList<SerialMessage> leds = m_sim->receivedMessages(11);
    QCOMPARE(leds.size(), 54);
    QCOMPARE(leds.at(40),
             SerialMessage(11, DeviceIdTable::led(LedType::MasterMuteButton, 0), {255, 0}));
    // Ten rotary rings, six side rotary rings and six logos, four colours each.
    const QList<SerialMessage> rings = m_sim->receivedMessages(12);
    QCOMPARE(rings.size(), 88);
    QCOMPARE(rings.at(21), SerialMessage(12, rings.at(21).deviceId, {255, 0, 0, 0}));
    QCOMPARE(rings.at(87), SerialMessage(12, rings.at(21).deviceId, {0, 0, 0, 0}));
    // Both master meters up and down.
    const QList<SerialMessage> meters = m_sim->receivedMessages(13);
    QCOMPARE(meters.at(0), SerialMessage(13, 0, {0}));
    QCOMPARE(meters.at(1), SerialMessage(13, 1, {0}));
    QCOMPARE(meters.at(8), SerialMessage(13, 0, {24}));
    QCOMPARE(meters.at(17), SerialMessage(13, 1, {0}));
    // Printed in the master section's names.
    QVERIFY(r.out.join('\n').contains(
        QLatin1String("section 1  out  fader position  device 10  master fader  position 511")));
    QVERIFY(r.out.join('\n').contains(
        QLatin1String("section 1  out  meter level  device 1  master meter right  level 24")));
}

void tst_WorksurfaceTool::exerciseSkipsASectionThatDoesNotAnswer()
{
    m_sim->setSilent(true);
    const QString sim = m_sim->slavePath();
    const Run r =
        run({"exercise", "--timeout", "0.3", "--step-ms", "0", "--section", "0", "--ports", sim});
    QCOMPARE(r.exitCode, 3);
    QVERIFY(r.out.isEmpty());
    QCOMPARE(r.err, QStringLiteral("section 0  %1  silent: not exercised\n").arg(sim));
    QVERIFY(m_sim->receivedMessages(7).isEmpty());

    const Run missing =
        run({"exercise", "--step-ms", "0", "--section", "0", "--ports", missingDevice()});
    QCOMPARE(missing.exitCode, 2);
    QCOMPARE(missing.err,
             QStringLiteral("section 0  %1  port-error  No such file or directory: not "
                            "exercised\n")
                 .arg(missingDevice()));
}

void tst_WorksurfaceTool::exerciseReportsASectionThatStopsAnswering()
{
    // The cable is pulled while the LEDs go on.
    connect(m_sim.get(), &PtySectionSimulator::messageReceived, this, [this](int type) {
        if (type == 11 && m_sim->isOpen()) {
            QTimer::singleShot(0, m_sim.get(), [this] { m_sim->hangUp(); });
        }
    });
    const Run r = run({"exercise", "--timeout", "0.5", "--step-ms", "0", "--section", "0",
                       "--ports", m_sim->slavePath()});
    QCOMPARE(r.exitCode, 3);
    QVERIFY2(r.err.endsWith(QLatin1String("section 0 stopped answering\n")), qPrintable(r.err));
}

void tst_WorksurfaceTool::exerciseInterruptedTurnsTheLedsOff_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGINT") << int(SIGINT);
    QTest::newRow("SIGTERM") << int(SIGTERM);
}

void tst_WorksurfaceTool::exerciseInterruptedTurnsTheLedsOff()
{
    QFETCH(int, signal);
    QProcess* process =
        start({"exercise", "--step-ms", "150", "--section", "0", "--ports", m_sim->slavePath()});
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String("led  device 10  solo 0 led  level 255"));
    }));
    ::kill(static_cast<pid_t>(process->processId()), signal);
    const Run r = finish(*process, 10000);
    QCOMPARE(r.exitStatus, QProcess::NormalExit);
    QCOMPARE(r.exitCode, 9);
    QVERIFY2((m_err + r.err).endsWith(QLatin1String("section 0 interrupted: LEDs off (exit 9)\n")),
             qPrintable(m_err + r.err));
    // The pattern stopped early, and every LED it lit is dark again. The tool showed each
    // message as it went out; the last of them may still wait in the pty.
    const int shownLeds = (m_out + r.out.join('\n')).count(QLatin1String("  out  led  "));
    waitFor([&] { return m_sim->receivedMessages(11).size() == shownLeds; });
    QCOMPARE(m_sim->receivedMessages(11).size(), shownLeds);
    QMap<int, std::vector<uint8_t>> last;
    for (const SerialMessage& m : m_sim->receivedMessages(11)) {
        last[m.deviceId] = m.payload;
    }
    QVERIFY(last.size() < 20 || m_sim->receivedMessages(12).size() < 40);
    for (auto it = last.cbegin(); it != last.cend(); ++it) {
        QVERIFY2(it.value() == std::vector<uint8_t>({0, 0}), qPrintable(QString::number(it.key())));
    }
}

void tst_WorksurfaceTool::aSecondCtrlCEndsAtOnce()
{
    QProcess* process =
        start({"exercise", "--step-ms", "150", "--section", "0", "--ports", m_sim->slavePath()});
    QVERIFY(readUntil(*process, [](const QString& out, const QString&) {
        return out.contains(QLatin1String("led  device 0  mute 0 led  level 255"));
    }));
    const auto pid = static_cast<pid_t>(process->processId());
    // The first Ctrl-C starts the clean ending; once the tool has taken it, Ctrl-C is no
    // longer caught, and a second one ends the tool where it stands.
    ::kill(pid, SIGINT);
    const auto caught = [pid] {
        QFile status(QStringLiteral("/proc/%1/status").arg(pid));
        if (!status.open(QIODevice::ReadOnly)) {
            return false;
        }
        for (const QByteArray& line : status.readAll().split('\n')) {
            if (line.startsWith("SigCgt:")) {
                return (line.mid(7).trimmed().toULongLong(nullptr, 16) & (1ull << (SIGINT - 1))) !=
                       0;
            }
        }
        return false;
    };
    QVERIFY(waitFor([&] { return !caught(); }));
    ::kill(pid, SIGINT);
    const Run r = finish(*process, 10000);
    QCOMPARE(r.exitStatus, QProcess::CrashExit);
    QVERIFY(!r.err.contains(QLatin1String("interrupted: LEDs off")));
}

QTEST_GUILESS_MAIN(tst_WorksurfaceTool)
#include "tst_worksurfacetool.moc"
