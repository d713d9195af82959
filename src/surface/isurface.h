#pragma once

#include <QObject>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/faderrestmode.h"

namespace Velmora::Worksurface {

class IFader;
class ISectionConnection;
class IButton;
class IRotary;
class ILed;
class IRgbLed;
class IMeter;
class IPot;
class IGlobalRotaryBindingTarget;

// The whole worksurface as the bindings and the surface service see it. Lookups take the
// binding's raw type value, section index and control index: anything that names no
// control gives an empty pointer.
class ISurface : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;
    ~ISurface() override = default;

    virtual bool isCalibrating() const = 0;
    virtual void setSurfaceBrightness(uint8_t brightness) = 0;
    virtual void setSurfaceOverBrightness(uint8_t brightness) = 0;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual void setFaderRestMode(RestMode mode) = 0;
    // The sections' links, by section index (for saving their flight recorders).
    virtual std::vector<std::shared_ptr<ISectionConnection>> sectionLinks() const { return {}; }
    virtual std::shared_ptr<IMeter> meter(int32_t type, int section) const = 0;
    virtual std::shared_ptr<IPot> pot(int32_t type, int section) const = 0;
    virtual std::shared_ptr<IRotary> rotary(int32_t type, int section, int index) const = 0;
    virtual std::shared_ptr<IButton> button(int32_t type, int section, int index) const = 0;
    virtual std::shared_ptr<IFader> fader(int32_t type, int section, int index) const = 0;
    virtual std::shared_ptr<IRgbLed> rgbLed(int32_t type, int section, int index) const = 0;
    virtual std::shared_ptr<ILed> led(int32_t type, int section, int index) const = 0;
    // 0 refused (or nothing matches), 1 stored while the rotary is unbound, 2 stored while
    // it has a handle.
    virtual int offerGlobalTarget(int32_t type, int section, int index,
                                  IGlobalRotaryBindingTarget* target) const = 0;
    Q_INVOKABLE virtual void calibrate() = 0;

signals:
    void isCalibratingChanged();
};

}  // namespace Velmora::Worksurface
