#include "surface/section.h"

#include "base/isectioninfo.h"
#include "surface/ifader.h"

namespace Velmora::Worksurface {

Section::Section(uint8_t index, ISectionInfo* info, std::shared_ptr<IPot> pot,
                 std::vector<std::shared_ptr<IFader>> faders,
                 std::vector<std::shared_ptr<IButton>> buttons,
                 std::vector<std::shared_ptr<IRotary>> rotaries,
                 std::vector<std::shared_ptr<ILed>> leds,
                 std::vector<std::shared_ptr<IRgbLed>> rgbLeds,
                 std::vector<std::shared_ptr<IMeter>> meters)
    : m_index(index),
      m_info(info),
      m_pot(std::move(pot)),
      m_faders(std::move(faders)),
      m_buttons(std::move(buttons)),
      m_rotaries(std::move(rotaries)),
      m_leds(std::move(leds)),
      m_rgbLeds(std::move(rgbLeds)),
      m_meters(std::move(meters))
{}

void Section::setUpdating(bool updating)
{
    if (m_info) {
        m_info->setUpdating(updating);
    }
}

void Section::setUpdateProgress(uint8_t percent)
{
    if (m_info) {
        m_info->setUpdateProgress(percent);
    }
}

void Section::setLinkState(uint8_t state)
{
    if (m_info) {
        m_info->setLinkState(state);
    }
}

void Section::setPort(const QString& portName, const QString& portError)
{
    if (m_info) {
        m_info->setPort(portName, portError);
    }
}

void Section::setUpdateResult(int failureReason)
{
    if (m_info) {
        m_info->setUpdateResult(failureReason);
    }
}

void Section::setFaderRestMode(RestMode mode)
{
    for (const auto& fader : m_faders) {
        fader->setRestMode(static_cast<int32_t>(mode));
    }
}

bool Section::takesMessage(const SerialMessage& message) const
{
    return message.type == MessageType::Ping;
}

bool Section::handleMessage(const SerialMessage& message)
{
    if (!takesMessage(message)) {
        return false;
    }
    // The section's answer to a ping: payload byte 1 is its firmware version, byte 2 its
    // temperature. A short report keeps what was known.
    m_version = message.byteAt(1, m_version);
    m_temperature = message.byteAt(2, m_temperature);
    if (m_info) {
        m_info->updateInfo(m_version, m_temperature);
    }
    return true;
}

}  // namespace Velmora::Worksurface
