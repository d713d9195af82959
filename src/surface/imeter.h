#pragma once

#include <cstdint>
#include <memory>

#include "surface/controltypes.h"

namespace Velmora::Worksurface {

class MeterHandle;

class IMeter
{
public:
    virtual ~IMeter() = default;
    virtual uint8_t deviceId() const = 0;
    virtual uint8_t sectionIndex() const = 0;
    virtual MeterType meterType() const = 0;
    virtual void setLevel(uint8_t level) = 0;
    virtual void setPeak(uint8_t peak) = 0;
    virtual std::shared_ptr<MeterHandle> getHandle() = 0;
    virtual void releaseHandle(MeterHandle* handle) = 0;
};

}  // namespace Velmora::Worksurface
