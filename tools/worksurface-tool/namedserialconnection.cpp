#include "namedserialconnection.h"

#include <QFileInfo>

#include "serial/hardwareserialconnection.h"

using namespace Velmora::Worksurface;

namespace {

// Where a name leads now: the device's real name, or the name itself when it leads nowhere.
QString deviceOf(const QString& name)
{
    const QString canonical = QFileInfo(name).canonicalFilePath();
    return canonical.isEmpty() ? name : canonical;
}

}  // namespace

NamedSerialConnection::NamedSerialConnection(uint8_t sectionIndex, const QString& name)
    : m_sectionIndex(sectionIndex), m_name(name)
{
    follow();
}

NamedSerialConnection::~NamedSerialConnection()
{
    m_port->setDataReceiver(nullptr);
}

void NamedSerialConnection::follow()
{
    const QString device = deviceOf(m_name);
    if (m_port && device == m_device) {
        return;
    }
    if (m_port) {
        m_port->close();
        m_port->setDataReceiver(nullptr);
        m_earlierMessages += m_port->messageCount();
    }
    m_device = device;
    m_port = std::make_unique<HardwareSerialConnection>(m_sectionIndex, m_device);
    m_port->setDataReceiver(m_receiver);
}

QString NamedSerialConnection::errorString() const
{
    return m_port->errorString();
}

bool NamedSerialConnection::isOpen() const
{
    return m_port->isOpen();
}

uint64_t NamedSerialConnection::messageCount() const
{
    return m_earlierMessages + m_port->messageCount();
}

void NamedSerialConnection::setDataReceiver(ISerialDataReceiver* receiver)
{
    m_receiver = receiver;
    m_port->setDataReceiver(receiver);
}

void NamedSerialConnection::open()
{
    if (!m_port->isOpen()) {
        follow();
    }
    m_port->open();
}

void NamedSerialConnection::close()
{
    m_port->close();
}

void NamedSerialConnection::writeRaw(const BootloaderPacket& packet)
{
    m_port->writeRaw(packet);
}

void NamedSerialConnection::sendMessage(const SerialMessage& message)
{
    m_port->sendMessage(message);
}

void NamedSerialConnection::flush()
{
    m_port->flush();
}

QString NamedSerialConnection::portName() const
{
    return m_name;
}

QString NamedSerialConnection::portError() const
{
    // The port names the device it opened; the user knows the line by the name given.
    QString error = m_port->portError();
    if (m_device != m_name) {
        error.replace(m_device, QStringLiteral("%1 (%2)").arg(m_name, m_device));
    }
    return error;
}

void NamedSerialConnection::reopen()
{
    if (!m_port->isOpen()) {
        follow();
    }
    m_port->reopen();
}
