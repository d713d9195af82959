// A hardware section's link end to end over a real serial device: the section connection
// drives a HardwareSerialConnection on the slave of a pty whose master is played by
// PtySectionSimulator, with the section's root handler, a real outgoing queue, a real
// firmware updater and a real task pool. Time is manual: the clock moves and the pool's
// passes run only when the test says so; real waits are only for bytes crossing the pty.
//
// The section connection's log lines go through the Logger; the serial connection's are
// Qt stream lines (the port name quoted), e.g.
//   WS section 2 serial port: "/dev/pts/7" ready and open.

#include <QtTest>
#include <memory>

#include "serial/isectionconnection.h"
#include "serial/serialmessage.h"
#include "support/fakesettings.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/ptysectionlink.h"
#include "support/ptysectionsimulator.h"
#include "support/serialframes.h"
#include "tasks/taskpool.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kTimeout = 5000;
constexpr uint8_t kSection = 2;
// The clock reads like a board that has been up for a while, as steady_clock does.
// One supervision pass: just over the task's 50 ms interval.
constexpr qint64 kPassNs = 50 * kMs + 1000;

const QByteArray kPingFrame = QByteArray::fromHex("03000003");
const QByteArray kVersionReportFrame = QByteArray::fromHex("0600000a22285a");
const QByteArray kSerialErrorFrame = QByteArray::fromHex("03020005");

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

SerialMessage led(uint8_t deviceId, uint8_t level)
{
    return SerialMessage(MessageType::Led, deviceId, {level, 1});
}

}  // namespace

class TestSectionLinkPty : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void openingProbesTheBootloaderAndNotBootLoaderBringsTheLinkUp();
    void sectionIgnoringTheProbeKeepsTheLinkConnectingUnpingedUntilItAnswers();
    void connectedLinkPingsEveryTwoSecondsOfManualTimeAndTheSectionAnswers();
    void queueDrainsAtMostTwentyFramesAPassAsExactBytes();
    void noiseInTheMiddleOfAFrameIsReportedAndTheFramesAfterItArrive();
    void noiseSplitAcrossReadsIsReportedOncePerRead();
    void moreThanTenBadBytesTellTheSectionWithASerialErrorFrame();
    void silentSectionIsNoResponseAfterGracePlusTenSecondsAndAnsweringBringsItBack();
    void silentSectionIsRestartedAfterTwentySecondsAndComesBackThroughTheProbe();
    void sectionSilentThroughTheRestartLeavesTheLinkConnecting();
    void afterARestartEachTickRunsTwoSupervisionPasses();

private:
    // Opens the link and waits until the section's NotBootLoader answer has made it
    // Connected; the log and the recordings start empty afterwards.
    void bringUp();
    // Moves the clock by ns and runs whatever the pool has due.
    void advanceAndRun(qint64 ns);
    // Sets the clock to `ms` after `fromNs` and runs whatever is due.
    void runAt(qint64 fromNs, qint64 ms);
    QString readyLine() const;

    std::unique_ptr<ManualClock> m_clock;
    std::unique_ptr<PtySectionSimulator> m_sim;
    std::shared_ptr<FakeSettings> m_settings;
    std::shared_ptr<TaskPool> m_pool;
    std::unique_ptr<PtySectionLink> m_link;
};

void TestSectionLinkPty::init()
{
    m_clock = std::make_unique<ManualClock>(kStartNs);
    m_sim = std::make_unique<PtySectionSimulator>();
    QVERIFY2(m_sim->isOpen(), qPrintable(m_sim->errorString()));
    m_settings = std::make_shared<FakeSettings>();
    m_pool = std::make_shared<TaskPool>();
    m_link = std::make_unique<PtySectionLink>(kSection, m_sim->slavePath(), m_settings, m_pool);
}

void TestSectionLinkPty::cleanup()
{
    m_link.reset();
    m_pool.reset();
    m_sim.reset();
    m_clock.reset();
}

void TestSectionLinkPty::bringUp()
{
    m_link->section->open();
    QTRY_COMPARE_WITH_TIMEOUT(m_link->state(), int(ISectionConnection::Connected), kTimeout);
    m_sim->clearReceived();
    m_link->listener.clear();
}

