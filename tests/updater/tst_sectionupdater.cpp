#include <unistd.h>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest/QtTest>
#include <memory>

#include "base/logger.h"
#include "base/settings.h"
#include "support/fakesettings.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/recordingupdaterlistener.h"
#include "tasks/taskpool.h"
#include "updater/bootloaderpacket.h"
#include "updater/sectionupdater.h"

using namespace Velmora::Worksurface;
using Packet = BootloaderPacket;

namespace {

const QByteArray kAck = QByteArray::fromHex("cc");
const QByteArray kNak = QByteArray::fromHex("33");
const QByteArray kNotBootLoader = QByteArray::fromHex("aa");

// A status reply as the bootloader frames it: size 3, checksum, status.
QByteArray statusReply(uint8_t status)
{
    QByteArray bytes;
    bytes.append(char(3));
    bytes.append(static_cast<char>(status));
    bytes.append(static_cast<char>(status));
    return bytes;
}

// Image bytes that differ from their neighbours and from the 0xFF padding.
QByteArray imageOfSize(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 7 + 3) % 251);
    }
    return bytes;
}

QString sendEvent(const Packet& packet)
{
    return QStringLiteral("send ") + QString::fromLatin1(encodeBootloaderPacket(packet).toHex());
}

QString sendHex(const char* text)
{
    return QStringLiteral("send ") + QLatin1String(text);
}

// What a healthy bootloader did with one update, gathered while answering it.
struct Transfer
{
    QByteArray download;  // the Download payload
    QByteArray written;   // every SendData payload, in order
    int blocks = 0;
    QList<uint8_t> progress;
    bool progressMonotonic = true;
    bool endedWithReset = false;
};

}  // namespace

class tst_SectionUpdater : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // Start-up and the shape of one exchange.
    void startSendsAutoBaudAndEntersExchanging();
    void startWithoutListenerSendsNothingAndStaysIdle();
    void completeExchangeForAHundredByteImage();
    void hundredByteImageIsAnnouncedAs128BytesAndSentAsTwoPaddedBlocks();
    void completeExchangeForA256KiBImage();
    void sixteenMiBImageIsSentCompletelyWithMonotonicProgress();
    void resetAckSchedulesAutoBaudAtTheFirstTickAfter1000Ms();
    void startDuringTheWaitAfterTheResetCancelsTheWaitingAutoBaud();
    void probingIsAnUnansweredAutoBaudOnly();
    void autoBaudAcknowledgedAgainUpdatesAgain();
    void notBootLoaderEndsInIdleWithInfoLine();
    void notBootLoaderLeavesLaterBytesInTheBuffer();
    void inProcessSectionAnsweringAtOnceCompletesTheUpdate();
    void destroyedUpdaterDropsItsPendingAutoUpdate();
    void startDuringAnUpdateClosesTheImageAndStartsOver();
    void probeOnlyLeavesASectionInItsBootloaderWithoutSendingMore();
    void probeOnlyEndsInIdleWhenTheApplicationAnswers();

    // Acknowledgements and resends.
    void nakIsAnsweredByResendingTheLastPacketUnchanged();
    void nakBeyondTheResendLimitFailsWithReasonOneAndResets();
    void ackBetweenNaksResetsTheResendCount();
    void ackOutsideExchangingOnlyResetsTheResendCount();
    void nakOutsideExchangingIsIgnored();
    void ackWithNothingPendingRequestsStatus();
    void nakWithNothingPendingResendsThePlaceholder();
    void stateChangesNotifyOnlyOnARealChange();

    // Status replies.
    void statusOtherThanSuccessAbortsWithReasonTwo_data();
    void statusOtherThanSuccessAbortsWithReasonTwo();
    void statusReplyIsAnsweredWithASingleAck();
    void statusReplyOutsideWaitingIsOnlyAcknowledged();

    // Firmware file problems.
    void missingFirmwareFileFailsWithReasonZero();
    void emptyFirmwarePathFailsAsAMissingFile();
    void unreadableFirmwareFileFailsToOpen();
    void directoryInPlaceOfTheFirmwareFailsToOpen();
    void emptyFirmwareFileAnnouncesNothingAndResets();
    void firmwareFileRemovedMidUpdateIsStillSentCompletely();
    void firmwareFileCutShortMidUpdateEndsTheImageThere();

    // Received bytes.
    void bytesDuringAutoBaudAreDiscardedExceptTheFourCodes_data();
    void bytesDuringAutoBaudAreDiscardedExceptTheFourCodes();
    void sizeByteAnnouncingMoreThanArrivedLeavesTheBufferUntouched();
    void sizeByteTwoWithoutItsByteWaits();
    void lengthBelowTwoIsSkippedWithWarning();
    void badChecksumSkipsOnlyTheSizeByteWithWarning();
    void zeroBytesAreIgnored();
    void dataBeforeStartIsHandledWithoutListener();
    void garbageNeverGrowsTheBufferWithoutBound();
    void randomBytesInEveryStateAreAlwaysConsumed();

    // The update time-out: a bootloader that stops answering, a line that goes away.
    void withoutATimeOutASilentBootloaderIsWaitedForForEver();
    void silentBootloaderFailsTheUpdateWithReasonThreeWithoutAReset();
    void everyByteFromTheBootloaderPushesTheTimeOutBack();
    void silenceWaitingForTheStatusNamesTheStatus();
    void silenceWaitingForTheResetAcknowledgementFailsToo();
    void theTimeOutIsReadWhenAnUpdateBegins();
    void anUnansweredProbeIsNoUpdate();
    void silenceAfterTheAcknowledgedResetIsNoUpdate();
    void lineLostEndsTheUpdateAtOnce();
    void lineLostOutsideAnUpdateChangesNothing();
    void afterReasonThreeTheNextStartUpdatesFromTheFirstBlock();

    // With the real settings' firmware lookup.
    void realSettingsFindTheImageInTheHomeFolder();
    void realSettingsFallBackToTheBuiltInImage();

private:
    void feed(const QByteArray& bytes) { m_updater->dataReceived(bytes); }
    void ack() { feed(kAck); }
    void tickAt(qint64 ns)
    {
        m_clock->setNs(ns);
        m_pool->runPendingTasks();
    }
    QString writeFirmware(const QByteArray& content);
    // start, then acknowledge AutoBaud: the updater has asked for the file and sent Ping.
    void startAndAcknowledgeAutoBaud();
    // Answers every packet as a healthy bootloader would until the updater sends Reset.
    // With keepRecords false the listener is emptied as it goes (for huge images).
    Transfer answerUntilReset(bool keepRecords = true, int maxRounds = 1000000);
    // Runs an update of `content` to the point where the next reply is the status after
    // the GetStatus that follows the first SendData.
    void runToWaitingForFirstBlockStatus(const QByteArray& content);

    std::unique_ptr<ManualClock> m_clock;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::shared_ptr<FakeSettings> m_settings;
    std::shared_ptr<Logger> m_logger;
    std::shared_ptr<TaskPool> m_pool;
    std::unique_ptr<SectionUpdater> m_updater;
    std::unique_ptr<RecordingUpdaterListener> m_listener;
};

void tst_SectionUpdater::init()
{
    m_clock = std::make_unique<ManualClock>(1000 * kMs);
    m_log = std::make_unique<LogCapture>();
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_settings = std::make_shared<FakeSettings>();
    m_settings->setMaxResendCount(5);
    m_logger = std::make_shared<Logger>(m_settings);
    m_pool = std::make_shared<TaskPool>();
    m_updater = std::make_unique<SectionUpdater>(m_pool, m_settings, m_logger);
    m_listener = std::make_unique<RecordingUpdaterListener>();
    m_listener->setUpdater(m_updater.get());
}

void tst_SectionUpdater::cleanup()
{
    m_updater.reset();
    m_listener.reset();
    m_pool.reset();
    m_logger.reset();
    m_settings.reset();
    m_dir.reset();
    m_log.reset();
    m_clock.reset();
}

