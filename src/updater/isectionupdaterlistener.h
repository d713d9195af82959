#pragma once

#include <cstdint>

#include "updater/bootloaderpacket.h"

namespace Velmora::Worksurface {

// What the firmware updater tells the section connection that drives it.
class ISectionUpdaterListener
{
public:
    // Why an update failed.
    enum FailureReason : int
    {
        FirmwareFileError = 0,     // missing, not openable or not readable
        ResendsExhausted = 1,      // the bootloader kept refusing a packet
        BootloaderErrorStatus = 2  // the bootloader reported an error status
    };

    virtual ~ISectionUpdaterListener() = default;
    virtual void updaterStateChanged() = 0;
    virtual void updateProgress(uint8_t percent) = 0;
    virtual void sendBootloaderPacket(const BootloaderPacket& packet) = 0;
    virtual void failed(int reason) = 0;
};

}  // namespace Velmora::Worksurface
