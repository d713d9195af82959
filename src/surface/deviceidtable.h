#pragma once

#include <cstdint>

#include "surface/controltypes.h"

namespace Velmora::Worksurface {

// The one mapping from (control type, index within the section) to the device id that
// addresses the control in its section's messages. The component factory uses it to decide
// which controls exist, the surface to find them, and the bindings to check that a handle
// still stands for their type and index. Ids are separate name spaces per message type.
// NoDevice (255) means that no such control exists.
class DeviceIdTable
{
public:
    static constexpr uint8_t NoDevice = 255;

    struct RotaryIds
    {
        uint8_t rotary = NoDevice;  // rotation and touch messages
        uint8_t light = NoDevice;   // the ring's colour messages
        uint8_t button = NoDevice;  // the push switch's button messages
        bool exists() const { return rotary != NoDevice && light != NoDevice; }
    };

    struct PotIds
    {
        uint8_t pot = NoDevice;
        uint8_t light = NoDevice;
        bool exists() const { return pot != NoDevice; }
    };

    static uint8_t fader(FaderType type, uint8_t index);
    static uint8_t button(ButtonType type, uint8_t index);
    static uint8_t led(LedType type, uint8_t index);
    static uint8_t rgbLed(RgbLedType type, uint8_t index);
    static RotaryIds rotary(RotaryType type, uint8_t index);
    static PotIds pot(PotType type);
    static uint8_t meter(MeterType type);

    // The same, for type values that come from QML or a fuzzer as plain integers: values
    // outside the enumeration name no device.
    static uint8_t fader(int32_t type, int index);
    static uint8_t button(int32_t type, int index);
    static uint8_t led(int32_t type, int index);
    static uint8_t rgbLed(int32_t type, int index);
    static RotaryIds rotary(int32_t type, int index);
    static PotIds pot(int32_t type);
    static uint8_t meter(int32_t type);
};

}  // namespace Velmora::Worksurface
