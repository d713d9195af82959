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
    return m_rgbLed != nullptr && m_rgbLed->sectionIndex() == sectionIndex &&
           m_rgbLed->deviceId() == deviceId;
}

void RgbLedHandle::setColor(QColor color)
{
    if (m_rgbLed != nullptr) {
        m_rgbLed->setColor(color);
    }
}

void RgbLedHandle::detach()
{
    // Cleared before the release so that a second detach reached from inside the release
    // cannot release twice.
    if (auto* rgbLed = std::exchange(m_rgbLed, nullptr)) {
        rgbLed->releaseHandle(this);
    }
}

}  // namespace Velmora::Worksurface
