#include "surface/pot.h"

#include <algorithm>
#include <utility>

#include "surface/handleownership.h"
#include "surface/pothandle.h"

namespace Velmora::Worksurface {

Pot::Pot(uint8_t potDeviceId, uint8_t lightDeviceId, uint8_t sectionIndex, PotType type,
         std::shared_ptr<ISerialMessageSender> sender, std::shared_ptr<ITaskPool> taskPool)
    : m_potDeviceId(potDeviceId),
      m_lightDeviceId(lightDeviceId),
      m_sectionIndex(sectionIndex),
      m_type(type),
      m_sender(std::move(sender)),
      m_taskPool(std::move(taskPool))
{}

Pot::~Pot()
{
    // A binding may still hold the handle for a moment; it must not reach a dead pot.
    std::shared_ptr<PotHandle> handle;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        handle = m_handle;
    }
    if (handle) {
        handle->m_pot.store(nullptr);
    }
}

void Pot::startValueRequests()
{
    const std::shared_ptr<ITask> self = shared_from_this();
    std::shared_ptr<ITaskHandle> task = m_taskPool->schedulePeriodic(kValueRequestIntervalMs, self);
    std::shared_ptr<ITaskHandle> previous;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        previous = m_requestTask.lock();
        m_requestTask = task;
    }
    if (previous) {
        previous->cancel();
    }
}

bool Pot::takesMessage(const SerialMessage& message) const
{
    return message.type == MessageType::PotValue && message.deviceId == m_potDeviceId;
}

bool Pot::handleMessage(const SerialMessage& message)
{
    if (!takesMessage(message)) {
        return false;
    }
    std::shared_ptr<ITaskHandle> requests;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        requests = m_requestTask.lock();
        m_requestTask.reset();
    }
    // The section has answered; from now on it reports every move by itself.
    if (requests) {
        requests->cancel();
    }
    const uint16_t value = std::min(message.wordAt(0, m_value.load()), kMaxValue);
    m_value.store(value);
    if (const std::shared_ptr<PotHandle> handle = currentHandle()) {
        emit handle->potValueChanged(value);
    }
    return true;
}

void Pot::setLinkReady(bool ready)
{
    if (!ready) {
        std::lock_guard<std::mutex> lock(m_mutex);
        sendColor(m_color, 0);
    }
}

uint8_t Pot::potDeviceId() const
{
    return m_potDeviceId;
}

uint8_t Pot::sectionIndex() const
{
    return m_sectionIndex;
}

PotType Pot::potType() const
{
    return m_type;
}

uint16_t Pot::value() const
{
    return m_value.load();
}

void Pot::setColor(const QColor& color)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_color = color;
    // Sent under the lock, so that two callers send their colours in the order they stored
    // them and the light keeps the one stored last. The queue never calls back.
    sendColor(color, 0);
}

std::shared_ptr<PotHandle> Pot::getHandle()
{
    detachCurrentHandle(m_mutex, m_handle);
    std::shared_ptr<PotHandle> handle = makeHandle<PotHandle>(this);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handle = handle;
    return handle;
}

void Pot::releaseHandle(PotHandle* handle)
{
    const QColor black(Qt::black);
    std::shared_ptr<PotHandle> released;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_handle.get() == handle) {
        released = std::move(m_handle);
    }
    m_color = black;
    sendColor(black, kReleaseDelayMs);
}

void Pot::run()
{
    m_sender->requestPotValue();
}

uint8_t Pot::lightDeviceId() const
{
    return m_lightDeviceId;
}

QColor Pot::color() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_color;
}

void Pot::sendColor(const QColor& color, int64_t delayMs)
{
    m_sender->sendColor(m_lightDeviceId, color.rgb() & 0xFFFFFFu, 0, delayMs);
}

std::shared_ptr<PotHandle> Pot::currentHandle() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_handle;
}

}  // namespace Velmora::Worksurface
