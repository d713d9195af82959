#include "surface/rotary.h"

#include <QDebug>
#include <utility>

#include "base/logcategories.h"
#include "surface/handleownership.h"
#include "surface/iglobalrotarybindingtarget.h"
#include "surface/rotaryhandle.h"

namespace Velmora::Worksurface {

namespace {

uint32_t rgbOf(const QColor& color)
{
    return color.rgb() & 0xFFFFFFu;
}

// Black is what the light shows when it is off, whatever the alpha or the colour model.
bool isBlack(const QColor& color)
{
    return rgbOf(color) == 0;
}

}  // namespace

Rotary::Rotary(uint8_t rotaryDeviceId, uint8_t lightDeviceId, uint8_t buttonDeviceId,
               uint8_t sectionIndex, RotaryType type, std::shared_ptr<ISerialMessageSender> sender,
               std::shared_ptr<ITaskPool> taskPool)
    : m_rotaryDeviceId(rotaryDeviceId),
      m_lightDeviceId(lightDeviceId),
      m_buttonDeviceId(buttonDeviceId),
      m_sectionIndex(sectionIndex),
      m_type(type),
      m_sender(std::move(sender)),
      m_flash(std::move(taskPool))
{}

Rotary::~Rotary()
{
    // A binding may still hold the handle for a moment; it must not reach a dead rotary.
    std::shared_ptr<RotaryHandle> handle;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        handle = m_handle;
    }
    if (handle) {
        handle->m_rotary.store(nullptr);
    }
}

bool Rotary::takesMessage(const SerialMessage& message) const
{
    // Device ids are per message type: a button message whose id happens to be this
    // rotary's id is another switch's, so only the types of the rotary itself are taken
    // on the rotary id.
    if (message.deviceId == m_rotaryDeviceId) {
        return message.type == MessageType::RotaryStep || message.type == MessageType::RotaryTouch;
    }
    return message.deviceId == m_buttonDeviceId && message.type == MessageType::ButtonState;
}

bool Rotary::handleMessage(const SerialMessage& message)
{
    if (!takesMessage(message)) {
        return false;
    }
    const std::shared_ptr<RotaryHandle> handle = currentHandle();
    if (message.type == MessageType::RotaryStep) {
        if (handle) {
            emit handle->rotaryRotated(static_cast<qint8>(message.byteAt(0, 0)));
        }
    } else if (message.type == MessageType::RotaryTouch) {
        m_touched.store(message.boolAt(0, m_touched.load()));
        if (handle) {
            emit handle->rotaryTouched();
        }
    } else {
        m_pressed.store(message.boolAt(0, m_pressed.load()));
        if (handle) {
            emit handle->rotaryPressed();
        }
    }
    return true;
}

void Rotary::setLinkReady(bool ready)
{
    if (ready) {
        return;
    }
    // Only a flashing light gets its colour back here; a steady one is deliberately left
    // as the section shows it.
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_flash.interval() <= 0) {
        return;
    }
    sendColor(m_color, 0);
}

uint8_t Rotary::rotaryDeviceId() const
{
    return m_rotaryDeviceId;
}

uint8_t Rotary::sectionIndex() const
{
    return m_sectionIndex;
}

RotaryType Rotary::rotaryType() const
{
    return m_type;
}

bool Rotary::touched() const
{
    return m_touched.load();
}

bool Rotary::pressed() const
{
    return m_pressed.load();
}

QColor Rotary::color() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_color;
}

void Rotary::setColor(const QColor& color)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_color = color;
    // Sent under the lock, so that two callers send their colours in the order they stored
    // them and the ring keeps the one stored last. The queue never calls back.
    sendColor(color, 0);
}

bool Rotary::flashEnabled() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_flash.enabled();
}

void Rotary::setFlashEnabled(bool enabled)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_flash.setEnabled(enabled)) {
        rescheduleFlash(lock);
    }
}

int64_t Rotary::flashInterval() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_flash.interval();
}

void Rotary::setFlashInterval(int64_t intervalMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_flash.setInterval(intervalMs)) {
        rescheduleFlash(lock);
    }
}

std::shared_ptr<RotaryHandle> Rotary::getHandle()
{
    // The previous handle is no longer the current one when it detaches, so its release
    // does not wake the global target.
    detachCurrentHandle(m_mutex, m_handle);
    std::shared_ptr<RotaryHandle> handle = makeHandle<RotaryHandle>(this);
    std::lock_guard<std::mutex> lock(m_mutex);
    // The running flash task, if any, finds these cleared at its next step and stops.
    m_flash.setInterval(0);
    m_flash.setEnabled(false);
    m_handle = handle;
    return handle;
}

void Rotary::releaseHandle(RotaryHandle* handle)
{
    const QColor black(Qt::black);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_color = black;
        sendColor(black, kReleaseDelayMs);
    }

    std::shared_ptr<RotaryHandle> released;
    IGlobalRotaryBindingTarget* target = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_handle.get() != handle) {
            return;
        }
        released = std::move(m_handle);
        target = m_globalTarget;
    }
    // Outside the lock: the target binds at once, which asks this rotary for a new handle.
    if (target != nullptr) {
        target->bind();
    }
}

int Rotary::setGlobalTarget(IGlobalRotaryBindingTarget* target)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_globalTarget != nullptr && target != nullptr && target != m_globalTarget) {
        lock.unlock();
        qCWarning(lcSurface)
            << "Rotary global target can be bound only into one binding at the time. "
               "Rotary id:"
            << static_cast<int>(m_rotaryDeviceId);
        return Refused;
    }
    m_globalTarget = target;
    return m_handle ? StoredBound : StoredUnbound;
}

void Rotary::run()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_flash.enabled() && m_flash.interval() >= 1) {
        // A black light has nothing to flash; its phase waits for a colour.
        if (!isBlack(m_color)) {
            const bool showColor = m_flash.togglePhase();
            sendColor(showColor ? m_color : QColor(Qt::black), 0);
        }
        return;
    }
    m_flash.end();
}

uint8_t Rotary::lightDeviceId() const
{
    return m_lightDeviceId;
}

uint8_t Rotary::buttonDeviceId() const
{
    return m_buttonDeviceId;
}

bool Rotary::flashPhase() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_flash.phase();
}

void Rotary::rescheduleFlash(std::unique_lock<std::mutex>& lock)
{
    if (!m_flash.enabled() || m_flash.interval() < 1) {
        m_flash.stop();
        // Not flashing: whatever the last step left on the light, show the colour steadily.
        sendColor(m_color, 0);
        return;
    }
    m_flash.start(lock, shared_from_this());
}

void Rotary::sendColor(const QColor& color, int64_t delayMs)
{
    m_sender->sendColor(m_lightDeviceId, rgbOf(color), 0, delayMs);
}

std::shared_ptr<RotaryHandle> Rotary::currentHandle() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_handle;
}

}  // namespace Velmora::Worksurface
