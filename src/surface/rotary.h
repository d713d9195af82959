#pragma once

#include <QColor>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "serial/iserialmessagesender.h"
#include "surface/flashschedule.h"
#include "surface/irotary.h"
#include "tasks/itask.h"
#include "tasks/itaskpool.h"

namespace Velmora::Worksurface {

// One endless rotary encoder of a section, with its push switch, its touch sensor and the
// RGB light of its ring (under-screen rotaries) or button (side rotaries). It takes the
// section's step (type 18) and touch (type 19) messages for its rotary id and the button
// messages (type 20) for its button id, and sends its light's colour (type 12) to its light
// id. Flashing alternates black and the colour from a periodic task on the surface's task
// pool at half the flash interval.
//
// A rotary may also be claimed by one global target: a binding that follows the rotary
// whoever holds its handle, and that is asked to bind() whenever the holder lets go.
//
// Must be owned by a std::shared_ptr (make it with std::make_shared): it hands itself to
// the task pool, which holds it weakly, when flashing starts.
//
// Threads: safe from any thread (docs/threads.md): handle calls may come from one thread
// while messages and flash steps run on the model thread, the steps under the task pool's
// lock. One non-recursive mutex guards the flash fields (and the colour, the handle and the
// target pointers). It is never held while a signal is emitted, while the global target is
// called, or while the task pool is asked to schedule (the pool's lock is taken before ours
// while a step runs); only the outgoing queue, a leaf, is called under it. The rotary is
// made and destroyed on the model thread; its destruction cuts the handle off atomically.
class Rotary : public IRotary, public ITask, public std::enable_shared_from_this<Rotary>
{
public:
    Rotary(uint8_t rotaryDeviceId, uint8_t lightDeviceId, uint8_t buttonDeviceId,
           uint8_t sectionIndex, RotaryType type, std::shared_ptr<ISerialMessageSender> sender,
           std::shared_ptr<ITaskPool> taskPool);
    ~Rotary() override;

    Rotary(const Rotary&) = delete;
    Rotary& operator=(const Rotary&) = delete;

    bool handleMessage(const SerialMessage& message) override;
    bool takesMessage(const SerialMessage& message) const override;
    // After the link was lost (false) a flashing rotary sends its colour again; a steady
    // one sends nothing, and true sends nothing.
    void setLinkReady(bool ready) override;

    uint8_t rotaryDeviceId() const override;
    uint8_t sectionIndex() const override;
    RotaryType rotaryType() const override;
    bool touched() const override;
    bool pressed() const override;
    QColor color() const override;
    // Stores the colour and sends it at once, even when it is the stored one.
    void setColor(const QColor& color) override;
    bool flashEnabled() const override;
    void setFlashEnabled(bool enabled) override;
    int64_t flashInterval() const override;
    void setFlashInterval(int64_t intervalMs) override;
    // Detaches the handle given out before, if any (its light goes black), and stops the
    // flashing before giving out a new handle: the new binding starts from a steady light.
    std::shared_ptr<RotaryHandle> getHandle() override;
    // The light goes black (after 100 ms, so that a new binding's colour, sent at once,
    // replaces it). If the handle is the current one it is dropped and the global target,
    // if any, is asked to bind().
    void releaseHandle(RotaryHandle* handle) override;
    // Returns Refused when another target holds the rotary (and logs a warning),
    // StoredBound when stored while a handle is out, StoredUnbound otherwise. Null clears.
    int setGlobalTarget(IGlobalRotaryBindingTarget* target) override;

    // The flash step.
    void run() override;

    uint8_t lightDeviceId() const;
    uint8_t buttonDeviceId() const;
    // Whether the next flash step sends the colour (true) or black (false).
    bool flashPhase() const;

private:
    static constexpr int64_t kReleaseDelayMs = 100;

    // Cancels the running flash task; if the rotary should flash schedules a new one,
    // otherwise sends the colour so that the light is steady. Called with the mutex held
    // through `lock`; returns with it held, but releases it while it asks the task pool.
    void rescheduleFlash(std::unique_lock<std::mutex>& lock);
    void sendColor(const QColor& color, int64_t delayMs);
    std::shared_ptr<RotaryHandle> currentHandle() const;

    const uint8_t m_rotaryDeviceId;
    const uint8_t m_lightDeviceId;
    const uint8_t m_buttonDeviceId;
    const uint8_t m_sectionIndex;
    const RotaryType m_type;
    const std::shared_ptr<ISerialMessageSender> m_sender;

    std::atomic<bool> m_touched{false};
    std::atomic<bool> m_pressed{false};

    mutable std::mutex m_mutex;
    IGlobalRotaryBindingTarget* m_globalTarget = nullptr;
    std::shared_ptr<RotaryHandle> m_handle;
    QColor m_color{Qt::black};
    FlashSchedule m_flash;
};

}  // namespace Velmora::Worksurface
