#pragma once

#include <cstdint>

namespace Velmora::Worksurface {

class ITaskHandle
{
public:
    virtual ~ITaskHandle() = default;
    virtual uint64_t id() const = 0;
    // Returns whether the task was already cancelled before this call.
    virtual bool cancel() = 0;
};

}  // namespace Velmora::Worksurface
