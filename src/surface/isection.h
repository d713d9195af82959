#pragma once

#include <QString>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/faderrestmode.h"

namespace Velmora::Worksurface {

class IFader;
class IButton;
class IRotary;
class ILed;
class IRgbLed;
class IMeter;
class IPot;

// One hardware section's controls, in the order they were made.
class ISection
{
public:
    virtual ~ISection() = default;
    virtual uint8_t index() const = 0;
    virtual uint8_t version() const = 0;
    virtual uint8_t temperature() const = 0;
    // Only the master section has the headphone pot.
    virtual std::shared_ptr<IPot> pot() const = 0;
    virtual const std::vector<std::shared_ptr<IFader>>& faders() const = 0;
    virtual const std::vector<std::shared_ptr<IButton>>& buttons() const = 0;
    virtual const std::vector<std::shared_ptr<IRotary>>& rotaries() const = 0;
    virtual const std::vector<std::shared_ptr<ILed>>& leds() const = 0;
    virtual const std::vector<std::shared_ptr<IRgbLed>>& rgbLeds() const = 0;
    virtual const std::vector<std::shared_ptr<IMeter>>& meters() const = 0;
    virtual void setUpdating(bool updating) = 0;
    virtual void setUpdateProgress(uint8_t percent) = 0;
    virtual void setFaderRestMode(RestMode mode) = 0;
    // What the section's link reports, passed on to the section's information (see
    // ISectionInfo); a section without one ignores it.
    virtual void setLinkState(uint8_t) {}
    virtual void setPort(const QString& /*portName*/, const QString& /*portError*/) {}
    virtual void setUpdateResult(int /*failureReason*/) {}
};

}  // namespace Velmora::Worksurface
