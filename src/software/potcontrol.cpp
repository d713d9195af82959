#include "software/potcontrol.h"

#include <algorithm>

#include "surface/deviceidtable.h"

using namespace Velmora::Worksurface;

PotControl::PotControl(QObject* parent) : SurfaceControlBase(parent) {}

PotControl::~PotControl() = default;

void PotControl::setType(PotBinding::PotType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
    refresh();
}

void PotControl::setPosition(int position)
{
    if (position == m_position) {
        return;
    }
    m_position = std::clamp(position, 0, MaxPosition);
    emit positionChanged();
    sendPosition();
}

uint8_t PotControl::deviceId() const
{
    return DeviceIdTable::pot(static_cast<int32_t>(m_type)).pot;
}

uint8_t PotControl::lightDeviceId()
{
    return DeviceIdTable::rgbLed(RgbLedType::HeadphoneLogo, 0);
}

void PotControl::refresh()
{
    replay(MessageType::RgbColor, lightDeviceId());
}

bool PotControl::takeMessage(const SerialMessage& message)
{
    if (message.type == MessageType::PotValue) {
        sendPosition();
        return false;
    }
    if (message.type != MessageType::RgbColor || message.deviceId != lightDeviceId()) {
        return false;
    }
    m_color = colorFrom(message, m_color);
    emit colorChanged();
    return true;
}

void PotControl::sendPosition()
{
    sendToPlugin(SerialMessage(
        MessageType::PotValue, deviceId(),
        {static_cast<uint8_t>(m_position >> 8), static_cast<uint8_t>(m_position & 0xFF)}, true));
}
