#include "software/sectioncontrol.h"

#include <QVariantList>
#include <QtGlobal>
#include <algorithm>

#include "base/logcategories.h"
#include "serial/isoftwarecontrollerconnection.h"
#include "software/qmlcontrollerconnection.h"

using namespace Velmora::Worksurface;

namespace {

// The section itself is device 0 of its link.
constexpr uint8_t kSectionDevice = 0;

void warn(const QString& text)
{
    qCWarning(lcSoftware, "%s", qPrintable(text));
}

}  // namespace

SectionControl::SectionControl(QObject* parent) : QObject(parent), m_faults(*this)
{
    connect(&m_faults, &SectionFaults::answeringChanged, this, &SectionControl::answeringChanged);
    connect(&m_faults, &SectionFaults::pluggedChanged, this, &SectionControl::pluggedChanged);
    connect(&m_faults, &SectionFaults::bootloaderChanged, this, &SectionControl::bootloaderChanged);
    connect(&m_faults, &SectionFaults::flashStatusChanged, this,
            &SectionControl::flashStatusChanged);
    connect(&m_faults, &SectionFaults::nakCountChanged, this, &SectionControl::nakCountChanged);
    connect(&m_faults, &SectionFaults::receivedBytesChanged, this,
            &SectionControl::receivedBytesChanged);
    connect(&m_faults, &SectionFaults::imageCrc32Changed, this, &SectionControl::imageCrc32Changed);
}

SectionControl::~SectionControl()
{
    if (QmlControllerConnection* controller = qmlController()) {
        controller->removeSection(this);
        // Whatever this section played, its index is a plain section again.
        controller->sectionPluggedChanged(m_sectionIndex);
    }
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
        if (QmlControllerConnection* old = qmlController()) {
            old->removeSection(this);
            old->sectionPluggedChanged(m_sectionIndex);
        }
        unregisterFrom(m_controller);
    }
    m_controller = std::move(controller);
    if (m_controller) {
        m_controller->addSoftwareHandler(this);
    }
    if (QmlControllerConnection* current = qmlController()) {
        current->addSection(this);
        current->sectionPluggedChanged(m_sectionIndex);
    }
}

QmlControllerConnection* SectionControl::qmlController() const
{
    return dynamic_cast<QmlControllerConnection*>(m_controller.get());
}

void SectionControl::setSectionIndex(int sectionIndex)
{
    if (sectionIndex < 0 || sectionIndex > 255 || sectionIndex == m_sectionIndex) {
        return;
    }
    const uint8_t old = m_sectionIndex;
    m_sectionIndex = static_cast<uint8_t>(sectionIndex);
    // An unplugged section moves its plug with it.
    if (QmlControllerConnection* controller = qmlController()) {
        controller->sectionPluggedChanged(old);
        controller->sectionPluggedChanged(m_sectionIndex);
    }
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

void SectionControl::setVersionMajor(int major)
{
    if (major == m_versionMajor) {
        return;
    }
    m_versionMajor = major;
    emit versionMajorChanged();
}

void SectionControl::setVersionMinor(int minor)
{
    if (minor == m_versionMinor) {
        return;
    }
    m_versionMinor = minor;
    emit versionMinorChanged();
}

void SectionControl::sendRaw(const QVariant& bytes)
{
    QByteArray raw;
    if (bytes.userType() == QMetaType::QByteArray) {
        raw = bytes.toByteArray();
    } else if (bytes.canConvert<QVariantList>() && bytes.userType() != QMetaType::QString) {
        const QVariantList list = bytes.toList();
        if (list.size() > kMaxRawBytes) {
            warn(QStringLiteral("SectionControl: sendRaw() takes at most %1 bytes, not %2; "
                                "nothing sent")
                     .arg(kMaxRawBytes)
                     .arg(list.size()));
            return;
        }
        raw.reserve(list.size());
        for (int i = 0; i < list.size(); ++i) {
            bool ok = false;
            const double value = list.at(i).toDouble(&ok);
            if (!ok || value < 0 || value > 255 || value != static_cast<int>(value)) {
                warn(QStringLiteral("SectionControl: sendRaw() byte %1 is not a number 0..255; "
                                    "nothing sent")
                         .arg(i));
                return;
            }
            raw.append(static_cast<char>(static_cast<int>(value)));
        }
    } else {
        warn(
            QStringLiteral("SectionControl: sendRaw() takes an array of numbers 0..255 or an "
                           "ArrayBuffer; nothing sent"));
        return;
    }
    if (raw.isEmpty()) {
        warn(QStringLiteral("SectionControl: sendRaw() needs at least one byte; nothing sent"));
        return;
    }
    if (raw.size() > kMaxRawBytes) {
        warn(QStringLiteral("SectionControl: sendRaw() takes at most %1 bytes, not %2; nothing "
                            "sent")
                 .arg(kMaxRawBytes)
                 .arg(raw.size()));
        return;
    }
    if (QmlControllerConnection* controller = qmlController()) {
        controller->sendRawToPlugin(m_sectionIndex, raw);
    }
}

bool SectionControl::handleSoftwareMessage(uint8_t sectionIndex, const SerialMessage& message)
{
    if (sectionIndex != m_sectionIndex || message.deviceId != kSectionDevice) {
        return false;
    }
    switch (message.type) {
        case MessageType::Ping:
            sendToPlugin(SerialMessage(MessageType::Ping, kSectionDevice,
                                       {static_cast<uint8_t>(std::clamp(m_versionMajor, 0, 255)),
                                        static_cast<uint8_t>(std::clamp(m_versionMinor, 0, 255)),
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

void SectionControl::sendBootloaderAnswer(const QByteArray& bytes)
{
    if (QmlControllerConnection* controller = qmlController()) {
        controller->sendRawToPlugin(m_sectionIndex, bytes);
    }
}

void SectionControl::plugMoved()
{
    if (QmlControllerConnection* controller = qmlController()) {
        controller->sectionPluggedChanged(m_sectionIndex);
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
