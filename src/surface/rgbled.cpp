#include "surface/rgbled.h"

#include <utility>

#include "surface/handleownership.h"
#include "surface/rgbledhandle.h"

namespace Velmora::Worksurface {

namespace {

constexpr int64_t kReleaseDelayMs = 100;

}  // namespace

RgbLed::RgbLed(uint8_t deviceId, uint8_t sectionIndex, RgbLedType type,
               std::shared_ptr<ISerialMessageSender> sender)
    : m_deviceId(deviceId), m_sectionIndex(sectionIndex), m_type(type), m_sender(std::move(sender))
{}

RgbLed::~RgbLed()
{
    // A binding may still hold the handle for a moment; it must not reach a dead LED.
    std::shared_ptr<RgbLedHandle> handle;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        handle = m_handle;
    }
    if (handle) {
        handle->m_rgbLed.store(nullptr);
    }
}

bool RgbLed::handleMessage(const SerialMessage& /*message*/)
{
    return false;
}

void RgbLed::setLinkReady(bool ready)
{
    if (!ready) {
        std::lock_guard<std::mutex> lock(m_mutex);
        sendColor(m_color, 0);
    }
}

uint8_t RgbLed::deviceId() const
{
    return m_deviceId;
}

uint8_t RgbLed::sectionIndex() const
{
    return m_sectionIndex;
}

RgbLedType RgbLed::rgbLedType() const
{
    return m_type;
}

void RgbLed::setColor(const QColor& color)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_color == color) {
        return;
    }
    m_color = color;
    // Sent under the lock, so that two callers send their colours in the order they stored
    // them: otherwise the one stored last could go out first, and the equality check above
    // would then keep the other colour on the hardware. The queue never calls back.
    sendColor(color, 0);
}

std::shared_ptr<RgbLedHandle> RgbLed::getHandle()
{
    detachCurrentHandle(m_mutex, m_handle);
    std::shared_ptr<RgbLedHandle> handle = makeHandle<RgbLedHandle>(this);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handle = handle;
    return handle;
}

void RgbLed::releaseHandle(RgbLedHandle* handle)
{
    const QColor black(Qt::black);
    std::shared_ptr<RgbLedHandle> released;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_handle.get() == handle) {
        released = std::move(m_handle);
    }
    m_color = black;
    sendColor(black, kReleaseDelayMs);
}

QColor RgbLed::color() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_color;
}

void RgbLed::sendColor(const QColor& color, int64_t delayMs)
{
    m_sender->sendColor(m_deviceId, color.rgb() & 0xFFFFFFu, 0, delayMs);
}

}  // namespace Velmora::Worksurface
