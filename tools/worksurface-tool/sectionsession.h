#pragma once

#include <QString>
#include <QtGlobal>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "framedecoder.h"
#include "serial/isectionstatelistener.h"
#include "serial/iserialmessagehandler.h"

namespace Velmora::Worksurface {
class ISettings;
class ISerialMessageSender;
class Logger;
class RootSerialMessageHandler;
class SectionUpdater;
class SerialMessageQueue;
class TaskPool;
}  // namespace Velmora::Worksurface

class NamedSerialConnection;
class TappedSerialConnection;
class ToolSectionConnection;

// One section's link, wired the way the plugin wires it (serial port, firmware updater,
// section connection with its 50 ms supervision task, outgoing queue, root handler), with
// the tool watching: it sees the section's version report, the updater's progress and
// failures, the link's state and every frame in and out.
//
// The root handler gets one handler, this session, which takes the section's version
// report and every report of a control the device-id table knows, as the section and its
// components would; the link's own messages stay the link's.
class SectionSession : public Velmora::Worksurface::ISectionStateListener,
                       public Velmora::Worksurface::ISerialMessageHandler
{
public:
    // Every frame in (decoded with the link's parser, while the parser is the one that gets
    // the bytes) and out, and the noise the parser discards, with the time it was seen.
    std::function<void(qint64 nowNs, bool incoming, const FrameDecoder::Event&)> onTraffic;
    // Every change of the link's state (ISectionConnection's values), as the link tells it.
    std::function<void(qint64 nowNs, uint8_t state)> onLinkState;

    // What went wrong in a failed update, as far as the line shows it.
    struct FailureDetail
    {
        int reason = -1;
        QString command;        // the refused command, or the one the error status answered
        int status = -1;        // the bootloader's status byte, for an error status
        qint64 offset = 0;      // image offset of the block in question
        qint64 blocksSent = 0;  // blocks written before the failure
    };

    SectionSession(uint8_t index, const QString& device,
                   std::shared_ptr<Velmora::Worksurface::ISettings> settings,
                   std::shared_ptr<Velmora::Worksurface::TaskPool> pool,
                   std::shared_ptr<Velmora::Worksurface::Logger> logger);
    ~SectionSession() override;

    SectionSession(const SectionSession&) = delete;
    SectionSession& operator=(const SectionSession&) = delete;

    uint8_t index() const { return m_index; }
    const QString& device() const { return m_device; }

    // Opens the line and starts the link: the updater's bootloader probe first. With
    // probeOnly a section found in its bootloader is left there (no update, no reset).
    // False when the port could not be opened (see portError()).
    bool open(bool probeOnly);
    void close();
    // Before open(): the link re-probes a section that has not answered, and reopens a
    // device that went away, every intervalMs (0: never, the plugin's default).
    void setReconnectIntervalMs(int intervalMs) { m_reconnectMs = intervalMs; }
    // Before open(): nothing is written to the section; every received byte is decoded.
    void setListenOnly(bool listenOnly) { m_listenOnly = listenOnly; }
    // The port is open now (false once its device went away).
    bool serialIsOpen() const;
    // Why the device last failed to open or stay open ("Device gone: ...").
    QString serialError() const;
    // Received bytes of any kind so far.
    qint64 bytesReceivedCount() const { return m_bytesReceived; }
    // How often the link has probed again for a section that did not answer.
    uint64_t reconnectAttempts() const;
    // Ends an update early (Ctrl-C during flash): the section is told to reset, which takes
    // it out of its bootloader, and nothing the updater would send next reaches the line.
    // Returns whether a reset was sent (only while an update runs).
    bool abortUpdate();
    // Sends one message at once, bypassing the queue (the LEDs off after an interrupted
    // exercise).
    void sendDirect(const Velmora::Worksurface::SerialMessage& message);
    // See SectionUpdater::setProbeOnly(): from now on a section found in its bootloader is
    // left there.
    void setProbeOnly(bool probeOnly);
    // End of the traffic: received bytes that never completed a frame are reported as
    // noise.
    void flushTraffic();
    QString portError() const;

    uint8_t linkState() const;
    int32_t updaterState() const;
    bool updaterIsUpdating() const;
    bool updaterHasPendingAutoUpdate() const;
    // An update runs whose bootloader answered: its own time-out watches the section.
    bool updaterInUpdateExchange() const;

    bool hasVersion() const { return m_hasVersion; }
    int version() const { return m_version; }
    int temperature() const { return m_temperature; }
    void forgetVersion() { m_hasVersion = false; }

    // Updater failures, in order (reasons as the updater reports them).
    const std::vector<int>& failures() const { return m_failures; }
    const FailureDetail& failureDetail() const { return m_failureDetail; }
    // How many times a transfer of the image began (the updater updates again when the
    // section is still in its bootloader a second after the reset).
    int updatePasses() const { return m_updatePasses; }
    // The updater's last progress, and the 64-byte blocks sent in the current pass.
    int percent() const { return m_percent; }
    qint64 blocksSent() const { return m_blocks; }
    bool hasProgress() const { return m_hasProgress; }
    // Monotonic time at which the current transfer was announced.
    qint64 transferStartNs() const { return m_transferStartNs; }
    // Monotonic time of the last byte in or out.
    qint64 lastActivityNs() const { return m_lastActivityNs; }

    // Where the exercise pattern goes: the link drains it while the section answers.
    Velmora::Worksurface::ISerialMessageSender& sender();
    // Messages still queued for the section.
    std::size_t queuedMessages() const;

    // ISectionStateListener
    void sectionStateChanged(uint8_t sectionIndex, uint8_t state) override;
    void sectionUpdateProgress(uint8_t sectionIndex, uint8_t value) override;
    void sentMessageCount(uint64_t count) override;

    // ISerialMessageHandler
    bool handleMessage(const Velmora::Worksurface::SerialMessage& message) override;
    void setLinkReady(bool ready) override;

private:
    // The tap between the link and the port: what goes out and comes in is seen here.
    void tapTheLine();
    // The updater failed (its reasons); what the line showed of it is kept.
    void updateFailed(int reason);
    void bytesReceived(const QByteArray& data);
    // Bytes that reach the updater, not the parser: its answers are its own, the rest is
    // shown as noise.
    void bootloaderBytes(qint64 nowNs, const QByteArray& data);
    void sniffStatus(const QByteArray& data);

    const uint8_t m_index;
    const QString m_device;
    std::shared_ptr<Velmora::Worksurface::ISettings> m_settings;
    std::shared_ptr<Velmora::Worksurface::TaskPool> m_pool;
    std::shared_ptr<Velmora::Worksurface::Logger> m_logger;
    std::shared_ptr<Velmora::Worksurface::RootSerialMessageHandler> m_root;
    std::shared_ptr<Velmora::Worksurface::SerialMessageQueue> m_queue;
    std::shared_ptr<NamedSerialConnection> m_serial;
    std::shared_ptr<TappedSerialConnection> m_tap;
    Velmora::Worksurface::SectionUpdater* m_updater = nullptr;  // owned by m_connection
    std::shared_ptr<ToolSectionConnection> m_connection;
    FrameDecoder m_decoder;

    bool m_hasVersion = false;
    int m_version = 0;
    int m_temperature = 0;
    std::vector<int> m_failures;
    int m_updatePasses = 0;
    int m_percent = 0;
    bool m_hasProgress = false;
    qint64 m_blocks = 0;
    qint64 m_transferStartNs = 0;
    uint8_t m_lastPacketCommand = 0;
    uint8_t m_lastDataCommand = 0;  // the last packet that a status check is about
    qint64 m_lastActivityNs = 0;
    int m_reconnectMs = 0;
    bool m_listenOnly = false;
    qint64 m_bytesReceived = 0;
    QByteArray m_statusSniff;
    int m_lastStatus = -1;
    FailureDetail m_failureDetail;
};
