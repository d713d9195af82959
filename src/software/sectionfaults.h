#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <cstdint>

#include "software/softwarebootloader.h"
#include "tasks/clocktimer.h"

namespace Velmora::Worksurface {

// Everything a QML-played section does wrong on purpose, so that a console UI's "section
// lost", "not answering" and "updating firmware" screens can be rehearsed without hardware
// (docs/software-bootloader.md): it falls silent (`answering` false), its line is pulled
// out (`plugged` false), it sits in its serial bootloader and answers the updater's packets
// byte for byte, paced as on a 115200-baud line, and it is switched off and on again
// (powerCycle()). SectionControl owns one and shows its values as its own properties; at
// their defaults the section is a healthy one that answers everything.
class SectionFaults : public QObject
{
    Q_OBJECT

public:
    // The section's side of its line: where the bootloader's answers go, and who must hear
    // that the plug moved.
    class Line
    {
    public:
        virtual ~Line() = default;
        // The section index, for warnings.
        virtual uint8_t faultSectionIndex() const = 0;
        virtual void sendBootloaderAnswer(const QByteArray& bytes) = 0;
        virtual void plugMoved() = 0;
    };

    // How long a section is silent after power comes back, while it boots.
    static constexpr int kBootMs = 300;

    explicit SectionFaults(Line& line, QObject* parent = nullptr);

    // The values QML set.
    bool answering() const { return m_answering; }
    void setAnswering(bool answering);
    bool plugged() const { return m_plugged; }
    void setPlugged(bool plugged);
    bool bootloader() const { return m_inBootloader; }
    // Refused (with a warning) while the updater's exchange with the bootloader runs.
    void setBootloader(bool bootloader);
    int flashStatus() const { return m_bootloader.flashStatus(); }
    // A byte, 0..255; anything else is refused with a warning.
    void setFlashStatus(int status);
    int nakCount() const { return m_bootloader.nakCount(); }
    // 0 or more; a negative count is refused with a warning.
    void setNakCount(int count);
    int receivedBytes() const { return m_bootloader.image().size(); }
    QString imageCrc32() const { return m_bootloader.imageCrc32(); }

    // Off and on again: whatever is on the line is lost, the section is silent for kBootMs
    // while it boots, and comes back in its bootloader if its last update began and did not
    // end with a Reset (that bootloader then waits for an AutoBaud before it answers
    // anything), otherwise running its application. Again while booting: the boot starts over.
    void powerCycle();
    bool booting() const { return m_booting; }

    // What the software controller asks.
    // False also while booting: nothing on the line is heard.
    bool isAnswering() const { return m_answering && !m_booting; }
    bool isPlugged() const { return m_plugged; }
    bool isInBootloader() const { return m_inBootloader; }
    void bootloaderBytes(const QByteArray& bytes);
    void lineReset();

signals:
    void answeringChanged();
    void pluggedChanged();
    void bootloaderChanged();
    void flashStatusChanged();
    void nakCountChanged();
    void receivedBytesChanged();
    void imageCrc32Changed();

private:
    // One paced answer of the bootloader.
    struct PendingAnswer
    {
        QByteArray bytes;
        int delayMs;
        // The section leaves its bootloader once this answer (a Reset's ACK) is out.
        bool leaves;
    };
    // Sends the next paced bootloader answer.
    void deliverAnswer();
    void dropAnswers();
    void bootDone();
    // Emits the changes of nakCount, receivedBytes and imageCrc32 since they were last told.
    void notifyBootloaderChanges();
    // Whether the updater's exchange with this section's bootloader is running.
    bool updateRunning() const;
    void setInBootloader(bool inBootloader);
    void warn(const QString& text) const;

    Line& m_line;
    bool m_answering = true;
    bool m_plugged = true;
    bool m_inBootloader = false;
    // An update began (AutoBaud answered) and no Reset ended it: the flash holds part of an
    // image, so the section boots into its bootloader.
    bool m_updateUnfinished = false;
    bool m_booting = false;
    SoftwareBootloader m_bootloader;
    QList<PendingAnswer> m_pendingAnswers;
    int m_notifiedNakCount = 0;
    int m_notifiedReceivedBytes = 0;
    QString m_notifiedCrc;
    ClockTimer m_answerTimer;
    ClockTimer m_bootTimer;
};

}  // namespace Velmora::Worksurface
