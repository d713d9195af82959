#include "serial/linkruntime.h"

#include <QString>
#include <algorithm>
#include <utility>

#include "base/logger.h"
#include "serial/linkthreadconnection.h"
#include "serial/linkthreadcontroller.h"
#include "serial/sectionconnection.h"
#include "tasks/shortslice.h"
#include "tasks/taskpool.h"
#include "tasks/threadmailbox.h"
#include "tasks/timedrive.h"

namespace Velmora::Worksurface {

LinkRuntime::LinkRuntime(std::shared_ptr<Logger> logger)
    : m_logger(std::move(logger)),
      m_toLinks(std::make_shared<ThreadMailbox>()),
      m_toQml(std::make_shared<ThreadMailbox>())
{
    m_thread.setObjectName(QStringLiteral("WorksurfaceThread"));
    m_toLinks->moveToThread(&m_thread);
    // Links on this thread answer their sections from it: woken by an answer while the QML
    // thread runs script, it gets a CPU at once instead of at the end of the QML thread's
    // turn (a 256 KiB update with the QML thread spinning 8 ms in 16 took 1.17 to 1.19 of
    // the line's time with the kernel's default turn, 1.09 to 1.13 with short turns). Run on
    // the thread as it starts.
    QObject::connect(&m_thread, &QThread::started, [] { askForShortSlice(); });
}

LinkRuntime::~LinkRuntime()
{
    stop(true);
    // The starts still queued for the service are dropped with it.
    TimeDrive::handOverEnds(m_startsOnTheirWay);
    retire(m_building);
    retire(m_running);
    // The mailboxes go with the members, after the thread they serve has finished; work
    // still waiting in them is dropped here.
}

void LinkRuntime::start()
{
    if (TimeDrive::handOverBegins()) {
        ++m_startsOnTheirWay;
    }
    m_thread.start(QThread::InheritPriority);
}

void LinkRuntime::startArrived()
{
    if (m_startsOnTheirWay > 0) {
        --m_startsOnTheirWay;
        TimeDrive::handOverEnds();
    }
}

void LinkRuntime::stop(bool releaseLinks)
{
    if (!m_thread.isRunning()) {
        if (releaseLinks) {
            // Nothing runs there: the links can go here.
            collectLinks(true);
        }
        return;
    }
    if (m_hostedLinks) {
        stopLinkThread(releaseLinks);
    } else {
        stopIdleThread();
    }
}

void LinkRuntime::stopIdleThread()
{
    m_thread.quit();
    if (m_thread.wait(kThreadStopTimeoutMs)) {
        return;
    }
    m_thread.terminate();
    // A terminated thread is gone only once wait() says so; until then it could be neither
    // restarted nor destroyed. No link has ever run there, so the thread held nothing of
    // the plugin's when it was cut off.
    m_thread.wait();
    m_logger->warning(
        QStringLiteral("WS thread did not shut down in timely manner and was terminated..."));
}

void LinkRuntime::stopLinkThread(bool releaseLinks)
{
    // Closed where they run, as the thread's finish closes links on the QML thread; released
    // there too when the service goes (their pool last: they hold it). Kept, they stay with
    // their faces, and a build that makes nothing starts them again. The thread quits once
    // all that is done, after whatever it was asked before.
    std::shared_ptr<TaskPool> pool = releaseLinks ? std::move(m_running.pool) : m_running.pool;
    m_toLinks->post([links = collectLinks(releaseLinks), pool = std::move(pool)]() mutable {
        for (const auto& link : links) {
            link->close();
        }
        links.clear();
        if (pool) {
            pool->stop();
            pool.reset();
        }
        QThread::currentThread()->quit();
    });
    if (m_thread.wait(static_cast<unsigned long>(m_linkCloseWarningMs))) {
        return;
    }
    m_logger->warning(QStringLiteral("Links on WorksurfaceThread still closing after %1 ms, "
                                     "waiting for them")
                          .arg(m_linkCloseWarningMs));
    m_thread.wait();
}

std::vector<std::shared_ptr<SectionConnection>> LinkRuntime::collectLinks(bool take)
{
    std::vector<std::shared_ptr<SectionConnection>> links;
    for (const auto& weakFace : m_faces) {
        if (const auto face = weakFace.lock()) {
            if (auto link = take ? face->takeLink() : face->link()) {
                links.push_back(std::move(link));
            }
        }
    }
    return links;
}

void LinkRuntime::beginBuild(bool linksOnThread,
                             const std::shared_ptr<ISoftwareControllerConnection>& controller,
                             BuildPool pool)
{
    m_buildOnThread = linksOnThread;
    m_buildPoolRunsItself = pool == BuildPool::RunsItself;
    if (!linksOnThread) {
        return;
    }
    m_hostedLinks = true;
    // Made on the thread, so that its timer runs there.
    runOnLinkThread([this]() {
        m_building.pool = std::make_shared<TaskPool>();
        if (m_buildPoolRunsItself) {
            m_building.pool->start();
        }
    });
    m_building.controller = std::make_shared<LinkThreadController>(controller, m_toQml, m_toLinks);
}

std::shared_ptr<TaskPool> LinkRuntime::buildPool() const
{
    return m_building.pool;
}

std::shared_ptr<ISoftwareControllerConnection> LinkRuntime::buildController() const
{
    return m_building.controller;
}

std::shared_ptr<ISectionConnection> LinkRuntime::makeLink(
    uint8_t sectionIndex, const std::shared_ptr<ISerialMessageHandler>& rootHandler,
    const Builder& build)
{
    auto face = LinkThreadConnection::create(sectionIndex, rootHandler, m_toQml, m_toLinks, build);
    if (face) {
        m_faces.erase(std::remove_if(m_faces.begin(), m_faces.end(),
                                     [](const auto& weakFace) { return weakFace.expired(); }),
                      m_faces.end());
        m_faces.push_back(face);
    }
    return face;
}

void LinkRuntime::endBuild(bool surfaceBuilt)
{
    if (surfaceBuilt) {
        retire(m_running);
        m_running = std::move(m_building);
        m_runningOnThread = m_buildOnThread;
        m_runningPoolRunsItself = m_buildPoolRunsItself;
    } else {
        retire(m_building);
        if (m_running.pool && m_runningPoolRunsItself) {
            m_toLinks->post([pool = m_running.pool]() { pool->start(); });
        }
    }
    m_building = LinkSide{};
}

void LinkRuntime::retire(LinkSide& side)
{
    if (side.controller) {
        side.controller->detach();
        side.controller.reset();
    }
    if (side.pool) {
        // Stopped and dropped where its timer lives. The old links hold it too and are let go
        // on the thread as well, so wherever the last share goes, it goes there.
        m_toLinks->post([pool = std::move(side.pool)]() mutable {
            pool->stop();
            pool.reset();
        });
    }
}

bool LinkRuntime::linksOnThread() const
{
    return m_runningOnThread;
}

std::shared_ptr<TaskPool> LinkRuntime::linkPool() const
{
    return m_running.pool;
}

void LinkRuntime::runOnLinkThread(const std::function<void()>& work)
{
    m_toLinks->runAndWait(work);
}

void LinkRuntime::postToLinkThread(std::function<void()> work)
{
    m_toLinks->post(std::move(work));
}

}  // namespace Velmora::Worksurface
