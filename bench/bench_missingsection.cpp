// What a missing section costs in an hour: a section link whose device does not exist
// (an unplugged adapter, a console model with a section not fitted) is opened, and one hour
// of supervision passes runs on a manual clock, 72,000 passes 50 ms apart, as the task pool
// would run them. The argument is Surface.settings.reconnectInterval in ms: 0 (the default,
// no reconnection) or the interval the link retries at.
//
// Reported for the hour: CPU seconds of the process, reconnection attempts, log lines,
// tasks in the pool before and after, and the growth of the process's resident memory.
// Log lines are captured in memory.
#include <benchmark/benchmark.h>
#include <time.h>
#include <QFile>
#include <QTemporaryDir>
#include <memory>

#include "support/fakesettings.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/ptysectionlink.h"
#include "tasks/taskpool.h"

using Velmora::Worksurface::kNsPerMs;
using Velmora::Worksurface::TaskPool;

namespace {

constexpr qint64 kPassNs = 50 * kNsPerMs + 1;
constexpr int kPassesPerHour = 3600 * 1000 / 50;

double processCpuSeconds()
{
    timespec ts{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Resident set size in kB.
long residentKb()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly)) {
        return 0;
    }
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.size() > 1 ? fields[1].toLong() * 4 : 0;
}

void BM_MissingSectionForAnHour(benchmark::State& state)
{
    const int intervalMs = static_cast<int>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        QTemporaryDir dir;
        ManualClock clock(1000LL * 1000 * kNsPerMs);
        auto settings = std::make_shared<FakeSettings>();
        settings->setReconnectInterval(intervalMs);
        auto pool = std::make_shared<TaskPool>();
        PtySectionLink link(0, dir.filePath(QStringLiteral("ttyMissing")), settings, pool);
        link.section->setReconnectSettings(settings);
        LogCapture log;
        link.section->open();
        const std::size_t tasksBefore = pool->taskCount();
        // Warm up the first outage (its lines and its first attempt) outside the count of
        // memory, which would otherwise see one-time allocations.
        for (int i = 0; i < 100; ++i) {
            clock.advanceNs(kPassNs);
            pool->runPendingTasks();
        }
        const long rssBefore = residentKb();
        state.ResumeTiming();

        const double cpuBefore = processCpuSeconds();
        for (int i = 100; i < kPassesPerHour; ++i) {
            clock.advanceNs(kPassNs);
            pool->runPendingTasks();
        }
        const double cpuSeconds = processCpuSeconds() - cpuBefore;

        state.PauseTiming();
        state.counters["cpu_s_per_hour"] = cpuSeconds;
        state.counters["attempts_per_hour"] =
            static_cast<double>(link.section->reconnectAttempts());
        state.counters["log_lines_per_hour"] = log.lines().size();
        state.counters["tasks_before"] = static_cast<double>(tasksBefore);
        state.counters["tasks_after"] = static_cast<double>(pool->taskCount());
        state.counters["rss_growth_kb"] = static_cast<double>(residentKb() - rssBefore);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_MissingSectionForAnHour)
    ->Arg(0)
    ->Arg(2000)
    ->Arg(100)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
