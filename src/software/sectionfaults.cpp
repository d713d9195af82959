#include "software/sectionfaults.h"

#include <algorithm>

#include "base/logcategories.h"

namespace Velmora::Worksurface {

namespace {

// The serial line carries 11,520 bytes a second (115200 baud, 8N1): the bootloader's
// answers come as late as the bytes of the packet and of the answer would take on it.
constexpr int kLineBytesPerSecond = 11520;

int lineMs(int bytes)
{
    return std::max(1, (bytes * 1000 + kLineBytesPerSecond - 1) / kLineBytesPerSecond);
}

QString boolText(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

}  // namespace

SectionFaults::SectionFaults(Line& line, QObject* parent) : QObject(parent), m_line(line)
{
    // The pace is a few milliseconds per answer, on a precise timer.
    connect(&m_answerTimer, &ClockTimer::timeout, this, &SectionFaults::deliverAnswer);
    connect(&m_bootTimer, &ClockTimer::timeout, this, &SectionFaults::bootDone);
}

void SectionFaults::warn(const QString& text) const
{
    qCWarning(lcSoftware, "%s", qPrintable(text));
}

void SectionFaults::setAnswering(bool answering)
{
    if (answering == m_answering) {
        return;
    }
    m_answering = answering;
    if (!answering) {
        // A section that falls silent sends nothing more, not even what it was about to.
        dropAnswers();
        notifyBootloaderChanges();
    }
    emit answeringChanged();
}

bool SectionFaults::updateRunning() const
{
    return m_inBootloader && m_bootloader.isUpdating();
}

void SectionFaults::setPlugged(bool plugged)
{
    if (plugged == m_plugged) {
        return;
    }
    // Also in the middle of an update, as a cable can be: the section keeps what it
    // received and stays in its bootloader, and the plugin's update time-out or its
    // reconnection finds out.
    m_plugged = plugged;
    if (!plugged) {
        // Answers still on their way are lost with the cable; what the packets brought stays.
        dropAnswers();
    }
    m_line.plugMoved();
    notifyBootloaderChanges();
    emit pluggedChanged();
}

void SectionFaults::setBootloader(bool bootloader)
{
    if (bootloader == m_inBootloader) {
        return;
    }
    if (updateRunning()) {
        warn(QStringLiteral("SectionControl: section %1 is being updated; bootloader stays %2 "
                            "until the update ends")
                 .arg(static_cast<int>(m_line.faultSectionIndex()))
                 .arg(boolText(m_inBootloader)));
        return;
    }
    setInBootloader(bootloader);
}

void SectionFaults::setInBootloader(bool inBootloader)
{
    m_inBootloader = inBootloader;
    // Put there by hand, or run from its application: no update is under way.
    m_updateUnfinished = false;
    m_bootloader.abandonExchange();
    dropAnswers();
    emit bootloaderChanged();
}

void SectionFaults::setFlashStatus(int status)
{
    if (status < 0 || status > 255) {
        warn(QStringLiteral("SectionControl: flashStatus %1 is not a byte (0..255); it stays %2")
                 .arg(status)
                 .arg(m_bootloader.flashStatus()));
        return;
    }
    if (status == m_bootloader.flashStatus()) {
        return;
    }
    m_bootloader.setFlashStatus(static_cast<uint8_t>(status));
    emit flashStatusChanged();
}

void SectionFaults::setNakCount(int count)
{
    if (count < 0) {
        warn(QStringLiteral("SectionControl: nakCount %1 is negative; it stays %2")
                 .arg(count)
                 .arg(m_bootloader.nakCount()));
        return;
    }
    if (count == m_bootloader.nakCount()) {
        return;
    }
    m_bootloader.setNakCount(count);
    m_notifiedNakCount = count;
    emit nakCountChanged();
}

void SectionFaults::powerCycle()
{
    // The power is gone: nothing half-received or half-sent survives it.
    dropAnswers();
    m_bootloader.abandonExchange();
    m_booting = true;
    m_bootTimer.start(kBootMs);
    notifyBootloaderChanges();
}

void SectionFaults::bootDone()
{
    m_booting = false;
    const bool intoBootloader = m_inBootloader && m_updateUnfinished;
    if (!intoBootloader) {
        if (m_inBootloader) {
            setInBootloader(false);
        }
        return;
    }
    m_bootloader.awaitAutoBaud();
}

void SectionFaults::bootloaderBytes(const QByteArray& bytes)
{
    const SoftwareBootloader::Result result = m_bootloader.receive(bytes);
    if (m_bootloader.isUpdating()) {
        m_updateUnfinished = true;
    }
    if (result.answer.isEmpty()) {
        return;
    }
    // Answered once the packet and the answer would have crossed the line, from the timer:
    // never from inside the plugin's own write, which keeps the updater's exchange flat and
    // lets QML handlers of the changes below call anything.
    m_pendingAnswers.append(
        PendingAnswer{result.answer, lineMs(bytes.size() + result.answer.size()), result.left});
    if (!m_answerTimer.isActive()) {
        m_answerTimer.start(m_pendingAnswers.first().delayMs);
    }
}

void SectionFaults::notifyBootloaderChanges()
{
    if (m_bootloader.nakCount() != m_notifiedNakCount) {
        m_notifiedNakCount = m_bootloader.nakCount();
        emit nakCountChanged();
    }
    if (m_bootloader.image().size() != m_notifiedReceivedBytes) {
        m_notifiedReceivedBytes = m_bootloader.image().size();
        emit receivedBytesChanged();
    }
    const QString crc = m_bootloader.imageCrc32();
    if (crc != m_notifiedCrc) {
        m_notifiedCrc = crc;
        emit imageCrc32Changed();
    }
}

void SectionFaults::deliverAnswer()
{
    if (m_pendingAnswers.isEmpty()) {
        return;
    }
    const PendingAnswer answer = m_pendingAnswers.takeFirst();
    // What the packets changed shows before the plugin hears the answer. A handler may have
    // unplugged the section or ended its bootloader meanwhile: then the answer is dropped.
    notifyBootloaderChanges();
    if (!m_inBootloader || !m_plugged || !isAnswering()) {
        return;
    }
    // The plugin may write its next packet from inside this delivery; it is queued behind.
    m_line.sendBootloaderAnswer(answer.bytes);
    if (answer.leaves && m_inBootloader) {
        // Reset: the microcontroller starts its application.
        setInBootloader(false);
    }
    if (!m_pendingAnswers.isEmpty() && !m_answerTimer.isActive()) {
        m_answerTimer.start(m_pendingAnswers.first().delayMs);
    }
}

void SectionFaults::dropAnswers()
{
    m_pendingAnswers.clear();
    m_answerTimer.stop();
}

void SectionFaults::lineReset()
{
    m_bootloader.abandonExchange();
    dropAnswers();
}

}  // namespace Velmora::Worksurface
