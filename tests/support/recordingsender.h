#pragma once

#include <QtGlobal>
#include <cstdint>
#include <mutex>
#include <vector>

#include "serial/iserialmessagesender.h"
#include "serial/serialmessage.h"
#include "support/sentmessage.h"

// Stands in for a section's outgoing queue and records every call a component makes, as
// the message the queue would build, with the instant the queue would release it
// (now + delay on the monotonic clock). Unlike the real queue it does not merge a message
// into an unsent one for the same device, so a test sees each call: "sends once" and
// "sends nothing" are checked here, and the real queue is used where what leaves the
// section's line matters.
class RecordingSender : public Velmora::Worksurface::ISerialMessageSender
{
public:
    using Sent = SentMessage;

    void sendFaderPosition(uint8_t deviceId, uint16_t value) override;
    void sendFaderBackstop(uint8_t deviceId, uint16_t value) override;
    void sendFaderDetent(uint8_t deviceId, uint16_t value) override;
    void sendFaderDriveMode(uint8_t deviceId, uint8_t mode) override;
    void sendLed(uint8_t deviceId, uint8_t first, uint8_t second, int64_t delayMs) override;
    void sendColor(uint8_t deviceId, uint32_t color, uint8_t extra, int64_t delayMs) override;
    void requestPotValue() override;
    void sendMeterLevel(uint8_t deviceId, uint8_t value) override;
    void sendMeterPeak(uint8_t deviceId, uint8_t value) override;

    // Everything recorded so far, in call order.
    std::vector<Sent> sent() const;
    // The same, and forgets it.
    std::vector<Sent> take();
    std::size_t count() const;
    void clear();

private:
    void record(uint8_t type, uint8_t deviceId, std::vector<uint8_t> payload, int64_t delayMs);

    mutable std::mutex m_mutex;
    std::vector<Sent> m_sent;
};
