#pragma once

#include <QColor>
#include <cstdint>
#include <memory>

#include "serial/iserialmessagehandler.h"
#include "surface/controltypes.h"

namespace Velmora::Worksurface {

class RotaryHandle;

class IGlobalRotaryBindingTarget;

class IRotary : public ISerialMessageHandler
{
public:
    // What an offer of a global target gets back.
    enum GlobalTargetResult : int
    {
        Refused = 0,
        StoredUnbound = 1,
        StoredBound = 2
    };

    ~IRotary() override = default;
    virtual uint8_t rotaryDeviceId() const = 0;
    virtual uint8_t sectionIndex() const = 0;
    virtual RotaryType rotaryType() const = 0;
    virtual bool touched() const = 0;
    virtual bool pressed() const = 0;
    virtual QColor color() const = 0;
    virtual void setColor(const QColor& color) = 0;
    virtual bool flashEnabled() const = 0;
    virtual void setFlashEnabled(bool enabled) = 0;
    virtual int64_t flashInterval() const = 0;
    virtual void setFlashInterval(int64_t intervalMs) = 0;
    virtual std::shared_ptr<RotaryHandle> getHandle() = 0;
    virtual void releaseHandle(RotaryHandle* handle) = 0;
    virtual int setGlobalTarget(IGlobalRotaryBindingTarget* target) = 0;
};

}  // namespace Velmora::Worksurface
