#include "surface/faderhandle.h"

#include <utility>

#include <QMetaObject>
#include <QPointer>

#include "surface/ifader.h"

FaderHandle::FaderHandle(Velmora::Worksurface::IFader* fader, QObject* parent)
    : QObject(parent), m_fader(fader)
{}

FaderHandle::~FaderHandle() = default;

Velmora::Worksurface::IFader* FaderHandle::fader() const
{
    return m_fader;
}

void FaderHandle::detach()
{
    // Cleared before the release so that a second detach reached from inside the release
    // cannot release twice.
    if (auto* fader = std::exchange(m_fader, nullptr)) {
        fader->releaseHandle(this);
    }
}

bool FaderHandle::touched() const
{
    return m_fader != nullptr && m_fader->touched();
}

bool FaderHandle::standsFor(uint8_t sectionIndex, uint8_t deviceId) const
{
    return m_fader != nullptr && m_fader->sectionIndex() == sectionIndex &&
           m_fader->deviceId() == deviceId;
}

void FaderHandle::setMode(int32_t mode)
{
    if (m_fader == nullptr) {
        return;
    }
    auto* context = dynamic_cast<QObject*>(m_fader);
    if (context == nullptr) {
        m_fader->setDriveMode(mode);
        return;
    }
    // Posted to the fader like the internal signals, so a mode set between two of them
    // reaches the fader between them. (The functor form of invokeMethod needs Qt 5.10; a
    // signal cannot be added for it without changing the handle's QML-facing signals.)
    QPointer<FaderHandle> self(this);
    QMetaObject::invokeMethod(
        context,
        [self, mode]() {
            if (self && self->m_fader != nullptr) {
                self->m_fader->setDriveMode(mode);
            }
        },
        Qt::QueuedConnection);
}

void FaderHandle::release()
{
    if (m_fader == nullptr) {
        return;
    }
    Velmora::Worksurface::IFader* fader = m_fader;
    fader->releaseHandle(this);
    m_fader = nullptr;
}
