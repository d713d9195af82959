// A section's firmware update end to end over a real serial device: the section connection
// drives a HardwareSerialConnection on the slave of a pty whose master plays the section's
// microcontroller sitting in its serial bootloader (PtySectionSimulator in bootloader
// mode). The image comes from a file in a temporary home folder, found by the real
// settings as $HOME/.firmware/worksurface.bin, or from a file the fake settings point at.
//
// Only the auto-update step waits for time to pass; that time is manual. Everything else
// is the exchange across the pty, waited for in real time with generous time-outs.
//
// The second run (links on the surface thread) makes the link there (PtySectionLink): the
// same exchange, each packet crossing between that thread and the simulator on this one.

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>
#include <algorithm>
#include <memory>

#include "base/settings.h"
#include "serial/isectionconnection.h"
#include "support/fakesettings.h"
#include "support/firmwareimagebytes.h"
#include "support/linkplacement.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/ptysectionlink.h"
#include "support/ptysectionsimulator.h"
#include "tasks/taskpool.h"
#include "updater/bootloaderpacket.h"
#include "updater/isectionupdaterlistener.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kTimeout = 5000;
// Whole images: generous, for a loaded build machine.
constexpr int kImageTimeout = 60000;
constexpr uint8_t kSection = 2;
constexpr int kBlock = 64;

// The bytes of a bootloader packet as the section reads them, built here independently of
// the plugin's encoder: size (3 + payload), checksum (command + payload, 8 bits), command,
// payload.
QByteArray packet(uint8_t command, const QByteArray& payload = QByteArray())
{
    uint8_t sum = command;
    for (char c : payload) {
        sum = static_cast<uint8_t>(sum + static_cast<uint8_t>(c));
    }
    QByteArray bytes;
    bytes.append(char(3 + payload.size()));
    bytes.append(char(sum));
    bytes.append(char(command));
    bytes.append(payload);
    return bytes;
}

QByteArray sendData(const QByteArray& block)
{
    return packet(BootloaderCommand::SendData, block);
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}

// The updater's lines, prefixed.
QString updater(const QString& text)
{
    return QStringLiteral("WS UPDATER: ") + text;
}

// The progress the link's listener hears for the updater's `told` reports, the first of them
// the announcement's 0. With the link on the surface thread, a percentage equal to the one
// that crossed last, with no other news between them, does not cross again, as it would
// change nothing in the section's model. The section's change to Updating crosses after the
// announcement, so the first block's percentage crosses even when it is 0 as well.
std::vector<RecordingStateListener::Report> progressHeard(
    std::vector<RecordingStateListener::Report> told)
{
    if (linkThreadRequested() && told.size() > 1) {
        told.erase(std::unique(told.begin() + 1, told.end()), told.end());
    }
    return told;
}

}  // namespace

class TestFirmwareUpdatePty : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void hundredByteImageFromTheHomeFolderGoesAsTwoPaddedBlocksAndTheSectionComesBack();
    void imageOf256KiBIsStoredByteForByteWithProgressUpTo100();
    void refusalsBeyondTheResendLimitFailWithReasonOneAndResetTheSection();
    void fiveRefusalsInARowAreResentAndTheUpdateCompletes();
    void errorStatusAbortsWithReasonTwoAndLogsItsName_data();
    void errorStatusAbortsWithReasonTwoAndLogsItsName();
    void missingFirmwareFileFailsWithReasonZeroAndResets_data();
    void missingFirmwareFileFailsWithReasonZeroAndResets();
    void directoryInPlaceOfTheFileFailsToOpenWithReasonZero();
    void emptyFileIsDownloadedAsZeroBytesThenReset();
    void imageOf16MiBIsAnnouncedWholeAndSentBlockByBlock();
    void fileRemovedDuringTheUpdateIsStillSentWhole();
    void fileCutShortDuringTheUpdateEndsTheImageThere();

