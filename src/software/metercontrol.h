#pragma once

#include <QObject>
#include <cstdint>

#include "bindings/meterbinding.h"
#include "software/surfacecontrolbase.h"

// One of the master meters of a QML-played master section (MasterLeft device 0,
// MasterRight device 1; the index plays no part). It shows the plugin's level and peak
// bytes as `value` and `peak`.
//
// Unlike the other controls a meter takes its messages while inactive too, so the plugin's
// levels are not offered on to anyone else, but an inactive meter shows 0. Deactivation
// drops both readings to 0; activation fetches the last ones again.
class MeterControl : public SurfaceControlBase
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "MeterControl")
    Q_PROPERTY(
        MeterBinding::MeterType meterType READ meterType WRITE setMeterType NOTIFY typeChanged)
    Q_PROPERTY(int value READ value NOTIFY valueChanged)
    Q_PROPERTY(int peak READ peak NOTIFY peakChanged)

public:
    explicit MeterControl(QObject* parent = nullptr);
    ~MeterControl() override;

    MeterBinding::MeterType meterType() const { return m_type; }
    // A new type points the control at another device and refreshes it.
    void setMeterType(MeterBinding::MeterType type);
    int value() const { return m_value; }
    int peak() const { return m_peak; }

    uint8_t deviceId() const override;

signals:
    void typeChanged();
    void valueChanged();
    void peakChanged();

protected:
    void refresh() override;
    void activationChanged() override;
    bool takeMessage(const Velmora::Worksurface::SerialMessage& message) override;
    bool hearsWhileInactive() const override { return true; }

private:
    void storeValue(int value);
    void storePeak(int peak);

    MeterBinding::MeterType m_type = MeterBinding::None;
    int m_value = 0;
    int m_peak = 0;
};
