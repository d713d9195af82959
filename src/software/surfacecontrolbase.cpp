#include "software/surfacecontrolbase.h"

#include "serial/isoftwarecontrollerconnection.h"
#include "software/qmlcontrollerconnection.h"

using namespace Velmora::Worksurface;

namespace {

bool validIndex(int value)
{
    return value >= 0 && value <= 255;
}

}  // namespace

SurfaceControlBase::SurfaceControlBase(QObject* parent) : QObject(parent) {}

SurfaceControlBase::~SurfaceControlBase()
{
    unregisterFrom(m_controller);
}

SurfaceConnection* SurfaceControlBase::connection() const
{
    return m_connection.data();
}

void SurfaceControlBase::setConnection(SurfaceConnection* connection)
{
    m_connection = connection;
    if (connection == nullptr) {
        // Like a binding given no connection: it keeps what it was attached to.
        return;
    }
    std::shared_ptr<ISoftwareControllerConnection> controller = connection->controllerConnection();
    if (m_controller && m_controller != controller) {
        // A control plays one software surface: the old controller must not keep a pointer
        // to it.
        unregisterFrom(m_controller);
    }
    m_controller = std::move(controller);
    registerWithController();
}

void SurfaceControlBase::setSectionIndex(int sectionIndex)
{
    if (!validIndex(sectionIndex) || sectionIndex == m_sectionIndex) {
        return;
    }
    m_sectionIndex = static_cast<uint8_t>(sectionIndex);
    emit sectionIndexChanged();
    refresh();
}

void SurfaceControlBase::setIndex(int index)
{
    if (!validIndex(index) || index == m_index) {
        return;
    }
    m_index = static_cast<uint8_t>(index);
    emit indexChanged();
    refresh();
}

void SurfaceControlBase::setActive(bool active)
{
    if (active == m_active) {
        return;
    }
    m_active = active;
    emit activeChanged();
    activationChanged();
}

bool SurfaceControlBase::handleSoftwareMessage(uint8_t sectionIndex, const SerialMessage& message)
{
    if (sectionIndex != m_sectionIndex) {
        return false;
    }
    if (!m_active && !hearsWhileInactive()) {
        return false;
    }
    return takeMessage(message);
}

void SurfaceControlBase::activationChanged()
{
    if (m_active) {
        refresh();
    }
}

void SurfaceControlBase::registerWithController()
{
    if (m_controller) {
        m_controller->addSoftwareHandler(this);
    }
}

void SurfaceControlBase::sendToPlugin(const SerialMessage& message) const
{
    if (m_active && m_controller) {
        m_controller->sendToPlugin(m_sectionIndex, message);
    }
}

void SurfaceControlBase::replay(uint8_t type, uint8_t deviceId) const
{
    if (m_controller) {
        m_controller->replayLastMessage(m_sectionIndex, type, deviceId);
    }
}

void SurfaceControlBase::unregisterFrom(
    const std::shared_ptr<ISoftwareControllerConnection>& controller)
{
    // Only the software surface's own controller can forget a handler; it is the one the
    // surface service hands out.
    if (auto* qmlController = dynamic_cast<QmlControllerConnection*>(controller.get())) {
        qmlController->removeSoftwareHandler(this);
    }
}

QColor SurfaceControlBase::colorFrom(const SerialMessage& message, const QColor& current)
{
    return QColor(message.byteAt(0, static_cast<uint8_t>(current.red())),
                  message.byteAt(1, static_cast<uint8_t>(current.green())),
                  message.byteAt(2, static_cast<uint8_t>(current.blue())));
}
