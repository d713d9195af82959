#include "software/sectioncontrol.h"

#include <algorithm>

#include "serial/isoftwarecontrollerconnection.h"
#include "software/qmlcontrollerconnection.h"

using namespace Velmora::Worksurface;

namespace {

// The section itself is device 0 of its link.
constexpr uint8_t kSectionDevice = 0;

}  // namespace

SectionControl::SectionControl(QObject* parent) : QObject(parent) {}

SectionControl::~SectionControl()
{
    unregisterFrom(m_controller);
}

SurfaceConnection* SectionControl::connection() const
{
    return m_connection.data();
}

void SectionControl::setConnection(SurfaceConnection* connection)
{
    m_connection = connection;
    if (connection == nullptr) {
        return;
    }
    std::shared_ptr<ISoftwareControllerConnection> controller = connection->controllerConnection();
    if (m_controller && m_controller != controller) {
        unregisterFrom(m_controller);
    }
    m_controller = std::move(controller);
    if (m_controller) {
        m_controller->addSoftwareHandler(this);
    }
}

void SectionControl::setSectionIndex(int sectionIndex)
{
    if (sectionIndex < 0 || sectionIndex > 255 || sectionIndex == m_sectionIndex) {
        return;
    }
    m_sectionIndex = static_cast<uint8_t>(sectionIndex);
    emit sectionIndexChanged();
}

void SectionControl::setTemperature(int temperature)
{
    if (temperature == m_temperature) {
        return;
    }
    m_temperature = temperature;
    emit temperatureChanged();
}

void SectionControl::stopCalibration()
{
    // The section tells the plugin first and only then shows that it has stopped. The
    // plugin's answer comes back synchronously: a QML handler on Surface.isCalibratingChanged
    // that calibrates again starts a new calibration here, which the lines below then end
    // on this side (the link stays Calibrating until the section reports again).
    sendToPlugin(SerialMessage(MessageType::Calibration, kSectionDevice));
    m_calibrating = false;
    emit calibratingChanged();
}

bool SectionControl::handleSoftwareMessage(uint8_t sectionIndex, const SerialMessage& message)
{
    if (sectionIndex != m_sectionIndex || message.deviceId != kSectionDevice) {
        return false;
    }
    switch (message.type) {
        case MessageType::Ping:
            sendToPlugin(SerialMessage(MessageType::Ping, kSectionDevice,
                                       {VersionMajor, VersionMinor,
                                        static_cast<uint8_t>(std::clamp(m_temperature, 0, 255))},
                                       true));
            return true;
        case MessageType::Calibration:
            m_calibrating = true;
            emit calibratingChanged();
            return true;
        default:
            return false;
    }
}

void SectionControl::sendToPlugin(const SerialMessage& message) const
{
    if (m_controller) {
        m_controller->sendToPlugin(m_sectionIndex, message);
    }
}

void SectionControl::unregisterFrom(
    const std::shared_ptr<ISoftwareControllerConnection>& controller)
{
    if (auto* qmlController = dynamic_cast<QmlControllerConnection*>(controller.get())) {
        qmlController->removeSoftwareHandler(this);
    }
}
