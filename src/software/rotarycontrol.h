#pragma once

#include <QColor>
#include <QObject>
#include <cstdint>

#include "bindings/rotarybinding.h"
#include "software/surfacecontrolbase.h"

// An endless rotary encoder of a QML-played section, with its touch sensor, push switch
// and RGB light ring. The widget calls rotate() for each turn and sets `touched` and
// `pressed`; the plugin's ring colour shows as `color`.
//
// Two device ids: the rotary's own (UnderScreen i below 10, SideRotary i + 10 below 6), for
// steps, touches and the ring colour, and its push switch's (21 + i, 31 + i), for presses.
class RotaryControl : public SurfaceControlBase
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "RotaryControl")
    Q_PROPERTY(RotaryBinding::RotaryType type READ type WRITE setType NOTIFY typeChanged)
    Q_PROPERTY(bool touched READ touched WRITE setTouched NOTIFY touchedChanged)
    Q_PROPERTY(bool pressed READ pressed WRITE setPressed NOTIFY pressedChanged)
    Q_PROPERTY(QColor color READ color NOTIFY colorChanged)

public:
    explicit RotaryControl(QObject* parent = nullptr);
    ~RotaryControl() override;

    RotaryBinding::RotaryType type() const { return m_type; }
    // A new type points the control at other devices and refreshes it.
    void setType(RotaryBinding::RotaryType type);
    bool touched() const { return m_touched; }
    // Reports the touch to the plugin (type 19, payload [touched]) while active, on every
    // write.
    void setTouched(bool touched);
    bool pressed() const { return m_pressed; }
    // Reports a change to the plugin (type 20 from the push switch) while active.
    void setPressed(bool pressed);
    QColor color() const { return m_color; }

    // Reports `amount` steps (positive clockwise) to the plugin while active: type 18,
    // payload the low 8 bits of the amount, which the plugin reads as a signed count.
    Q_INVOKABLE void rotate(int amount);

    // The rotary's own device id; 255 when none.
    uint8_t deviceId() const override;
    // The push switch's device id; 255 when none.
    uint8_t buttonDeviceId() const;

signals:
    void typeChanged();
    void touchedChanged();
    void pressedChanged();
    void colorChanged();

protected:
    void refresh() override;
    bool takeMessage(const Velmora::Worksurface::SerialMessage& message) override;

private:
    RotaryBinding::RotaryType m_type = RotaryBinding::None;
    bool m_touched = false;
    bool m_pressed = false;
    QColor m_color = QColor(Qt::black);
};
