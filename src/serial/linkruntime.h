#pragma once

#include <QThread>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Velmora::Worksurface {

class ISectionConnection;
class ISerialMessageHandler;
class ISoftwareControllerConnection;
class LinkThreadConnection;
class LinkThreadController;
class Logger;
class SectionConnection;
class TaskPool;
class ThreadMailbox;

// The surface thread "WorksurfaceThread" and the link side that runs on it: the thread, the
// links' task pool, the two mailboxes between that thread and the QML thread, the software
// controller's stand-in for the links, every link made there, and their start and stop.
// The surface service asks it; nothing else reaches into its thread or its mailboxes.
//
// By default the thread runs only its event loop: its started and finished signals drive
// the service's build and teardown on the QML thread, and the links run on the QML thread.
// A build with the links on the thread (SurfaceSettings.linkThread) makes, between
// beginBuild() and endBuild(), a pool on the thread and each link there (makeLink()).
//
// Stopping: a thread that has never run a link is asked to quit and given 200 ms, then
// terminated with the warning QML applications know. A thread that has run links is never
// terminated, as it may hold a link's lock or be inside a port's close: its links are closed
// on it, their pool stopped, and the thread quits from there; the stop waits for that. When
// it takes longer than the close bound (a trace being written, a long queue of work, a
// loaded board), a warning says so and the stop waits on, since freeing what that thread
// uses would corrupt memory.
//
// Made, asked and destroyed on the QML thread. Its destruction stops the thread, taking and
// releasing every link still held by a face there, before the mailboxes go; a face that
// outlives it then holds nothing and posts nothing.
class LinkRuntime
{
public:
    static constexpr int kThreadStopTimeoutMs = 200;
    // How long a stop waits for the links' close before it warns.
    static constexpr int kLinkCloseWarningMs = 2000;

    using Builder = std::function<std::shared_ptr<SectionConnection>(
        const std::shared_ptr<ISerialMessageHandler>& handlerOnLinkThread)>;

    explicit LinkRuntime(std::shared_ptr<Logger> logger);
    ~LinkRuntime();
    LinkRuntime(const LinkRuntime&) = delete;
    LinkRuntime& operator=(const LinkRuntime&) = delete;

    QThread& thread() { return m_thread; }
    const QThread& thread() const { return m_thread; }

    // Starts the thread; its started signal reaches the service queued. For a test runner that
    // owns time, each start counts as a hand-over until startArrived() is called for it.
    void start();
    // The service's slot for a start has run.
    void startArrived();
    // Ends the thread if it runs (see the class comment). `releaseLinks`: the service goes,
    // and the links are taken from their faces and released on their thread; otherwise they
    // stay with their faces, closed, for a build that makes nothing to start them again.
    void stop(bool releaseLinks);

    // How the pool of a build with its links on the thread runs: by its own timer, or only
    // when its tick is called (a runner that owns time drives it, as it drives the model's).
    enum class BuildPool
    {
        RunsItself,
        DrivenByHand
    };

    // A surface build begins. With `linksOnThread`, a pool is made on the thread (waiting
    // for it) and a stand-in for `controller` that the links' software lines talk through.
    void beginBuild(bool linksOnThread,
                    const std::shared_ptr<ISoftwareControllerConnection>& controller,
                    BuildPool pool = BuildPool::RunsItself);
    // The build's pool and controller stand-in; null while the build puts its links on the
    // QML thread.
    std::shared_ptr<TaskPool> buildPool() const;
    std::shared_ptr<ISoftwareControllerConnection> buildController() const;
    // Makes one link of the build on the thread (waiting for it) and returns its QML-thread
    // face. Null when `build` makes nothing.
    std::shared_ptr<ISectionConnection> makeLink(
        uint8_t sectionIndex, const std::shared_ptr<ISerialMessageHandler>& rootHandler,
        const Builder& build);
    // The build has ended. A surface was built: the previous build's link side is retired on
    // the thread. Nothing was built: the previous surface stays, and with it its links'
    // pool, started again so that its links, restarted by the service, are supervised.
    void endBuild(bool surfaceBuilt);

    // Whether the surface built last runs its links on the thread.
    bool linksOnThread() const;
    // That surface's links' pool; null while its links run on the QML thread.
    std::shared_ptr<TaskPool> linkPool() const;
    // Runs `work` on the thread and waits for it; at once when called there. For tests and
    // diagnostics, which must see the links' thread catch up.
    void runOnLinkThread(const std::function<void()>& work);
    // Hands `work` to the thread without waiting. For tests that keep the thread busy.
    void postToLinkThread(std::function<void()> work);
    // For tests: how long a stop waits for the links' close before it warns.
    void setLinkCloseWarningMs(int ms) { m_linkCloseWarningMs = ms; }

private:
    // What one build put on the thread.
    struct LinkSide
    {
        std::shared_ptr<TaskPool> pool;
        std::shared_ptr<LinkThreadController> controller;
    };

    // Lets the side go: its controller stand-in is withdrawn here, its pool is dropped on the
    // thread, after whatever the thread was asked before.
    void retire(LinkSide& side);
    // The links of every face still standing, taken from them when `take`.
    std::vector<std::shared_ptr<SectionConnection>> collectLinks(bool take);
    void stopLinkThread(bool releaseLinks);
    void stopIdleThread();

    std::shared_ptr<Logger> m_logger;
    QThread m_thread;
    // Where work for the thread is posted, and where the links post to the QML thread. Held
    // here only; faces and stand-ins hold them weakly.
    std::shared_ptr<ThreadMailbox> m_toLinks;
    std::shared_ptr<ThreadMailbox> m_toQml;
    LinkSide m_running;
    LinkSide m_building;
    bool m_buildOnThread = false;
    bool m_buildPoolRunsItself = true;
    bool m_runningPoolRunsItself = true;
    bool m_runningOnThread = false;
    // Set once a link has been made on the thread: its stop then never terminates it.
    bool m_hostedLinks = false;
    // Every face made here that still stands, from any build.
    std::vector<std::weak_ptr<LinkThreadConnection>> m_faces;
    // Starts whose started signal has not reached the service yet, each a hand-over for a
    // test runner that owns time (counted only then).
    int m_startsOnTheirWay = 0;
    int m_linkCloseWarningMs = kLinkCloseWarningMs;
};

}  // namespace Velmora::Worksurface
