#include "support/recordingsender.h"

#include <utility>

#include "support/manualclock.h"
#include "tasks/monotonicclock.h"

using namespace Velmora::Worksurface;

namespace {

std::vector<uint8_t> word(uint16_t value)
{
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value & 0xFF)};
}

}  // namespace

void RecordingSender::record(uint8_t type, uint8_t deviceId, std::vector<uint8_t> payload,
                             int64_t delayMs)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sent.push_back(Sent{SerialMessage(type, deviceId, std::move(payload)),
                          MonotonicClock::nowNs() + delayMs * kMs});
}

void RecordingSender::sendFaderPosition(uint8_t deviceId, uint16_t value)
{
    record(MessageType::FaderPosition, deviceId, word(value), 0);
}

void RecordingSender::sendFaderBackstop(uint8_t deviceId, uint16_t value)
{
    record(MessageType::FaderBackstop, deviceId, word(value), 0);
}

void RecordingSender::sendFaderDetent(uint8_t deviceId, uint16_t value)
{
    record(MessageType::FaderDetent, deviceId, word(value), 0);
}

void RecordingSender::sendFaderDriveMode(uint8_t deviceId, uint8_t mode)
{
    record(MessageType::FaderDriveMode, deviceId, {mode}, 0);
}

void RecordingSender::sendLed(uint8_t deviceId, uint8_t first, uint8_t second, int64_t delayMs)
{
    record(MessageType::Led, deviceId, {first, second}, delayMs);
}

void RecordingSender::sendColor(uint8_t deviceId, uint32_t color, uint8_t extra, int64_t delayMs)
{
    record(MessageType::RgbColor, deviceId,
           {static_cast<uint8_t>((color >> 16) & 0xFF), static_cast<uint8_t>((color >> 8) & 0xFF),
            static_cast<uint8_t>(color & 0xFF), extra},
           delayMs);
}

void RecordingSender::requestPotValue()
{
    record(MessageType::PotValue, 0, {}, 0);
}

void RecordingSender::sendMeterLevel(uint8_t deviceId, uint8_t value)
{
    record(MessageType::MeterLevel, deviceId, {value}, 0);
}

void RecordingSender::sendMeterPeak(uint8_t deviceId, uint8_t value)
{
    record(MessageType::MeterPeak, deviceId, {value}, 0);
}

std::vector<RecordingSender::Sent> RecordingSender::sent() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sent;
}

std::vector<RecordingSender::Sent> RecordingSender::take()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::exchange(m_sent, {});
}

std::size_t RecordingSender::count() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sent.size();
}

void RecordingSender::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sent.clear();
}