void TestSectionLinkPty::advanceAndRun(qint64 ns)
{
    m_clock->advanceNs(ns);
    m_pool->runPendingTasks();
}

void TestSectionLinkPty::runAt(qint64 fromNs, qint64 ms)
{
    m_clock->setNs(fromNs + ms * kMs);
    m_pool->runPendingTasks();
}

QString TestSectionLinkPty::readyLine() const
{
    return QStringLiteral("WS section 2 serial port: %1 ready and open.")
        .arg(quoted(m_sim->slavePath()));
}

void TestSectionLinkPty::openingProbesTheBootloaderAndNotBootLoaderBringsTheLinkUp()
{
    LogCapture log;
    m_link->section->open();

    // The updater's AutoBaud goes out at once; the link waits in Connecting for an answer.
    QCOMPARE(m_link->listener.states(), std::vector<uint8_t>{ISectionConnection::Connecting});
    QVERIFY(m_link->updater->isActive());

    // The section runs its application and says so with NotBootLoader (AA).
    QTRY_COMPARE_WITH_TIMEOUT(m_link->state(), int(ISectionConnection::Connected), kTimeout);
    QCOMPARE(m_sim->receivedBytes(), QByteArray::fromHex("5555"));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::AutoBaud), 1);
    QCOMPARE(m_link->listener.states(),
             (std::vector<uint8_t>{ISectionConnection::Connecting, ISectionConnection::Connected}));
    QVERIFY(!m_link->updater->isActive());
    QCOMPARE(log.lines(),
             (QList<LogCapture::Line>{
                 {QtDebugMsg, readyLine()},
                 {QtInfoMsg, "WS UPDATER: Received not in bootloader. Finished updating"},
             }));
    // The answer was the bootloader's business, not a message for the section's controls.
    QCOMPARE(m_link->versionHandler->offerCount(), 0);
    QCOMPARE(m_link->controlHandler->offerCount(), 0);
}

void TestSectionLinkPty::sectionIgnoringTheProbeKeepsTheLinkConnectingUnpingedUntilItAnswers()
{
    m_sim->setAnswersAutoBaudInApplication(false);
    m_link->section->open();
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("5555"), kTimeout);

    // Thirty seconds of passes: a connecting link neither pings nor drains nor restarts.
    m_link->section->enqueueMessage(led(30, 200));
    for (int i = 0; i < 600; ++i) {
        advanceAndRun(kPassNs);
    }
    QCOMPARE(m_link->state(), int(ISectionConnection::Connecting));
    QCOMPARE(m_link->serial->messageCount(), uint64_t(0));
    QCOMPARE(m_link->queue->size(), std::size_t(1));

    // While the probe waits for its answer every byte goes to the updater, which drops
    // what is no bootloader answer: a version report does not bring the link up.
    m_sim->sendVersionReport();
    QVERIFY(m_sim->waitUntilPeerHasRead(kTimeout));
    QCOMPARE(m_link->versionHandler->offerCount(), 0);
    QCOMPARE(m_link->state(), int(ISectionConnection::Connecting));

    // The probe's answer does.
    m_sim->sendRaw(QByteArray::fromHex("aa"));
    QTRY_COMPARE_WITH_TIMEOUT(m_link->state(), int(ISectionConnection::Connected), kTimeout);
    advanceAndRun(kPassNs);
    QCOMPARE(m_link->serial->messageCount(), uint64_t(2));
    QTRY_COMPARE_WITH_TIMEOUT(
        m_sim->receivedBytes(),
        QByteArray::fromHex("5555") + kPingFrame +
            SerialFrames::frame(MessageType::Led, 30, QByteArray::fromHex("c801")),
        kTimeout);
}

