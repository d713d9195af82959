#pragma once

#include <memory>
#include <vector>

#include "serial/iserialmessagehandler.h"
#include "surface/isection.h"

namespace Velmora::Worksurface {

class ISectionInfo;

// One hardware section's controls. As the last handler registered for its link it takes
// the section's type-0 report (firmware version and temperature) after every component
// has had its chance.
class Section : public ISection, public ISerialMessageHandler
{
public:
    Section(uint8_t index, ISectionInfo* info, std::shared_ptr<IPot> pot,
            std::vector<std::shared_ptr<IFader>> faders,
            std::vector<std::shared_ptr<IButton>> buttons,
            std::vector<std::shared_ptr<IRotary>> rotaries, std::vector<std::shared_ptr<ILed>> leds,
            std::vector<std::shared_ptr<IRgbLed>> rgbLeds,
            std::vector<std::shared_ptr<IMeter>> meters);

    uint8_t index() const override { return m_index; }
    uint8_t version() const override { return m_version; }
    uint8_t temperature() const override { return m_temperature; }
    std::shared_ptr<IPot> pot() const override { return m_pot; }
    const std::vector<std::shared_ptr<IFader>>& faders() const override { return m_faders; }
    const std::vector<std::shared_ptr<IButton>>& buttons() const override { return m_buttons; }
    const std::vector<std::shared_ptr<IRotary>>& rotaries() const override { return m_rotaries; }
    const std::vector<std::shared_ptr<ILed>>& leds() const override { return m_leds; }
    const std::vector<std::shared_ptr<IRgbLed>>& rgbLeds() const override { return m_rgbLeds; }
    const std::vector<std::shared_ptr<IMeter>>& meters() const override { return m_meters; }
    void setUpdating(bool updating) override;
    void setUpdateProgress(uint8_t percent) override;
    void setFaderRestMode(RestMode mode) override;
    void setLinkState(uint8_t state) override;
    void setPort(const QString& portName, const QString& portError) override;
    void setUpdateResult(int failureReason) override;

    bool handleMessage(const SerialMessage& message) override;
    bool takesMessage(const SerialMessage& message) const override;
    void setLinkReady(bool) override {}

private:
    const uint8_t m_index;
    ISectionInfo* const m_info;  // not owned; null for a section without a model
    uint8_t m_version = 0;
    uint8_t m_temperature = 0;
    std::shared_ptr<IPot> m_pot;
    std::vector<std::shared_ptr<IFader>> m_faders;
    std::vector<std::shared_ptr<IButton>> m_buttons;
    std::vector<std::shared_ptr<IRotary>> m_rotaries;
    std::vector<std::shared_ptr<ILed>> m_leds;
    std::vector<std::shared_ptr<IRgbLed>> m_rgbLeds;
    std::vector<std::shared_ptr<IMeter>> m_meters;
};

}  // namespace Velmora::Worksurface
