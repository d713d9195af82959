#pragma once

#include <cstdint>
#include <memory>

#include "serial/iserialmessagehandler.h"
#include "surface/controltypes.h"

namespace Velmora::Worksurface {

class ButtonHandle;

class IButton : public ISerialMessageHandler
{
public:
    ~IButton() override = default;
    virtual uint8_t deviceId() const = 0;
    virtual uint8_t sectionIndex() const = 0;
    virtual ButtonType buttonType() const = 0;
    virtual std::shared_ptr<ButtonHandle> getHandle() = 0;
    virtual void releaseHandle(ButtonHandle* handle) = 0;
};

}  // namespace Velmora::Worksurface
