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
    const auto* target = m_rotary.load();
    return target != nullptr && target->sectionIndex() == sectionIndex &&
           target->rotaryDeviceId() == deviceId;
}

bool RotaryHandle::touched() const
{
    const auto* target = m_rotary.load();
    return target != nullptr && target->touched();
}

bool RotaryHandle::pressed() const
{
    const auto* target = m_rotary.load();
    return target != nullptr && target->pressed();
}

void RotaryHandle::setColor(QColor color)
{
    if (auto* target = m_rotary.load()) {
        target->setColor(color);
    }
}

void RotaryHandle::setFlashEnabled(bool enabled)
{
    if (auto* target = m_rotary.load()) {
        target->setFlashEnabled(enabled);
    }
}

void RotaryHandle::setFlashInterval(int64_t intervalMs)
{
    if (auto* target = m_rotary.load()) {
        target->setFlashInterval(intervalMs);
    }
}

void RotaryHandle::detach()
{
    // Cleared before the release: the release may call the global target's bind(), which
    // binds anew and must not find this handle still attached.
    if (auto* rotary = m_rotary.exchange(nullptr)) {
        rotary->releaseHandle(this);
    }
}

}  // namespace Velmora::Worksurface