QString tst_SectionUpdater::writeFirmware(const QByteArray& content)
{
    const QString path = m_dir->filePath(QStringLiteral("worksurface.bin"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        file.write(content) != content.size()) {
        qFatal("cannot write the test image");
    }
    file.close();
    m_settings->setFirmwarePath(path);
    return path;
}

void tst_SectionUpdater::startAndAcknowledgeAutoBaud()
{
    m_updater->start(m_listener.get());
    ack();
}

Transfer tst_SectionUpdater::answerUntilReset(bool keepRecords, int maxRounds)
{
    Transfer transfer;
    int seenPackets = 0;
    int seenProgress = 0;
    int lastProgress = -1;
    for (int round = 0; round < maxRounds; ++round) {
        for (; seenPackets < m_listener->packets.size(); ++seenPackets) {
            const Packet& packet = m_listener->packets.at(seenPackets);
            if (packet.command == BootloaderCommand::Download) {
                transfer.download = packet.payload;
            } else if (packet.command == BootloaderCommand::SendData) {
                transfer.written += packet.payload;
                ++transfer.blocks;
            }
        }
        for (; seenProgress < m_listener->progress.size(); ++seenProgress) {
            const uint8_t value = m_listener->progress.at(seenProgress);
            transfer.progress << value;
            if (int(value) < lastProgress) {
                transfer.progressMonotonic = false;
            }
            lastProgress = value;
        }
        const uint8_t last = m_listener->packets.last().command;
        if (!keepRecords) {
            m_listener->clear();
            seenPackets = 0;
            seenProgress = 0;
            // Keep only the last packet, which decides the next answer.
            m_listener->packets << Packet(last);
            seenPackets = 1;
        }
        if (last == BootloaderCommand::Reset) {
            transfer.endedWithReset = true;
            return transfer;
        }
        if (last == BootloaderCommand::GetStatus) {
            ack();
            feed(statusReply(BootloaderCommand::Success));
        } else {
            ack();
        }
    }
    return transfer;
}

void tst_SectionUpdater::runToWaitingForFirstBlockStatus(const QByteArray& content)
{
    writeFirmware(content);
    startAndAcknowledgeAutoBaud();                  // -> Ping
    ack();                                          // -> Download
    ack();                                          // -> GetStatus
    ack();                                          // -> state 1
    feed(statusReply(BootloaderCommand::Success));  // -> SendData
    ack();                                          // -> GetStatus
    ack();                                          // -> state 1
}

// ---------------------------------------------------------------------------------------
// Probe only (the bench tool)

void tst_SectionUpdater::probeOnlyLeavesASectionInItsBootloaderWithoutSendingMore()
{
    writeFirmware(imageOfSize(100));
    QVERIFY(!m_updater->isProbeOnly());
    m_updater->setProbeOnly(true);
    QVERIFY(m_updater->isProbeOnly());

    m_updater->start(m_listener.get());
    ack();  // the bootloader answers AutoBaud

    QCOMPARE(m_listener->events, QStringList({"state", sendHex("5555"), "state"}));
    QCOMPARE(m_updater->state(), int(SectionUpdater::InBootloader));
    QVERIFY(m_updater->isActive());
    QVERIFY(!m_updater->isUpdating());
    QVERIFY(!m_updater->hasPendingAutoUpdate());
    QCOMPARE(m_listener->statesSeen, (QList<QPair<bool, bool>>{{true, false}, {true, false}}));
    QVERIFY(m_log->texts().isEmpty());

    // Later answers change nothing and send nothing: no update, no reset.
    ack();
    feed(kNak);
    feed(statusReply(BootloaderCommand::Success));
    tickAt(m_clock->nowNs() + 2000 * kMs);
    QCOMPARE(m_listener->sent,
             QList<QByteArray>({QByteArray::fromHex("5555"), QByteArray::fromHex("cc")}));
    QCOMPARE(m_updater->state(), int(SectionUpdater::InBootloader));
    QVERIFY(m_listener->failures.isEmpty());
}

void tst_SectionUpdater::probeOnlyEndsInIdleWhenTheApplicationAnswers()
{
    m_updater->setProbeOnly(true);
    m_updater->start(m_listener.get());
    feed(kNotBootLoader);

    QCOMPARE(m_listener->events, QStringList({"state", sendHex("5555"), "state"}));
    QCOMPARE(m_updater->state(), int(SectionUpdater::Idle));
    QVERIFY(!m_updater->isActive());
    QCOMPARE(m_log->texts(),
             QStringList({"WS UPDATER: Received not in bootloader. Finished updating"}));
    QCOMPARE(m_log->categories(), QStringList({"tarvix.worksurface.updater"}));
}

// ---------------------------------------------------------------------------------------
// Start-up and the shape of one exchange

void tst_SectionUpdater::startSendsAutoBaudAndEntersExchanging()
{
    QCOMPARE(m_updater->state(), int(SectionUpdater::Idle));
    QVERIFY(!m_updater->isActive());
    QVERIFY(!m_updater->isUpdating());
    QCOMPARE(int(m_updater->lastPacket().command), 0x41);

    m_updater->start(m_listener.get());

    QCOMPARE(m_listener->events, QStringList({"state", sendHex("5555")}));
    QCOMPARE(m_updater->state(), int(SectionUpdater::Exchanging));
    QVERIFY(m_updater->isActive());
    QVERIFY(!m_updater->isUpdating());
    QCOMPARE(m_listener->statesSeen, (QList<QPair<bool, bool>>{{true, false}}));
    QVERIFY(m_log->texts().isEmpty());
}

void tst_SectionUpdater::startWithoutListenerSendsNothingAndStaysIdle()
{
    m_updater->start(nullptr);
    QCOMPARE(m_updater->state(), int(SectionUpdater::Idle));
    QCOMPARE(int(m_updater->lastPacket().command), 0x41);
    QVERIFY(!m_updater->isActive());
}

void tst_SectionUpdater::completeExchangeForAHundredByteImage()
{
    const QByteArray image = imageOfSize(100);
    const QString path = writeFirmware(image);
    const QByteArray block1 = image.left(64);
    const QByteArray block2 = image.mid(64) + QByteArray(28, '\xff');

    m_updater->start(m_listener.get());
    ack();  // AutoBaud -> Ping
    QVERIFY(m_updater->isUpdating());
    ack();  // Ping -> Download
    ack();  // Download -> GetStatus
    ack();  // GetStatus -> waiting for status
    QCOMPARE(m_updater->state(), int(SectionUpdater::WaitingForStatus));
    feed(statusReply(BootloaderCommand::Success));  // -> block 1
    ack();
    ack();
    feed(statusReply(BootloaderCommand::Success));  // -> block 2
    ack();
    ack();
    feed(statusReply(BootloaderCommand::Success));  // -> Reset
    QVERIFY(!m_updater->isUpdating());
    ack();  // Reset -> auto-update task
    QVERIFY(m_updater->hasPendingAutoUpdate());
    tickAt(m_clock->nowNs() + 1000 * kMs + 1);  // -> AutoBaud
    feed(kNotBootLoader);

    const QStringList expected = {
        "state",           sendHex("5555"),
        sendHex("032020"), sendHex("0ba1210000000000000080"),
        "progress 0",      sendHex("032323"),
        "state",           sendHex("cc"),
        "state",           sendEvent(Packet(BootloaderCommand::SendData, block1)),
        "progress 64",     sendHex("032323"),
        "state",           sendHex("cc"),
        "state",           sendEvent(Packet(BootloaderCommand::SendData, block2)),
        "progress 100",    sendHex("032323"),
        "state",           sendHex("cc"),
        "state",           sendHex("032525"),
        sendHex("5555"),   "state",
    };
    QCOMPARE(m_listener->events, expected);
    QCOMPARE(m_listener->progress, (QList<uint8_t>{0, 64, 100}));
    QCOMPARE(m_listener->stateChanges, 8);
    QVERIFY(m_listener->failures.isEmpty());
    QCOMPARE(m_updater->state(), int(SectionUpdater::Idle));
    QVERIFY(!m_updater->isActive());
    QVERIFY(!m_updater->hasPendingAutoUpdate());

    // isActive/isUpdating as the section connection sees them at each notification.
    const QList<QPair<bool, bool>> seen = {
        {true, false},  // AutoBaud
        {true, true},  {true, true}, {true, true},
        {true, true},  {true, true}, {true, false},  // Reset
        {false, false}                               // NotBootLoader
    };
    QCOMPARE(m_listener->statesSeen, seen);

    const QStringList lines = {
        "WS UPDATER: Starting WS update",
        "WS UPDATER: Updating WS code from file: " + path,
        "WS UPDATER: Ping acknowledged start firmware load.",
        "WS UPDATER: Start loading firmware file of 100 bytes.",
        "WS UPDATER: Message acknowledged requesting status.",
        "WS UPDATER: Status message acknowledged. Waiting status reply.",
        "WS UPDATER: Received status message: Success.",
        "WS UPDATER: Downloaded 64 of 100 bytes (64%).",
        "WS UPDATER: Message acknowledged requesting status.",
        "WS UPDATER: Status message acknowledged. Waiting status reply.",
        "WS UPDATER: Received status message: Success.",
        "WS UPDATER: Firmware file loaded.",
        "WS UPDATER: Message acknowledged requesting status.",
        "WS UPDATER: Status message acknowledged. Waiting status reply.",
        "WS UPDATER: Received status message: Success.",
        "WS UPDATER: Finished updating. Reseting the microcontroller.",
        "WS UPDATER: Reset acknowledged register task for sending AutoBaud.",
        "WS UPDATER: Run auto updater task after timeout.",
        "WS UPDATER: Received not in bootloader. Finished updating",
    };
    QCOMPARE(m_log->texts(), lines);
    QCOMPARE(m_log->texts(QtInfoMsg), QStringList({lines.at(0), lines.at(1), lines.last()}));
    QVERIFY(m_log->texts(QtWarningMsg).isEmpty());
    QVERIFY(m_log->texts(QtCriticalMsg).isEmpty());
}

void tst_SectionUpdater::hundredByteImageIsAnnouncedAs128BytesAndSentAsTwoPaddedBlocks()
{
    const QByteArray image = imageOfSize(100);
    writeFirmware(image);
    startAndAcknowledgeAutoBaud();
    const Transfer transfer = answerUntilReset();

    QVERIFY(transfer.endedWithReset);
    QCOMPARE(transfer.download, QByteArray::fromHex("0000000000000080"));
    QCOMPARE(transfer.blocks, 2);
    QCOMPARE(transfer.written.size(), 128);
    QCOMPARE(transfer.written.left(100), image);
    // The second block holds the image's last 36 bytes and is filled up to its 64 with 0xFF.
    QCOMPARE(transfer.written.mid(100), QByteArray(28, '\xff'));
}

void tst_SectionUpdater::completeExchangeForA256KiBImage()
{
    const int size = 256 * 1024;
    const QByteArray image = imageOfSize(size);
    writeFirmware(image);
    m_settings->setDebugEnabled(false);

    m_updater->start(m_listener.get());
    ack();
    const Transfer transfer = answerUntilReset();
    QVERIFY(transfer.endedWithReset);

    // AutoBaud, Ping, Download, GetStatus, then per block: ACK of the status, SendData,
    // GetStatus; the ACK of the last status; Reset.
    const int blocks = size / 64;
    QCOMPARE(m_listener->sent.size(), 4 + 3 * blocks + 2);
    QCOMPARE(m_listener->sent.at(0), QByteArray::fromHex("5555"));
    QCOMPARE(m_listener->sent.at(1), QByteArray::fromHex("032020"));
    QCOMPARE(m_listener->sent.at(2), QByteArray::fromHex("0b25210000000000040000"));
    QCOMPARE(m_listener->sent.at(3), QByteArray::fromHex("032323"));
    for (int block = 0; block < blocks; ++block) {
        const int at = 4 + 3 * block;
        const QByteArray data = image.mid(block * 64, 64);
        QCOMPARE(m_listener->sent.at(at), QByteArray::fromHex("cc"));
        QCOMPARE(m_listener->sent.at(at + 1),
                 encodeBootloaderPacket(Packet(BootloaderCommand::SendData, data)));
        QCOMPARE(m_listener->sent.at(at + 2), QByteArray::fromHex("032323"));
    }
    QCOMPARE(m_listener->sent.at(4 + 3 * blocks), QByteArray::fromHex("cc"));
    QCOMPARE(m_listener->sent.at(5 + 3 * blocks), QByteArray::fromHex("032525"));

    QList<uint8_t> progress{0};
    for (int block = 1; block < blocks; ++block) {
        progress << static_cast<uint8_t>(qint64(block) * 64 * 100 / size);
    }
    progress << 100;
    QCOMPARE(m_listener->progress, progress);
    QCOMPARE(transfer.written, image);
    QVERIFY(m_listener->failures.isEmpty());
}

void tst_SectionUpdater::sixteenMiBImageIsSentCompletelyWithMonotonicProgress()
{
    const int size = 16 * 1024 * 1024;
    const QByteArray image = imageOfSize(size);
    writeFirmware(image);
    m_settings->setDebugEnabled(false);
    m_listener->recordEvents = false;

    startAndAcknowledgeAutoBaud();
    const Transfer transfer = answerUntilReset(false);

    QVERIFY(transfer.endedWithReset);
    QCOMPARE(transfer.download, QByteArray::fromHex("0000000001000000"));
    QCOMPARE(transfer.blocks, size / 64);
    QVERIFY(transfer.written == image);
    QVERIFY(transfer.progressMonotonic);
    QCOMPARE(transfer.progress.first(), uint8_t(0));
    QCOMPARE(transfer.progress.last(), uint8_t(100));
    QCOMPARE(transfer.progress.size(), size / 64 + 1);
    QVERIFY(m_listener->failures.isEmpty());
    QVERIFY(!m_updater->isUpdating());
}

void tst_SectionUpdater::resetAckSchedulesAutoBaudAtTheFirstTickAfter1000Ms()
{
    writeFirmware(imageOfSize(10));
    startAndAcknowledgeAutoBaud();
    answerUntilReset();
    const qint64 resetAckedAt = m_clock->nowNs();
    ack();
    QVERIFY(m_updater->hasPendingAutoUpdate());
    QCOMPARE(m_pool->taskCount(), std::size_t(1));
    m_listener->clear();
    m_log->clear();

    tickAt(resetAckedAt + 5 * kMs);
    tickAt(resetAckedAt + 999 * kMs);
    tickAt(resetAckedAt + 1000 * kMs);
    QVERIFY(m_listener->events.isEmpty());
    QVERIFY(m_log->texts().isEmpty());

    tickAt(resetAckedAt + 1000 * kMs + 1);
    QCOMPARE(m_listener->events, QStringList({sendHex("5555")}));
    QCOMPARE(int(m_updater->lastPacket().command), int(BootloaderCommand::AutoBaud));
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtDebugMsg, "WS UPDATER: Run auto updater task after timeout."}}));
    QVERIFY(!m_updater->hasPendingAutoUpdate());

    // One shot: later ticks send nothing more.
    tickAt(resetAckedAt + 2001 * kMs);
    tickAt(resetAckedAt + 5000 * kMs);
    QCOMPARE(m_listener->events, QStringList({sendHex("5555")}));
}

