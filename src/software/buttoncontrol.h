#pragma once

#include <QObject>
#include <cstdint>

#include "bindings/buttonbinding.h"
#include "software/surfacecontrolbase.h"

// A push switch of a QML-played section with the LED in it. The widget sets `pressed`;
// each change is reported to the plugin as the section's button state. The plugin's LED
// level for the same device id shows as `brightness` (0..255).
//
// The device id follows the switch numbering (Mute i, Solo i + 10, MasterMute 20, the
// master section's snapshot, layer, spill-set and overview switches 37 to 42, the rotary
// push switches 21 + i and 31 + i); a MasterSolo button has none (255) and reports its
// presses to device 255.
class ButtonControl : public SurfaceControlBase
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "ButtonControl")
    Q_PROPERTY(ButtonBinding::ButtonType type READ type WRITE setType NOTIFY typeChanged)
    Q_PROPERTY(bool pressed READ pressed WRITE setPressed NOTIFY pressedChanged)
    Q_PROPERTY(int brightness READ brightness NOTIFY brightnessChanged)

public:
    explicit ButtonControl(QObject* parent = nullptr);
    ~ButtonControl() override;

    ButtonBinding::ButtonType type() const { return m_type; }
    // A new type points the control at another device and refreshes it.
    void setType(ButtonBinding::ButtonType type);
    bool pressed() const { return m_pressed; }
    // Reports a change to the plugin (type 20, payload [pressed]) while active.
    void setPressed(bool pressed);
    int brightness() const { return m_brightness; }

    uint8_t deviceId() const override;

signals:
    void typeChanged();
    void pressedChanged();
    void brightnessChanged();

protected:
    void refresh() override;
    bool takeMessage(const Velmora::Worksurface::SerialMessage& message) override;

private:
    ButtonBinding::ButtonType m_type = ButtonBinding::None;
    bool m_pressed = false;
    int m_brightness = 0;
};
