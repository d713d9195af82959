#include "bindings/globalsurfacebinding.h"

#include "surface/isurface.h"

using namespace Velmora::Worksurface;

GlobalSurfaceBinding::GlobalSurfaceBinding(QObject* parent) : QObject(parent) {}

GlobalSurfaceBinding::~GlobalSurfaceBinding() = default;

SurfaceConnection* GlobalSurfaceBinding::connection() const
{
    return m_connection.data();
}

void GlobalSurfaceBinding::setConnection(SurfaceConnection* connection)
{
    QObject::disconnect(m_surfaceChangedLink);
    m_connection = connection;
    if (connection == nullptr) {
        return;
    }
    m_surfaceChangedLink = QObject::connect(connection, &SurfaceConnection::surfaceChanged, this,
                                            &GlobalSurfaceBinding::resendValuesToSurface);
    resendValuesToSurface();
}

void GlobalSurfaceBinding::setSurfaceBrightness(int brightness)
{
    // One byte on the link: larger values, and negative ones, are not brightnesses.
    if (static_cast<unsigned>(brightness) > 255 || brightness == m_surfaceBrightness) {
        return;
    }
    m_surfaceBrightness = static_cast<uint8_t>(brightness);
    emit surfaceBrightnessChanged();
    if (m_connection && m_connection->surface() != nullptr) {
        m_connection->surface()->setSurfaceBrightness(m_surfaceBrightness);
    }
}

void GlobalSurfaceBinding::setSurfaceOverBrightness(int brightness)
{
    if (static_cast<unsigned>(brightness) > 255 || brightness == m_surfaceOverBrightness) {
        return;
    }
    m_surfaceOverBrightness = static_cast<uint8_t>(brightness);
    emit surfaceOverBrightnessChanged();
    if (m_connection && m_connection->surface() != nullptr) {
        m_connection->surface()->setSurfaceOverBrightness(m_surfaceOverBrightness);
    }
}

void GlobalSurfaceBinding::resendValuesToSurface()
{
    if (!m_connection) {
        return;
    }
    ISurface* const surface = m_connection->surface();
    if (surface == nullptr) {
        return;
    }
    surface->setSurfaceBrightness(m_surfaceBrightness);
    surface->setSurfaceOverBrightness(m_surfaceOverBrightness);
}
