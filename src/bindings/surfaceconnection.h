#pragma once

#include <QObject>
#include <memory>

namespace Velmora::Worksurface {
class ISurface;
class ISoftwareControllerConnection;
}  // namespace Velmora::Worksurface

// The QML-visible token for the running surface (`Surface.connection`). Bindings watch it
// and look their controls up again whenever the surface service installs a new surface.
// It owns the surface it was given.
class SurfaceConnection : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "SurfaceConnection")
    Q_CLASSINFO("QML.Creatable", "false")
    Q_CLASSINFO("QML.UncreatableReason", "Can't create SurfaceConnection from qml")

public:
    SurfaceConnection(
        std::shared_ptr<Velmora::Worksurface::ISoftwareControllerConnection> controllerConnection,
        QObject* parent);
    ~SurfaceConnection() override;

    Velmora::Worksurface::ISurface* surface() const;
    std::shared_ptr<Velmora::Worksurface::ISoftwareControllerConnection> controllerConnection()
        const;

    // Takes the built surface and tells every binding; the previous surface goes. A null
    // surface changes nothing.
    void installSurface(std::shared_ptr<Velmora::Worksurface::ISurface> surface);

signals:
    void surfaceChanged();

private:
    std::shared_ptr<Velmora::Worksurface::ISurface> m_surface;
    const std::shared_ptr<Velmora::Worksurface::ISoftwareControllerConnection>
        m_controllerConnection;
};
