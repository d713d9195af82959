#pragma once

#include <QObject>
#include <memory>

namespace Velmora::Worksurface {
class ISettings;
}

// The link part of Surface.settings: whether and how often the sections' links come back
// by themselves. Like the rest of the settings it keeps no value of its own: it reads and
// writes the shared settings, which every link's supervision reads on each pass, so a
// change applies to the running links at once.
//
// A base of SurfaceSettings, so that SurfaceSettings' own properties and signals stay the
// ones it has always declared, in their order.
class SurfaceLinkSettings : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int reconnectInterval READ reconnectInterval WRITE setReconnectInterval NOTIFY
                   reconnectIntervalChanged)

public:
    explicit SurfaceLinkSettings(std::shared_ptr<Velmora::Worksurface::ISettings> settings,
                                 QObject* parent = nullptr);

    // In milliseconds; 0 (the default): a link does not come back by itself.
    int reconnectInterval() const;
    // Negative values are taken as 0.
    void setReconnectInterval(int intervalMs);

signals:
    void reconnectIntervalChanged();

private:
    std::shared_ptr<Velmora::Worksurface::ISettings> m_linkSettings;
};
