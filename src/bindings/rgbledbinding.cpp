#include "bindings/rgbledbinding.h"

#include "surface/controltypes.h"
#include "surface/deviceidtable.h"
#include "surface/irgbled.h"
#include "surface/isurface.h"
#include "surface/rgbledhandle.h"

using namespace Velmora::Worksurface;

static_assert(RgbLedBinding::None == static_cast<int>(RgbLedType::None));
static_assert(RgbLedBinding::UnderscreenRotaryButton ==
              static_cast<int>(RgbLedType::UnderscreenRotaryButton));
static_assert(RgbLedBinding::SideRotaryButton == static_cast<int>(RgbLedType::SideRotaryButton));
static_assert(RgbLedBinding::NameLogo == static_cast<int>(RgbLedType::NameLogo));
static_assert(RgbLedBinding::MainLogo == static_cast<int>(RgbLedType::MainLogo));
static_assert(RgbLedBinding::HeadphoneLogo == static_cast<int>(RgbLedType::HeadphoneLogo));
static_assert(RgbLedBinding::SnapshotLogo == static_cast<int>(RgbLedType::SnapshotLogo));
static_assert(RgbLedBinding::DashboardLogo == static_cast<int>(RgbLedType::DashboardLogo));
static_assert(RgbLedBinding::OverviewLogo == static_cast<int>(RgbLedType::OverviewLogo));

RgbLedBinding::RgbLedBinding(QObject* parent) : BindingBase(parent) {}

RgbLedBinding::~RgbLedBinding()
{
    // Lets the light go black through our own updateBinding() while this object is whole.
    deactivateForDestruction();
    m_handle.reset();
}

void RgbLedBinding::setType(RgbLedType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
    updateBinding();
}

void RgbLedBinding::setColor(const QColor& color)
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

void RgbLedBinding::updateBinding()
{
    // Without a surface nothing can be looked up, and the light keeps its colour.
    ISurface* const surface = this->surface();
    if (surface == nullptr) {
        return;
    }
    if (const auto handle = m_handle.lock()) {
        if (active() &&
            handle->standsFor(static_cast<uint8_t>(sectionIndex()),
                              DeviceIdTable::rgbLed(static_cast<int32_t>(m_type), index()))) {
            handle->setColor(m_color);
            return;
        }
    }
    releaseHandle();
    if (!active()) {
        return;
    }
    const std::shared_ptr<IRgbLed> led =
        surface->rgbLed(static_cast<int32_t>(m_type), sectionIndex(), index());
    if (!led) {
        return;
    }
    const std::shared_ptr<RgbLedHandle> handle = led->getHandle();
    m_handle = handle;
    if (handle) {
        handle->setColor(m_color);
    }
}

void RgbLedBinding::releaseHandle()
{
    const std::shared_ptr<RgbLedHandle> handle = m_handle.lock();
    m_handle.reset();
    if (handle) {
        handle->detach();
    }
}
