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

// The serial line carries 11,520 bytes a second (115200 baud, 8N1): the bootloader's
// answers come as late as the bytes of the packet and of the answer would take on it.
constexpr int kLineBytesPerSecond = 11520;

int lineMs(int bytes)
{
    return std::max(1, (bytes * 1000 + kLineBytesPerSecond - 1) / kLineBytesPerSecond);
}

void warn(const QString& text)
{
    qCWarning(lcSoftware, "%s", qPrintable(text));
}

}  // namespace

SectionControl::SectionControl(QObject* parent) : QObject(parent)
{
    // The pace is a few milliseconds per answer, on a precise timer.
    connect(&m_answerTimer, &ClockTimer::timeout, this, &SectionControl::deliverAnswer);
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

void SectionControl::setAnswering(bool answering)
{
    if (answering == m_answering) {
        return;
    }
    m_answering = answering;
    emit answeringChanged();
}

bool SectionControl::updateRunning() const
{
    return m_inBootloader && m_bootloader.isUpdating();
}

void SectionControl::setPlugged(bool plugged)
{
    if (plugged == m_plugged) {
        return;
    }
    if (updateRunning()) {
        warn(QStringLiteral("SectionControl: section %1 is being updated; plugged stays %2 until "
                            "the update ends")
                 .arg(static_cast<int>(m_sectionIndex))
                 .arg(m_plugged ? QStringLiteral("true") : QStringLiteral("false")));
        return;
    }
    m_plugged = plugged;
    if (!plugged) {
        // Answers still on their way are lost with the cable.
        m_pendingAnswers.clear();
        m_answerTimer.stop();
    }
    if (QmlControllerConnection* controller = qmlController()) {
        controller->sectionPluggedChanged(m_sectionIndex);
    }
    emit pluggedChanged();
}

void SectionControl::setBootloader(bool bootloader)
{
    if (bootloader == m_inBootloader) {
        return;
    }
    if (updateRunning()) {
        warn(QStringLiteral("SectionControl: section %1 is being updated; bootloader stays %2 "
                            "until the update ends")
                 .arg(static_cast<int>(m_sectionIndex))
                 .arg(m_inBootloader ? QStringLiteral("true") : QStringLiteral("false")));
        return;
    }
    setInBootloader(bootloader);
}

void SectionControl::setInBootloader(bool inBootloader)
{
    m_inBootloader = inBootloader;
    m_bootloader.abandonExchange();
    m_pendingAnswers.clear();
    m_answerTimer.stop();
    emit bootloaderChanged();
}

void SectionControl::setFlashStatus(int status)
{
    if (status < 0 || status > 255) {
        warn(QStringLiteral("SectionControl: flashStatus %1 is not a byte (0..255); it stays %2")
                 .arg(status)
                 .arg(m_bootloader.flashStatus()));
        return;
    }
    if (status == m_bootloader.flashStatus()) {
        return;
    }
    m_bootloader.setFlashStatus(static_cast<uint8_t>(status));
    emit flashStatusChanged();
}

void SectionControl::setNakCount(int count)
{
    if (count < 0) {
        warn(QStringLiteral("SectionControl: nakCount %1 is negative; it stays %2")
                 .arg(count)
                 .arg(m_bootloader.nakCount()));
        return;
    }
    if (count == m_bootloader.nakCount()) {
        return;
    }
    m_bootloader.setNakCount(count);
    m_notifiedNakCount = count;
    emit nakCountChanged();
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

void SectionControl::bootloaderBytes(const QByteArray& bytes)
{
    const SoftwareBootloader::Result result = m_bootloader.receive(bytes);
    if (result.answer.isEmpty()) {
        return;
    }
    // Answered once the packet and the answer would have crossed the line, from the timer:
    // never from inside the plugin's own write, which keeps the updater's exchange flat and
    // lets QML handlers of the changes below call anything.
    m_pendingAnswers.append(
        PendingAnswer{result.answer, lineMs(bytes.size() + result.answer.size()), result.left});
    if (!m_answerTimer.isActive()) {
        m_answerTimer.start(m_pendingAnswers.first().delayMs);
    }
}

void SectionControl::notifyBootloaderChanges()
{
    if (m_bootloader.nakCount() != m_notifiedNakCount) {
        m_notifiedNakCount = m_bootloader.nakCount();
        emit nakCountChanged();
    }
    if (m_bootloader.image().size() != m_notifiedReceivedBytes) {
        m_notifiedReceivedBytes = m_bootloader.image().size();
        emit receivedBytesChanged();
    }
    const QString crc = m_bootloader.imageCrc32();
    if (crc != m_notifiedCrc) {
        m_notifiedCrc = crc;
        emit imageCrc32Changed();
    }
}

void SectionControl::deliverAnswer()
{
    if (m_pendingAnswers.isEmpty()) {
        return;
    }
    const PendingAnswer answer = m_pendingAnswers.takeFirst();
    // What the packets changed shows before the plugin hears the answer. A handler may have
    // unplugged the section or ended its bootloader meanwhile: then the answer is dropped.
    notifyBootloaderChanges();
    if (!m_inBootloader || !m_plugged) {
        return;
    }
    // The plugin may write its next packet from inside this delivery; it is queued behind.
    if (QmlControllerConnection* controller = qmlController()) {
        controller->sendRawToPlugin(m_sectionIndex, answer.bytes);
    }
    if (answer.leaves && m_inBootloader) {
        // Reset: the microcontroller starts its application.
        setInBootloader(false);
    }
    if (!m_pendingAnswers.isEmpty() && !m_answerTimer.isActive()) {
        m_answerTimer.start(m_pendingAnswers.first().delayMs);
    }
}

void SectionControl::lineReset()
{
    m_bootloader.abandonExchange();
    m_pendingAnswers.clear();
    m_answerTimer.stop();
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
