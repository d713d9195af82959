#include "bindings/potbinding.h"

#include <cmath>

#include "surface/controltypes.h"
#include "surface/deviceidtable.h"
#include "surface/ipot.h"
#include "surface/isurface.h"
#include "surface/pothandle.h"

using namespace Velmora::Worksurface;

static_assert(PotBinding::None == static_cast<int>(PotType::None));
static_assert(PotBinding::Headphone == static_cast<int>(PotType::Headphone));

namespace {

// A change of the shown value smaller than this is no step.
constexpr float kStepThreshold = 0.3f;

}  // namespace

PotBinding::PotBinding(QObject* parent) : BindingBase(parent) {}

PotBinding::~PotBinding()
{
    // Gives the pot back through our own updateBinding() while this object is whole.
    deactivateForDestruction();
    m_handle.reset();
}

void PotBinding::setType(PotType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
    updateBinding();
}

void PotBinding::setColor(const QColor& color)
{
    if (color == m_color) {
        return;
    }
    m_color = color;
    emit colorChanged();
    if (const auto handle = m_handle.lock()) {
        handle->setColor(m_color);
    }
}

float PotBinding::convertForUi(quint16 position)
{
    // Whole-number arithmetic on purpose: the view shows whole dB steps.
    const int p = position;
    if (p > 500) {
        return 11.0f;
    }
    if (p > 450) {
        return static_cast<float>((p - 450) * 6 / 50 + 5);
    }
    if (p > 400) {
        return static_cast<float>((p - 400) * 5 / 50);
    }
    if (p > 320) {
        return static_cast<float>((p - 320) * 5 / 80 - 5);
    }
    if (p > 260) {
        return static_cast<float>((p - 260) * 5 / 60 - 10);
    }
    if (p > 190) {
        return static_cast<float>((p - 190) * 10 / 70 - 20);
    }
    if (p > 70) {
        return static_cast<float>((p - 70) * 10 / 60 - 40);
    }
    if (p > 30) {
        return static_cast<float>((p - 30) * 10 / 40 - 50);
    }
    if (p > 5) {
        return static_cast<float>((p - 5) * 10 / 25 - 60);
    }
    return static_cast<float>(p) * 18.0f - 150.0f;
}

void PotBinding::convertPotValueToUiScaleAndInformPotHasBeenTurned(quint16 new_position)
{
    const float value = convertForUi(new_position);
    if (std::fabs(value - m_lastUiValue) > kStepThreshold) {
        m_lastUiValue = value;
        emit potTurned(value, static_cast<float>(new_position / 511.0));
    }
}

void PotBinding::updateBinding()
{
    // Without a surface nothing can be looked up, and the pot keeps its light.
    ISurface* const surface = this->surface();
    if (surface == nullptr) {
        return;
    }
    const int32_t type = static_cast<int32_t>(m_type);
    if (const auto handle = m_handle.lock()) {
        if (active() &&
            handle->standsFor(static_cast<uint8_t>(sectionIndex()), DeviceIdTable::pot(type).pot)) {
            convertPotValueToUiScaleAndInformPotHasBeenTurned(handle->value());
            handle->setColor(m_color);
            return;
        }
    }
    releaseHandle();
    if (!active()) {
        return;
    }
    const std::shared_ptr<IPot> pot = surface->pot(type, sectionIndex());
    if (!pot) {
        return;
    }
    const std::shared_ptr<PotHandle> handle = pot->getHandle();
    m_handle = handle;
    if (!handle) {
        return;
    }
    connect(handle.get(), &PotHandle::potValueChanged, this,
            &PotBinding::convertPotValueToUiScaleAndInformPotHasBeenTurned);
    convertPotValueToUiScaleAndInformPotHasBeenTurned(handle->value());
    handle->setColor(m_color);
}

void PotBinding::releaseHandle()
{
    const std::shared_ptr<PotHandle> handle = m_handle.lock();
    m_handle.reset();
    if (handle) {
        disconnect(handle.get(), nullptr, this, nullptr);
        handle->detach();
    }
}
