#include "surface/led.h"

#include <utility>

#include "surface/handleownership.h"
#include "surface/ledhandle.h"

namespace Velmora::Worksurface {

Led::Led(uint8_t deviceId, uint8_t sectionIndex, LedType type,
         std::shared_ptr<ISerialMessageSender> sender, std::shared_ptr<ITaskPool> taskPool)
    : m_deviceId(deviceId),
      m_sectionIndex(sectionIndex),
      m_type(type),
      m_sender(std::move(sender)),
      m_flash(std::move(taskPool))
{}

Led::~Led()
{
    // A binding may still hold the handle for a moment; it must not reach a dead LED.
    std::shared_ptr<LedHandle> handle;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        handle = m_handle;
    }
    if (handle) {
        handle->m_led.store(nullptr);
    }
}

bool Led::handleMessage(const SerialMessage& /*message*/)
{
    return false;
}

void Led::setLinkReady(bool ready)
{
    if (!ready) {
        std::unique_lock<std::mutex> lock(m_mutex);
        setOnLocked(lock, m_on.load());
    }
}

uint8_t Led::deviceId() const
{
    return m_deviceId;
}

uint8_t Led::sectionIndex() const
{
    return m_sectionIndex;
}

LedType Led::ledType() const
{
    return m_type;
}

void Led::setOn(uint8_t on)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    setOnLocked(lock, on);
}

void Led::setOnLocked(std::unique_lock<std::mutex>& lock, uint8_t on)
{
    m_on.store(on);
    // Sent under the lock, so that two callers send their levels in the order they stored
    // them: the last level sent is the one the LED keeps. The queue never calls back.
    m_sender->sendLed(m_deviceId, on != 0 ? m_brightness.load() : 0, 0, 0);
    if (on == 0) {
        return;
    }
    // A flash that is already running keeps its rhythm; one that had stopped because the
    // LED was switched off starts again.
    if (m_flash.enabled() && !m_flash.running()) {
        rescheduleFlash(lock);
    }
}

void Led::setBrightness(uint8_t brightness)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_brightness.load() == brightness) {
        return;
    }
    m_brightness.store(brightness);
    const uint8_t on = m_on.load();
    if (on != 0) {
        setOnLocked(lock, on);
    }
}

bool Led::flashEnabled() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_flash.enabled();
}

void Led::setFlashEnabled(bool enabled)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_flash.setEnabled(enabled)) {
        rescheduleFlash(lock);
    }
}

int64_t Led::flashInterval() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_flash.interval();
}

void Led::setFlashInterval(int64_t intervalMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_flash.setInterval(intervalMs)) {
        rescheduleFlash(lock);
    }
}

std::shared_ptr<LedHandle> Led::getHandle()
{
    detachCurrentHandle(m_mutex, m_handle);
    std::shared_ptr<LedHandle> handle = makeHandle<LedHandle>(this);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handle = handle;
    return handle;
}

void Led::releaseHandle(LedHandle* handle)
{
    std::shared_ptr<LedHandle> released;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_handle.get() == handle) {
        released = std::move(m_handle);
    }
    // Nobody shows anything on this LED any more. A running flash stops at its next step,
    // which finds the LED off.
    m_on.store(0);
    m_sender->sendLed(m_deviceId, 0, 0, kFlashDelayMs);
}

void Led::run()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_flash.enabled() && m_flash.interval() >= 1 && m_on.load() != 0) {
        const bool wasLit = m_flash.togglePhase();
        m_sender->sendLed(m_deviceId, wasLit ? 0 : m_brightness.load(), 0, kFlashDelayMs);
        return;
    }
    m_flash.end();
}

uint8_t Led::on() const
{
    return m_on.load();
}

uint8_t Led::brightness() const
{
    return m_brightness.load();
}

bool Led::flashPhase() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_flash.phase();
}

void Led::rescheduleFlash(std::unique_lock<std::mutex>& lock)
{
    if (!m_flash.enabled() || m_flash.interval() <= 0 || m_on.load() == 0) {
        m_flash.stop();
        return;
    }
    m_flash.start(lock, shared_from_this());
}

}  // namespace Velmora::Worksurface