// A new exchange started while the updater waits its second after a reset (the link
// restarting it) begins with its own AutoBaud; the waiting step is dropped, so no second
// AutoBaud follows a second later.
void tst_SectionUpdater::startDuringTheWaitAfterTheResetCancelsTheWaitingAutoBaud()
{
    writeFirmware(imageOfSize(10));
    startAndAcknowledgeAutoBaud();
    answerUntilReset();
    const qint64 resetAckedAt = m_clock->nowNs();
    ack();
    QVERIFY(m_updater->hasPendingAutoUpdate());
    m_listener->clear();

    tickAt(resetAckedAt + 300 * kMs);
    m_updater->start(m_listener.get());
    QVERIFY(!m_updater->hasPendingAutoUpdate());
    QCOMPARE(m_listener->events, QStringList({sendHex("5555")}));
    feed(kNotBootLoader);
    QVERIFY(!m_updater->isActive());

    tickAt(resetAckedAt + 1000 * kMs + 1);
    tickAt(resetAckedAt + 5000 * kMs);
    QCOMPARE(m_listener->events, QStringList({sendHex("5555"), "state"}));
    QVERIFY(!m_updater->isActive());
}

// Probing is the unanswered start-up AutoBaud (also one sent again after a NAK, and the
// one a second after a reset); not the exchange with a bootloader that answered, nor the
// wait after the reset.
void tst_SectionUpdater::probingIsAnUnansweredAutoBaudOnly()
{
    writeFirmware(imageOfSize(10));
    QVERIFY(!m_updater->isProbing());
    m_updater->start(m_listener.get());
    QVERIFY(m_updater->isProbing());
    feed(kNak);
    QVERIFY(m_updater->isProbing());
    ack();  // AutoBaud -> Ping
    QVERIFY(m_updater->isActive());
    QVERIFY(!m_updater->isProbing());
    answerUntilReset();
    QVERIFY(m_updater->isActive());
    QVERIFY(!m_updater->isProbing());
    const qint64 resetAckedAt = m_clock->nowNs();
    ack();
    QVERIFY(m_updater->isActive());
    QVERIFY(!m_updater->isProbing());
    tickAt(resetAckedAt + 1000 * kMs + 1);
    QVERIFY(m_updater->isProbing());
    feed(kNotBootLoader);
    QVERIFY(!m_updater->isActive());
    QVERIFY(!m_updater->isProbing());
}

void tst_SectionUpdater::autoBaudAcknowledgedAgainUpdatesAgain()
{
    const QByteArray image = imageOfSize(70);
    const QString path = writeFirmware(image);
    startAndAcknowledgeAutoBaud();
    answerUntilReset();
    ack();
    tickAt(m_clock->nowNs() + 1001 * kMs);
    m_listener->clear();
    m_log->clear();

    // Still in the bootloader: the same update runs again from the start.
    ack();
    QCOMPARE(m_listener->events, QStringList({sendHex("032020")}));
    QVERIFY(m_updater->isUpdating());
    QCOMPARE(m_log->texts(QtInfoMsg),
             QStringList({"WS UPDATER: Starting WS update",
                          "WS UPDATER: Updating WS code from file: " + path}));
    const Transfer transfer = answerUntilReset();
    QCOMPARE(transfer.download, QByteArray::fromHex("0000000000000080"));
    QCOMPARE(transfer.written.left(70), image);
}

void tst_SectionUpdater::notBootLoaderEndsInIdleWithInfoLine()
{
    m_updater->start(m_listener.get());
    m_listener->clear();

    feed(kNotBootLoader);

    QCOMPARE(m_updater->state(), int(SectionUpdater::Idle));
    QVERIFY(!m_updater->isActive());
    QCOMPARE(m_listener->events, QStringList({"state"}));
    QVERIFY(m_listener->sent.isEmpty());
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtInfoMsg, "WS UPDATER: Received not in bootloader. Finished updating"}}));

    // Already idle: the line again, but no second notification.
    feed(kNotBootLoader);
    QCOMPARE(m_listener->stateChanges, 1);
    QCOMPARE(m_log->count(QtInfoMsg, "WS UPDATER: Received not in bootloader. Finished updating"),
             2);
}

void tst_SectionUpdater::notBootLoaderLeavesLaterBytesInTheBuffer()
{
    m_updater->start(m_listener.get());
    m_listener->clear();

    // The ACK after the answer is not handled in this call; it waits in the buffer.
    feed(kNotBootLoader + kAck + kAck);
    QCOMPARE(m_updater->pendingByteCount(), 2);
    QCOMPARE(m_listener->stateChanges, 1);
    QVERIFY(m_listener->sent.isEmpty());

    // The next call handles them first; in idle an ACK only resets the resend count.
    feed(QByteArray());
    QCOMPARE(m_updater->pendingByteCount(), 0);
    QVERIFY(m_listener->sent.isEmpty());
    QCOMPARE(m_updater->state(), int(SectionUpdater::Idle));

    // A second NotBootLoader stops the next call again, one byte further on.
    feed(kNotBootLoader + kNotBootLoader + kAck);
    QCOMPARE(m_updater->pendingByteCount(), 2);
    feed(QByteArray());
    QCOMPARE(m_updater->pendingByteCount(), 1);
    feed(QByteArray());
    QCOMPARE(m_updater->pendingByteCount(), 0);
}

