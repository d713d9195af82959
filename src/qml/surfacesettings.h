#pragma once

#include <QObject>
#include <cstdint>
#include <memory>

#include "base/isettings.h"
#include "qml/surfacelinksettings.h"

// Surface.settings: the QML face of the worksurface configuration. It keeps no value of
// its own; every read and write goes to the shared settings the core reads, so a change is
// seen by the core at once (the running surface is rebuilt only by the next connect()).
// reconnectInterval comes from SurfaceLinkSettings.
class SurfaceSettings : public SurfaceLinkSettings
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "SurfaceSettings")
    Q_CLASSINFO("QML.Creatable", "false")
    Q_CLASSINFO("QML.UncreatableReason", "Can't create SurfaceSettings from qml")
    Q_PROPERTY(SurfaceType type READ type WRITE setType NOTIFY typeChanged)
    Q_PROPERTY(SurfaceMode mode READ mode WRITE setMode NOTIFY modeChanged)
    Q_PROPERTY(bool debugEnabled READ debugEnabled WRITE setDebugEnabled NOTIFY debugEnabledChanged)

public:
    // Whether the sections are real hardware on serial lines or simulated by a QML scene.
    // The fixed underlying type keeps any number QML or the core stores a valid value.
    enum SurfaceType : int
    {
        Hardware = 0,
        Software = 1
    };
    Q_ENUM(SurfaceType)

    // The console model, which fixes the sections, the master and the serial devices.
    enum SurfaceMode : int
    {
        Unknown = 0,
        K40 = 1,
        K60 = 2
    };
    Q_ENUM(SurfaceMode)

    SurfaceSettings(std::shared_ptr<Velmora::Worksurface::ISettings> settings,
                    QObject* parent = nullptr);

    SurfaceType type() const;
    void setType(SurfaceType type);
    SurfaceMode mode() const;
    void setMode(SurfaceMode mode);
    bool debugEnabled() const;
    void setDebugEnabled(bool enabled);

    // For the core and the bindings; not properties.
    uint8_t masterSectionIndex() const;
    uint8_t masterStripCount() const;
    uint8_t sectionCount() const;
    uint8_t stripCount() const;

    // Logs where the firmware image is looked for and whether it is there, home folder
    // first, then the application's resources.
    Q_INVOKABLE void enumerateUpdatePaths();

signals:
    void typeChanged();
    void modeChanged();
    void masterSectionIndexChanged();
    void sectionCountChanged();
    void debugEnabledChanged();

private:
    std::shared_ptr<Velmora::Worksurface::ISettings> m_settings;
};

static_assert(int(SurfaceSettings::Hardware) == int(Velmora::Worksurface::SurfaceType::Hardware) &&
                  int(SurfaceSettings::Software) ==
                      int(Velmora::Worksurface::SurfaceType::Software),
              "the QML surface types mirror the core ones");
static_assert(int(SurfaceSettings::Unknown) == int(Velmora::Worksurface::SurfaceMode::Unknown) &&
                  int(SurfaceSettings::K40) == int(Velmora::Worksurface::SurfaceMode::K40) &&
                  int(SurfaceSettings::K60) == int(Velmora::Worksurface::SurfaceMode::K60),
              "the QML console models mirror the core ones");