void TestSectionLinkPty::connectedLinkPingsEveryTwoSecondsOfManualTimeAndTheSectionAnswers()
{
    bringUp();
    LogCapture log;

    // The first pass after coming up pings: 03 00 00 03.
    advanceAndRun(kPassNs);
    QCOMPARE(m_link->serial->messageCount(), uint64_t(1));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), kPingFrame, kTimeout);
    QCOMPARE(m_sim->pingCount(), 1);
    // The section answers with its version report, which the section's handler takes.
    QTRY_COMPARE_WITH_TIMEOUT(m_link->versionHandler->taken().size(), std::size_t(1), kTimeout);
    QCOMPARE(SerialFrames::wireBytes(m_link->versionHandler->taken()[0]), kVersionReportFrame);

    // Forty passes later 2,000.04 ms have passed: not more than 2,000 ms, no ping yet.
    for (int i = 0; i < 40; ++i) {
        advanceAndRun(kPassNs);
    }
    QCOMPARE(m_link->serial->messageCount(), uint64_t(1));
    // The forty-first pass is past 2 s.
    advanceAndRun(kPassNs);
    QCOMPARE(m_link->serial->messageCount(), uint64_t(2));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), kPingFrame + kPingFrame, kTimeout);
    QTRY_COMPARE_WITH_TIMEOUT(m_link->versionHandler->taken().size(), std::size_t(2), kTimeout);

    // And so on, every 41 passes.
    for (int i = 0; i < 41; ++i) {
        advanceAndRun(kPassNs);
    }
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->pingCount(), 3, kTimeout);
    QTRY_COMPARE_WITH_TIMEOUT(m_link->versionHandler->taken().size(), std::size_t(3), kTimeout);
    QCOMPARE(m_sim->receivedBytes(), kPingFrame + kPingFrame + kPingFrame);
    QCOMPARE(m_sim->badBytes(), QByteArray());
    // Every pass reported the running count of messages sent.
    QCOMPARE(m_link->listener.sentCountReports(), 1 + 41 + 41);
    QCOMPARE(m_link->listener.sentCounts().back(), uint64_t(3));
    QCOMPARE(m_link->state(), int(ISectionConnection::Connected));
    QCOMPARE(log.lines(), QList<LogCapture::Line>());
}

void TestSectionLinkPty::queueDrainsAtMostTwentyFramesAPassAsExactBytes()
{
    bringUp();
    advanceAndRun(kPassNs);
    QTRY_COMPARE_WITH_TIMEOUT(m_link->versionHandler->taken().size(), std::size_t(1), kTimeout);
    m_sim->clearReceived();

    // 25 LED levels for different LEDs: nothing coalesces.
    QByteArray expected;
    for (uint8_t id = 30; id < 55; ++id) {
        m_link->section->enqueueMessage(led(id, uint8_t(id * 3)));
        expected += SerialFrames::frame(MessageType::Led, id,
                                        QByteArray(1, char(id * 3)) + QByteArray(1, char(1)));
    }
    // The first one written out by hand: length 5, type 11, LED 30, level 90, 1, sum.
    QCOMPARE(expected.left(6), QByteArray::fromHex("050b1e5a0189"));

    advanceAndRun(kPassNs);
    QCOMPARE(m_link->serial->messageCount(), uint64_t(1 + 20));
    QCOMPARE(m_link->queue->size(), std::size_t(5));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), expected.left(20 * 6), kTimeout);
    QCOMPARE(m_sim->receivedMessages(MessageType::Led).size(), 20);

    advanceAndRun(kPassNs);
    QCOMPARE(m_link->serial->messageCount(), uint64_t(1 + 25));
    QCOMPARE(m_link->queue->size(), std::size_t(0));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), expected, kTimeout);
    QCOMPARE(m_sim->badBytes(), QByteArray());
    const std::vector<uint64_t>& counts = m_link->listener.sentCounts();
    QCOMPARE(counts.back(), uint64_t(26));
    QCOMPARE(counts[counts.size() - 2], uint64_t(21));

    // An empty queue sends nothing more.
    advanceAndRun(kPassNs);
    QCOMPARE(m_link->serial->messageCount(), uint64_t(26));
}

