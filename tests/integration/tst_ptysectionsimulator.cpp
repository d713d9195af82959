// The pty section simulator itself, seen from the plugin's side of the line: a plain
// QSerialPort on the slave end, opened as the plugin opens a section's device.

#include <QElapsedTimer>
#include <QFileInfo>
#include <QSerialPort>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <memory>

#include "serial/serialmessage.h"
#include "support/ptysectionsimulator.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int Timeout = 5000;

QByteArray hex(const char* text)
{
    return QByteArray::fromHex(text);
}

// The bootloader packet [size, checksum, command, payload] as the plugin writes it.
QByteArray packet(uint8_t command, const QByteArray& payload = QByteArray())
{
    uint8_t sum = command;
    for (char c : payload) {
        sum = static_cast<uint8_t>(sum + static_cast<uint8_t>(c));
    }
    QByteArray bytes;
    bytes.append(static_cast<char>(3 + payload.size()));
    bytes.append(static_cast<char>(sum));
    bytes.append(static_cast<char>(command));
    bytes.append(payload);
    return bytes;
}

}  // namespace

class TestPtySectionSimulator : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void offersSlaveDeviceInRawMode();
    void encodesFramesWithExactPayload();

    void pingIsAnsweredWithVersionReport();
    void versionReportIsConfigurable();
    void pingIsNotAnsweredWhenAnsweringIsOff();
    void framesWrittenByteByByteAreDecodedOnce();
    void noiseBeforeFrameIsReportedAsBadBytes();
    void zeroFillIsDiscardedAndLinkGoesOn();
    void autoBaudInApplicationIsAnsweredWithNotBootLoader();
    void autoBaudInApplicationCanBeIgnored();

    void sendsReportsAsFrames();
    void noiseIsDeterministicPerSeed();
    void splitWriteArrivesPieceByPiece();
    void silentSectionHearsButDoesNotAnswerThenSpeaksAgain();
    void peerMayCloseAndReopenTheLine();
    void hangUpEndsTheLineForBothEnds();
    void pacedRepliesTakeTheLinesTime();
    void pacedInputArrivesWhenTheLineHasCarriedIt();

    void bootloaderExchangeStoresImageAndResetsIntoApplication();
    void bootloaderNaksPacketWithBadChecksum();
    void bootloaderNaksNextPacketsOnRequest();
    void bootloaderNaksChosenCommandAndDoesNotExecuteIt();
    void bootloaderStatusRepliesAreConfigurable();
    void bootloaderUnknownCommandGivesInvalidCommandStatus();
    void silentBootloaderExecutesNothing();

private:
    bool openPeer();
    // Runs the event loop until the peer holds exactly these bytes (and no more arrive in
    // the meantime: a stray extra byte makes the comparison fail).
    bool peerReceives(const QByteArray& expected);
    void peerWrite(const QByteArray& bytes);

    std::unique_ptr<PtySectionSimulator> m_sim;
    std::unique_ptr<QSerialPort> m_port;
    QByteArray m_peerBytes;
    int m_peerReads = 0;
};

void TestPtySectionSimulator::initTestCase()
{
    qRegisterMetaType<QSerialPort::SerialPortError>();
}

void TestPtySectionSimulator::init()
{
    m_sim = std::make_unique<PtySectionSimulator>();
    QVERIFY2(m_sim->isOpen(), qPrintable(m_sim->errorString()));
    m_peerBytes.clear();
    m_peerReads = 0;
    QVERIFY(openPeer());
}

void TestPtySectionSimulator::cleanup()
{
    m_port.reset();
    m_sim.reset();
}

bool TestPtySectionSimulator::openPeer()
{
    m_port = std::make_unique<QSerialPort>();
    m_port->setPortName(m_sim->slavePath());
    connect(m_port.get(), &QSerialPort::readyRead, this, [this] {
        ++m_peerReads;
        m_peerBytes += m_port->readAll();
    });
    return m_port->open(QIODevice::ReadWrite) && m_port->setBaudRate(QSerialPort::Baud115200);
}

