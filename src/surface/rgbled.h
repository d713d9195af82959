#pragma once

#include <QColor>
#include <cstdint>
#include <memory>
#include <mutex>

#include "serial/iserialmessagesender.h"
#include "surface/irgbled.h"

namespace Velmora::Worksurface {

// One RGB LED of a section: the light of a rotary's push button or one of the master
// section's logos. Colours go out as message type 12 (red, green, blue, 0); the alpha is
// not sent. A colour equal to the stored one (QColor equality) is not sent again.
class RgbLed : public IRgbLed
{
public:
    RgbLed(uint8_t deviceId, uint8_t sectionIndex, RgbLedType type,
           std::shared_ptr<ISerialMessageSender> sender);
    ~RgbLed() override;

    RgbLed(const RgbLed&) = delete;
    RgbLed& operator=(const RgbLed&) = delete;

    // An RGB LED takes no message.
    bool handleMessage(const SerialMessage& message) override;
    // After the link was lost (false) the stored colour is sent again at once; true sends
    // nothing.
    void setLinkReady(bool ready) override;

    uint8_t deviceId() const override;
    uint8_t sectionIndex() const override;
    RgbLedType rgbLedType() const override;
    void setColor(const QColor& color) override;
    // Detaches the handle given out before, if any, and gives out a new one.
    std::shared_ptr<RgbLedHandle> getHandle() override;
    // Drops the handle if it is the current one; in every case the LED turns black (sent
    // after 100 ms, so that a new binding's colour, sent at once, replaces it).
    void releaseHandle(RgbLedHandle* handle) override;

    QColor color() const;

private:
    void sendColor(const QColor& color, int64_t delayMs);

    const uint8_t m_deviceId;
    const uint8_t m_sectionIndex;
    const RgbLedType m_type;
    const std::shared_ptr<ISerialMessageSender> m_sender;

    // Guards the colour and the handle pointer. Set colour comes from the user-interface
    // thread, the resend after a link loss from the model thread.
    mutable std::mutex m_mutex;
    QColor m_color{Qt::black};
    std::shared_ptr<RgbLedHandle> m_handle;
};

}  // namespace Velmora::Worksurface