private:
    void makeLink(std::shared_ptr<ISettings> settings);
    QString homeFirmwarePath() const;
    // Opens the link with the section in its bootloader and waits until the updater has
    // had its Reset acknowledged (the auto-update step is then pending).
    void runUntilReset(int timeoutMs = kTimeout);
    // Lets 1,000 ms of manual time pass (AutoBaud must not go earlier), then just over it:
    // the section, now running its application, answers NotBootLoader.
    void runAutoUpdateStep();
    // The link is usable: a pass pings and the section's answer is taken.
    void checkLinkAnswersPing();

    QTemporaryDir m_home;
    QByteArray m_previousHome;
    std::unique_ptr<ManualClock> m_clock;
    std::unique_ptr<PtySectionSimulator> m_sim;
    std::shared_ptr<TaskPool> m_pool;
    std::unique_ptr<PtySectionLink> m_link;
};

void TestFirmwareUpdatePty::initTestCase()
{
    // Before anything asks for the home folder: the real settings look for the image there.
    QVERIFY(m_home.isValid());
    m_previousHome = qgetenv("HOME");
    QVERIFY(qputenv("HOME", QFile::encodeName(m_home.path())));
    QCOMPARE(QDir::homePath(), m_home.path());
    QVERIFY(QDir(m_home.path()).mkpath(QStringLiteral(".firmware")));
    // The fall-back image in the resources must not stand in for a missing file here.
    QVERIFY2(!QFileInfo::exists(QStringLiteral(":/firmware/worksurface.bin")),
             "this test executable carries a firmware image in its resources");
}

void TestFirmwareUpdatePty::cleanupTestCase()
{
    qputenv("HOME", m_previousHome);
}

void TestFirmwareUpdatePty::init()
{
    m_clock = std::make_unique<ManualClock>(kStartNs);
    m_sim = std::make_unique<PtySectionSimulator>();
    QVERIFY2(m_sim->isOpen(), qPrintable(m_sim->errorString()));
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_pool = std::make_shared<TaskPool>();
    QDir firmware(m_home.path() + QStringLiteral("/.firmware"));
    QVERIFY(firmware.removeRecursively());
    QVERIFY(QDir(m_home.path()).mkpath(QStringLiteral(".firmware")));
}

void TestFirmwareUpdatePty::cleanup()
{
    m_link.reset();
    m_pool.reset();
    m_sim.reset();
    m_clock.reset();
}

void TestFirmwareUpdatePty::makeLink(std::shared_ptr<ISettings> settings)
{
    m_link =
        std::make_unique<PtySectionLink>(kSection, m_sim->slavePath(), std::move(settings), m_pool);
    QVERIFY(m_link->linkWhereTheModeSays());
}

QString TestFirmwareUpdatePty::homeFirmwarePath() const
{
    return m_home.path() + QStringLiteral("/.firmware/worksurface.bin");
}

void TestFirmwareUpdatePty::runUntilReset(int timeoutMs)
{
    m_link->open();
    QVERIFY2(m_link->waitUntil([this]() { return m_link->hasPendingAutoUpdate(); }, timeoutMs),
             "the updater did not get its Reset acknowledged");
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Application);
    QCOMPARE(m_link->state(), int(ISectionConnection::Connecting));
}

void TestFirmwareUpdatePty::runAutoUpdateStep()
{
    const int autoBauds = m_sim->commandCount(BootloaderCommand::AutoBaud);
    m_clock->advanceMs(1000);
    m_link->runPendingTasks();
    QVERIFY(m_link->hasPendingAutoUpdate());
    QCOMPARE(m_link->lastPacketCommand(), uint8_t(BootloaderCommand::NoPacket));

    m_clock->advanceNs(1);
    m_link->runPendingTasks();
    QVERIFY(!m_link->hasPendingAutoUpdate());
    QCOMPARE(m_link->lastPacketCommand(), uint8_t(BootloaderCommand::AutoBaud));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->commandCount(BootloaderCommand::AutoBaud), autoBauds + 1,
                              kTimeout);
    QTRY_COMPARE_WITH_TIMEOUT(m_link->state(), int(ISectionConnection::Connected), kTimeout);
    QVERIFY(!m_link->isUpdating());
}

