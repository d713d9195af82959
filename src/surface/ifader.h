#pragma once

#include <cstdint>
#include <memory>

#include "serial/iserialmessagehandler.h"
#include "surface/controltypes.h"

class FaderHandle;

namespace Velmora::Worksurface {

// One motorised, touch-sensitive fader. As a message handler its link-ready slot is the
// "resend state" of the fader: it sends its whole stored state again.
class IFader : public ISerialMessageHandler
{
public:
    ~IFader() override = default;
    virtual uint8_t deviceId() const = 0;
    virtual uint8_t sectionIndex() const = 0;
    virtual FaderType faderType() const = 0;
    virtual bool touched() const = 0;
    virtual void setPosition(uint16_t position) = 0;
    virtual void setDetent(uint16_t position) = 0;
    virtual void setBackstop(uint16_t position) = 0;
    virtual void setDriveMode(int32_t mode) = 0;
    virtual void setRestMode(int32_t mode) = 0;
    virtual void setLockEnabled(bool enabled) = 0;
    virtual void setLockPosition(uint16_t position) = 0;
    virtual std::shared_ptr<FaderHandle> getHandle() = 0;
    virtual uint16_t releaseHandle(FaderHandle* handle) = 0;
};

}  // namespace Velmora::Worksurface
