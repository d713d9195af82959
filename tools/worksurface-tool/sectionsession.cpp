#include "sectionsession.h"

#include "base/isettings.h"
#include "base/logger.h"
#include "namedserialconnection.h"
#include "portlock.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/serialmessagequeue.h"
#include "surface/messagecatalog.h"
#include "tappedserialconnection.h"
#include "tasks/monotonicclock.h"
#include "tasks/taskpool.h"
#include "toolsectionconnection.h"
#include "updater/isectionupdaterlistener.h"
#include "updater/sectionupdater.h"

using namespace Velmora::Worksurface;

SectionSession::SectionSession(uint8_t index, const QString& device,
                               std::shared_ptr<ISettings> settings, std::shared_ptr<TaskPool> pool,
                               std::shared_ptr<Logger> logger)
    : m_index(index),
      m_device(device),
      m_settings(std::move(settings)),
      m_pool(std::move(pool)),
      m_logger(std::move(logger)),
      m_decoder([this](const FrameDecoder::Event& event) {
          if (onTraffic) {
              onTraffic(MonotonicClock::nowNs(), true, event);
          }
      })
{}

SectionSession::~SectionSession()
{
    close();
    if (m_tap) {
        m_tap->onBytesReceived = nullptr;
        m_tap->onMessageSent = nullptr;
        m_tap->onPacketWritten = nullptr;
    }
    if (m_connection) {
        m_connection->onFailed = nullptr;
        m_connection->setStateListener(nullptr);
    }
}

bool SectionSession::open(bool probeOnly)
{
    m_root = std::make_shared<RootSerialMessageHandler>();
    // Not owned: the session outlives its link.
    m_root->addHandler(std::shared_ptr<ISerialMessageHandler>(std::shared_ptr<void>(), this));
    m_queue = std::make_shared<SerialMessageQueue>();
    // One device has many names (a symlink, /dev/serial/by-id, /dev/pts/N); the port is
    // opened, and so locked, under its real one, so two names cannot both open it. The name
    // is followed: a reopen finds the device it leads to then.
    m_serial = std::make_shared<NamedSerialConnection>(m_index, m_device);
    tapTheLine();

    auto updater = std::make_unique<SectionUpdater>(m_pool, m_settings, m_logger);
    updater->setSectionIndex(m_index);
    updater->setProbeOnly(probeOnly);
    m_updater = updater.get();
    m_connection = std::make_shared<ToolSectionConnection>(m_index, m_root, m_queue, m_tap, m_pool,
                                                           std::move(updater), m_logger);
    m_tap->setDataReceiver(m_connection.get());
    m_connection->setStateListener(this);
    m_connection->onFailed = [this](int reason) { updateFailed(reason); };
    if (m_reconnectMs > 0) {
        m_settings->setReconnectInterval(m_reconnectMs);
        m_connection->setReconnectSettings(m_settings);
    }

    m_lastActivityNs = MonotonicClock::nowNs();
    m_connection->open();
    return m_serial->isOpen();
}

void SectionSession::tapTheLine()
{
    m_tap = std::make_shared<TappedSerialConnection>(m_serial);
    m_tap->onBytesReceived = [this](const QByteArray& data) { bytesReceived(data); };
    m_tap->onMessageSent = [this](const SerialMessage& message) {
        m_lastActivityNs = MonotonicClock::nowNs();
        if (onTraffic) {
            FrameDecoder::Event event;
            event.bytes = encode(message);
            event.message = message;
            onTraffic(m_lastActivityNs, false, event);
        }
    };
    m_tap->onPacketWritten = [this](const BootloaderPacket& packet) {
        m_lastActivityNs = MonotonicClock::nowNs();
        m_lastPacketCommand = packet.command;
        if (packet.command == BootloaderCommand::GetStatus) {
            m_statusSniff.clear();
            m_lastStatus = -1;
        } else if (packet.command != BootloaderCommand::AutoBaud &&
                   packet.command != BootloaderCommand::CommandAck &&
                   packet.command != BootloaderCommand::CommandNak) {
            // The updater's own one-byte answers to a status packet are no command.
            m_lastDataCommand = packet.command;
        }
    };
    m_tap->setListenOnly(m_listenOnly);
}

