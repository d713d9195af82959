#pragma once

#include <cstdint>
#include <memory>

namespace Velmora::Worksurface {

class ISection;
class ISettings;
class ISerialMessageHandlerRepository;
class ISerialMessageSender;

class ISectionFactory
{
public:
    virtual ~ISectionFactory() = default;
    virtual std::shared_ptr<ISection> createSection(
        const std::shared_ptr<ISettings>& settings,
        const std::shared_ptr<ISerialMessageHandlerRepository>& handlers,
        const std::shared_ptr<ISerialMessageSender>& sender, uint8_t sectionIndex) = 0;
};

}  // namespace Velmora::Worksurface
