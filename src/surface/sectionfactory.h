#pragma once

#include <memory>

#include "surface/isectionfactory.h"

namespace Velmora::Worksurface {

class IComponentFactory;
class ISectionInfoProvider;

// Lays out one section: ten strips on every section; on the master section also the
// master strip, the snapshot/layer/overview/spill-set buttons, the side rotaries, the
// headphone pot, the master meters and the logos.
class SectionFactory : public ISectionFactory
{
public:
    SectionFactory(ISectionInfoProvider* infoProvider,
                   std::unique_ptr<IComponentFactory> componentFactory);
    ~SectionFactory() override;

    std::shared_ptr<ISection> createSection(
        const std::shared_ptr<ISettings>& settings,
        const std::shared_ptr<ISerialMessageHandlerRepository>& handlers,
        const std::shared_ptr<ISerialMessageSender>& sender, uint8_t sectionIndex) override;

private:
    ISectionInfoProvider* m_infoProvider;  // not owned; may be null
    std::unique_ptr<IComponentFactory> m_components;
};

}  // namespace Velmora::Worksurface
