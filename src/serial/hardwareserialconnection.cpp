#include "serial/hardwareserialconnection.h"

#include <QDebug>
#include <QFileInfo>
#include <QMetaEnum>
#include <QMutexLocker>

#include "base/logcategories.h"
#include "serial/iserialdatareceiver.h"
#include "serial/serialporterrorcode.h"

#ifdef Q_OS_UNIX
#include <cerrno>

#include <unistd.h>
#endif

namespace Velmora::Worksurface {

namespace {

// The enumerator's name, e.g. "DeviceNotFoundError", as it appears after "Error was:".
const char* errorName(QSerialPort::SerialPortError error)
{
    const char* key = QMetaEnum::fromType<QSerialPort::SerialPortError>().valueToKey(error);
    return key ? key : "";
}

// Why the device failed, in a few words, naming the device: what QML shows as the link's
// port error.
QString describeOpenError(QSerialPort::SerialPortError error, const QString& portName)
{
    switch (error) {
        case QSerialPort::DeviceNotFoundError:
            return QStringLiteral("Device not found: %1").arg(portName);
        case QSerialPort::PermissionError:
            return QStringLiteral("Permission denied: %1").arg(portName);
        case QSerialPort::OpenError:
            return QStringLiteral("Device already open: %1").arg(portName);
        default:
            return QStringLiteral("Cannot open %1 (%2)")
                .arg(portName, QString::fromLatin1(errorName(error)));
    }
}

}  // namespace

// Log lines go straight to Qt's streams: the connection is built from a section index
// and a port name only, without the surface's Logger. The section index is streamed as
// a number (a uint8_t would print as a character); the port name is a QString and so is
// quoted by the stream, e.g.
//   WS section 1 serial port: "/dev/ttymxc1" ready and open.

HardwareSerialConnection::HardwareSerialConnection(uint8_t sectionIndex, const QString& portName)
    : m_sectionIndex(sectionIndex), m_portName(portName), m_port(std::make_unique<QSerialPort>())
{
    connect(m_port.get(), &QSerialPort::readyRead, this, &HardwareSerialConnection::readSerialData);
    connect(m_port.get(), &QSerialPort::errorOccurred, this,
            &HardwareSerialConnection::handleSerialPortError);
}

HardwareSerialConnection::~HardwareSerialConnection()
{
    // Closing the port on destruction must not call back into a half-destroyed object.
    m_port->disconnect(this);
}

bool HardwareSerialConnection::isOpen() const
{
    return m_port->isOpen();
}

uint64_t HardwareSerialConnection::messageCount() const
{
    return m_messageCount;
}

void HardwareSerialConnection::setDataReceiver(ISerialDataReceiver* receiver)
{
    m_dataReceiver = receiver;
}

void HardwareSerialConnection::open()
{
    if (m_port->isOpen()) {
        return;
    }
    m_port->setPortName(m_portName);
    if (!m_port->open(QIODevice::ReadWrite)) {
        const QSerialPort::SerialPortError error = m_port->error();
        if (isNews(error)) {
            qCCritical(lcLink) << "Unable to open WS section" << logIndex()
                               << "serial port with name: " << m_portName;
            qCCritical(lcLink) << "Error was:" << errorName(error);
        }
        noteOpenFailure(error, describeOpenError(error, m_portName));
        return;
    }
    // The line settings are applied to the open device, in this order; the first that
    // fails stops the rest.
    const bool configured =
        m_port->setBaudRate(QSerialPort::Baud115200, QSerialPort::AllDirections) &&
        m_port->setDataBits(QSerialPort::Data8) && m_port->setParity(QSerialPort::NoParity) &&
        m_port->setStopBits(QSerialPort::OneStop) &&
        m_port->setFlowControl(QSerialPort::NoFlowControl);
    if (!configured) {
        const QSerialPort::SerialPortError error = m_port->error();
        close();
        if (isNews(error)) {
            qCCritical(lcLink) << "Unable to set WS section" << logIndex()
                               << "serial port properties for port: " << m_portName;
            qCCritical(lcLink) << "Error was:" << errorName(error);
        }
        noteOpenFailure(error, QStringLiteral("Cannot set up %1 (%2)")
                                   .arg(m_portName, QString::fromLatin1(errorName(error))));
        return;
    }
    {
        QMutexLocker lock(&m_mutex);
        m_outputBuffer.clear();
    }
    if (isNews(QSerialPort::NoError)) {
        qCDebug(lcLink) << "WS section" << logIndex() << "serial port:" << m_portName
                        << "ready and open.";
    }
    m_lastOpen = LastOpen::Opened;
    m_lastOpenError = QSerialPort::NoError;
    m_portError.clear();
}

void HardwareSerialConnection::reopen()
{
    if (!m_port->isOpen() && m_lastOpen == LastOpen::Failed &&
        m_lastOpenError == QSerialPort::DeviceNotFoundError && !QFileInfo::exists(m_portName)) {
        // Still not there. QSerialPort would find that out only after creating its lock file
        // and syncing it to disk, some milliseconds of the model thread (and a write to the
        // board's flash) per attempt; the outcome is the same.
        return;
    }
    m_reopening = true;
    open();
    m_reopening = false;
}

bool HardwareSerialConnection::isNews(QSerialPort::SerialPortError error) const
{
    if (!m_reopening) {
        return true;
    }
    if (error == QSerialPort::NoError) {
        return m_lastOpen != LastOpen::Opened;
    }
    return m_lastOpen != LastOpen::Failed || error != m_lastOpenError;
}

void HardwareSerialConnection::noteOpenFailure(QSerialPort::SerialPortError error,
                                               const QString& portError)
{
    m_lastOpen = LastOpen::Failed;
    m_lastOpenError = error;
    m_portError = portError;
}

QString HardwareSerialConnection::portName() const
{
    return m_portName;
}

QString HardwareSerialConnection::portError() const
{
    return m_portError;
}

void HardwareSerialConnection::close()
{
    {
        QMutexLocker lock(&m_mutex);
        m_outputBuffer.clear();
    }
    // Without the lock: closing reports its failures synchronously (a device that went away
    // cannot have its settings restored), into handleSerialPortError and the application's
    // message handler, and a gone device's error closes the port from there. That inner
    // close finds this one under way and leaves it to finish.
    if (m_closing || !m_port->isOpen()) {
        return;
    }
    m_closing = true;
    m_port->close();
    m_closing = false;
}

void HardwareSerialConnection::writeRaw(const BootloaderPacket& packet)
{
    QSerialPort::SerialPortError error = QSerialPort::NoError;
    {
        QMutexLocker lock(&m_mutex);
        error = writeLocked(encodeBootloaderPacket(packet));
    }
    logWriteError(error);
}

void HardwareSerialConnection::sendMessage(const SerialMessage& message)
{
    QMutexLocker lock(&m_mutex);
    m_outputBuffer.append(encode(message));
    ++m_messageCount;
}

void HardwareSerialConnection::flush()
{
    QSerialPort::SerialPortError error = QSerialPort::NoError;
    {
        QMutexLocker lock(&m_mutex);
        error = writeLocked(m_outputBuffer);
        // Whatever the write did, the buffer does not outlive the flush: nothing is resent.
        m_outputBuffer.clear();
    }
    logWriteError(error);
}

int HardwareSerialConnection::bufferedByteCount() const
{
    QMutexLocker lock(&m_mutex);
    return m_outputBuffer.size();
}

QString HardwareSerialConnection::errorString() const
{
    return m_port->errorString();
}

QSerialPort::SerialPortError HardwareSerialConnection::writeLocked(const QByteArray& data)
{
    if (!m_port->isOpen() || data.isEmpty()) {
        return QSerialPort::NoError;
    }
    // A short write is not retried: the section answers bad data with a serial error and
    // the link recovers from that.
    const qint64 written = writeToLineNow(data);
    if (written == data.size()) {
        return QSerialPort::NoError;
    }
    if (m_port->write(data.constData() + written, data.size() - written) == -1) {
        return m_port->error();
    }
    return QSerialPort::NoError;
}

qint64 HardwareSerialConnection::writeToLineNow(const QByteArray& data)
{
#ifdef Q_OS_UNIX
    // Only when nothing of the port's own is still waiting: the bytes must leave in order.
    const int fd = m_port->handle();
    if (fd < 0 || m_port->bytesToWrite() > 0) {
        return 0;
    }
    for (;;) {
        const ssize_t n = ::write(fd, data.constData(), static_cast<size_t>(data.size()));
        if (n >= 0) {
            return n;
        }
        if (errno != EINTR) {
            // The line is full (EAGAIN) or gone: the port writes what is left, or reports
            // the error from its event loop as it always has.
            return 0;
        }
    }
#else
    Q_UNUSED(data);
    return 0;
#endif
}

void HardwareSerialConnection::logWriteError(QSerialPort::SerialPortError error) const
{
    if (error == QSerialPort::NoError) {
        return;
    }
    qCCritical(lcLink) << "Unable to write data to WS section" << logIndex();
    qCCritical(lcLink) << "Error was:" << errorName(error);
}

void HardwareSerialConnection::readSerialData()
{
    if (!m_port->isOpen()) {
        return;
    }
    const QByteArray data = m_port->readAll();
    if (!data.isEmpty() && m_dataReceiver) {
        m_dataReceiver->dataReceived(data);
    }
}

// A read error, or a resource error (QSerialPort's word for "the device went away"), on a
// section's line means the section is gone: its cable was pulled or its board lost power,
// and the device node reads as end of file or fails with EIO. QSerialPort reports the
// same error again on every pass of the event loop for as long as the port stays open,
// some hundreds of thousands of times a second: the log floods and the QML thread is kept
// busy, so the console's UI would stall until the section connection restarts the link
// 10 to 20 s later. One log line says it all; closing the port stops the repeats. The
// section connection then notices the silence as usual and restarts the link, which opens
// the port again if the section has come back.
void HardwareSerialConnection::closeVanishedPort()
{
    if (m_port->isOpen()) {
        m_portError = QStringLiteral("Device gone: %1").arg(m_portName);
        // Whatever opens the port next is news.
        m_lastOpen = LastOpen::None;
    }
    close();
}

void HardwareSerialConnection::handleSerialPortError(QSerialPort::SerialPortError error)
{
    if (error != QSerialPort::NoError && !isNews(error)) {
        // A reconnection attempt that fails as the one before it did: already said.
        return;
    }
    switch (error) {
        case QSerialPort::NoError:
            break;
        case QSerialPort::DeviceNotFoundError:
            qCDebug(lcLink) << "Unable to open connection to WS section" << logIndex()
                            << " Connection name:" << m_portName << "The device was not found.";
            break;
        case QSerialPort::WriteError:
            qCDebug(lcLink) << "Error while writing data to the serial port" << m_portName;
            break;
        case QSerialPort::ReadError:
            qCDebug(lcLink) << "Error while reading data from the serial port" << m_portName;
            closeVanishedPort();
            break;
        case QSerialPort::TimeoutError:
            qCDebug(lcLink) << "Timeout error in serial port" << m_portName;
            break;
        case QSerialPort::ResourceError:
            qCDebug(lcLink) << "Serial port error in WS section" << logIndex()
                            << "Error core:" << serialPortErrorCode(error);
            closeVanishedPort();
            break;
        default:
            qCDebug(lcLink) << "Serial port error in WS section" << logIndex()
                            << "Error core:" << serialPortErrorCode(error);
            break;
    }
}

}  // namespace Velmora::Worksurface
