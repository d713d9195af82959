#include "tasks/shortslice.h"

#ifdef __linux__
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace Velmora::Worksurface {

#ifdef __linux__
namespace {

// The kernel's sched_attr as of its second version (56 bytes); the C library has no
// wrapper for these calls on the systems this runs on.
struct SchedAttr
{
    std::uint32_t size;
    std::uint32_t policy;
    std::uint64_t flags;
    std::int32_t nice;
    std::uint32_t priority;
    std::uint64_t runtime;
    std::uint64_t deadline;
    std::uint64_t period;
    std::uint32_t utilMin;
    std::uint32_t utilMax;
};

// The flags that ask for the utilisation clamps to be set as well; they are left alone.
constexpr std::uint64_t kFlagUtilClamps = 0x20 | 0x40;

bool readOwn(SchedAttr& attr)
{
    attr = SchedAttr{};
    return syscall(SYS_sched_getattr, 0, &attr, sizeof(attr), 0) == 0;
}

}  // namespace

bool askForShortSlice()
{
    SchedAttr attr;
    if (!readOwn(attr) || attr.policy != SCHED_OTHER) {
        return false;
    }
    // Everything as it was (nice value included: the normal policy takes it from here), the
    // turn changed. A kernel without the choice takes the call and ignores the turn.
    attr.size = sizeof(attr);
    attr.flags &= ~kFlagUtilClamps;
    attr.runtime = static_cast<std::uint64_t>(kShortSliceNs);
    if (syscall(SYS_sched_setattr, 0, &attr, 0) != 0) {
        return false;
    }
    return ownSliceNs() == kShortSliceNs;
}

std::int64_t ownSliceNs()
{
    SchedAttr attr;
    if (!readOwn(attr) || attr.policy != SCHED_OTHER) {
        return 0;
    }
    return static_cast<std::int64_t>(attr.runtime);
}

#else

bool askForShortSlice()
{
    return false;
}

std::int64_t ownSliceNs()
{
    return 0;
}

#endif

}  // namespace Velmora::Worksurface
