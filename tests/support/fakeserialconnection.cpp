#include "support/fakeserialconnection.h"

#include "serial/iserialdatareceiver.h"

using namespace Velmora::Worksurface;

void FakeSerialConnection::setDataReceiver(ISerialDataReceiver* receiver)
{
    m_receiver = receiver;
}

void FakeSerialConnection::open()
{
    ++m_openCount;
    m_open = m_openResult;
    if (m_open) {
        m_buffer.clear();
    }
}

void FakeSerialConnection::close()
{
    ++m_closeCount;
    m_buffer.clear();
    m_open = false;
}

void FakeSerialConnection::writeRaw(const BootloaderPacket& packet)
{
    m_rawPackets.push_back(packet);
}

void FakeSerialConnection::sendMessage(const SerialMessage& message)
{
    m_sentMessages.push_back(message);
    m_buffer.append(encode(message));
    ++m_messageCount;
}

void FakeSerialConnection::flush()
{
    ++m_flushCount;
    if (!m_buffer.isEmpty()) {
        m_flushes.append(m_buffer);
        m_buffer.clear();
    }
}

bool FakeSerialConnection::pushData(const QByteArray& bytes)
{
    if (!m_receiver) {
        return false;
    }
    m_receiver->dataReceived(bytes);
    return true;
}

QByteArray FakeSerialConnection::writtenBytes() const
{
    QByteArray all;
    for (const QByteArray& batch : m_flushes) {
        all.append(batch);
    }
    return all;
}

void FakeSerialConnection::clearRecords()
{
    m_openCount = 0;
    m_closeCount = 0;
    m_flushCount = 0;
    m_sentMessages.clear();
    m_flushes.clear();
    m_rawPackets.clear();
}