void TestSectionLinkPty::noiseInTheMiddleOfAFrameIsReportedAndTheFramesAfterItArrive()
{
    bringUp();
    LogCapture log;

    // Half a fader frame (05 07 04), two bytes of noise, the rest of that frame, then a
    // whole fader frame and a button press, in one read.
    const QByteArray stream = QByteArray::fromHex("050704") + QByteArray::fromHex("ffee") +
                              QByteArray::fromHex("012c3d") + QByteArray::fromHex("050704012c3d") +
                              QByteArray::fromHex("041415012e");
    QVERIFY(m_sim->sendRawSplit(stream, {}, kTimeout));

    // The torn frame is bad data (eight bytes: not enough to tell the section); the parser
    // finds the next frames byte by byte.
    QCOMPARE(log.lines(), (QList<LogCapture::Line>{
                              {QtWarningMsg, "Section 2 received bad data: '050704ffee012c3d'"},
                          }));
    QCOMPARE(m_link->controlHandler->taken().size(), std::size_t(2));
    QCOMPARE(m_link->controlHandler->taken()[0],
             SerialMessage(MessageType::FaderPosition, 4, {0x01, 0x2c}));
    QCOMPARE(m_link->controlHandler->taken()[1],
             SerialMessage(MessageType::ButtonState, 21, {0x01}));
    QCOMPARE(m_link->state(), int(ISectionConnection::Connected));
    QCOMPARE(m_link->serial->messageCount(), uint64_t(0));

    // The link goes on: the next pass pings and the answer arrives.
    advanceAndRun(kPassNs);
    QTRY_COMPARE_WITH_TIMEOUT(m_link->versionHandler->taken().size(), std::size_t(1), kTimeout);
    QCOMPARE(m_sim->receivedBytes(), kPingFrame);
    QCOMPARE(log.lines().size(), 1);
}

void TestSectionLinkPty::noiseSplitAcrossReadsIsReportedOncePerRead()
{
    bringUp();
    LogCapture log;

    // The same stream in three reads: 05 07 04 | ff ee 01 2c 3d | the two good frames. The
    // first read is too short to judge; the second drops 05 and then waits, because 07
    // could announce a frame whose end is still on its way; the third drops the rest of
    // the torn frame and delivers both good ones.
    const QByteArray stream = QByteArray::fromHex("050704ffee012c3d050704012c3d041415012e");
    QVERIFY(m_sim->sendRawSplit(stream, {3, 5}, kTimeout));

    QCOMPARE(log.lines(), (QList<LogCapture::Line>{
                              {QtWarningMsg, "Section 2 received bad data: '05'"},
                              {QtWarningMsg, "Section 2 received bad data: '0704ffee012c3d'"},
                          }));
    QCOMPARE(m_link->controlHandler->taken().size(), std::size_t(2));
    QCOMPARE(m_link->controlHandler->taken()[0],
             SerialMessage(MessageType::FaderPosition, 4, {0x01, 0x2c}));
    QCOMPARE(m_link->controlHandler->taken()[1],
             SerialMessage(MessageType::ButtonState, 21, {0x01}));
}

void TestSectionLinkPty::moreThanTenBadBytesTellTheSectionWithASerialErrorFrame()
{
    bringUp();
    LogCapture log;

    // A torn frame (05 07) and sixteen bytes of noise that cannot start a frame, then a
    // fader move: eighteen bad bytes in one read.
    QByteArray noise;
    for (int b = 0xf0; b <= 0xff; ++b) {
        noise.append(char(b));
    }
    const QByteArray stream =
        QByteArray::fromHex("0507") + noise + QByteArray::fromHex("050704012c3d");
    QVERIFY(m_sim->sendRawSplit(stream, {}, kTimeout));

    QCOMPARE(
        log.lines(),
        (QList<LogCapture::Line>{
            {QtWarningMsg, "Section 2 received bad data: '0507f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff'"},
        }));
    // The section is told straight away, outside the queue: type 2, device 0.
    QCOMPARE(m_link->serial->messageCount(), uint64_t(1));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), kSerialErrorFrame, kTimeout);
    QCOMPARE(m_sim->receivedMessages(MessageType::SerialError).size(), 1);
    // The frame after the noise still arrived.
    QCOMPARE(m_link->controlHandler->taken().size(), std::size_t(1));
    QCOMPARE(m_link->controlHandler->taken()[0],
             SerialMessage(MessageType::FaderPosition, 4, {0x01, 0x2c}));

    // Ten bad bytes in one read are only logged.
    log.clear();
    m_sim->clearReceived();
    QVERIFY(m_sim->sendRawSplit(
        QByteArray::fromHex("0507") + noise.left(8) + QByteArray::fromHex("050704012c3d"), {},
        kTimeout));
    QCOMPARE(log.texts(),
             QStringList{QStringLiteral("Section 2 received bad data: '0507f0f1f2f3f4f5f6f7'")});
    QCOMPARE(m_link->serial->messageCount(), uint64_t(1));
    QCOMPARE(m_link->controlHandler->taken().size(), std::size_t(2));
}

