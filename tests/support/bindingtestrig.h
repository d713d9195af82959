#pragma once

#include <QString>
#include <QStringList>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "bindings/surfaceconnection.h"
#include "serial/serialmessage.h"
#include "support/manualclock.h"
#include "support/softwaresurfacefixture.h"

// A running software worksurface installed into a SurfaceConnection, ready for bindings to
// be pointed at it, with every control frame that reaches a section recorded together with
// the millisecond it left the plugin. Pings and their answers are left out: they are the
// link's own business. Handles that were given up are deleted when the rig goes.
class BindingTestRig
{
public:
    struct Frame
    {
        qint64 atMs;
        uint8_t section;
        Velmora::Worksurface::SerialMessage message;
    };

    // mode: 1 for the two-section console (master section 1), 2 for the three-section one.
    // With install false the connection stays empty until installSurface().
    explicit BindingTestRig(uint8_t mode = 1, bool install = true);
    ~BindingTestRig();

    void installSurface();

    // Lets the link run until everything queued without a delay has left, then returns the
    // control frames that reached the sections since the last take, and forgets them.
    QStringList takeFrames();
    // The same without running the link first.
    QStringList takeFramesSoFar();
    // Runs the link 150 ms on from `releasedAtMs`, the moment a binding was given up, and
    // returns the frames that left since the last take, and forgets them: each as its
    // description followed by " in the release window" when it left 100 to 149 ms after
    // the release (when a released binding darkens its control), else by " at +<n> ms".
    QStringList takeReleaseFrames(qint64 releasedAtMs);
    // The frames recorded so far, with their times (not forgotten).
    const std::vector<Frame>& frames() const { return m_frames; }

    // "section 0 type 11 device 3 payload ff00"
    static QString frame(uint8_t section, uint8_t type, uint8_t deviceId, const char* payloadHex);
    static QString describe(uint8_t section, const Velmora::Worksurface::SerialMessage& message);

    qint64 nowMs() const { return clock.nowMs(); }

private:
    // Declared first so that it goes last: deletes the handles given up meanwhile.
    struct DeferredDeleteFlusher
    {
        ~DeferredDeleteFlusher();
    } m_flusher;

public:
    ManualClock clock;
    SoftwareSurfaceFixture fixture;
    SurfaceConnection connection;

private:
    std::vector<Frame> m_frames;
};

// A binding of `type` wired as a QML page declares it: its properties set between
// classBegin() and componentComplete(), the connection first. `more` sets any further
// properties (the rotary's scope) before the binding completes.
template <typename Binding, typename Type>
std::unique_ptr<Binding> makeWiredBinding(BindingTestRig& rig, Type type, int section, int index,
                                          bool active,
                                          const std::function<void(Binding&)>& more = {})
{
    auto binding = std::make_unique<Binding>();
    binding->classBegin();
    binding->setConnection(&rig.connection);
    binding->setType(type);
    binding->setSectionIndex(section);
    binding->setIndex(index);
    binding->setActive(active);
    if (more) {
        more(*binding);
    }
    binding->componentComplete();
    return binding;
}
