#include "tappedserialconnection.h"

#include <utility>

using namespace Velmora::Worksurface;

TappedSerialConnection::TappedSerialConnection(std::shared_ptr<ISerialConnection> inner)
    : m_inner(std::move(inner))
{
    m_inner->setDataReceiver(this);
}

TappedSerialConnection::~TappedSerialConnection()
{
    m_inner->setDataReceiver(nullptr);
}

bool TappedSerialConnection::isOpen() const
{
    return m_inner->isOpen();
}

uint64_t TappedSerialConnection::messageCount() const
{
    return m_inner->messageCount();
}

void TappedSerialConnection::setDataReceiver(ISerialDataReceiver* receiver)
{
    m_receiver = receiver;
}

void TappedSerialConnection::open()
{
    m_inner->open();
}

void TappedSerialConnection::close()
{
    m_inner->close();
}

void TappedSerialConnection::writeRaw(const BootloaderPacket& packet)
{
    if (m_listenOnly) {
        return;
    }
    if (onPacketWritten) {
        onPacketWritten(packet);
    }
    m_inner->writeRaw(packet);
}

void TappedSerialConnection::sendMessage(const SerialMessage& message)
{
    if (m_listenOnly) {
        return;
    }
    if (onMessageSent) {
        onMessageSent(message);
    }
    m_inner->sendMessage(message);
}

void TappedSerialConnection::flush()
{
    m_inner->flush();
}

QString TappedSerialConnection::portName() const
{
    return m_inner->portName();
}

QString TappedSerialConnection::portError() const
{
    return m_inner->portError();
}

void TappedSerialConnection::reopen()
{
    m_inner->reopen();
}

void TappedSerialConnection::dataReceived(const QByteArray& data)
{
    if (onBytesReceived) {
        onBytesReceived(data);
    }
    if (m_receiver) {
        m_receiver->dataReceived(data);
    }
}
