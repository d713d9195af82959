// The links' pace while the UI is busy: a K40 console on two pseudo-terminals, driven by the
// surface service exactly as a console's QML would (connect(), the firmware image in the
// home folder), with the links on the QML thread or on the surface thread, and the QML
// thread idle or held 8 ms in every 16 ms frame: busy_ui 1 spins (script work, as a console
// drawing meters: the QML thread takes a CPU), busy_ui 2 sleeps (the QML thread waits, as
// for the GPU, and leaves the CPU to the other threads). The two tell what the links lose
// to a blocked event loop from what they lose to a CPU taken on a small machine.
//
// Both sections are played by PtySectionSimulators on a thread of their own, so that a busy
// UI does not slow the "hardware" down, and both directions are paced at 115200 baud (the
// simulator takes in what the plugin writes only when the line would have delivered it).
// On a console each section answers from its own microcontroller; here the simulators share
// the machine's CPUs with the links and the UI, in short turns (as the links' thread runs),
// and with BENCH_SECTIONS_RT set they run under SCHED_FIFO so that, like the hardware, they
// never wait for a CPU.
// Section 0 sits in its bootloader and receives a 256 KiB image; section 1 runs its
// application and answers the link's pings. Reported:
// - exchange_s: from connect() to section 0 leaving its bootloader (the Reset);
// - wire_s: what the line alone needs for that exchange (firmwarewire.h), and ratio, the
//   exchange over it;
// - ping_*_ms: how much later than 2 s after the previous one each of section 1's pings
//   arrived, over the update (median, 90th percentile, maximum). The link's pass runs when
//   more than 50 ms have passed since its last run, on the pool's 5 ms grid, and a ping goes
//   on the first pass more than 2 s after the last one, so an undisturbed link's ping comes
//   some tens of ms past the 2 s; every late pass in between adds to it.
// - pass_late_*_ms: how late a 50 ms task on the links' task pool (the pool that runs the
//   link's pass, and so sends the pings) ran against its due time, its last run + 50 ms
//   (median, 90th percentile, maximum). The pool's grid alone makes that up to 5 ms.
// - links_cpu_s, links_wait_s: the time the thread that runs the links (the QML thread or
//   "WorksurfaceThread") spent on a CPU over the exchange, and runnable but waiting for one
//   (the kernel's schedstat); sim_cpu_s and sim_wait_s the same for the simulators' thread.
//   Every round trip of the exchange wakes both, so their waits for a CPU add to it.
#include <benchmark/benchmark.h>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sched.h>
#include <unistd.h>

#include "firmwarewire.h"
#include "qml/surfacesettings.h"
#include "qml/worksurfacefunctions.h"
#include "serial/serialconnectionfactory.h"
#include "serial/serialmessage.h"
#include "support/firmwareimagebytes.h"
#include "support/ptysectionsimulator.h"
#include "tasks/itask.h"
#include "tasks/taskpool.h"
#include "tasks/threadmailbox.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kImageSize = 256 * 1024;
constexpr int kBaud = 115200;
constexpr int kFrameMs = 16;
constexpr int kBusyMs = 8;

double percentile(std::vector<double> values, double p)
{
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[index];
}

// On-CPU and runnable-but-waiting time of each of the process's threads, by name, in
// seconds, from /proc/self/task/*/schedstat (the kernel's first two fields, in ns).
struct ThreadTimes
{
    double cpuS = 0.0;
    double waitS = 0.0;
};

std::map<QByteArray, ThreadTimes> threadTimes()
{
    std::map<QByteArray, ThreadTimes> times;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString& tid : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(tid + QStringLiteral("/comm")));
        QFile schedstat(tasks.filePath(tid + QStringLiteral("/schedstat")));
        if (!comm.open(QIODevice::ReadOnly) || !schedstat.open(QIODevice::ReadOnly)) {
            continue;
        }
        const QByteArray name = comm.readAll().trimmed();
        const QList<QByteArray> fields = schedstat.readAll().simplified().split(' ');
        if (fields.size() < 2) {
            continue;
        }
        ThreadTimes& entry = times[tid == QString::number(getpid()) ? QByteArray("main") : name];
        entry.cpuS += fields[0].toDouble() / 1e9;
        entry.waitS += fields[1].toDouble() / 1e9;
    }
    return times;
}

// What `name` spent between the two readings.
ThreadTimes spent(const std::map<QByteArray, ThreadTimes>& before,
                  const std::map<QByteArray, ThreadTimes>& after, const QByteArray& name)
{
    ThreadTimes result;
    const auto end = after.find(name);
    if (end == after.end()) {
        return result;
    }
    result = end->second;
    const auto start = before.find(name);
    if (start != before.end()) {
        result.cpuS -= start->second.cpuS;
        result.waitS -= start->second.waitS;
    }
    return result;
}

