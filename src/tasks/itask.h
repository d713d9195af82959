#pragma once

namespace Velmora::Worksurface {

// Periodic or delayed work run by the task pool. Must not throw.
class ITask
{
public:
    virtual ~ITask() = default;
    virtual void run() = 0;
};

}  // namespace Velmora::Worksurface