bool TestPtySectionSimulator::peerReceives(const QByteArray& expected)
{
    QElapsedTimer clock;
    clock.start();
    while (m_peerBytes.size() < expected.size() && clock.elapsed() < Timeout) {
        QTest::qWait(1);
    }
    // Whatever the simulator answered is written while it handles the request, so it
    // has reached the slave's queue by now; let the peer take all of it.
    m_sim->waitUntilPeerHasRead(Timeout);
    if (m_peerBytes != expected) {
        qWarning("peer received %s, expected %s", m_peerBytes.toHex().constData(),
                 expected.toHex().constData());
        return false;
    }
    m_peerBytes.clear();
    return true;
}

void TestPtySectionSimulator::peerWrite(const QByteArray& bytes)
{
    const int before = m_sim->receivedBytes().size();
    m_port->write(bytes);
    QTRY_VERIFY_WITH_TIMEOUT(m_sim->receivedBytes().size() >= before + bytes.size(), Timeout);
}

void TestPtySectionSimulator::offersSlaveDeviceInRawMode()
{
    QVERIFY(m_sim->slavePath().startsWith(QStringLiteral("/dev/pts/")));
    QVERIFY(QFileInfo::exists(m_sim->slavePath()));
    QCOMPARE(m_sim->lineSettings().raw, true);
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Application);
    QVERIFY(m_sim->answersPings());
    QCOMPARE(m_sim->versionReportPayload(), hex("0a2228"));
    // Raw both ways: carriage returns, line feeds and control characters pass unchanged.
    peerWrite(hex("0d0a0304111300ff"));
    QCOMPARE(m_sim->receivedBytes(), hex("0d0a0304111300ff"));
    m_sim->sendRaw(hex("0a0d1311037f"));
    QVERIFY(peerReceives(hex("0a0d1311037f")));
}

void TestPtySectionSimulator::encodesFramesWithExactPayload()
{
    QCOMPARE(PtySectionSimulator::encodeFrame(7, 4, hex("012c")), hex("050704012c3d"));
    QCOMPARE(PtySectionSimulator::encodeFrame(0, 0, hex("0a2228")), hex("0600000a22285a"));
    QCOMPARE(PtySectionSimulator::encodeFrame(2, 0), hex("03020005"));
}

void TestPtySectionSimulator::pingIsAnsweredWithVersionReport()
{
    QSignalSpy answered(m_sim.get(), &PtySectionSimulator::pingAnswered);
    QSignalSpy messages(m_sim.get(), &PtySectionSimulator::messageReceived);
    peerWrite(hex("03000003"));
    QVERIFY(peerReceives(hex("0600000a22285a")));
    QCOMPARE(answered.count(), 1);
    QCOMPARE(messages.count(), 1);
    QCOMPARE(messages.at(0).at(0).toInt(), 0);
    QCOMPARE(messages.at(0).at(1).toInt(), 0);
    QCOMPARE(messages.at(0).at(2).toByteArray(), QByteArray());
    QCOMPARE(m_sim->pingCount(), 1);
    QCOMPARE(m_sim->receivedMessages(), (QList<SerialMessage>{SerialMessage(0, 0)}));
}

void TestPtySectionSimulator::versionReportIsConfigurable()
{
    m_sim->setVersionReport(7, 55);
    peerWrite(hex("03000003"));
    // 06 + 00 + 00 + 0a + 07 + 37 = 0x4e
    QVERIFY(peerReceives(hex("0600000a07374e")));
    m_sim->setVersionReport(1, 2, 3);
    m_sim->sendVersionReport();
    QVERIFY(peerReceives(hex("0600000301020c")));
}

void TestPtySectionSimulator::pingIsNotAnsweredWhenAnsweringIsOff()
{
    m_sim->setAnswersPings(false);
    peerWrite(hex("03000003"));
    QCOMPARE(m_sim->pingCount(), 1);
    // An answer would have been written before this marker.
    m_sim->sendRaw(hex("ee"));
    QVERIFY(peerReceives(hex("ee")));
}

