#pragma once

#include <memory>

#include "surface/icomponentfactory.h"

namespace Velmora::Worksurface {

class ITaskPool;

// Makes the controls that the device-id table says exist, and starts the periodic work of
// those that have some: every fader's 50 ms step and the pot's value requests.
class ComponentFactory : public IComponentFactory
{
public:
    static constexpr uint64_t kFaderStepIntervalMs = 50;

    explicit ComponentFactory(std::shared_ptr<ITaskPool> taskPool);

    std::shared_ptr<IMeter> createMeter(const Sender& sender, uint8_t section, int32_t type,
                                        uint8_t index) override;
    std::shared_ptr<IPot> createPot(const Sender& sender, uint8_t section, int32_t type,
                                    uint8_t index) override;
    std::shared_ptr<IRgbLed> createRgbLed(const Sender& sender, uint8_t section, int32_t type,
                                          uint8_t index) override;
    std::shared_ptr<ILed> createLed(const Sender& sender, uint8_t section, int32_t type,
                                    uint8_t index) override;
    std::shared_ptr<IRotary> createRotary(const Sender& sender, uint8_t section, int32_t type,
                                          uint8_t index) override;
    std::shared_ptr<IButton> createButton(const Sender& sender, uint8_t section, int32_t type,
                                          uint8_t index) override;
    std::shared_ptr<IFader> createFader(const Sender& sender, uint8_t section, int32_t type,
                                        uint8_t index) override;

private:
    std::shared_ptr<ITaskPool> m_taskPool;
};

}  // namespace Velmora::Worksurface
