#include "support/manualclock.h"

#include <atomic>

namespace {

std::atomic<qint64> g_now{0};
std::atomic<bool> g_manualClockInstalled{false};

qint64 manualNowNs()
{
    return g_now.load();
}

}  // namespace

ManualClock::ManualClock(qint64 startNs)
{
    Q_ASSERT_X(!g_manualClockInstalled.exchange(true), "ManualClock",
               "only one manual clock at a time");
    g_now = startNs;
    m_previous = Velmora::Worksurface::MonotonicClock::setSource(&manualNowNs);
}

ManualClock::~ManualClock()
{
    Velmora::Worksurface::MonotonicClock::setSource(m_previous);
    g_manualClockInstalled = false;
}

qint64 ManualClock::nowNs() const
{
    return g_now.load();
}

void ManualClock::setNs(qint64 ns)
{
    g_now = ns;
}

void ManualClock::advanceNs(qint64 ns)
{
    g_now += ns;
}
