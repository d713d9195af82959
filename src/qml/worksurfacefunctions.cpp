#include "qml/worksurfacefunctions.h"

#include <QString>
#include <utility>

#include "base/logcategories.h"
#include "base/logger.h"
#include "base/settings.h"
#include "serial/isectionconnection.h"
#include "serial/linkthreadconnection.h"
#include "serial/linkthreadcontroller.h"
#include "serial/sectionconnection.h"
#include "serial/serialconnectionfactory.h"
#include "software/qmlcontrollerconnection.h"
#include "surface/componentfactory.h"
#include "surface/connectionfactory.h"
#include "surface/isurface.h"
#include "surface/sectionfactory.h"
#include "surface/surface.h"
#include "surface/surfacebuilder.h"
#include "surface/tracefile.h"
#include "tasks/taskpool.h"
#include "tasks/threadmailbox.h"
#include "tasks/timedrive.h"

using namespace Velmora::Worksurface;

WorksurfaceFunctions::WorksurfaceFunctions()
    : SurfaceTraceSaver(nullptr),
      QQmlParserStatus(),
      m_thread(),
      m_settings(std::make_shared<Settings>()),
      m_controllerConnection(std::make_shared<QmlControllerConnection>())
{
    m_surfaceSettings = new SurfaceSettings(m_settings, this);
    m_connection = new SurfaceConnection(m_controllerConnection, this);
    m_faderSettings = new FaderSettings(this);
    m_logger = std::make_shared<Logger>(m_settings, lcService());
    // Always three, whatever the console model: QML may show a section that the current
    // model does not have.
    for (std::size_t i = 0; i < m_sectionInfos.size(); ++i) {
        m_sectionInfos[i] = new SectionInfoModel(static_cast<int>(i), this);
        const int section = static_cast<int>(i);
        m_sectionInfos[i]->setTraceSaver(
            [this, section](const QString& path) { return writeTrace(path, section); });
    }

    QObject::connect(m_surfaceSettings, &SurfaceSettings::masterSectionIndexChanged, this,
                     &WorksurfaceFunctions::masterSectionIndexChanged);
    QObject::connect(m_surfaceSettings, &SurfaceSettings::sectionCountChanged, this,
                     &WorksurfaceFunctions::sectionCountChanged);
    QObject::connect(m_faderSettings, &FaderSettings::restModeChanged, this,
                     &WorksurfaceFunctions::setFaderRestMode);

    m_thread.setObjectName(QStringLiteral("WorksurfaceThread"));
    m_linkMailbox.moveToThread(&m_thread);
    // Emitted on the surface thread, both arrive queued and run here, on the QML thread
    // (docs/architecture.md, Threads).
    QObject::connect(&m_thread, &QThread::started, this,
                     &WorksurfaceFunctions::onStartSurfaceThread);
    QObject::connect(&m_thread, &QThread::finished, this,
                     &WorksurfaceFunctions::onStopSurfaceThread);
}

WorksurfaceFunctions::~WorksurfaceFunctions()
{
    stopSurfaceThread(true);
    // The starts still queued for this object are dropped with it.
    TimeDrive::handOverEnds(m_startsOnTheirWay);
    if (m_linkController) {
        m_linkController->detach();
    }
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
    // The thread object goes with the members; the surface, held by the surface
    // connection, goes with the children once the QObject base is destroyed. Its links keep
    // their own shares of the pool, the logger, the settings and the controller connection.
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
    stopSurfaceThread(false);
    // The running surface's software links are about to be replaced; none of them may be
    // handed bytes by the simulated sections any more.
    m_controllerConnection->clearDataReceivers();
    if (TimeDrive::handOverBegins()) {
        ++m_startsOnTheirWay;
    }
    m_thread.start(QThread::InheritPriority);
}

bool WorksurfaceFunctions::writeTrace(const QString& path, int section)
{
    using Velmora::Worksurface::ISectionConnection;
    using Velmora::Worksurface::TraceFile;
    std::vector<std::shared_ptr<ISectionConnection>> links;
    if (Velmora::Worksurface::ISurface* current = m_connection->surface()) {
        for (const auto& link : current->sectionLinks()) {
            if (link && (section < 0 || link->sectionIndex() == section)) {
                links.push_back(link);
            }
        }
    }
    if (links.empty()) {
        m_logger->warning(
            QStringLiteral("Cannot save the trace to %1: %2")
                .arg(path, section < 0 ? QStringLiteral("no surface")
                                       : QStringLiteral("no link for section %1").arg(section)));
        return false;
    }
    // The rings are copied now; the file is written on the trace writer thread, which logs
    // a failure it meets there.
    const QString why =
        TraceFile::saveInBackground(path, TraceFile::header(*m_settings, links), links, m_logger);
    if (!why.isEmpty()) {
        m_logger->warning(QStringLiteral("Cannot save the trace to %1: %2").arg(path, why));
        return false;
    }
    return true;
}

