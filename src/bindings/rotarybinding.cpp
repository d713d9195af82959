#include "bindings/rotarybinding.h"

#include "surface/controltypes.h"
#include "surface/deviceidtable.h"
#include "surface/irotary.h"
#include "surface/isurface.h"
#include "surface/rotaryhandle.h"

using namespace Velmora::Worksurface;

static_assert(RotaryBinding::None == static_cast<int>(RotaryType::None));
static_assert(RotaryBinding::UnderScreen == static_cast<int>(RotaryType::UnderScreen));
static_assert(RotaryBinding::SideRotary == static_cast<int>(RotaryType::SideRotary));

RotaryBinding::RotaryBinding(QObject* parent) : BindingBase(parent), m_flash(new FlashInfo(this))
{
    connect(m_flash, &FlashInfo::enabledChanged, this, &RotaryBinding::sendRotaryFlashEnabled);
    connect(m_flash, &FlashInfo::intervalChanged, this, &RotaryBinding::sendRotaryFlashInterval);
    // After the ring has been told: a handler reading the interval sees it in effect.
    connect(m_flash, &FlashInfo::intervalChanged, this, &RotaryBinding::flashIntervalChanged);
}

RotaryBinding::~RotaryBinding()
{
    // Gives the rotary back through our own updateBinding() while this object is whole; a
    // global target waiting on the rotary takes it over from there.
    deactivateForDestruction();
    withdrawGlobalRegistrations();
    m_handle.reset();
}

void RotaryBinding::setType(RotaryType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
}

bool RotaryBinding::touched() const
{
    const auto handle = m_handle.lock();
    return handle && handle->touched();
}

bool RotaryBinding::pressed() const
{
    const auto handle = m_handle.lock();
    return handle && handle->pressed();
}

void RotaryBinding::setColor(const QColor& color)
{
    if (color != m_color) {
        m_color = color;
        emit colorChanged();
    }
    // Always sent: the ring may have been turned black by a flash step or by a previous
    // holder, and writing the colour again is how a view repaints it.
    sendRotaryRgbLedColor(active());
}

void RotaryBinding::setScope(RotaryScope scope)
{
    if (scope == m_scope) {
        return;
    }
    m_scope = scope;
    emit scopeChanged();
    updateBinding();
}

void RotaryBinding::bind()
{
    updateBinding();
}

void RotaryBinding::sendRotaryFlashEnabled()
{
    if (const auto handle = m_handle.lock()) {
        handle->setFlashEnabled(m_flash->enabled());
    }
}

void RotaryBinding::sendRotaryFlashInterval()
{
    if (const auto handle = m_handle.lock()) {
        handle->setFlashInterval(m_flash->interval());
    }
}

void RotaryBinding::updateBinding()
{
    const int32_t type = static_cast<int32_t>(m_type);
    if (const auto handle = m_handle.lock()) {
        if (active() && handle->standsFor(static_cast<uint8_t>(sectionIndex()),
                                          DeviceIdTable::rotary(type, index()).rotary)) {
            sendRingState(active());
            return;
        }
    }
    releaseHandle();

    ISurface* const surface = this->surface();
    if (surface == nullptr) {
        return;
    }
    if (m_scope == Global) {
        const int answer = surface->offerGlobalTarget(type, sectionIndex(), index(), this);
        if (answer != IRotary::Refused) {
            rememberGlobalRegistration(surface->rotary(type, sectionIndex(), index()));
        }
        // While another binding holds the rotary we wait for its bind() call.
        if (answer != IRotary::StoredUnbound) {
            return;
        }
    }
    if (!active()) {
        return;
    }
    const std::shared_ptr<IRotary> rotary = surface->rotary(type, sectionIndex(), index());
    if (!rotary) {
        return;
    }
    const std::shared_ptr<RotaryHandle> handle = rotary->getHandle();
    m_handle = handle;
    if (!handle) {
        return;
    }
    connect(handle.get(), &RotaryHandle::rotaryPressed, this, &RotaryBinding::pressedChanged);
    connect(handle.get(), &RotaryHandle::rotaryTouched, this, &RotaryBinding::touchedChanged);
    connect(handle.get(), &RotaryHandle::rotaryRotated, this,
            [this](qint8 steps) { emit rotaryRotated(static_cast<int>(steps)); });
    sendRingState(active());
}

void RotaryBinding::sendRotaryRgbLedColor(bool on)
{
    if (const auto handle = m_handle.lock()) {
        handle->setColor(on ? m_color : QColor(Qt::transparent));
    }
}

void RotaryBinding::sendRingState(bool on)
{
    sendRotaryRgbLedColor(on);
    sendRotaryFlashEnabled();
    sendRotaryFlashInterval();
}

void RotaryBinding::releaseHandle()
{
    const std::shared_ptr<RotaryHandle> handle = m_handle.lock();
    // Dropped before the release: the rotary may call a global target's bind() from
    // inside it, and that may be this binding.
    m_handle.reset();
    if (handle) {
        disconnect(handle.get(), nullptr, this, nullptr);
        handle->detach();
    }
}

void RotaryBinding::rememberGlobalRegistration(const std::shared_ptr<IRotary>& rotary)
{
    if (!rotary) {
        return;
    }
    for (auto it = m_globalRegistrations.begin(); it != m_globalRegistrations.end();) {
        const std::shared_ptr<IRotary> known = it->lock();
        if (known == rotary) {
            return;
        }
        // Rotaries of a surface that has since been replaced are gone.
        it = known ? it + 1 : m_globalRegistrations.erase(it);
    }
    m_globalRegistrations.push_back(rotary);
}

void RotaryBinding::withdrawGlobalRegistrations()
{
    for (const auto& registration : m_globalRegistrations) {
        if (const std::shared_ptr<IRotary> rotary = registration.lock()) {
            rotary->setGlobalTarget(nullptr);
        }
    }
    m_globalRegistrations.clear();
}
