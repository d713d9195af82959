#include "surface/meterhandle.h"

#include <utility>

#include "surface/imeter.h"

namespace Velmora::Worksurface {

MeterHandle::MeterHandle(IMeter* meter, QObject* parent) : QObject(parent), m_meter(meter) {}

MeterHandle::~MeterHandle() = default;

IMeter* MeterHandle::meter() const
{
    return m_meter;
}

bool MeterHandle::standsFor(uint8_t sectionIndex, uint8_t deviceId) const
{
    return m_meter != nullptr && m_meter->sectionIndex() == sectionIndex &&
           m_meter->deviceId() == deviceId;
}

void MeterHandle::setLevel(uint8_t level)
{
    if (m_meter != nullptr) {
        m_meter->setLevel(level);
    }
}

void MeterHandle::setPeak(uint8_t peak)
{
    if (m_meter != nullptr) {
        m_meter->setPeak(peak);
    }
}

void MeterHandle::detach()
{
    // Cleared before the release so that a second detach reached from inside the release
    // cannot release twice.
    if (auto* meter = std::exchange(m_meter, nullptr)) {
        meter->releaseHandle(this);
    }
}

}  // namespace Velmora::Worksurface
