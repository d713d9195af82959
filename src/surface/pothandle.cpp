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
    return m_pot != nullptr && m_pot->sectionIndex() == sectionIndex &&
           m_pot->potDeviceId() == deviceId;
}

quint16 PotHandle::value() const
{
    return m_pot != nullptr ? m_pot->value() : 0;
}

void PotHandle::setColor(QColor color)
{
    if (m_pot != nullptr) {
        m_pot->setColor(color);
    }
}

void PotHandle::detach()
{
    // Cleared before the release so that a second detach reached from inside the release
    // cannot release twice.
    if (auto* pot = std::exchange(m_pot, nullptr)) {
        pot->releaseHandle(this);
    }
}

}  // namespace Velmora::Worksurface
