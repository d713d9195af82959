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
class AnswerWatchdogTask;
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
//
// With an update time-out (ISettings::updateTimeout() above 0, read when an update begins),
// an update whose bootloader sends no byte for that long, or whose line goes away
// (lineLost()), fails with StoppedAnswering. No Reset follows: the bootloader cannot hear
// it, and one heard late would start a half-written application. The section stays in its
// bootloader and the link probes it again, which runs the update again from its first
// block.
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
    void lineLost() override;

    // Names the section in the log line of an update that stopped answering.
    void setSectionIndex(uint8_t index) { m_sectionIndex = index; }

    // The auto-update step, run by the pending StartAutoUpdateTask a second after the
    // bootloader acknowledged the reset.
    void runAutoUpdate();
    // Run by the pending AnswerWatchdogTask: fails the update if the bootloader has not
    // answered for the update time-out, else looks again when it could have.
    void checkAnswerDeadline();

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
    // An update runs whose bootloader answered its AutoBaud, up to its Reset's
    // acknowledgement: a silence now is the bootloader's, not a probe's.
    bool isInUpdateExchange() const { return m_inExchange; }

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
    // Whether debug lines are written (formatting one is left out when they are not).
    bool debugOn() const;
    // Begins watching the bootloader's answers, when the update has a time-out.
    void watchAnswers();
    // Ends an update whose bootloader stopped answering: logs where and how long it waited
    // and fails with StoppedAnswering, without a Reset.
    void stopAnswered(const QString& what, int64_t waitedMs);
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
    uint8_t m_sectionIndex = 0;

    // The update time-out: whether the exchange is watched, since when nothing came, and
    // the pending look at it.
    bool m_inExchange = false;
    int64_t m_timeoutMs = 0;
    int64_t m_lastAnswerNs = 0;
    int64_t m_totalBlocks = 0;
    int64_t m_blocksSent = 0;
    std::shared_ptr<AnswerWatchdogTask> m_watchdogTask;

    // Guards dataReceived against being entered again from a listener call (an in-process
    // section may answer a packet synchronously): the nested call only appends, and the
    // running loop consumes the bytes in order.
    bool m_processing = false;
    // Bumped whenever start() clears the buffer, so a running loop knows its read position
    // no longer applies.
    uint64_t m_bufferGeneration = 0;
};

}  // namespace Velmora::Worksurface