// With BENCH_PIN set, the QML thread runs on the first CPU only and the links' and the
// simulators' threads on the second: what the links lose when the scheduler no longer puts
// them on the CPU that the QML thread spins.
bool pinning()
{
    return qEnvironmentVariableIsSet("BENCH_PIN");
}

void pinToCpu(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    sched_setaffinity(0, sizeof(set), &set);
}

// With BENCH_SECTIONS_RT set, the simulators' thread runs under SCHED_FIFO: the sections
// then never wait for a CPU, as real sections, each on its own microcontroller, do not, and
// what is left of the exchange's time beyond the line's is the links' own. Needs root (or
// CAP_SYS_NICE); without it the run says so and plays the sections as usual.
bool sectionsRealtime()
{
    return qEnvironmentVariableIsSet("BENCH_SECTIONS_RT");
}

void runRealtime()
{
    sched_param param{};
    param.sched_priority = 10;
    if (sched_setscheduler(0, SCHED_FIFO, &param) != 0) {
        fprintf(stderr, "BENCH_SECTIONS_RT: cannot run the sections under SCHED_FIFO (%s)\n",
                strerror(errno));
    }
}

// The two sections, on their own thread.
struct Sections
{
    Sections()
    {
        thread.setObjectName(QStringLiteral("SectionSimulators"));
        context.moveToThread(&thread);
        thread.start();
        context.runAndWait([this]() {
            if (pinning()) {
                pinToCpu(1);
            }
            if (sectionsRealtime()) {
                runRealtime();
            }
            update = std::make_unique<PtySectionSimulator>();
            pings = std::make_unique<PtySectionSimulator>();
            for (PtySectionSimulator* sim : {update.get(), pings.get()}) {
                sim->setPacedBaudRate(kBaud);
                sim->setPacedInputBaudRate(kBaud);
            }
            update->setMode(PtySectionSimulator::Mode::Bootloader);
            const QByteArray ping = encode(SerialMessage(MessageType::Ping, 0));
            clock.start();
            QObject::connect(pings.get(), &PtySectionSimulator::bytesReceived,
                             [this, ping](const QByteArray& bytes) {
                                 for (int at = bytes.indexOf(ping); at >= 0;
                                      at = bytes.indexOf(ping, at + ping.size())) {
                                     std::lock_guard<std::mutex> lock(mutex);
                                     pingNs.push_back(clock.nsecsElapsed());
                                 }
                             });
        });
    }
    ~Sections()
    {
        context.runAndWait([this]() {
            update.reset();
            pings.reset();
        });
        thread.quit();
        thread.wait();
    }

    bool open() const { return update->isOpen() && pings->isOpen(); }
    bool updateDone()
    {
        bool done = false;
        context.runAndWait(
            [this, &done]() { done = update->mode() == PtySectionSimulator::Mode::Application; });
        return done;
    }
    // How much later than 2 s after the previous ping each ping arrived, in ms.
    std::vector<double> pingDelaysMs()
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<double> delays;
        for (std::size_t i = 1; i < pingNs.size(); ++i) {
            delays.push_back((pingNs[i] - pingNs[i - 1]) / 1e6 - 2000.0);
        }
        return delays;
    }

    QThread thread;
    ThreadMailbox context;
    std::unique_ptr<PtySectionSimulator> update;
    std::unique_ptr<PtySectionSimulator> pings;
    QElapsedTimer clock;
    std::mutex mutex;
    std::vector<qint64> pingNs;
};

// A 50 ms task beside the link's pass on the same pool, noting when it runs.
class PassProbe : public ITask
{
public:
    void run() override
    {
        if (!m_pinned && pinning() &&
            QThread::currentThread()->objectName() == QStringLiteral("WorksurfaceThread")) {
            m_pinned = true;
            pinToCpu(1);
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_runsNs.push_back(m_clock.nsecsElapsed());
    }
    void start() { m_clock.start(); }
    // How much later than its last run + 50 ms each run came, in ms.
    std::vector<double> latenessMs()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<double> late;
        for (std::size_t i = 1; i < m_runsNs.size(); ++i) {
            late.push_back((m_runsNs[i] - m_runsNs[i - 1]) / 1e6 - kPassMs);
        }
        return late;
    }

    static constexpr int kPassMs = 50;

private:
    QElapsedTimer m_clock;
    bool m_pinned = false;
    std::mutex m_mutex;
    std::vector<qint64> m_runsNs;
};

