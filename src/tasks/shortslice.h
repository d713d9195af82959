#pragma once

#include <cstdint>

namespace Velmora::Worksurface {

// The turn a thread that serves a serial line asks the kernel for: long enough for what it
// does when an answer comes in (some tens of microseconds), short enough that, woken while
// another thread holds a CPU in a long turn (the QML thread running script), it is given
// the CPU at once instead of at the end of that turn.
constexpr std::int64_t kShortSliceNs = 100000;

// Asks the kernel to run the calling thread in turns of kShortSliceNs. Kept only where the
// scheduler lets each thread choose its turn (Linux 6.12 and later): true then. Elsewhere,
// and for a thread that does not run under the normal policy (a deployer's real-time or
// idle choice stands), nothing changes and the answer is false. The thread's nice value and
// its other scheduling attributes are left as they are.
bool askForShortSlice();

// The calling thread's turn as the kernel reports it: the kernel's default (1.4 ms on the
// 2-core build machine) until the thread chose its own; 0 where the kernel does not say
// (before Linux 6.12) or the thread does not run under the normal policy.
std::int64_t ownSliceNs();

}  // namespace Velmora::Worksurface
