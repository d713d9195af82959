#pragma once

#include <QByteArray>
#include <QList>
#include <functional>
#include <utility>

#include "updater/isectionupdater.h"
#include "updater/isectionupdaterlistener.h"

// Stands in for a section's firmware updater: the test says whether it is in a bootloader
// exchange (active), waiting for the answer to its probe (probing) and writing an image
// (updating); it records the listener it was
// started with and every chunk of bytes the link handed it. Changing the flags does not
// notify; call notifyStateChanged() to play the updater reporting its new state.
class FakeSectionUpdater : public Velmora::Worksurface::ISectionUpdater
{
public:
    bool isActive() const override { return m_active; }
    bool isUpdating() const override { return m_updating; }
    bool isProbing() const override { return m_probing; }

    void start(Velmora::Worksurface::ISectionUpdaterListener* listener) override
    {
        m_listener = listener;
        ++m_startCount;
        if (m_onStart) {
            m_onStart(listener);
        }
    }

    void dataReceived(const QByteArray& data) override { m_chunks.append(data); }

    void setActive(bool active) { m_active = active; }
    void setUpdating(bool updating) { m_updating = updating; }
    // Whether its start-up probe is out and unanswered (false by default).
    void setProbing(bool probing) { m_probing = probing; }
    // Runs inside start(), after the listener is stored (to play an updater that sends its
    // first packet or reports a state change at once).
    void setOnStart(std::function<void(Velmora::Worksurface::ISectionUpdaterListener*)> onStart)
    {
        m_onStart = std::move(onStart);
    }

    // Calls the stored listener's updaterStateChanged(); false when never started.
    bool notifyStateChanged()
    {
        if (!m_listener) {
            return false;
        }
        m_listener->updaterStateChanged();
        return true;
    }

    Velmora::Worksurface::ISectionUpdaterListener* listener() const { return m_listener; }
    int startCount() const { return m_startCount; }
    const QList<QByteArray>& chunks() const { return m_chunks; }
    QByteArray receivedBytes() const
    {
        QByteArray all;
        for (const QByteArray& chunk : m_chunks) {
            all.append(chunk);
        }
        return all;
    }
    void clearReceived() { m_chunks.clear(); }

private:
    bool m_active = false;
    bool m_updating = false;
    bool m_probing = false;
    Velmora::Worksurface::ISectionUpdaterListener* m_listener = nullptr;
    int m_startCount = 0;
    std::function<void(Velmora::Worksurface::ISectionUpdaterListener*)> m_onStart;
    QList<QByteArray> m_chunks;
};