void tst_SectionUpdater::inProcessSectionAnsweringAtOnceCompletesTheUpdate()
{
    // A simulated section answers inside the send call; the updater must take the answers
    // in order even though they arrive while it is still handling the previous one.
    const QByteArray image = imageOfSize(200);
    writeFirmware(image);
    QByteArray written;
    SectionUpdater* updater = m_updater.get();
    m_listener->setOnSend([&written, updater](const Packet& packet) {
        switch (packet.command) {
            case BootloaderCommand::AutoBaud:
            case BootloaderCommand::Ping:
            case BootloaderCommand::Download:
                updater->dataReceived(kAck);
                break;
            case BootloaderCommand::SendData:
                written += packet.payload;
                updater->dataReceived(kAck);
                break;
            case BootloaderCommand::GetStatus:
                updater->dataReceived(kAck + statusReply(BootloaderCommand::Success));
                break;
            default:
                break;
        }
    });

    m_updater->start(m_listener.get());

    QCOMPARE(m_listener->packets.last().command, uint8_t(BootloaderCommand::Reset));
    QCOMPARE(written.left(200), image);
    QCOMPARE(written.size(), 256);
    QCOMPARE(m_listener->progress, (QList<uint8_t>{0, 32, 64, 96, 100}));
    QVERIFY(m_listener->failures.isEmpty());
    QCOMPARE(m_updater->pendingByteCount(), 0);
}

void tst_SectionUpdater::destroyedUpdaterDropsItsPendingAutoUpdate()
{
    writeFirmware(imageOfSize(10));
    startAndAcknowledgeAutoBaud();
    answerUntilReset();
    ack();
    QCOMPARE(m_pool->taskCount(), std::size_t(1));
    m_listener->clear();

    m_updater.reset();
    tickAt(m_clock->nowNs() + 1001 * kMs);

    QCOMPARE(m_pool->taskCount(), std::size_t(0));
    QVERIFY(m_listener->events.isEmpty());
}

void tst_SectionUpdater::startDuringAnUpdateClosesTheImageAndStartsOver()
{
    const QByteArray image = imageOfSize(300);
    writeFirmware(image);
    runToWaitingForFirstBlockStatus(image);
    feed(QByteArray::fromHex("03"));  // half a status reply
    QCOMPARE(m_updater->pendingByteCount(), 1);
    QVERIFY(m_updater->isUpdating());
    m_listener->clear();

    m_updater->start(m_listener.get());
    QCOMPARE(m_updater->pendingByteCount(), 0);
    QVERIFY(!m_updater->isUpdating());
    QCOMPARE(m_listener->events, QStringList({"state", sendHex("5555")}));

    ack();
    const Transfer transfer = answerUntilReset();
    QCOMPARE(transfer.download, QByteArray::fromHex("0000000000000140"));
    QCOMPARE(transfer.written.left(300), image);
}

// ---------------------------------------------------------------------------------------
// Acknowledgements and resends

void tst_SectionUpdater::nakIsAnsweredByResendingTheLastPacketUnchanged()
{
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    ack();  // -> Download
    m_listener->clear();
    m_log->clear();

    feed(kNak);
    QCOMPARE(m_listener->sent, QList<QByteArray>({QByteArray::fromHex("0ba1210000000000000080")}));
    QCOMPARE(m_listener->stateChanges, 0);
    QCOMPARE(m_updater->resendCount(), uint8_t(1));
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtInfoMsg, "WS UPDATER: TIVA requests resending of last message."}}));

    // Two in one chunk: two resends.
    feed(kNak + kNak);
    QCOMPARE(m_listener->sent.size(), 3);
    QCOMPARE(m_updater->resendCount(), uint8_t(3));

    // The resent Download is acknowledged like the first.
    ack();
    QCOMPARE(m_listener->sent.last(), QByteArray::fromHex("032323"));
    QCOMPARE(m_updater->resendCount(), uint8_t(0));
}

void tst_SectionUpdater::nakBeyondTheResendLimitFailsWithReasonOneAndResets()
{
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    ack();  // -> Download
    m_listener->clear();
    m_log->clear();

    for (int i = 0; i < 5; ++i) {
        feed(kNak);
    }
    QCOMPARE(m_listener->sent.size(), 5);
    QVERIFY(m_listener->failures.isEmpty());
    QCOMPARE(m_updater->resendCount(), uint8_t(5));

    feed(kNak);
    const QString downloadHex = sendHex("0ba1210000000000000080");
    QCOMPARE(m_listener->events,
             QStringList({downloadHex, downloadHex, downloadHex, downloadHex, downloadHex, "state",
                          "failed 1", "state", sendHex("032525")}));
    QCOMPARE(m_listener->failures, QList<int>({1}));
    QCOMPARE(m_log->texts(QtCriticalMsg),
             QStringList({"WS UPDATER: Update failed. Unable to send message after 5 retries"}));
    QCOMPARE(m_log->texts().mid(5),
             QStringList({"WS UPDATER: Update failed. Unable to send message after 5 retries",
                          "WS UPDATER: Finished updating. Reseting the microcontroller."}));
    QVERIFY(!m_updater->isUpdating());
    QCOMPARE(int(m_updater->lastPacket().command), int(BootloaderCommand::Reset));
    QCOMPARE(m_updater->state(), int(SectionUpdater::Exchanging));

    // A failure does not clear the resend count: a NAK of the Reset fails at once again
    // and sends the Reset anew.
    m_listener->clear();
    feed(kNak);
    QCOMPARE(m_listener->events, QStringList({"state", "failed 1", "state", sendHex("032525")}));
    QCOMPARE(m_log->count(QtCriticalMsg,
                          "WS UPDATER: Update failed. Unable to send message after 5 retries"),
             2);
}

void tst_SectionUpdater::ackBetweenNaksResetsTheResendCount()
{
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    ack();  // -> Download
    for (int i = 0; i < 4; ++i) {
        feed(kNak);
    }
    QCOMPARE(m_updater->resendCount(), uint8_t(4));
    ack();  // Download acknowledged -> GetStatus
    QCOMPARE(m_updater->resendCount(), uint8_t(0));
    m_listener->clear();

    for (int i = 0; i < 5; ++i) {
        feed(kNak);
    }
    QVERIFY(m_listener->failures.isEmpty());
    QCOMPARE(m_listener->sent, QVector<QByteArray>(5, QByteArray::fromHex("032323")).toList());

    feed(kNak);
    QCOMPARE(m_listener->failures, QList<int>({1}));
    QCOMPARE(m_log->count(QtCriticalMsg,
                          "WS UPDATER: Update failed. Unable to send message after 5 retries"),
             1);
    QCOMPARE(m_listener->sent.last(), QByteArray::fromHex("032525"));
}

void tst_SectionUpdater::ackOutsideExchangingOnlyResetsTheResendCount()
{
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    ack();  // -> Download
    feed(kNak + kNak);
    QCOMPARE(m_updater->resendCount(), uint8_t(2));
    feed(kNotBootLoader);  // idle, with the count still at 2
    QCOMPARE(m_updater->state(), int(SectionUpdater::Idle));
    QCOMPARE(m_updater->resendCount(), uint8_t(2));
    m_listener->clear();
    m_log->clear();

    ack();
    QCOMPARE(m_updater->resendCount(), uint8_t(0));
    QVERIFY(m_listener->events.isEmpty());
    QVERIFY(m_log->texts().isEmpty());
    QCOMPARE(m_updater->state(), int(SectionUpdater::Idle));

    // Waiting for a status reply: ACKs change nothing either.
    m_updater->start(m_listener.get());
    ack();
    ack();
    ack();
    ack();
    QCOMPARE(m_updater->state(), int(SectionUpdater::WaitingForStatus));
    m_listener->clear();
    m_log->clear();
    ack();
    ack();
    QVERIFY(m_listener->events.isEmpty());
    QVERIFY(m_log->texts().isEmpty());
    QCOMPARE(m_updater->state(), int(SectionUpdater::WaitingForStatus));
}

void tst_SectionUpdater::nakOutsideExchangingIsIgnored()
{
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    ack();
    ack();
    ack();  // -> waiting for status
    m_listener->clear();
    m_log->clear();

    feed(kNak + kNak + kNak + kNak + kNak + kNak + kNak);
    QVERIFY(m_listener->events.isEmpty());
    QVERIFY(m_log->texts().isEmpty());
    QCOMPARE(m_updater->resendCount(), uint8_t(0));

    // Before start, in idle.
    SectionUpdater idle(m_pool, m_settings, m_logger);
    idle.dataReceived(kNak);
    QCOMPARE(idle.state(), int(SectionUpdater::Idle));
    QCOMPARE(idle.resendCount(), uint8_t(0));
    QVERIFY(m_log->texts().isEmpty());
}