void TestFirmwareUpdatePty::checkLinkAnswersPing()
{
    const std::size_t answers = m_link->versionHandler->taken().size();
    m_clock->advanceMs(51);
    m_link->runPendingTasks();
    QTRY_COMPARE_WITH_TIMEOUT(m_link->versionHandler->taken().size(), answers + 1, kTimeout);
    QCOMPARE(m_link->state(), int(ISectionConnection::Connected));
}

void TestFirmwareUpdatePty::
    hundredByteImageFromTheHomeFolderGoesAsTwoPaddedBlocksAndTheSectionComesBack()
{
    const QByteArray image = imageBytes(100, 7);
    QVERIFY(writeFile(homeFirmwarePath(), image));
    makeLink(std::make_shared<Settings>());
    LogCapture log;

    runUntilReset();

    // Announced as two whole blocks, 128 bytes from address 0.
    QCOMPARE(m_sim->downloadAddress(), uint32_t(0));
    QCOMPARE(m_sim->downloadSize(), uint32_t(128));
    // The second block carries the last 36 bytes and 28 bytes of 0xFF.
    const QByteArray second = image.mid(64) + QByteArray(28, char(0xFF));
    QCOMPARE(second.size(), kBlock);
    QCOMPARE(m_sim->image(), image.left(64) + second);
    QCOMPARE(m_sim->image(), padded(image));

    // The whole exchange as the section heard it.
    const QByteArray getStatusAndAck = QByteArray::fromHex("032323") + QByteArray::fromHex("cc");
    QCOMPARE(m_sim->receivedBytes(), QByteArray::fromHex("5555") +        // AutoBaud
                                         QByteArray::fromHex("032020") +  // Ping
                                         QByteArray::fromHex("0ba1210000000000000080") +
                                         getStatusAndAck + sendData(image.left(64)) +
                                         getStatusAndAck + sendData(second) + getStatusAndAck +
                                         QByteArray::fromHex("032525"));  // Reset
    QCOMPARE(m_sim->commandCount(BootloaderCommand::CommandAck), 3);

    QCOMPARE(m_link->listener.progressReports(),
             (std::vector<RecordingStateListener::Report>{
                 {kSection, 0}, {kSection, 64}, {kSection, 100}}));
    QCOMPARE(m_link->listener.states(),
             (std::vector<uint8_t>{ISectionConnection::Connecting, ISectionConnection::Updating,
                                   ISectionConnection::Connecting}));
    QCOMPARE(m_link->section->failures(), std::vector<int>());

    // A second after the Reset was acknowledged the updater asks again; the section now
    // runs its application and answers NotBootLoader.
    runAutoUpdateStep();
    QCOMPARE(m_sim->receivedBytes().right(2), QByteArray::fromHex("5555"));
    QCOMPARE(m_link->listener.states(),
             (std::vector<uint8_t>{ISectionConnection::Connecting, ISectionConnection::Updating,
                                   ISectionConnection::Connecting, ISectionConnection::Connected}));

    const QString path = QFileInfo(homeFirmwarePath()).absoluteFilePath();
    const QString ready =
        QStringLiteral("WS section 2 serial port: \"%1\" ready and open.").arg(m_sim->slavePath());
    const QString acknowledged = updater("Message acknowledged requesting status.");
    const QString waiting = updater("Status message acknowledged. Waiting status reply.");
    const QString success = updater("Received status message: Success.");
    QCOMPARE(log.lines(),
             (QList<LogCapture::Line>{
                 {QtDebugMsg, ready},
                 {QtInfoMsg, updater("Starting WS update")},
                 {QtInfoMsg, updater("Updating WS code from file: %1").arg(path)},
                 {QtDebugMsg, updater("Ping acknowledged start firmware load.")},
                 {QtDebugMsg, updater("Start loading firmware file of 100 bytes.")},
                 {QtDebugMsg, acknowledged},
                 {QtDebugMsg, waiting},
                 {QtDebugMsg, success},
                 {QtDebugMsg, updater("Downloaded 64 of 100 bytes (64%).")},
                 {QtDebugMsg, acknowledged},
                 {QtDebugMsg, waiting},
                 {QtDebugMsg, success},
                 {QtDebugMsg, updater("Firmware file loaded.")},
                 {QtDebugMsg, acknowledged},
                 {QtDebugMsg, waiting},
                 {QtDebugMsg, success},
                 {QtDebugMsg, updater("Finished updating. Reseting the microcontroller.")},
                 {QtDebugMsg, updater("Reset acknowledged register task for sending AutoBaud.")},
                 {QtDebugMsg, updater("Run auto updater task after timeout.")},
                 {QtInfoMsg, updater("Received not in bootloader. Finished updating")},
             }));

    checkLinkAnswersPing();
}

