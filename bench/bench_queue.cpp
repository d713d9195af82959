// Outgoing queue cost with 64 live (type, device) keys -- more than a section has kinds
// of message in flight at once -- on the real monotonic clock.

#include <benchmark/benchmark.h>

#include "serial/serialmessage.h"
#include "serial/serialmessagequeue.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kLiveKeys = 64;

// Every enqueue finds its key among 64 unsent entries and replaces it in place: a
// continuously moving fader bank. The key is spread over the queue so that the average
// scan is half its length.
void BM_QueueCoalescingEnqueue(benchmark::State& state)
{
    SerialMessageQueue queue;
    for (int key = 0; key < kLiveKeys; ++key) {
        queue.sendLed(static_cast<uint8_t>(key), 0, 0, 1000000);
    }
    uint8_t value = 0;
    int key = 0;
    for (auto _ : state) {
        queue.sendLed(static_cast<uint8_t>(key), ++value, 0, 1000000);
        key = (key + 37) % kLiveKeys;
    }
    if (queue.size() != kLiveKeys) {
        state.SkipWithError("coalescing failed");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_QueueCoalescingEnqueue);

// One drain cycle: 64 distinct messages are enqueued (each scanning the keys before it)
// and then all taken, as the section connection's periodic task does.
void BM_QueueEnqueueThenDrain64(benchmark::State& state)
{
    SerialMessageQueue queue;
    for (auto _ : state) {
        for (int key = 0; key < kLiveKeys; ++key) {
            queue.sendFaderPosition(static_cast<uint8_t>(key), static_cast<uint16_t>(key));
        }
        while (!queue.hasNoDueMessage()) {
            benchmark::DoNotOptimize(queue.takeNextMessage());
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kLiveKeys * 2);
}
BENCHMARK(BM_QueueEnqueueThenDrain64);

// The slow path: 64 delayed entries wait in front, and a due message behind them is
// enqueued (scanning all 64 for its key) and taken (scanning past all 64).
void BM_QueueTakeBehind64Waiting(benchmark::State& state)
{
    SerialMessageQueue queue;
    for (int key = 0; key < kLiveKeys; ++key) {
        queue.sendColor(static_cast<uint8_t>(key), 0x112233, 0, 1000000);
    }
    uint16_t value = 0;
    for (auto _ : state) {
        queue.sendFaderPosition(1, ++value);
        benchmark::DoNotOptimize(queue.takeNextMessage());
    }
    if (queue.size() != kLiveKeys) {
        state.SkipWithError("a waiting entry was taken");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_QueueTakeBehind64Waiting);

// The lock-free hint the drain loop asks first, with 64 entries none of which is due.
void BM_QueueHasNoDueMessage64Waiting(benchmark::State& state)
{
    SerialMessageQueue queue;
    for (int key = 0; key < kLiveKeys; ++key) {
        queue.sendColor(static_cast<uint8_t>(key), 0x112233, 0, 1000000);
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(queue.hasNoDueMessage());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_QueueHasNoDueMessage64Waiting);

}  // namespace
