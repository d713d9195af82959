#pragma once

#include <QString>
#include <cstdint>

namespace Velmora::Worksurface {

// Told of a section link's state, update progress and traffic (the surface passes these on
// to the section information shown in QML).
class ISectionStateListener
{
public:
    virtual ~ISectionStateListener() = default;
    virtual void sectionStateChanged(uint8_t sectionIndex, uint8_t state) = 0;
    virtual void sectionUpdateProgress(uint8_t sectionIndex, uint8_t value) = 0;
    virtual void sentMessageCount(uint64_t count) = 0;
    // The link's serial device and why it last failed (empty while it is open or untried),
    // told when either changes.
    virtual void sectionPortChanged(uint8_t /*sectionIndex*/, const QString& /*portName*/,
                                    const QString& /*portError*/)
    {}
    // A firmware update ended: -1 it succeeded, otherwise the updater's failure reason.
    virtual void sectionUpdateResult(uint8_t /*sectionIndex*/, int /*failureReason*/) {}
};

}  // namespace Velmora::Worksurface
