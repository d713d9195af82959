#pragma once

#include <QString>
#include <cstdint>

namespace Velmora::Worksurface {

// Where the core writes what a section reports about itself, without knowing QML.
class ISectionInfo
{
public:
    virtual ~ISectionInfo() = default;
    virtual void updateInfo(uint8_t version, uint8_t temperature) = 0;
    virtual void setUpdating(bool updating) = 0;
    virtual void setUpdateProgress(uint8_t percent) = 0;

    // The section's link: its state (the section connection's state values), its serial
    // device and the reason the device last failed (empty while it is open or untried), and
    // how a firmware update ended (-1 success, otherwise the updater's failure reason).
    // Holders that show none of this keep the defaults.
    virtual void setLinkState(uint8_t) {}
    virtual void setPort(const QString& /*portName*/, const QString& /*portError*/) {}
    virtual void setUpdateResult(int /*failureReason*/) {}
};

}  // namespace Velmora::Worksurface
