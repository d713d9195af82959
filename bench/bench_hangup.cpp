// What a hung-up section costs the QML thread until its link is restarted: a section link
// on a pty comes up, then the section's cable is pulled (the simulator closes the pty) and
// the event loop runs for two seconds of real time with the task pool's 5 ms timer, as on
// the console. Reported: log lines per second and CPU seconds per wall second of the whole
// process over that window. The section connection only restarts the link 10 to 20 s
// after the last byte, so the window lies wholly before the restart.
//
// Log lines are captured in memory, not written out, so on the console (where each line
// also goes to the journal) a flood would cost more than measured here.
#include <benchmark/benchmark.h>
#include <time.h>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <memory>

#include "support/fakesettings.h"
#include "support/logcapture.h"
#include "support/ptysectionlink.h"
#include "support/ptysectionsimulator.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kWindowMs = 2000;

double processCpuSeconds()
{
    timespec ts{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void runEventLoopFor(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, Qt::PreciseTimer, &loop, &QEventLoop::quit);
    loop.exec();
}

void BM_HungUpSectionBeforeRestart(benchmark::State& state)
{
    for (auto _ : state) {
        state.PauseTiming();
        PtySectionSimulator sim;
        if (!sim.isOpen()) {
            state.SkipWithError(qPrintable(sim.errorString()));
            return;
        }
        auto settings = std::make_shared<FakeSettings>();
        auto pool = std::make_shared<TaskPool>();
        PtySectionLink link(0, sim.slavePath(), settings, pool);
        pool->start();
        link.section->open();
        QElapsedTimer upClock;
        upClock.start();
        while (link.state() != ISectionConnection::Connected && upClock.elapsed() < 5000) {
            runEventLoopFor(1);
        }
        if (link.state() != ISectionConnection::Connected) {
            state.SkipWithError("the section link did not come up");
            return;
        }
        state.ResumeTiming();

        LogCapture log;
        sim.hangUp();
        const double cpuBefore = processCpuSeconds();
        QElapsedTimer wall;
        wall.start();
        runEventLoopFor(kWindowMs);
        const double wallSeconds = static_cast<double>(wall.nsecsElapsed()) / 1e9;
        const double cpuSeconds = processCpuSeconds() - cpuBefore;
        const int lines = log.lines().size();
        state.PauseTiming();
        state.counters["log_lines"] = lines;
        state.counters["log_lines_per_s"] = lines / wallSeconds;
        state.counters["cpu_s_per_wall_s"] = cpuSeconds / wallSeconds;
        state.counters["port_open_after"] = link.serial->isOpen() ? 1 : 0;
        // Which error the port reported first: the one repeated if the port stays open.
        if (lines > 0) {
            state.SetLabel(log.texts().first().toStdString());
        }
        pool->stop();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_HungUpSectionBeforeRestart)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
