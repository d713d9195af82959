#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "serial/iserialmessagesender.h"
#include "surface/flashschedule.h"
#include "surface/iled.h"
#include "tasks/itask.h"
#include "tasks/itaskpool.h"

namespace Velmora::Worksurface {

// One LED in a button of a section: switched on and off, dimmed, and flashed. Levels go
// out as message type 11 (level, 0). Flashing is a periodic task on the surface's task pool
// at half the flash interval, each run toggling the LED; the toggles go out with a 100 ms
// queue delay, so a steady request (set on, set brightness) made in between, sent without
// delay, replaces a pending toggle instead of being overtaken by it.
//
// Must be owned by a std::shared_ptr (make it with std::make_shared): it hands itself to
// the task pool, which holds it weakly, when flashing starts.
//
// Threads: safe from any thread (docs/threads.md): handle calls may come from one thread
// while flash steps run on the model thread under the task pool's lock. On and brightness
// are atomics, written and sent under a non-recursive mutex that also guards the flash
// fields and the handle, so that the last level sent is the last one stored. The mutex
// is never held while the task pool is asked (the pool's lock is taken before ours while a
// step runs) or anything but the outgoing queue (a leaf) is called. The LED itself is made
// and destroyed on the model thread; its destruction cuts the handle off atomically.
class Led : public ILed, public ITask, public std::enable_shared_from_this<Led>
{
public:
    Led(uint8_t deviceId, uint8_t sectionIndex, LedType type,
        std::shared_ptr<ISerialMessageSender> sender, std::shared_ptr<ITaskPool> taskPool);
    ~Led() override;

    Led(const Led&) = delete;
    Led& operator=(const Led&) = delete;

    // An LED takes no message.
    bool handleMessage(const SerialMessage& message) override;
    // After the link was lost (false) the LED sends its level again, and restarts its
    // flashing if that had stopped; true sends nothing.
    void setLinkReady(bool ready) override;

    uint8_t deviceId() const override;
    uint8_t sectionIndex() const override;
    LedType ledType() const override;
    // Stores the state and sends it at once (the brightness when nonzero, else 0); if the
    // LED is lit with flashing enabled and no flash task runs, starts one.
    void setOn(uint8_t on) override;
    // Stores a new brightness and, if the LED is on, sends it at once.
    void setBrightness(uint8_t brightness) override;
    bool flashEnabled() const override;
    void setFlashEnabled(bool enabled) override;
    int64_t flashInterval() const override;
    void setFlashInterval(int64_t intervalMs) override;
    // Detaches the handle given out before, if any, and gives out a new one.
    std::shared_ptr<LedHandle> getHandle() override;
    // Drops the handle if it is the current one; in every case the LED is switched off
    // (level 0 after 100 ms).
    void releaseHandle(LedHandle* handle) override;

    // The flash step.
    void run() override;

    uint8_t on() const;
    uint8_t brightness() const;
    // Whether the LED is in the lit half of its flash cycle.
    bool flashPhase() const;

private:
    static constexpr int64_t kFlashDelayMs = 100;

    // Cancels the running flash task and, if the LED should flash, schedules a new one.
    // Called with the mutex held through `lock`; returns with it held, but releases it
    // while it asks the task pool.
    void rescheduleFlash(std::unique_lock<std::mutex>& lock);
    // setOn() with the mutex held through `lock` (see rescheduleFlash()).
    void setOnLocked(std::unique_lock<std::mutex>& lock, uint8_t on);

    const uint8_t m_deviceId;
    const uint8_t m_sectionIndex;
    const LedType m_type;
    const std::shared_ptr<ISerialMessageSender> m_sender;

    // Atomic so that on() and brightness() need no lock; changed under the mutex, and sent
    // under it in the order they were stored.
    std::atomic<uint8_t> m_on{0};
    std::atomic<uint8_t> m_brightness{255};

    mutable std::mutex m_mutex;
    std::shared_ptr<LedHandle> m_handle;
    FlashSchedule m_flash;
};

}  // namespace Velmora::Worksurface
