// A QML thread held for seconds while the sections go on reporting: what it costs in memory,
// whether anything that must not be lost is lost, and how soon the model holds the faders'
// latest positions once the QML thread comes back.
//
// A K40 (two sections) or K60 (three) hardware console on pseudo-terminals, driven by the
// surface service as a console's QML would (connect()), with its links on the surface thread
// (Surface.settings.linkThread) or on the QML thread (the default). The sections are played
// by PtySectionSimulators on a thread of their own, their output paced at 115200 baud. Once
// the links are up, each section streams 1,000 frames a second: a burst every 4 ms, from a
// precise timer on the simulators' thread, of fader positions on faders 0 to 7 in turn (no
// stream position is 500 or above), and every 50th frame one of the hand's slower reports,
// in turn: a fader touch or release, a mute switch's press or release, a rotary step, a
// rotary touch or release (5 a second of each kind per section). The model's faders, mute
// switches and rotaries are held through their handles, as the bindings hold them, and
// every signal the handles emit on the QML thread is counted.
//
// After 2 s of streaming the QML thread reads the heap in use (glibc's mallinfo2().uordblks)
// and the resident set (/proc/self/statm), then sleeps (QThread::msleep) for the third
// argument's seconds: 10 (30 and 0 in the last three runs). The moment it wakes, before it
// handles anything, it reads both again, then has the simulators stop: each section's last
// burst sets fader f to 500 + f, a position the stream never sent. Reported:
// - heap_growth, rss_growth: bytes gained over the block (the process as a whole, simulators
//   included), heap_before, rss_before the figures before;
// - sim_backlog: bytes the simulators still held at the end of the block because the
//   pseudo-terminal would take no more (the QML thread's serial port not read);
// - sent_* and seen_*: reports the simulators sent and signals the handles emitted, by kind:
//   positions, fader touches and releases, presses and releases, rotary steps and rotary
//   touches; lost, every kind but the positions, sent minus seen (0 when nothing is lost);
//   coalesced, positions sent but never told (each replaced by a later one of its fader);
// - latest_ms: from the QML thread waking to the last fader of the console reporting its
//   final position (also the benchmark's time); caught_up_ms: to every report being told;
//   latest_held: 1 when every fader's last told position is its final one;
// - told_after: signals emitted after the QML thread woke; state_changes: link states told to
//   the section models from the start of the block on (a link that judged its section
//   silent, and came back, tells two).
#include <benchmark/benchmark.h>
#include <QByteArray>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEvent>
#include <QEventLoop>
#include <QFile>
#include <QObject>
#include <QStringList>
#include <QThread>
#include <QTimer>
#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <utility>
#include <vector>

#if defined(__GLIBC__)
#include <malloc.h>
#endif
#include <unistd.h>

#include "qml/sectioninfomodel.h"
#include "qml/surfacesettings.h"
#include "qml/worksurfacefunctions.h"
#include "serial/isectionconnection.h"
#include "serial/serialconnectionfactory.h"
#include "serial/serialmessage.h"
#include "support/ptysectionsimulator.h"
#include "surface/buttonhandle.h"
#include "surface/controltypes.h"
#include "surface/faderhandle.h"
#include "surface/ibutton.h"
#include "surface/ifader.h"
#include "surface/irotary.h"
#include "surface/isurface.h"
#include "surface/rotaryhandle.h"
#include "tasks/threadmailbox.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kBaud = 115200;
constexpr int kFramesPerSecond = 1000;
constexpr int kBurstMs = 4;
// Every kHandEvery-th frame is one of the hand's slower reports; the rest are positions.
constexpr uint64_t kHandEvery = 50;
constexpr int kStreamFaders = 8;
constexpr int kStrips = 10;
// Stream positions stay below this; fader f ends at kFinalPosition + f.
constexpr uint16_t kFinalPosition = 500;
constexpr int kWarmUpMs = 2000;
constexpr int kUpTimeoutMs = 20000;
constexpr int kCatchUpTimeoutMs = 30000;
// Listening on after everything was told, for anything told twice.
constexpr int kSettleMs = 200;
constexpr int kMaxSections = 3;