void WorksurfaceFunctions::calibrate()
{
    emit startCalibration();
}

void WorksurfaceFunctions::stopSurfaceThread(bool releaseLinks)
{
    if (!m_thread.isRunning()) {
        return;
    }
    if (!stopLinksOnSurfaceThread(releaseLinks)) {
        m_thread.quit();
    }
    if (m_thread.wait(kThreadStopTimeoutMs)) {
        return;
    }
    m_thread.terminate();
    // A terminated thread is gone only once wait() says so; until then it could be neither
    // restarted nor destroyed. It runs nothing but an event loop, which is cancelled at once.
    m_thread.wait();
    m_logger->warning(
        QStringLiteral("WS thread did not shut down in timely manner and was terminated..."));
}

bool WorksurfaceFunctions::stopLinksOnSurfaceThread(bool release)
{
    if (!m_linkPool) {
        return false;
    }
    std::vector<std::shared_ptr<SectionConnection>> links;
    if (ISurface* current = m_connection->surface()) {
        for (const auto& link : current->sectionLinks()) {
            if (auto* onThread = dynamic_cast<LinkThreadConnection*>(link.get())) {
                if (auto held = release ? onThread->takeLink() : onThread->link()) {
                    links.push_back(std::move(held));
                }
            }
        }
    }
    // Closed where they run, as the thread's finish closes links on the QML thread, and
    // released there too when the service goes (their pool last: they hold it); the thread
    // ends once that is done, and the wait below still bounds it all. Kept, they stay with
    // the surface, which a connect() that builds nothing starts again.
    m_linkMailbox.post([links = std::move(links), pool = m_linkPool]() mutable {
        for (const auto& link : links) {
            link->close();
        }
        links.clear();
        pool->stop();
        pool.reset();
        QThread::currentThread()->quit();
    });
    if (release) {
        m_linkPool.reset();
    }
    return true;
}

void WorksurfaceFunctions::prepareLinkThread()
{
    // The pool is made on the surface thread, so that its timer runs there.
    m_linkMailbox.runAndWait([this]() {
        m_linkPool = std::make_shared<TaskPool>();
        m_linkPool->start();
    });
    m_linkController = std::make_shared<LinkThreadController>(m_controllerConnection, &m_qmlMailbox,
                                                              &m_linkMailbox);
}

void WorksurfaceFunctions::onStartSurfaceThread()
{
    if (m_startsOnTheirWay > 0) {
        --m_startsOnTheirWay;
        TimeDrive::handOverEnds();
    }
    resetSectionLinks();
    if (m_taskPool) {
        m_taskPool->stop();
    }
    // The old pool stays alive for as long as the old surface's links and controls hold it;
    // it is stopped, so none of their tasks runs again.
    m_taskPool = std::make_shared<TaskPool>();
    m_taskPool->start();

    if (m_linkController) {
        m_linkController->detach();
        m_linkController.reset();
    }
    if (m_linkPool) {
        // A surface built twice on one run of the thread (connect() called again before the
        // first build): the previous pool goes on its own thread, after the links that hold it.
        m_linkMailbox.post([pool = std::move(m_linkPool)]() mutable {
            pool->stop();
            pool.reset();
        });
    }
    m_linksOnThread =
        m_settings->linkThread() || qgetenv(kLinkThreadVariable) == QByteArrayLiteral("1");
    if (m_linksOnThread) {
        prepareLinkThread();
    }
    std::shared_ptr<ISoftwareControllerConnection> controller = m_controllerConnection;
    if (m_linkController) {
        controller = m_linkController;
    }
    auto serialFactory = std::make_unique<SerialConnectionFactory>(m_settings, controller);
    ConnectionFactory connectionFactory(
        std::move(serialFactory), m_linksOnThread ? m_linkPool : m_taskPool, m_logger,
        m_linksOnThread ? &m_qmlMailbox : nullptr, m_linksOnThread ? &m_linkMailbox : nullptr);
    auto componentFactory = std::make_unique<ComponentFactory>(m_taskPool);
    SectionFactory sectionFactory(this, std::move(componentFactory));

    // A start queued by an earlier connect() may have registered links of a surface that
    // this build replaces (docs/surface-service.md, calling connect() several times).
    m_controllerConnection->clearDataReceivers();

    const std::shared_ptr<Surface> surface =
        SurfaceBuilder::build(m_settings, sectionFactory, connectionFactory);
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
