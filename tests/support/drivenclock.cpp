#include "support/drivenclock.h"

#include <dlfcn.h>
#include <QCoreApplication>
#include <QEvent>
#include <QThread>
#include <QtGlobal>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "tasks/monotonicclock.h"

namespace {

std::atomic<qint64> g_nowNs{DrivenClock::kStartNs};
std::atomic<bool> g_drivenClockInstalled{false};

// Every reading is a nanosecond after the one before: on a real clock time never stands
// still between two events (a fader made and a request for it a moment later), and a
// nanosecond is far below any interval of the plugin's.
qint64 drivenNowNs()
{
    return g_nowNs.fetch_add(1) + 1;
}

// Another thread has this long to finish what was handed to it; only a hang comes near.
constexpr auto kHandOverBound = std::chrono::seconds(60);
// Rounds of this thread's events without another thread's work in flight: a chain of queued
// calls this long is a loop, not a hand-over, and the clock moves on.
constexpr int kMaxQuietRounds = 1000;
// Waiters run at one clock time before it is taken for a loop of zero-length waits.
constexpr int kMaxFiresAtOneTime = 100000;

}  // namespace

DrivenClock::DrivenClock(const TarvixTimeDrive* drive, QObject* parent)
    : QObject(parent), m_drive(drive)
{
    Q_ASSERT_X(!g_drivenClockInstalled.exchange(true), "DrivenClock", "one driven clock at a time");
    g_nowNs = kStartNs;
    m_drive->takeOver(&drivenNowNs);
}

DrivenClock::~DrivenClock()
{
    if (m_filtering && QCoreApplication::instance() != nullptr) {
        QCoreApplication::instance()->removeEventFilter(this);
    }
    m_drive->takeOver(nullptr);
    g_drivenClockInstalled = false;
}

const TarvixTimeDrive* DrivenClock::pluginDrive(const char* path)
{
    void* const plugin = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        std::fprintf(stderr, "DrivenClock: cannot load %s: %s\n", path, dlerror());
        std::exit(1);
    }
    using Seam = const TarvixTimeDrive* (*)();
    const auto seam = reinterpret_cast<Seam>(dlsym(plugin, "tarvixWorksurfaceTimeDrive"));
    if (seam == nullptr || seam()->version != 1) {
        std::fprintf(stderr, "DrivenClock: %s has no time drive\n", path);
        std::exit(1);
    }
    return seam();
}

qint64 DrivenClock::nowNs() const
{
    return g_nowNs.load();
}

bool DrivenClock::eventFilter(QObject* watched, QEvent* event)
{
    ++m_events;
    return QObject::eventFilter(watched, event);
}

bool DrivenClock::settle()
{
    // Every event this thread delivers is counted (an application's filter sees those of the
    // objects on its thread): a round that delivered none, with nothing in flight, is quiet.
    if (!m_filtering && QCoreApplication::instance() != nullptr &&
        QThread::currentThread() == QCoreApplication::instance()->thread()) {
        QCoreApplication::instance()->installEventFilter(this);
        m_filtering = true;
    }
    const auto bound = std::chrono::steady_clock::now() + kHandOverBound;
    for (int busyRounds = 0;;) {
        const quint64 before = m_events;
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        const bool delivered = m_events != before;
        if (m_drive->handOversInFlight() > 0) {
            if (std::chrono::steady_clock::now() > bound) {
                std::fprintf(stderr,
                             "DrivenClock: another thread did not finish what was handed "
                             "to it within 60 s\n");
                return false;
            }
            // Another thread is working: a real wait, for its result.
            if (!delivered) {
                QThread::yieldCurrentThread();
            }
            continue;
        }
        if (!delivered || ++busyRounds >= kMaxQuietRounds) {
            return true;
        }
    }
}

void DrivenClock::runDueNow()
{
    settle();
    int fires = 0;
    while (m_drive->fireNext(g_nowNs.load()) != 0) {
        settle();
        if (++fires > kMaxFiresAtOneTime) {
            std::fprintf(stderr, "DrivenClock: waiters due again and again at one time\n");
            std::abort();
        }
    }
}

bool DrivenClock::moveToNextDue(qint64 untilNs)
{
    const qint64 next = m_drive->nextDueNs();
    if (next < 0 || next > untilNs) {
        g_nowNs = std::max(g_nowNs.load(), untilNs);
        return false;
    }
    g_nowNs = std::max(g_nowNs.load(), next);
    return true;
}

void DrivenClock::advance(double ms)
{
    const qint64 untilNs =
        g_nowNs.load() + static_cast<qint64>(ms * Velmora::Worksurface::kNsPerMs);
    for (;;) {
        runDueNow();
        if (!moveToNextDue(untilNs)) {
            break;
        }
    }
    runDueNow();
}

bool DrivenClock::advanceUntil(const std::function<bool()>& done, qint64 ms)
{
    const qint64 untilNs = g_nowNs.load() + ms * Velmora::Worksurface::kNsPerMs;
    for (;;) {
        runDueNow();
        if (done()) {
            return true;
        }
        if (!moveToNextDue(untilNs)) {
            runDueNow();
            return done();
        }
    }
}
