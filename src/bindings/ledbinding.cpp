#include "bindings/ledbinding.h"

#include <algorithm>

#include "surface/controltypes.h"
#include "surface/deviceidtable.h"
#include "surface/iled.h"
#include "surface/isurface.h"
#include "surface/ledhandle.h"

using namespace Velmora::Worksurface;

static_assert(LedBinding::None == static_cast<int>(LedType::None));
static_assert(LedBinding::MuteButton == static_cast<int>(LedType::MuteButton));
static_assert(LedBinding::SoloButton == static_cast<int>(LedType::SoloButton));
static_assert(LedBinding::MasterMuteButton == static_cast<int>(LedType::MasterMuteButton));
static_assert(LedBinding::MasterSoloButton == static_cast<int>(LedType::MasterSoloButton));
static_assert(LedBinding::NextSnapsthotButton == static_cast<int>(LedType::NextSnapsthotButton));
static_assert(LedBinding::PreviousSnapshotButton ==
              static_cast<int>(LedType::PreviousSnapshotButton));
static_assert(LedBinding::LayerUpButton == static_cast<int>(LedType::LayerUpButton));
static_assert(LedBinding::LayerDownButton == static_cast<int>(LedType::LayerDownButton));
static_assert(LedBinding::SpillsetButton == static_cast<int>(LedType::SpillsetButton));
static_assert(LedBinding::OverviewButton == static_cast<int>(LedType::OverviewButton));

LedBinding::LedBinding(QObject* parent) : BindingBase(parent), m_flash(new FlashInfo(this))
{
    connect(m_flash, &FlashInfo::enabledChanged, this, &LedBinding::sendLedFlashEnabled);
    connect(m_flash, &FlashInfo::intervalChanged, this, &LedBinding::sendLedFlashInterval);
}

LedBinding::~LedBinding()
{
    // Lets the LED go dark through our own updateBinding() while this object is whole.
    deactivateForDestruction();
    m_handle.reset();
}

void LedBinding::setType(LedType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
    updateBinding();
}

void LedBinding::setOn(bool on)
{
    if (on == m_on) {
        return;
    }
    m_on = on;
    emit onChanged();
    if (const auto handle = m_handle.lock()) {
        sendOn(*handle);
    }
}

void LedBinding::setBrightness(int brightness)
{
    const int clamped = std::clamp(brightness, 0, 255);
    if (clamped == m_brightness) {
        return;
    }
    m_brightness = clamped;
    emit brightnessChanged();
    if (const auto handle = m_handle.lock()) {
        handle->setBrightness(static_cast<uint8_t>(m_brightness));
    }
}

void LedBinding::sendLedFlashEnabled()
{
    if (const auto handle = m_handle.lock()) {
        handle->setFlashEnabled(m_flash->enabled());
    }
}

void LedBinding::sendLedFlashInterval()
{
    if (const auto handle = m_handle.lock()) {
        handle->setFlashInterval(m_flash->interval());
    }
}

void LedBinding::updateBinding()
{
    // Without a surface nothing can be looked up, and the LED keeps what it shows.
    ISurface* const surface = this->surface();
    if (surface == nullptr) {
        return;
    }
    if (const auto handle = m_handle.lock()) {
        if (active() &&
            handle->standsFor(static_cast<uint8_t>(sectionIndex()),
                              DeviceIdTable::led(static_cast<int32_t>(m_type), index()))) {
            sendAll(*handle);
            return;
        }
    }
    releaseHandle();
    if (!active()) {
        return;
    }
    const std::shared_ptr<ILed> led =
        surface->led(static_cast<int32_t>(m_type), sectionIndex(), index());
    if (!led) {
        return;
    }
    const std::shared_ptr<LedHandle> handle = led->getHandle();
    m_handle = handle;
    if (handle) {
        sendAll(*handle);
    }
}

void LedBinding::sendOn(LedHandle& handle) const
{
    handle.setOn(m_on ? 1 : 0);
}

void LedBinding::sendAll(LedHandle& handle) const
{
    sendOn(handle);
    handle.setBrightness(static_cast<uint8_t>(m_brightness));
    handle.setFlashEnabled(m_flash->enabled());
    handle.setFlashInterval(m_flash->interval());
}

void LedBinding::releaseHandle()
{
    const std::shared_ptr<LedHandle> handle = m_handle.lock();
    m_handle.reset();
    if (handle) {
        handle->detach();
    }
}
