#include "support/recordinghandlerrepository.h"

#include "serial/iserialmessagehandler.h"
#include "surface/ibutton.h"
#include "surface/ifader.h"
#include "surface/iled.h"
#include "surface/ipot.h"
#include "surface/irgbled.h"
#include "surface/irotary.h"
#include "surface/section.h"

using namespace Velmora::Worksurface;

namespace {

template <typename Enum>
int value(Enum e)
{
    return static_cast<int>(e);
}

}  // namespace

QString RecordingHandlerRepository::describe(const ISerialMessageHandler* handler)
{
    if (!handler) {
        return QStringLiteral("null");
    }
    if (auto* fader = dynamic_cast<const IFader*>(handler)) {
        return QStringLiteral("fader %1 %2").arg(value(fader->faderType())).arg(fader->deviceId());
    }
    if (auto* led = dynamic_cast<const ILed*>(handler)) {
        return QStringLiteral("led %1 %2").arg(value(led->ledType())).arg(led->deviceId());
    }
    if (auto* button = dynamic_cast<const IButton*>(handler)) {
        return QStringLiteral("button %1 %2")
            .arg(value(button->buttonType()))
            .arg(button->deviceId());
    }
    if (auto* rotary = dynamic_cast<const IRotary*>(handler)) {
        return QStringLiteral("rotary %1 %2")
            .arg(value(rotary->rotaryType()))
            .arg(rotary->rotaryDeviceId());
    }
    if (auto* pot = dynamic_cast<const IPot*>(handler)) {
        return QStringLiteral("pot %1 %2").arg(value(pot->potType())).arg(pot->potDeviceId());
    }
    if (auto* rgbLed = dynamic_cast<const IRgbLed*>(handler)) {
        return QStringLiteral("rgbled %1 %2")
            .arg(value(rgbLed->rgbLedType()))
            .arg(rgbLed->deviceId());
    }
    if (auto* section = dynamic_cast<const Section*>(handler)) {
        return QStringLiteral("section %1").arg(section->index());
    }
    return QStringLiteral("other");
}

QStringList RecordingHandlerRepository::descriptions() const
{
    QStringList result;
    for (const auto& handler : handlers) {
        result << describe(handler.get());
    }
    return result;
}
