#include "surface/componentfactory.h"

#include "surface/button.h"
#include "surface/deviceidtable.h"
#include "surface/fader.h"
#include "surface/led.h"
#include "surface/meter.h"
#include "surface/pot.h"
#include "surface/rgbled.h"
#include "surface/rotary.h"
#include "tasks/itaskpool.h"

namespace Velmora::Worksurface {

ComponentFactory::ComponentFactory(std::shared_ptr<ITaskPool> taskPool)
    : m_taskPool(std::move(taskPool))
{}

std::shared_ptr<IMeter> ComponentFactory::createMeter(const Sender& sender, uint8_t section,
                                                      int32_t type, uint8_t)
{
    const uint8_t id = DeviceIdTable::meter(type);
    if (id == DeviceIdTable::NoDevice) {
        return {};
    }
    return std::make_shared<Meter>(id, section, static_cast<MeterType>(type), sender);
}

std::shared_ptr<IPot> ComponentFactory::createPot(const Sender& sender, uint8_t section,
                                                  int32_t type, uint8_t)
{
    const DeviceIdTable::PotIds ids = DeviceIdTable::pot(type);
    if (!ids.exists()) {
        return {};
    }
    auto pot = std::make_shared<Pot>(ids.pot, ids.light, section, static_cast<PotType>(type),
                                     sender, m_taskPool);
    // Ask the section for the pot's position until it answers.
    pot->startValueRequests();
    return pot;
}

std::shared_ptr<IRgbLed> ComponentFactory::createRgbLed(const Sender& sender, uint8_t section,
                                                        int32_t type, uint8_t index)
{
    const uint8_t id = DeviceIdTable::rgbLed(type, index);
    if (id == DeviceIdTable::NoDevice) {
        return {};
    }
    return std::make_shared<RgbLed>(id, section, static_cast<RgbLedType>(type), sender);
}

std::shared_ptr<ILed> ComponentFactory::createLed(const Sender& sender, uint8_t section,
                                                  int32_t type, uint8_t index)
{
    const uint8_t id = DeviceIdTable::led(type, index);
    if (id == DeviceIdTable::NoDevice) {
        return {};
    }
    return std::make_shared<Led>(id, section, static_cast<LedType>(type), sender, m_taskPool);
}

std::shared_ptr<IRotary> ComponentFactory::createRotary(const Sender& sender, uint8_t section,
                                                        int32_t type, uint8_t index)
{
    const DeviceIdTable::RotaryIds ids = DeviceIdTable::rotary(type, index);
    if (!ids.exists()) {
        return {};
    }
    return std::make_shared<Rotary>(ids.rotary, ids.light, ids.button, section,
                                    static_cast<RotaryType>(type), sender, m_taskPool);
}

std::shared_ptr<IButton> ComponentFactory::createButton(const Sender&, uint8_t section,
                                                        int32_t type, uint8_t index)
{
    const uint8_t id = DeviceIdTable::button(type, index);
    if (id == DeviceIdTable::NoDevice) {
        return {};
    }
    return std::make_shared<Button>(id, section, static_cast<ButtonType>(type));
}

std::shared_ptr<IFader> ComponentFactory::createFader(const Sender& sender, uint8_t section,
                                                      int32_t type, uint8_t index)
{
    const uint8_t id = DeviceIdTable::fader(type, index);
    if (id == DeviceIdTable::NoDevice) {
        return {};
    }
    auto fader = std::make_shared<Fader>(id, section, static_cast<FaderType>(type), sender);
    // The pool holds the fader weakly; the step ends with the fader. Its handle is not
    // needed: a fader steps for as long as it lives.
    m_taskPool->schedulePeriodic(kFaderStepIntervalMs, fader);
    return fader;
}

}  // namespace Velmora::Worksurface