void tst_SectionUpdater::ackWithNothingPendingRequestsStatus()
{
    // After an acknowledged packet the last packet is the placeholder; a further ACK in
    // state 0 falls into the "anything else" branch and asks for the status.
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    answerUntilReset();
    ack();  // Reset acknowledged: task registered, still exchanging
    QCOMPARE(int(m_updater->lastPacket().command), 0x41);
    m_listener->clear();
    m_log->clear();

    ack();
    QCOMPARE(m_listener->sent, QList<QByteArray>({QByteArray::fromHex("032323")}));
    QCOMPARE(m_log->texts(), QStringList({"WS UPDATER: Message acknowledged requesting status."}));
}

void tst_SectionUpdater::nakWithNothingPendingResendsThePlaceholder()
{
    // The placeholder is a packet like any other to a NAK: framed with size 3.
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    answerUntilReset();
    ack();
    m_listener->clear();
    m_log->clear();

    feed(kNak);
    QCOMPARE(m_listener->sent, QList<QByteArray>({QByteArray::fromHex("034141")}));
    QCOMPARE(m_log->texts(), QStringList({"WS UPDATER: TIVA requests resending of last message."}));
}

void tst_SectionUpdater::stateChangesNotifyOnlyOnARealChange()
{
    writeFirmware(imageOfSize(100));
    m_updater->start(m_listener.get());
    QCOMPARE(m_listener->stateChanges, 1);
    m_updater->start(m_listener.get());  // AutoBaud again: still exchanging
    QCOMPARE(m_listener->stateChanges, 1);
    ack();  // Ping
    ack();  // Download
    ack();  // GetStatus
    QCOMPARE(m_listener->stateChanges, 1);
    feed(kNak);  // resend: still exchanging
    QCOMPARE(m_listener->stateChanges, 1);
    ack();  // waiting for status
    QCOMPARE(m_listener->stateChanges, 2);
    feed(kNotBootLoader);
    QCOMPARE(m_listener->stateChanges, 3);
    feed(kNotBootLoader);
    QCOMPARE(m_listener->stateChanges, 3);
}

// ---------------------------------------------------------------------------------------
// Status replies

void tst_SectionUpdater::statusOtherThanSuccessAbortsWithReasonTwo_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("name");
    QTest::newRow("FlashFailure") << 0x44 << "FlashFailure";
    QTest::newRow("InvalidCommand") << 0x42 << "InvalidCommand";
    QTest::newRow("InvalidAddress") << 0x43 << "InvalidAddress";
    QTest::newRow("CRCheckFailure") << 0x45 << "CRCheckFailure";
    QTest::newRow("no name") << 0x41 << "UnknownCommand";
}

void tst_SectionUpdater::statusOtherThanSuccessAbortsWithReasonTwo()
{
    QFETCH(int, status);
    QFETCH(QString, name);
    writeFirmware(imageOfSize(300));
    runToWaitingForFirstBlockStatus(imageOfSize(300));
    QVERIFY(m_updater->isUpdating());
    m_listener->clear();
    m_log->clear();

    feed(statusReply(static_cast<uint8_t>(status)));

    QCOMPARE(m_listener->events,
             QStringList({sendHex("cc"), "state", "failed 2", "state", sendHex("032525")}));
    QCOMPARE(m_listener->failures, QList<int>({2}));
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtDebugMsg, "WS UPDATER: Received status message: " + name + "."},
                 {QtCriticalMsg, "WS UPDATER: Update aborted. Updater received error " + name},
                 {QtDebugMsg, "WS UPDATER: Finished updating. Reseting the microcontroller."}}));
    QVERIFY(!m_updater->isUpdating());
    QCOMPARE(m_listener->statesSeen.first(), qMakePair(true, true));  // failed, still updating
    QCOMPARE(m_listener->statesSeen.last(), qMakePair(true, false));  // reset sent

    // The file was closed: a new exchange starts the image from the beginning.
    ack();
    tickAt(m_clock->nowNs() + 1001 * kMs);
    ack();
    ack();
    QCOMPARE(m_listener->packets.last(),
             Packet(BootloaderCommand::Download, QByteArray::fromHex("0000000000000140")));
}

void tst_SectionUpdater::statusReplyIsAnsweredWithASingleAck()
{
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    ack();
    ack();
    ack();
    m_listener->clear();

    feed(statusReply(BootloaderCommand::Success));
    QCOMPARE(m_listener->sent.first(), QByteArray::fromHex("cc"));
    QCOMPARE(m_listener->packets.first(), Packet(BootloaderCommand::CommandAck));
    // The answer is not a packet of the exchange: the block is what an ACK now refers to.
    QCOMPARE(int(m_updater->lastPacket().command), int(BootloaderCommand::SendData));
}

void tst_SectionUpdater::statusReplyOutsideWaitingIsOnlyAcknowledged()
{
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();  // exchanging, Ping pending
    m_listener->clear();
    m_log->clear();

    feed(statusReply(BootloaderCommand::FlashFailure));
    QCOMPARE(m_listener->events, QStringList({sendHex("cc")}));
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtDebugMsg, "WS UPDATER: Received status message: FlashFailure."}}));
    QCOMPARE(int(m_updater->lastPacket().command), int(BootloaderCommand::Ping));
    QCOMPARE(m_updater->state(), int(SectionUpdater::Exchanging));

    // Further bytes after the status (size 5) are part of it and ignored.
    m_listener->clear();
    feed(
        QByteArray::fromHex("05"
                            "42"
                            "40"
                            "01"
                            "01"));
    QCOMPARE(m_listener->events, QStringList({sendHex("cc")}));
    QVERIFY(m_log->contains(QtDebugMsg, "WS UPDATER: Received status message: Success."));
    QCOMPARE(m_updater->pendingByteCount(), 0);
}

// ---------------------------------------------------------------------------------------
// Firmware file problems

void tst_SectionUpdater::missingFirmwareFileFailsWithReasonZero()
{
    const QString path = m_dir->filePath(QStringLiteral("absent.bin"));
    m_settings->setFirmwarePath(path);
    m_updater->start(m_listener.get());
    m_listener->clear();

    ack();

    QCOMPARE(m_listener->events, QStringList({"state", "failed 0", "state", sendHex("032525")}));
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtInfoMsg, "WS UPDATER: Starting WS update"},
                 {QtWarningMsg, "WS UPDATER: Unable to update the worksurface from file: " + path +
                                    ". The file does not exist."},
                 {QtDebugMsg, "WS UPDATER: Finished updating. Reseting the microcontroller."}}));
    QVERIFY(!m_updater->isUpdating());
    QCOMPARE(m_listener->statesSeen, (QList<QPair<bool, bool>>{{true, false}, {true, false}}));
}

void tst_SectionUpdater::emptyFirmwarePathFailsAsAMissingFile()
{
    // The settings answer an empty path when no image exists anywhere.
    m_settings->setFirmwarePath(QString());
    startAndAcknowledgeAutoBaud();

    QCOMPARE(m_listener->failures, QList<int>({0}));
    QCOMPARE(m_log->texts(QtWarningMsg),
             QStringList({"WS UPDATER: Unable to update the worksurface from file: . The file does "
                          "not exist."}));
    QCOMPARE(m_listener->sent.last(), QByteArray::fromHex("032525"));
}

void tst_SectionUpdater::unreadableFirmwareFileFailsToOpen()
{
    const QString path = writeFirmware(imageOfSize(100));
    QVERIFY(QFile::setPermissions(path, QFileDevice::Permissions()));
    if (::geteuid() == 0) {
        // Root opens a file whatever its mode bits say; directoryInPlaceOfTheFirmwareFailsToOpen
        // covers the same failure path there.
        QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        QSKIP("running as root: mode 000 does not stop root from reading the file");
    }
    startAndAcknowledgeAutoBaud();
    m_listener->clear();
    m_log->clear();

    ack();  // Ping acknowledged: the file is opened now

    QCOMPARE(m_listener->events, QStringList({"state", "failed 0", "state", sendHex("032525")}));
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtDebugMsg, "WS UPDATER: Ping acknowledged start firmware load."},
                 {QtCriticalMsg,
                  "WS UPDATER: Update error. Unable to open the firmware file for reading"},
                 {QtDebugMsg, "WS UPDATER: Finished updating. Reseting the microcontroller."}}));
    QVERIFY(!m_updater->isUpdating());
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
}

void tst_SectionUpdater::directoryInPlaceOfTheFirmwareFailsToOpen()
{
    const QString path = m_dir->filePath(QStringLiteral("worksurface.bin"));
    QVERIFY(QDir().mkpath(path));
    m_settings->setFirmwarePath(path);
    startAndAcknowledgeAutoBaud();

    // It exists, so the update begins; opening it for reading fails.
    QCOMPARE(m_log->texts(QtInfoMsg),
             QStringList({"WS UPDATER: Starting WS update",
                          "WS UPDATER: Updating WS code from file: " + path}));
    QCOMPARE(m_listener->sent.last(), QByteArray::fromHex("032020"));
    m_listener->clear();
    m_log->clear();

    ack();

    QCOMPARE(m_listener->events, QStringList({"state", "failed 0", "state", sendHex("032525")}));
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtDebugMsg, "WS UPDATER: Ping acknowledged start firmware load."},
                 {QtCriticalMsg,
                  "WS UPDATER: Update error. Unable to open the firmware file for reading"},
                 {QtDebugMsg, "WS UPDATER: Finished updating. Reseting the microcontroller."}}));
    QVERIFY(!m_updater->isUpdating());
}

