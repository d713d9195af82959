#pragma once

#include <QColor>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "serial/iserialmessagesender.h"
#include "surface/ipot.h"
#include "tasks/itask.h"
#include "tasks/itaskhandle.h"
#include "tasks/itaskpool.h"

namespace Velmora::Worksurface {

// The master section's headphone pot: an absolute potentiometer with an RGB light. The
// section reports the pot only when it moves, so after start-up the pot asks for its
// value (type 17 to device 0, which the section answers for its one pot) once a second
// until the first report (type 17 with the pot's id) arrives. The light's colour goes out
// as type 12 to the light id.
//
// Must be owned by a std::shared_ptr (make it with std::make_shared): it hands itself to
// the task pool, which holds it weakly, in startValueRequests().
class Pot : public IPot, public ITask, public std::enable_shared_from_this<Pot>
{
public:
    static constexpr uint64_t kValueRequestIntervalMs = 1000;

    Pot(uint8_t potDeviceId, uint8_t lightDeviceId, uint8_t sectionIndex, PotType type,
        std::shared_ptr<ISerialMessageSender> sender, std::shared_ptr<ITaskPool> taskPool);
    ~Pot() override;

    Pot(const Pot&) = delete;
    Pot& operator=(const Pot&) = delete;

    // Called once by the component factory after making the pot: schedules the value
    // request as a periodic task on the task pool every kValueRequestIntervalMs and keeps
    // its handle (weakly), so that the first value report can cancel it. A second call
    // replaces the running request task with a new one.
    void startValueRequests();

    // Type 17 with the pot's id: the value (big-endian, clamped to 511; a short payload
    // keeps the stored value) is stored and passed to the handle, and the requests stop.
    bool handleMessage(const SerialMessage& message) override;
    bool takesMessage(const SerialMessage& message) const override;
    // After the link was lost (false) the colour is sent again at once; true sends nothing.
    void setLinkReady(bool ready) override;

    uint8_t potDeviceId() const override;
    uint8_t sectionIndex() const override;
    PotType potType() const override;
    uint16_t value() const override;
    // Stores the colour and sends it at once, even when it is the stored one.
    void setColor(const QColor& color) override;
    // Detaches the handle given out before, if any, and gives out a new one.
    std::shared_ptr<PotHandle> getHandle() override;
    // Drops the handle if it is the current one; in every case the light turns black (sent
    // after 100 ms, so that a new binding's colour, sent at once, replaces it).
    void releaseHandle(PotHandle* handle) override;

    // The value request.
    void run() override;

    uint8_t lightDeviceId() const;
    QColor color() const;

private:
    static constexpr uint16_t kMaxValue = 511;
    static constexpr int64_t kReleaseDelayMs = 100;

    void sendColor(const QColor& color, int64_t delayMs);
    std::shared_ptr<PotHandle> currentHandle() const;

    const uint8_t m_potDeviceId;
    const uint8_t m_lightDeviceId;
    const uint8_t m_sectionIndex;
    const PotType m_type;
    const std::shared_ptr<ISerialMessageSender> m_sender;
    const std::shared_ptr<ITaskPool> m_taskPool;

    std::atomic<uint16_t> m_value{0};

    // Guards the colour, the handle and the request task pointers; never held while a
    // signal is emitted or the task pool is asked to schedule.
    mutable std::mutex m_mutex;
    std::shared_ptr<PotHandle> m_handle;
    QColor m_color{Qt::black};
    std::weak_ptr<ITaskHandle> m_requestTask;
};

}  // namespace Velmora::Worksurface
