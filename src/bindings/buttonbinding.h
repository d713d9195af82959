#pragma once

#include <QMetaObject>
#include <QObject>
#include <cstdint>
#include <memory>

#include "bindings/bindingbase.h"

namespace Velmora::Worksurface {
class ButtonHandle;
}  // namespace Velmora::Worksurface

// Attaches a view to one push switch of a section. Read-back only: the binding passes the
// switch's presses and releases on as its own signals.
class ButtonBinding : public BindingBase
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "ButtonBinding")
    Q_PROPERTY(ButtonType type READ type WRITE setType NOTIFY typeChanged)

public:
    // The spellings are part of the QML API, "NextSnapsthot" included.
    // Backed by int: QML may write any number, which then names no switch.
    enum ButtonType : int
    {
        None = 0,
        Mute = 1,
        Solo = 2,
        MasterMute = 3,
        MasterSolo = 4,
        NextSnapsthot = 5,
        PreviousSnapshot = 6,
        LayerUp = 7,
        LayerDown = 8,
        Spillset = 9,
        Overview = 10,
        UnderscreenRotary = 11,
        SideRotary = 12
    };
    Q_ENUM(ButtonType)

    explicit ButtonBinding(QObject* parent = nullptr);
    ~ButtonBinding() override;

    ButtonType type() const { return m_type; }
    // Takes effect at the next lookup (a change of index, section, active or connection).
    void setType(ButtonType type);

signals:
    void typeChanged();
    void buttonPressed();
    void buttonReleased();

protected:
    void updateBinding() override;

private:
    // The button number (device id) that the type and index select within the section.
    uint8_t selectedDeviceId() const;
    void dropHandle();

    ButtonType m_type = None;
    std::weak_ptr<Velmora::Worksurface::ButtonHandle> m_handle;
    QMetaObject::Connection m_pressedLink;
    QMetaObject::Connection m_releasedLink;
};
