#pragma once

#include <QByteArray>
#include <QList>
#include <functional>

#include "serial/iserialdatareceiver.h"

// Stands where a section connection would receive a serial connection's bytes: records
// every chunk, in order, and can run a reaction while the chunk is being delivered (to
// play a section connection that answers at once on the same call stack).
class RecordingDataReceiver : public Velmora::Worksurface::ISerialDataReceiver
{
public:
    void dataReceived(const QByteArray& data) override;

    QList<QByteArray> chunks() const { return m_chunks; }
    // Every chunk joined.
    QByteArray bytes() const;
    int count() const { return m_chunks.size(); }
    void clear() { m_chunks.clear(); }

    // Called after each chunk has been recorded.
    void setReaction(std::function<void(const QByteArray&)> reaction);

private:
    QList<QByteArray> m_chunks;
    std::function<void(const QByteArray&)> m_reaction;
};
