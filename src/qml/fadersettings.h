#pragma once

#include <QObject>

#include "qml/restmode.h"

// Surface.faders: settings shared by every fader of the surface.
class FaderSettings : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "FaderSettings")
    Q_CLASSINFO("QML.Creatable", "false")
    Q_CLASSINFO("QML.UncreatableReason", "Can't create FaderSettings from qml")
    Q_PROPERTY(RestMode::Type restMode READ restMode WRITE setRestMode NOTIFY restModeChanged)

public:
    explicit FaderSettings(QObject* parent = nullptr);

    RestMode::Type restMode() const;
    void setRestMode(RestMode::Type restMode);

signals:
    void restModeChanged();

private:
    RestMode::Type m_restMode = RestMode::Type::ForceMinimum;
};
