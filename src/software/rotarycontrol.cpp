#include "software/rotarycontrol.h"

#include "surface/deviceidtable.h"

using namespace Velmora::Worksurface;

RotaryControl::RotaryControl(QObject* parent) : SurfaceControlBase(parent) {}

RotaryControl::~RotaryControl() = default;

void RotaryControl::setType(RotaryBinding::RotaryType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
    refresh();
}

void RotaryControl::setTouched(bool touched)
{
    if (touched != m_touched) {
        m_touched = touched;
        emit touchedChanged();
    }
    sendToPlugin(
        SerialMessage(MessageType::RotaryTouch, deviceId(), {touched ? uint8_t(1) : uint8_t(0)}));
}

void RotaryControl::setPressed(bool pressed)
{
    if (pressed == m_pressed) {
        return;
    }
    m_pressed = pressed;
    emit pressedChanged();
    sendToPlugin(SerialMessage(MessageType::ButtonState, buttonDeviceId(),
                               {pressed ? uint8_t(1) : uint8_t(0)}));
}

void RotaryControl::rotate(int amount)
{
    sendToPlugin(
        SerialMessage(MessageType::RotaryStep, deviceId(), {static_cast<uint8_t>(amount)}));
}

uint8_t RotaryControl::deviceId() const
{
    return DeviceIdTable::rotary(static_cast<int32_t>(m_type), index()).rotary;
}

uint8_t RotaryControl::buttonDeviceId() const
{
    return DeviceIdTable::rotary(static_cast<int32_t>(m_type), index()).button;
}

void RotaryControl::refresh()
{
    replay(MessageType::RgbColor, deviceId());
}

bool RotaryControl::takeMessage(const SerialMessage& message)
{
    if (message.deviceId != deviceId() || message.type != MessageType::RgbColor) {
        return false;
    }
    // Every colour the plugin sends is shown, a repeated one too (a flashing ring sends
    // the same colours again and again).
    m_color = colorFrom(message, m_color);
    emit colorChanged();
    return true;
}
