#pragma once

#include <memory>

namespace Velmora::Worksurface {

class IConnectionFactory;
class ISectionFactory;
class ISettings;
class Surface;

// Builds the worksurface the settings describe: per section a dispatch root and an
// outgoing queue shared by the section's controls and its link. No sections, no surface.
class SurfaceBuilder
{
public:
    static std::shared_ptr<Surface> build(const std::shared_ptr<ISettings>& settings,
                                          ISectionFactory& sectionFactory,
                                          IConnectionFactory& connectionFactory);
};

}  // namespace Velmora::Worksurface