void tst_SectionUpdater::emptyFirmwareFileAnnouncesNothingAndResets()
{
    // An empty image passes every step: a download of 0 bytes is announced, the first
    // status reply finds the file at its end, and the microcontroller is reset without a
    // single block sent or a failure reported. Progress stops at 0.
    writeFirmware(QByteArray());
    startAndAcknowledgeAutoBaud();
    ack();  // Ping -> open, Download 0
    ack();  // -> GetStatus
    ack();  // -> waiting
    feed(statusReply(BootloaderCommand::Success));

    QCOMPARE(m_listener->sent,
             QList<QByteArray>({QByteArray::fromHex("5555"), QByteArray::fromHex("032020"),
                                QByteArray::fromHex("0b21210000000000000000"),
                                QByteArray::fromHex("032323"), QByteArray::fromHex("cc"),
                                QByteArray::fromHex("032525")}));
    QCOMPARE(m_listener->progress, QList<uint8_t>({0}));
    QVERIFY(m_listener->failures.isEmpty());
    QVERIFY(m_log->contains(QtDebugMsg, "WS UPDATER: Start loading firmware file of 0 bytes."));
    QVERIFY(!m_log->contains(QtDebugMsg, "WS UPDATER: Firmware file loaded."));
    QVERIFY(m_log->texts(QtCriticalMsg).isEmpty());
    QVERIFY(m_log->texts(QtWarningMsg).isEmpty());
    QVERIFY(!m_updater->isUpdating());
}

void tst_SectionUpdater::firmwareFileRemovedMidUpdateIsStillSentCompletely()
{
    // The image is opened when Ping is acknowledged. On Linux an open file stays readable
    // after its name is removed, so the update finishes with the whole image.
    const QByteArray image = imageOfSize(200);
    const QString path = writeFirmware(image);
    runToWaitingForFirstBlockStatus(image);
    QVERIFY(QFile::remove(path));
    QVERIFY(!QFileInfo::exists(path));

    feed(statusReply(BootloaderCommand::Success));
    const Transfer transfer = answerUntilReset();

    QVERIFY(transfer.endedWithReset);
    QCOMPARE(m_listener->progress, (QList<uint8_t>{0, 32, 64, 96, 100}));
    QByteArray written;
    for (const Packet& packet : m_listener->packets) {
        if (packet.command == BootloaderCommand::SendData) {
            written += packet.payload;
        }
    }
    QCOMPARE(written, image + QByteArray(56, '\xff'));
    QVERIFY(m_listener->failures.isEmpty());

    // The next exchange no longer finds it.
    ack();
    tickAt(m_clock->nowNs() + 1001 * kMs);
    ack();
    QCOMPARE(m_listener->failures, QList<int>({0}));
    QCOMPARE(m_log->texts(QtWarningMsg),
             QStringList({"WS UPDATER: Unable to update the worksurface from file: " + path +
                          ". The file does not exist."}));
}

void tst_SectionUpdater::firmwareFileCutShortMidUpdateEndsTheImageThere()
{
    // A file truncated under the updater must not make it send padding for ever: once the
    // read position is past the new end, the image is complete.
    const QByteArray image = imageOfSize(640);
    const QString path = writeFirmware(image);
    runToWaitingForFirstBlockStatus(image);
    QVERIFY(QFile::resize(path, 100));

    feed(statusReply(BootloaderCommand::Success));
    const Transfer transfer = answerUntilReset(true, 100);

    QVERIFY(transfer.endedWithReset);
    QByteArray written;
    for (const Packet& packet : m_listener->packets) {
        if (packet.command == BootloaderCommand::SendData) {
            written += packet.payload;
        }
    }
    QCOMPARE(written, image.left(100) + QByteArray(28, '\xff'));
    QCOMPARE(m_listener->progress.last(), uint8_t(100));
    QVERIFY(m_listener->failures.isEmpty());
}

// ---------------------------------------------------------------------------------------
// Received bytes

void tst_SectionUpdater::bytesDuringAutoBaudAreDiscardedExceptTheFourCodes_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<int>("state");

    QByteArray noise;
    for (int b = 1; b < 256; ++b) {
        if (b != 0x33 && b != 0xAA && b != 0xCC) {
            noise.append(static_cast<char>(b));
        }
    }
    QTest::newRow("all other bytes") << noise << QStringList() << int(SectionUpdater::Exchanging);
    QTest::newRow("a status reply too") << statusReply(BootloaderCommand::Success) << QStringList()
                                        << int(SectionUpdater::Exchanging);
    QTest::newRow("zero") << QByteArray(3, '\0') << QStringList()
                          << int(SectionUpdater::Exchanging);
    QTest::newRow("NAK resends AutoBaud") << noise + kNak + noise << QStringList({sendHex("5555")})
                                          << int(SectionUpdater::Exchanging);
    QTest::newRow("ACK begins the update")
        << noise + kAck << QStringList({sendHex("032020")}) << int(SectionUpdater::Exchanging);
    QTest::newRow("NotBootLoader ends")
        << noise + kNotBootLoader << QStringList({"state"}) << int(SectionUpdater::Idle);
}

void tst_SectionUpdater::bytesDuringAutoBaudAreDiscardedExceptTheFourCodes()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QStringList, events);
    QFETCH(int, state);
    writeFirmware(imageOfSize(100));
    m_updater->start(m_listener.get());
    m_listener->clear();

    feed(bytes);

    QCOMPARE(m_listener->events, events);
    QCOMPARE(m_updater->state(), state);
    QCOMPARE(m_updater->pendingByteCount(), 0);
    QVERIFY(m_log->texts(QtWarningMsg).isEmpty());
    QVERIFY(!m_log->contains(QtDebugMsg, "WS UPDATER: Received status message: Success."));
}

void tst_SectionUpdater::sizeByteAnnouncingMoreThanArrivedLeavesTheBufferUntouched()
{
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    ack();
    ack();
    ack();  // waiting for status
    m_listener->clear();
    m_log->clear();

    // A size-6 status reply (Success plus three further bytes) arriving a byte at a time.
    const QByteArray reply = QByteArray::fromHex(
        "06"
        "43"
        "40"
        "01"
        "01"
        "01");
    for (int i = 0; i < reply.size() - 1; ++i) {
        feed(reply.mid(i, 1));
        QCOMPARE(m_updater->pendingByteCount(), i + 1);
        QVERIFY(m_listener->events.isEmpty());
        QVERIFY(m_log->texts().isEmpty());
        QCOMPARE(m_updater->state(), int(SectionUpdater::WaitingForStatus));
    }
    feed(reply.right(1));
    QCOMPARE(m_updater->pendingByteCount(), 0);
    QCOMPARE(m_listener->sent.first(), QByteArray::fromHex("cc"));
    QCOMPARE(int(m_listener->packets.last().command), int(BootloaderCommand::SendData));

    // The same with the head of the next reply in the same chunk.
    ack();
    ack();
    m_listener->clear();
    feed(
        QByteArray::fromHex("00"
                            "cc"
                            "03"
                            "40"));  // zero, stray ACK, half a reply
    QCOMPARE(m_updater->pendingByteCount(), 2);
    feed(QByteArray::fromHex("40"));
    QCOMPARE(m_updater->pendingByteCount(), 0);
    QCOMPARE(m_listener->sent.first(), QByteArray::fromHex("cc"));
}

void tst_SectionUpdater::sizeByteTwoWithoutItsByteWaits()
{
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    m_log->clear();

    feed(QByteArray::fromHex("02"));
    QCOMPARE(m_updater->pendingByteCount(), 1);
    QVERIFY(m_log->texts().isEmpty());

    // Its one byte arrives: too short to be a reply; the size byte goes, the byte stays to
    // be read on its own (here a zero, ignored).
    feed(QByteArray::fromHex("00"));
    QCOMPARE(m_updater->pendingByteCount(), 0);
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtWarningMsg, "WS UPDATER: Invalid message lenght < 2. Skipping data."}}));
}

void tst_SectionUpdater::lengthBelowTwoIsSkippedWithWarning()
{
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();  // Ping pending
    m_listener->clear();
    m_log->clear();

    // 01: no bytes after it. 02 cc: one byte, which is then read as the ACK it is.
    feed(
        QByteArray::fromHex("01"
                            "02"
                            "cc"));

    const QString warning = "WS UPDATER: Invalid message lenght < 2. Skipping data.";
    QCOMPARE(m_log->texts(QtWarningMsg), QStringList({warning, warning}));
    QCOMPARE(m_listener->sent, QList<QByteArray>({QByteArray::fromHex("0ba1210000000000000080")}));
    QCOMPARE(m_updater->pendingByteCount(), 0);
}

void tst_SectionUpdater::badChecksumSkipsOnlyTheSizeByteWithWarning()
{
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();  // Ping pending
    m_listener->clear();
    m_log->clear();

    // 03 cc 40: checksum cc does not match 40. Only the size byte goes: cc is then an ACK
    // (Ping -> Download), and 40 a size byte waiting for 63 more bytes.
    feed(
        QByteArray::fromHex("03"
                            "cc"
                            "40"));

    QCOMPARE(m_log->lines().first(),
             (LogCapture::Line{QtWarningMsg, "WS UPDATER: Invalid checksum skipping byte."}));
    QCOMPARE(m_log->count(QtWarningMsg, "WS UPDATER: Invalid checksum skipping byte."), 1);
    QCOMPARE(m_listener->sent, QList<QByteArray>({QByteArray::fromHex("0ba1210000000000000080")}));
    QCOMPARE(m_updater->pendingByteCount(), 1);

    // Byte by byte resynchronisation through a run of bad replies.
    m_updater->start(m_listener.get());
    ack();
    m_log->clear();
    feed(
        QByteArray::fromHex("03"
                            "01"
                            "02"
                            "03"
                            "04"
                            "05"));
    // 03 01 02: bad checksum, the size byte goes; 01: length 0; 02 03: length 1, the size
    // byte goes; 03 04 05: bad checksum; 04 05: waits for one more byte.
    QCOMPARE(m_log->texts(QtWarningMsg),
             QStringList({"WS UPDATER: Invalid checksum skipping byte.",
                          "WS UPDATER: Invalid message lenght < 2. Skipping data.",
                          "WS UPDATER: Invalid message lenght < 2. Skipping data.",
                          "WS UPDATER: Invalid checksum skipping byte."}));
    QCOMPARE(m_updater->pendingByteCount(), 2);
}

