#pragma once

#include <cstdint>

namespace Velmora::Worksurface {

// The kinds of control a binding or the component factory can name. The values are
// shared with the QML enumerations of the bindings and the software controls.

enum class FaderType : int32_t
{
    None = 0,
    Fader = 1,
    MasterFader = 2
};

enum class ButtonType : int32_t
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
    SideRotary = 12,
};

enum class LedType : int32_t
{
    None = 0,
    MuteButton = 1,
    SoloButton = 2,
    MasterMuteButton = 3,
    MasterSoloButton = 4,
    NextSnapsthotButton = 5,
    PreviousSnapshotButton = 6,
    LayerUpButton = 7,
    LayerDownButton = 8,
    SpillsetButton = 9,
    OverviewButton = 10,
};

enum class RgbLedType : int32_t
{
    None = 0,
    UnderscreenRotaryButton = 1,
    SideRotaryButton = 2,
    NameLogo = 3,
    MainLogo = 4,
    HeadphoneLogo = 5,
    SnapshotLogo = 6,
    DashboardLogo = 7,
    OverviewLogo = 8,
};

enum class RotaryType : int32_t
{
    None = 0,
    UnderScreen = 1,
    SideRotary = 2
};

enum class PotType : int32_t
{
    None = 0,
    Headphone = 1
};

enum class MeterType : int32_t
{
    None = 0,
    MasterLeft = 1,
    MasterRight = 2
};

}  // namespace Velmora::Worksurface
