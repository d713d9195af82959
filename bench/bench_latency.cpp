// Time from a section's bytes arriving to the signal a QML view sees: the section
// connection's parser, the dispatch to the component, the component's handle and, where a
// binding is attached, the binding's conversion and its own signal. One iteration is one
// report from the section and one emitted signal.
//
// The surface is a whole three-section console built as the surface service builds it,
// over the in-process software link, installed into a SurfaceConnection. The manual clock
// is used only to bring the links up and let the faders settle; the measured path reads the
// steady clock, as the plugin does on the console.
//
// Everything on this path is a direct call on the model thread: the component emits on its
// handle and the binding's connection to the handle is a direct one, so no posted events
// are needed for the signal to arrive (only the view-to-fader direction is queued).
#include <benchmark/benchmark.h>
#include <QByteArray>
#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QString>
#include <QtGlobal>
#include <cstdint>
#include <memory>
#include <vector>

#include "bindings/buttonbinding.h"
#include "bindings/faderbinding.h"
#include "bindings/surfaceconnection.h"
#include "serial/iserialdatareceiver.h"
#include "serial/serialmessage.h"
#include "software/qmlcontrollerconnection.h"
#include "support/manualclock.h"
#include "support/softwaresurfacefixture.h"
#include "surface/faderhandle.h"
#include "surface/ifader.h"
#include "surface/surface.h"

using namespace Velmora::Worksurface;

namespace {

constexpr uint8_t kK60 = 2;
constexpr uint8_t kSection = 0;
constexpr int kIndex = 3;
// Strip fader 3 and mute switch 3 of the section.
constexpr uint8_t kFaderDevice = 3;
constexpr uint8_t kMuteDevice = 3;
constexpr int32_t kChannelFader = 1;
// Far enough from zero that the links' start-up timing is not special.
constexpr qint64 kOriginNs = 1000LL * 1000000LL;
// Two hand positions well away from the bottom, so every report is a move.
constexpr uint16_t kPositions[2] = {200, 300};

SerialMessage faderReport(uint16_t position)
{
    return SerialMessage(
        MessageType::FaderPosition, kFaderDevice,
        {static_cast<uint8_t>(position >> 8), static_cast<uint8_t>(position & 0xFF)});
}

SerialMessage buttonReport(bool pressed)
{
    return SerialMessage(MessageType::ButtonState, kMuteDevice,
                         {static_cast<uint8_t>(pressed ? 1 : 0)});
}

// A running K60 surface in a SurfaceConnection with its links up and its unbound faders
// parked. release() hands the clock back to the steady clock before the measurement.
class Console
{
public:
    Console()
        : m_clock(std::make_unique<ManualClock>(kOriginNs)),
          m_fixture(*m_clock, kK60),
          m_connection(m_fixture.sharedController(), nullptr)
    {
        m_fixture.installInto(m_connection);
        m_fixture.start();
        m_fixture.runForMs(300);
        settle();
    }

