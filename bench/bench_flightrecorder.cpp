// What the flight recorder costs a link: received frames through the section connection
// (parser, recorder, root handler) with recording at the default 4,096 entries and with it
// off (capacity 0), reported as ns per frame; the recorder's own cost per frame, alone and
// with a thread snapshotting the ring beside it (median and 99th percentile); the memory a
// section's ring takes; and the time Surface.saveTrace takes for three full rings.

#include <benchmark/benchmark.h>

#include <QByteArray>
#include <QDir>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "base/logger.h"
#include "serial/flightrecorder.h"
#include "serial/iserialmessagehandler.h"
#include "serial/sectionconnection.h"
#include "serial/serialmessage.h"
#include "serial/serialmessagequeue.h"
#include "support/fakesectionupdater.h"
#include "support/fakeserialconnection.h"
#include "support/fakesettings.h"
#include "surface/tracefile.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

// Takes every message, as the section's components take theirs.
class TakingHandler : public ISerialMessageHandler
{
public:
    bool handleMessage(const SerialMessage& message) override
    {
        benchmark::DoNotOptimize(message.payload.data());
        return true;
    }
    void setLinkReady(bool) override {}
};

// Fader moves, touches and button presses, as sections send them.
std::vector<QByteArray> frames(int count)
{
    QRandomGenerator rng(7);
    std::vector<QByteArray> result;
    for (int i = 0; i < count; ++i) {
        switch (rng.bounded(3)) {
            case 0:
                result.push_back(
                    encode(SerialMessage(MessageType::FaderPosition, rng.bounded(10),
                                         {uint8_t(rng.bounded(4)), uint8_t(rng.bounded(256))})));
                break;
            case 1:
                result.push_back(encode(SerialMessage(MessageType::FaderTouch, rng.bounded(10),
                                                      {uint8_t(rng.bounded(2))})));
                break;
            default:
                result.push_back(encode(SerialMessage(
                    MessageType::ButtonState, 0x40 + rng.bounded(40), {uint8_t(rng.bounded(2))})));
                break;
        }
    }
    return result;
}

struct Link
{
    explicit Link(int capacity)
    {
        settings->setDebugEnabled(false);
        link = std::make_shared<SectionConnection>(
            0, std::make_shared<TakingHandler>(), std::make_shared<SerialMessageQueue>(), line,
            std::make_shared<TaskPool>(), std::make_unique<FakeSectionUpdater>(),
            std::make_shared<Logger>(settings), capacity);
        line->setDataReceiver(link.get());
    }
    ~Link() { line->setDataReceiver(nullptr); }

    std::shared_ptr<FakeSettings> settings = std::make_shared<FakeSettings>();
    std::shared_ptr<FakeSerialConnection> line = std::make_shared<FakeSerialConnection>();
    std::shared_ptr<SectionConnection> link;
};

