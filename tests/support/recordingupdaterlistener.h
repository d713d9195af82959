#pragma once

#include <QByteArray>
#include <QList>
#include <QStringList>
#include <cstdint>
#include <functional>

#include "updater/bootloaderpacket.h"
#include "updater/isectionupdaterlistener.h"

namespace Velmora::Worksurface {
class ISectionUpdater;
}

// Plays the section connection for a firmware updater: records every packet as the bytes
// that would go on the line, every progress value, state-change notification and failure,
// and one ordered event list across all of them. An optional hook sees each packet as it
// is sent (to answer in-process, as a simulated section would).
class RecordingUpdaterListener : public Velmora::Worksurface::ISectionUpdaterListener
{
public:
    using Packet = Velmora::Worksurface::BootloaderPacket;

    void updaterStateChanged() override;
    void updateProgress(uint8_t percent) override;
    void sendBootloaderPacket(const Packet& packet) override;
    void failed(int reason) override;

    // When set, each state notification also records the updater's isActive/isUpdating.
    void setUpdater(const Velmora::Worksurface::ISectionUpdater* updater) { m_updater = updater; }
    void setOnSend(std::function<void(const Packet&)> onSend) { m_onSend = std::move(onSend); }

    QList<Packet> packets;
    // Each packet as encoded for the line.
    QList<QByteArray> sent;
    QList<uint8_t> progress;
    int stateChanges = 0;
    QList<int> failures;
    // "state", "send <hex>", "progress <n>", "failed <n>" in call order.
    QStringList events;
    // Building the event texts dominates when megabytes of image pass; tests of huge
    // images turn it off.
    bool recordEvents = true;
    // (isActive, isUpdating) at each state notification, when an updater is set.
    QList<QPair<bool, bool>> statesSeen;

    // Everything sent, concatenated: the exact byte stream the section would receive.
    QByteArray sentBytes() const;
    void clear();

private:
    const Velmora::Worksurface::ISectionUpdater* m_updater = nullptr;
    std::function<void(const Packet&)> m_onSend;
};
