#pragma once

#include <cstdint>
#include <memory>

namespace Velmora::Worksurface {

class IFader;
class IButton;
class IRotary;
class ILed;
class IRgbLed;
class IMeter;
class IPot;
class ISerialMessageSender;

// Makes one control of a section; an empty pointer when the type and index name no device.
class IComponentFactory
{
public:
    virtual ~IComponentFactory() = default;
    using Sender = std::shared_ptr<ISerialMessageSender>;
    virtual std::shared_ptr<IMeter> createMeter(const Sender& sender, uint8_t section, int32_t type,
                                                uint8_t index) = 0;
    virtual std::shared_ptr<IPot> createPot(const Sender& sender, uint8_t section, int32_t type,
                                            uint8_t index) = 0;
    virtual std::shared_ptr<IRgbLed> createRgbLed(const Sender& sender, uint8_t section,
                                                  int32_t type, uint8_t index) = 0;
    virtual std::shared_ptr<ILed> createLed(const Sender& sender, uint8_t section, int32_t type,
                                            uint8_t index) = 0;
    virtual std::shared_ptr<IRotary> createRotary(const Sender& sender, uint8_t section,
                                                  int32_t type, uint8_t index) = 0;
    virtual std::shared_ptr<IButton> createButton(const Sender& sender, uint8_t section,
                                                  int32_t type, uint8_t index) = 0;
    virtual std::shared_ptr<IFader> createFader(const Sender& sender, uint8_t section, int32_t type,
                                                uint8_t index) = 0;
};

}  // namespace Velmora::Worksurface
