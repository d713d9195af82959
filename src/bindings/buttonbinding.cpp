#include "bindings/buttonbinding.h"

#include "surface/buttonhandle.h"
#include "surface/controltypes.h"
#include "surface/deviceidtable.h"
#include "surface/ibutton.h"
#include "surface/isurface.h"

using namespace Velmora::Worksurface;

#define TARVIX_SAME_BUTTON_VALUE(name)                                       \
    static_assert(ButtonBinding::name == static_cast<int>(ButtonType::name), \
                  "ButtonBinding::" #name " must match the core button type")
TARVIX_SAME_BUTTON_VALUE(None);
TARVIX_SAME_BUTTON_VALUE(Mute);
TARVIX_SAME_BUTTON_VALUE(Solo);
TARVIX_SAME_BUTTON_VALUE(MasterMute);
TARVIX_SAME_BUTTON_VALUE(MasterSolo);
TARVIX_SAME_BUTTON_VALUE(NextSnapsthot);
TARVIX_SAME_BUTTON_VALUE(PreviousSnapshot);
TARVIX_SAME_BUTTON_VALUE(LayerUp);
TARVIX_SAME_BUTTON_VALUE(LayerDown);
TARVIX_SAME_BUTTON_VALUE(Spillset);
TARVIX_SAME_BUTTON_VALUE(Overview);
TARVIX_SAME_BUTTON_VALUE(UnderscreenRotary);
TARVIX_SAME_BUTTON_VALUE(SideRotary);
#undef TARVIX_SAME_BUTTON_VALUE

ButtonBinding::ButtonBinding(QObject* parent) : BindingBase(parent) {}

ButtonBinding::~ButtonBinding()
{
    // Gives the button back while this object can still run its own updateBinding().
    deactivateForDestruction();
    dropHandle();
}

void ButtonBinding::setType(ButtonType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
}

void ButtonBinding::updateBinding()
{
    if (const std::shared_ptr<ButtonHandle> handle = m_handle.lock()) {
        // A button has nothing to send: a binding that still has the right one is done.
        if (active() &&
            handle->standsFor(static_cast<uint8_t>(sectionIndex()), selectedDeviceId())) {
            return;
        }
        dropHandle();
        handle->detach();
    }
    dropHandle();

    // Checked only now: an inactive binding gives its button back even while no surface
    // is reachable.
    ISurface* const surface = this->surface();
    if (surface == nullptr || !active()) {
        return;
    }
    const std::shared_ptr<IButton> button =
        surface->button(static_cast<int32_t>(m_type), sectionIndex(), index());
    if (!button) {
        return;
    }
    const std::shared_ptr<ButtonHandle> handle = button->getHandle();
    if (!handle) {
        return;
    }
    m_handle = handle;
    m_pressedLink =
        connect(handle.get(), &ButtonHandle::buttonPressed, this, &ButtonBinding::buttonPressed);
    m_releasedLink =
        connect(handle.get(), &ButtonHandle::buttonReleased, this, &ButtonBinding::buttonReleased);
}

uint8_t ButtonBinding::selectedDeviceId() const
{
    return DeviceIdTable::button(static_cast<int32_t>(m_type), index());
}

void ButtonBinding::dropHandle()
{
    QObject::disconnect(m_pressedLink);
    QObject::disconnect(m_releasedLink);
    m_handle.reset();
}
