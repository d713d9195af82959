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
    virtual void start(ISectionUpdaterListener* listener) = 0;
    virtual void dataReceived(const QByteArray& data) = 0;
};

}  // namespace Velmora::Worksurface
