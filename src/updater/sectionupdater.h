#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <cstdint>
#include <memory>

#include "updater/bootloaderpacket.h"
#include "updater/isectionupdater.h"

namespace Velmora::Worksurface {

class ISectionUpdaterListener;
class ISettings;
class ITaskPool;
class Logger;
class StartAutoUpdateTask;

// Writes a firmware image into one section's microcontroller through its serial bootloader.
//
// The section connection hands it every byte received while it is active and writes the
// packets it asks for. After the link opens the updater sends AutoBaud: a section running
// its application answers NotBootLoader and the exchange ends at once; a section sitting in
// its bootloader acknowledges, and the image is sent in 64-byte blocks, each followed by a
// status check. At the end (and after any failure) the microcontroller is reset, and a
// second later the updater asks again, so a section that is still in its bootloader is
// updated once more.
class SectionUpdater : public ISectionUpdater
{
public:
    // Values reported through state(); the listener only learns that it changed.
    enum State : int32_t
    {
        Exchanging = 0,        // a packet was sent and its acknowledgement is awaited
        WaitingForStatus = 1,  // GetStatus was acknowledged; the status reply is awaited
        Failed = 3,
        Idle = 4,  // not in a bootloader exchange
        // Probe only: the section answered AutoBaud from its bootloader and is left there.
        InBootloader = 5
    };

    static constexpr int kBlockSize = 64;
    static constexpr uint64_t kAutoUpdateDelayMs = 1000;
    // Bytes kept between calls. A status reply is at most 255 bytes long, so more than this
    // left over can only be line noise (or what followed a NotBootLoader answer); the oldest
    // of it is dropped so that a babbling section cannot grow the buffer without bound.
    static constexpr int kMaxPendingBytes = 1024;

    SectionUpdater(std::shared_ptr<ITaskPool> taskPool, std::shared_ptr<ISettings> settings,
                   std::shared_ptr<Logger> logger);
    ~SectionUpdater() override;

    SectionUpdater(const SectionUpdater&) = delete;
    SectionUpdater& operator=(const SectionUpdater&) = delete;

    bool isActive() const override;
    bool isUpdating() const override;
    // AutoBaud is out and unanswered.
    bool isProbing() const override;
    void start(ISectionUpdaterListener* listener) override;
    void dataReceived(const QByteArray& data) override;

    // The auto-update step, run by the pending StartAutoUpdateTask a second after the
    // bootloader acknowledged the reset.
    void runAutoUpdate();

    // Probe only (the bench tool's probe and monitor): a section found in its bootloader is
    // reported (state InBootloader, which still counts as active, so the link keeps its
    // bytes away from the frame parser) and neither updated nor reset. Off by default.
    void setProbeOnly(bool probeOnly) { m_probeOnly = probeOnly; }
    bool isProbeOnly() const { return m_probeOnly; }

    int32_t state() const { return m_state; }
    const BootloaderPacket& lastPacket() const { return m_lastPacket; }
    uint8_t resendCount() const { return m_resendCount; }
    // Received bytes not yet consumed (an incomplete status reply, or what followed a
    // NotBootLoader answer).
    int pendingByteCount() const { return m_buffer.size(); }
    bool hasPendingAutoUpdate() const { return m_autoUpdateTask != nullptr; }

private:
    void setState(int32_t state);
    void sendPacket(BootloaderPacket packet);
    void sendAutoBaud();
    void notifyProgress(uint8_t percent);
    void notifyFailed(int reason);

    void handleAck();
    void handleNak();
    void handleStatus(uint8_t status);
    void takeNextStep();
    void beginUpdate();
    void loadFirmware();
    void finish();
    void sendNextBlock();
    bool firmwareAtEnd() const;
    // Logs "<prefix><text>" at the level given, when the updater has a logger.
    void log(void (Logger::*level)(const QString&) const, const QString& text) const;

    std::shared_ptr<ITaskPool> m_taskPool;
    std::shared_ptr<ISettings> m_settings;
    std::shared_ptr<Logger> m_logger;
    bool m_updating = false;
    QByteArray m_buffer;
    QFile m_firmwareFile;
    ISectionUpdaterListener* m_listener = nullptr;
    BootloaderPacket m_lastPacket{BootloaderCommand::NoPacket};
    int32_t m_state = Idle;
    uint8_t m_resendCount = 0;
    std::shared_ptr<StartAutoUpdateTask> m_autoUpdateTask;
    bool m_probeOnly = false;

    // Guards dataReceived against being entered again from a listener call (an in-process
    // section may answer a packet synchronously): the nested call only appends, and the
    // running loop consumes the bytes in order.
    bool m_processing = false;
    // Bumped whenever start() clears the buffer, so a running loop knows its read position
    // no longer applies.
    uint64_t m_bufferGeneration = 0;
};

}  // namespace Velmora::Worksurface