// One frame per read, as a section's line delivers them at 115200 baud: the link's full
// receive path per frame, recording (range(0) = 4096) or not (0).
void BM_LinkReceiveFrame(benchmark::State& state)
{
    Link rig(static_cast<int>(state.range(0)));
    const std::vector<QByteArray> stream = frames(1024);
    rig.link->open();
    std::size_t i = 0;
    for (auto _ : state) {
        rig.link->dataReceived(stream[i]);
        i = (i + 1) % stream.size();
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["ns_per_frame"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * 1e-9,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_LinkReceiveFrame)->Arg(FlightRecorder::kDefaultCapacity)->Arg(0);

// The recorder alone: one six-byte frame into a wrapping ring.
void BM_RecorderRecordFrame(benchmark::State& state)
{
    FlightRecorder recorder(static_cast<int>(state.range(0)));
    const QByteArray frame = encode(SerialMessage(MessageType::FaderPosition, 3, {1, 0x90}));
    int64_t now = 0;
    for (auto _ : state) {
        recorder.record(now += 500000, FlightRecorder::Kind::FrameIn, frame);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["ring_bytes"] = static_cast<double>(recorder.memoryBytes());
}
BENCHMARK(BM_RecorderRecordFrame)->Arg(FlightRecorder::kDefaultCapacity)->Arg(0);

// Records timed one by one for their median and 99th percentile.
constexpr int64_t kTimedRecords = 1 << 20;

// One frame into a full default ring, each record timed on its own, without (range(0) = 0)
// and with (1) a thread that snapshots the ring over and over beside it, as a trace saved
// from QML while the links run on the surface thread does, only without pause: what a link
// waits for while the ring is copied. Counters: "median_ns" and "p99_ns" per record, each
// time including one read of the steady clock; "snapshots" taken meanwhile.
void BM_RecorderRecordBesideSnapshots(benchmark::State& state)
{
    FlightRecorder recorder;
    const QByteArray frame = encode(SerialMessage(MessageType::FaderPosition, 3, {1, 0x90}));
    int64_t now = 0;
    for (int i = 0; i < recorder.capacity(); ++i) {
        recorder.record(now += 500000, FlightRecorder::Kind::FrameIn, frame);
    }
    std::atomic<bool> stop{false};
    std::atomic<int64_t> snapshots{0};
    std::thread snapshotter;
    if (state.range(0) != 0) {
        snapshotter = std::thread([&]() {
            while (!stop.load(std::memory_order_relaxed)) {
                const auto records = recorder.snapshot();
                benchmark::DoNotOptimize(records.data());
                snapshots.fetch_add(1, std::memory_order_relaxed);
            }
        });
        // The first snapshot is under way before the timing starts.
        while (snapshots.load() == 0) {
            std::this_thread::yield();
        }
    }
    std::vector<int64_t> samples;
    samples.reserve(static_cast<std::size_t>(kTimedRecords));
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        recorder.record(now += 500000, FlightRecorder::Kind::FrameIn, frame);
        const auto end = std::chrono::steady_clock::now();
        if (samples.size() < samples.capacity()) {
            samples.push_back(
                std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count());
        }
    }
    stop = true;
    if (snapshotter.joinable()) {
        snapshotter.join();
    }
    std::sort(samples.begin(), samples.end());
    if (!samples.empty()) {
        state.counters["median_ns"] = static_cast<double>(samples[samples.size() / 2]);
        state.counters["p99_ns"] = static_cast<double>(samples[samples.size() * 99 / 100]);
    }
    state.counters["snapshots"] = static_cast<double>(snapshots.load());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RecorderRecordBesideSnapshots)->Arg(0)->Arg(1)->Iterations(kTimedRecords);

class RingLink : public ISectionConnection
{
public:
    RingLink(uint8_t section, std::shared_ptr<FlightRecorder> ring)
        : m_section(section), m_ring(std::move(ring))
    {}
    uint8_t sectionIndex() const override { return m_section; }
    uint8_t state() const override { return Connected; }
    void open() override {}
    void close() override {}
    void startCalibration() override {}
    void stopCalibration() override {}
    void enqueueMessage(const SerialMessage&) override {}
    void setStateListener(ISectionStateListener*) override {}
    std::shared_ptr<FlightRecorder> recorder() const override { return m_ring; }
    QString portName() const override { return QStringLiteral("/dev/ttymxc%1").arg(m_section); }

private:
    uint8_t m_section;
    std::shared_ptr<FlightRecorder> m_ring;
};

// Surface.saveTrace with three full rings of fader moves: snapshot, merge and write.
void BM_SaveThreeFullRings(benchmark::State& state)
{
    const std::vector<QByteArray> stream = frames(FlightRecorder::kDefaultCapacity);
    std::vector<std::shared_ptr<ISectionConnection>> links;
    for (uint8_t section = 0; section < 3; ++section) {
        auto ring = std::make_shared<FlightRecorder>();
        int64_t now = section * 1000;
        for (const QByteArray& frame : stream) {
            ring->record(now += 520000, FlightRecorder::Kind::FrameIn, frame);
        }
        links.push_back(std::make_shared<RingLink>(section, ring));
    }
    FakeSettings settings;
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("trace.jsonl"));
    for (auto _ : state) {
        const QString why = TraceFile::save(path, TraceFile::header(settings, links), links);
        benchmark::DoNotOptimize(why.size());
    }
    state.counters["entries"] = 3.0 * FlightRecorder::kDefaultCapacity;
}
BENCHMARK(BM_SaveThreeFullRings)->Unit(benchmark::kMillisecond);

// What the caller of Surface.saveTrace waits for: the path checked and three full rings
// copied; the formatting and writing then run on the trace writer thread.
void BM_SnapshotThreeFullRings(benchmark::State& state)
{
    const std::vector<QByteArray> stream = frames(FlightRecorder::kDefaultCapacity);
    std::vector<std::shared_ptr<ISectionConnection>> links;
    for (uint8_t section = 0; section < 3; ++section) {
        auto ring = std::make_shared<FlightRecorder>();
        int64_t now = section * 1000;
        for (const QByteArray& frame : stream) {
            ring->record(now += 520000, FlightRecorder::Kind::FrameIn, frame);
        }
        links.push_back(std::make_shared<RingLink>(section, ring));
    }
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("trace.jsonl"));
    for (auto _ : state) {
        benchmark::DoNotOptimize(TraceFile::checkPath(path).size());
        auto records = TraceFile::snapshot(links);
        benchmark::DoNotOptimize(records.data());
    }
}
BENCHMARK(BM_SnapshotThreeFullRings)->Unit(benchmark::kMillisecond);

}  // namespace
