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

int SurfaceLinkSettings::traceCapacity() const
{
    return m_linkSettings ? m_linkSettings->traceCapacity() : 0;
}

void SurfaceLinkSettings::setTraceCapacity(int capacity)
{
    if (!m_linkSettings) {
        return;
    }
    const int previous = m_linkSettings->traceCapacity();
    m_linkSettings->setTraceCapacity(capacity);
    if (m_linkSettings->traceCapacity() != previous) {
        emit traceCapacityChanged();
    }
}

QString SurfaceLinkSettings::traceDirectory() const
{
    return m_linkSettings ? m_linkSettings->traceDirectory() : QString();
}

void SurfaceLinkSettings::setTraceDirectory(const QString& directory)
{
    if (!m_linkSettings || m_linkSettings->traceDirectory() == directory) {
        return;
    }
    m_linkSettings->setTraceDirectory(directory);
    emit traceDirectoryChanged();
}

bool SurfaceLinkSettings::linkThread() const
{
    return m_linkSettings && m_linkSettings->linkThread();
}

void SurfaceLinkSettings::setLinkThread(bool enabled)
{
    if (!m_linkSettings || m_linkSettings->linkThread() == enabled) {
        return;
    }
    m_linkSettings->setLinkThread(enabled);
    emit linkThreadChanged();
}

int SurfaceLinkSettings::updateTimeout() const
{
    return m_linkSettings ? m_linkSettings->updateTimeout() : 0;
}

void SurfaceLinkSettings::setUpdateTimeout(int timeoutMs)
{
    if (!m_linkSettings) {
        return;
    }
    const int previous = m_linkSettings->updateTimeout();
    m_linkSettings->setUpdateTimeout(timeoutMs);
    if (m_linkSettings->updateTimeout() != previous) {
        emit updateTimeoutChanged();
    }
}
