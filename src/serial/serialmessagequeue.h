#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>

#include "serial/iserialmessagequeue.h"
#include "serial/iserialmessagesender.h"
#include "serial/serialmessage.h"

namespace Velmora::Worksurface {

// A section's outgoing messages. Safe from any thread (docs/threads.md): every operation on
// the entries takes the queue's mutex, which is a leaf (the queue never calls out), so a
// component may send while it holds its own lock. The section connection drains the due
// ones on its periodic task. A newer message of the same type
// for the same device replaces an unsent older one in place, so a control that moves fast
// never builds a backlog of stale values.
class SerialMessageQueue : public ISerialMessageSender, public ISerialMessageQueue
{
public:
    SerialMessageQueue() = default;
    ~SerialMessageQueue() override = default;
    SerialMessageQueue(const SerialMessageQueue&) = delete;
    SerialMessageQueue& operator=(const SerialMessageQueue&) = delete;

    // ISerialMessageSender
    void sendFaderPosition(uint8_t deviceId, uint16_t value) override;
    void sendFaderBackstop(uint8_t deviceId, uint16_t value) override;
    void sendFaderDetent(uint8_t deviceId, uint16_t value) override;
    void sendFaderDriveMode(uint8_t deviceId, uint8_t mode) override;
    void sendLed(uint8_t deviceId, uint8_t first, uint8_t second, int64_t delayMs) override;
    void sendColor(uint8_t deviceId, uint32_t color, uint8_t extra, int64_t delayMs) override;
    void requestPotValue() override;
    void sendMeterLevel(uint8_t deviceId, uint8_t value) override;
    void sendMeterPeak(uint8_t deviceId, uint8_t value) override;

    // ISerialMessageQueue
    bool hasNoDueMessage() const override;
    SerialMessage takeNextMessage() override;
    void enqueue(const SerialMessage& message) override;

    // Every sender goes through here. The message is released delayMs milliseconds from
    // now; an unsent entry with the same type and device id takes the new payload and
    // release time but keeps its place in the queue and its flags.
    void enqueueWithDelay(const SerialMessage& message, int64_t delayMs);

    // Number of entries waiting, due or not.
    std::size_t size() const;

private:
    struct Entry
    {
        qint64 dueNs;
        SerialMessage message;
    };

    std::deque<Entry> m_entries;
    // Mirrors m_entries.size() so that the empty checks need no lock.
    std::atomic<std::size_t> m_count{0};
    mutable std::mutex m_mutex;
};

}  // namespace Velmora::Worksurface