void TestFirmwareUpdatePty::imageOf256KiBIsStoredByteForByteWithProgressUpTo100()
{
    const QByteArray image = imageBytes(256 * 1024, 11);
    const QString path = m_home.path() + QStringLiteral("/image-256k.bin");
    QVERIFY(writeFile(path, image));
    auto settings = std::make_shared<FakeSettings>();
    settings->setFirmwarePath(path);
    settings->setDebugEnabled(false);
    makeLink(settings);

    QElapsedTimer clock;
    clock.start();
    runUntilReset(kImageTimeout);
    qInfo("256 KiB firmware update over the pty: %lld ms", clock.elapsed());

    QCOMPARE(m_sim->downloadSize(), uint32_t(image.size()));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::SendData), 4096);
    QVERIFY(m_sim->image() == image);

    // 0 when the download is announced, then position * 100 / size after each block, 100
    // after the last.
    const std::vector<RecordingStateListener::Report>& progress =
        m_link->listener.progressReports();
    std::vector<RecordingStateListener::Report> told{{kSection, 0}};
    for (qint64 block = 1; block < 4096; ++block) {
        told.push_back({kSection, uint8_t(block * kBlock * 100 / image.size())});
    }
    told.push_back({kSection, 100});
    QCOMPARE(told.size(), std::size_t(1 + 4096));
    const std::vector<RecordingStateListener::Report> expected = progressHeard(told);
    QCOMPARE(progress.size(), expected.size());
    QVERIFY(progress == expected);
    for (std::size_t i = 1; i < progress.size(); ++i) {
        QVERIFY(progress[i].value >= progress[i - 1].value);
    }
    QCOMPARE(m_link->section->failures(), std::vector<int>());

    runAutoUpdateStep();
    checkLinkAnswersPing();
}

