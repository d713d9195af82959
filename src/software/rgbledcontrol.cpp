#include "software/rgbledcontrol.h"

#include "surface/deviceidtable.h"

using namespace Velmora::Worksurface;

RgbLedControl::RgbLedControl(QObject* parent) : SurfaceControlBase(parent) {}

RgbLedControl::~RgbLedControl() = default;

void RgbLedControl::setType(RgbLedBinding::RgbLedType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
    refresh();
}

uint8_t RgbLedControl::deviceId() const
{
    return DeviceIdTable::rgbLed(static_cast<int32_t>(m_type), index());
}

void RgbLedControl::refresh()
{
    replay(MessageType::RgbColor, deviceId());
}

bool RgbLedControl::takeMessage(const SerialMessage& message)
{
    if (message.deviceId != deviceId() || message.type != MessageType::RgbColor) {
        return false;
    }
    // Every colour the plugin sends is shown, a repeated one too.
    m_color = colorFrom(message, m_color);
    emit colorChanged();
    return true;
}
