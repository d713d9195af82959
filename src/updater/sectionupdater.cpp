#include "updater/sectionupdater.h"

#include <utility>

#include "base/isettings.h"
#include "base/logcategories.h"
#include "base/logger.h"
#include "tasks/itaskpool.h"
#include "tasks/monotonicclock.h"
#include "updater/answerwatchdogtask.h"
#include "updater/isectionupdaterlistener.h"
#include "updater/startautoupdatetask.h"

namespace Velmora::Worksurface {

namespace {

const QString kPrefix = QStringLiteral("WS UPDATER: ");

uint8_t byteAt(const QByteArray& bytes, int index)
{
    return static_cast<uint8_t>(bytes.at(index));
}

void appendBigEndian32(QByteArray& bytes, uint32_t value)
{
    bytes.append(static_cast<char>((value >> 24) & 0xFF));
    bytes.append(static_cast<char>((value >> 16) & 0xFF));
    bytes.append(static_cast<char>((value >> 8) & 0xFF));
    bytes.append(static_cast<char>(value & 0xFF));
}

// Clears a flag on every way out of a scope, so a throwing listener cannot leave the
// updater believing it is still inside dataReceived.
class FlagGuard
{
public:
    explicit FlagGuard(bool& flag) : m_flag(flag) { m_flag = true; }
    ~FlagGuard() { m_flag = false; }
    FlagGuard(const FlagGuard&) = delete;
    FlagGuard& operator=(const FlagGuard&) = delete;

private:
    bool& m_flag;
};

}  // namespace

SectionUpdater::SectionUpdater(std::shared_ptr<ITaskPool> taskPool,
                               std::shared_ptr<ISettings> settings, std::shared_ptr<Logger> logger)
    : m_taskPool(std::move(taskPool)),
      m_settings(std::move(settings)),
      m_logger(logger ? logger->inCategory(lcUpdater()) : nullptr)
{}

// The pending auto-update task goes with the updater; the pool only holds it weakly and
// drops it without running it.
SectionUpdater::~SectionUpdater() = default;

bool SectionUpdater::isActive() const
{
    return m_state != Idle;
}

bool SectionUpdater::isUpdating() const
{
    return m_updating;
}

bool SectionUpdater::isProbing() const
{
    return m_state == Exchanging && m_lastPacket.command == BootloaderCommand::AutoBaud;
}

void SectionUpdater::start(ISectionUpdaterListener* listener)
{
    // A new exchange begins with its own probe: an auto-update step still waiting from the
    // last reset would follow it with a second AutoBaud. The pool holds the task only
    // weakly, so letting it go cancels it.
    m_autoUpdateTask.reset();
    m_inExchange = false;
    m_watchdogTask.reset();
    m_listener = listener;
    m_buffer.clear();
    ++m_bufferGeneration;
    m_updating = false;
    if (m_firmwareFile.isOpen()) {
        m_firmwareFile.close();
    }
    sendAutoBaud();
}

void SectionUpdater::dataReceived(const QByteArray& data)
{
    // Any byte, even one that is skipped, shows that the bootloader is still there.
    m_lastAnswerNs = MonotonicClock::nowNs();
    m_buffer.append(data);
    if (m_processing) {
        // Entered again from a listener call: the loop below is still running and takes
        // these bytes in their turn.
        return;
    }
    FlagGuard processing(m_processing);

    // The loop reads by position and removes what it consumed once at the end: noise is
    // skipped byte by byte, and removing each byte from the front would make that quadratic.
    uint64_t generation = m_bufferGeneration;
    int pos = 0;
    bool stop = false;
    while (!stop && pos < m_buffer.size()) {
        const uint8_t b = byteAt(m_buffer, pos);
        switch (b) {
            case 0x00:
                // The bootloader pads with zeros; they carry nothing.
                ++pos;
                break;
            case BootloaderCommand::CommandNak:
                ++pos;
                handleNak();
                break;
            case BootloaderCommand::NotBootLoader:
                // The section runs its application: the exchange is over. Whatever came
                // after the answer is left for the next call.
                ++pos;
                log(&Logger::info, QStringLiteral("Received not in bootloader. Finished updating"));
                m_inExchange = false;
                m_watchdogTask.reset();
                setState(Idle);
                stop = true;
                break;
            case BootloaderCommand::CommandAck:
                ++pos;
                handleAck();
                break;
            default: {
                if (m_lastPacket.command == BootloaderCommand::AutoBaud) {
                    // Until the bootloader has locked onto the baud rate it may echo noise.
                    ++pos;
                    break;
                }
                // A size byte: size, checksum, status and any further bytes, the size byte
                // counting itself.
                const int length = b - 1;
                const int available = m_buffer.size() - pos - 1;
                if (length > available) {
                    // Incomplete: keep the size byte in front and wait for the rest.
                    stop = true;
                    break;
                }
                ++pos;
                if (length < 2) {
                    log(&Logger::warning,
                        QStringLiteral("Invalid message lenght < 2. Skipping data."));
                    break;
                }
                const uint8_t checksum = byteAt(m_buffer, pos);
                uint8_t sum = 0;
                for (int i = 1; i < length; ++i) {
                    sum = static_cast<uint8_t>(sum + byteAt(m_buffer, pos + i));
                }
                if (checksum != sum) {
                    // Resynchronise on the byte after the size byte.
                    log(&Logger::warning, QStringLiteral("Invalid checksum skipping byte."));
                    break;
                }
                const uint8_t status = byteAt(m_buffer, pos + 1);
                pos += length;
                handleStatus(status);
                break;
            }
        }
        if (generation != m_bufferGeneration) {
            // A listener call restarted the updater, which cleared the buffer: what is in it
            // now is new and is read from its start.
            generation = m_bufferGeneration;
            pos = 0;
        }
    }

    m_buffer.remove(0, pos);
    if (m_buffer.size() > kMaxPendingBytes) {
        m_buffer.remove(0, m_buffer.size() - kMaxPendingBytes);
    }
}

void SectionUpdater::runAutoUpdate()
{
    log(&Logger::debug, QStringLiteral("Run auto updater task after timeout."));
    // Released here, but destroyed only on the way out: this runs inside the task's own run.
    const std::shared_ptr<StartAutoUpdateTask> finished = std::move(m_autoUpdateTask);
    sendAutoBaud();
}

void SectionUpdater::lineLost()
{
    if (!m_inExchange) {
        return;
    }
    stopAnswered(QStringLiteral("lost its line"),
                 (MonotonicClock::nowNs() - m_lastAnswerNs) / kNsPerMs);
}

void SectionUpdater::watchAnswers()
{
    m_watchdogTask.reset();
    if (m_timeoutMs <= 0 || !m_taskPool) {
        return;
    }
    m_watchdogTask = std::make_shared<AnswerWatchdogTask>(this);
    m_taskPool->scheduleOnce(static_cast<uint64_t>(m_timeoutMs), m_watchdogTask);
}

void SectionUpdater::checkAnswerDeadline()
{
    // Released here, but destroyed only on the way out: this runs inside the task's own run.
    const std::shared_ptr<AnswerWatchdogTask> finished = std::move(m_watchdogTask);
    if (!m_inExchange) {
        return;
    }
    const int64_t waitedNs = MonotonicClock::nowNs() - m_lastAnswerNs;
    const int64_t timeoutNs = m_timeoutMs * kNsPerMs;
    if (waitedNs >= timeoutNs) {
        stopAnswered(QStringLiteral("stopped answering"), waitedNs / kNsPerMs);
        return;
    }
    // Something came meanwhile: look again when the time-out could have passed since.
    m_watchdogTask = std::make_shared<AnswerWatchdogTask>(this);
    m_taskPool->scheduleOnce(
        static_cast<uint64_t>((timeoutNs - waitedNs + kNsPerMs - 1) / kNsPerMs), m_watchdogTask);
}

void SectionUpdater::stopAnswered(const QString& what, int64_t waitedMs)
{
    const QString awaited = m_state == WaitingForStatus
                                ? QStringLiteral("the status")
                                : bootloaderCommandName(m_lastPacket.command);
    log(&Logger::warning,
        QStringLiteral("Section %1 %2 at block %3 of %4 (waiting for %5): nothing received for "
                       "%6 ms. Update failed.")
            .arg(static_cast<unsigned>(m_sectionIndex))
            .arg(what)
            .arg(m_blocksSent)
            .arg(m_totalBlocks)
            .arg(awaited)
            .arg(waitedMs));
    m_inExchange = false;
    m_watchdogTask.reset();
    // Told while the update still counts as running, so the link does not take its end
    // for a success.
    notifyFailed(ISectionUpdaterListener::StoppedAnswering);
    if (m_firmwareFile.isOpen()) {
        m_firmwareFile.close();
    }
    m_updating = false;
    m_lastPacket = BootloaderPacket(BootloaderCommand::NoPacket);
    m_buffer.clear();
    ++m_bufferGeneration;
    setState(Failed);
}

void SectionUpdater::setState(int32_t state)
{
    if (state == m_state) {
        return;
    }
    m_state = state;
    if (m_listener) {
        m_listener->updaterStateChanged();
    }
}

// Every packet that expects an acknowledgement goes through here: it becomes the packet a
// NAK resends and an ACK refers to. Without a listener there is no line to write to; the
// packet is still recorded so that the exchange's bookkeeping stays the same.
void SectionUpdater::sendPacket(BootloaderPacket packet)
{
    m_lastPacket = packet;
    setState(Exchanging);
    if (m_listener) {
        m_listener->sendBootloaderPacket(packet);
    }
}

// AutoBaud opens an exchange; with nobody to send it there is no exchange to open, so the
// updater stays as it is (idle until start gives it a listener).
void SectionUpdater::sendAutoBaud()
{
    if (!m_listener) {
        return;
    }
    sendPacket(BootloaderPacket(BootloaderCommand::AutoBaud));
}

void SectionUpdater::notifyProgress(uint8_t percent)
{
    if (m_listener) {
        m_listener->updateProgress(percent);
    }
}

void SectionUpdater::notifyFailed(int reason)
{
    if (m_listener) {
        m_listener->failed(reason);
    }
}

void SectionUpdater::handleAck()
{
    m_resendCount = 0;
    if (m_state != Exchanging) {
        return;
    }
    const uint8_t command = m_lastPacket.command;
    m_lastPacket = BootloaderPacket(BootloaderCommand::NoPacket);
    switch (command) {
        case BootloaderCommand::Ping:
            log(&Logger::debug, QStringLiteral("Ping acknowledged start firmware load."));
            takeNextStep();
            break;
        case BootloaderCommand::GetStatus:
            log(&Logger::debug,
                QStringLiteral("Status message acknowledged. Waiting status reply."));
            setState(WaitingForStatus);
            break;
        case BootloaderCommand::Reset:
            log(&Logger::debug,
                QStringLiteral("Reset acknowledged register task for sending AutoBaud."));
            // The bootloader has done its part; the next probe is no update yet.
            m_inExchange = false;
            m_watchdogTask.reset();
            m_autoUpdateTask = std::make_shared<StartAutoUpdateTask>(this);
            if (m_taskPool) {
                m_taskPool->scheduleOnce(kAutoUpdateDelayMs, m_autoUpdateTask);
            }
            break;
        case BootloaderCommand::AutoBaud:
            if (m_probeOnly) {
                // The section sits in its bootloader; a probe leaves it exactly there.
                setState(InBootloader);
                break;
            }
            log(&Logger::info, QStringLiteral("Starting WS update"));
            m_inExchange = true;
            m_timeoutMs = m_settings ? m_settings->updateTimeout() : 0;
            watchAnswers();
            beginUpdate();
            break;
        default:
            // Download and SendData; also an ACK with nothing pending, which asks for the
            // status all the same.
            log(&Logger::debug, QStringLiteral("Message acknowledged requesting status."));
            sendPacket(BootloaderPacket(BootloaderCommand::GetStatus));
            break;
    }
}

void SectionUpdater::handleNak()
{
    if (m_state != Exchanging) {
        return;
    }
    const uint8_t maxResends = m_settings ? m_settings->maxResendCount() : 0;
    if (m_resendCount < maxResends) {
        log(&Logger::info, QStringLiteral("TIVA requests resending of last message."));
        ++m_resendCount;
        sendPacket(m_lastPacket);
        return;
    }
    setState(Failed);
    log(&Logger::critical, QStringLiteral("Update failed. Unable to send message after %1 retries")
                               .arg(static_cast<unsigned>(m_resendCount)));
    notifyFailed(ISectionUpdaterListener::ResendsExhausted);
    finish();
}

void SectionUpdater::handleStatus(uint8_t status)
{
    // The acknowledgement of a status reply is an answer, not a packet of the exchange: it
    // expects nothing back, so it neither becomes the last packet nor changes the state
    // (the state decides below what the reply means).
    if (m_listener) {
        m_listener->sendBootloaderPacket(BootloaderPacket(BootloaderCommand::CommandAck));
    }
    if (debugOn()) {
        log(&Logger::debug,
            QStringLiteral("Received status message: %1.").arg(bootloaderCommandName(status)));
    }
    if (m_state != WaitingForStatus) {
        return;
    }
    if (status == BootloaderCommand::Success) {
        takeNextStep();
        return;
    }
    setState(Failed);
    log(&Logger::critical, QStringLiteral("Update aborted. Updater received error %1")
                               .arg(bootloaderCommandName(status)));
    notifyFailed(ISectionUpdaterListener::BootloaderErrorStatus);
    finish();
}

void SectionUpdater::takeNextStep()
{
    if (!m_firmwareFile.isOpen()) {
        loadFirmware();
    } else if (!firmwareAtEnd()) {
        sendNextBlock();
    } else {
        finish();
    }
}

void SectionUpdater::beginUpdate()
{
    // An auto-update step that overtook a running update starts the image over.
    if (m_firmwareFile.isOpen()) {
        m_firmwareFile.close();
    }
    m_firmwareFile.setFileName(m_settings ? m_settings->firmwarePath() : QString());
    if (m_firmwareFile.exists()) {
        m_totalBlocks = (m_firmwareFile.size() + kBlockSize - 1) / kBlockSize;
        m_blocksSent = 0;
        log(&Logger::info,
            QStringLiteral("Updating WS code from file: %1").arg(m_firmwareFile.fileName()));
        m_updating = true;
        sendPacket(BootloaderPacket(BootloaderCommand::Ping));
        return;
    }
    log(&Logger::warning,
        QStringLiteral("Unable to update the worksurface from file: %1. The file does not exist.")
            .arg(m_firmwareFile.fileName()));
    setState(Failed);
    notifyFailed(ISectionUpdaterListener::FirmwareFileError);
    finish();
}

void SectionUpdater::loadFirmware()
{
    // Unbuffered, so that every block is read from the file as it is at that moment: a
    // read-ahead buffer would keep sending bytes of a file that was cut short meanwhile.
    if (!m_firmwareFile.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        setState(Failed);
        log(&Logger::critical,
            QStringLiteral("Update error. Unable to open the firmware file for reading"));
        notifyFailed(ISectionUpdaterListener::FirmwareFileError);
        finish();
        return;
    }
    const qint64 size = m_firmwareFile.size();
    log(&Logger::debug, QStringLiteral("Start loading firmware file of %1 bytes.").arg(size));
    // The bootloader erases and writes whole blocks; the last one is padded.
    const qint64 blocks = (size + kBlockSize - 1) / kBlockSize;
    const qint64 transferSize = blocks * kBlockSize;
    m_totalBlocks = blocks;
    m_blocksSent = 0;
    QByteArray payload;
    payload.reserve(8);
    appendBigEndian32(payload, 0);
    // The bootloader's field is 32 bits wide; no flash it serves comes near that.
    appendBigEndian32(payload, static_cast<uint32_t>(transferSize));
    sendPacket(BootloaderPacket(BootloaderCommand::Download, payload));
    notifyProgress(0);
}

void SectionUpdater::finish()
{
    if (m_firmwareFile.isOpen()) {
        m_firmwareFile.close();
    }
    m_updating = false;
    log(&Logger::debug, QStringLiteral("Finished updating. Reseting the microcontroller."));
    sendPacket(BootloaderPacket(BootloaderCommand::Reset));
}

void SectionUpdater::sendNextBlock()
{
    char data[kBlockSize];
    const qint64 read = m_firmwareFile.isOpen() ? m_firmwareFile.read(data, kBlockSize) : -1;
    if (read < 0) {
        // A file that cannot be read from is as good as one that is not open.
        if (m_firmwareFile.isOpen()) {
            m_firmwareFile.close();
        }
        setState(Failed);
        log(&Logger::critical,
            QStringLiteral("Update error. Unable to read from file. The file is not open."));
        notifyFailed(ISectionUpdaterListener::FirmwareFileError);
        finish();
        return;
    }
    QByteArray block(data, static_cast<int>(read));
    block.append(QByteArray(kBlockSize - static_cast<int>(read), static_cast<char>(0xFF)));
    ++m_blocksSent;
    sendPacket(BootloaderPacket(BootloaderCommand::SendData, block));

    // The end as firmwareAtEnd() sees it, with one look at the size (the file is unbuffered:
    // each look is a system call); it keeps the division below away from a zero size.
    const qint64 position = m_firmwareFile.pos();
    const qint64 size = m_firmwareFile.size();
    if (position >= size) {
        notifyProgress(100);
        log(&Logger::debug, QStringLiteral("Firmware file loaded."));
        return;
    }
    const auto percent = static_cast<uint8_t>(position * 100 / size);
    notifyProgress(percent);
    // Every 64 bytes of an image: formatted only when it is going to be written.
    if (debugOn()) {
        log(&Logger::debug, QStringLiteral("Downloaded %1 of %2 bytes (%3%).")
                                .arg(position)
                                .arg(size)
                                .arg(static_cast<unsigned>(percent)));
    }
}

// Also true when the read position has passed the size: a file cut short while it is being
// sent ends the image there instead of sending padding for ever.
bool SectionUpdater::firmwareAtEnd() const
{
    return m_firmwareFile.pos() >= m_firmwareFile.size();
}

bool SectionUpdater::debugOn() const
{
    return m_logger && m_logger->debugOn();
}

void SectionUpdater::log(void (Logger::*level)(const QString&) const, const QString& text) const
{
    // Without a logger (as in tests of the exchange alone) the updater is silent. Debug
    // lines come with every block of an image; the prefix is not put on one that is not
    // written.
    if (m_logger && (level != &Logger::debug || debugOn())) {
        ((*m_logger).*level)(kPrefix + text);
    }
}

}  // namespace Velmora::Worksurface
