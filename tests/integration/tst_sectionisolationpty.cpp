// One misbehaving section must not take the others with it: two section links on two
// ptys share one task pool (as the sections of a surface do) and one thread. While
// section 0 floods noise, hangs up or falls silent, section 1 keeps being pinged and
// answering, and its queue keeps draining to the exact bytes.
//
// Time is manual; real waits are only for bytes crossing the ptys.

#include <QtTest>
#include <deque>
#include <functional>
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

using namespace Velmora::Worksurface;

namespace {

constexpr int kTimeout = 5000;
constexpr qint64 kPassNs = 50LL * 1000 * 1000 + 1000;
constexpr uint8_t kFaulty = 0;
constexpr uint8_t kHealthy = 1;

const QByteArray kPingFrame = QByteArray::fromHex("03000003");

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

}  // namespace

class TestSectionIsolationPty : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void sectionFloodingNoiseDoesNotStopTheOther();
    void sectionHangingUpDoesNotStopTheOther();
    void sectionFallingSilentDoesNotStopTheOther();

private:
    // Runs `passes` supervision passes of both sections. Every 100 passes 25 LED levels are
    // queued for the healthy section. After each pass the healthy section's simulator must
    // have heard exactly the pings and queued frames sent so far, and every ping must have
    // been answered. `beforePass` runs before each pass (pass number from 0).
    void runBothSections(int passes, const std::function<void(int)>& beforePass);
    // Lines that name the healthy section.
    static QStringList healthyLines(const LogCapture& log);

    std::unique_ptr<ManualClock> m_clock;
    std::shared_ptr<TaskPool> m_pool;
    std::unique_ptr<PtySectionSimulator> m_faultySim;
    std::unique_ptr<PtySectionSimulator> m_healthySim;
    std::unique_ptr<PtySectionLink> m_faulty;
    std::unique_ptr<PtySectionLink> m_healthy;
    QByteArray m_healthyExpected;
    int m_healthyPings = 0;
};

void TestSectionIsolationPty::init()
{
    m_clock = std::make_unique<ManualClock>(kStartNs);
    m_pool = std::make_shared<TaskPool>();
    m_faultySim = std::make_unique<PtySectionSimulator>();
    QVERIFY2(m_faultySim->isOpen(), qPrintable(m_faultySim->errorString()));
    m_healthySim = std::make_unique<PtySectionSimulator>();
    QVERIFY2(m_healthySim->isOpen(), qPrintable(m_healthySim->errorString()));
    m_faulty = std::make_unique<PtySectionLink>(kFaulty, m_faultySim->slavePath(),
                                                std::make_shared<FakeSettings>(), m_pool);
    m_healthy = std::make_unique<PtySectionLink>(kHealthy, m_healthySim->slavePath(),
                                                 std::make_shared<FakeSettings>(), m_pool);

    m_faulty->section->open();
    m_healthy->section->open();
    QTRY_COMPARE_WITH_TIMEOUT(m_faulty->state(), int(ISectionConnection::Connected), kTimeout);
    QTRY_COMPARE_WITH_TIMEOUT(m_healthy->state(), int(ISectionConnection::Connected), kTimeout);
    m_faultySim->clearReceived();
    m_healthySim->clearReceived();
    m_faulty->listener.clear();
    m_healthy->listener.clear();
    m_healthyExpected.clear();
    m_healthyPings = 0;
}

void TestSectionIsolationPty::cleanup()
{
    m_healthy.reset();
    m_faulty.reset();
    m_healthySim.reset();
    m_faultySim.reset();
    m_pool.reset();
    m_clock.reset();
}

void TestSectionIsolationPty::runBothSections(int passes,
                                              const std::function<void(int)>& beforePass)
{
    std::deque<QByteArray> queued;
    for (int pass = 0; pass < passes; ++pass) {
        if (beforePass) {
            beforePass(pass);
        }
        if (pass % 100 == 10) {
            for (uint8_t id = 30; id < 55; ++id) {
                const uint8_t level = static_cast<uint8_t>(id + pass);
                m_healthy->section->enqueueMessage(SerialMessage(MessageType::Led, id, {level, 1}));
                queued.push_back(SerialFrames::frame(
                    MessageType::Led, id, QByteArray(1, char(level)) + QByteArray(1, char(1))));
            }
        }
        const uint64_t sentBefore = m_healthy->serial->messageCount();
        const std::size_t queuedBefore = m_healthy->queue->size();

        m_clock->advanceNs(kPassNs);
        m_pool->runPendingTasks();

        const uint64_t sent = m_healthy->serial->messageCount() - sentBefore;
        const std::size_t drained = queuedBefore - m_healthy->queue->size();
        QVERIFY(drained <= 20);
        QVERIFY(sent == drained || sent == drained + 1);
        if (sent == drained + 1) {
            m_healthyExpected += kPingFrame;
            ++m_healthyPings;
        }
        for (std::size_t i = 0; i < drained; ++i) {
            m_healthyExpected += queued.front();
            queued.pop_front();
        }
        if (sent > 0) {
            QTRY_COMPARE_WITH_TIMEOUT(m_healthySim->receivedBytes(), m_healthyExpected, kTimeout);
            QTRY_COMPARE_WITH_TIMEOUT(int(m_healthy->versionHandler->taken().size()),
                                      m_healthyPings, kTimeout);
        }
        QCOMPARE(m_healthy->state(), int(ISectionConnection::Connected));
    }
    QVERIFY(queued.empty());
    QCOMPARE(m_healthySim->badBytes(), QByteArray());
    QCOMPARE(m_healthy->listener.stateChangeCount(), 0);
    // A ping every 41 passes.
    QCOMPARE(m_healthyPings, (passes + 40) / 41);
}

