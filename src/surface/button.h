#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "surface/ibutton.h"

namespace Velmora::Worksurface {

// One push switch of a section (mute, solo, the master section's snapshot, layer, spill-set
// and overview switches). It takes the section's button messages (type 20) for its device
// id and passes changes of state to its handle; it sends nothing.
class Button : public IButton
{
public:
    Button(uint8_t deviceId, uint8_t sectionIndex, ButtonType type);
    ~Button() override;

    Button(const Button&) = delete;
    Button& operator=(const Button&) = delete;

    // Type 20 for this device id: a nonzero first byte is pressed. The section may repeat a
    // state; only a change reaches the handle, but the message is taken either way.
    bool handleMessage(const SerialMessage& message) override;
    bool takesMessage(const SerialMessage& message) const override;
    // A switch has no state to send to the section.
    void setLinkReady(bool ready) override;

    uint8_t deviceId() const override;
    uint8_t sectionIndex() const override;
    ButtonType buttonType() const override;
    // Detaches the handle given out before, if any, and gives out a new one.
    std::shared_ptr<ButtonHandle> getHandle() override;
    // Called by a handle's detach(): drops the handle if it is the current one.
    void releaseHandle(ButtonHandle* handle) override;

    // The last state the section reported.
    bool pressed() const;

private:
    std::shared_ptr<ButtonHandle> currentHandle() const;

    const uint8_t m_deviceId;
    const uint8_t m_sectionIndex;
    const ButtonType m_type;
    std::atomic<bool> m_pressed{false};
    // Guards the handle pointer only; never held while a signal is emitted.
    mutable std::mutex m_mutex;
    std::shared_ptr<ButtonHandle> m_handle;
};

}  // namespace Velmora::Worksurface