void SectionSession::updateFailed(int reason)
{
    // Told before the updater sends its reset: the last packet is still the one that
    // failed.
    FailureDetail detail;
    detail.reason = reason;
    const bool statusError = reason == ISectionUpdaterListener::BootloaderErrorStatus;
    // A bootloader that stopped answering was last sent a command, perhaps followed by the
    // updater's own acknowledgement of a status reply.
    const bool byCommand = statusError || reason == ISectionUpdaterListener::StoppedAnswering;
    const uint8_t command = byCommand ? m_lastDataCommand : m_lastPacketCommand;
    detail.command = bootloaderCommandName(command);
    detail.status = statusError ? m_lastStatus : -1;
    const qint64 block =
        (command == BootloaderCommand::SendData) ? qMax<qint64>(0, m_blocks - 1) : m_blocks;
    detail.offset = block * SectionUpdater::kBlockSize;
    detail.blocksSent = m_blocks;
    if (m_failures.empty()) {
        m_failureDetail = detail;
    }
    m_failures.push_back(reason);
}

void SectionSession::close()
{
    if (m_connection) {
        m_connection->close();
    }
}

uint64_t SectionSession::reconnectAttempts() const
{
    return m_connection ? m_connection->reconnectAttempts() : 0;
}

bool SectionSession::serialIsOpen() const
{
    return m_serial && m_serial->isOpen();
}

QString SectionSession::serialError() const
{
    return m_serial ? m_serial->portError() : QString();
}

bool SectionSession::abortUpdate()
{
    // Only a section that is being written sits in its bootloader for sure: one still
    // being probed may be running its application, which a Reset packet would only confuse.
    if (!m_updater || !m_serial || !m_serial->isOpen() || !m_updater->isUpdating()) {
        return false;
    }
    // The updater goes no further; its bootloader is told to reset (its application
    // starts, or the bootloader again if the image is incomplete).
    m_updater->setProbeOnly(true);
    m_connection->onFailed = nullptr;
    m_tap->writeRaw(BootloaderPacket(BootloaderCommand::Reset));
    // Whatever the updater would send next (it still waits for the answer to its last
    // packet) stays off the line.
    m_tap->setListenOnly(true);
    return true;
}

void SectionSession::sendDirect(const SerialMessage& message)
{
    if (!m_tap || !m_serial || !m_serial->isOpen()) {
        return;
    }
    m_tap->sendMessage(message);
    m_tap->flush();
}

void SectionSession::setProbeOnly(bool probeOnly)
{
    if (m_updater) {
        m_updater->setProbeOnly(probeOnly);
    }
}

void SectionSession::flushTraffic()
{
    m_decoder.finish();
}

QString SectionSession::portError() const
{
    return m_serial ? PortLock::describe(m_device, m_serial->errorString()) : QString();
}

uint8_t SectionSession::linkState() const
{
    return m_connection ? m_connection->state() : static_cast<uint8_t>(ISectionConnection::Closed);
}

int32_t SectionSession::updaterState() const
{
    return m_updater ? m_updater->state() : static_cast<int32_t>(SectionUpdater::Idle);
}

bool SectionSession::updaterIsUpdating() const
{
    return m_updater && m_updater->isUpdating();
}

bool SectionSession::updaterHasPendingAutoUpdate() const
{
    return m_updater && m_updater->hasPendingAutoUpdate();
}

bool SectionSession::updaterInUpdateExchange() const
{
    return m_updater && m_updater->isInUpdateExchange();
}

ISerialMessageSender& SectionSession::sender()
{
    return *m_queue;
}

std::size_t SectionSession::queuedMessages() const
{
    return m_queue ? m_queue->size() : 0;
}

