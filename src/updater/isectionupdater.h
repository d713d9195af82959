#pragma once

#include <QByteArray>

namespace Velmora::Worksurface {

class ISectionUpdaterListener;

// Drives one section's serial bootloader: probes it after the link opens and, when the
// section sits in its bootloader, writes the firmware image into it.
class ISectionUpdater
{
public:
    virtual ~ISectionUpdater() = default;
    // In a bootloader exchange (any state but idle).
    virtual bool isActive() const = 0;
    // Writing an image.
    virtual bool isUpdating() const = 0;
    // Waiting for the answer to its start-up probe, which a section that is still booting
    // may never have heard (the only part of an exchange worth starting over). An updater
    // that does not say is taken to be busy with the section whenever it is active.
    virtual bool isProbing() const { return false; }
    virtual void start(ISectionUpdaterListener* listener) = 0;
    // The link's line went away. An update waiting for the bootloader ends at once with
    // StoppedAnswering; anything else (a probe, the second before the next probe) is left
    // to the link's reconnection.
    virtual void lineLost() {}
    virtual void dataReceived(const QByteArray& data) = 0;
};

}  // namespace Velmora::Worksurface
