#pragma once

#include <QObject>
#include <QString>
#include <memory>

namespace Velmora::Worksurface {
class ISettings;
}

// The link part of Surface.settings: whether and how often the sections' links come back
// by themselves, how long an update waits for a silent bootloader, and what their flight
// recorders keep and where a failing link saves it. Like the
// rest of the settings it keeps no value of its own: it reads and writes the shared settings, which
// every link's supervision reads on each pass, so a change applies to the running links at once.
//
// A base of SurfaceSettings, so that SurfaceSettings' own properties and signals stay the
// ones it has always declared, in their order.
class SurfaceLinkSettings : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int reconnectInterval READ reconnectInterval WRITE setReconnectInterval NOTIFY
                   reconnectIntervalChanged)
    Q_PROPERTY(
        int traceCapacity READ traceCapacity WRITE setTraceCapacity NOTIFY traceCapacityChanged)
    Q_PROPERTY(QString traceDirectory READ traceDirectory WRITE setTraceDirectory NOTIFY
                   traceDirectoryChanged)
    Q_PROPERTY(bool linkThread READ linkThread WRITE setLinkThread NOTIFY linkThreadChanged)
    Q_PROPERTY(
        int updateTimeout READ updateTimeout WRITE setUpdateTimeout NOTIFY updateTimeoutChanged)

public:
    explicit SurfaceLinkSettings(std::shared_ptr<Velmora::Worksurface::ISettings> settings,
                                 QObject* parent = nullptr);

    // In milliseconds; 0 (the default): a link does not come back by itself.
    int reconnectInterval() const;
    // Negative values are taken as 0.
    void setReconnectInterval(int intervalMs);
    // Entries each section's flight recorder keeps, read at connect(); 4,096 by default,
    // 0 records nothing. Negative values are taken as 0.
    int traceCapacity() const;
    void setTraceCapacity(int capacity);
    // The folder where a failing link saves its trace by itself, read at connect(); empty
    // (the default): none is saved. TARVIX_WORKSURFACE_TRACE_DIR, when set, takes its place.
    QString traceDirectory() const;
    void setTraceDirectory(const QString& directory);
    // Whether the sections' links run on the surface thread, "WorksurfaceThread", instead of
    // the QML thread, read at connect(); false by default. TARVIX_WORKSURFACE_LINK_THREAD=1
    // turns it on as well (docs/threads.md).
    bool linkThread() const;
    void setLinkThread(bool enabled);
    // In milliseconds; 0 (the default): an update waits for its bootloader for ever. Above 0
    // an update whose bootloader sends nothing for that long fails with reason 3 and the link
    // starts it over. Read when an update begins. Negative values are taken as 0.
    int updateTimeout() const;
    void setUpdateTimeout(int timeoutMs);

signals:
    void reconnectIntervalChanged();
    void traceCapacityChanged();
    void traceDirectoryChanged();
    void linkThreadChanged();
    void updateTimeoutChanged();

private:
    std::shared_ptr<Velmora::Worksurface::ISettings> m_linkSettings;
};