// Reports of each kind, sent by the simulators or told by the handles.
struct Tally
{
    uint64_t positions = 0;
    uint64_t faderTouches = 0;
    uint64_t faderReleases = 0;
    uint64_t presses = 0;
    uint64_t releases = 0;
    uint64_t steps = 0;
    uint64_t rotaryTouches = 0;

    // Every report that must never be lost.
    uint64_t kept() const
    {
        return faderTouches + faderReleases + presses + releases + steps + rotaryTouches;
    }
    uint64_t all() const { return positions + kept(); }
};

struct Memory
{
    double heap = 0.0;
    double rss = 0.0;
};

Memory readMemory()
{
    Memory memory;
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 33))
    memory.heap = static_cast<double>(mallinfo2().uordblks);
#endif
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (statm.open(QIODevice::ReadOnly)) {
        const QList<QByteArray> fields = statm.readAll().simplified().split(' ');
        if (fields.size() > 1) {
            memory.rss = fields.at(1).toDouble() * static_cast<double>(sysconf(_SC_PAGESIZE));
        }
    }
    return memory;
}

QByteArray frame(uint8_t type, uint8_t deviceId, std::initializer_list<uint8_t> payload)
{
    QByteArray bytes;
    for (const uint8_t b : payload) {
        bytes.append(static_cast<char>(b));
    }
    return PtySectionSimulator::encodeFrame(type, deviceId, bytes);
}

QByteArray positionFrame(int fader, uint16_t position)
{
    return frame(MessageType::FaderPosition, static_cast<uint8_t>(fader),
                 {static_cast<uint8_t>(position >> 8), static_cast<uint8_t>(position & 0xFF)});
}

// One section's hand on the panel: which frame comes next, and what went out.
class Hand
{
public:
    // The next frame of the stream.
    QByteArray next()
    {
        const uint64_t n = m_frames++;
        if (n % kHandEvery != 0) {
            const int fader = static_cast<int>(m_positions++ % kStreamFaders);
            uint16_t& position = m_position[static_cast<std::size_t>(fader)];
            position = static_cast<uint16_t>((position + 3 + 2 * fader) % kFinalPosition);
            ++m_sent.positions;
            return positionFrame(fader, position);
        }
        switch ((n / kHandEvery) % 4) {
            case 0:
                return toggle(m_faderTouch, kStreamFaders, MessageType::FaderTouch,
                              m_sent.faderTouches, m_sent.faderReleases);
            case 1:
                return toggle(m_mute, kStrips, MessageType::ButtonState, m_sent.presses,
                              m_sent.releases);
            case 2: {
                const int rotary = m_rotary;
                m_rotary = (m_rotary + 1) % kStrips;
                ++m_sent.steps;
                return frame(MessageType::RotaryStep, static_cast<uint8_t>(rotary),
                             {static_cast<uint8_t>(rotary % 2 == 0 ? 2 : -1)});
            }
            default:
                // A rotary tells a touch and its release alike (rotaryTouched()).
                return toggle(m_rotaryTouch, kStrips, MessageType::RotaryTouch,
                              m_sent.rotaryTouches, m_sent.rotaryTouches);
        }
    }

    // The last burst: every streaming fader to its final position.
    QByteArray last()
    {
        QByteArray bytes;
        for (int fader = 0; fader < kStreamFaders; ++fader) {
            bytes += positionFrame(fader, static_cast<uint16_t>(kFinalPosition + fader));
            ++m_sent.positions;
        }
        return bytes;
    }

    uint64_t frames() const { return m_frames; }
    const Tally& sent() const { return m_sent; }

private:
    struct Toggle
    {
        int index = 0;
        bool on = false;
    };

