#pragma once

#include <cstdint>

namespace Velmora::Worksurface {

class ISectionInfo;

class ISectionInfoProvider
{
public:
    virtual ~ISectionInfoProvider() = default;
    // Null when there is no model for that section.
    virtual ISectionInfo* getForSection(uint8_t section) = 0;
};

}  // namespace Velmora::Worksurface
