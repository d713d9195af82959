#pragma once

#include <cstdint>
#include <memory>

#include "support/fakesoftwarehandler.h"

namespace Velmora::Worksurface {
class ISectionInfoProvider;
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
class SoftwareSurfaceFixture
{
public:
    // mode: 1 for the two-section console, 2 for the three-section one.
    SoftwareSurfaceFixture(ManualClock& clock, uint8_t mode,
                           Velmora::Worksurface::ISectionInfoProvider* infoProvider = nullptr);
    ~SoftwareSurfaceFixture();

    // Opens every link (the surface's start()).
    void start();
    // One pass of the task pool at the current time.
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
    Velmora::Worksurface::TaskPool& pool() const { return *m_pool; }
    Velmora::Worksurface::Settings& settings() const { return *m_settings; }
    // Everything the plugin sent to the simulated sections, in order (takes nothing).
    FakeSoftwareHandler& sectionSide() { return m_sectionSide; }

    // A section's report to the plugin, as a control of the software surface sends it.
    void sendToPlugin(uint8_t section, uint8_t type, uint8_t deviceId,
                      std::vector<uint8_t> payload);

private:
    ManualClock& m_clock;
    std::shared_ptr<Velmora::Worksurface::Settings> m_settings;
    std::shared_ptr<Velmora::Worksurface::QmlControllerConnection> m_controller;
    std::shared_ptr<Velmora::Worksurface::TaskPool> m_pool;
    std::shared_ptr<Velmora::Worksurface::Logger> m_logger;
    std::shared_ptr<Velmora::Worksurface::Surface> m_surface;
    Velmora::Worksurface::Surface* m_surfaceRaw = nullptr;
    FakeSoftwareHandler m_sectionSide;
};
