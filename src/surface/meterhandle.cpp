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
    const auto* target = m_meter.load();
    return target != nullptr && target->sectionIndex() == sectionIndex &&
           target->deviceId() == deviceId;
}

void MeterHandle::setLevel(uint8_t level)
{
    if (auto* target = m_meter.load()) {
        target->setLevel(level);
    }
}

void MeterHandle::setPeak(uint8_t peak)
{
    if (auto* target = m_meter.load()) {
        target->setPeak(peak);
    }
}

void MeterHandle::detach()
{
    // Cleared before the release so that a second detach reached from inside the release
    // cannot release twice.
    if (auto* meter = m_meter.exchange(nullptr)) {
        meter->releaseHandle(this);
    }
}

}  // namespace Velmora::Worksurface
