#pragma once

#include <QObject>
#include <memory>

#include "bindings/bindingbase.h"
#include "bindings/flashinfo.h"

namespace Velmora::Worksurface {
class LedHandle;
}  // namespace Velmora::Worksurface

// Attaches a view to one button LED: switches it, dims it and makes it flash. The LED
// reports nothing back.
//
// Without a reachable surface the binding keeps whatever handle it holds, even when it
// is made inactive: the LED then keeps showing the last state it was given.
class LedBinding : public BindingBase
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "LedBinding")
    Q_PROPERTY(LedType type READ type WRITE setType NOTIFY typeChanged)
    Q_PROPERTY(bool on READ on WRITE setOn NOTIFY onChanged)
    Q_PROPERTY(int brightness READ brightness WRITE setBrightness NOTIFY brightnessChanged)
    Q_PROPERTY(FlashInfo* flash READ flash CONSTANT)

public:
    // Which LED of the section; the LED number is derived from the type and `index`.
    // Based on int: QML may write any number, which then names no control.
    enum LedType : int
    {
        None = 0,
        MuteButton = 1,              // index, if index < 10
        SoloButton = 2,              // index + 10, if index < 10
        MasterMuteButton = 3,        // 20
        MasterSoloButton = 4,        // none: this button has no LED
        NextSnapsthotButton = 5,     // 23
        PreviousSnapshotButton = 6,  // 22
        LayerUpButton = 7,           // 24
        LayerDownButton = 8,         // 26
        SpillsetButton = 9,          // 21
        OverviewButton = 10,         // 25
    };
    Q_ENUM(LedType)

    explicit LedBinding(QObject* parent = nullptr);
    ~LedBinding() override;

    LedType type() const { return m_type; }
    // Takes effect at once, even before componentComplete().
    void setType(LedType type);
    bool on() const { return m_on; }
    void setOn(bool on);
    int brightness() const { return m_brightness; }
    // Clamped to 0..255.
    void setBrightness(int brightness);
    FlashInfo* flash() const { return m_flash; }

signals:
    void typeChanged();
    void onChanged();
    void brightnessChanged();

public slots:
    void sendLedFlashEnabled();
    void sendLedFlashInterval();

protected:
    void updateBinding() override;

private:
    void sendOn(Velmora::Worksurface::LedHandle& handle) const;
    void sendAll(Velmora::Worksurface::LedHandle& handle) const;
    void releaseHandle();

    LedType m_type = None;
    std::weak_ptr<Velmora::Worksurface::LedHandle> m_handle;
    bool m_on = false;
    int m_brightness = 255;
    FlashInfo* m_flash;
};
