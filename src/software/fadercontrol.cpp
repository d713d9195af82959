#include "software/fadercontrol.h"

#include <algorithm>

#include "surface/deviceidtable.h"

using namespace Velmora::Worksurface;

FaderControl::FaderControl(QObject* parent) : SurfaceControlBase(parent) {}

FaderControl::~FaderControl() = default;

void FaderControl::setType(FaderBinding::FaderType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
    refresh();
}

void FaderControl::setTouched(bool touched)
{
    storeTouched(touched);
    sendToPlugin(
        SerialMessage(MessageType::FaderTouch, deviceId(), {touched ? uint8_t(1) : uint8_t(0)}));
}

void FaderControl::moveByHand(int position)
{
    const int clamped = std::clamp(position, 0, MaxPosition);
    storeValue(clamped);
    sendToPlugin(
        SerialMessage(MessageType::FaderPosition, deviceId(),
                      {static_cast<uint8_t>(clamped >> 8), static_cast<uint8_t>(clamped)}));
}

uint8_t FaderControl::deviceId() const
{
    return DeviceIdTable::fader(static_cast<int32_t>(m_type), index());
}

void FaderControl::refresh()
{
    replay(MessageType::FaderPosition, deviceId());
}

void FaderControl::activationChanged()
{
    if (active()) {
        refresh();
    } else {
        storeValue(0);
    }
}

bool FaderControl::takeMessage(const SerialMessage& message)
{
    if (message.deviceId != deviceId()) {
        return false;
    }
    switch (message.type) {
        case MessageType::FaderPosition:
            storeValue(message.wordAt(0, static_cast<uint16_t>(m_value)));
            return true;
        case MessageType::FaderBackstop:
        case MessageType::FaderDetent:
            // A widget has no backstop or detent to show.
            return true;
        case MessageType::FaderTouch:
            storeTouched(message.boolAt(0, m_touched));
            return true;
        default:
            return false;
    }
}

void FaderControl::storeValue(int value)
{
    if (value == m_value) {
        return;
    }
    m_value = value;
    emit valueChanged();
}

void FaderControl::storeTouched(bool touched)
{
    if (touched == m_touched) {
        return;
    }
    m_touched = touched;
    emit touchedChanged();
}
