#include "surface/button.h"

#include <utility>

#include "surface/buttonhandle.h"
#include "surface/handleownership.h"

namespace Velmora::Worksurface {

Button::Button(uint8_t deviceId, uint8_t sectionIndex, ButtonType type)
    : m_deviceId(deviceId), m_sectionIndex(sectionIndex), m_type(type)
{}

Button::~Button()
{
    // A binding may still hold the handle for a moment; it must not reach a dead button.
    std::shared_ptr<ButtonHandle> handle;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        handle = m_handle;
    }
    if (handle) {
        handle->m_button.store(nullptr);
    }
}

bool Button::takesMessage(const SerialMessage& message) const
{
    return message.type == MessageType::ButtonState && message.deviceId == m_deviceId;
}

bool Button::handleMessage(const SerialMessage& message)
{
    if (!takesMessage(message)) {
        return false;
    }
    const bool wasPressed = m_pressed.load();
    const bool pressed = message.boolAt(0, wasPressed);
    if (pressed == wasPressed) {
        return true;
    }
    m_pressed.store(pressed);
    if (const std::shared_ptr<ButtonHandle> handle = currentHandle()) {
        if (pressed) {
            emit handle->buttonPressed();
        } else {
            emit handle->buttonReleased();
        }
    }
    return true;
}

void Button::setLinkReady(bool /*ready*/) {}

uint8_t Button::deviceId() const
{
    return m_deviceId;
}

uint8_t Button::sectionIndex() const
{
    return m_sectionIndex;
}

ButtonType Button::buttonType() const
{
    return m_type;
}

std::shared_ptr<ButtonHandle> Button::getHandle()
{
    detachCurrentHandle(m_mutex, m_handle);
    std::shared_ptr<ButtonHandle> handle = makeHandle<ButtonHandle>(this);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handle = handle;
    return handle;
}

void Button::releaseHandle(ButtonHandle* handle)
{
    std::shared_ptr<ButtonHandle> released;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_handle.get() == handle) {
        released = std::move(m_handle);
    }
}

bool Button::pressed() const
{
    return m_pressed.load();
}

std::shared_ptr<ButtonHandle> Button::currentHandle() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_handle;
}

}  // namespace Velmora::Worksurface
