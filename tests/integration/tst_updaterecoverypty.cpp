// An update cut off halfway over a real serial device: the section connection drives a
// HardwareSerialConnection on a pty whose far end plays a section in its serial bootloader
// (PtySectionSimulator). At the first, a middle and the last block the section falls silent,
// or its pty is closed (the cable pulled) and a new one appears under the same name (plugged
// back). The update fails once with reason 3, and the link, reconnecting by itself, finds the
// section in its bootloader again and writes the whole image.
//
// The link's passes, the update time-out and the reconnection interval run on the manual
// clock, moved by hand; the exchange itself crosses the pty and is waited for in real time,
// for a condition with a generous bound.
#include <unistd.h>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>

#include "serial/isectionconnection.h"
#include "support/fakesettings.h"
#include "support/firmwareimagebytes.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/ptysectionlink.h"
#include "support/ptysectionsimulator.h"
#include "tasks/taskpool.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kTimeout = 5000;
constexpr uint8_t kSection = 1;
constexpr int kBlocks = 10;
constexpr int kUpdateTimeoutMs = 2000;
constexpr int kReconnectMs = 500;

}  // namespace

class TestUpdateRecoveryPty : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void silentSectionFailsOnceAndIsUpdatedAgain_data();
    void silentSectionFailsOnceAndIsUpdatedAgain();
    void closedAndReopenedPtyFailsAtOnceAndIsUpdatedAgain_data();
    void closedAndReopenedPtyFailsAtOnceAndIsUpdatedAgain();

private:
    void blocks();
    // Moves the link's time on and runs what is due.
    void tickMs(qint64 ms)
    {
        m_clock->advanceMs(ms);
        m_pool->runPendingTasks();
    }
    // A simulator in its bootloader, reached under the link's device name.
    void plugInNewSection();
    // Falls silent once the section has received block `block`: its answer is not sent.
    void silenceAtBlock(int block);
    // After the failure: the link probes again every interval until the section answers,
    // the update runs over the pty, and a second after the Reset the section is found running.
    void expectTheWholeUpdateAgain();

    std::unique_ptr<ManualClock> m_clock;
    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_devicePath;
    QByteArray m_image;
    std::shared_ptr<FakeSettings> m_settings;
    std::shared_ptr<TaskPool> m_pool;
    std::vector<std::unique_ptr<PtySectionSimulator>> m_sims;
    PtySectionSimulator* m_sim = nullptr;
    std::unique_ptr<PtySectionLink> m_link;
};

void TestUpdateRecoveryPty::init()
{
    m_clock = std::make_unique<ManualClock>(kStartNs);
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    // A name of its own: the serial port's lock file is named after it.
    m_devicePath = m_dir->filePath(QStringLiteral("ttyRecovery%1").arg(::getpid()));
    m_image = imageBytes(kBlocks * 64, 3);
    const QString firmware = m_dir->filePath(QStringLiteral("worksurface.bin"));
    QFile file(firmware);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(m_image) == m_image.size());
    file.close();
    m_settings = std::make_shared<FakeSettings>();
    m_settings->setFirmwarePath(firmware);
    m_settings->setReconnectInterval(kReconnectMs);
    m_settings->setUpdateTimeout(kUpdateTimeoutMs);
    m_pool = std::make_shared<TaskPool>();
    plugInNewSection();
    m_link = std::make_unique<PtySectionLink>(kSection, m_devicePath, m_settings, m_pool);
    m_link->section->setReconnectSettings(m_settings);
}

void TestUpdateRecoveryPty::cleanup()
{
    m_link.reset();
    m_pool.reset();
    m_sims.clear();
    m_sim = nullptr;
    m_dir.reset();
    m_clock.reset();
}

void TestUpdateRecoveryPty::plugInNewSection()
{
    auto sim = std::make_unique<PtySectionSimulator>();
    QVERIFY2(sim->isOpen(), qPrintable(sim->errorString()));
    sim->setMode(PtySectionSimulator::Mode::Bootloader);
    QFile::remove(m_devicePath);
    QVERIFY(QFile::link(sim->slavePath(), m_devicePath));
    m_sim = sim.get();
    m_sims.push_back(std::move(sim));
}

void TestUpdateRecoveryPty::blocks()
{
    QTest::addColumn<int>("block");
    QTest::newRow("first block") << 1;
    QTest::newRow("middle block") << kBlocks / 2;
    QTest::newRow("last block") << kBlocks;
}

void TestUpdateRecoveryPty::silenceAtBlock(int block)
{
    PtySectionSimulator* sim = m_sim;
    connect(sim, &PtySectionSimulator::bootloaderPacketReceived, this,
            [sim, block](int command, const QByteArray&) {
                if (command == BootloaderCommand::SendData &&
                    sim->commandCount(BootloaderCommand::SendData) == block) {
                    sim->setSilent(true);
                }
            });
}