void TestFirmwareUpdatePty::refusalsBeyondTheResendLimitFailWithReasonOneAndResetTheSection()
{
    const QByteArray image = imageBytes(200, 3);
    QVERIFY(writeFile(homeFirmwarePath(), image));
    makeLink(std::make_shared<Settings>());
    // The bootloader refuses every block.
    m_sim->nakCommand(BootloaderCommand::SendData, -1);
    LogCapture log;

    runUntilReset();

    // The first block and five resends, all refused; nothing was written.
    QCOMPARE(m_sim->commandCount(BootloaderCommand::SendData), 6);
    QCOMPARE(m_sim->image(), QByteArray());
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Reset), 1);
    QCOMPARE(m_link->section->failures(),
             std::vector<int>{ISectionUpdaterListener::ResendsExhausted});
    QCOMPARE(m_link->section->failures(), std::vector<int>{1});
    const QString resend = updater("TIVA requests resending of last message.");
    QCOMPARE(log.texts(QtInfoMsg),
             (QStringList{updater("Starting WS update"),
                          updater("Updating WS code from file: %1")
                              .arg(QFileInfo(homeFirmwarePath()).absoluteFilePath()),
                          resend, resend, resend, resend, resend}));
    QCOMPARE(log.texts(QtCriticalMsg),
             QStringList{updater("Update failed. Unable to send message after 5 retries")});
    QCOMPARE(log.texts(QtWarningMsg), QStringList());
    const QStringList debug = log.texts(QtDebugMsg);
    QCOMPARE(debug.mid(debug.size() - 2),
             (QStringList{updater("Finished updating. Reseting the microcontroller."),
                          updater("Reset acknowledged register task for sending AutoBaud.")}));
    QCOMPARE(m_link->listener.states(),
             (std::vector<uint8_t>{ISectionConnection::Connecting, ISectionConnection::Updating,
                                   ISectionConnection::Connecting}));

    runAutoUpdateStep();
    checkLinkAnswersPing();
}

void TestFirmwareUpdatePty::fiveRefusalsInARowAreResentAndTheUpdateCompletes()
{
    const QByteArray image = imageBytes(200, 5);
    QVERIFY(writeFile(homeFirmwarePath(), image));
    makeLink(std::make_shared<Settings>());
    // Five refusals of the first status request and five of the first block: ten in one
    // update, but an acknowledgement in between starts the count again.
    m_sim->nakCommand(BootloaderCommand::GetStatus, 5);
    m_sim->nakCommand(BootloaderCommand::SendData, 5);
    LogCapture log;

    runUntilReset();

    QCOMPARE(m_sim->image(), padded(image));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::SendData), 4 + 5);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::GetStatus), 1 + 4 + 5);
    QCOMPARE(log.count(QtInfoMsg, updater("TIVA requests resending of last message.")), 10);
    QCOMPARE(log.texts(QtCriticalMsg), QStringList());
    QCOMPARE(m_link->section->failures(), std::vector<int>());
    QCOMPARE(m_link->listener.progressReports().back().value, uint8_t(100));

    runAutoUpdateStep();
    checkLinkAnswersPing();
}

void TestFirmwareUpdatePty::errorStatusAbortsWithReasonTwoAndLogsItsName_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("name");
    QTest::newRow("InvalidCommand") << int(BootloaderCommand::InvalidCommand) << "InvalidCommand";
    QTest::newRow("InvalidAddress") << int(BootloaderCommand::InvalidAddress) << "InvalidAddress";
    QTest::newRow("FlashFailure") << int(BootloaderCommand::FlashFailure) << "FlashFailure";
    QTest::newRow("CRCheckFailure") << int(BootloaderCommand::CRCheckFailure) << "CRCheckFailure";
    QTest::newRow("unknown 0x47") << 0x47 << "UnknownCommand";
}

void TestFirmwareUpdatePty::errorStatusAbortsWithReasonTwoAndLogsItsName()
{
    QFETCH(int, status);
    QFETCH(QString, name);
    const QByteArray image = imageBytes(300, 9);
    QVERIFY(writeFile(homeFirmwarePath(), image));
    makeLink(std::make_shared<Settings>());
    // The download is accepted, the first block is not.
    m_sim->enqueueStatusReply(BootloaderCommand::Success);
    m_sim->enqueueStatusReply(uint8_t(status));
    LogCapture log;

    runUntilReset();

    QCOMPARE(m_sim->commandCount(BootloaderCommand::SendData), 1);
    QCOMPARE(m_sim->image(), image.left(64));
    QCOMPARE(m_link->section->failures(),
             std::vector<int>{ISectionUpdaterListener::BootloaderErrorStatus});
    QCOMPARE(m_link->section->failures(), std::vector<int>{2});
    QCOMPARE(log.texts(QtCriticalMsg),
             QStringList{updater("Update aborted. Updater received error %1").arg(name)});
    const QStringList debug = log.texts(QtDebugMsg);
    QCOMPARE(debug.mid(debug.size() - 3),
             (QStringList{updater("Received status message: %1.").arg(name),
                          updater("Finished updating. Reseting the microcontroller."),
                          updater("Reset acknowledged register task for sending AutoBaud.")}));
    // The error status was acknowledged like any other (three status replies in all),
    // then the section was reset.
    QCOMPARE(m_sim->commandCount(BootloaderCommand::CommandAck), 2);
    QCOMPARE(m_sim->receivedBytes().right(4), QByteArray::fromHex("cc032525"));

    runAutoUpdateStep();
    checkLinkAnswersPing();
}