void TestPtySectionSimulator::framesWrittenByteByByteAreDecodedOnce()
{
    QSignalSpy messages(m_sim.get(), &PtySectionSimulator::messageReceived);
    const QByteArray frame = hex("050704012c3d");
    for (int i = 0; i < frame.size(); ++i) {
        peerWrite(frame.mid(i, 1));
        QCOMPARE(messages.count(), i + 1 == frame.size() ? 1 : 0);
    }
    QCOMPARE(m_sim->receivedMessages(), (QList<SerialMessage>{SerialMessage(7, 4, {0x01, 0x2C})}));
    QVERIFY(m_sim->badBytes().isEmpty());
}

void TestPtySectionSimulator::noiseBeforeFrameIsReportedAsBadBytes()
{
    QSignalSpy bad(m_sim.get(), &PtySectionSimulator::badDataReceived);
    // Length bytes out of range, a lone 0x55, and a frame with a wrong checksum whose
    // tail hides nothing.
    peerWrite(hex("ff00011a5501") + hex("03000004") + hex("050704012c3d"));
    QCOMPARE(m_sim->receivedMessages(), (QList<SerialMessage>{SerialMessage(7, 4, {0x01, 0x2C})}));
    QCOMPARE(m_sim->badBytes(), hex("ff00011a5501") + hex("03000004"));
    QCOMPARE(bad.count(), 1);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::AutoBaud), 0);
}

void TestPtySectionSimulator::zeroFillIsDiscardedAndLinkGoesOn()
{
    peerWrite(QByteArray(1024, '\0'));
    QCOMPARE(m_sim->badBytes(), QByteArray(1024, '\0'));
    QVERIFY(m_sim->receivedMessages().isEmpty());
    peerWrite(hex("03000003"));
    QVERIFY(peerReceives(hex("0600000a22285a")));
}

void TestPtySectionSimulator::autoBaudInApplicationIsAnsweredWithNotBootLoader()
{
    QSignalSpy autoBaud(m_sim.get(), &PtySectionSimulator::autoBaudReceived);
    peerWrite(hex("5555"));
    QVERIFY(peerReceives(hex("aa")));
    QCOMPARE(autoBaud.count(), 1);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::AutoBaud), 1);
    QVERIFY(m_sim->badBytes().isEmpty());
    // Between frames too.
    peerWrite(hex("03000003") + hex("5555") + hex("03030006"));
    QVERIFY(peerReceives(hex("0600000a22285a") + hex("aa")));
    QCOMPARE(m_sim->receivedMessages().size(), 2);
}

void TestPtySectionSimulator::autoBaudInApplicationCanBeIgnored()
{
    m_sim->setAnswersAutoBaudInApplication(false);
    peerWrite(hex("5555"));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::AutoBaud), 1);
    m_sim->sendRaw(hex("ee"));
    QVERIFY(peerReceives(hex("ee")));
}

void TestPtySectionSimulator::sendsReportsAsFrames()
{
    m_sim->sendFaderPosition(4, 300);
    QVERIFY(peerReceives(hex("050704012c3d")));
    m_sim->sendFaderTouch(2, true);
    QVERIFY(peerReceives(hex("04100201") + hex("17")));
    m_sim->sendRotaryStep(3, -1);
    QVERIFY(peerReceives(hex("041203ff") + hex("18")));
    m_sim->sendRotaryTouch(3, false);
    QVERIFY(peerReceives(hex("04130300") + hex("1a")));
    m_sim->sendButton(24, true);
    QVERIFY(peerReceives(hex("04141801") + hex("31")));
    m_sim->sendPotValue(0, 511);
    QVERIFY(peerReceives(hex("05110001ff") + hex("16")));
    m_sim->sendCalibrationDone();
    QVERIFY(peerReceives(hex("03030006")));
    m_sim->sendSerialError();
    QVERIFY(peerReceives(hex("03020005")));
    m_sim->sendMessage(SerialMessage(5, 9, {1, 2, 3}, true));
    QVERIFY(peerReceives(PtySectionSimulator::encodeFrame(5, 9, hex("010203"))));
}

