#pragma once

#include <cstdint>

namespace Velmora::Worksurface {

// What the components and the surface put into a section's outgoing queue. Each
// operation builds one message for a device and enqueues it; a newer message of the same
// type for the same device replaces an unsent older one.
class ISerialMessageSender
{
public:
    virtual ~ISerialMessageSender() = default;
    virtual void sendFaderPosition(uint8_t deviceId, uint16_t value) = 0;  // type 7
    virtual void sendFaderBackstop(uint8_t deviceId, uint16_t value) = 0;  // type 8
    virtual void sendFaderDetent(uint8_t deviceId, uint16_t value) = 0;    // type 9
    virtual void sendFaderDriveMode(uint8_t deviceId, uint8_t mode) = 0;   // type 10
    virtual void sendLed(uint8_t deviceId, uint8_t first, uint8_t second,
                         int64_t delayMs) = 0;  // type 11
    // colour is 0x00RRGGBB.
    virtual void sendColor(uint8_t deviceId, uint32_t color, uint8_t extra,
                           int64_t delayMs) = 0;                       // type 12
    virtual void requestPotValue() = 0;                                // type 17, device 0
    virtual void sendMeterLevel(uint8_t deviceId, uint8_t value) = 0;  // type 13
    virtual void sendMeterPeak(uint8_t deviceId, uint8_t value) = 0;   // type 14
};

}  // namespace Velmora::Worksurface
