#pragma once

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
};

}  // namespace Velmora::Worksurface
