#pragma once

#include <QObject>

#include "base/faderrestmode.h"

// Carries the enumeration of what a fader does while no binding holds it, so that QML can
// name the values (RestMode.ForceMinimum, RestMode.KeepCurrent).
class RestMode : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "RestMode")
    Q_CLASSINFO("QML.Creatable", "false")
    Q_CLASSINFO("QML.UncreatableReason", "Can't create RestMode from qml")

public:
    enum class Type
    {
        // An unbound fader is driven to the bottom of its travel.
        ForceMinimum = 0,
        // An unbound fader stays where it is.
        KeepCurrent = 1
    };
    Q_ENUM(Type)

    explicit RestMode(QObject* parent = nullptr);
};

static_assert(int(RestMode::Type::ForceMinimum) ==
                  int(Velmora::Worksurface::RestMode::ForceMinimum),
              "the QML rest modes mirror the core ones");
static_assert(int(RestMode::Type::KeepCurrent) == int(Velmora::Worksurface::RestMode::KeepCurrent),
              "the QML rest modes mirror the core ones");
