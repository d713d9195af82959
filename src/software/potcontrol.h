#pragma once

#include <QColor>
#include <QObject>
#include <cstdint>

#include "bindings/potbinding.h"
#include "software/surfacecontrolbase.h"

// The headphone level pot of a QML-played master section, with its light (the headphone
// logo's RGB LED, device 18). The widget sets `position`; the plugin hears every new
// position and also gets it in answer to its periodic value request. The light's colour
// shows as `color`.
//
// The pot reports from device 0 when it is the Headphone pot, from 255 otherwise; its
// index plays no part.
class PotControl : public SurfaceControlBase
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "PotControl")
    Q_PROPERTY(PotBinding::PotType type READ type WRITE setType NOTIFY typeChanged)
    Q_PROPERTY(QColor color READ color NOTIFY colorChanged)
    Q_PROPERTY(int position READ position WRITE setPosition NOTIFY positionChanged)

public:
    static constexpr int MaxPosition = 511;

    explicit PotControl(QObject* parent = nullptr);
    ~PotControl() override;

    PotBinding::PotType type() const { return m_type; }
    // A new type points the control at another device and refreshes it.
    void setType(PotBinding::PotType type);
    QColor color() const { return m_color; }
    int position() const { return m_position; }
    // A write equal to the stored position does nothing. Any other is clamped to 0..511,
    // stored, announced and, while active, reported to the plugin. The comparison is made
    // before clamping, so writing 600 again after it was stored as 511 reports 511 again.
    void setPosition(int position);

    uint8_t deviceId() const override;
    // The light's device id: the headphone logo.
    static uint8_t lightDeviceId();

signals:
    void typeChanged();
    void positionChanged();
    void colorChanged();

protected:
    void refresh() override;
    // Answers the plugin's value request (any device) with the position but leaves the
    // request to other controls: it is not taken.
    bool takeMessage(const Velmora::Worksurface::SerialMessage& message) override;

private:
    // Type 17, variable-length, payload the big-endian position.
    void sendPosition();

    PotBinding::PotType m_type = PotBinding::None;
    QColor m_color = QColor(Qt::black);
    int m_position = 0;
};