void tst_SectionUpdater::zeroBytesAreIgnored()
{
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    ack();
    ack();
    ack();  // waiting for status
    m_listener->clear();
    m_log->clear();

    feed(QByteArray(50, '\0'));
    QVERIFY(m_listener->events.isEmpty());
    QVERIFY(m_log->texts().isEmpty());
    QCOMPARE(m_updater->pendingByteCount(), 0);

    feed(QByteArray(3, '\0') + statusReply(BootloaderCommand::Success) + QByteArray(3, '\0'));
    QCOMPARE(m_listener->sent.first(), QByteArray::fromHex("cc"));
    QCOMPARE(int(m_listener->packets.last().command), int(BootloaderCommand::SendData));
    QCOMPARE(m_updater->pendingByteCount(), 0);
}

void tst_SectionUpdater::dataBeforeStartIsHandledWithoutListener()
{
    writeFirmware(imageOfSize(100));

    feed(kAck + kNak + statusReply(BootloaderCommand::Success) +
         statusReply(BootloaderCommand::FlashFailure) + QByteArray::fromHex("0102030405"));
    QCOMPARE(m_updater->state(), int(SectionUpdater::Idle));
    QCOMPARE(m_log->texts(QtDebugMsg),
             QStringList({"WS UPDATER: Received status message: Success.",
                          "WS UPDATER: Received status message: FlashFailure."}));
    feed(kNotBootLoader);
    QCOMPARE(m_updater->state(), int(SectionUpdater::Idle));
    m_updater->runAutoUpdate();
    QCOMPARE(m_updater->state(), int(SectionUpdater::Idle));
    QCOMPARE(int(m_updater->lastPacket().command), 0x41);
    QVERIFY(m_listener->events.isEmpty());

    // A later start works normally.
    m_updater->start(m_listener.get());
    ack();
    QCOMPARE(m_listener->sent.last(), QByteArray::fromHex("032020"));
}

void tst_SectionUpdater::garbageNeverGrowsTheBufferWithoutBound()
{
    writeFirmware(imageOfSize(100));
    m_updater->start(m_listener.get());
    ack();
    ack();

    // Each NotBootLoader stops its call and leaves the rest; a section babbling them would
    // otherwise pile up everything behind them.
    const QByteArray chunk = QByteArray(200, '\xaa');
    for (int i = 0; i < 100; ++i) {
        feed(chunk);
        QVERIFY(m_updater->pendingByteCount() <= SectionUpdater::kMaxPendingBytes);
    }
    QCOMPARE(m_updater->pendingByteCount(), SectionUpdater::kMaxPendingBytes);

    // A size byte at the front waits for at most 254 more bytes, never longer.
    m_updater->start(m_listener.get());
    ack();
    feed(QByteArray::fromHex("ff"));
    for (int i = 0; i < 253; ++i) {
        feed(QByteArray(1, '\x01'));
    }
    QCOMPARE(m_updater->pendingByteCount(), 254);
    feed(QByteArray(1, '\x01'));
    QCOMPARE(m_updater->pendingByteCount(), 0);
}

void tst_SectionUpdater::randomBytesInEveryStateAreAlwaysConsumed()
{
    writeFirmware(imageOfSize(1000));
    m_settings->setDebugEnabled(false);
    quint32 seed = 12345;
    auto next = [&seed]() {
        seed = seed * 1664525u + 1013904223u;
        return static_cast<char>(seed >> 24);
    };
    for (int round = 0; round < 300; ++round) {
        m_updater->start(m_listener.get());
        // Walk a few steps into an update so that every state sees noise.
        const int steps = round % 6;
        for (int i = 0; i < steps; ++i) {
            if (m_listener->packets.last().command == BootloaderCommand::GetStatus &&
                m_updater->state() == SectionUpdater::WaitingForStatus) {
                feed(statusReply(BootloaderCommand::Success));
            } else {
                ack();
            }
        }
        QByteArray noise;
        for (int i = 0; i < 512; ++i) {
            noise.append(next());
        }
        feed(noise);
        QVERIFY(m_updater->pendingByteCount() <= SectionUpdater::kMaxPendingBytes);
        m_listener->clear();
        m_log->clear();
    }
}

// ---------------------------------------------------------------------------------------
// With the real settings' firmware lookup

// Updates a ten-block image with a time-out of 5 s until the fourth block is out and not
// yet acknowledged; the clock has not moved since the AutoBaud was acknowledged.
static const int kTimeoutMs = 5000;

void tst_SectionUpdater::withoutATimeOutASilentBootloaderIsWaitedForForEver()
{
    writeFirmware(imageOfSize(640));
    startAndAcknowledgeAutoBaud();
    ack();  // Ping -> Download
    const qint64 start = m_clock->nowNs();
    m_listener->clear();
    m_log->clear();
    tickAt(start + 3600 * 1000 * kMs);
    QVERIFY(m_listener->events.isEmpty());
    QVERIFY(m_log->texts().isEmpty());
    QCOMPARE(m_updater->state(), int32_t(SectionUpdater::Exchanging));
    QVERIFY(m_updater->isUpdating());
    QCOMPARE(int(m_updater->lastPacket().command), int(BootloaderCommand::Download));
    QCOMPARE(m_pool->taskCount(), std::size_t(0));
}

void tst_SectionUpdater::silentBootloaderFailsTheUpdateWithReasonThreeWithoutAReset()
{
    m_settings->setUpdateTimeout(kTimeoutMs);
    m_updater->setSectionIndex(2);
    writeFirmware(imageOfSize(640));
    const qint64 start = m_clock->nowNs();
    startAndAcknowledgeAutoBaud();
    ack();  // Ping -> Download
    ack();  // Download -> GetStatus
    for (int block = 0; block < 4; ++block) {
        ack();                                          // -> status reply awaited
        feed(statusReply(BootloaderCommand::Success));  // -> SendData
        if (block < 3) {
            ack();  // SendData -> GetStatus
        }
    }
    QCOMPARE(int(m_updater->lastPacket().command), int(BootloaderCommand::SendData));
    QCOMPARE(m_listener->progress.last(), uint8_t(40));
    m_listener->clear();
    m_log->clear();

    tickAt(start + (kTimeoutMs - 1) * kMs);
    tickAt(start + kTimeoutMs * kMs);
    QVERIFY(m_listener->events.isEmpty());
    QVERIFY(m_updater->isUpdating());

    tickAt(start + kTimeoutMs * kMs + 1);
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtWarningMsg,
                  "WS UPDATER: Section 2 stopped answering at block 4 of 10 (waiting "
                  "for SendData): nothing received for 5000 ms. Update failed."}}));
    // Told while the update still runs, then the state; nothing goes on the line.
    QCOMPARE(m_listener->events, QStringList({"failed 3", "state"}));
    QCOMPARE(m_listener->statesSeen, (QList<QPair<bool, bool>>{{true, false}}));
    QCOMPARE(m_updater->state(), int32_t(SectionUpdater::Failed));
    QVERIFY(!m_updater->isUpdating());
    QVERIFY(!m_updater->isInUpdateExchange());
    QVERIFY(!m_updater->hasPendingAutoUpdate());

    // Late bytes change nothing more, and no second failure follows.
    feed(kAck);
    tickAt(start + 3 * kTimeoutMs * kMs);
    QCOMPARE(m_listener->events, QStringList({"failed 3", "state"}));
}

void tst_SectionUpdater::everyByteFromTheBootloaderPushesTheTimeOutBack()
{
    m_settings->setUpdateTimeout(kTimeoutMs);
    writeFirmware(imageOfSize(640));
    const qint64 start = m_clock->nowNs();
    startAndAcknowledgeAutoBaud();  // -> Ping
    // A zero byte is no answer, but it comes from the bootloader.
    tickAt(start + 3000 * kMs);
    feed(QByteArray(1, '\0'));
    m_listener->clear();

    tickAt(start + 5000 * kMs + 1);  // the first look: 2 s since the last byte
    QVERIFY(m_listener->failures.isEmpty());
    tickAt(start + 7999 * kMs);
    QVERIFY(m_listener->failures.isEmpty());
    tickAt(start + 8001 * kMs);
    QCOMPARE(m_listener->failures, QList<int>({3}));
    QCOMPARE(m_log->lines().last(),
             (LogCapture::Line{QtWarningMsg,
                               "WS UPDATER: Section 0 stopped answering at block 0 of 10 (waiting "
                               "for Ping): nothing received for 5001 ms. Update failed."}));
}

