// Frame parser cost per received byte, against the 11,520 bytes/s a section's line can
// carry: a clean stream of the frames sections really send, read in serial-port sized
// chunks, and three kinds of noise the parser must resynchronise through byte by byte.
// The noise runs at 4 KiB, 64 KiB and 1 MiB per call: ns/byte must stay flat.

#include <benchmark/benchmark.h>

#include <QByteArray>
#include <QRandomGenerator>

#include <vector>

#include "serial/serialmessage.h"
#include "serial/serialmessageparser.h"

using namespace Velmora::Worksurface;

namespace {

class CountingParser : public SerialMessageParser
{
public:
    std::size_t messages = 0;
    std::size_t badBytes = 0;

protected:
    void messageReceived(const SerialMessage& message) override
    {
        benchmark::DoNotOptimize(message.payload.data());
        ++messages;
    }
    void badDataReceived(const QByteArray& data) override { badBytes += data.size(); }
};

// What a section sends: fader moves and touches, rotary steps and touches, buttons, pot
// values, echoes and the odd version report, with their usual payloads.
QByteArray cleanStream(int size)
{
    QRandomGenerator rng(42);
    QByteArray stream;
    while (stream.size() < size) {
        SerialMessage message;
        switch (rng.bounded(8)) {
            case 0:
            case 1:
                message = SerialMessage(MessageType::FaderPosition, rng.bounded(10),
                                        {uint8_t(rng.bounded(2)), uint8_t(rng.bounded(256))});
                break;
            case 2:
                message = SerialMessage(MessageType::FaderTouch, rng.bounded(10),
                                        {uint8_t(rng.bounded(2))});
                break;
            case 3:
                message = SerialMessage(MessageType::RotaryStep, 0x20 + rng.bounded(10),
                                        {uint8_t(rng.bounded(256))});
                break;
            case 4:
                message = SerialMessage(MessageType::RotaryTouch, 0x20 + rng.bounded(10),
                                        {uint8_t(rng.bounded(2))});
                break;
            case 5:
                message = SerialMessage(MessageType::ButtonState, 0x40 + rng.bounded(40),
                                        {uint8_t(rng.bounded(2))});
                break;
            case 6:
                message = SerialMessage(MessageType::PotValue, 0x60,
                                        {uint8_t(rng.bounded(2)), uint8_t(rng.bounded(256))}, true);
                break;
            default:
                message =
                    SerialMessage(MessageType::Ping, 0, {1, 2, uint8_t(rng.bounded(60))}, true);
                break;
        }
        stream.append(encode(message));
    }
    return stream;
}

enum class Noise
{
    Unframeable,
    Random,
    WorstCase
};

QByteArray noise(Noise kind, int size)
{
    QRandomGenerator rng(7);
    QByteArray bytes(size, '\0');
    for (char& byte : bytes) {
        switch (kind) {
            case Noise::Unframeable: {
                // Lengths that cannot start a frame: dropped at a glance.
                const int value = rng.bounded(3 + 230);
                byte = static_cast<char>(value < 3 ? value : value + 23);
                break;
            }
            case Noise::Random:
                byte = static_cast<char>(rng.bounded(256));
                break;
            case Noise::WorstCase:
                // Every byte announces a 23-byte frame of a valid type whose checksum fails:
                // each one costs a full checksum before it is dropped.
                byte = 0x16;
                break;
        }
    }
    return bytes;
}

void setByteCounters(benchmark::State& state, int bytesPerIteration)
{
    state.SetBytesProcessed(int64_t(state.iterations()) * bytesPerIteration);
    // Inverted rate of bytes scaled by 1e-9: nanoseconds per byte.
    state.counters["ns_per_byte"] =
        benchmark::Counter(bytesPerIteration * 1e-9, benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
}

void BM_ParserCleanStream(benchmark::State& state)
{
    const int chunkSize = static_cast<int>(state.range(0));
    const QByteArray stream = cleanStream(64 * 1024);
    std::vector<QByteArray> chunks;
    for (int offset = 0; offset < stream.size(); offset += chunkSize) {
        chunks.push_back(stream.mid(offset, chunkSize));
    }
    CountingParser parser;
    for (auto _ : state) {
        for (const QByteArray& chunk : chunks) {
            parser.parse(chunk);
        }
    }
    if (parser.badBytes != 0) {
        state.SkipWithError("clean stream reported bad data");
    }
    setByteCounters(state, stream.size());
    state.counters["frames_per_s"] =
        benchmark::Counter(double(parser.messages), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ParserCleanStream)->Arg(16)->Arg(256)->Arg(64 * 1024);

// Each call gets the next window of a 4 MiB pool, so that neither the data nor the
// branch pattern is the same from one call to the next: a small buffer parsed over and
// over would let the branch predictor learn it and flatter the small sizes.
void runNoise(benchmark::State& state, Noise kind)
{
    constexpr int kPoolSize = 4 * 1024 * 1024;
    const int size = static_cast<int>(state.range(0));
    const QByteArray pool = noise(kind, kPoolSize);
    std::vector<QByteArray> windows;
    for (int offset = 0; offset + size <= pool.size(); offset += size) {
        windows.push_back(pool.mid(offset, size));
    }
    CountingParser parser;
    std::size_t next = 0;
    for (auto _ : state) {
        parser.parse(windows[next]);
        next = (next + 1) % windows.size();
    }
    setByteCounters(state, size);
}

void BM_ParserUnframeableNoise(benchmark::State& state)
{
    runNoise(state, Noise::Unframeable);
}
void BM_ParserRandomBytes(benchmark::State& state)
{
    runNoise(state, Noise::Random);
}
void BM_ParserWorstCaseNoise(benchmark::State& state)
{
    runNoise(state, Noise::WorstCase);
}
BENCHMARK(BM_ParserUnframeableNoise)->Arg(4 * 1024)->Arg(64 * 1024)->Arg(1024 * 1024);
BENCHMARK(BM_ParserRandomBytes)->Arg(4 * 1024)->Arg(64 * 1024)->Arg(1024 * 1024);
BENCHMARK(BM_ParserWorstCaseNoise)->Arg(4 * 1024)->Arg(64 * 1024)->Arg(1024 * 1024);

void BM_EncodeFaderPosition(benchmark::State& state)
{
    const SerialMessage message(MessageType::FaderPosition, 4, {0x01, 0x2C});
    for (auto _ : state) {
        benchmark::DoNotOptimize(encode(message));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EncodeFaderPosition);

}  // namespace
