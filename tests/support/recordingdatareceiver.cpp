#include "support/recordingdatareceiver.h"

#include <utility>

void RecordingDataReceiver::dataReceived(const QByteArray& data)
{
    m_chunks.append(data);
    if (m_reaction) {
        m_reaction(data);
    }
}

QByteArray RecordingDataReceiver::bytes() const
{
    QByteArray all;
    for (const QByteArray& chunk : m_chunks) {
        all.append(chunk);
    }
    return all;
}

void RecordingDataReceiver::setReaction(std::function<void(const QByteArray&)> reaction)
{
    m_reaction = std::move(reaction);
}
