#pragma once

#include <QObject>
#include <cstdint>

#include "bindings/faderbinding.h"
#include "software/surfacecontrolbase.h"

// A motorised, touch-sensitive fader of a QML-played section. `value` is where the plugin
// drives the motor (0..511, from its fader position messages); the widget reports a finger
// on the knob through `touched`.
//
// For the demo, a widget dragged by hand calls moveByHand(): the knob goes there and the
// plugin hears the move as it hears a section's fader report.
//
// The device id is the strip's index for a Fader (below 10) and 10 for the MasterFader.
// An inactive fader rests at 0.
class FaderControl : public SurfaceControlBase
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "FaderControl")
    Q_PROPERTY(FaderBinding::FaderType type READ type WRITE setType NOTIFY typeChanged)
    Q_PROPERTY(int value READ value NOTIFY valueChanged)
    Q_PROPERTY(bool touched READ touched WRITE setTouched NOTIFY touchedChanged)

public:
    static constexpr int MaxPosition = 511;

    explicit FaderControl(QObject* parent = nullptr);
    ~FaderControl() override;

    FaderBinding::FaderType type() const { return m_type; }
    // A new type points the control at another device and refreshes it.
    void setType(FaderBinding::FaderType type);
    int value() const { return m_value; }
    bool touched() const { return m_touched; }
    // Reports the touch to the plugin (type 16, payload [touched]) while active, on every
    // write: the section repeats its touch state too.
    void setTouched(bool touched);

    // The knob moved by hand to `position` (clamped to 0..511): stored as `value` and,
    // while active, reported to the plugin as a section reports a hand move (type 7,
    // big-endian 16-bit position), whether or not the value changed.
    Q_INVOKABLE void moveByHand(int position);

    uint8_t deviceId() const override;

signals:
    void typeChanged();
    void valueChanged();
    void touchedChanged();

protected:
    void refresh() override;
    void activationChanged() override;
    bool takeMessage(const Velmora::Worksurface::SerialMessage& message) override;

private:
    void storeValue(int value);
    void storeTouched(bool touched);

    FaderBinding::FaderType m_type = FaderBinding::None;
    int m_value = 0;
    bool m_touched = false;
};
