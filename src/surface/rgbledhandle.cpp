#include "surface/rgbledhandle.h"

#include <utility>

#include "surface/irgbled.h"

namespace Velmora::Worksurface {

RgbLedHandle::RgbLedHandle(IRgbLed* rgbLed, QObject* parent) : QObject(parent), m_rgbLed(rgbLed) {}

RgbLedHandle::~RgbLedHandle() = default;

IRgbLed* RgbLedHandle::rgbLed() const
{
    return m_rgbLed;
}

bool RgbLedHandle::standsFor(uint8_t sectionIndex, uint8_t deviceId) const
{
    const auto* target = m_rgbLed.load();
    return target != nullptr && target->sectionIndex() == sectionIndex &&
           target->deviceId() == deviceId;
}

void RgbLedHandle::setColor(QColor color)
{
    if (auto* target = m_rgbLed.load()) {
        target->setColor(color);
    }
}

void RgbLedHandle::detach()
{
    // Cleared before the release so that a second detach reached from inside the release
    // cannot release twice.
    if (auto* rgbLed = m_rgbLed.exchange(nullptr)) {
        rgbLed->releaseHandle(this);
    }
}

}  // namespace Velmora::Worksurface
