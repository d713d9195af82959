#include "software/metercontrol.h"

#include "surface/deviceidtable.h"

using namespace Velmora::Worksurface;

MeterControl::MeterControl(QObject* parent) : SurfaceControlBase(parent) {}

MeterControl::~MeterControl() = default;

void MeterControl::setMeterType(MeterBinding::MeterType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
    refresh();
}

uint8_t MeterControl::deviceId() const
{
    return DeviceIdTable::meter(static_cast<int32_t>(m_type));
}

void MeterControl::refresh()
{
    replay(MessageType::MeterLevel, deviceId());
    replay(MessageType::MeterPeak, deviceId());
}

void MeterControl::activationChanged()
{
    if (active()) {
        refresh();
        return;
    }
    // A switched-off meter shows nothing; both are announced so a widget redraws at once.
    m_peak = 0;
    emit peakChanged();
    m_value = 0;
    emit valueChanged();
}

bool MeterControl::takeMessage(const SerialMessage& message)
{
    if (message.deviceId != deviceId()) {
        return false;
    }
    switch (message.type) {
        case MessageType::MeterLevel:
            storeValue(active() ? message.byteAt(0, static_cast<uint8_t>(m_value)) : 0);
            return true;
        case MessageType::MeterPeak:
            storePeak(active() ? message.byteAt(0, static_cast<uint8_t>(m_peak)) : 0);
            return true;
        default:
            return false;
    }
}

void MeterControl::storeValue(int value)
{
    if (value == m_value) {
        return;
    }
    m_value = value;
    emit valueChanged();
}

void MeterControl::storePeak(int peak)
{
    if (peak == m_peak) {
        return;
    }
    m_peak = peak;
    emit peakChanged();
}
