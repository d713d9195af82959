// The section link's flight recorder: what it records of the traffic and of the link's
// events, and when it asks for its trace to be saved.
#include <QByteArray>
#include <QStringList>
#include <QtTest/QtTest>
#include <memory>
#include <utility>
#include <vector>

#include "base/logger.h"
#include "serial/flightrecorder.h"
#include "serial/isectionconnection.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/sectionconnection.h"
#include "serial/serialmessagequeue.h"
#include "support/fakesectionupdater.h"
#include "support/fakeserialconnection.h"
#include "support/fakeserialmessagehandler.h"
#include "support/fakesettings.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/serialframes.h"
#include "tasks/taskpool.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;
using Kind = FlightRecorder::Kind;
using Event = FlightRecorder::Event;
using State = ISectionConnection::State;

namespace {

constexpr uint8_t kSection = 1;
constexpr uint8_t kComponentId = 9;

const QByteArray kPingFrame = QByteArray::fromHex("03000003");
const QByteArray kSerialErrorFrame = QByteArray::fromHex("03020005");
const QByteArray kTouchFrame = QByteArray::fromHex("041009011e");

// A line whose device can fail, as a serial port's can.
class FailingLine : public FakeSerialConnection
{
public:
    QString portName() const override { return QStringLiteral("/dev/ttyTEST1"); }
    QString portError() const override { return error; }
    QString error;
};

// One entry in words, so that whole sequences compare at a glance.
QString describe(const FlightRecorder::Record& record)
{
    switch (record.kind) {
        case Kind::FrameIn:
            return QStringLiteral("in ") + QString::fromLatin1(record.bytes.toHex());
        case Kind::FrameOut:
            return QStringLiteral("out ") + QString::fromLatin1(record.bytes.toHex());
        case Kind::BadChecksum:
            return QStringLiteral("checksum ") + QString::fromLatin1(record.bytes.toHex());
        case Kind::Noise:
            return QStringLiteral("noise ") + QString::fromLatin1(record.bytes.toHex());
        case Kind::BootloaderIn:
            return QStringLiteral("boot in ") + QString::fromLatin1(record.bytes.toHex());
        case Kind::BootloaderOut:
            return QStringLiteral("boot out ") + QString::fromLatin1(record.bytes.toHex());
        case Kind::Event:
            break;
    }
    QString text =
        QStringLiteral("event %1 %2").arg(static_cast<int>(record.event)).arg(record.value);
    if (!record.port.isEmpty() || !record.error.isEmpty()) {
        text += QStringLiteral(" %1 %2").arg(record.port, record.error);
    }
    return text.trimmed();
}

struct Rig
{
    explicit Rig(int capacity = FlightRecorder::kDefaultCapacity)
    {
        component->takeDevice(kComponentId);
        root->addHandler(component);
        auto fakeUpdater = std::make_unique<FakeSectionUpdater>();
        updater = fakeUpdater.get();
        link = std::make_shared<SectionConnection>(kSection, root, queue, line, pool,
                                                   std::move(fakeUpdater), logger, capacity);
        line->setDataReceiver(link.get());
        link->setTraceHandler([this]() { traceRequests.push_back(link->state()); });
    }
    ~Rig() { line->setDataReceiver(nullptr); }

    QStringList entries() const
    {
        QStringList result;
        for (const auto& record : link->recorder()->snapshot()) {
            result << describe(record);
        }
        return result;
    }

    void tickFor(qint64 ms)
    {
        const qint64 end = clock.nowNs() + ms * kMs;
        while (clock.nowNs() < end) {
            clock.advanceMs(1);
            pool->runPendingTasks();
        }
    }

    ManualClock clock{kStartNs};
    LogCapture log;
    std::shared_ptr<FakeSettings> settings = std::make_shared<FakeSettings>();
    std::shared_ptr<Logger> logger = std::make_shared<Logger>(settings);
    std::shared_ptr<RootSerialMessageHandler> root = std::make_shared<RootSerialMessageHandler>();
    std::shared_ptr<FakeSerialMessageHandler> component =
        std::make_shared<FakeSerialMessageHandler>();
    std::shared_ptr<SerialMessageQueue> queue = std::make_shared<SerialMessageQueue>();
    std::shared_ptr<FailingLine> line = std::make_shared<FailingLine>();
    std::shared_ptr<TaskPool> pool = std::make_shared<TaskPool>();
    FakeSectionUpdater* updater = nullptr;
    std::shared_ptr<SectionConnection> link;
    std::vector<int> traceRequests;
};

QString stateEvent(int state)
{
    return QStringLiteral("event %1 %2").arg(static_cast<int>(Event::State)).arg(state);
}

}  // namespace

