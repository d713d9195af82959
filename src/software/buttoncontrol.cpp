#include "software/buttoncontrol.h"

#include "surface/deviceidtable.h"

using namespace Velmora::Worksurface;

ButtonControl::ButtonControl(QObject* parent) : SurfaceControlBase(parent) {}

ButtonControl::~ButtonControl() = default;

void ButtonControl::setType(ButtonBinding::ButtonType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
    refresh();
}

void ButtonControl::setPressed(bool pressed)
{
    if (pressed == m_pressed) {
        return;
    }
    m_pressed = pressed;
    emit pressedChanged();
    sendToPlugin(
        SerialMessage(MessageType::ButtonState, deviceId(), {pressed ? uint8_t(1) : uint8_t(0)}));
}

uint8_t ButtonControl::deviceId() const
{
    return DeviceIdTable::button(static_cast<int32_t>(m_type), index());
}

void ButtonControl::refresh()
{
    replay(MessageType::Led, deviceId());
}

bool ButtonControl::takeMessage(const SerialMessage& message)
{
    if (message.deviceId != deviceId() || message.type != MessageType::Led) {
        return false;
    }
    // Every level the plugin sends is shown, even a repeated one: the LED is refreshed.
    m_brightness = message.byteAt(0, static_cast<uint8_t>(m_brightness));
    emit brightnessChanged();
    return true;
}
