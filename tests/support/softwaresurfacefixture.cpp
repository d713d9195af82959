#include "support/softwaresurfacefixture.h"

#include <QCoreApplication>
#include <QObject>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

#include "base/logger.h"
#include "base/settings.h"
#include "bindings/surfaceconnection.h"
#include "serial/isoftwaresectionline.h"
#include "serial/linkruntime.h"
#include "serial/serialconnectionfactory.h"
#include "software/qmlcontrollerconnection.h"
#include "support/linkplacement.h"
#include "support/manualclock.h"
#include "surface/componentfactory.h"
#include "surface/connectionfactory.h"
#include "surface/sectionfactory.h"
#include "surface/surface.h"
#include "surface/surfacebuilder.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

// Rounds of settling before a pass is taken for a loop between the two threads.
constexpr int kMaxSettleRounds = 10000;

}  // namespace

// Counts every event delivered to an object of this thread (an application's event filter
// sees those): a round of settling that delivered none brought nothing from the links.
class SoftwareSurfaceFixture::Deliveries : public QObject
{
public:
    Deliveries() { QCoreApplication::instance()->installEventFilter(this); }
    ~Deliveries() override
    {
        if (QCoreApplication* application = QCoreApplication::instance()) {
            application->removeEventFilter(this);
        }
    }

    quint64 count() const { return m_count; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        ++m_count;
        return QObject::eventFilter(watched, event);
    }

private:
    quint64 m_count = 0;
};

// The controller as the links' stand-in on the surface thread reaches it: the fixture's own
// controller, except that a section's plug change returns only once the line on the links'
// thread has taken it, as it has at once when the line runs here (a test reads the line's
// log right after unplugging the section).
class SoftwareSurfaceFixture::PlugWaitingController : public ISoftwareControllerConnection
{
public:
    PlugWaitingController(std::shared_ptr<QmlControllerConnection> controller, LinkRuntime& runtime)
        : m_controller(std::move(controller)), m_runtime(runtime)
    {}

    void addSoftwareHandler(ISoftwareSerialMessageHandler* handler) override
    {
        m_controller->addSoftwareHandler(handler);
    }
    void setDataReceiver(uint8_t sectionIndex, ISerialDataReceiver* receiver) override
    {
        m_controller->setDataReceiver(sectionIndex, receiver);
    }
    void removeDataReceiver(uint8_t sectionIndex, ISerialDataReceiver* receiver) override
    {
        m_controller->removeDataReceiver(sectionIndex, receiver);
    }
    void sendBootloaderReply(uint8_t sectionIndex, const BootloaderPacket& packet) override
    {
        m_controller->sendBootloaderReply(sectionIndex, packet);
    }
    void sendToPlugin(uint8_t sectionIndex, const SerialMessage& message) override
    {
        m_controller->sendToPlugin(sectionIndex, message);
    }
    void messageFromPlugin(uint8_t sectionIndex, const SerialMessage& message) override
    {
        m_controller->messageFromPlugin(sectionIndex, message);
    }
    void replayLastMessage(uint8_t sectionIndex, uint8_t type, uint8_t deviceId) override
    {
        m_controller->replayLastMessage(sectionIndex, type, deviceId);
    }
    void setSectionLine(uint8_t sectionIndex, ISoftwareSectionLine* line) override
    {
        // Each wrapper stays until the fixture goes, so that none is let go while the
        // controller may still be calling it.
        m_lines.push_back(std::make_unique<Line>(line, m_runtime));
        m_current[sectionIndex] = m_lines.back().get();
        m_controller->setSectionLine(sectionIndex, m_lines.back().get());
    }
    void removeSectionLine(uint8_t sectionIndex, ISoftwareSectionLine* line) override
    {
        const auto current = m_current.find(sectionIndex);
        if (current != m_current.end() && current->second->wraps(line)) {
            m_controller->removeSectionLine(sectionIndex, current->second);
            m_current.erase(current);
        }
    }
    bool isSectionPlugged(uint8_t sectionIndex) const override
    {
        return m_controller->isSectionPlugged(sectionIndex);
    }
    bool takeBootloaderPacket(uint8_t sectionIndex, const BootloaderPacket& packet) override
    {
        return m_controller->takeBootloaderPacket(sectionIndex, packet);
    }
    void bootloaderPacketFromPlugin(uint8_t sectionIndex, const BootloaderPacket& packet) override
    {
        m_controller->bootloaderPacketFromPlugin(sectionIndex, packet);
    }

private:
    class Line : public ISoftwareSectionLine
    {
    public:
        Line(ISoftwareSectionLine* line, LinkRuntime& runtime) : m_line(line), m_runtime(runtime) {}