    ~Console()
    {
        // Handles given up go with deleteLater.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // Delivers the bindings' queued calls to the components and lets the links run long
    // enough for a newly bound fader to be let go by its step.
    void settle()
    {
        QCoreApplication::sendPostedEvents();
        m_fixture.runForMs(300);
        QCoreApplication::sendPostedEvents();
        m_fixture.drain();
    }

    void releaseClock() { m_clock.reset(); }

    SoftwareSurfaceFixture& fixture() { return m_fixture; }
    SurfaceConnection* connection() { return &m_connection; }

    // The section connection, as the section's serial connection hands it bytes.
    ISerialDataReceiver* receiver() { return m_fixture.controller().dataReceiver(kSection); }

private:
    std::unique_ptr<ManualClock> m_clock;
    SoftwareSurfaceFixture m_fixture;
    SurfaceConnection m_connection;
};

// Plays QML creating the binding with its initial values.
template <typename Binding, typename Type>
void declare(Binding& binding, SurfaceConnection* connection, Type type)
{
    binding.classBegin();
    binding.setConnection(connection);
    binding.setType(type);
    binding.setSectionIndex(kSection);
    binding.setIndex(kIndex);
    binding.setActive(true);
    binding.componentComplete();
}

void finish(benchmark::State& state, uint64_t reports)
{
    if (reports != static_cast<uint64_t>(state.iterations())) {
        state.SkipWithError("a report did not reach the signal");
        return;
    }
    state.SetItemsProcessed(state.iterations());
}

// Bytes handed to the section connection as its serial connection does on readyRead, up to
// the binding's faderMoved(float).
void BM_BytesToFaderBindingMoved(benchmark::State& state)
{
    Console console;
    FaderBinding binding;
    declare(binding, console.connection(), FaderBinding::Fader);
    console.settle();
    uint64_t reports = 0;
    float last = 0.0f;
    QObject::connect(&binding, &FaderBinding::faderMoved, [&](float dB) {
        last = dB;
        ++reports;
    });
    const QByteArray frames[2] = {encode(faderReport(kPositions[0])),
                                  encode(faderReport(kPositions[1]))};
    ISerialDataReceiver* const receiver = console.receiver();
    console.releaseClock();
    unsigned next = 0;
    for (auto _ : state) {
        receiver->dataReceived(frames[next]);
        next ^= 1U;
    }
    benchmark::DoNotOptimize(last);
    finish(state, reports);
}
BENCHMARK(BM_BytesToFaderBindingMoved);

// The same from the software controller's sendToPlugin, which encodes the message first
// (what a software section's QML control does).
void BM_ControllerToFaderBindingMoved(benchmark::State& state)
{
    Console console;
    FaderBinding binding;
    declare(binding, console.connection(), FaderBinding::Fader);
    console.settle();
    uint64_t reports = 0;
    float last = 0.0f;
    QObject::connect(&binding, &FaderBinding::faderMoved, [&](float dB) {
        last = dB;
        ++reports;
    });
    const SerialMessage messages[2] = {faderReport(kPositions[0]), faderReport(kPositions[1])};
    auto& controller = console.fixture().controller();
    console.releaseClock();
    unsigned next = 0;
    for (auto _ : state) {
        controller.sendToPlugin(kSection, messages[next]);
        next ^= 1U;
    }
    benchmark::DoNotOptimize(last);
    finish(state, reports);
}
BENCHMARK(BM_ControllerToFaderBindingMoved);

// Bytes to the fader handle's faderMoved(quint16), no binding attached.
void BM_BytesToFaderHandleMoved(benchmark::State& state)
{
    Console console;
    const std::shared_ptr<IFader> fader =
        console.fixture().surface().fader(kChannelFader, kSection, kIndex);
    if (!fader) {
        state.SkipWithError("no fader 3 on section 0");
        return;
    }
    const std::shared_ptr<FaderHandle> handle = fader->getHandle();
    console.settle();
    uint64_t reports = 0;
    quint16 last = 0;
    QObject::connect(handle.get(), &FaderHandle::faderMoved, [&](quint16 position) {
        last = position;
        ++reports;
    });
    const QByteArray frames[2] = {encode(faderReport(kPositions[0])),
                                  encode(faderReport(kPositions[1]))};
    ISerialDataReceiver* const receiver = console.receiver();
    console.releaseClock();
    unsigned next = 0;
    for (auto _ : state) {
        receiver->dataReceived(frames[next]);
        next ^= 1U;
    }
    benchmark::DoNotOptimize(last);
    finish(state, reports);
    fader->releaseHandle(handle.get());
}
BENCHMARK(BM_BytesToFaderHandleMoved);

// Bytes of a mute switch's report to the binding's buttonPressed or buttonReleased. A
// switch reports only changes, so presses and releases alternate: half the iterations end
// in buttonPressed, half in buttonReleased (the same path, one branch apart).
void BM_BytesToButtonBindingPressed(benchmark::State& state)
{
    Console console;
    ButtonBinding binding;
    declare(binding, console.connection(), ButtonBinding::Mute);
    console.settle();
    uint64_t presses = 0;
    uint64_t releases = 0;
    QObject::connect(&binding, &ButtonBinding::buttonPressed, [&] { ++presses; });
    QObject::connect(&binding, &ButtonBinding::buttonReleased, [&] { ++releases; });
    const QByteArray frames[2] = {encode(buttonReport(true)), encode(buttonReport(false))};
    ISerialDataReceiver* const receiver = console.receiver();
    console.releaseClock();
    unsigned next = 0;
    for (auto _ : state) {
        receiver->dataReceived(frames[next]);
        next ^= 1U;
    }
    if (presses != releases + next) {
        state.SkipWithError("presses and releases out of step");
        return;
    }
    state.counters["presses"] = static_cast<double>(presses);
    finish(state, presses + releases);
}
BENCHMARK(BM_BytesToButtonBindingPressed);

}  // namespace
