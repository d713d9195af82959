#include "tasks/monotonicclock.h"

#include <atomic>
#include <chrono>

namespace Velmora::Worksurface {

namespace {

qint64 steadyNowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::atomic<MonotonicClock::Source> g_source{&steadyNowNs};

}  // namespace

qint64 MonotonicClock::nowNs()
{
    return g_source.load(std::memory_order_relaxed)();
}

MonotonicClock::Source MonotonicClock::setSource(Source source)
{
    return g_source.exchange(source ? source : &steadyNowNs);
}

}  // namespace Velmora::Worksurface
