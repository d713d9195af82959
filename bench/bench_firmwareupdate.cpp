// A whole firmware update of one section over a pty, from the bootloader probe (AutoBaud)
// to the section's NotBootLoader after the reset, with the plugin's real section link, a
// real task pool on its 5 ms timer and the steady clock, as on the console.
//
// The section's microcontroller is played by PtySectionSimulator in bootloader mode. With
// pacing on, its replies leave at 115200 baud (11,520 bytes/s); a pty carries the plugin's
// own bytes at once, so only the section-to-plugin direction is paced. Reported beside the
// wall time:
// - wire_bound_s: what the 115200-baud line alone needs for the whole exchange, both
//   directions (firmwarewire.h).
// - reply_bound_s: the same for the section's bytes alone, the part the simulator paces.
// - exchange_s: from opening the link to the section leaving its bootloader (the Reset).
#include <benchmark/benchmark.h>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>
#include <memory>

#include "firmwarewire.h"
#include "serial/isectionconnection.h"
#include "support/fakesettings.h"
#include "support/firmwareimagebytes.h"
#include "support/ptysectionlink.h"
#include "support/ptysectionsimulator.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

void runFirmwareUpdate(benchmark::State& state, int imageSize, int pacedBaud)
{
    for (auto _ : state) {
        state.PauseTiming();
        QTemporaryDir dir;
        const QString path = dir.path() + QStringLiteral("/worksurface.bin");
        const QByteArray image = imageBytes(imageSize, 0x2545F491u);
        {
            QFile file(path);
            if (!file.open(QIODevice::WriteOnly) || file.write(image) != image.size()) {
                state.SkipWithError("cannot write the firmware file");
                return;
            }
        }
        PtySectionSimulator sim;
        if (!sim.isOpen()) {
            state.SkipWithError(qPrintable(sim.errorString()));
            return;
        }
        sim.setMode(PtySectionSimulator::Mode::Bootloader);
        sim.setPacedBaudRate(pacedBaud);
        auto settings = std::make_shared<FakeSettings>();
        settings->setFirmwarePath(path);
        settings->setDebugEnabled(false);
        auto pool = std::make_shared<TaskPool>();
        PtySectionLink link(0, sim.slavePath(), settings, pool);

        QEventLoop loop;
        bool updating = false;
        bool done = false;
        link.listener.setOnStateChanged([&](uint8_t, uint8_t value) {
            if (value == ISectionConnection::Updating) {
                updating = true;
            } else if (value == ISectionConnection::Connected && updating) {
                done = true;
                loop.quit();
            }
        });
        QElapsedTimer clock;
        qint64 exchangeNs = 0;
        QObject::connect(&sim, &PtySectionSimulator::modeChanged, &loop, [&]() {
            if (exchangeNs == 0) {
                exchangeNs = clock.nsecsElapsed();
            }
        });
        QTimer::singleShot(30 * 60 * 1000, &loop, &QEventLoop::quit);
        state.ResumeTiming();

        clock.start();
        pool->start();
        link.section->open();
        loop.exec();
        const qint64 totalNs = clock.nsecsElapsed();

        state.PauseTiming();
        pool->stop();
        if (!done || sim.image() != image) {
            state.SkipWithError("the update did not complete with the image intact");
            return;
        }
        const double blocks = FirmwareWire::blocks(imageSize);
        state.counters["blocks"] = blocks;
        state.counters["total_s"] = totalNs / 1e9;
        state.counters["exchange_s"] = exchangeNs / 1e9;
        state.counters["wire_bound_s"] = FirmwareWire::wireSeconds(imageSize);
        state.counters["reply_bound_s"] = FirmwareWire::replySeconds(imageSize);
        state.counters["us_per_block"] = exchangeNs / 1e3 / blocks;
        state.ResumeTiming();
    }
}

// The image a section gets: 256 KiB, the section replying at 115200 baud.
void BM_FirmwareUpdate256KiBPaced(benchmark::State& state)
{
    runFirmwareUpdate(state, 256 * 1024, 115200);
}
BENCHMARK(BM_FirmwareUpdate256KiBPaced)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The plugin and the pty alone: the section replies at once.
void BM_FirmwareUpdate256KiBUnpaced(benchmark::State& state)
{
    runFirmwareUpdate(state, 256 * 1024, 0);
}
BENCHMARK(BM_FirmwareUpdate256KiBUnpaced)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// A huge image, 16 MiB, unpaced (paced it would take many minutes; the wire bound says how
// long a real line would need).
void BM_FirmwareUpdate16MiBUnpaced(benchmark::State& state)
{
    runFirmwareUpdate(state, 16 * 1024 * 1024, 0);
}
BENCHMARK(BM_FirmwareUpdate16MiBUnpaced)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