void SectionSession::bytesReceived(const QByteArray& data)
{
    m_lastActivityNs = MonotonicClock::nowNs();
    m_bytesReceived += data.size();
    // While the updater holds the line the bytes are its bootloader's answers, not frames;
    // the link gives them to the updater, and so they are not decoded here either. A
    // listener that sends nothing has no exchange: everything is decoded.
    if (!m_listenOnly && m_updater && m_updater->isActive()) {
        sniffStatus(data);
        bootloaderBytes(m_lastActivityNs, data);
        return;
    }
    m_decoder.feed(data);
}

void SectionSession::bootloaderBytes(qint64 nowNs, const QByteArray& data)
{
    if (!onTraffic) {
        return;
    }
    // While the probe waits for its answer, one NotBootLoader or CommandAck byte is the
    // answer; every other byte (a section still booting, a wrong baud rate, frames from a
    // section that missed the probe) reaches no one, and is shown. A section left in its
    // bootloader answers nothing the link asks for, so all it sends is shown.
    QByteArray noise;
    bool answered = false;
    const bool probing = m_updater->state() == SectionUpdater::Exchanging &&
                         m_lastPacketCommand == BootloaderCommand::AutoBaud;
    const auto flushNoise = [&] {
        if (!noise.isEmpty()) {
            FrameDecoder::Event event;
            event.bytes = noise;
            event.noise = true;
            onTraffic(nowNs, true, event);
            noise.clear();
        }
    };
    for (const char c : data) {
        const auto byte = static_cast<uint8_t>(c);
        if (probing && !answered &&
            (byte == BootloaderCommand::NotBootLoader || byte == BootloaderCommand::CommandAck)) {
            answered = true;
            flushNoise();
            continue;
        }
        noise.append(c);
    }
    flushNoise();
}

void SectionSession::sniffStatus(const QByteArray& data)
{
    // After GetStatus the bootloader acknowledges, then sends [3, checksum, status].
    if (m_lastPacketCommand != BootloaderCommand::GetStatus || m_lastStatus >= 0) {
        return;
    }
    for (const char c : data) {
        const auto byte = static_cast<uint8_t>(c);
        if (m_statusSniff.isEmpty() && byte != 3) {
            continue;
        }
        m_statusSniff.append(c);
        if (m_statusSniff.size() == 3) {
            if (m_statusSniff.at(1) == m_statusSniff.at(2)) {
                m_lastStatus = static_cast<uint8_t>(m_statusSniff.at(2));
                return;
            }
            m_statusSniff.clear();
        }
    }
}

void SectionSession::sectionStateChanged(uint8_t sectionIndex, uint8_t state)
{
    Q_UNUSED(sectionIndex);
    if (onLinkState) {
        onLinkState(MonotonicClock::nowNs(), state);
    }
}

void SectionSession::sectionUpdateProgress(uint8_t sectionIndex, uint8_t value)
{
    Q_UNUSED(sectionIndex);
    // The updater reports progress right after each packet that carries the image, and
    // once after announcing the transfer.
    if (m_lastPacketCommand == BootloaderCommand::SendData) {
        ++m_blocks;
    } else if (m_lastPacketCommand == BootloaderCommand::Download) {
        // A transfer begins (again, when the updater's own retry writes the image anew).
        ++m_updatePasses;
        m_blocks = 0;
        m_transferStartNs = MonotonicClock::nowNs();
    }
    m_percent = value;
    m_hasProgress = true;
}

void SectionSession::sentMessageCount(uint64_t count)
{
    Q_UNUSED(count);
}

bool SectionSession::handleMessage(const SerialMessage& message)
{
    if (!MessageCatalog::isControlReport(message, MessageCatalog::scopeFor(*m_settings, m_index))) {
        return false;
    }
    if (message.type == MessageType::Ping && message.payload.size() >= 3) {
        m_version = message.byteAt(1);
        m_temperature = message.byteAt(2);
        m_hasVersion = true;
    }
    return true;
}

void SectionSession::setLinkReady(bool ready)
{
    Q_UNUSED(ready);
}
