#include "surface/pothandle.h"

#include <utility>

#include "surface/ipot.h"

namespace Velmora::Worksurface {

PotHandle::PotHandle(IPot* pot, QObject* parent) : QObject(parent), m_pot(pot) {}

PotHandle::~PotHandle() = default;

IPot* PotHandle::pot() const
{
    return m_pot;
}

bool PotHandle::standsFor(uint8_t sectionIndex, uint8_t deviceId) const
{
    const auto* target = m_pot.load();
    return target != nullptr && target->sectionIndex() == sectionIndex &&
           target->potDeviceId() == deviceId;
}

quint16 PotHandle::value() const
{
    const auto* target = m_pot.load();
    return target != nullptr ? target->value() : 0;
}

void PotHandle::setColor(QColor color)
{
    if (auto* target = m_pot.load()) {
        target->setColor(color);
    }
}

void PotHandle::detach()
{
    // Cleared before the release so that a second detach reached from inside the release
    // cannot release twice.
    if (auto* pot = m_pot.exchange(nullptr)) {
        pot->releaseHandle(this);
    }
}

}  // namespace Velmora::Worksurface
