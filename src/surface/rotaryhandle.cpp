#include "surface/rotaryhandle.h"

#include <utility>

#include "surface/irotary.h"

namespace Velmora::Worksurface {

RotaryHandle::RotaryHandle(IRotary* rotary, QObject* parent) : QObject(parent), m_rotary(rotary) {}

RotaryHandle::~RotaryHandle() = default;

IRotary* RotaryHandle::rotary() const
{
    return m_rotary;
}

bool RotaryHandle::standsFor(uint8_t sectionIndex, uint8_t deviceId) const
{
    return m_rotary != nullptr && m_rotary->sectionIndex() == sectionIndex &&
           m_rotary->rotaryDeviceId() == deviceId;
}

bool RotaryHandle::touched() const
{
    return m_rotary != nullptr && m_rotary->touched();
}

bool RotaryHandle::pressed() const
{
    return m_rotary != nullptr && m_rotary->pressed();
}

void RotaryHandle::setColor(QColor color)
{
    if (m_rotary != nullptr) {
        m_rotary->setColor(color);
    }
}

void RotaryHandle::setFlashEnabled(bool enabled)
{
    if (m_rotary != nullptr) {
        m_rotary->setFlashEnabled(enabled);
    }
}

void RotaryHandle::setFlashInterval(int64_t intervalMs)
{
    if (m_rotary != nullptr) {
        m_rotary->setFlashInterval(intervalMs);
    }
}

void RotaryHandle::detach()
{
    // Cleared before the release: the release may call the global target's bind(), which
    // binds anew and must not find this handle still attached.
    if (auto* rotary = std::exchange(m_rotary, nullptr)) {
        rotary->releaseHandle(this);
    }
}

}  // namespace Velmora::Worksurface
