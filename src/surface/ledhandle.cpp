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
    return m_led != nullptr && m_led->sectionIndex() == sectionIndex &&
           m_led->deviceId() == deviceId;
}

void LedHandle::setOn(uint8_t on)
{
    if (m_led != nullptr) {
        m_led->setOn(on);
    }
}

void LedHandle::setBrightness(uint8_t brightness)
{
    if (m_led != nullptr) {
        m_led->setBrightness(brightness);
    }
}

void LedHandle::setFlashEnabled(bool enabled)
{
    if (m_led != nullptr) {
        m_led->setFlashEnabled(enabled);
    }
}

void LedHandle::setFlashInterval(int64_t intervalMs)
{
    if (m_led != nullptr) {
        m_led->setFlashInterval(intervalMs);
    }
}

void LedHandle::detach()
{
    // Cleared before the release so that a second detach reached from inside the release
    // cannot release twice.
    if (auto* led = std::exchange(m_led, nullptr)) {
        led->releaseHandle(this);
    }
}

}  // namespace Velmora::Worksurface
