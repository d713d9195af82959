#include "qml/worksurfacefunctions.h"

#include <QString>
#include <utility>

#include "base/logcategories.h"
#include "base/logger.h"
#include "base/settings.h"
#include "serial/isectionconnection.h"
#include "serial/serialconnectionfactory.h"
#include "software/qmlcontrollerconnection.h"
#include "surface/componentfactory.h"
#include "surface/connectionfactory.h"
#include "surface/isurface.h"
#include "surface/sectionfactory.h"
#include "surface/surface.h"
#include "surface/surfacebuilder.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

WorksurfaceFunctions::WorksurfaceFunctions()
    : SurfaceTraceSaver(nullptr),
      QQmlParserStatus(),
      m_settings(std::make_shared<Settings>()),
      m_controllerConnection(std::make_shared<QmlControllerConnection>())
{
    m_surfaceSettings = new SurfaceSettings(m_settings, this);
    m_connection = new SurfaceConnection(m_controllerConnection, this);
    m_faderSettings = new FaderSettings(this);
    m_logger = std::make_shared<Logger>(m_settings, lcService());
    m_linkRuntime = std::make_unique<LinkRuntime>(m_logger);
    setTraceSources(m_connection, m_settings, m_logger);
    // Always three, whatever the console model: QML may show a section that the current
    // model does not have.
    for (std::size_t i = 0; i < m_sectionInfos.size(); ++i) {
        m_sectionInfos[i] = new SectionInfoModel(static_cast<int>(i), this);
        const int section = static_cast<int>(i);
        m_sectionInfos[i]->setTraceSaver(
            [this, section](const QString& path) { return saveSectionTrace(path, section); });
    }

    QObject::connect(m_surfaceSettings, &SurfaceSettings::masterSectionIndexChanged, this,
                     &WorksurfaceFunctions::masterSectionIndexChanged);
    QObject::connect(m_surfaceSettings, &SurfaceSettings::sectionCountChanged, this,
                     &WorksurfaceFunctions::sectionCountChanged);
    QObject::connect(m_faderSettings, &FaderSettings::restModeChanged, this,
                     &WorksurfaceFunctions::setFaderRestMode);

    // The thread is named "WorksurfaceThread" by the runtime. Emitted on the surface thread,
    // both signals arrive queued and run here, on the QML thread (docs/architecture.md,
    // Threads).
    QObject::connect(&m_linkRuntime->thread(), &QThread::started, this,
                     &WorksurfaceFunctions::onStartSurfaceThread);
    QObject::connect(&m_linkRuntime->thread(), &QThread::finished, this,
                     &WorksurfaceFunctions::onStopSurfaceThread);
}

WorksurfaceFunctions::~WorksurfaceFunctions()
{
    // Stops the thread; links still on it are closed and released there.
    m_linkRuntime->stop(true);
    // The software controls may outlive this object and keep the controller connection;
    // what they report from now on must not reach the links of the surface that goes with
    // this object (the queued thread-finished slot that would have closed them is dropped).
    if (m_controllerConnection) {
        m_controllerConnection->clearDataReceivers();
    }
    m_logger.reset();
    m_controllerConnection.reset();
    m_taskPool.reset();
    m_settings.reset();
    // The thread goes with the runtime, its mailboxes with it: every face of a link on it
    // holds them weakly and was emptied by the stop. The surface, held by the surface
    // connection, goes with the children once the QObject base is destroyed; its links keep
    // their own shares of the pool, the logger, the settings and the controller connection.
    m_linkRuntime.reset();
}

QObject* WorksurfaceFunctions::singletonProvider(QQmlEngine* engine, QJSEngine* scriptEngine)
{
    Q_UNUSED(engine);
    Q_UNUSED(scriptEngine);
    return new WorksurfaceFunctions();
}

SectionInfoModel* WorksurfaceFunctions::section(int index) const
{
    // Read as unsigned, so a negative index is out of range as well.
    if (static_cast<unsigned>(index) >= m_sectionInfos.size()) {
        return nullptr;
    }
    return m_sectionInfos[static_cast<std::size_t>(index)];
}

ISectionInfo* WorksurfaceFunctions::getForSection(uint8_t section)
{
    if (section >= m_sectionInfos.size()) {
        return nullptr;
    }
    return m_sectionInfos[section];
}

