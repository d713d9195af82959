#pragma once

#include <QtGlobal>

namespace Velmora::Worksurface {

// The clock counts nanoseconds; intervals and delays are given in milliseconds.
constexpr qint64 kNsPerMs = 1000000;

// Every reading of "now" in the plugin comes from here: task due times, queue release
// times, link time-outs and fader hold windows. It is a monotonic nanosecond count
// (std::chrono::steady_clock by default); tests swap in a manual source so that a
// 20-second link time-out is checked in microseconds, exactly at its boundary.
class MonotonicClock
{
public:
    using Source = qint64 (*)();

    // Nanoseconds since an arbitrary, fixed origin.
    static qint64 nowNs();

    // Replaces the source and returns the previous one; nullptr restores the steady clock.
    static Source setSource(Source source);
};

}  // namespace Velmora::Worksurface
