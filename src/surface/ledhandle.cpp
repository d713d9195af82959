#include "surface/ledhandle.h"

#include <utility>

#include "surface/iled.h"

namespace Velmora::Worksurface {

LedHandle::LedHandle(ILed* led, QObject* parent) : QObject(parent), m_led(led) {}

LedHandle::~LedHandle() = default;

ILed* LedHandle::led() const
{
    return m_led;
}

bool LedHandle::standsFor(uint8_t sectionIndex, uint8_t deviceId) const
{
    const auto* target = m_led.load();
    return target != nullptr && target->sectionIndex() == sectionIndex &&
           target->deviceId() == deviceId;
}

void LedHandle::setOn(uint8_t on)
{
    if (auto* target = m_led.load()) {
        target->setOn(on);
    }
}

void LedHandle::setBrightness(uint8_t brightness)
{
    if (auto* target = m_led.load()) {
        target->setBrightness(brightness);
    }
}

void LedHandle::setFlashEnabled(bool enabled)
{
    if (auto* target = m_led.load()) {
        target->setFlashEnabled(enabled);
    }
}

void LedHandle::setFlashInterval(int64_t intervalMs)
{
    if (auto* target = m_led.load()) {
        target->setFlashInterval(intervalMs);
    }
}

void LedHandle::detach()
{
    // Cleared before the release so that a second detach reached from inside the release
    // cannot release twice.
    if (auto* led = m_led.exchange(nullptr)) {
        led->releaseHandle(this);
    }
}

}  // namespace Velmora::Worksurface
