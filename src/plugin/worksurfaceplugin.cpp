#include "plugin/worksurfaceplugin.h"

#include <QtQml>

#include "bindings/buttonbinding.h"
#include "bindings/faderbinding.h"
#include "bindings/faderlockinfo.h"
#include "bindings/flashinfo.h"
#include "bindings/globalsurfacebinding.h"
#include "bindings/ledbinding.h"
#include "bindings/meterbinding.h"
#include "bindings/potbinding.h"
#include "bindings/responsecurve.h"
#include "bindings/rgbledbinding.h"
#include "bindings/rotarybinding.h"
#include "bindings/surfaceconnection.h"
#include "qml/fadersettings.h"
#include "qml/restmode.h"
#include "qml/sectioninfomodel.h"
#include "qml/surfacesettings.h"
#include "qml/worksurfacefunctions.h"
#include "software/buttoncontrol.h"
#include "software/fadercontrol.h"
#include "software/metercontrol.h"
#include "software/potcontrol.h"
#include "software/rgbledcontrol.h"
#include "software/rotarycontrol.h"
#include "software/sectioncontrol.h"

void WorksurfacePlugin::registerTypes(const char* uri)
{
    // Version 1.0 only; the order is the module's published type order. Each class states
    // the same name, singleton-ness and uncreatable reason in its class-info (QML.Element and
    // the like), from which a Qt 6 build writes the module's type description; a change here
    // changes the class too (tests/plugin/tst_qmlclassinfo).
    constexpr int major = 1;
    constexpr int minor = 0;
    qmlRegisterSingletonType<WorksurfaceFunctions>(uri, major, minor, "Surface",
                                                   &WorksurfaceFunctions::singletonProvider);
    qmlRegisterSingletonType<ResponseCurve>(uri, major, minor, "ResponseCurve",
                                            &ResponseCurve::singletonProvider);
    qmlRegisterType<GlobalSurfaceBinding>(uri, major, minor, "GlobalSurfaceBinding");
    qmlRegisterType<ButtonBinding>(uri, major, minor, "ButtonBinding");
    qmlRegisterType<FaderBinding>(uri, major, minor, "FaderBinding");
    qmlRegisterType<RotaryBinding>(uri, major, minor, "RotaryBinding");
    qmlRegisterType<LedBinding>(uri, major, minor, "LedBinding");
    qmlRegisterType<PotBinding>(uri, major, minor, "PotBinding");
    qmlRegisterType<MeterBinding>(uri, major, minor, "MeterBinding");
    qmlRegisterType<RgbLedBinding>(uri, major, minor, "RgbLedBinding");
    qmlRegisterType<SectionControl>(uri, major, minor, "SectionControl");
    qmlRegisterType<ButtonControl>(uri, major, minor, "ButtonControl");
    qmlRegisterType<FaderControl>(uri, major, minor, "FaderControl");
    qmlRegisterType<RotaryControl>(uri, major, minor, "RotaryControl");
    qmlRegisterType<PotControl>(uri, major, minor, "PotControl");
    qmlRegisterType<RgbLedControl>(uri, major, minor, "RgbLedControl");
    qmlRegisterType<MeterControl>(uri, major, minor, "MeterControl");
    // These exist only as properties of other objects.
    qmlRegisterUncreatableType<FlashInfo>(uri, major, minor, "FlashInfo",
                                          "Can't create FlashInfo from qml");
    qmlRegisterUncreatableType<FaderSettings>(uri, major, minor, "FaderSettings",
                                              "Can't create FaderSettings from qml");
    qmlRegisterUncreatableType<RestMode>(uri, major, minor, "RestMode",
                                         "Can't create RestMode from qml");
    qmlRegisterUncreatableType<FaderLockInfo>(uri, major, minor, "FaderLockInfo",
                                              "Can't create FaderLockInfo from qml");
    qmlRegisterUncreatableType<SurfaceSettings>(uri, major, minor, "SurfaceSettings",
                                                "Can't create SurfaceSettings from qml");
    qmlRegisterUncreatableType<SurfaceConnection>(uri, major, minor, "SurfaceConnection",
                                                  "Can't create SurfaceConnection from qml");
    qmlRegisterUncreatableType<SectionInfoModel>(uri, major, minor, "SectionInfoModel",
                                                 "Can't create SectionInfoModel from qml");
}
