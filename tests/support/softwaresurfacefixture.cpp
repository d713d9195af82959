#include "support/softwaresurfacefixture.h"

#include "base/logger.h"
#include "base/settings.h"
#include "bindings/surfaceconnection.h"
#include "serial/serialconnectionfactory.h"
#include "software/qmlcontrollerconnection.h"
#include "support/manualclock.h"
#include "surface/componentfactory.h"
#include "surface/connectionfactory.h"
#include "surface/sectionfactory.h"
#include "surface/surface.h"
#include "surface/surfacebuilder.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

SoftwareSurfaceFixture::SoftwareSurfaceFixture(ManualClock& clock, uint8_t mode,
                                               ISectionInfoProvider* infoProvider)
    : m_clock(clock),
      m_settings(std::make_shared<Settings>()),
      m_controller(std::make_shared<QmlControllerConnection>()),
      m_pool(std::make_shared<TaskPool>())
{
    m_settings->setType(1);  // software surface
    m_settings->setMode(mode);
    m_settings->setDebugEnabled(false);
    m_logger = std::make_shared<Logger>(m_settings);
    m_controller->addSoftwareHandler(&m_sectionSide);

    SectionFactory sections(infoProvider, std::make_unique<ComponentFactory>(m_pool));
    ConnectionFactory connections(
        std::make_unique<SerialConnectionFactory>(m_settings, m_controller), m_pool, m_logger);
    m_surface = SurfaceBuilder::build(m_settings, sections, connections);
    m_surfaceRaw = m_surface.get();
}

SoftwareSurfaceFixture::~SoftwareSurfaceFixture()
{
    m_controller->removeSoftwareHandler(&m_sectionSide);
}

void SoftwareSurfaceFixture::start()
{
    m_surfaceRaw->start();
}

void SoftwareSurfaceFixture::tick()
{
    m_pool->runPendingTasks();
}

void SoftwareSurfaceFixture::runForMs(int64_t ms)
{
    for (int64_t i = 0; i < ms; ++i) {
        m_clock.advanceMs(1);
        tick();
    }
}

void SoftwareSurfaceFixture::drain()
{
    runForMs(51);
}

void SoftwareSurfaceFixture::installInto(SurfaceConnection& connection)
{
    connection.installSurface(m_surface);
}

void SoftwareSurfaceFixture::sendToPlugin(uint8_t section, uint8_t type, uint8_t deviceId,
                                          std::vector<uint8_t> payload)
{
    m_controller->sendToPlugin(section, SerialMessage(type, deviceId, std::move(payload)));
}
