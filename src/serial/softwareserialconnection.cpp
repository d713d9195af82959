#include "serial/softwareserialconnection.h"

#include <QDebug>
#include <utility>

#include "base/logcategories.h"
#include "serial/isoftwarecontrollerconnection.h"

namespace Velmora::Worksurface {

SoftwareSerialConnection::SoftwareSerialConnection(
    uint8_t sectionIndex, std::shared_ptr<ISoftwareControllerConnection> controller)
    : m_sectionIndex(sectionIndex), m_controller(std::move(controller))
{}

// The receiver registered through this connection goes with it (it is the section
// connection that owns this one), but only if it is still the registered one: a newer
// surface may already have registered its own receiver for the same index.
SoftwareSerialConnection::~SoftwareSerialConnection()
{
    if (m_controller && m_receiver != nullptr) {
        m_controller->removeDataReceiver(m_sectionIndex, m_receiver);
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

void SoftwareSerialConnection::open()
{
    m_open = true;
}

void SoftwareSerialConnection::close()
{
    m_open = false;
}

void SoftwareSerialConnection::writeRaw(const BootloaderPacket& packet)
{
    // A simulated section has no bootloader: it only tells the updater so, which ends the
    // start-up exchange.
    if (packet.command == BootloaderCommand::AutoBaud && m_controller) {
        m_controller->sendBootloaderReply(m_sectionIndex,
                                          BootloaderPacket(BootloaderCommand::NotBootLoader));
    }
}

void SoftwareSerialConnection::sendMessage(const SerialMessage& message)
{
    m_outputBuffer.append(encode(message));
    ++m_messageCount;
}

void SoftwareSerialConnection::flush()
{
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

}  // namespace Velmora::Worksurface
