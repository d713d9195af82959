#pragma once

#include <QColor>
#include <QObject>
#include <memory>
#include <vector>

#include "bindings/bindingbase.h"
#include "bindings/flashinfo.h"
#include "surface/iglobalrotarybindingtarget.h"

namespace Velmora::Worksurface {
class IRotary;
class RotaryHandle;
}  // namespace Velmora::Worksurface

// Attaches a view to one endless rotary encoder: its steps, touch sensor and push switch
// come back as signals, and the view sets the colour and flashing of its light ring.
//
// In Global scope the binding also offers itself to the rotary as its global target. It
// takes the rotary only while no other binding holds it; when the holder lets go, the
// rotary calls bind() and this binding takes over.
class RotaryBinding : public BindingBase, public Velmora::Worksurface::IGlobalRotaryBindingTarget
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "RotaryBinding")
    Q_PROPERTY(RotaryType type READ type WRITE setType NOTIFY typeChanged)
    Q_PROPERTY(bool touched READ touched NOTIFY touchedChanged)
    Q_PROPERTY(bool pressed READ pressed NOTIFY pressedChanged)
    Q_PROPERTY(QColor color READ color WRITE setColor NOTIFY colorChanged)
    Q_PROPERTY(FlashInfo* flash READ flash CONSTANT)
    Q_PROPERTY(RotaryScope scope READ scope WRITE setScope NOTIFY scopeChanged)

public:
    // Which rotary of the section; the rotary number is derived from the type and `index`.
    // Based on int: QML may write any number, which then names no control.
    enum RotaryType : int
    {
        None = 0,
        UnderScreen = 1,  // index, if index < 10
        SideRotary = 2,   // index + 10, if index < 6
    };
    Q_ENUM(RotaryType)

    enum RotaryScope : int
    {
        Local = 0,
        Global = 1,
    };
    Q_ENUM(RotaryScope)

    explicit RotaryBinding(QObject* parent = nullptr);
    ~RotaryBinding() override;

    RotaryType type() const { return m_type; }
    // Takes effect at the next lookup.
    void setType(RotaryType type);
    // The rotary's current state; false while nothing is bound.
    bool touched() const;
    bool pressed() const;
    QColor color() const { return m_color; }
    // Sends the ring colour every time, even when the colour is unchanged.
    void setColor(const QColor& color);
    FlashInfo* flash() const { return m_flash; }
    RotaryScope scope() const { return m_scope; }
    // Takes effect at once, even before componentComplete().
    void setScope(RotaryScope scope);

    // The rotary's call to its global target: look the rotary up again.
    void bind() override;

signals:
    void typeChanged();
    void touchedChanged();
    void pressedChanged();
    void colorChanged();
    // A signed number of steps, positive clockwise: -128..127 per report.
    void rotaryRotated(int value);
    // flash.interval changed (and the ring has been told).
    void flashIntervalChanged();
    void scopeChanged();

public slots:
    void sendRotaryFlashEnabled();
    void sendRotaryFlashInterval();

protected:
    void updateBinding() override;

private:
    // The stored colour when `on`, otherwise all off.
    void sendRotaryRgbLedColor(bool on);
    void sendRingState(bool on);
    void releaseHandle();
    void rememberGlobalRegistration(const std::shared_ptr<Velmora::Worksurface::IRotary>& rotary);
    void withdrawGlobalRegistrations();

    RotaryType m_type = None;
    std::weak_ptr<Velmora::Worksurface::RotaryHandle> m_handle;
    FlashInfo* m_flash;
    QColor m_color = QColor(Qt::black);
    RotaryScope m_scope = Local;
    // The rotaries that accepted this binding as their global target. They keep a plain
    // pointer to it, which must not outlive the binding.
    std::vector<std::weak_ptr<Velmora::Worksurface::IRotary>> m_globalRegistrations;
};
