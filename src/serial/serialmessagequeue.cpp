#include "serial/serialmessagequeue.h"

#include <limits>

#include "tasks/monotonicclock.h"

namespace Velmora::Worksurface {

namespace {

// now + delay, pinned to the ends of the clock's range: a delay too large to represent
// means "never" rather than a wrapped time in the past.
qint64 releaseTimeNs(qint64 nowNs, int64_t delayMs)
{
    qint64 delayNs = 0;
    qint64 due = 0;
    if (__builtin_mul_overflow(delayMs, kNsPerMs, &delayNs) ||
        __builtin_add_overflow(nowNs, delayNs, &due)) {
        return delayMs > 0 ? std::numeric_limits<qint64>::max()
                           : std::numeric_limits<qint64>::min();
    }
    return due;
}

std::vector<uint8_t> wordPayload(uint16_t value)
{
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value & 0xFF)};
}

}  // namespace

void SerialMessageQueue::sendFaderPosition(uint8_t deviceId, uint16_t value)
{
    enqueueWithDelay(SerialMessage(MessageType::FaderPosition, deviceId, wordPayload(value)), 0);
}

void SerialMessageQueue::sendFaderBackstop(uint8_t deviceId, uint16_t value)
{
    enqueueWithDelay(SerialMessage(MessageType::FaderBackstop, deviceId, wordPayload(value)), 0);
}

void SerialMessageQueue::sendFaderDetent(uint8_t deviceId, uint16_t value)
{
    enqueueWithDelay(SerialMessage(MessageType::FaderDetent, deviceId, wordPayload(value)), 0);
}

void SerialMessageQueue::sendFaderDriveMode(uint8_t deviceId, uint8_t mode)
{
    enqueueWithDelay(SerialMessage(MessageType::FaderDriveMode, deviceId, {mode}), 0);
}

void SerialMessageQueue::sendLed(uint8_t deviceId, uint8_t first, uint8_t second, int64_t delayMs)
{
    enqueueWithDelay(SerialMessage(MessageType::Led, deviceId, {first, second}), delayMs);
}

void SerialMessageQueue::sendColor(uint8_t deviceId, uint32_t color, uint8_t extra, int64_t delayMs)
{
    const auto red = static_cast<uint8_t>((color >> 16) & 0xFF);
    const auto green = static_cast<uint8_t>((color >> 8) & 0xFF);
    const auto blue = static_cast<uint8_t>(color & 0xFF);
    enqueueWithDelay(SerialMessage(MessageType::RgbColor, deviceId, {red, green, blue, extra}),
                     delayMs);
}

void SerialMessageQueue::requestPotValue()
{
    // The section answers with the value of its one pot, so the request goes to the
    // section itself.
    enqueueWithDelay(SerialMessage(MessageType::PotValue, 0), 0);
}

void SerialMessageQueue::sendMeterLevel(uint8_t deviceId, uint8_t value)
{
    enqueueWithDelay(SerialMessage(MessageType::MeterLevel, deviceId, {value}), 0);
}

void SerialMessageQueue::sendMeterPeak(uint8_t deviceId, uint8_t value)
{
    enqueueWithDelay(SerialMessage(MessageType::MeterPeak, deviceId, {value}), 0);
}

bool SerialMessageQueue::hasNoDueMessage() const
{
    if (m_count.load() == 0) {
        return true;
    }
    // Under the lock: a component may be adding to the deque from another thread.
    std::lock_guard<std::mutex> lock(m_mutex);
    const qint64 now = MonotonicClock::nowNs();
    for (const Entry& entry : m_entries) {
        if (now >= entry.dueNs) {
            return false;
        }
    }
    return true;
}

SerialMessage SerialMessageQueue::takeNextMessage()
{
    if (m_count.load() == 0) {
        return SerialMessage();
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    const qint64 now = MonotonicClock::nowNs();
    for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
        if (now >= it->dueNs) {
            SerialMessage message = std::move(it->message);
            m_entries.erase(it);
            m_count.store(m_entries.size());
            return message;
        }
    }
    return SerialMessage();
}

void SerialMessageQueue::enqueue(const SerialMessage& message)
{
    enqueueWithDelay(message, 0);
}

void SerialMessageQueue::enqueueWithDelay(const SerialMessage& message, int64_t delayMs)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const qint64 due = releaseTimeNs(MonotonicClock::nowNs(), delayMs);
    for (Entry& entry : m_entries) {
        if (entry.message.type == message.type && entry.message.deviceId == message.deviceId) {
            entry.dueNs = due;
            entry.message.payload = message.payload;
            return;
        }
    }
    m_entries.push_back(Entry{due, message});
    m_count.store(m_entries.size());
}

std::size_t SerialMessageQueue::size() const
{
    return m_count.load();
}

}  // namespace Velmora::Worksurface