void TestSectionLinkPty::silentSectionIsNoResponseAfterGracePlusTenSecondsAndAnsweringBringsItBack()
{
    bringUp();
    // Connected at `up`: the silence checks count from up + 10 s.
    const qint64 up = m_clock->nowNs();
    m_sim->setSilent(true);
    LogCapture log;

    runAt(up, 51);
    QCOMPARE(m_link->serial->messageCount(), uint64_t(1));  // a ping, not answered
    // At exactly grace plus 10 s nothing has happened yet (another ping goes out)...
    runAt(up, 20000);
    QCOMPARE(m_link->state(), int(ISectionConnection::Connected));
    QCOMPARE(m_link->serial->messageCount(), uint64_t(2));
    QCOMPARE(log.lines(), QList<LogCapture::Line>());
    // ...on the next pass the section is marked NoResponse.
    runAt(up, 20051);
    QCOMPARE(m_link->state(), int(ISectionConnection::NoResponse));
    QCOMPARE(m_link->listener.states(), std::vector<uint8_t>{ISectionConnection::NoResponse});
    QCOMPARE(log.lines(), (QList<LogCapture::Line>{
                              {QtWarningMsg,
                               "Section 2 has not received response in timely "
                               "manner. Setting state to NoResponse."},
                          }));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->pingCount(), 2, kTimeout);

    // Pings go on in NoResponse. The section speaks again: it answers the next one, and
    // the answer its handler takes brings the link back.
    m_sim->setSilent(false);
    runAt(up, 22001);
    QCOMPARE(m_link->serial->messageCount(), uint64_t(3));
    QTRY_COMPARE_WITH_TIMEOUT(m_link->state(), int(ISectionConnection::Connected), kTimeout);
    QCOMPARE(m_link->versionHandler->taken().size(), std::size_t(1));
    QCOMPARE(m_link->listener.states(),
             (std::vector<uint8_t>{ISectionConnection::NoResponse, ISectionConnection::Connected}));
    QCOMPARE(m_sim->receivedBytes(), kPingFrame + kPingFrame + kPingFrame);
    QCOMPARE(log.lines().size(), 1);

    // With a new grace period: still Connected 20 s after coming back.
    runAt(up, 22001 + 20000);
    QCOMPARE(m_link->state(), int(ISectionConnection::Connected));
}

void TestSectionLinkPty::silentSectionIsRestartedAfterTwentySecondsAndComesBackThroughTheProbe()
{
    bringUp();
    const qint64 up = m_clock->nowNs();
    m_sim->setSilent(true);
    LogCapture log;

    runAt(up, 51);
    runAt(up, 20051);
    QCOMPARE(m_link->state(), int(ISectionConnection::NoResponse));
    // 20 s after the last byte (here: the end of the grace period) the link is not yet
    // restarted...
    runAt(up, 30000);
    QCOMPARE(m_link->state(), int(ISectionConnection::NoResponse));
    QCOMPARE(m_pool->taskCount(), std::size_t(1));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->pingCount(), 3, kTimeout);
    m_sim->clearReceived();
    log.clear();
    m_link->listener.clear();

    // ...on the next pass it is: closed, opened again, probed again. The section has come
    // back meanwhile and answers the probe, which brings the link up.
    m_sim->setSilent(false);
    runAt(up, 30051);
    QCOMPARE(log.lines(),
             (QList<LogCapture::Line>{
                 {QtWarningMsg,
                  "Section 2 has not received response in long time. Restart the connection..."},
                 {QtDebugMsg, readyLine()},
             }));
    QCOMPARE(m_link->listener.states(),
             (std::vector<uint8_t>{ISectionConnection::Closed, ISectionConnection::Connecting}));
    QTRY_COMPARE_WITH_TIMEOUT(m_link->state(), int(ISectionConnection::Connected), kTimeout);
    QCOMPARE(m_sim->receivedBytes(), QByteArray::fromHex("5555"));
    QCOMPARE(m_link->listener.states(),
             (std::vector<uint8_t>{ISectionConnection::Closed, ISectionConnection::Connecting,
                                   ISectionConnection::Connected}));
    QVERIFY(m_link->serial->isOpen());
    // The restart added a second supervision task for the same connection.
    QCOMPARE(m_pool->taskCount(), std::size_t(2));

    // Back to normal: the next pass pings (the last ping was 2.05 s ago) and it is answered.
    runAt(up, 32052);
    QTRY_COMPARE_WITH_TIMEOUT(m_link->versionHandler->taken().size(), std::size_t(1), kTimeout);
    QCOMPARE(m_sim->receivedBytes(), QByteArray::fromHex("5555") + kPingFrame);
}

