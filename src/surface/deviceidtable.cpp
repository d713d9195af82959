#include "surface/deviceidtable.h"

namespace Velmora::Worksurface {

namespace {

constexpr uint8_t kNone = DeviceIdTable::NoDevice;

// A strip control: id = index + offset while index is below count.
uint8_t ranged(int index, int count, int offset)
{
    return index >= 0 && index < count ? static_cast<uint8_t>(index + offset) : kNone;
}

bool validIndex(int index)
{
    return index >= 0 && index <= 255;
}

}  // namespace

uint8_t DeviceIdTable::fader(FaderType type, uint8_t index)
{
    switch (type) {
        case FaderType::Fader:
            return ranged(index, 10, 0);
        case FaderType::MasterFader:
            // The master section has one master fader, whatever index the binding names.
            return 10;
        case FaderType::None:
            break;
    }
    return kNone;
}

uint8_t DeviceIdTable::button(ButtonType type, uint8_t index)
{
    // The ids of the snapshot, layer, spill-set and overview buttons follow the wiring of
    // the master section's switch matrix, not the order of the enumeration.
    switch (type) {
        case ButtonType::Mute:
            return ranged(index, 10, 0);
        case ButtonType::Solo:
            return ranged(index, 10, 10);
        case ButtonType::MasterMute:
            return 20;
        case ButtonType::NextSnapsthot:
            return 39;
        case ButtonType::PreviousSnapshot:
            return 38;
        case ButtonType::LayerUp:
            return 40;
        case ButtonType::LayerDown:
            return 42;
        case ButtonType::Spillset:
            return 37;
        case ButtonType::Overview:
            return 41;
        case ButtonType::UnderscreenRotary:
            return ranged(index, 10, 21);
        case ButtonType::SideRotary:
            return ranged(index, 6, 31);
        case ButtonType::MasterSolo:  // the console has no master solo switch
        case ButtonType::None:
            break;
    }
    return kNone;
}

uint8_t DeviceIdTable::led(LedType type, uint8_t index)
{
    switch (type) {
        case LedType::MuteButton:
            return ranged(index, 10, 0);
        case LedType::SoloButton:
            return ranged(index, 10, 10);
        case LedType::MasterMuteButton:
            return 20;
        case LedType::NextSnapsthotButton:
            return 23;
        case LedType::PreviousSnapshotButton:
            return 22;
        case LedType::LayerUpButton:
            return 24;
        case LedType::LayerDownButton:
            return 26;
        case LedType::SpillsetButton:
            return 21;
        case LedType::OverviewButton:
            return 25;
        case LedType::MasterSoloButton:  // no master solo switch, so no LED in it
        case LedType::None:
            break;
    }
    return kNone;
}

uint8_t DeviceIdTable::rgbLed(RgbLedType type, uint8_t index)
{
    switch (type) {
        case RgbLedType::UnderscreenRotaryButton:
            return ranged(index, 10, 0);
        case RgbLedType::SideRotaryButton:
            return ranged(index, 6, 10);
        case RgbLedType::NameLogo:
            return 16;
        case RgbLedType::MainLogo:
            return 17;
        case RgbLedType::HeadphoneLogo:
            return 18;
        case RgbLedType::SnapshotLogo:
            return 19;
        case RgbLedType::DashboardLogo:
            return 20;
        case RgbLedType::OverviewLogo:
            return 21;
        case RgbLedType::None:
            break;
    }
    return kNone;
}

DeviceIdTable::RotaryIds DeviceIdTable::rotary(RotaryType type, uint8_t index)
{
    RotaryIds ids;
    switch (type) {
        case RotaryType::UnderScreen:
            ids.rotary = ranged(index, 10, 0);
            ids.light = rgbLed(RgbLedType::UnderscreenRotaryButton, index);
            ids.button = button(ButtonType::UnderscreenRotary, index);
            break;
        case RotaryType::SideRotary:
            ids.rotary = ranged(index, 6, 10);
            ids.light = rgbLed(RgbLedType::SideRotaryButton, index);
            ids.button = button(ButtonType::SideRotary, index);
            break;
        case RotaryType::None:
            break;
    }
    return ids;
}

DeviceIdTable::PotIds DeviceIdTable::pot(PotType type)
{
    PotIds ids;
    if (type == PotType::Headphone) {
        // The headphone pot's light is the headphone logo's RGB LED.
        ids.pot = 0;
        ids.light = rgbLed(RgbLedType::HeadphoneLogo, 0);
    }
    return ids;
}

uint8_t DeviceIdTable::meter(MeterType type)
{
    switch (type) {
        case MeterType::MasterLeft:
            return 0;
        case MeterType::MasterRight:
            return 1;
        case MeterType::None:
            break;
    }
    return kNone;
}

uint8_t DeviceIdTable::fader(int32_t type, int index)
{
    return validIndex(index) ? fader(static_cast<FaderType>(type), static_cast<uint8_t>(index))
                             : kNone;
}

uint8_t DeviceIdTable::button(int32_t type, int index)
{
    return validIndex(index) ? button(static_cast<ButtonType>(type), static_cast<uint8_t>(index))
                             : kNone;
}

uint8_t DeviceIdTable::led(int32_t type, int index)
{
    return validIndex(index) ? led(static_cast<LedType>(type), static_cast<uint8_t>(index)) : kNone;
}

uint8_t DeviceIdTable::rgbLed(int32_t type, int index)
{
    return validIndex(index) ? rgbLed(static_cast<RgbLedType>(type), static_cast<uint8_t>(index))
                             : kNone;
}

DeviceIdTable::RotaryIds DeviceIdTable::rotary(int32_t type, int index)
{
    return validIndex(index) ? rotary(static_cast<RotaryType>(type), static_cast<uint8_t>(index))
                             : RotaryIds{};
}

DeviceIdTable::PotIds DeviceIdTable::pot(int32_t type)
{
    return pot(static_cast<PotType>(type));
}

uint8_t DeviceIdTable::meter(int32_t type)
{
    return meter(static_cast<MeterType>(type));
}

}  // namespace Velmora::Worksurface