void TestPtySectionSimulator::noiseIsDeterministicPerSeed()
{
    const QByteArray first = m_sim->sendNoise(64, 7);
    QCOMPARE(first.size(), 64);
    QVERIFY(peerReceives(first));
    const QByteArray again = m_sim->sendNoise(64, 7);
    QCOMPARE(again, first);
    QVERIFY(peerReceives(again));
    const QByteArray other = m_sim->sendNoise(64, 8);
    QVERIFY(other != first);
    QVERIFY(peerReceives(other));
}

void TestPtySectionSimulator::splitWriteArrivesPieceByPiece()
{
    const QByteArray stream = hex("050704012c3d") + hex("0600000a22285a");
    m_peerReads = 0;
    QVERIFY(m_sim->sendRawSplit(stream, {1, 4, 3}));
    QCOMPARE(m_peerBytes, stream);
    QCOMPARE(m_peerReads, 4);  // 1, 4, 3 and the remaining 5
}

void TestPtySectionSimulator::silentSectionHearsButDoesNotAnswerThenSpeaksAgain()
{
    m_sim->setSilent(true);
    QVERIFY(m_sim->isSilent());
    peerWrite(hex("03000003"));
    peerWrite(hex("5555"));
    QCOMPARE(m_sim->pingCount(), 1);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::AutoBaud), 1);
    // What the test sends itself still goes out; nothing came before it.
    m_sim->sendRaw(hex("ee"));
    QVERIFY(peerReceives(hex("ee")));

    m_sim->setSilent(false);
    peerWrite(hex("03000003"));
    QVERIFY(peerReceives(hex("0600000a22285a")));
    QCOMPARE(m_sim->pingCount(), 2);
}

void TestPtySectionSimulator::peerMayCloseAndReopenTheLine()
{
    m_port->close();
    m_port.reset();
    QVERIFY(m_sim->isOpen());
    QVERIFY(openPeer());
    peerWrite(hex("03000003"));
    QVERIFY(peerReceives(hex("0600000a22285a")));
}

void TestPtySectionSimulator::hangUpEndsTheLineForBothEnds()
{
    QSignalSpy hungUp(m_sim.get(), &PtySectionSimulator::hungUp);
    QSignalSpy portErrors(m_port.get(), &QSerialPort::errorOccurred);
    m_sim->hangUp();
    QVERIFY(!m_sim->isOpen());
    QCOMPARE(hungUp.count(), 1);
    // The slave now reads as end of file, which the port reports as a read error.
    QTRY_VERIFY_WITH_TIMEOUT(!portErrors.isEmpty(), Timeout);
    QCOMPARE(portErrors.at(0).at(0).value<QSerialPort::SerialPortError>(), QSerialPort::ReadError);
    m_port->close();
    // Sending after the hang-up goes nowhere and does not fail.
    m_sim->sendRaw(hex("03000003"));
    QCOMPARE(m_sim->pendingOutgoing(), 0);
    QVERIFY(!m_sim->waitForBytesWritten(10));
    m_sim->hangUp();
    QCOMPARE(hungUp.count(), 1);
}

void TestPtySectionSimulator::pacedRepliesTakeTheLinesTime()
{
    m_sim->setPacedBaudRate(115200);
    QCOMPARE(m_sim->pacedBaudRate(), 115200);
    const QByteArray block(1152, '\x5a');  // 100 ms at 11,520 bytes/s
    QElapsedTimer clock;
    clock.start();
    m_sim->sendRaw(block);
    QVERIFY(m_sim->pendingOutgoing() > 0);
    QVERIFY(m_sim->waitForBytesWritten(Timeout));
    QVERIFY(peerReceives(block));
    QVERIFY2(clock.elapsed() >= 95, qPrintable(QString::number(clock.elapsed())));

    // A short answer, as a bootloader's status reply: none of it is readable before the
    // line has carried its last byte, 3 x 86.8 us.
    const QByteArray status("\x06\x40\x40", 3);
    clock.restart();
    m_sim->sendRaw(status);
    const qint64 sentNs = clock.nsecsElapsed();
    QVERIFY2(sentNs >= 3 * 1000000000LL / 11520, qPrintable(QString::number(sentNs)));
    QCOMPARE(m_sim->pendingOutgoing(), 0);
    QVERIFY(peerReceives(status));

    m_sim->setPacedBaudRate(0);
    m_sim->sendRaw(block);
    QCOMPARE(m_sim->pendingOutgoing(), 0);
    QVERIFY(peerReceives(block));
}

