#include "surface/meter.h"

#include <utility>

#include "surface/handleownership.h"
#include "surface/meterhandle.h"

namespace Velmora::Worksurface {

Meter::Meter(uint8_t deviceId, uint8_t sectionIndex, MeterType type,
             std::shared_ptr<ISerialMessageSender> sender)
    : m_deviceId(deviceId), m_sectionIndex(sectionIndex), m_type(type), m_sender(std::move(sender))
{}

Meter::~Meter()
{
    // A binding may still hold the handle for a moment; it must not reach a dead meter.
    std::shared_ptr<MeterHandle> handle;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        handle = m_handle;
    }
    if (handle) {
        handle->m_meter.store(nullptr);
    }
}

uint8_t Meter::deviceId() const
{
    return m_deviceId;
}

uint8_t Meter::sectionIndex() const
{
    return m_sectionIndex;
}

MeterType Meter::meterType() const
{
    return m_type;
}

uint8_t Meter::sectionByte(uint8_t value)
{
    // Single precision throughout, so that every value keeps mapping to the byte the
    // console has always sent for it.
    const float scaled = (static_cast<float>(value) - 135.0f) * 0.2f;
    return static_cast<uint8_t>(static_cast<int>(scaled) & 0xFF);
}

void Meter::setLevel(uint8_t level)
{
    const uint8_t byte = sectionByte(level);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (byte == m_lastLevel) {
        return;
    }
    m_lastLevel = byte;
    // Sent under the lock so that two callers cannot send their bytes in the opposite
    // order to the one they stored them in. The queue never calls back.
    m_sender->sendMeterLevel(m_deviceId, byte);
}

void Meter::setPeak(uint8_t peak)
{
    const uint8_t byte = sectionByte(peak);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (byte == m_lastPeak) {
        return;
    }
    m_lastPeak = byte;
    m_sender->sendMeterPeak(m_deviceId, byte);
}

std::shared_ptr<MeterHandle> Meter::getHandle()
{
    detachCurrentHandle(m_mutex, m_handle);
    std::shared_ptr<MeterHandle> handle = makeHandle<MeterHandle>(this);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handle = handle;
    return handle;
}

void Meter::releaseHandle(MeterHandle* handle)
{
    std::shared_ptr<MeterHandle> released;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_handle.get() == handle) {
        released = std::move(m_handle);
    }
}

}  // namespace Velmora::Worksurface
