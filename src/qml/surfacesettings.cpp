#include "qml/surfacesettings.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <utility>

#include "base/isettings.h"
#include "base/logcategories.h"

using namespace Velmora::Worksurface;

SurfaceSettings::SurfaceSettings(std::shared_ptr<ISettings> settings, QObject* parent)
    : SurfaceLinkSettings(settings, parent), m_settings(std::move(settings))
{}

SurfaceSettings::SurfaceType SurfaceSettings::type() const
{
    return static_cast<SurfaceType>(m_settings->type());
}

void SurfaceSettings::setType(SurfaceType type)
{
    // Compared as stored: the settings keep 8 bits.
    const auto stored = static_cast<uint8_t>(type);
    if (stored == m_settings->type()) {
        return;
    }
    m_settings->setType(stored);
    emit typeChanged();
}

SurfaceSettings::SurfaceMode SurfaceSettings::mode() const
{
    return static_cast<SurfaceMode>(m_settings->mode());
}

void SurfaceSettings::setMode(SurfaceMode mode)
{
    const auto stored = static_cast<uint8_t>(mode);
    if (stored == m_settings->mode()) {
        return;
    }
    m_settings->setMode(stored);
    // The model decides where the master sits and how many sections there are.
    emit modeChanged();
    emit masterSectionIndexChanged();
    emit sectionCountChanged();
}

bool SurfaceSettings::debugEnabled() const
{
    return m_settings->debugEnabled();
}

void SurfaceSettings::setDebugEnabled(bool enabled)
{
    if (enabled == m_settings->debugEnabled()) {
        return;
    }
    m_settings->setDebugEnabled(enabled);
    emit debugEnabledChanged();
}

uint8_t SurfaceSettings::masterSectionIndex() const
{
    return m_settings->masterSectionIndex();
}

uint8_t SurfaceSettings::masterStripCount() const
{
    return m_settings->masterStripCount();
}

uint8_t SurfaceSettings::sectionCount() const
{
    return m_settings->sectionCount();
}

uint8_t SurfaceSettings::stripCount() const
{
    return m_settings->stripCount();
}

void SurfaceSettings::enumerateUpdatePaths()
{
    // Asked for explicitly from QML while looking into a failed update, so it is written
    // whatever the debug switch says. The path is quoted and escaped the way the logging
    // stream does it, so stray blanks or odd characters in it show.
    const QString paths[] = {QDir::homePath() + QLatin1String("/.firmware/worksurface.bin"),
                             QStringLiteral(":/firmware/worksurface.bin")};
    for (const QString& path : paths) {
        qCDebug(lcService) << "Path:" << path << "--> Exists:" << QFileInfo::exists(path);
    }
}
