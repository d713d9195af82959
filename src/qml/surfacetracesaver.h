#pragma once

#include <QObject>
#include <QString>
#include <memory>

class SurfaceConnection;

namespace Velmora::Worksurface {
class ISettings;
class Logger;
}  // namespace Velmora::Worksurface

// Saving the sections' flight recorders from QML: Surface.saveTrace(path) writes every
// section's recent traffic and link events, merged in time order, to one trace file, and
// Surface.section(i).saveTrace(path) one section's.
//
// A base of the Surface singleton, so that the singleton's own methods stay the ones it has
// always declared, in their order. It reads the links of the surface that `connection`
// holds, and needs nothing else of the singleton.
class SurfaceTraceSaver : public QObject
{
    Q_OBJECT

public:
    explicit SurfaceTraceSaver(QObject* parent = nullptr) : QObject(parent) {}

    // True once the file is written; false, with one warning naming the reason, when it
    // cannot be written or there is no surface.
    Q_INVOKABLE bool saveTrace(const QString& path) { return saveSectionTrace(path, -1); }
    // The same for one section, or for every section with -1.
    bool saveSectionTrace(const QString& path, int section);

protected:
    // What saving reads: set once, by the singleton's constructor.
    void setTraceSources(SurfaceConnection* connection,
                         std::shared_ptr<const Velmora::Worksurface::ISettings> settings,
                         std::shared_ptr<Velmora::Worksurface::Logger> logger);

private:
    SurfaceConnection* m_connection = nullptr;
    std::shared_ptr<const Velmora::Worksurface::ISettings> m_settings;
    std::shared_ptr<Velmora::Worksurface::Logger> m_logger;
};