void TestFirmwareUpdatePty::missingFirmwareFileFailsWithReasonZeroAndResets_data()
{
    QTest::addColumn<bool>("realSettings");
    QTest::addColumn<QString>("path");
    // No file in the home folder and none in the resources: the settings give no path.
    QTest::newRow("real settings, nothing in the home folder") << true << QString();
    QTest::newRow("fake settings, path to nowhere")
        << false << QStringLiteral("/nonexistent/firmware/worksurface.bin");
}

void TestFirmwareUpdatePty::missingFirmwareFileFailsWithReasonZeroAndResets()
{
    QFETCH(bool, realSettings);
    QFETCH(QString, path);
    if (realSettings) {
        makeLink(std::make_shared<Settings>());
    } else {
        auto settings = std::make_shared<FakeSettings>();
        settings->setFirmwarePath(path);
        makeLink(settings);
    }
    LogCapture log;

    runUntilReset();

    // No Ping, no Download: AutoBaud, then straight to Reset.
    QCOMPARE(m_sim->receivedBytes(), QByteArray::fromHex("5555032525"));
    QCOMPARE(m_link->section->failures(),
             std::vector<int>{ISectionUpdaterListener::FirmwareFileError});
    QCOMPARE(m_link->section->failures(), std::vector<int>{0});
    QCOMPARE(log.texts(),
             (QStringList{
                 QStringLiteral("WS section 2 serial port: \"%1\" ready and open.")
                     .arg(m_sim->slavePath()),
                 updater("Starting WS update"),
                 updater("Unable to update the worksurface from file: %1. The file does not exist.")
                     .arg(path),
                 updater("Finished updating. Reseting the microcontroller."),
                 updater("Reset acknowledged register task for sending AutoBaud."),
             }));
    QCOMPARE(log.texts(QtWarningMsg).size(), 1);
    QCOMPARE(m_link->listener.progressCount(), 0);
    // The link never showed Updating.
    QCOMPARE(m_link->listener.states(), std::vector<uint8_t>{ISectionConnection::Connecting});

    runAutoUpdateStep();
    checkLinkAnswersPing();
}

void TestFirmwareUpdatePty::directoryInPlaceOfTheFileFailsToOpenWithReasonZero()
{
    QVERIFY(QDir(m_home.path()).mkpath(QStringLiteral(".firmware/worksurface.bin")));
    makeLink(std::make_shared<Settings>());
    LogCapture log;

    runUntilReset();

    // The directory exists, so the update begins; opening it for reading fails.
    QCOMPARE(m_sim->receivedBytes(), QByteArray::fromHex("5555") + QByteArray::fromHex("032020") +
                                         QByteArray::fromHex("032525"));
    QCOMPARE(m_link->section->failures(), std::vector<int>{0});
    QCOMPARE(log.texts(QtInfoMsg),
             (QStringList{updater("Starting WS update"),
                          updater("Updating WS code from file: %1")
                              .arg(QFileInfo(homeFirmwarePath()).absoluteFilePath())}));
    QCOMPARE(log.texts(QtCriticalMsg),
             QStringList{updater("Update error. Unable to open the firmware file for reading")});
    QCOMPARE(m_link->listener.progressCount(), 0);
    // The failure itself is the first state change after the Ping: the link shows Updating
    // for a moment, then Connecting with the Reset.
    QCOMPARE(m_link->listener.states(),
             (std::vector<uint8_t>{ISectionConnection::Connecting, ISectionConnection::Updating,
                                   ISectionConnection::Connecting}));

    runAutoUpdateStep();
    checkLinkAnswersPing();
}

