#include "tasks/timedrive.h"

#include <QMetaObject>
#include <QObject>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

#include "tasks/monotonicclock.h"

namespace Velmora::Worksurface {

namespace {

struct Entry
{
    TimeDrive::Waiter* waiter;
    QObject* context;
    // Posted to its thread and not run yet: counted as a hand-over, not picked again.
    bool firePending;
};

std::atomic<bool> g_on{false};
std::atomic<int> g_handOvers{0};
// In the order the waiters were made, so that among waiters due at the same time the oldest
// runs first, as it does when their Qt timers expire together.
std::mutex g_mutex;
std::vector<Entry> g_entries;

void takeOver(qint64 (*source)())
{
    MonotonicClock::setSource(source);
    g_handOvers.store(0);
    g_on.store(source != nullptr);
}

qint64 nextDueNs()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    qint64 earliest = -1;
    for (const Entry& entry : g_entries) {
        const int64_t due = entry.firePending ? -1 : entry.waiter->driveDueNs();
        if (due >= 0 && (earliest < 0 || due < earliest)) {
            earliest = due;
        }
    }
    return earliest;
}

// Runs on a waiter's thread: the waiter posted there is run, unless it went meanwhile. The
// call that crosses carries nothing; what it is for waits under the registry's mutex, so the
// hand-over is one that ThreadSanitizer sees.
void firePostedHere()
{
    TimeDrive::Waiter* waiter = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        const auto it = std::find_if(g_entries.begin(), g_entries.end(), [](const Entry& e) {
            return e.firePending && e.context->thread() == QThread::currentThread();
        });
        if (it == g_entries.end()) {
            return;
        }
        it->firePending = false;
        waiter = it->waiter;
    }
    waiter->driveFire();
    TimeDrive::handOverEnds();
}

int fireNext(qint64 nowNs)
{
    std::unique_lock<std::mutex> lock(g_mutex);
    Entry* next = nullptr;
    int64_t nextDue = 0;
    for (Entry& entry : g_entries) {
        const int64_t due = entry.firePending ? -1 : entry.waiter->driveDueNs();
        if (due >= 0 && due <= nowNs && (next == nullptr || due < nextDue)) {
            next = &entry;
            nextDue = due;
        }
    }
    if (next == nullptr) {
        return 0;
    }
    TimeDrive::Waiter* const waiter = next->waiter;
    QObject* const context = next->context;
    if (context->thread() == QThread::currentThread()) {
        lock.unlock();
        waiter->driveFire();
        return 1;
    }
    next->firePending = true;
    TimeDrive::handOverBegins();
    lock.unlock();
    // Dropped by Qt when the context goes first; remove() then ends the hand-over.
    QMetaObject::invokeMethod(context, &firePostedHere, Qt::QueuedConnection);
    return 1;
}

int handOversInFlight()
{
    return std::max(0, g_handOvers.load());
}

const TarvixTimeDrive g_drive{1, &takeOver, &nextDueNs, &fireNext, &handOversInFlight};

}  // namespace

bool TimeDrive::isOn()
{
    return g_on.load(std::memory_order_relaxed);
}

void TimeDrive::add(Waiter* waiter, QObject* context)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_entries.push_back(Entry{waiter, context, false});
}

void TimeDrive::remove(Waiter* waiter)
{
    bool pending = false;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        const auto it = std::find_if(g_entries.begin(), g_entries.end(),
                                     [waiter](const Entry& e) { return e.waiter == waiter; });
        if (it == g_entries.end()) {
            return;
        }
        pending = it->firePending;
        g_entries.erase(it);
    }
    if (pending) {
        handOverEnds();
    }
}

bool TimeDrive::handOverBegins()
{
    if (!isOn()) {
        return false;
    }
    g_handOvers.fetch_add(1);
    return true;
}

void TimeDrive::handOverEnds(int count)
{
    if (count > 0) {
        g_handOvers.fetch_sub(count);
    }
}

}  // namespace Velmora::Worksurface

const TarvixTimeDrive* tarvixWorksurfaceTimeDrive()
{
    return &Velmora::Worksurface::g_drive;
}