void TestPtySectionSimulator::pacedInputArrivesWhenTheLineHasCarriedIt()
{
    m_sim->setPacedInputBaudRate(115200);
    QElapsedTimer clock;
    qint64 arrivedNs = -1;
    connect(m_sim.get(), &PtySectionSimulator::bytesReceived, this,
            [&]() { arrivedNs = clock.nsecsElapsed(); });
    // A GetStatus-sized packet is taken in no sooner than its 3 x 86.8 us (waited for on
    // the simulator's thread), a SendData-sized one no sooner than its 67 (the timer, then
    // the rest waited for).
    for (const int size : {3, 67}) {
        arrivedNs = -1;
        clock.start();
        m_port->write(QByteArray(size, '\x55'));
        QVERIFY(m_port->waitForBytesWritten(Timeout));
        QTRY_VERIFY_WITH_TIMEOUT(arrivedNs >= 0, Timeout);
        QVERIFY2(arrivedNs >= size * 1000000000LL / 11520,
                 qPrintable(QStringLiteral("%1 bytes after %2 ns").arg(size).arg(arrivedNs)));
    }
}

void TestPtySectionSimulator::bootloaderExchangeStoresImageAndResetsIntoApplication()
{
    QSignalSpy modeChanged(m_sim.get(), &PtySectionSimulator::modeChanged);
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    QCOMPARE(modeChanged.count(), 1);

    QByteArray image;
    for (int i = 0; i < 128; ++i) {
        image.append(static_cast<char>(i * 7));
    }

    peerWrite(hex("5555"));
    QVERIFY(peerReceives(hex("cc")));
    peerWrite(hex("032020"));  // Ping
    QVERIFY(peerReceives(hex("cc")));
    const QByteArray download = packet(BootloaderCommand::Download, hex("0000000000000080"));
    QCOMPARE(download, hex("0ba1210000000000000080"));
    peerWrite(download);
    QVERIFY(peerReceives(hex("cc")));
    QCOMPARE(m_sim->downloadAddress(), 0u);
    QCOMPARE(m_sim->downloadSize(), 128u);
    peerWrite(hex("032323"));  // GetStatus
    QVERIFY(peerReceives(hex("cc") + hex("034040")));
    peerWrite(hex("cc"));  // the plugin's ACK of the status packet
    for (int block = 0; block < 2; ++block) {
        peerWrite(packet(BootloaderCommand::SendData, image.mid(block * 64, 64)));
        QVERIFY(peerReceives(hex("cc")));
        peerWrite(hex("032323"));
        QVERIFY(peerReceives(hex("cc") + hex("034040")));
        peerWrite(hex("cc"));
    }
    QCOMPARE(m_sim->image(), image);
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Bootloader);

    peerWrite(hex("032525"));  // Reset
    QVERIFY(peerReceives(hex("cc")));
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Application);
    QCOMPARE(modeChanged.count(), 2);
    peerWrite(hex("5555"));
    QVERIFY(peerReceives(hex("aa")));

    QCOMPARE(m_sim->commandCount(BootloaderCommand::AutoBaud), 2);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Ping), 1);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Download), 1);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::SendData), 2);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::GetStatus), 3);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::CommandAck), 3);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Reset), 1);
    QCOMPARE(m_sim->receivedPackets().size(), 8);
    QCOMPARE(m_sim->receivedPackets().first(), BootloaderPacket(BootloaderCommand::Ping));
    QVERIFY(m_sim->badBytes().isEmpty());
}

