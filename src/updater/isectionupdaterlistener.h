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
        FirmwareFileError = 0,      // missing, not openable or not readable
        ResendsExhausted = 1,       // the bootloader kept refusing a packet
        BootloaderErrorStatus = 2,  // the bootloader reported an error status
        // The bootloader stopped answering in the middle of an update, or its line went
        // away: the section sits in its bootloader with part of the image, and the link
        // starts over with a new probe.
        StoppedAnswering = 3
    };

    virtual ~ISectionUpdaterListener() = default;
    virtual void updaterStateChanged() = 0;
    virtual void updateProgress(uint8_t percent) = 0;
    virtual void sendBootloaderPacket(const BootloaderPacket& packet) = 0;
    virtual void failed(int reason) = 0;
};

}  // namespace Velmora::Worksurface