void WorksurfaceFunctions::connect()
{
    m_linkRuntime->stop(false);
    // The running surface's software links are about to be replaced; none of them may be
    // handed bytes by the simulated sections any more.
    m_controllerConnection->clearDataReceivers();
    m_linkRuntime->start();
}

const QThread& WorksurfaceFunctions::surfaceThread() const
{
    return m_linkRuntime->thread();
}

std::shared_ptr<TaskPool> WorksurfaceFunctions::linkTaskPool() const
{
    return m_linkRuntime->linkPool();
}

bool WorksurfaceFunctions::linksOnSurfaceThread() const
{
    return m_linkRuntime->linksOnThread();
}

void WorksurfaceFunctions::calibrate()
{
    emit startCalibration();
}

bool WorksurfaceFunctions::linksGoOnSurfaceThread() const
{
    return m_settings->linkThread() || qgetenv(kLinkThreadVariable) == QByteArrayLiteral("1");
}

void WorksurfaceFunctions::onStartSurfaceThread()
{
    m_linkRuntime->startArrived();
    resetSectionLinks();
    if (m_taskPool) {
        m_taskPool->stop();
    }
    // The old pool stays alive for as long as the old surface's links and controls hold it;
    // it is stopped, so none of their tasks runs again.
    m_taskPool = std::make_shared<TaskPool>();
    m_taskPool->start();

    const bool linksOnThread = linksGoOnSurfaceThread();
    m_linkRuntime->beginBuild(linksOnThread, m_controllerConnection);
    std::shared_ptr<ISoftwareControllerConnection> controller = m_controllerConnection;
    std::shared_ptr<ITaskPool> linkPool = m_taskPool;
    if (linksOnThread) {
        controller = m_linkRuntime->buildController();
        linkPool = m_linkRuntime->buildPool();
    }
    auto serialFactory = std::make_unique<SerialConnectionFactory>(m_settings, controller);
    ConnectionFactory connectionFactory(std::move(serialFactory), linkPool, m_logger,
                                        linksOnThread ? m_linkRuntime.get() : nullptr);
    auto componentFactory = std::make_unique<ComponentFactory>(m_taskPool);
    SectionFactory sectionFactory(this, std::move(componentFactory));

    // A start queued by an earlier connect() may have registered links of a surface that
    // this build replaces (docs/surface-service.md, calling connect() several times).
    m_controllerConnection->clearDataReceivers();

    const std::shared_ptr<Surface> surface =
        SurfaceBuilder::build(m_settings, sectionFactory, connectionFactory);
    m_linkRuntime->endBuild(surface != nullptr);
    if (surface) {
        QObject::connect(this, &WorksurfaceFunctions::startCalibration, surface.get(),
                         &ISurface::calibrate);
        QObject::connect(surface.get(), &ISurface::isCalibratingChanged, this,
                         &WorksurfaceFunctions::isCalibratingChanged);
    }
    // Takes ownership and releases the previous surface; a null surface leaves it in place.
    m_connection->installSurface(surface);
    if (ISurface* current = m_connection->surface()) {
        current->start();
    }
}

void WorksurfaceFunctions::resetSectionLinks()
{
    // The models follow the links of the surface built now; those of a section the model
    // has no more stay Closed.
    for (SectionInfoModel* info : m_sectionInfos) {
        info->resetLink();
    }
}

void WorksurfaceFunctions::onStopSurfaceThread()
{
    if (m_taskPool) {
        m_taskPool->stop();
    }
    if (ISurface* current = m_connection->surface()) {
        current->stop();
    }
}

void WorksurfaceFunctions::setFaderRestMode()
{
    if (ISurface* current = m_connection->surface()) {
        current->setFaderRestMode(
            static_cast<Velmora::Worksurface::RestMode>(m_faderSettings->restMode()));
    }
}

int WorksurfaceFunctions::masterSectionIndex() const
{
    return m_surfaceSettings->masterSectionIndex();
}

int WorksurfaceFunctions::sectionCount() const
{
    return m_surfaceSettings->sectionCount();
}

int WorksurfaceFunctions::sectionStripCount() const
{
    return m_surfaceSettings->stripCount();
}

bool WorksurfaceFunctions::isCalibrating() const
{
    const ISurface* current = m_connection->surface();
    return current != nullptr && current->isCalibrating();
}
