#include "qml/surfacetracesaver.h"

#include <utility>
#include <vector>

#include "base/isettings.h"
#include "base/logger.h"
#include "bindings/surfaceconnection.h"
#include "serial/isectionconnection.h"
#include "surface/isurface.h"
#include "surface/tracefile.h"

using Velmora::Worksurface::ISectionConnection;
using Velmora::Worksurface::TraceFile;

void SurfaceTraceSaver::setTraceSources(
    SurfaceConnection* connection, std::shared_ptr<const Velmora::Worksurface::ISettings> settings,
    std::shared_ptr<Velmora::Worksurface::Logger> logger)
{
    m_connection = connection;
    m_settings = std::move(settings);
    m_logger = std::move(logger);
}

bool SurfaceTraceSaver::saveSectionTrace(const QString& path, int section)
{
    std::vector<std::shared_ptr<ISectionConnection>> links;
    if (Velmora::Worksurface::ISurface* current = m_connection->surface()) {
        for (const auto& link : current->sectionLinks()) {
            if (link && (section < 0 || link->sectionIndex() == section)) {
                links.push_back(link);
            }
        }
    }
    if (links.empty()) {
        m_logger->warning(
            QStringLiteral("Cannot save the trace to %1: %2")
                .arg(path, section < 0 ? QStringLiteral("no surface")
                                       : QStringLiteral("no link for section %1").arg(section)));
        return false;
    }
    // The rings are copied now; the file is written on the trace writer thread, which logs
    // a failure it meets there.
    const QString why =
        TraceFile::saveInBackground(path, TraceFile::header(*m_settings, links), links, m_logger);
    if (!why.isEmpty()) {
        m_logger->warning(QStringLiteral("Cannot save the trace to %1: %2").arg(path, why));
        return false;
    }
    return true;
}