QStringList TestSectionIsolationPty::healthyLines(const LogCapture& log)
{
    QStringList lines;
    for (const QString& text : log.texts()) {
        if (text.contains(QLatin1String("ection 1")) ||
            text.contains(QLatin1String("WS section 1"))) {
            lines << text;
        }
    }
    return lines;
}

void TestSectionIsolationPty::sectionFloodingNoiseDoesNotStopTheOther()
{
    LogCapture log;
    quint32 seed = 1;
    int noiseBytes = 0;
    // 2 KiB of noise before every pass: some 40 KiB per second of manual time, nearly four
    // times what a 115200-baud line can carry.
    runBothSections(500, [this, &seed, &noiseBytes](int) {
        noiseBytes += m_faultySim->sendNoise(2048, seed++).size();
    });

    QCOMPARE(noiseBytes, 500 * 2048);
    // The noise did reach the faulty section's link, which complained about it.
    QVERIFY(m_faultySim->waitUntilPeerHasRead(kTimeout));
    int badDataLines = 0;
    for (const QString& text : log.texts(QtWarningMsg)) {
        if (text.startsWith(QLatin1String("Section 0 received bad data: '"))) {
            ++badDataLines;
        }
    }
    QVERIFY2(badDataLines > 0, "the faulty section's link never saw the noise");
    QVERIFY(!m_faultySim->receivedMessages(MessageType::SerialError).isEmpty());
    QCOMPARE(healthyLines(log), QStringList());
}

void TestSectionIsolationPty::sectionHangingUpDoesNotStopTheOther()
{
    LogCapture log;
    const QString faultyPort = quoted(m_faultySim->slavePath());
    m_faultySim->hangUp();

    // 25 s: the hung-up section is marked NoResponse (10 s grace plus 10 s) but not yet
    // restarted; the other is pinged and drained throughout.
    runBothSections(500, nullptr);

    QCOMPARE(m_faulty->state(), int(ISectionConnection::NoResponse));
    QVERIFY(!m_faulty->serial->isOpen());
    // One line for the vanished device, not one per pass of the event loop, then the
    // time-out.
    const QStringList lines = log.texts();
    QCOMPARE(lines.size(), 2);
    QVERIFY2(lines[0] == QStringLiteral("Error while reading data from the serial port %1")
                             .arg(faultyPort) ||
                 lines[0] == QStringLiteral("Serial port error in WS section 0 Error core: 9"),
             qPrintable(lines[0]));
    QCOMPARE(lines[1], QStringLiteral("Section 0 has not received response in timely manner. "
                                      "Setting state to NoResponse."));
}

void TestSectionIsolationPty::sectionFallingSilentDoesNotStopTheOther()
{
    LogCapture log;
    m_faultySim->setSilent(true);

    // 35 s: the silent section goes NoResponse and is restarted (and waits in Connecting
    // for an answer to its probe); the other goes on as before, across the restart.
    runBothSections(700, nullptr);

    QCOMPARE(m_faulty->state(), int(ISectionConnection::Connecting));
    QCOMPARE(m_faulty->listener.states(),
             (std::vector<uint8_t>{ISectionConnection::NoResponse, ISectionConnection::Closed,
                                   ISectionConnection::Connecting}));
    QTRY_COMPARE_WITH_TIMEOUT(m_faultySim->commandCount(0x55), 1, kTimeout);
    QCOMPARE(m_pool->taskCount(), std::size_t(3));
    QCOMPARE(log.texts(),
             (QStringList{
                 QStringLiteral("Section 0 has not received response in timely manner. "
                                "Setting state to NoResponse."),
                 QStringLiteral(
                     "Section 0 has not received response in long time. Restart the connection..."),
                 QStringLiteral("WS section 0 serial port: %1 ready and open.")
                     .arg(quoted(m_faultySim->slavePath())),
             }));
}

QTEST_GUILESS_MAIN(TestSectionIsolationPty)
#include "tst_sectionisolationpty.moc"