class TestSectionConnectionTrace : public QObject
{
    Q_OBJECT

private slots:
    void receivedFramesNoiseAndBadChecksumsAreRecordedInStreamOrder();
    void framesOfOneChunkShareItsArrivalTime();
    void sentPingsAndQueuedMessagesAreRecorded();
    void openRecordsThePortAndItsResult();
    void calibrationStartAndEndAreRecorded();
    void bootloaderTrafficAndUpdateProgressAreRecorded();
    void silenceAsksForOneTracePerOutage();
    void serialErrorAsksForATraceAgainAfterTheLinkWasBack();
    void portErrorAsksForATraceOnce();
    void failedUpdateAsksForATrace();
    void healthyLinkNeverAsksForATrace();
    void capacityZeroRecordsNothing();
};

void TestSectionConnectionTrace::receivedFramesNoiseAndBadChecksumsAreRecordedInStreamOrder()
{
    Rig rig;
    rig.link->open();
    // Noise, a frame, a ping with its checksum broken, another frame.
    rig.line->pushData(QByteArray::fromHex("fffe") + kTouchFrame + QByteArray::fromHex("03000004") +
                       kTouchFrame);
    const QStringList expected = {
        QStringLiteral("event %1 1 /dev/ttyTEST1").arg(static_cast<int>(Event::PortOpen)),
        stateEvent(State::Connecting),
        QStringLiteral("noise fffe"),
        QStringLiteral("in 041009011e"),
        stateEvent(State::Connected),
        QStringLiteral("checksum 03000004"),
        QStringLiteral("noise 03000004"),
        QStringLiteral("in 041009011e"),
    };
    QCOMPARE(rig.entries().join('\n'), expected.join('\n'));
}

void TestSectionConnectionTrace::framesOfOneChunkShareItsArrivalTime()
{
    Rig rig;
    rig.link->open();
    rig.clock.setNs(kStartNs + 1234567);
    rig.line->pushData(kTouchFrame + kTouchFrame);
    const auto records = rig.link->recorder()->snapshot();
    int frames = 0;
    for (const auto& record : records) {
        if (record.kind == Kind::FrameIn) {
            ++frames;
            QCOMPARE(record.tUs, (kStartNs + 1234567) / 1000);
        }
    }
    QCOMPARE(frames, 2);
}

void TestSectionConnectionTrace::sentPingsAndQueuedMessagesAreRecorded()
{
    Rig rig;
    rig.link->open();
    rig.line->pushData(kTouchFrame);
    rig.link->enqueueMessage(SerialMessage(MessageType::Led, 3, {1}));
    rig.tickFor(60);
    const QStringList entries = rig.entries();
    QVERIFY2(entries.contains(QStringLiteral("out ") + QString::fromLatin1(kPingFrame.toHex())),
             qPrintable(entries.join('\n')));
    const QString led =
        QStringLiteral("out ") +
        QString::fromLatin1(encode(SerialMessage(MessageType::Led, 3, {1})).toHex());
    QVERIFY2(entries.contains(led), qPrintable(entries.join('\n')));
    // The ping goes out before the queue is drained.
    QVERIFY(entries.indexOf(QStringLiteral("out 03000003")) < entries.indexOf(led));
}

void TestSectionConnectionTrace::openRecordsThePortAndItsResult()
{
    Rig rig;
    rig.line->setOpenResult(false);
    rig.line->error = QStringLiteral("No such file or directory");
    rig.link->open();
    QCOMPARE(rig.entries().first(),
             QStringLiteral("event %1 0 /dev/ttyTEST1 No such file or directory")
                 .arg(static_cast<int>(Event::PortOpen)));
}

void TestSectionConnectionTrace::calibrationStartAndEndAreRecorded()
{
    Rig rig;
    rig.link->open();
    rig.line->pushData(kTouchFrame);
    rig.link->startCalibration();
    rig.line->pushData(QByteArray::fromHex("03030006"));
    const QStringList entries = rig.entries();
    const QStringList tail = entries.mid(entries.size() - 6);
    const QStringList expected = {
        stateEvent(State::Calibrating),
        QStringLiteral("event %1 0").arg(static_cast<int>(Event::CalibrationStart)),
        QStringLiteral("out 03030006"),
        QStringLiteral("in 03030006"),
        QStringLiteral("event %1 0").arg(static_cast<int>(Event::CalibrationEnd)),
        stateEvent(State::Connected),
    };
    QCOMPARE(tail, expected);
}