void runPacing(benchmark::State& state)
{
    const bool onThread = state.range(0) != 0;
    const int busy = static_cast<int>(state.range(1));
    for (auto _ : state) {
        QTemporaryDir home;
        QDir(home.path()).mkpath(QStringLiteral(".firmware"));
        QFile image(home.filePath(QStringLiteral(".firmware/worksurface.bin")));
        if (!image.open(QIODevice::WriteOnly) ||
            image.write(imageBytes(kImageSize, 0x2545F491u)) != kImageSize) {
            state.SkipWithError("cannot write the firmware image");
            return;
        }
        image.close();
        const QByteArray savedHome = qgetenv("HOME");
        qputenv("HOME", home.path().toLocal8Bit());

        Sections sections;
        if (!sections.open()) {
            state.SkipWithError("cannot make the pseudo-terminals");
            return;
        }
        qputenv(SerialConnectionFactory::kPortsVariable,
                (sections.update->slavePath() + QLatin1Char(',') + sections.pings->slavePath())
                    .toLocal8Bit());

        QTimer frames;
        frames.setTimerType(Qt::PreciseTimer);
        QObject::connect(&frames, &QTimer::timeout, [busy]() {
            if (busy == 2) {
                QThread::msleep(kBusyMs);
                return;
            }
            QElapsedTimer spin;
            spin.start();
            while (spin.elapsed() < kBusyMs) {
            }
        });

        auto service = std::make_unique<WorksurfaceFunctions>();
        service->settings()->setDebugEnabled(false);
        service->settings()->setType(SurfaceSettings::Hardware);
        service->settings()->setMode(SurfaceSettings::K40);
        service->settings()->setLinkThread(onThread);
        if (pinning()) {
            pinToCpu(0);
        }
        if (busy != 0) {
            frames.start(kFrameMs);
        }
        const std::map<QByteArray, ThreadTimes> timesBefore = threadTimes();
        QElapsedTimer clock;
        clock.start();
        service->connect();
        // The links' pool exists once the surface thread has started: the probe joins it
        // at the first poll that finds it.
        auto probe = std::make_shared<PassProbe>();
        std::shared_ptr<ITaskHandle> probeHandle;
        QEventLoop loop;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, &loop, [&]() {
            const std::shared_ptr<TaskPool> linkPool =
                onThread ? service->linkTaskPool() : service->taskPool();
            if (!probeHandle && linkPool) {
                probe->start();
                probeHandle = linkPool->schedulePeriodic(PassProbe::kPassMs, probe);
            }
            if (sections.updateDone() || clock.elapsed() > 10 * 60 * 1000) {
                loop.quit();
            }
        });
        poll.start(20);
        loop.exec();
        const double exchangeS = clock.nsecsElapsed() / 1e9;
        const std::map<QByteArray, ThreadTimes> timesAfter = threadTimes();
        frames.stop();
        if (probeHandle) {
            probeHandle->cancel();
        }
        const bool done = sections.updateDone();
        service.reset();
        qputenv("HOME", savedHome);
        if (!done) {
            state.SkipWithError("the update did not complete");
            return;
        }
        const double wireS = FirmwareWire::wireSeconds(kImageSize);
        const std::vector<double> delays = sections.pingDelaysMs();
        state.SetIterationTime(exchangeS);
        state.counters["exchange_s"] = exchangeS;
        state.counters["wire_s"] = wireS;
        state.counters["ratio"] = exchangeS / wireS;
        state.counters["pings"] = static_cast<double>(delays.size() + 1);
        state.counters["ping_p50_ms"] = percentile(delays, 0.5);
        state.counters["ping_p90_ms"] = percentile(delays, 0.9);
        state.counters["ping_max_ms"] = percentile(delays, 1.0);
        const std::vector<double> late = probe->latenessMs();
        state.counters["pass_late_p50_ms"] = percentile(late, 0.5);
        state.counters["pass_late_p90_ms"] = percentile(late, 0.9);
        state.counters["pass_late_max_ms"] = percentile(late, 1.0);
        // Thread names as the kernel keeps them, 15 characters at most.
        const ThreadTimes links =
            spent(timesBefore, timesAfter,
                  onThread ? QByteArray("WorksurfaceThread").left(15) : QByteArray("main"));
        const ThreadTimes sims =
            spent(timesBefore, timesAfter, QByteArray("SectionSimulators").left(15));
        state.counters["links_cpu_s"] = links.cpuS;
        state.counters["links_wait_s"] = links.waitS;
        state.counters["sim_cpu_s"] = sims.cpuS;
        state.counters["sim_wait_s"] = sims.waitS;
    }
}

}  // namespace

// Arguments: links on the surface thread (0/1), QML thread idle (0), spinning (1) or asleep
// (2) 8 ms in every 16 ms.
BENCHMARK(runPacing)
    ->Name("BM_LinkPacing256KiB")
    ->ArgNames({"link_thread", "busy_ui"})
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Args({0, 2})
    ->Args({1, 2})
    ->UseManualTime()
    ->Unit(benchmark::kSecond)
    ->Iterations(1);
