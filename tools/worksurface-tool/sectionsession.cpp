#include "sectionsession.h"

#include "base/isettings.h"
#include "base/logger.h"
#include "serial/hardwareserialconnection.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/serialmessagequeue.h"
#include "surface/messagecatalog.h"
#include "tappedserialconnection.h"
#include "tasks/monotonicclock.h"
#include "tasks/taskpool.h"
#include "toolsectionconnection.h"
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
    m_serial = std::make_shared<HardwareSerialConnection>(m_index, m_device);
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
    };

    auto updater = std::make_unique<SectionUpdater>(m_pool, m_settings, m_logger);
    updater->setProbeOnly(probeOnly);
    m_updater = updater.get();
    m_connection = std::make_shared<ToolSectionConnection>(m_index, m_root, m_queue, m_tap, m_pool,
                                                           std::move(updater), m_logger);
    m_tap->setDataReceiver(m_connection.get());
    m_connection->setStateListener(this);
    m_connection->onFailed = [this](int reason) { m_failures.push_back(reason); };

    m_lastActivityNs = MonotonicClock::nowNs();
    m_connection->open();
    return m_serial->isOpen();
}

void SectionSession::close()
{
    if (m_connection) {
        m_connection->close();
    }
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
    return m_serial ? m_serial->errorString() : QString();
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
    // While the updater holds the line the bytes are its bootloader's answers, not frames;
    // the link gives them to the updater, and so they are not decoded here either.
    if (m_updater && m_updater->isActive()) {
        return;
    }
    m_decoder.feed(data);
}

void SectionSession::sectionStateChanged(uint8_t sectionIndex, uint8_t state)
{
    Q_UNUSED(sectionIndex);
    Q_UNUSED(state);
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
    if (!MessageCatalog::isControlReport(message)) {
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
