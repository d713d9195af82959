#include "surface/buttonhandle.h"

#include <utility>

#include "surface/ibutton.h"

namespace Velmora::Worksurface {

ButtonHandle::ButtonHandle(IButton* button, QObject* parent) : QObject(parent), m_button(button) {}

ButtonHandle::~ButtonHandle() = default;

IButton* ButtonHandle::button() const
{
    return m_button;
}

bool ButtonHandle::standsFor(uint8_t sectionIndex, uint8_t deviceId) const
{
    const auto* target = m_button.load();
    return target != nullptr && target->sectionIndex() == sectionIndex &&
           target->deviceId() == deviceId;
}

void ButtonHandle::detach()
{
    // Cleared before the release so that a second detach reached from inside the release
    // cannot release twice.
    if (auto* button = m_button.exchange(nullptr)) {
        button->releaseHandle(this);
    }
}

}  // namespace Velmora::Worksurface
