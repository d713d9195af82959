#pragma once

#include <QColor>
#include <QObject>
#include <memory>

#include "bindings/bindingbase.h"

namespace Velmora::Worksurface {
class RgbLedHandle;
}  // namespace Velmora::Worksurface

// Attaches a view to one RGB LED: the light of a rotary's push switch or one of the
// master section's logos. Black is off.
//
// Without a reachable surface the binding keeps whatever handle it holds, even when it
// is made inactive: the light then keeps the last colour it was given.
class RgbLedBinding : public BindingBase
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "RgbLedBinding")
    Q_PROPERTY(RgbLedType type READ type WRITE setType NOTIFY typeChanged)
    Q_PROPERTY(QColor color READ color WRITE setColor NOTIFY colorChanged)

public:
    // Which RGB LED of the section; the LED number is derived from the type and `index`.
    // Based on int: QML may write any number, which then names no control.
    enum RgbLedType : int
    {
        None = 0,
        UnderscreenRotaryButton = 1,  // index, if index < 10
        SideRotaryButton = 2,         // index + 10, if index < 6
        NameLogo = 3,                 // 16
        MainLogo = 4,                 // 17
        HeadphoneLogo = 5,            // 18
        SnapshotLogo = 6,             // 19
        DashboardLogo = 7,            // 20
        OverviewLogo = 8,             // 21
    };
    Q_ENUM(RgbLedType)

    explicit RgbLedBinding(QObject* parent = nullptr);
    ~RgbLedBinding() override;

    RgbLedType type() const { return m_type; }
    // Takes effect at once, even before componentComplete().
    void setType(RgbLedType type);
    QColor color() const { return m_color; }
    void setColor(const QColor& color);

signals:
    void typeChanged();
    void colorChanged();

protected:
    void updateBinding() override;

private:
    void releaseHandle();

    RgbLedType m_type = None;
    std::weak_ptr<Velmora::Worksurface::RgbLedHandle> m_handle;
    QColor m_color = QColor(Qt::black);
};