    // On, then off, then on for the next control.
    QByteArray toggle(Toggle& control, int count, uint8_t type, uint64_t& ons, uint64_t& offs)
    {
        const int index = control.index;
        control.on = !control.on;
        if (control.on) {
            ++ons;
        } else {
            ++offs;
            control.index = (control.index + 1) % count;
        }
        return frame(type, static_cast<uint8_t>(index), {static_cast<uint8_t>(control.on)});
    }

    uint64_t m_frames = 0;
    uint64_t m_positions = 0;
    std::array<uint16_t, kStreamFaders> m_position{};
    Toggle m_faderTouch;
    Toggle m_mute;
    Toggle m_rotaryTouch;
    int m_rotary = 0;
    Tally m_sent;
};

// The sections on their own thread, and their stream.
class Sections
{
public:
    explicit Sections(int count) : m_hands(static_cast<std::size_t>(count))
    {
        m_thread.setObjectName(QStringLiteral("SectionSimulators"));
        m_context.moveToThread(&m_thread);
        m_thread.start();
        m_context.runAndWait([this, count]() {
            for (int i = 0; i < count; ++i) {
                m_sims.push_back(std::make_unique<PtySectionSimulator>());
                m_sims.back()->setPacedBaudRate(kBaud);
            }
            m_timer = std::make_unique<QTimer>();
            m_timer->setTimerType(Qt::PreciseTimer);
            m_timer->setInterval(kBurstMs);
            QObject::connect(m_timer.get(), &QTimer::timeout, [this]() { burst(); });
        });
    }
    ~Sections()
    {
        m_context.runAndWait([this]() {
            m_timer.reset();
            m_sims.clear();
        });
        m_thread.quit();
        m_thread.wait();
    }
    Sections(const Sections&) = delete;
    Sections& operator=(const Sections&) = delete;

    bool open() const
    {
        for (const auto& sim : m_sims) {
            if (!sim->isOpen()) {
                return false;
            }
        }
        return true;
    }
    QByteArray ports() const
    {
        QStringList paths;
        for (const auto& sim : m_sims) {
            paths << sim->slavePath();
        }
        return paths.join(QLatin1Char(',')).toLocal8Bit();
    }

    void start()
    {
        m_context.runAndWait([this]() {
            m_clock.start();
            m_timer->start();
        });
    }
    // Stops the stream with each section's last burst.
    void stop()
    {
        m_context.runAndWait([this]() {
            m_timer->stop();
            for (std::size_t i = 0; i < m_sims.size(); ++i) {
                m_sims[i]->sendRaw(m_hands[i].last());
            }
        });
    }
    // Bytes the simulators hold because the pseudo-terminals take no more.
    double backlog()
    {
        int bytes = 0;
        m_context.runAndWait([this, &bytes]() {
            for (const auto& sim : m_sims) {
                bytes += sim->pendingOutgoing();
            }
        });
        return bytes;
    }
    Tally sent()
    {
        Tally total;
        m_context.runAndWait([this, &total]() {
            for (const Hand& hand : m_hands) {
                const Tally sent = hand.sent();
                total.positions += sent.positions;
                total.faderTouches += sent.faderTouches;
                total.faderReleases += sent.faderReleases;
                total.presses += sent.presses;
                total.releases += sent.releases;
                total.steps += sent.steps;
                total.rotaryTouches += sent.rotaryTouches;
            }
        });
        return total;
    }

private:
    // Simulators' thread: what is due at 1,000 frames a second since the start, one write
    // per section.
    void burst()
    {
        const uint64_t due =
            static_cast<uint64_t>(m_clock.nsecsElapsed()) / (1000000000ULL / kFramesPerSecond);
        for (std::size_t i = 0; i < m_sims.size(); ++i) {
            Hand& hand = m_hands[i];
            QByteArray bytes;
            while (hand.frames() < due) {
                bytes += hand.next();
            }
            m_sims[i]->sendRaw(bytes);
        }
    }

    QThread m_thread;
    ThreadMailbox m_context;
    std::vector<std::unique_ptr<PtySectionSimulator>> m_sims;
    std::vector<Hand> m_hands;
    std::unique_ptr<QTimer> m_timer;
    QElapsedTimer m_clock;
};

