#pragma once

// What the tests of the software controls share: the plugin's side of a software surface
// (Rig), the wiring a QML page gives a control, message builders, the controls' meta-object
// listings and the device-id rules written out from the console's numbering.

#include <QtTest>
#include <memory>
#include <vector>
#include "bindings/surfaceconnection.h"
#include "serial/serialmessage.h"
#include "software/buttoncontrol.h"
#include "software/fadercontrol.h"
#include "software/metercontrol.h"
#include "software/potcontrol.h"
#include "software/qmlcontrollerconnection.h"
#include "software/rgbledcontrol.h"
#include "software/rotarycontrol.h"
#include "software/sectioncontrol.h"
#include "software/surfacecontrolbase.h"
#include "support/fakesoftwarehandler.h"
#include "support/recordingdatareceiver.h"
#include "support/recordingsoftwarecontroller.h"
#include "support/serialframes.h"

using namespace Velmora::Worksurface;

Q_DECLARE_METATYPE(const QMetaObject*)

namespace {

constexpr int kSections = 3;

inline SerialMessage message(uint8_t type, uint8_t deviceId, std::vector<uint8_t> payload = {})
{
    return SerialMessage(type, deviceId, std::move(payload));
}

inline QByteArray bytes(std::initializer_list<uint8_t> values)
{
    QByteArray result;
    for (uint8_t value : values) {
        result.append(static_cast<char>(value));
    }
    return result;
}

// The plugin's side of a software surface: the real controller with a recording receiver
// per section standing where each section connection would parse the controls' frames.
struct Rig
{
    std::shared_ptr<QmlControllerConnection> controller =
        std::make_shared<QmlControllerConnection>();
    SurfaceConnection connection{controller, nullptr};
    RecordingDataReceiver receiver[kSections];

    Rig()
    {
        for (int s = 0; s < kSections; ++s) {
            controller->setDataReceiver(static_cast<uint8_t>(s), &receiver[s]);
        }
    }

    void fromPlugin(uint8_t section, const SerialMessage& m)
    {
        controller->messageFromPlugin(section, m);
    }

    void clearReceivers()
    {
        for (auto& r : receiver) {
            r.clear();
        }
    }
};

// The common wiring a QML page gives a control.
inline void attach(SurfaceControlBase& control, Rig& rig, int section, int index,
                   bool active = true)
{
    control.setConnection(&rig.connection);
    control.setSectionIndex(section);
    control.setIndex(index);
    control.setActive(active);
}

inline QStringList ownProperties(const QMetaObject& meta)
{
    QStringList names;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        names << QString::fromLatin1(meta.property(i).name()) + QLatin1Char(':') +
                     QString::fromLatin1(meta.property(i).typeName());
    }
    return names;
}

inline QStringList ownSignals(const QMetaObject& meta)
{
    QStringList names;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        if (meta.method(i).methodType() == QMetaMethod::Signal) {
            names << QString::fromLatin1(meta.method(i).methodSignature());
        }
    }
    return names;
}

inline QStringList ownInvokables(const QMetaObject& meta)
{
    QStringList names;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        if (meta.method(i).methodType() == QMetaMethod::Method) {
            names << QString::fromLatin1(meta.method(i).methodSignature());
        }
    }
    return names;
}

// The device-id rules of the software controls, written out here from the console's
// numbering so the controls are checked against more than the table they use.
inline int expectedButtonId(int type, int i)
{
    switch (type) {
        case 1:
            return i < 10 ? i : 255;
        case 2:
            return i < 10 ? i + 10 : 255;
        case 3:
            return 20;
        case 5:
            return 39;
        case 6:
            return 38;
        case 7:
            return 40;
        case 8:
            return 42;
        case 9:
            return 37;
        case 10:
            return 41;
        case 11:
            return i < 10 ? i + 21 : 255;
        case 12:
            return i < 6 ? i + 31 : 255;
        default:  // None, MasterSolo
            return 255;
    }
}

inline int expectedFaderId(int type, int i)
{
    if (type == 1) {
        return i < 10 ? i : 255;
    }
    return type == 2 ? 10 : 255;
}

inline int expectedRotaryId(int type, int i)
{
    if (type == 1) {
        return i < 10 ? i : 255;
    }
    if (type == 2) {
        return i < 6 ? i + 10 : 255;
    }
    return 255;
}

inline int expectedRotaryButtonId(int type, int i)
{
    if (type == 1) {
        return i < 10 ? i + 21 : 255;
    }
    if (type == 2) {
        return i < 6 ? i + 31 : 255;
    }
    return 255;
}

inline int expectedRgbLedId(int type, int i)
{
    if (type == 1) {
        return i < 10 ? i : 255;
    }
    if (type == 2) {
        return i < 6 ? i + 10 : 255;
    }
    if (type >= 3 && type <= 8) {
        return 13 + type;  // logos 16..21
    }
    return 255;
}

const int kIndices[] = {0, 1, 3, 5, 6, 9, 10, 12, 255};

}  // namespace
