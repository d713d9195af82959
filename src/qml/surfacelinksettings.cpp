#include "qml/surfacelinksettings.h"

#include <utility>

#include "base/isettings.h"

SurfaceLinkSettings::SurfaceLinkSettings(std::shared_ptr<Velmora::Worksurface::ISettings> settings,
                                         QObject* parent)
    : QObject(parent), m_linkSettings(std::move(settings))
{}

int SurfaceLinkSettings::reconnectInterval() const
{
    return m_linkSettings ? m_linkSettings->reconnectInterval() : 0;
}

void SurfaceLinkSettings::setReconnectInterval(int intervalMs)
{
    if (!m_linkSettings) {
        return;
    }
    const int previous = m_linkSettings->reconnectInterval();
    m_linkSettings->setReconnectInterval(intervalMs);
    if (m_linkSettings->reconnectInterval() != previous) {
        emit reconnectIntervalChanged();
    }
}
