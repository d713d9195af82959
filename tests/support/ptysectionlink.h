#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <memory>
#include <type_traits>
#include <vector>

#include "base/isettings.h"
#include "base/logger.h"
#include "serial/hardwareserialconnection.h"
#include "serial/linkruntime.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/sectionconnection.h"
#include "serial/serialmessagequeue.h"
#include "support/fakeserialmessagehandler.h"
#include "support/recordingstatelistener.h"
#include "tasks/taskpool.h"
#include "updater/sectionupdater.h"

// A section connection whose updater failures are recorded in order, also when no state
// listener is set (the section connection only passes them on to its listener).
class FailureRecordingSectionConnection : public Velmora::Worksurface::SectionConnection
{
public:
    using SectionConnection::SectionConnection;

    void failed(int reason) override
    {
        m_failures.push_back(reason);
        SectionConnection::failed(reason);
    }
    const std::vector<int>& failures() const { return m_failures; }

private:
    std::vector<int> m_failures;
};

// One hardware section's link assembled the way the connection factory does it, on a
// serial device of the test's choice (the slave of a PtySectionSimulator): a section
// connection on a HardwareSerialConnection, the section's root handler with two component
// stand-ins, a real outgoing queue, a real firmware updater and the given task pool.
//
// - versionHandler takes the section's version report (type 0, device 0), as the section
//   object does;
// - controlHandler takes every message for the device ids in controlDeviceIds (a fader on
//   device 4 and a button on device 21 unless changed), as components do.
//
// The task pool is the caller's: tests drive it by hand under a ManualClock, benchmarks
// with its real 5 ms timer. Nothing is opened until the caller opens the link (open()).
//
// With TARVIX_WORKSURFACE_LINK_THREAD=1 the link is made, runs and is torn down on the
// surface thread, as the service puts links there: a LinkRuntime of its own makes it on its
// thread with the runtime's pool (`pool`, which runs by itself only when the caller's pool
// does), and this thread holds its face (`face`, a LinkThreadConnection), which the listener
// hears through. The root handler's answers are then taken once, when the link is made (a
// change to controlDeviceIds afterwards is not seen). The link's own objects (`section`,
// `serial`, `updater`) belong to that thread: the helpers below reach them there and return
// once what the link told meanwhile has been delivered here, and `section` may be read here
// only once one of them has returned. Without the variable the helpers act here at once.
struct PtySectionLink
{
    PtySectionLink(uint8_t sectionIndex, const QString& portName,
                   std::shared_ptr<Velmora::Worksurface::ISettings> settings,
                   std::shared_ptr<Velmora::Worksurface::TaskPool> pool);
    ~PtySectionLink();
    PtySectionLink(const PtySectionLink&) = delete;
    PtySectionLink& operator=(const PtySectionLink&) = delete;

    // The connection's state as a plain number, for QCOMPARE: as this thread was last told.
    int state() const { return face->state(); }

    // Opens the link (on its thread).
    void open();
    // One pass of the link's pool at the current time, on the pool's thread.
    void runPendingTasks();
    // The updater, read on the link's thread.
    bool hasPendingAutoUpdate();
    uint8_t lastPacketCommand();
    bool isUpdating();
    // Whether the link is where this run puts it (linkplacement.h).
    bool linkWhereTheModeSays() const;
    // Runs this thread's event loop, where the simulator on the other end of the pty reads
    // and answers, until `done` holds or timeoutMs have passed; returns done(). It waits for
    // events rather than polling every 10 ms as QTRY does, so that a long exchange between a
    // link on the surface thread and the simulator here keeps the line's pace: each packet
    // crosses between the two threads. `done` is looked at after every wake, and at least
    // every few milliseconds.
    bool waitUntil(const std::function<bool()>& done, int timeoutMs);

    // Runs `work` on the link's thread and returns its result, once what the link told
    // before it finished has been delivered here; at once without the surface thread.
    template <typename Work>
    auto onLinkThread(Work work) -> decltype(work());

    const uint8_t sectionIndex;
    std::shared_ptr<Velmora::Worksurface::ISettings> settings;
    std::shared_ptr<Velmora::Worksurface::Logger> logger;
    // The surface thread and its link side, with the link there only; let go after the link.
    std::unique_ptr<Velmora::Worksurface::LinkRuntime> runtime;
    std::shared_ptr<Velmora::Worksurface::TaskPool> pool;
    std::shared_ptr<Velmora::Worksurface::RootSerialMessageHandler> root;
    std::shared_ptr<Velmora::Worksurface::SerialMessageQueue> queue;
    std::shared_ptr<FakeSerialMessageHandler> versionHandler;
    std::shared_ptr<FakeSerialMessageHandler> controlHandler;
    std::vector<uint8_t> controlDeviceIds{4, 21};
    std::shared_ptr<Velmora::Worksurface::HardwareSerialConnection> serial;
    // Owned by the section connection.
    Velmora::Worksurface::SectionUpdater* updater = nullptr;
    std::shared_ptr<FailureRecordingSectionConnection> section;
    // What this thread talks to: `section` itself, or its face with the link on the surface
    // thread.
    std::shared_ptr<Velmora::Worksurface::ISectionConnection> face;
    RecordingStateListener listener;

private:
    // Delivers here what the link on the surface thread has told so far.
    void takeWhatTheLinkTold();
};

template <typename Work>
auto PtySectionLink::onLinkThread(Work work) -> decltype(work())
{
    if (!runtime) {
        return work();
    }
    using Result = decltype(work());
    if constexpr (std::is_void_v<Result>) {
        runtime->runOnLinkThread(work);
        takeWhatTheLinkTold();
    } else {
        Result result{};
        runtime->runOnLinkThread([&]() { result = work(); });
        takeWhatTheLinkTold();
        return result;
    }
}
