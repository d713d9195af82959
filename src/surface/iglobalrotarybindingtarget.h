#pragma once

namespace Velmora::Worksurface {

// A QML element that follows a rotary regardless of the rotary's own binding. A rotary
// holds at most one such target and asks it to bind when the rotary's handle is released.
class IGlobalRotaryBindingTarget
{
public:
    virtual ~IGlobalRotaryBindingTarget() = default;
    virtual void bind() = 0;
};

}  // namespace Velmora::Worksurface