void TestFirmwareUpdatePty::emptyFileIsDownloadedAsZeroBytesThenReset()
{
    QVERIFY(writeFile(homeFirmwarePath(), QByteArray()));
    makeLink(std::make_shared<Settings>());
    LogCapture log;

    runUntilReset();

    // An empty image is announced as a download of 0 bytes; after its status the file is
    // at its end, so no block is sent and the section is reset.
    QCOMPARE(m_sim->receivedBytes(), QByteArray::fromHex("5555") + QByteArray::fromHex("032020") +
                                         QByteArray::fromHex("0b2121") + QByteArray(8, '\0') +
                                         QByteArray::fromHex("032323cc") +
                                         QByteArray::fromHex("032525"));
    QCOMPARE(m_sim->downloadSize(), uint32_t(0));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::SendData), 0);
    QCOMPARE(m_sim->image(), QByteArray());
    QCOMPARE(m_link->section->failures(), std::vector<int>());
    QVERIFY(log.contains(QtDebugMsg, updater("Start loading firmware file of 0 bytes.")));
    QCOMPARE(log.texts(QtCriticalMsg), QStringList());
    QCOMPARE(log.texts(QtWarningMsg), QStringList());
    // Progress 0 when the download is announced, and nothing after it: never 100.
    QCOMPARE(m_link->listener.progressReports(),
             (std::vector<RecordingStateListener::Report>{{kSection, 0}}));

    runAutoUpdateStep();
    checkLinkAnswersPing();
}

void TestFirmwareUpdatePty::imageOf16MiBIsAnnouncedWholeAndSentBlockByBlock()
{
    // The whole 16 MiB take about a minute over a pty without pacing (bench_firmwareupdate
    // measures it); here the first 2,048 blocks go through, then the bootloader refuses
    // the next one for good and the update stops the way every failed one does.
    constexpr int kSize = 16 * 1024 * 1024;
    constexpr int kBlocks = 2048;
    const QByteArray image = imageBytes(kSize, 13);
    const QString path = m_home.path() + QStringLiteral("/image-16m.bin");
    QVERIFY(writeFile(path, image));
    auto settings = std::make_shared<FakeSettings>();
    settings->setFirmwarePath(path);
    settings->setDebugEnabled(false);
    makeLink(settings);
    PtySectionSimulator* sim = m_sim.get();
    connect(sim, &PtySectionSimulator::bootloaderPacketReceived, this,
            [sim](int command, const QByteArray&) {
                if (command == BootloaderCommand::SendData &&
                    sim->commandCount(BootloaderCommand::SendData) == kBlocks + 1) {
                    sim->nakCommand(BootloaderCommand::SendData, -1);
                }
            });
    auto log = std::make_unique<LogCapture>();

    QElapsedTimer clock;
    clock.start();
    runUntilReset(kImageTimeout);
    const qint64 elapsedMs = clock.elapsed();

    // Download of 16,777,216 bytes from address 0.
    QVERIFY(m_sim->receivedBytes().startsWith(QByteArray::fromHex("5555032020") +
                                              QByteArray::fromHex("0b22210000000001000000")));
    QCOMPARE(m_sim->downloadSize(), uint32_t(kSize));
    QVERIFY(m_sim->image() == image.left(kBlocks * kBlock));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::SendData), kBlocks + 6);
    QCOMPARE(m_link->section->failures(), std::vector<int>{1});
    QCOMPARE(log->texts(QtCriticalMsg),
             QStringList{updater("Update failed. Unable to send message after 5 retries")});
    log.reset();
    qInfo("16 MiB image over the pty: %d blocks in %lld ms", kBlocks, elapsedMs);
    // Progress for every block sent (the refused one too, not its resends): percentages of
    // 16 MiB, 0 or 1 this early.
    std::vector<RecordingStateListener::Report> told;
    for (qint64 block = 0; block < 1 + kBlocks + 1; ++block) {
        told.push_back({kSection, uint8_t(block * kBlock * 100 / kSize)});
    }
    QCOMPARE(m_link->listener.progressReports(), progressHeard(told));

    runAutoUpdateStep();
    checkLinkAnswersPing();
}

