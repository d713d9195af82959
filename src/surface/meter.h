#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "serial/iserialmessagesender.h"
#include "surface/imeter.h"

namespace Velmora::Worksurface {

// One of the master section's two level meters. The user-interface side gives level and
// peak as 0..255 on the binding's scale, whose useful range starts at 135; the meter sends
// each as one byte of the section's scale (level type 13, peak type 14), and only when that
// byte changes, so a steady signal costs no traffic on the serial line.
class Meter : public IMeter
{
public:
    Meter(uint8_t deviceId, uint8_t sectionIndex, MeterType type,
          std::shared_ptr<ISerialMessageSender> sender);
    ~Meter() override;

    Meter(const Meter&) = delete;
    Meter& operator=(const Meter&) = delete;

    uint8_t deviceId() const override;
    uint8_t sectionIndex() const override;
    MeterType meterType() const override;
    void setLevel(uint8_t level) override;
    void setPeak(uint8_t peak) override;
    // Detaches the handle given out before, if any, and gives out a new one.
    std::shared_ptr<MeterHandle> getHandle() override;
    // Drops the handle if it is the current one; the meter keeps showing what it showed.
    void releaseHandle(MeterHandle* handle) override;

    // The section's byte for a binding value: (value - 135) * 0.2 in single precision,
    // truncated toward zero, low 8 bits. Values below 135 give negative results that are
    // sent as their low byte (0 gives 0xE5); the binding never sends them.
    static uint8_t sectionByte(uint8_t value);

private:
    const uint8_t m_deviceId;
    const uint8_t m_sectionIndex;
    const MeterType m_type;
    const std::shared_ptr<ISerialMessageSender> m_sender;

    // Guards the last bytes sent and the handle pointer.
    mutable std::mutex m_mutex;
    // The section's meters start dark, which is byte 0.
    uint8_t m_lastLevel = 0;
    uint8_t m_lastPeak = 0;
    std::shared_ptr<MeterHandle> m_handle;
};

}  // namespace Velmora::Worksurface
