#include <QByteArray>
#include <QDeadlineTimer>
#include <QtTest/QtTest>
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "serial/flightrecorder.h"

using namespace Velmora::Worksurface;
using Kind = FlightRecorder::Kind;
using Event = FlightRecorder::Event;

namespace {

constexpr int64_t kUs = 1000;

QByteArray frameNumber(int n)
{
    // A fader position frame whose value counts up: each entry is told apart by its bytes.
    QByteArray frame = QByteArray::fromHex("0507010000");
    frame[3] = static_cast<char>(n >> 8);
    frame[4] = static_cast<char>(n & 0xff);
    char sum = 0;
    for (char byte : frame) {
        sum = static_cast<char>(sum + byte);
    }
    return frame + sum;
}

// Lets threads start together: each one arrives and waits until all have.
class StartLine
{
public:
    explicit StartLine(int threads) : m_waiting(threads) {}
    void arriveAndWait()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (--m_waiting == 0) {
            m_allThere.notify_all();
            return;
        }
        m_allThere.wait(lock, [this]() { return m_waiting == 0; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_allThere;
    int m_waiting;
};

}  // namespace

class TestFlightRecorder : public QObject
{
    Q_OBJECT

private slots:
    void framesComeBackInOrderWithTimeDirectionAndBytes();
    void ringKeepsTheNewestEntriesOnceItWraps();
    void ringExactlyFullKeepsEverything();
    void capacityZeroRecordsNothingAndHoldsNoRing();
    void negativeCapacityIsZeroAndHugeCapacityIsCut();
    void longNoiseTakesSeveralSlotsAndComesBackWhole();
    void noiseWhoseStartWasOverwrittenKeepsWhatIsLeft();
    void eventsKeepTheirValuesAndTexts();
    void oldEventTextsAreDroppedOnceTheirSlotIsReused();
    void snapshotMarksTheSection();
    void memoryPerSectionAtTheDefaultCapacityStaysUnder256KiB();
    void snapshotWhileAnotherThreadRecordsSeesWholeEntries();
};

void TestFlightRecorder::framesComeBackInOrderWithTimeDirectionAndBytes()
{
    FlightRecorder recorder(8);
    recorder.record(1500 * kUs + 999, Kind::FrameIn, QByteArray::fromHex("03000003"));
    recorder.record(1600 * kUs, Kind::FrameOut, QByteArray::fromHex("0507010190a6"));
    recorder.record(1700 * kUs, Kind::Noise, QByteArray::fromHex("ffee"));
    recorder.record(1800 * kUs, Kind::BadChecksum, QByteArray::fromHex("03000004"));

    const auto records = recorder.snapshot();
    QCOMPARE(records.size(), std::size_t(4));
    // Microseconds, truncated.
    QCOMPARE(records[0].tUs, int64_t(1500));
    QCOMPARE(records[0].kind, Kind::FrameIn);
    QCOMPARE(records[0].bytes, QByteArray::fromHex("03000003"));
    QCOMPARE(records[1].tUs, int64_t(1600));
    QCOMPARE(records[1].kind, Kind::FrameOut);
    QCOMPARE(records[1].bytes, QByteArray::fromHex("0507010190a6"));
    QCOMPARE(records[2].kind, Kind::Noise);
    QCOMPARE(records[2].bytes, QByteArray::fromHex("ffee"));
    QCOMPARE(records[3].kind, Kind::BadChecksum);
    QCOMPARE(records[3].bytes, QByteArray::fromHex("03000004"));
    QCOMPARE(recorder.written(), uint64_t(4));
}

void TestFlightRecorder::ringKeepsTheNewestEntriesOnceItWraps()
{
    FlightRecorder recorder(5);
    for (int i = 0; i < 13; ++i) {
        recorder.record(i * kUs, Kind::FrameIn, frameNumber(i));
    }
    const auto records = recorder.snapshot();
    QCOMPARE(records.size(), std::size_t(5));
    for (int i = 0; i < 5; ++i) {
        QCOMPARE(records[static_cast<std::size_t>(i)].bytes, frameNumber(8 + i));
        QCOMPARE(records[static_cast<std::size_t>(i)].tUs, int64_t(8 + i));
    }
    QCOMPARE(recorder.written(), uint64_t(13));
}

void TestFlightRecorder::ringExactlyFullKeepsEverything()
{
    FlightRecorder recorder(4);
    for (int i = 0; i < 4; ++i) {
        recorder.record(i * kUs, Kind::FrameOut, frameNumber(i));
    }
    const auto records = recorder.snapshot();
    QCOMPARE(records.size(), std::size_t(4));
    QCOMPARE(records.front().bytes, frameNumber(0));
    QCOMPARE(records.back().bytes, frameNumber(3));
}

void TestFlightRecorder::capacityZeroRecordsNothingAndHoldsNoRing()
{
    FlightRecorder recorder(0);
    recorder.record(1, Kind::FrameIn, frameNumber(1));
    recorder.recordEvent(2, Event::State, 0, QStringLiteral("/dev/ttyX"));
    QCOMPARE(recorder.capacity(), 0);
    QCOMPARE(recorder.written(), uint64_t(0));
    QVERIFY(recorder.snapshot().empty());
    QCOMPARE(recorder.memoryBytes(), sizeof(FlightRecorder));
}

void TestFlightRecorder::negativeCapacityIsZeroAndHugeCapacityIsCut()
{
    QCOMPARE(FlightRecorder(-3).capacity(), 0);
    QCOMPARE(FlightRecorder(FlightRecorder::kMaxCapacity + 1).capacity(),
             FlightRecorder::kMaxCapacity);
}

void TestFlightRecorder::longNoiseTakesSeveralSlotsAndComesBackWhole()
{
    FlightRecorder recorder(10);
    QByteArray noise;
    for (int i = 0; i < 70; ++i) {
        noise.append(static_cast<char>(0xe0 + (i % 16)));
    }
    recorder.record(5 * kUs, Kind::Noise, noise);
    recorder.record(6 * kUs, Kind::FrameIn, frameNumber(1));
    // 70 bytes: three slots of 32, 32 and 6 bytes, then the frame.
    QCOMPARE(recorder.written(), uint64_t(4));
    const auto records = recorder.snapshot();
    QCOMPARE(records.size(), std::size_t(2));
    QCOMPARE(records[0].kind, Kind::Noise);
    QCOMPARE(records[0].bytes, noise);
    QCOMPARE(records[1].bytes, frameNumber(1));
}

void TestFlightRecorder::noiseWhoseStartWasOverwrittenKeepsWhatIsLeft()
{
    FlightRecorder recorder(3);
    QByteArray noise(70, '\xee');
    noise[69] = '\x11';
    recorder.record(5 * kUs, Kind::Noise, noise);
    recorder.record(6 * kUs, Kind::FrameIn, frameNumber(1));
    // The first 32 bytes are gone; the last 38 remain as one noise entry.
    const auto records = recorder.snapshot();
    QCOMPARE(records.size(), std::size_t(2));
    QCOMPARE(records[0].kind, Kind::Noise);
    QCOMPARE(records[0].bytes, noise.mid(32));
    QCOMPARE(records[1].bytes, frameNumber(1));
}

void TestFlightRecorder::eventsKeepTheirValuesAndTexts()
{
    FlightRecorder recorder(8);
    recorder.recordEvent(10 * kUs, Event::PortOpen, 0, QStringLiteral("/dev/ttymxc1"),
                         QStringLiteral("No such file or directory"));
    recorder.recordEvent(11 * kUs, Event::State, 6);
    recorder.recordEvent(12 * kUs, Event::UpdateProgress, 40);
    const auto records = recorder.snapshot();
    QCOMPARE(records.size(), std::size_t(3));
    QCOMPARE(records[0].kind, Kind::Event);
    QCOMPARE(records[0].event, Event::PortOpen);
    QCOMPARE(records[0].value, 0);
    QCOMPARE(records[0].port, QStringLiteral("/dev/ttymxc1"));
    QCOMPARE(records[0].error, QStringLiteral("No such file or directory"));
    QCOMPARE(records[1].event, Event::State);
    QCOMPARE(records[1].value, 6);
    QVERIFY(records[1].port.isEmpty());
    QCOMPARE(records[2].event, Event::UpdateProgress);
    QCOMPARE(records[2].value, 40);
    QCOMPARE(records[2].tUs, int64_t(12));
}

void TestFlightRecorder::oldEventTextsAreDroppedOnceTheirSlotIsReused()
{
    FlightRecorder recorder(200);
    recorder.recordEvent(1, Event::PortError, 0, QStringLiteral("first"), QStringLiteral("gone"));
    for (int i = 0; i < FlightRecorder::kTextSlots; ++i) {
        recorder.recordEvent(2 + i, Event::PortOpen, 1, QStringLiteral("/dev/tty%1").arg(i));
    }
    const auto records = recorder.snapshot();
    QCOMPARE(records.size(), std::size_t(FlightRecorder::kTextSlots + 1));
    // The event is still there; its texts were overwritten by newer ones.
    QCOMPARE(records[0].event, Event::PortError);
    QVERIFY(records[0].port.isEmpty());
    QVERIFY(records[0].error.isEmpty());
    QCOMPARE(records.back().port, QStringLiteral("/dev/tty%1").arg(FlightRecorder::kTextSlots - 1));
}

void TestFlightRecorder::snapshotMarksTheSection()
{
    FlightRecorder recorder(2);
    recorder.record(1, Kind::FrameIn, frameNumber(1));
    QCOMPARE(recorder.snapshot(2).front().section, 2);
}

void TestFlightRecorder::memoryPerSectionAtTheDefaultCapacityStaysUnder256KiB()
{
    FlightRecorder recorder;
    QCOMPARE(recorder.capacity(), 4096);
    QVERIFY2(recorder.memoryBytes() < 256 * 1024,
             qPrintable(QString::number(recorder.memoryBytes())));
}

void TestFlightRecorder::snapshotWhileAnotherThreadRecordsSeesWholeEntries()
{
    // The links may run on the surface thread while QML saves: every entry a snapshot sees
    // is one whole frame, never half of one and half of the next, and the entries of one
    // snapshot are consecutive, oldest first. Entry n is recorded at n microseconds with the
    // low 16 bits of n in its bytes, so time and bytes tell whether they belong together.
    constexpr int kCapacity = 64;
    constexpr int kSnapshots = 200;
    // The snapshots go on until one has seen at least this many entries recorded (the ring
    // wrapped many times over) and more were recorded after it; the recording goes on
    // until the snapshots are done, so every snapshot is taken while the other thread
    // records.
    constexpr int64_t kMinFrames = 20000;
    FlightRecorder recorder(kCapacity);
    StartLine start(2);
    std::atomic<bool> snapshotsDone{false};
    int64_t recorded = 0;
    std::thread writer([&]() {
        start.arriveAndWait();
        while (recorded < kMinFrames || !snapshotsDone.load()) {
            recorder.record(recorded * kUs, Kind::FrameIn,
                            frameNumber(static_cast<int>(recorded & 0xffff)));
            ++recorded;
        }
    });

    // Per snapshot: how many entries it held and the last one's number (-1: none).
    std::vector<std::pair<std::size_t, int64_t>> seen;
    QString broken;
    start.arriveAndWait();
    // Done once the latest snapshot is well into the recording and the other thread has
    // recorded more since.
    auto enough = [&seen, &recorder]() {
        return seen.size() >= std::size_t(kSnapshots) && seen.back().second >= kMinFrames &&
               recorder.written() > static_cast<uint64_t>(seen.back().second + 1);
    };
    QDeadlineTimer deadline(30000);
    while (!enough() && !deadline.hasExpired()) {
        const auto records = recorder.snapshot();
        for (std::size_t i = 0; i < records.size() && broken.isEmpty(); ++i) {
            const int64_t n = records[i].tUs;
            if (records[i].bytes != frameNumber(static_cast<int>(n & 0xffff))) {
                broken = QStringLiteral("entry %1 holds %2")
                             .arg(n)
                             .arg(QString::fromLatin1(records[i].bytes.toHex()));
            } else if (i > 0 && n != records[i - 1].tUs + 1) {
                broken = QStringLiteral("entry %1 follows %2").arg(n).arg(records[i - 1].tUs);
            }
        }
        seen.emplace_back(records.size(), records.empty() ? -1 : records.back().tUs);
    }
    const bool finished = enough();
    snapshotsDone = true;
    writer.join();
    QVERIFY2(broken.isEmpty(), qPrintable(broken));
    QVERIFY2(finished, "the snapshots did not see the recording get under way within 30 s");

    // The two threads overlapped: a snapshot caught the ring part way, after the first
    // entry and before the last.
    const int64_t last = recorded - 1;
    const bool partWay = std::any_of(seen.begin(), seen.end(), [last](const auto& snapshot) {
        return snapshot.first > 0 && snapshot.second < last;
    });
    QVERIFY2(partWay, qPrintable(QStringLiteral("%1 snapshots, none between empty and entry %2")
                                     .arg(seen.size())
                                     .arg(last)));

    // And once the recording stopped, the ring holds exactly the newest 64 entries.
    const auto final = recorder.snapshot();
    QCOMPARE(final.size(), std::size_t(kCapacity));
    for (int i = 0; i < kCapacity; ++i) {
        const int64_t n = recorded - kCapacity + i;
        QCOMPARE(final[static_cast<std::size_t>(i)].tUs, n);
        QCOMPARE(final[static_cast<std::size_t>(i)].bytes,
                 frameNumber(static_cast<int>(n & 0xffff)));
    }
    QCOMPARE(recorder.written(), uint64_t(recorded));
}

QTEST_GUILESS_MAIN(TestFlightRecorder)
#include "tst_flightrecorder.moc"
