#include "support/recordingupdaterlistener.h"

#include <QString>

#include "updater/isectionupdater.h"

void RecordingUpdaterListener::updaterStateChanged()
{
    ++stateChanges;
    if (recordEvents) {
        events << QStringLiteral("state");
    }
    if (m_updater) {
        statesSeen << qMakePair(m_updater->isActive(), m_updater->isUpdating());
    }
}

void RecordingUpdaterListener::updateProgress(uint8_t percent)
{
    progress << percent;
    if (recordEvents) {
        events << QStringLiteral("progress %1").arg(static_cast<unsigned>(percent));
    }
}

void RecordingUpdaterListener::sendBootloaderPacket(const Packet& packet)
{
    const QByteArray bytes = Velmora::Worksurface::encodeBootloaderPacket(packet);
    packets << packet;
    sent << bytes;
    if (recordEvents) {
        events << QStringLiteral("send %1").arg(QString::fromLatin1(bytes.toHex()));
    }
    if (m_onSend) {
        m_onSend(packet);
    }
}

void RecordingUpdaterListener::failed(int reason)
{
    failures << reason;
    if (recordEvents) {
        events << QStringLiteral("failed %1").arg(reason);
    }
}

QByteArray RecordingUpdaterListener::sentBytes() const
{
    QByteArray all;
    for (const QByteArray& bytes : sent) {
        all += bytes;
    }
    return all;
}

void RecordingUpdaterListener::clear()
{
    packets.clear();
    sent.clear();
    progress.clear();
    stateChanges = 0;
    failures.clear();
    events.clear();
    statesSeen.clear();
}
