#include "bindings/surfaceconnection.h"

#include "serial/isoftwarecontrollerconnection.h"
#include "surface/isurface.h"

using namespace Velmora::Worksurface;

SurfaceConnection::SurfaceConnection(
    std::shared_ptr<ISoftwareControllerConnection> controllerConnection, QObject* parent)
    : QObject(parent), m_controllerConnection(std::move(controllerConnection))
{}

SurfaceConnection::~SurfaceConnection() = default;

ISurface* SurfaceConnection::surface() const
{
    return m_surface.get();
}

std::shared_ptr<ISoftwareControllerConnection> SurfaceConnection::controllerConnection() const
{
    return m_controllerConnection;
}

void SurfaceConnection::installSurface(std::shared_ptr<ISurface> surface)
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
