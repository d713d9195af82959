#include "bindings/meterbinding.h"

#include <algorithm>

#include "surface/controltypes.h"
#include "surface/deviceidtable.h"
#include "surface/imeter.h"
#include "surface/isurface.h"
#include "surface/meterhandle.h"

using namespace Velmora::Worksurface;

static_assert(MeterBinding::None == static_cast<int>(MeterType::None));
static_assert(MeterBinding::MasterLeft == static_cast<int>(MeterType::MasterLeft));
static_assert(MeterBinding::MasterRight == static_cast<int>(MeterType::MasterRight));

MeterBinding::MeterBinding(QObject* parent) : BindingBase(parent) {}

MeterBinding::~MeterBinding()
{
    // Gives the meter back through our own updateBinding() while this object is whole.
    deactivateForDestruction();
    m_handle.reset();
}

void MeterBinding::setType(MeterType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
    updateBinding();
}

int MeterBinding::toMeterScale(int value)
{
    // The meter takes one byte; values wrap rather than saturate, as the console's views
    // have always relied on, and everything up to the floor reads as an empty meter.
    return std::max(static_cast<int>(static_cast<uint8_t>(value)), Floor);
}

void MeterBinding::setLevel(int level)
{
    const int value = toMeterScale(level);
    if (value == m_level) {
        return;
    }
    m_level = value;
    emit levelChanged();
    if (const auto handle = m_handle.lock()) {
        handle->setLevel(static_cast<uint8_t>(m_level));
    }
}

void MeterBinding::setPeak(int peak)
{
    const int value = toMeterScale(peak);
    if (value == m_peak) {
        return;
    }
    m_peak = value;
    emit peakChanged();
    if (const auto handle = m_handle.lock()) {
        handle->setPeak(static_cast<uint8_t>(m_peak));
    }
}

void MeterBinding::updateBinding()
{
    // Without a surface nothing can be looked up, and the meter keeps what it shows.
    ISurface* const surface = this->surface();
    if (surface == nullptr) {
        return;
    }
    if (const auto handle = m_handle.lock()) {
        if (active() && handle->standsFor(static_cast<uint8_t>(sectionIndex()),
                                          DeviceIdTable::meter(static_cast<int32_t>(m_type)))) {
            // The meter already shows our values; levels are sent as they change.
            return;
        }
    }
    releaseHandle();
    if (!active()) {
        return;
    }
    const std::shared_ptr<IMeter> meter =
        surface->meter(static_cast<int32_t>(m_type), sectionIndex());
    if (!meter) {
        return;
    }
    const std::shared_ptr<MeterHandle> handle = meter->getHandle();
    m_handle = handle;
    if (handle) {
        handle->setLevel(static_cast<uint8_t>(m_level));
        handle->setPeak(static_cast<uint8_t>(m_peak));
    }
}

void MeterBinding::releaseHandle()
{
    const std::shared_ptr<MeterHandle> handle = m_handle.lock();
    m_handle.reset();
    if (handle) {
        handle->detach();
    }
}
