#pragma once

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
};

}  // namespace Velmora::Worksurface
