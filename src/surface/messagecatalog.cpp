#include "surface/messagecatalog.h"

#include <QColor>
#include <iterator>

#include "base/isettings.h"
#include "base/jsonline.h"
#include "surface/controltypes.h"
#include "surface/deviceidtable.h"

namespace Velmora::Worksurface {

namespace {

// Which kind of control a message type addresses, i.e. which device-id table its ids
// come from.
enum class ControlKind
{
    None,
    Section,
    Fader,
    Button,
    Led,
    RgbLed,
    Rotary,
    Pot,
    Meter,
};

// How a message's payload reads.
enum class ValueKind
{
    None,
    VersionReport,  // ping answer: lead byte, version, temperature
    Level,          // one byte
    Mode,           // one byte
    Position,       // big-endian word, 0..511, 0xFFFF for none
    Colour,         // red, green, blue
    Touch,          // one byte, nonzero for touched
    PotValue,       // word; none in the request
    Steps,          // signed byte
    Button,         // one byte, nonzero for pressed
};

struct MessageTypeEntry
{
    const char* name;
    ControlKind kind;
    ValueKind value;
};

// Indexed by message type.
const MessageTypeEntry kMessageTypes[] = {
    {"ping", ControlKind::Section, ValueKind::VersionReport},
    {"reserved 1", ControlKind::None, ValueKind::None},
    {"serial error", ControlKind::Section, ValueKind::None},
    {"calibration", ControlKind::Section, ValueKind::None},
    {"bootloader", ControlKind::Section, ValueKind::None},
    {"echo", ControlKind::Section, ValueKind::None},
    {"surface brightness", ControlKind::Section, ValueKind::Level},
    {"fader position", ControlKind::Fader, ValueKind::Position},
    {"fader backstop", ControlKind::Fader, ValueKind::Position},
    {"fader detent", ControlKind::Fader, ValueKind::Position},
    {"fader drive mode", ControlKind::Fader, ValueKind::Mode},
    {"led", ControlKind::Led, ValueKind::Level},
    {"rgb colour", ControlKind::RgbLed, ValueKind::Colour},
    {"meter level", ControlKind::Meter, ValueKind::Level},
    {"meter peak", ControlKind::Meter, ValueKind::Level},
    {"reserved 15", ControlKind::None, ValueKind::None},
    {"fader touch", ControlKind::Fader, ValueKind::Touch},
    {"pot value", ControlKind::Pot, ValueKind::PotValue},
    {"rotary step", ControlKind::Rotary, ValueKind::Steps},
    {"rotary touch", ControlKind::Rotary, ValueKind::Touch},
    {"button", ControlKind::Button, ValueKind::Button},
    {"reserved 21", ControlKind::None, ValueKind::None},
    {"surface over-brightness", ControlKind::Section, ValueKind::Level},
};

// Where a family of controls sits: on every strip, on the master section's side rotaries,
// or once on the master section.
enum class Place
{
    Strip,
    Side,
    Master,
};

// A family of controls and its name; "%1" takes the control's index within the section.
// Families without an index have one control whatever index is asked for.
struct ControlFamily
{
    ControlKind kind;
    int32_t type;
    const char* name;
    bool indexed;
    Place place;
};

template <typename E>
constexpr int32_t v(E e)
{
    return static_cast<int32_t>(e);
}

const ControlFamily kControlFamilies[] = {
    {ControlKind::Fader, v(FaderType::Fader), "fader %1", true, Place::Strip},
    {ControlKind::Fader, v(FaderType::MasterFader), "master fader", false, Place::Master},
    {ControlKind::Button, v(ButtonType::Mute), "mute %1", true, Place::Strip},
    {ControlKind::Button, v(ButtonType::Solo), "solo %1", true, Place::Strip},
    {ControlKind::Button, v(ButtonType::MasterMute), "master mute", false, Place::Master},
    {ControlKind::Button, v(ButtonType::MasterSolo), "master solo", false, Place::Master},
    {ControlKind::Button, v(ButtonType::NextSnapsthot), "next snapshot", false, Place::Master},
    {ControlKind::Button, v(ButtonType::PreviousSnapshot), "previous snapshot", false,
     Place::Master},
    {ControlKind::Button, v(ButtonType::LayerUp), "layer up", false, Place::Master},
    {ControlKind::Button, v(ButtonType::LayerDown), "layer down", false, Place::Master},
    {ControlKind::Button, v(ButtonType::Spillset), "spill set", false, Place::Master},
    {ControlKind::Button, v(ButtonType::Overview), "overview", false, Place::Master},
    {ControlKind::Button, v(ButtonType::UnderscreenRotary), "rotary %1 push", true, Place::Strip},
    {ControlKind::Button, v(ButtonType::SideRotary), "side rotary %1 push", true, Place::Side},
    {ControlKind::Led, v(LedType::MuteButton), "mute %1 led", true, Place::Strip},
    {ControlKind::Led, v(LedType::SoloButton), "solo %1 led", true, Place::Strip},
    {ControlKind::Led, v(LedType::MasterMuteButton), "master mute led", false, Place::Master},
    {ControlKind::Led, v(LedType::MasterSoloButton), "master solo led", false, Place::Master},
    {ControlKind::Led, v(LedType::NextSnapsthotButton), "next snapshot led", false, Place::Master},
    {ControlKind::Led, v(LedType::PreviousSnapshotButton), "previous snapshot led", false,
     Place::Master},
    {ControlKind::Led, v(LedType::LayerUpButton), "layer up led", false, Place::Master},
    {ControlKind::Led, v(LedType::LayerDownButton), "layer down led", false, Place::Master},
    {ControlKind::Led, v(LedType::SpillsetButton), "spill set led", false, Place::Master},
    {ControlKind::Led, v(LedType::OverviewButton), "overview led", false, Place::Master},
    {ControlKind::RgbLed, v(RgbLedType::UnderscreenRotaryButton), "rotary %1 ring", true,
     Place::Strip},
    {ControlKind::RgbLed, v(RgbLedType::SideRotaryButton), "side rotary %1 ring", true,
     Place::Side},
    {ControlKind::RgbLed, v(RgbLedType::NameLogo), "name logo", false, Place::Master},
    {ControlKind::RgbLed, v(RgbLedType::MainLogo), "main logo", false, Place::Master},
    {ControlKind::RgbLed, v(RgbLedType::HeadphoneLogo), "headphone logo", false, Place::Master},
    {ControlKind::RgbLed, v(RgbLedType::SnapshotLogo), "snapshot logo", false, Place::Master},
    {ControlKind::RgbLed, v(RgbLedType::DashboardLogo), "dashboard logo", false, Place::Master},
    {ControlKind::RgbLed, v(RgbLedType::OverviewLogo), "overview logo", false, Place::Master},
    {ControlKind::Rotary, v(RotaryType::UnderScreen), "rotary %1", true, Place::Strip},
    {ControlKind::Rotary, v(RotaryType::SideRotary), "side rotary %1", true, Place::Side},
    {ControlKind::Pot, v(PotType::Headphone), "headphone pot", false, Place::Master},
    {ControlKind::Meter, v(MeterType::MasterLeft), "master meter left", false, Place::Master},
    {ControlKind::Meter, v(MeterType::MasterRight), "master meter right", false, Place::Master},
};

uint8_t deviceId(ControlKind kind, int32_t type, int index)
{
    switch (kind) {
        case ControlKind::Fader:
            return DeviceIdTable::fader(type, index);
        case ControlKind::Button:
            return DeviceIdTable::button(type, index);
        case ControlKind::Led:
            return DeviceIdTable::led(type, index);
        case ControlKind::RgbLed:
            return DeviceIdTable::rgbLed(type, index);
        case ControlKind::Rotary:
            return DeviceIdTable::rotary(type, index).rotary;
        case ControlKind::Pot:
            return DeviceIdTable::pot(type).pot;
        case ControlKind::Meter:
            return DeviceIdTable::meter(type);
        case ControlKind::None:
        case ControlKind::Section:
            break;
    }
    return DeviceIdTable::NoDevice;
}

const MessageTypeEntry* entry(uint8_t type)
{
    return type < std::size(kMessageTypes) ? &kMessageTypes[type] : nullptr;
}

void setNumber(MessageCatalog::Description& d, const QString& label, int number)
{
    d.hasValue = true;
    d.numeric = true;
    d.number = number;
    d.valueText = label.isEmpty() ? QString::number(number) : label + ' ' + QString::number(number);
}

void setWord(MessageCatalog::Description& d, const QString& word, const QString& text)
{
    d.hasValue = true;
    d.valueWord = word;
    d.valueText = text;
}

}  // namespace

QString MessageCatalog::typeName(uint8_t type)
{
    const MessageTypeEntry* e = entry(type);
    return e ? QString::fromLatin1(e->name) : QStringLiteral("type %1").arg(type);
}

MessageCatalog::Scope MessageCatalog::scopeFor(const ISettings& settings, uint8_t section)
{
    Scope scope;
    scope.master = settings.masterSectionIndex() == section;
    scope.strips = settings.stripCount();
    scope.sideRotaries = scope.master ? settings.sideRotaryCount() : 0;
    return scope;
}

QString MessageCatalog::controlName(uint8_t type, uint8_t device, const Scope& scope)
{
    const MessageTypeEntry* e = entry(type);
    if (!e) {
        return QString();
    }
    if (e->kind == ControlKind::Section) {
        return device == 0 ? QStringLiteral("section") : QString();
    }
    for (const ControlFamily& family : kControlFamilies) {
        if (family.kind != e->kind || (family.place != Place::Strip && !scope.master)) {
            continue;
        }
        if (!family.indexed) {
            if (deviceId(family.kind, family.type, 0) == device) {
                return QString::fromLatin1(family.name);
            }
            continue;
        }
        const int count = family.place == Place::Side ? scope.sideRotaries : scope.strips;
        for (int index = 0; index <= 255 && index < count; ++index) {
            const uint8_t id = deviceId(family.kind, family.type, index);
            if (id == DeviceIdTable::NoDevice) {
                break;
            }
            if (id == device) {
                return QString::fromLatin1(family.name).arg(index);
            }
        }
    }
    return QString();
}

bool MessageCatalog::isControlReport(const SerialMessage& message, const Scope& scope)
{
    if (message.type == MessageType::Ping) {
        return true;
    }
    const MessageTypeEntry* e = entry(message.type);
    return e && e->kind != ControlKind::Section && e->kind != ControlKind::None &&
           !controlName(message.type, message.deviceId, scope).isEmpty();
}

MessageCatalog::Description MessageCatalog::describe(const SerialMessage& message,
                                                     const Scope& scope)
{
    Description d;
    if (message.zeroFill) {
        // Not a frame: the run of zero bytes that flushes a section's receiver.
        d.typeName = QStringLiteral("zero fill");
        setNumber(d, QStringLiteral("bytes"), encode(message).size());
        return d;
    }
    d.typeName = typeName(message.type);
    d.control = controlName(message.type, message.deviceId, scope);
    const MessageTypeEntry* e = entry(message.type);
    if (!e) {
        return d;
    }
    const std::size_t size = message.payload.size();
    switch (e->value) {
        case ValueKind::None:
            break;
        case ValueKind::VersionReport:
            // A ping carries nothing; the section's answer carries its version and
            // temperature.
            if (size >= 3) {
                d.hasValue = true;
                d.versionReport = true;
                d.version = message.byteAt(1);
                d.temperature = message.byteAt(2);
                d.valueText =
                    QStringLiteral("version %1 temperature %2").arg(d.version).arg(d.temperature);
            }
            break;
        case ValueKind::Level:
            if (size >= 1) {
                setNumber(d, QStringLiteral("level"), message.byteAt(0));
            }
            break;
        case ValueKind::Mode:
            if (size >= 1) {
                setNumber(d, QStringLiteral("mode"), message.byteAt(0));
            }
            break;
        case ValueKind::Position:
            if (size >= 2) {
                const uint16_t position = message.wordAt(0);
                if (position == 0xFFFF) {
                    setWord(d, QStringLiteral("none"), QStringLiteral("position none"));
                } else {
                    setNumber(d, QStringLiteral("position"), position);
                }
            }
            break;
        case ValueKind::Colour:
            if (size >= 3) {
                const QString name =
                    QColor(message.byteAt(0), message.byteAt(1), message.byteAt(2)).name();
                setWord(d, name, QStringLiteral("colour ") + name);
            }
            break;
        case ValueKind::Touch:
            if (size >= 1) {
                const QString word =
                    message.boolAt(0) ? QStringLiteral("on") : QStringLiteral("off");
                setWord(d, word, QStringLiteral("touch ") + word);
            }
            break;
        case ValueKind::PotValue:
            if (size >= 2) {
                setNumber(d, QStringLiteral("value"), message.wordAt(0));
            } else {
                setWord(d, QStringLiteral("request"), QStringLiteral("request"));
            }
            break;
        case ValueKind::Steps:
            if (size >= 1) {
                const int steps = static_cast<int8_t>(message.byteAt(0));
                setNumber(d, QString(), steps);
                d.valueText = QStringLiteral("steps %1%2")
                                  .arg(steps > 0 ? QStringLiteral("+") : QString())
                                  .arg(steps);
            }
            break;
        case ValueKind::Button:
            if (size >= 1) {
                const QString word =
                    message.boolAt(0) ? QStringLiteral("pressed") : QStringLiteral("released");
                setWord(d, word, word);
            }
            break;
    }
    return d;
}

void MessageCatalog::addTo(JsonLine& line, const SerialMessage& message, const Description& d)
{
    line.add("type", static_cast<int>(message.type))
        .add("typeName", d.typeName)
        .add("device", static_cast<int>(message.deviceId));
    if (!d.control.isEmpty()) {
        line.add("control", d.control);
    }
    if (d.versionReport) {
        line.add("value", JsonLine().add("version", d.version).add("temperature", d.temperature));
    } else if (d.hasValue) {
        if (d.numeric) {
            line.add("value", d.number);
        } else {
            line.add("value", d.valueWord);
        }
    }
}

}  // namespace Velmora::Worksurface
