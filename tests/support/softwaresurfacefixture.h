#pragma once

#include <cstdint>
#include <memory>

#include "support/fakesoftwarehandler.h"

namespace Velmora::Worksurface {
class ISectionInfoProvider;
class LinkRuntime;
class Logger;
class QmlControllerConnection;
class Settings;
class Surface;
class TaskPool;
}  // namespace Velmora::Worksurface

class ManualClock;
class SurfaceConnection;

// A whole worksurface built the way the surface service builds it (real factories, real
// queues, section connections and updaters) over the in-process software link, with every
// message the plugin sends to the sections recorded by a stand-in control. Time is the
// test's ManualClock; tick() runs one pass of the task pool. After start() every link is
// Connected: the software link answers the updater's probe at once.
//
// With TARVIX_WORKSURFACE_LINK_THREAD=1 the links are made and run on the surface thread, as
// the service puts them there: a LinkRuntime makes them on its thread with a pool of their
// own, and the surface holds their faces. The model stays on this thread with pool(). Both
// pools are then driven by hand (neither runs by itself), and each call below returns only
// once every hand-over between the two threads it caused has been taken on the other side:
// a test reads the same state after a pass, an unplugged section or a report sent in either
// mode.
class SoftwareSurfaceFixture
{
public:
    // mode: 1 for the two-section console, 2 for the three-section one.
    SoftwareSurfaceFixture(ManualClock& clock, uint8_t mode,
                           Velmora::Worksurface::ISectionInfoProvider* infoProvider = nullptr);
    ~SoftwareSurfaceFixture();

    // Opens every link (the surface's start()).
    void start();
    // One pass of the task pool at the current time (of both pools, the model's first, with
    // the links on the surface thread).
    void tick();
    // Moves the clock forward in 1 ms steps and runs the pool at each step, as the 5 ms
    // timer would (more finely), so periodic work happens at its exact times.
    void runForMs(int64_t ms);
    // Moves the clock just past the next 50 ms link pass and runs it, so everything
    // queued so far leaves the queues.
    void drain();

    // Hands the surface to a SurfaceConnection (which then owns it) as the surface service
    // does; the fixture keeps using it through a plain pointer.
    void installInto(SurfaceConnection& connection);

    Velmora::Worksurface::Surface& surface() const { return *m_surfaceRaw; }
    std::shared_ptr<Velmora::Worksurface::Surface> sharedSurface() const { return m_surface; }
    Velmora::Worksurface::QmlControllerConnection& controller() const { return *m_controller; }
    std::shared_ptr<Velmora::Worksurface::QmlControllerConnection> sharedController() const
    {
        return m_controller;
    }
    // The model's pool; the links' too unless they run on the surface thread.
    Velmora::Worksurface::TaskPool& pool() const { return *m_pool; }
    // Whether every link is where this run puts it (linkplacement.h): right after the build,
    // to prove that a run with the variable set did put them on the surface thread.
    bool linksWhereTheModeSays() const;
    Velmora::Worksurface::Settings& settings() const { return *m_settings; }
    // Everything the plugin sent to the simulated sections, in order (takes nothing).
    FakeSoftwareHandler& sectionSide() { return m_sectionSide; }

    // A section's report to the plugin, as a control of the software surface sends it.
    void sendToPlugin(uint8_t section, uint8_t type, uint8_t deviceId,
                      std::vector<uint8_t> payload);

private:
    class Deliveries;
    class PlugWaitingController;

    // One pass of both pools at the current time, then the hand-overs settled.
    void pass();
    // With the links on the surface thread: they take what this thread handed them so far
    // (an open, a section's report, a plug change), and their answers are settled here.
    void catchUpLinks();
    // With the links on the surface thread, once they have taken everything handed to them:
    // what they posted is delivered here, and what that hands back to them (a section's
    // answer to a ping) is taken there, round after round, until neither side has anything
    // left. The links on this thread do all that within the pass itself.
    void settleLinks();

    ManualClock& m_clock;
    std::shared_ptr<Velmora::Worksurface::Settings> m_settings;
    std::shared_ptr<Velmora::Worksurface::QmlControllerConnection> m_controller;
    std::shared_ptr<Velmora::Worksurface::TaskPool> m_pool;
    std::shared_ptr<Velmora::Worksurface::Logger> m_logger;
    std::shared_ptr<Velmora::Worksurface::Surface> m_surface;
    Velmora::Worksurface::Surface* m_surfaceRaw = nullptr;
    FakeSoftwareHandler m_sectionSide;
    // With the links on the surface thread only: the thread and its link side, the links'
    // pool, the controller as the links' stand-in reaches it, and the count of events this
    // thread has delivered (whether a round of settling brought anything).
    std::unique_ptr<Velmora::Worksurface::LinkRuntime> m_runtime;
    std::shared_ptr<Velmora::Worksurface::TaskPool> m_linkPool;
    std::shared_ptr<PlugWaitingController> m_linkController;
    std::unique_ptr<Deliveries> m_deliveries;
};
