#pragma once

#include <QColor>
#include <cstdint>
#include <memory>

#include "serial/iserialmessagehandler.h"
#include "surface/controltypes.h"

namespace Velmora::Worksurface {

class RgbLedHandle;

class IRgbLed : public ISerialMessageHandler
{
public:
    ~IRgbLed() override = default;
    virtual uint8_t deviceId() const = 0;
    virtual uint8_t sectionIndex() const = 0;
    virtual RgbLedType rgbLedType() const = 0;
    virtual void setColor(const QColor& color) = 0;
    virtual std::shared_ptr<RgbLedHandle> getHandle() = 0;
    virtual void releaseHandle(RgbLedHandle* handle) = 0;
};

}  // namespace Velmora::Worksurface