void TestPtySectionSimulator::bootloaderNaksPacketWithBadChecksum()
{
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    peerWrite(hex("032120"));
    QVERIFY(peerReceives(hex("33")));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Download), 0);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Ping), 0);
    peerWrite(hex("032020"));
    QVERIFY(peerReceives(hex("cc")));
}

void TestPtySectionSimulator::bootloaderNaksNextPacketsOnRequest()
{
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_sim->nakNextPackets(2);
    peerWrite(hex("032020"));
    QVERIFY(peerReceives(hex("33")));
    peerWrite(hex("032020"));
    QVERIFY(peerReceives(hex("33")));
    peerWrite(hex("032020"));
    QVERIFY(peerReceives(hex("cc")));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Ping), 3);
    // AutoBaud is no packet: it is acknowledged even while packets are refused.
    m_sim->nakNextPackets(1);
    peerWrite(hex("5555"));
    QVERIFY(peerReceives(hex("cc")));
}

void TestPtySectionSimulator::bootloaderNaksChosenCommandAndDoesNotExecuteIt()
{
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_sim->nakCommand(BootloaderCommand::SendData, 1);
    peerWrite(packet(BootloaderCommand::Download, hex("0000000000000040")));
    QVERIFY(peerReceives(hex("cc")));
    const QByteArray block(64, '\x11');
    peerWrite(packet(BootloaderCommand::SendData, block));
    QVERIFY(peerReceives(hex("33")));
    QVERIFY(m_sim->image().isEmpty());
    peerWrite(packet(BootloaderCommand::SendData, block));
    QVERIFY(peerReceives(hex("cc")));
    QCOMPARE(m_sim->image(), block);

    m_sim->nakCommand(BootloaderCommand::GetStatus, -1);
    for (int i = 0; i < 3; ++i) {
        peerWrite(hex("032323"));
        QVERIFY(peerReceives(hex("33")));
    }
    m_sim->nakCommand(BootloaderCommand::GetStatus, 0);
    peerWrite(hex("032323"));
    QVERIFY(peerReceives(hex("cc034040")));
}

void TestPtySectionSimulator::bootloaderStatusRepliesAreConfigurable()
{
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    QCOMPARE(m_sim->statusReply(), uint8_t(BootloaderCommand::Success));
    m_sim->enqueueStatusReply(BootloaderCommand::FlashFailure);
    peerWrite(hex("032323"));
    QVERIFY(peerReceives(hex("cc034444")));
    peerWrite(hex("032323"));
    QVERIFY(peerReceives(hex("cc034040")));
    m_sim->setStatusReply(BootloaderCommand::CRCheckFailure);
    peerWrite(hex("032323"));
    QVERIFY(peerReceives(hex("cc034545")));
    peerWrite(hex("032323"));
    QVERIFY(peerReceives(hex("cc034545")));
}

void TestPtySectionSimulator::bootloaderUnknownCommandGivesInvalidCommandStatus()
{
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    peerWrite(packet(0x30));
    QVERIFY(peerReceives(hex("cc")));
    peerWrite(hex("032323"));
    QVERIFY(peerReceives(hex("cc034242")));
    peerWrite(hex("032323"));
    QVERIFY(peerReceives(hex("cc034040")));
}

void TestPtySectionSimulator::silentBootloaderExecutesNothing()
{
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    m_sim->setSilent(true);
    peerWrite(hex("5555"));
    peerWrite(packet(BootloaderCommand::Download, hex("0000000000000040")));
    peerWrite(hex("032525"));
    QCOMPARE(m_sim->commandCount(BootloaderCommand::AutoBaud), 1);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Download), 1);
    QCOMPARE(m_sim->commandCount(BootloaderCommand::Reset), 1);
    QCOMPARE(m_sim->downloadSize(), 0u);
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Bootloader);
    m_sim->sendRaw(hex("ee"));
    QVERIFY(peerReceives(hex("ee")));

    m_sim->setSilent(false);
    peerWrite(hex("5555"));
    QVERIFY(peerReceives(hex("cc")));
}

QTEST_GUILESS_MAIN(TestPtySectionSimulator)
#include "tst_ptysectionsimulator.moc"
