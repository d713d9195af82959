#pragma once

#include <QColor>
#include <cstdint>
#include <memory>

#include "serial/iserialmessagehandler.h"
#include "surface/controltypes.h"

namespace Velmora::Worksurface {

class PotHandle;

class IPot : public ISerialMessageHandler
{
public:
    ~IPot() override = default;
    virtual uint8_t potDeviceId() const = 0;
    virtual uint8_t sectionIndex() const = 0;
    virtual PotType potType() const = 0;
    virtual uint16_t value() const = 0;
    virtual void setColor(const QColor& color) = 0;
    virtual std::shared_ptr<PotHandle> getHandle() = 0;
    virtual void releaseHandle(PotHandle* handle) = 0;
};

}  // namespace Velmora::Worksurface
