#pragma once

#include <cstdint>
#include <memory>

#include "serial/iserialmessagehandler.h"
#include "surface/controltypes.h"

namespace Velmora::Worksurface {

class LedHandle;

// A button's LED: switched, dimmed and flashed. As a message handler it takes no message;
// its link-ready slot is the resend state (false, i.e. 0, re-sends the stored level).
class ILed : public ISerialMessageHandler
{
public:
    ~ILed() override = default;
    virtual uint8_t deviceId() const = 0;
    virtual uint8_t sectionIndex() const = 0;
    virtual LedType ledType() const = 0;
    virtual void setOn(uint8_t on) = 0;
    virtual void setBrightness(uint8_t brightness) = 0;
    virtual bool flashEnabled() const = 0;
    virtual void setFlashEnabled(bool enabled) = 0;
    virtual int64_t flashInterval() const = 0;
    virtual void setFlashInterval(int64_t intervalMs) = 0;
    virtual std::shared_ptr<LedHandle> getHandle() = 0;
    virtual void releaseHandle(LedHandle* handle) = 0;
};

}  // namespace Velmora::Worksurface