void TestSectionConnectionTrace::bootloaderTrafficAndUpdateProgressAreRecorded()
{
    Rig rig;
    rig.link->open();
    rig.updater->setActive(true);
    rig.updater->setUpdating(true);
    rig.updater->notifyStateChanged();
    rig.line->pushData(QByteArray::fromHex("79"));
    rig.link->sendBootloaderPacket(BootloaderPacket(0x31, QByteArray::fromHex("0102")));
    for (int percent : {1, 5, 9, 10, 15, 20, 35, 100}) {
        rig.link->updateProgress(static_cast<uint8_t>(percent));
    }
    rig.updater->setUpdating(false);
    rig.updater->setActive(false);
    rig.updater->notifyStateChanged();

    const int progress = static_cast<int>(Event::UpdateProgress);
    const QStringList expected = {
        QStringLiteral("event %1 1 /dev/ttyTEST1").arg(static_cast<int>(Event::PortOpen)),
        stateEvent(State::Connecting),
        QStringLiteral("event %1 0").arg(static_cast<int>(Event::UpdateStart)),
        stateEvent(State::Updating),
        QStringLiteral("boot in 79"),
        QStringLiteral("boot out ") +
            QString::fromLatin1(
                encodeBootloaderPacket(BootloaderPacket(0x31, QByteArray::fromHex("0102")))
                    .toHex()),
        QStringLiteral("event %1 1").arg(progress),
        QStringLiteral("event %1 10").arg(progress),
        QStringLiteral("event %1 20").arg(progress),
        QStringLiteral("event %1 35").arg(progress),
        QStringLiteral("event %1 100").arg(progress),
        QStringLiteral("event %1 0").arg(static_cast<int>(Event::UpdateEnd)),
        stateEvent(State::Connected),
    };
    QCOMPARE(rig.entries(), expected);
}

void TestSectionConnectionTrace::silenceAsksForOneTracePerOutage()
{
    Rig rig;
    rig.link->open();
    rig.line->pushData(kTouchFrame);
    // Grace period and silence: NoResponse after 20 s, restarted 20 s later, Connecting on.
    rig.tickFor(21000);
    QCOMPARE(rig.link->state(), static_cast<uint8_t>(State::NoResponse));
    QCOMPARE(rig.traceRequests, std::vector<int>{State::NoResponse});
    rig.tickFor(25000);
    QVERIFY(
        rig.entries().contains(QStringLiteral("event %1 0").arg(static_cast<int>(Event::Restart))));
    QCOMPARE(rig.traceRequests.size(), std::size_t(1));
    // Back, then silent again: a new outage, a new trace.
    rig.line->pushData(kTouchFrame);
    QCOMPARE(rig.link->state(), static_cast<uint8_t>(State::Connected));
    rig.tickFor(21000);
    QCOMPARE(rig.traceRequests, (std::vector<int>{State::NoResponse, State::NoResponse}));
}

void TestSectionConnectionTrace::serialErrorAsksForATraceAgainAfterTheLinkWasBack()
{
    Rig rig;
    rig.link->open();
    rig.line->pushData(kTouchFrame);
    rig.line->pushData(kSerialErrorFrame);
    QCOMPARE(rig.traceRequests, std::vector<int>{State::SerialError});
    rig.line->pushData(kSerialErrorFrame);
    QCOMPARE(rig.traceRequests.size(), std::size_t(1));
    rig.line->pushData(kTouchFrame);
    rig.line->pushData(kSerialErrorFrame);
    QCOMPARE(rig.traceRequests.size(), std::size_t(2));
}

void TestSectionConnectionTrace::portErrorAsksForATraceOnce()
{
    Rig rig;
    rig.link->open();
    rig.line->pushData(kTouchFrame);
    rig.tickFor(60);
    QVERIFY(rig.traceRequests.empty());
    rig.line->error = QStringLiteral("Resource temporarily unavailable");
    rig.tickFor(200);
    QCOMPARE(rig.traceRequests.size(), std::size_t(1));
    QVERIFY(rig.entries().contains(
        QStringLiteral("event %1 0 /dev/ttyTEST1 Resource temporarily unavailable")
            .arg(static_cast<int>(Event::PortError))));
    rig.line->error = QStringLiteral("Another error");
    rig.tickFor(200);
    QCOMPARE(rig.traceRequests.size(), std::size_t(1));
}

void TestSectionConnectionTrace::failedUpdateAsksForATrace()
{
    Rig rig;
    rig.link->open();
    rig.updater->setActive(true);
    rig.updater->setUpdating(true);
    rig.updater->notifyStateChanged();
    rig.link->failed(1);
    QCOMPARE(rig.traceRequests, std::vector<int>{State::Updating});
    QCOMPARE(rig.entries().last(),
             QStringLiteral("event %1 1").arg(static_cast<int>(Event::UpdateFailed)));
}

void TestSectionConnectionTrace::healthyLinkNeverAsksForATrace()
{
    Rig rig;
    rig.link->open();
    for (int i = 0; i < 60; ++i) {
        rig.line->pushData(kTouchFrame);
        rig.tickFor(1000);
    }
    QCOMPARE(rig.link->state(), static_cast<uint8_t>(State::Connected));
    QVERIFY(rig.traceRequests.empty());
}

void TestSectionConnectionTrace::capacityZeroRecordsNothing()
{
    Rig rig(0);
    rig.link->open();
    rig.line->pushData(QByteArray::fromHex("ff") + kTouchFrame);
    rig.line->pushData(kSerialErrorFrame);
    QCOMPARE(rig.link->recorder()->written(), uint64_t(0));
    QVERIFY(rig.entries().isEmpty());
    // The trace is still asked for; it is saved with its header only.
    QCOMPARE(rig.traceRequests.size(), std::size_t(1));
}

QTEST_GUILESS_MAIN(TestSectionConnectionTrace)
#include "tst_sectionconnectiontrace.moc"
