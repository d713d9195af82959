// The links' pace while the UI is busy: a K40 console on two pseudo-terminals, driven by the
// surface service exactly as a console's QML would (connect(), the firmware image in the
// home folder), with the links on the QML thread or on the surface thread, and the QML
// thread idle or busy 8 ms in every 16 ms frame (script work, as a console drawing meters).
//
// Both sections are played by PtySectionSimulators on a thread of their own, so that a busy
// UI does not slow the "hardware" down, and both directions are paced at 115200 baud (the
// simulator takes in what the plugin writes only when the line would have delivered it).
// Section 0 sits in its bootloader and receives a 256 KiB image; section 1 runs its
// application and answers the link's pings. Reported:
// - exchange_s: from connect() to section 0 leaving its bootloader (the Reset);
// - wire_s: what the line alone needs for that exchange (firmwarewire.h), and ratio, the
//   exchange over it;
// - ping_*_ms: how much later than 2 s after the previous one each of section 1's pings
//   arrived, over the update (median, 90th percentile, maximum). A link pass runs every 50 ms
//   on the pool's 5 ms grid, so an undisturbed link's ping is up to about 55 ms past the 2 s;
//   what a busy QML thread adds comes on top.
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
#include <memory>
#include <mutex>
#include <vector>

#include "firmwarewire.h"
#include "qml/surfacesettings.h"
#include "qml/worksurfacefunctions.h"
#include "serial/serialconnectionfactory.h"
#include "serial/serialmessage.h"
#include "support/firmwareimagebytes.h"
#include "support/ptysectionsimulator.h"
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

// The two sections, on their own thread.
struct Sections
{
    Sections()
    {
        thread.setObjectName(QStringLiteral("SectionSimulators"));
        context.moveToThread(&thread);
        thread.start();
        context.runAndWait([this]() {
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

void runPacing(benchmark::State& state)
{
    const bool onThread = state.range(0) != 0;
    const bool busy = state.range(1) != 0;
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
        QObject::connect(&frames, &QTimer::timeout, []() {
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
        if (busy) {
            frames.start(kFrameMs);
        }
        QElapsedTimer clock;
        clock.start();
        service->connect();
        QEventLoop loop;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, &loop, [&]() {
            if (sections.updateDone() || clock.elapsed() > 10 * 60 * 1000) {
                loop.quit();
            }
        });
        poll.start(20);
        loop.exec();
        const double exchangeS = clock.nsecsElapsed() / 1e9;
        frames.stop();
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
    }
}

}  // namespace

// Arguments: links on the surface thread (0/1), QML thread busy 8 ms in every 16 ms (0/1).
BENCHMARK(runPacing)
    ->Name("BM_LinkPacing256KiB")
    ->ArgNames({"link_thread", "busy_ui"})
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Args({1, 1})
    ->UseManualTime()
    ->Unit(benchmark::kSecond)
    ->Iterations(1);