void TestUpdateRecoveryPty::expectTheWholeUpdateAgain()
{
    // The next attempt reopens the line and probes; from the answer on the update runs by
    // itself over the pty, and no pass is due before it has come to its Reset.
    const uint64_t attempts = m_link->section->reconnectAttempts();
    for (int pass = 0; pass < 40 && m_link->section->reconnectAttempts() == attempts; ++pass) {
        tickMs(51);
    }
    QCOMPARE(m_link->section->reconnectAttempts(), attempts + 1);
    QTRY_VERIFY_WITH_TIMEOUT(m_link->updater->hasPendingAutoUpdate(), kTimeout);
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Application);
    tickMs(1001);
    QTRY_COMPARE_WITH_TIMEOUT(m_link->state(), int(ISectionConnection::Connected), kTimeout);
    QCOMPARE(m_sim->image(), m_image);
    QCOMPARE(m_link->section->failures(), std::vector<int>{3});
}

void TestUpdateRecoveryPty::silentSectionFailsOnceAndIsUpdatedAgain_data()
{
    blocks();
}

void TestUpdateRecoveryPty::silentSectionFailsOnceAndIsUpdatedAgain()
{
    QFETCH(int, block);
    LogCapture log;
    silenceAtBlock(block);
    m_link->section->open();
    QTRY_VERIFY_WITH_TIMEOUT(m_sim->isSilent(), kTimeout);
    QCOMPARE(m_link->state(), int(ISectionConnection::Updating));

    // The block's answer never comes: the update fails once the time-out has passed.
    tickMs(kUpdateTimeoutMs);
    QVERIFY(m_link->section->failures().empty());
    tickMs(1);
    QCOMPARE(m_link->section->failures(), std::vector<int>{3});
    QCOMPARE(m_link->state(), int(ISectionConnection::Connecting));
    QVERIFY(log.lines().contains(LogCapture::Line{
        QtWarningMsg, QStringLiteral("WS UPDATER: Section 1 stopped answering at block %1 of 10 "
                                     "(waiting for SendData): nothing received for 2001 ms. "
                                     "Update failed.")
                          .arg(block)}));
    // No Reset: the section is still in its bootloader.
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Reset), 0);
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Bootloader);

    // Probes go unanswered while it is silent; once it answers, the update runs again.
    const int autoBauds = m_sim->commandCount(BootloaderCommand::AutoBaud);
    for (int pass = 0; pass < 20; ++pass) {
        tickMs(51);
    }
    const auto attempts = static_cast<int>(m_link->section->reconnectAttempts());
    QVERIFY(attempts >= 1);
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->commandCount(BootloaderCommand::AutoBaud),
                              autoBauds + attempts, kTimeout);
    QCOMPARE(m_link->state(), int(ISectionConnection::Connecting));
    m_sim->setSilent(false);
    expectTheWholeUpdateAgain();
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Download), 2);
    QVERIFY(log.texts().contains(QStringLiteral("Section 1 link is down (no answer on %1). "
                                                "Retrying every 500 ms.")
                                     .arg(m_devicePath)));
}

void TestUpdateRecoveryPty::closedAndReopenedPtyFailsAtOnceAndIsUpdatedAgain_data()
{
    blocks();
}

void TestUpdateRecoveryPty::closedAndReopenedPtyFailsAtOnceAndIsUpdatedAgain()
{
    QFETCH(int, block);
    LogCapture log;
    silenceAtBlock(block);
    m_link->section->open();
    QTRY_VERIFY_WITH_TIMEOUT(m_sim->isSilent(), kTimeout);

    // The cable is pulled: the port closes on its error, and the next pass ends the update.
    m_sim->hangUp();
    QTRY_VERIFY_WITH_TIMEOUT(!m_link->serial->isOpen(), kTimeout);
    QVERIFY(m_link->section->failures().empty());
    tickMs(51);
    QCOMPARE(m_link->section->failures(), std::vector<int>{3});
    QCOMPARE(m_link->state(), int(ISectionConnection::Connecting));
    QVERIFY(log.lines().contains(LogCapture::Line{
        QtWarningMsg, QStringLiteral("WS UPDATER: Section 1 lost its line at block %1 of 10 "
                                     "(waiting for SendData): nothing received for 51 ms. "
                                     "Update failed.")
                          .arg(block)}));

    // Plugged back: a new pty under the same name, its section in its bootloader.
    plugInNewSection();
    expectTheWholeUpdateAgain();
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Download), 1);
}

QTEST_GUILESS_MAIN(TestUpdateRecoveryPty)

#include "tst_updaterecoverypty.moc"