void TestSectionLinkPty::sectionSilentThroughTheRestartLeavesTheLinkConnecting()
{
    bringUp();
    const qint64 up = m_clock->nowNs();
    m_sim->setSilent(true);

    runAt(up, 51);
    runAt(up, 20051);
    runAt(up, 30051);
    QCOMPARE(m_link->state(), int(ISectionConnection::Connecting));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->commandCount(BootloaderCommand::AutoBaud), 1, kTimeout);
    const uint64_t sent = m_link->serial->messageCount();

    // The probe went unanswered. A connecting link sends nothing and is never restarted
    // again: a minute of passes later it still waits for the section to answer the probe.
    LogCapture log;
    for (qint64 ms = 30101; ms < 90101; ms += 51) {
        runAt(up, ms);
    }
    QCOMPARE(m_link->state(), int(ISectionConnection::Connecting));
    QCOMPARE(m_link->serial->messageCount(), sent);
    QCOMPARE(log.lines(), QList<LogCapture::Line>());
    QCOMPARE(m_pool->taskCount(), std::size_t(2));

    // A section that speaks again without answering the probe is not heard: its frames go
    // to the updater, which waits for a bootloader answer.
    m_sim->setSilent(false);
    m_sim->sendVersionReport();
    QVERIFY(m_sim->waitUntilPeerHasRead(kTimeout));
    QCOMPARE(m_link->state(), int(ISectionConnection::Connecting));
    QCOMPARE(m_link->versionHandler->offerCount(), 0);
    // Only a NotBootLoader (or a bootloader's ACK) ends the wait.
    m_sim->sendRaw(QByteArray::fromHex("aa"));
    QTRY_COMPARE_WITH_TIMEOUT(m_link->state(), int(ISectionConnection::Connected), kTimeout);
}

void TestSectionLinkPty::afterARestartEachTickRunsTwoSupervisionPasses()
{
    bringUp();
    const qint64 up = m_clock->nowNs();
    m_sim->setSilent(true);
    runAt(up, 51);
    runAt(up, 20051);
    m_sim->setSilent(false);
    runAt(up, 30051);
    QTRY_COMPARE_WITH_TIMEOUT(m_link->state(), int(ISectionConnection::Connected), kTimeout);
    runAt(up, 32102);
    QTRY_COMPARE_WITH_TIMEOUT(m_link->versionHandler->taken().size(), std::size_t(1), kTimeout);
    const uint64_t sent = m_link->serial->messageCount();
    m_sim->clearReceived();

    // Two tasks for one connection: one tick drains twice, 20 messages each, so 25 queued
    // messages all leave in one tick (a connection restarted n times runs n + 1 passes).
    QByteArray expected;
    for (uint8_t id = 30; id < 55; ++id) {
        m_link->section->enqueueMessage(led(id, id));
        expected += SerialFrames::frame(MessageType::Led, id,
                                        QByteArray(1, char(id)) + QByteArray(1, char(1)));
    }
    runAt(up, 32153);
    QCOMPARE(m_link->queue->size(), std::size_t(0));
    QCOMPARE(m_link->serial->messageCount(), sent + 25);
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), expected, kTimeout);
}

QTEST_GUILESS_MAIN(TestSectionLinkPty)
#include "tst_sectionlinkpty.moc"
