#pragma once

#include <QObject>
#include <QQmlParserStatus>
#include <QThread>
#include <array>
#include <cstdint>
#include <memory>

#include "base/isectioninfoprovider.h"
#include "bindings/surfaceconnection.h"
#include "qml/fadersettings.h"
#include "qml/sectioninfomodel.h"
#include "qml/surfacesettings.h"
#include "qml/surfacetracesaver.h"
#include "serial/linkruntime.h"

class QJSEngine;
class QQmlEngine;

namespace Velmora::Worksurface {
class ISettings;
class Logger;
class QmlControllerConnection;
class TaskPool;
}  // namespace Velmora::Worksurface

// The QML singleton `Surface`: the one object through which QML configures, starts and
// observes the worksurface. Nothing talks to the sections before QML calls connect(). The
// built surface is handed to `connection`, which owns it and tells the bindings. The thread
// story is in docs/architecture.md, the steps of connect() and of teardown in
// docs/surface-service.md.
class WorksurfaceFunctions : public SurfaceTraceSaver,
                             public QQmlParserStatus,
                             public Velmora::Worksurface::ISectionInfoProvider
{
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)
    Q_CLASSINFO("QML.Element", "Surface")
    Q_CLASSINFO("QML.Singleton", "true")
    Q_PROPERTY(SurfaceSettings* settings READ settings CONSTANT)
    Q_PROPERTY(int buildNumber READ buildNumber CONSTANT)
    Q_PROPERTY(int masterSectionIndex READ masterSectionIndex NOTIFY masterSectionIndexChanged)
    Q_PROPERTY(int sectionCount READ sectionCount NOTIFY sectionCountChanged)
    Q_PROPERTY(int sectionStripCount READ sectionStripCount NOTIFY sectionStripCountChanged)
    Q_PROPERTY(bool isCalibrating READ isCalibrating NOTIFY isCalibratingChanged)
    Q_PROPERTY(FaderSettings* faders READ faders)
    Q_PROPERTY(SurfaceConnection* connection READ connection CONSTANT)

public:
    static constexpr int kThreadStopTimeoutMs =
        Velmora::Worksurface::LinkRuntime::kThreadStopTimeoutMs;
    // Set to "1", puts the links on the surface thread like settings.linkThread; read at
    // connect().
    static constexpr const char* kLinkThreadVariable = "TARVIX_WORKSURFACE_LINK_THREAD";

    WorksurfaceFunctions();
    ~WorksurfaceFunctions() override;
    WorksurfaceFunctions(const WorksurfaceFunctions&) = delete;
    WorksurfaceFunctions& operator=(const WorksurfaceFunctions&) = delete;

    // For the QML engine, which takes ownership of the one instance it gets.
    static QObject* singletonProvider(QQmlEngine* engine, QJSEngine* scriptEngine);

    void classBegin() override {}
    void componentComplete() override {}

    // Null when the index, read as unsigned, is above 2 (so negative indices too).
    Q_INVOKABLE SectionInfoModel* section(int index) const;
    // Stops the surface thread if it runs and starts it again; the surface is (re)built
    // once the thread's start arrives back on this thread.
    Q_INVOKABLE void connect();
    Q_INVOKABLE void calibrate();

    SurfaceSettings* settings() const { return m_surfaceSettings; }
    int buildNumber() const { return 0; }
    int masterSectionIndex() const;
    int sectionCount() const;
    int sectionStripCount() const;
    bool isCalibrating() const;
    FaderSettings* faders() const { return m_faderSettings; }
    SurfaceConnection* connection() const { return m_connection; }

    // ISectionInfoProvider: the models for sections 0 to 2, null beyond.
    Velmora::Worksurface::ISectionInfo* getForSection(uint8_t section) override;

    // For diagnostics and tests; not part of the QML interface.
    const QThread& surfaceThread() const;
    std::shared_ptr<Velmora::Worksurface::TaskPool> taskPool() const { return m_taskPool; }
    // The links' own pool, on the surface thread; null while the links run on this thread.
    std::shared_ptr<Velmora::Worksurface::TaskPool> linkTaskPool() const;
    // The surface thread and the links' side of it.
    Velmora::Worksurface::LinkRuntime& linkRuntime() { return *m_linkRuntime; }
    // Whether the surface built last runs its links on the surface thread.
    bool linksOnSurfaceThread() const;
    std::shared_ptr<Velmora::Worksurface::QmlControllerConnection> controllerConnection() const
    {
        return m_controllerConnection;
    }

signals:
    void masterSectionIndexChanged();
    void sectionCountChanged();
    // Declared for QML; the strip count never changes.
    void sectionStripCountChanged();
    void isCalibratingChanged();
    void startCalibration();

private slots:
    void onStartSurfaceThread();
    void onStopSurfaceThread();
    void setFaderRestMode();

private:
    // Whether connect() puts the links on the surface thread: the setting or the variable.
    bool linksGoOnSurfaceThread() const;
    // Every section model back to "no link yet", before a new surface is built.
    void resetSectionLinks();

    // The surface thread, and the links' side of it.
    std::unique_ptr<Velmora::Worksurface::LinkRuntime> m_linkRuntime;
    std::shared_ptr<Velmora::Worksurface::ISettings> m_settings;
    std::shared_ptr<Velmora::Worksurface::TaskPool> m_taskPool;
    std::shared_ptr<Velmora::Worksurface::QmlControllerConnection> m_controllerConnection;
    std::shared_ptr<Velmora::Worksurface::Logger> m_logger;
    SurfaceSettings* m_surfaceSettings = nullptr;
    SurfaceConnection* m_connection = nullptr;
    std::array<SectionInfoModel*, 3> m_sectionInfos{};
    FaderSettings* m_faderSettings = nullptr;
};
