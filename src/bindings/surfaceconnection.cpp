#include "bindings/surfaceconnection.h"

#include "serial/isoftwarecontrollerconnection.h"
#include "surface/isurface.h"

SurfaceConnection::SurfaceConnection(
    std::shared_ptr<Velmora::Worksurface::ISoftwareControllerConnection> controllerConnection,
    QObject* parent)
    : QObject(parent), m_controllerConnection(std::move(controllerConnection))
{}

SurfaceConnection::~SurfaceConnection() = default;

Velmora::Worksurface::ISurface* SurfaceConnection::surface() const
{
    return m_surface.get();
}

std::shared_ptr<Velmora::Worksurface::ISoftwareControllerConnection>
SurfaceConnection::controllerConnection() const
{
    return m_controllerConnection;
}

void SurfaceConnection::installSurface(std::shared_ptr<Velmora::Worksurface::ISurface> surface)
{
    if (!surface) {
        return;
    }
    // The old surface is released before the new one is announced, so no binding can
    // look a control up in it any more.
    m_surface.reset();
    m_surface = std::move(surface);
    emit surfaceChanged();
}
