#pragma once

#include <QColor>
#include <QObject>
#include <cstdint>

#include "bindings/rgbledbinding.h"
#include "software/surfacecontrolbase.h"

// An RGB LED of a QML-played section: the light of a rotary's push switch or one of the
// master section's logos. It only listens: the plugin's colour shows as `color` (black is
// off).
//
// The device id is i for an UnderscreenRotaryButton (below 10), i + 10 for a
// SideRotaryButton (below 6) and 16 to 21 for the logos.
class RgbLedControl : public SurfaceControlBase
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "RgbLedControl")
    Q_PROPERTY(RgbLedBinding::RgbLedType type READ type WRITE setType NOTIFY typeChanged)
    Q_PROPERTY(QColor color READ color NOTIFY colorChanged)

public:
    explicit RgbLedControl(QObject* parent = nullptr);
    ~RgbLedControl() override;

    RgbLedBinding::RgbLedType type() const { return m_type; }
    // A new type points the control at another device and refreshes it.
    void setType(RgbLedBinding::RgbLedType type);
    QColor color() const { return m_color; }

    uint8_t deviceId() const override;

signals:
    void typeChanged();
    void colorChanged();

protected:
    void refresh() override;
    bool takeMessage(const Velmora::Worksurface::SerialMessage& message) override;

private:
    RgbLedBinding::RgbLedType m_type = RgbLedBinding::None;
    QColor m_color = QColor(Qt::black);
};