void tst_SectionUpdater::silenceWaitingForTheStatusNamesTheStatus()
{
    m_settings->setUpdateTimeout(kTimeoutMs);
    writeFirmware(imageOfSize(640));
    const qint64 start = m_clock->nowNs();
    startAndAcknowledgeAutoBaud();
    ack();  // Ping -> Download
    ack();  // Download -> GetStatus
    ack();  // -> the status reply is awaited
    QCOMPARE(m_updater->state(), int32_t(SectionUpdater::WaitingForStatus));
    m_log->clear();
    tickAt(start + 7000 * kMs);
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtWarningMsg,
                  "WS UPDATER: Section 0 stopped answering at block 0 of 10 (waiting "
                  "for the status): nothing received for 7000 ms. Update failed."}}));
    QCOMPARE(m_listener->failures, QList<int>({3}));
}

void tst_SectionUpdater::silenceWaitingForTheResetAcknowledgementFailsToo()
{
    m_settings->setUpdateTimeout(kTimeoutMs);
    writeFirmware(imageOfSize(100));
    const qint64 start = m_clock->nowNs();
    startAndAcknowledgeAutoBaud();
    answerUntilReset();
    QVERIFY(!m_updater->isUpdating());
    m_listener->clear();
    m_log->clear();
    tickAt(start + kTimeoutMs * kMs + 1);
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtWarningMsg,
                  "WS UPDATER: Section 0 stopped answering at block 2 of 2 (waiting "
                  "for Reset): nothing received for 5000 ms. Update failed."}}));
    QCOMPARE(m_listener->events, QStringList({"failed 3", "state"}));
    QVERIFY(!m_updater->hasPendingAutoUpdate());
}

void tst_SectionUpdater::theTimeOutIsReadWhenAnUpdateBegins()
{
    writeFirmware(imageOfSize(640));
    const qint64 start = m_clock->nowNs();
    startAndAcknowledgeAutoBaud();
    // Too late for this update.
    m_settings->setUpdateTimeout(kTimeoutMs);
    tickAt(start + 60 * 1000 * kMs);
    QVERIFY(m_listener->failures.isEmpty());
    QVERIFY(m_updater->isUpdating());

    // The next update starts with it.
    m_updater->start(m_listener.get());
    ack();
    m_listener->clear();
    tickAt(start + 65 * 1000 * kMs + 1);
    QCOMPARE(m_listener->failures, QList<int>({3}));
}

void tst_SectionUpdater::anUnansweredProbeIsNoUpdate()
{
    m_settings->setUpdateTimeout(kTimeoutMs);
    writeFirmware(imageOfSize(640));
    const qint64 start = m_clock->nowNs();
    m_updater->start(m_listener.get());
    m_updater->lineLost();
    tickAt(start + 60 * 1000 * kMs);
    QCOMPARE(m_listener->events, QStringList({"state", sendHex("5555")}));
    QVERIFY(m_updater->isProbing());
    QVERIFY(m_log->texts().isEmpty());
}

void tst_SectionUpdater::silenceAfterTheAcknowledgedResetIsNoUpdate()
{
    m_settings->setUpdateTimeout(kTimeoutMs);
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    answerUntilReset();
    tickAt(m_clock->nowNs() + 4000 * kMs);
    const qint64 resetAckedAt = m_clock->nowNs();
    ack();
    QVERIFY(m_updater->hasPendingAutoUpdate());
    m_listener->clear();
    // The second before the next probe, then the probe itself, unanswered.
    tickAt(resetAckedAt + 1000 * kMs + 1);
    tickAt(resetAckedAt + 60 * 1000 * kMs);
    QCOMPARE(m_listener->events, QStringList({sendHex("5555")}));
    QVERIFY(m_updater->isProbing());
}

void tst_SectionUpdater::lineLostEndsTheUpdateAtOnce()
{
    // Also without a time-out: a line that is gone will not answer.
    m_updater->setSectionIndex(1);
    writeFirmware(imageOfSize(640));
    const qint64 start = m_clock->nowNs();
    startAndAcknowledgeAutoBaud();
    ack();  // Ping -> Download
    m_listener->clear();
    m_log->clear();
    tickAt(start + 120 * kMs);
    m_updater->lineLost();
    QCOMPARE(m_log->lines(),
             (QList<LogCapture::Line>{
                 {QtWarningMsg,
                  "WS UPDATER: Section 1 lost its line at block 0 of 10 (waiting for "
                  "Download): nothing received for 120 ms. Update failed."}}));
    QCOMPARE(m_listener->events, QStringList({"failed 3", "state"}));
    QCOMPARE(m_updater->state(), int32_t(SectionUpdater::Failed));
    // Once only.
    m_updater->lineLost();
    QCOMPARE(m_listener->events, QStringList({"failed 3", "state"}));
}

void tst_SectionUpdater::lineLostOutsideAnUpdateChangesNothing()
{
    m_updater->lineLost();
    writeFirmware(imageOfSize(100));
    startAndAcknowledgeAutoBaud();
    answerUntilReset();
    ack();  // the reset is acknowledged: the second before the next probe
    m_listener->clear();
    m_updater->lineLost();
    QVERIFY(m_listener->events.isEmpty());
    QVERIFY(m_updater->hasPendingAutoUpdate());
}

void tst_SectionUpdater::afterReasonThreeTheNextStartUpdatesFromTheFirstBlock()
{
    m_settings->setUpdateTimeout(kTimeoutMs);
    const QByteArray image = imageOfSize(640);
    writeFirmware(image);
    startAndAcknowledgeAutoBaud();
    ack();  // Ping -> Download
    ack();  // Download -> GetStatus
    ack();
    feed(statusReply(BootloaderCommand::Success));  // -> the first block
    m_updater->lineLost();
    QCOMPARE(m_listener->failures, QList<int>({3}));

    // The link probes again and the section is still in its bootloader.
    m_listener->clear();
    startAndAcknowledgeAutoBaud();
    const Transfer transfer = answerUntilReset();
    QCOMPARE(transfer.download, QByteArray::fromHex("0000000000000280"));
    QCOMPARE(transfer.written, image);
    QCOMPARE(transfer.blocks, 10);
    QVERIFY(transfer.endedWithReset);
    QVERIFY(m_listener->failures.isEmpty());
}

void tst_SectionUpdater::realSettingsFindTheImageInTheHomeFolder()
{
    const QByteArray oldHome = qgetenv("HOME");
    qputenv("HOME", m_dir->path().toLocal8Bit());
    QCOMPARE(QDir::homePath(), m_dir->path());
    QVERIFY(QDir().mkpath(m_dir->filePath(QStringLiteral(".firmware"))));
    const QString path = m_dir->filePath(QStringLiteral(".firmware/worksurface.bin"));
    const QByteArray image = imageOfSize(150);
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(image);
    }

    auto settings = std::make_shared<Settings>();
    SectionUpdater updater(m_pool, settings, std::make_shared<Logger>(settings));
    RecordingUpdaterListener listener;
    updater.start(&listener);
    updater.dataReceived(kAck);
    for (int round = 0; round < 100 && listener.packets.last().command != BootloaderCommand::Reset;
         ++round) {
        if (listener.packets.last().command == BootloaderCommand::GetStatus) {
            updater.dataReceived(kAck + statusReply(BootloaderCommand::Success));
        } else {
            updater.dataReceived(kAck);
        }
    }
    qputenv("HOME", oldHome);

    QVERIFY(m_log->contains(QtInfoMsg, "WS UPDATER: Updating WS code from file: " +
                                           QFileInfo(path).absoluteFilePath()));
    QByteArray written;
    for (const Packet& packet : listener.packets) {
        if (packet.command == BootloaderCommand::SendData) {
            written += packet.payload;
        }
    }
    QCOMPARE(written, image + QByteArray(42, '\xff'));
    QVERIFY(listener.failures.isEmpty());
}

void tst_SectionUpdater::realSettingsFallBackToTheBuiltInImage()
{
    // No image in the home folder: the one built into the resources is sent.
    const QByteArray oldHome = qgetenv("HOME");
    qputenv("HOME", m_dir->path().toLocal8Bit());
    QFile resource(QStringLiteral(":/firmware/worksurface.bin"));
    QVERIFY(resource.open(QIODevice::ReadOnly));
    const QByteArray image = resource.readAll();
    QVERIFY(image.size() > 64 && image.size() < 128);

    auto settings = std::make_shared<Settings>();
    SectionUpdater updater(m_pool, settings, std::make_shared<Logger>(settings));
    RecordingUpdaterListener listener;
    updater.start(&listener);
    updater.dataReceived(kAck);
    for (int round = 0; round < 100 && listener.packets.last().command != BootloaderCommand::Reset;
         ++round) {
        if (listener.packets.last().command == BootloaderCommand::GetStatus) {
            updater.dataReceived(kAck + statusReply(BootloaderCommand::Success));
        } else {
            updater.dataReceived(kAck);
        }
    }
    qputenv("HOME", oldHome);

    QVERIFY(m_log->contains(QtInfoMsg,
                            "WS UPDATER: Updating WS code from file: :/firmware/worksurface.bin"));
    QByteArray written;
    for (const Packet& packet : listener.packets) {
        if (packet.command == BootloaderCommand::SendData) {
            written += packet.payload;
        }
    }
    QCOMPARE(written, image + QByteArray(128 - image.size(), '\xff'));
    QVERIFY(listener.failures.isEmpty());
}

QTEST_GUILESS_MAIN(tst_SectionUpdater)
#include "tst_sectionupdater.moc"
