// Costs of a whole three-section worksurface as the surface service builds it (real
// section, component and connection factories over the in-process software link):
//
// - one task-pool tick of a connected, idle surface whose every periodic task is
//   registered (31 fader steps, 3 link supervision passes, the pot's value request), once
//   when nothing is due and once when every 50 ms task is due (the clock moves 51 ms
//   before each tick; the links drain their empty queues, ping every 2 s and the simulated
//   sections answer; the pot asks for its value every second);
// - the memory the built surface holds, counted by replacing the global operator new and
//   delete in this binary (bytes and blocks still live after the build). Qt's containers
//   take their payloads with malloc, which this does not see; a freshly built surface
//   holds almost none (empty Qt containers share one static block).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

#include "base/logger.h"
#include "base/settings.h"
#include "serial/isectionconnection.h"
#include "serial/serialconnectionfactory.h"
#include "software/qmlcontrollerconnection.h"
#include "support/manualclock.h"
#include "surface/componentfactory.h"
#include "surface/connectionfactory.h"
#include "surface/sectionfactory.h"
#include "surface/surface.h"
#include "surface/surfacebuilder.h"
#include "tasks/taskpool.h"

// ---- allocation counting --------------------------------------------------------------

namespace {

// Each block carries its size in a header in front of it, so that delete knows how much
// it gives back. 16 bytes keep the block as aligned as malloc's.
constexpr std::size_t kHeader = 16;

std::atomic<int64_t> g_liveBytes{0};
std::atomic<int64_t> g_liveBlocks{0};
std::atomic<int64_t> g_allocations{0};

void* allocate(std::size_t size)
{
    auto* block = static_cast<unsigned char*>(std::malloc(size + kHeader));
    if (!block) {
        throw std::bad_alloc();
    }
    *reinterpret_cast<std::size_t*>(block) = size;
    g_liveBytes.fetch_add(static_cast<int64_t>(size), std::memory_order_relaxed);
    g_liveBlocks.fetch_add(1, std::memory_order_relaxed);
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return block + kHeader;
}

void release(void* pointer) noexcept
{
    if (!pointer) {
        return;
    }
    auto* block = static_cast<unsigned char*>(pointer) - kHeader;
    g_liveBytes.fetch_sub(static_cast<int64_t>(*reinterpret_cast<std::size_t*>(block)),
                          std::memory_order_relaxed);
    g_liveBlocks.fetch_sub(1, std::memory_order_relaxed);
    std::free(block);
}

}  // namespace

void* operator new(std::size_t size)
{
    return allocate(size);
}
void* operator new[](std::size_t size)
{
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* pointer) noexcept
{
    release(pointer);
}
void operator delete[](void* pointer) noexcept
{
    release(pointer);
}
void operator delete(void* pointer, std::size_t) noexcept
{
    release(pointer);
}
void operator delete[](void* pointer, std::size_t) noexcept
{
    release(pointer);
}
void operator delete(void* pointer, const std::nothrow_t&) noexcept
{
    release(pointer);
}
void operator delete[](void* pointer, const std::nothrow_t&) noexcept
{
    release(pointer);
}

// ---- the surface ------------------------------------------------------------------------

namespace {

using namespace Velmora::Worksurface;

constexpr uint8_t kSoftware = 1;
constexpr uint8_t kK60 = 2;

struct Snapshot
{
    int64_t bytes = g_liveBytes.load();
    int64_t blocks = g_liveBlocks.load();
    int64_t allocations = g_allocations.load();
};

// What the surface service keeps for the whole session, whatever surface it builds.
struct Service
{
    std::shared_ptr<Settings> settings = std::make_shared<Settings>();
    std::shared_ptr<Logger> logger;
    std::shared_ptr<QmlControllerConnection> controller =
        std::make_shared<QmlControllerConnection>();
    std::shared_ptr<TaskPool> pool = std::make_shared<TaskPool>();

    Service()
    {
        settings->setType(kSoftware);
        settings->setMode(kK60);
        settings->setDebugEnabled(false);
        logger = std::make_shared<Logger>(settings);
    }

    // The factories live only while the surface is built, as in the service.
    std::shared_ptr<Surface> build()
    {
        SectionFactory sections(nullptr, std::make_unique<ComponentFactory>(pool));
        ConnectionFactory connections(
            std::make_unique<SerialConnectionFactory>(settings, controller), pool, logger);
        return SurfaceBuilder::build(settings, sections, connections);
    }
};

// A started, connected surface that has run for 10 s: the unbound faders are parked and
// every queue is empty. The pot keeps asking for its value, as no section answers it.
struct IdleSurface
{
    ManualClock clock{kStartNs};
    Service service;
    std::shared_ptr<Surface> surface = service.build();

    IdleSurface()
    {
        surface->start();
        for (const auto& connection : surface->connections()) {
            if (connection->state() != ISectionConnection::Connected) {
                std::abort();
            }
        }
        for (int i = 0; i < 200; ++i) {
            clock.advanceMs(51);
            service.pool->runPendingTasks();
        }
    }
};

void BM_SurfaceTickNothingDue(benchmark::State& state)
{
    IdleSurface idle;
    const Snapshot before;
    for (auto _ : state) {
        idle.service.pool->runPendingTasks();
    }
    const Snapshot after;
    state.counters["tasks"] = static_cast<double>(idle.service.pool->taskCount());
    state.counters["allocs_per_tick"] =
        static_cast<double>(after.allocations - before.allocations) /
        static_cast<double>(state.iterations());
}
BENCHMARK(BM_SurfaceTickNothingDue);

void BM_SurfaceTickEvery50msTaskDue(benchmark::State& state)
{
    IdleSurface idle;
    const Snapshot before;
    for (auto _ : state) {
        idle.clock.advanceMs(51);
        idle.service.pool->runPendingTasks();
    }
    const Snapshot after;
    state.counters["tasks"] = static_cast<double>(idle.service.pool->taskCount());
    state.counters["allocs_per_tick"] =
        static_cast<double>(after.allocations - before.allocations) /
        static_cast<double>(state.iterations());
    // Nothing may pile up while the surface idles.
    state.counters["live_bytes_growth"] = static_cast<double>(after.bytes - before.bytes);
}
BENCHMARK(BM_SurfaceTickEvery50msTaskDue);

// Builds a surface and takes it down again in every iteration; the counters say what one
// built surface holds (the pool's records for its faders and pot included), and what it
// holds once started (the links' supervision tasks and buffers).
void BM_SurfaceMemory(benchmark::State& state)
{
    ManualClock clock(kStartNs);
    Service service;
    Snapshot built;
    Snapshot started;
    Snapshot before;
    Snapshot after;
    for (auto _ : state) {
        before = Snapshot();
        auto surface = service.build();
        built = Snapshot();
        surface->start();
        started = Snapshot();
        surface.reset();
        // As the service does before it builds the next surface.
        service.controller->clearDataReceivers();
        // The pool drops the records of tasks whose owners are gone when they next fall due.
        clock.advanceMs(1001);
        service.pool->runPendingTasks();
        after = Snapshot();
    }
    state.counters["bytes"] = static_cast<double>(built.bytes - before.bytes);
    state.counters["allocations"] = static_cast<double>(built.blocks - before.blocks);
    state.counters["allocations_during_build"] =
        static_cast<double>(built.allocations - before.allocations);
    state.counters["started_bytes"] = static_cast<double>(started.bytes - before.bytes);
    state.counters["left_after_teardown_bytes"] = static_cast<double>(after.bytes - before.bytes);
}
BENCHMARK(BM_SurfaceMemory)->Unit(benchmark::kMicrosecond);

}  // namespace
