// Cost of one task-pool tick, the work the 5 ms timer does on the model thread: walking the
// records, running what is due and re-arming the timer. The tasks do nothing, so the numbers
// are the pool's own overhead.
#include <benchmark/benchmark.h>
#include <memory>
#include <vector>

#include "support/manualclock.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

class NoOpTask : public ITask
{
public:
    void run() override { benchmark::ClobberMemory(); }
};

struct Fixture
{
    explicit Fixture(int count, uint64_t intervalMs)
    {
        for (int i = 0; i < count; ++i) {
            tasks.push_back(std::make_shared<NoOpTask>());
            handles.push_back(pool.schedulePeriodic(intervalMs, tasks.back()));
        }
    }

    TaskPool pool;
    std::vector<std::shared_ptr<NoOpTask>> tasks;
    std::vector<std::shared_ptr<ITaskHandle>> handles;
};

// Every record is checked, none is run: the usual tick between 50 ms supervision passes.
void BM_TickNoneDue(benchmark::State& state)
{
    ManualClock clock(0);
    Fixture fixture(static_cast<int>(state.range(0)), 1000);
    for (auto _ : state) {
        fixture.pool.runPendingTasks();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_TickNoneDue)->Arg(0)->Arg(10)->Arg(100)->Arg(1000);

// Every record is due and run once per tick.
void BM_TickAllDue(benchmark::State& state)
{
    ManualClock clock(0);
    Fixture fixture(static_cast<int>(state.range(0)), 0);
    for (auto _ : state) {
        clock.advanceNs(1);
        fixture.pool.runPendingTasks();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_TickAllDue)->Arg(10)->Arg(100)->Arg(1000);

// As the plugin runs: the steady clock read at the start of the tick and after each run.
void BM_TickNoneDueSteadyClock(benchmark::State& state)
{
    Fixture fixture(static_cast<int>(state.range(0)), 1000000);
    for (auto _ : state) {
        fixture.pool.runPendingTasks();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_TickNoneDueSteadyClock)->Arg(100);

void BM_TickAllDueSteadyClock(benchmark::State& state)
{
    Fixture fixture(static_cast<int>(state.range(0)), 0);
    for (auto _ : state) {
        fixture.pool.runPendingTasks();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_TickAllDueSteadyClock)->Arg(100);

}  // namespace