void TestFirmwareUpdatePty::fileRemovedDuringTheUpdateIsStillSentWhole()
{
    // 101 whole blocks and 36 bytes.
    const QByteArray image = imageBytes(101 * kBlock + 36, 17);
    QVERIFY(writeFile(homeFirmwarePath(), image));
    makeLink(std::make_shared<Settings>());
    const QString path = homeFirmwarePath();
    bool removed = false;
    connect(m_sim.get(), &PtySectionSimulator::bootloaderPacketReceived, this,
            [this, path, &removed](int command, const QByteArray&) {
                if (command == BootloaderCommand::SendData && !removed &&
                    m_sim->commandCount(BootloaderCommand::SendData) == 10) {
                    removed = QFile::remove(path);
                }
            });
    LogCapture log;

    runUntilReset();

    // The updater holds the file open: on Linux its bytes stay readable after the name is
    // gone, so the image arrives whole and the update succeeds.
    QVERIFY(removed);
    QVERIFY(!QFileInfo::exists(path));
    QCOMPARE(m_sim->image(), padded(image));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::SendData), 102);
    QCOMPARE(m_link->section->failures(), std::vector<int>());
    QCOMPARE(m_link->listener.progressReports().back().value, uint8_t(100));
    QCOMPARE(log.texts(QtCriticalMsg), QStringList());
    QCOMPARE(log.texts(QtWarningMsg), QStringList());

    runAutoUpdateStep();
    checkLinkAnswersPing();
}

void TestFirmwareUpdatePty::fileCutShortDuringTheUpdateEndsTheImageThere()
{
    const QByteArray image = imageBytes(40 * kBlock, 19);
    QVERIFY(writeFile(homeFirmwarePath(), image));
    makeLink(std::make_shared<Settings>());
    const QString path = homeFirmwarePath();
    constexpr int kCut = 20 * kBlock + 10;
    bool cut = false;
    connect(m_sim.get(), &PtySectionSimulator::bootloaderPacketReceived, this,
            [this, path, &cut](int command, const QByteArray&) {
                if (command == BootloaderCommand::SendData && !cut &&
                    m_sim->commandCount(BootloaderCommand::SendData) == 10) {
                    cut = QFile::resize(path, kCut);
                }
            });
    LogCapture log;

    runUntilReset();

    // The download announced 40 blocks, but the image ends where the file now ends: its
    // last 10 bytes go padded in block 21, and the section is reset.
    QVERIFY(cut);
    QCOMPARE(m_sim->downloadSize(), uint32_t(40 * kBlock));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::SendData), 21);
    QCOMPARE(m_sim->image(), padded(image.left(kCut)));
    QCOMPARE(m_link->section->failures(), std::vector<int>());
    QCOMPARE(m_link->listener.progressReports().back().value, uint8_t(100));
    QCOMPARE(log.texts(QtCriticalMsg), QStringList());

    runAutoUpdateStep();
    checkLinkAnswersPing();
}

QTEST_GUILESS_MAIN(TestFirmwareUpdatePty)
#include "tst_firmwareupdatepty.moc"
