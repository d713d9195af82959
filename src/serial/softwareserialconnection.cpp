#include "serial/softwareserialconnection.h"

#include <QDebug>
#include <utility>

#include "base/logcategories.h"
#include "base/logger.h"
#include "serial/isoftwarecontrollerconnection.h"

namespace Velmora::Worksurface {

namespace {

// What QSerialPort reports for a device that went away while open (ResourceError), as the
// hardware link logs it.
constexpr int kResourceErrorCode = 9;

}  // namespace

SoftwareSerialConnection::SoftwareSerialConnection(
    uint8_t sectionIndex, std::shared_ptr<ISoftwareControllerConnection> controller,
    std::shared_ptr<Logger> logger)
    : m_sectionIndex(sectionIndex), m_controller(std::move(controller)), m_logger(std::move(logger))
{
    if (m_controller) {
        m_controller->setSectionLine(m_sectionIndex, this);
    }
}

// The receiver registered through this connection goes with it (it is the section
// connection that owns this one), but only if it is still the registered one: a newer
// surface may already have registered its own receiver for the same index.
SoftwareSerialConnection::~SoftwareSerialConnection()
{
    if (m_controller && m_receiver != nullptr) {
        m_controller->removeDataReceiver(m_sectionIndex, m_receiver);
    }
    if (m_controller) {
        m_controller->removeSectionLine(m_sectionIndex, this);
    }
}

bool SoftwareSerialConnection::isOpen() const
{
    return m_open;
}

uint64_t SoftwareSerialConnection::messageCount() const
{
    return m_messageCount;
}

void SoftwareSerialConnection::setDataReceiver(ISerialDataReceiver* receiver)
{
    m_receiver = receiver;
    if (m_controller) {
        m_controller->setDataReceiver(m_sectionIndex, receiver);
    }
}

QString SoftwareSerialConnection::lineName() const
{
    return QStringLiteral("software section %1").arg(static_cast<int>(m_sectionIndex));
}

void SoftwareSerialConnection::open()
{
    if (m_open) {
        return;
    }
    // A repeat of the previous outcome within a series of reconnection attempts is not news.
    const auto isNews = [this](LastOpen outcome) { return !m_reopening || m_lastOpen != outcome; };
    // The quoted name matches the hardware link's lines, whose port name Qt's stream quotes.
    const QString quotedName = QLatin1Char('"') + lineName() + QLatin1Char('"');
    if (m_controller && !m_controller->isSectionPlugged(m_sectionIndex)) {
        if (isNews(LastOpen::Failed)) {
            logDebug(QStringLiteral("Unable to open connection to WS section %1  Connection name: "
                                    "%2 The device was not found.")
                         .arg(static_cast<int>(m_sectionIndex))
                         .arg(quotedName));
            logCritical(QStringLiteral("Unable to open WS section %1 serial port with name:  %2")
                            .arg(static_cast<int>(m_sectionIndex))
                            .arg(quotedName));
            logCritical(QStringLiteral("Error was: DeviceNotFoundError"));
        }
        m_down = true;
        m_outputBuffer.clear();
        m_lastOpen = LastOpen::Failed;
        m_portError = QStringLiteral("Device not found: %1").arg(lineName());
        return;
    }
    m_open = true;
    // Only a line that was down says it is back; a section never unplugged opens silently.
    if (m_down && isNews(LastOpen::Opened)) {
        logDebug(QStringLiteral("WS section %1 serial port: %2 ready and open.")
                     .arg(static_cast<int>(m_sectionIndex))
                     .arg(quotedName));
    }
    m_down = false;
    m_lastOpen = LastOpen::Opened;
    m_portError.clear();
}

void SoftwareSerialConnection::reopen()
{
    m_reopening = true;
    open();
    m_reopening = false;
}

void SoftwareSerialConnection::close()
{
    m_open = false;
}

QString SoftwareSerialConnection::portError() const
{
    return m_portError;
}

void SoftwareSerialConnection::pluggedChanged(bool plugged)
{
    // Plugged in again: the link's next attempt opens the line. Pulled out while closed: the
    // next open fails.
    if (plugged || !m_open) {
        return;
    }
    logDebug(QStringLiteral("Serial port error in WS section %1 Error core: %2")
                 .arg(static_cast<int>(m_sectionIndex))
                 .arg(kResourceErrorCode));
    m_open = false;
    m_down = true;
    m_outputBuffer.clear();
    m_portError = QStringLiteral("Device gone: %1").arg(lineName());
    // Whatever opens the line next is news.
    m_lastOpen = LastOpen::None;
}

void SoftwareSerialConnection::writeRaw(const BootloaderPacket& packet)
{
    if (m_down || !m_controller) {
        return;
    }
    m_controller->bootloaderPacketFromPlugin(m_sectionIndex, packet);
}

void SoftwareSerialConnection::sendMessage(const SerialMessage& message)
{
    m_outputBuffer.append(encode(message));
    ++m_messageCount;
}

void SoftwareSerialConnection::flush()
{
    if (m_down) {
        // A section that is not there hears nothing, as a closed port writes nothing.
        m_outputBuffer.clear();
        return;
    }
    if (m_flushing) {
        m_flushRequested = true;
        return;
    }
    struct FlushGuard
    {
        SoftwareSerialConnection& connection;
        ~FlushGuard()
        {
            connection.m_flushRequested = false;
            connection.m_flushing = false;
        }
    } guard{*this};
    m_flushing = true;
    do {
        m_flushRequested = false;
        // Taken out before parsing: what is sent while the controller handles these bytes
        // belongs to the next round (or the next flush), not to this one.
        QByteArray bytes;
        bytes.swap(m_outputBuffer);
        if (!bytes.isEmpty()) {
            parse(bytes);
        }
    } while (m_flushRequested && !m_outputBuffer.isEmpty());
}

void SoftwareSerialConnection::messageReceived(const SerialMessage& message)
{
    if (m_controller) {
        m_controller->messageFromPlugin(m_sectionIndex, message);
    }
}

void SoftwareSerialConnection::badDataReceived(const QByteArray& data)
{
    qCDebug(lcLink) << "SW serial message connection for section:"
                    << static_cast<int>(m_sectionIndex) << "received bad data:" << data.toHex();
}

void SoftwareSerialConnection::logDebug(const QString& text) const
{
    if (m_logger) {
        m_logger->debug(text);
    }
}

void SoftwareSerialConnection::logCritical(const QString& text) const
{
    if (m_logger) {
        m_logger->critical(text);
    }
}

}  // namespace Velmora::Worksurface