// The model's controls as the bindings hold them, and what their handles tell, on the QML
// thread.
class Listener
{
public:
    Listener(ISurface& surface, int sections) : m_sections(static_cast<std::size_t>(sections))
    {
        for (int section = 0; section < sections; ++section) {
            for (int index = 0; index < kStreamFaders; ++index) {
                holdFader(surface.fader(static_cast<int32_t>(FaderType::Fader), section, index),
                          section, index);
            }
            for (int index = 0; index < kStrips; ++index) {
                holdButton(surface.button(static_cast<int32_t>(ButtonType::Mute), section, index));
                holdRotary(
                    surface.rotary(static_cast<int32_t>(RotaryType::UnderScreen), section, index));
            }
        }
    }
    ~Listener()
    {
        for (const auto& [fader, handle] : m_faders) {
            fader->releaseHandle(handle.get());
        }
        for (const auto& [button, handle] : m_buttons) {
            button->releaseHandle(handle.get());
        }
        for (const auto& [rotary, handle] : m_rotaries) {
            rotary->releaseHandle(handle.get());
        }
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    bool complete(int sections) const
    {
        return m_faders.size() == static_cast<std::size_t>(sections * kStreamFaders) &&
               m_buttons.size() == static_cast<std::size_t>(sections * kStrips) &&
               m_rotaries.size() == static_cast<std::size_t>(sections * kStrips);
    }

    // From now on, times are taken from `woke` and signals are counted as told after it.
    void wake(const QElapsedTimer* woke)
    {
        m_woke = woke;
        m_toldBefore = m_seen.all();
    }

    const Tally& seen() const { return m_seen; }
    uint64_t toldAfter() const { return m_seen.all() - m_toldBefore; }
    bool latestSeen() const { return m_finals == m_faders.size(); }
    double latestMs() const { return m_latestNs / 1e6; }
    // Whether every streaming fader's last told position is its final one.
    bool latestHeld() const
    {
        for (std::size_t section = 0; section < m_sections; ++section) {
            for (int fader = 0; fader < kStreamFaders; ++fader) {
                if (m_last[section][static_cast<std::size_t>(fader)] != kFinalPosition + fader) {
                    return false;
                }
            }
        }
        return true;
    }

private:
    void holdFader(const std::shared_ptr<IFader>& fader, int section, int index)
    {
        if (!fader) {
            return;
        }
        const std::shared_ptr<FaderHandle> handle = fader->getHandle();
        m_faders.emplace_back(fader, handle);
        QObject::connect(
            handle.get(), &FaderHandle::faderMoved, [this, section, index](quint16 position) {
                ++m_seen.positions;
                m_last[static_cast<std::size_t>(section)][static_cast<std::size_t>(index)] =
                    position;
                if (position == kFinalPosition + index && ++m_finals == m_faders.size() && m_woke) {
                    m_latestNs = m_woke->nsecsElapsed();
                }
            });
        QObject::connect(handle.get(), &FaderHandle::faderTouched, [this](bool touched) {
            ++(touched ? m_seen.faderTouches : m_seen.faderReleases);
        });
    }
    void holdButton(const std::shared_ptr<IButton>& button)
    {
        if (!button) {
            return;
        }
        const std::shared_ptr<ButtonHandle> handle = button->getHandle();
        m_buttons.emplace_back(button, handle);
        QObject::connect(handle.get(), &ButtonHandle::buttonPressed,
                         [this]() { ++m_seen.presses; });
        QObject::connect(handle.get(), &ButtonHandle::buttonReleased,
                         [this]() { ++m_seen.releases; });
    }
    void holdRotary(const std::shared_ptr<IRotary>& rotary)
    {
        if (!rotary) {
            return;
        }
        const std::shared_ptr<RotaryHandle> handle = rotary->getHandle();
        m_rotaries.emplace_back(rotary, handle);
        QObject::connect(handle.get(), &RotaryHandle::rotaryRotated,
                         [this](qint8) { ++m_seen.steps; });
        QObject::connect(handle.get(), &RotaryHandle::rotaryTouched,
                         [this]() { ++m_seen.rotaryTouches; });
    }

    const std::size_t m_sections;
    std::vector<std::pair<std::shared_ptr<IFader>, std::shared_ptr<FaderHandle>>> m_faders;
    std::vector<std::pair<std::shared_ptr<IButton>, std::shared_ptr<ButtonHandle>>> m_buttons;
    std::vector<std::pair<std::shared_ptr<IRotary>, std::shared_ptr<RotaryHandle>>> m_rotaries;
    Tally m_seen;
    std::array<std::array<int, kStreamFaders>, kMaxSections> m_last{};
    std::size_t m_finals = 0;
    const QElapsedTimer* m_woke = nullptr;
    qint64 m_latestNs = 0;
    uint64_t m_toldBefore = 0;
};

int linksDown(ISurface& surface)
{
    int down = 0;
    for (const auto& link : surface.sectionLinks()) {
        down += link && link->state() == ISectionConnection::Connected ? 0 : 1;
    }
    return down;
}

// Runs the QML thread's event loop until `done` holds or `timeoutMs` has passed, asking
// every millisecond; `poll` is called on each look.
template <typename Done, typename Poll>
bool runUntil(Done done, Poll poll, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    QEventLoop loop;
    QTimer look;
    look.setTimerType(Qt::PreciseTimer);
    QObject::connect(&look, &QTimer::timeout, &loop, [&]() {
        poll();
        if (done() || clock.elapsed() > timeoutMs) {
            loop.quit();
        }
    });
    look.start(1);
    loop.exec();
    return done();
}

void runStall(benchmark::State& state)
{
    const bool onThread = state.range(0) != 0;
    const int sectionCount = static_cast<int>(state.range(1));
    const auto blockMs = static_cast<unsigned long>(state.range(2)) * 1000UL;
    for (auto _ : state) {
        Sections sections(sectionCount);
        if (!sections.open()) {
            state.SkipWithError("cannot make the pseudo-terminals");
            return;
        }
        const QByteArray savedPorts = qgetenv(SerialConnectionFactory::kPortsVariable);
        qputenv(SerialConnectionFactory::kPortsVariable, sections.ports());

        auto service = std::make_unique<WorksurfaceFunctions>();
        service->settings()->setDebugEnabled(false);
        service->settings()->setType(SurfaceSettings::Hardware);
        service->settings()->setMode(sectionCount == 3 ? SurfaceSettings::K60
                                                       : SurfaceSettings::K40);
        service->settings()->setLinkThread(onThread);
        service->connect();

        auto surface = [&service]() { return service->connection()->surface(); };
        const bool up = runUntil(
            [&]() {
                return surface() &&
                       surface()->sectionLinks().size() == static_cast<std::size_t>(sectionCount) &&
                       linksDown(*surface()) == 0;
            },
            [] {}, kUpTimeoutMs);
        std::unique_ptr<Listener> listener;
        if (up) {
            listener = std::make_unique<Listener>(*surface(), sectionCount);
        }
        const auto finish = [&]() {
            listener.reset();
            service.reset();
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            qputenv(SerialConnectionFactory::kPortsVariable, savedPorts);
        };
        if (!up || !listener->complete(sectionCount) ||
            service->linksOnSurfaceThread() != onThread) {
            finish();
            state.SkipWithError(!up ? "the links did not come up"
                                    : "the surface is not the one asked for");
            return;
        }

        sections.start();
        runUntil([] { return false; }, [] {}, kWarmUpMs);
        // A link that judged its section silent meanwhile would show here.
        int stateChanges = 0;
        for (int i = 0; i < sectionCount; ++i) {
            SectionInfoModel* const model = service->section(i);
            QObject::connect(model, &SectionInfoModel::linkStateChanged, model,
                             [&stateChanges]() { ++stateChanges; });
        }

        const Memory before = readMemory();
        QThread::msleep(blockMs);
        QElapsedTimer woke;
        woke.start();
        const Memory after = readMemory();
        const double backlog = sections.backlog();
        sections.stop();
        const Tally sent = sections.sent();
        listener->wake(&woke);

        // Caught up: every final position and every report that must not be lost told.
        double caughtUpMs = -1.0;
        runUntil([&]() { return caughtUpMs >= 0.0; },
                 [&]() {
                     if (listener->latestSeen() && listener->seen().kept() >= sent.kept()) {
                         caughtUpMs = woke.nsecsElapsed() / 1e6;
                     }
                 },
                 kCatchUpTimeoutMs);
        runUntil([] { return false; }, [] {}, kSettleMs);

        const Tally seen = listener->seen();
        const auto lostOf = [](uint64_t s, uint64_t t) {
            return static_cast<double>(s) - static_cast<double>(t);
        };
        state.SetIterationTime(listener->latestSeen() ? listener->latestMs() / 1e3
                                                      : kCatchUpTimeoutMs / 1e3);
        const auto bytes = [](double value) {
            return benchmark::Counter(value, benchmark::Counter::kDefaults,
                                      benchmark::Counter::OneK::kIs1024);
        };
        state.counters["heap_before"] = bytes(before.heap);
        state.counters["heap_growth"] = bytes(after.heap - before.heap);
        state.counters["rss_before"] = bytes(before.rss);
        state.counters["rss_growth"] = bytes(after.rss - before.rss);
        state.counters["sim_backlog"] = bytes(backlog);
        state.counters["sent_positions"] = static_cast<double>(sent.positions);
        state.counters["seen_positions"] = static_cast<double>(seen.positions);
        state.counters["coalesced"] = lostOf(sent.positions, seen.positions);
        state.counters["sent_touches"] = static_cast<double>(sent.faderTouches);
        state.counters["seen_touches"] = static_cast<double>(seen.faderTouches);
        state.counters["sent_untouches"] = static_cast<double>(sent.faderReleases);
        state.counters["seen_untouches"] = static_cast<double>(seen.faderReleases);
        state.counters["sent_presses"] = static_cast<double>(sent.presses);
        state.counters["seen_presses"] = static_cast<double>(seen.presses);
        state.counters["sent_releases"] = static_cast<double>(sent.releases);
        state.counters["seen_releases"] = static_cast<double>(seen.releases);
        state.counters["sent_steps"] = static_cast<double>(sent.steps);
        state.counters["seen_steps"] = static_cast<double>(seen.steps);
        state.counters["sent_rotary_touches"] = static_cast<double>(sent.rotaryTouches);
        state.counters["seen_rotary_touches"] = static_cast<double>(seen.rotaryTouches);
        state.counters["lost"] = lostOf(sent.kept(), seen.kept());
        state.counters["latest_ms"] = listener->latestSeen() ? listener->latestMs() : -1.0;
        state.counters["caught_up_ms"] = caughtUpMs;
        state.counters["latest_held"] = listener->latestHeld() ? 1.0 : 0.0;
        state.counters["told_after"] = static_cast<double>(listener->toldAfter());
        state.counters["state_changes"] = stateChanges;
        finish();
    }
}

}  // namespace

// Arguments: links on the surface thread (1) or on the QML thread (0); sections (2: K40,
// 3: K60); seconds the QML thread is held. The 30 s run shows how what a stall keeps grows
// with its length; the two runs without a stall time the same last burst with a QML thread
// that keeps up.
BENCHMARK(runStall)
    ->Name("BM_UiStall")
    ->ArgNames({"link_thread", "sections", "block_s"})
    ->Args({1, 2, 10})
    ->Args({1, 3, 10})
    ->Args({0, 2, 10})
    ->Args({0, 3, 10})
    ->Args({1, 3, 30})
    ->Args({1, 2, 0})
    ->Args({0, 2, 0})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