        bool wraps(const ISoftwareSectionLine* line) const { return line == m_line; }

        void pluggedChanged(bool plugged) override
        {
            m_line->pluggedChanged(plugged);
            // The change is posted to the line's thread; it has taken it once this returns.
            m_runtime.runOnLinkThread([]() {});
        }
        bool isDown() const override { return m_line->isDown(); }

    private:
        ISoftwareSectionLine* const m_line;
        LinkRuntime& m_runtime;
    };

    const std::shared_ptr<QmlControllerConnection> m_controller;
    LinkRuntime& m_runtime;
    std::vector<std::unique_ptr<Line>> m_lines;
    std::map<uint8_t, Line*> m_current;
};

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
    if (!linkThreadRequested()) {
        ConnectionFactory connections(
            std::make_unique<SerialConnectionFactory>(m_settings, m_controller), m_pool, m_logger);
        m_surface = SurfaceBuilder::build(m_settings, sections, connections);
        m_surfaceRaw = m_surface.get();
        return;
    }

    // As the service builds with the links on the surface thread: the thread started, the
    // build's pool and controller stand-in made there, each link made there through the
    // runtime, the build ended.
    m_deliveries = std::make_unique<Deliveries>();
    m_runtime = std::make_unique<LinkRuntime>(m_logger);
    m_runtime->start();
    m_linkController = std::make_shared<PlugWaitingController>(m_controller, *m_runtime);
    // The links' pool is driven by hand, like the model's, which never runs by itself here
    // either.
    m_runtime->beginBuild(true, m_linkController, LinkRuntime::BuildPool::DrivenByHand);
    m_linkPool = m_runtime->buildPool();
    ConnectionFactory connections(
        std::make_unique<SerialConnectionFactory>(m_settings, m_runtime->buildController()),
        m_linkPool, m_logger, m_runtime.get());
    m_surface = SurfaceBuilder::build(m_settings, sections, connections);
    m_surfaceRaw = m_surface.get();
    m_runtime->endBuild(m_surface != nullptr);
    // The software lines' registrations reach the controller.
    settleLinks();
}

SoftwareSurfaceFixture::~SoftwareSurfaceFixture()
{
    if (m_runtime) {
        // As the service goes: the pool's last share here is let go on its thread, then the
        // stop closes every link there and releases it, and the thread ends. The runtime goes
        // after the controller has forgotten this handler, and the faces, held by the surface,
        // after the runtime: they hold nothing by then.
        m_runtime->runOnLinkThread([this]() { m_linkPool.reset(); });
        m_runtime->stop(true);
    }
    m_controller->removeSoftwareHandler(&m_sectionSide);
    m_runtime.reset();
}

void SoftwareSurfaceFixture::start()
{
    m_surfaceRaw->start();
    catchUpLinks();
}

void SoftwareSurfaceFixture::tick()
{
    catchUpLinks();
    pass();
}

void SoftwareSurfaceFixture::runForMs(int64_t ms)
{
    catchUpLinks();
    for (int64_t i = 0; i < ms; ++i) {
        m_clock.advanceMs(1);
        pass();
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

bool SoftwareSurfaceFixture::linksWhereTheModeSays() const
{
    return ::linksWhereTheModeSays(
        m_surface ? m_surface->connections() : std::vector<std::shared_ptr<ISectionConnection>>(),
        m_runtime ? &m_runtime->thread() : nullptr);
}

void SoftwareSurfaceFixture::sendToPlugin(uint8_t section, uint8_t type, uint8_t deviceId,
                                          std::vector<uint8_t> payload)
{
    m_controller->sendToPlugin(section, SerialMessage(type, deviceId, std::move(payload)));
    catchUpLinks();
}

void SoftwareSurfaceFixture::pass()
{
    m_pool->runPendingTasks();
    if (!m_runtime) {
        return;
    }
    m_runtime->runOnLinkThread([pool = m_linkPool]() { pool->runPendingTasks(); });
    settleLinks();
}

void SoftwareSurfaceFixture::catchUpLinks()
{
    if (!m_runtime) {
        return;
    }
    m_runtime->runOnLinkThread([]() {});
    settleLinks();
}

void SoftwareSurfaceFixture::settleLinks()
{
    for (int round = 0; round < kMaxSettleRounds; ++round) {
        const quint64 before = m_deliveries->count();
        QCoreApplication::sendPostedEvents();
        if (m_deliveries->count() == before) {
            return;
        }
        m_runtime->runOnLinkThread([]() {});
    }
    std::fprintf(stderr,
                 "SoftwareSurfaceFixture: the links and this thread still hand work to "
                 "each other after %d rounds\n",
                 kMaxSettleRounds);
    std::abort();
}
