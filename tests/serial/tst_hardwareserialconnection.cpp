// HardwareSerialConnection against a real tty: the plugin's end opens the slave of a pty
// whose master is played by PtySectionSimulator, exactly as it opens "/dev/ttymxcN".
//
// The log lines are Qt stream lines: items separated by one space, the section index as a
// number, the port name quoted. With the section index 2 and the port "/dev/pts/7":
//   debug    WS section 2 serial port: "/dev/pts/7" ready and open.
//   debug    Unable to open connection to WS section 2  Connection name: "/dev/x" The device
//            was not found.                       (two spaces: the text's own and the stream's)
//   critical Unable to open WS section 2 serial port with name:  "/dev/x"
//   critical Error was: DeviceNotFoundError
//   debug    Error while reading data from the serial port "/dev/pts/7"
//   debug    Serial port error in WS section 2 Error core: 8

#include <fcntl.h>
#include <unistd.h>
#include <QDir>
#include <QFileInfo>
#include <QMetaEnum>
#include <QSet>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest/QtTest>
#include <memory>

#include "serial/hardwareserialconnection.h"
#include "serial/iserialdatareceiver.h"
#include "serial/serialmessage.h"
#include "serial/serialporterrorcode.h"
#include "support/lockprobe.h"
#include "support/logcapture.h"
#include "support/ptysectionsimulator.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int Timeout = 5000;
constexpr uint8_t Section = 2;

// Stands where the section connection receives the bytes: records each delivery.
class Receiver : public ISerialDataReceiver
{
public:
    void dataReceived(const QByteArray& data) override { chunks.append(data); }
    QByteArray bytes() const
    {
        QByteArray all;
        for (const QByteArray& chunk : chunks) {
            all += chunk;
        }
        return all;
    }
    QList<QByteArray> chunks;
};

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QString readyLine(const QString& port)
{
    return QStringLiteral("WS section 2 serial port: %1 ready and open.").arg(quoted(port));
}

}  // namespace

class TestHardwareSerialConnection : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void openLogsReadyAndOpenLine();
    void openSetsLineTo115200EightNoneOneWithoutFlowControl();
    void openOnOpenPortChangesNothing();
    void openOfMissingDeviceLogsNotFoundThenTwoCriticalLines();
    void openFailureLeavesConnectionClosedAndItCanOpenLater();
    void closeOnClosedPortLogsNothing();
    void closeThenOpenAgainWorks();

    void flushWithEmptyBufferWritesNothing();
    void flushOnClosedPortDiscardsBufferedBytes();
    void closeDiscardsBufferedBytes();
    void sendMessageBuffersUntilFlush();
    void sendMessageAndFlushWritesExactBytes();
    void flushWritesBurstOfMessagesAsOneWrite();
    void messageCountCountsMessagesNotBytesAcrossCloseAndOpen();

    void writeRawWritesPacketAtOnceOutsideBuffer();
    void writeRawWritesAutoBaudAsTwoBytes();
    void writeRawOnClosedPortWritesNothing();
    void writesReachTheLineBeforeTheEventLoopRuns();
    void whatTheLineCannotTakeFollowsInOrder();

    void receivedBytesReachDataReceiver();
    void receivedBytesWithoutReceiverAreDropped();
    void bytesSplitAtAnyPointArriveInOrder_data();
    void bytesSplitAtAnyPointArriveInOrder();

    void hangUpOfSectionLogsOneReadErrorAndClosesThePort();
    void hangUpAfterTheLinkWroteLogsOneErrorAndClosesThePort();
    void writingToAHungUpPortBeforeItsErrorArrivesDiscardsTheBytes();
    void goneDeviceErrorsCloseAnOpenPortOthersLeaveItOpen_data();
    void goneDeviceErrorsCloseAnOpenPortOthersLeaveItOpen();

    void errorTableLogLines_data();
    void errorTableLogLines();

    void portNameIsTheDeviceAndPortErrorIsEmptyBeforeAndWhileOpen();
    void missingDeviceGivesPortErrorNamingItUntilItOpens();
    void reopenDoesNotRepeatTheLinesOfAnIdenticalFailure();
    void openAfterFailuresStillLogsEverything();
    void reopenOfAnOpenPortSaysNothingAndAfterAFailureSaysReady();
    void goneDeviceGivesDeviceGonePortError();
    void portSignalsFindTheLockFree();

private:
    std::unique_ptr<PtySectionSimulator> m_sim;
    std::unique_ptr<HardwareSerialConnection> m_connection;
    Receiver m_receiver;
};

void TestHardwareSerialConnection::init()
{
    m_sim = std::make_unique<PtySectionSimulator>();
    QVERIFY2(m_sim->isOpen(), qPrintable(m_sim->errorString()));
    m_sim->setAnswersPings(false);
    m_sim->setAnswersAutoBaudInApplication(false);
    m_connection = std::make_unique<HardwareSerialConnection>(Section, m_sim->slavePath());
    m_receiver = Receiver();
    m_connection->setDataReceiver(&m_receiver);
}

void TestHardwareSerialConnection::cleanup()
{
    m_connection.reset();
    m_sim.reset();
}

void TestHardwareSerialConnection::openLogsReadyAndOpenLine()
{
    LogCapture log;
    QVERIFY(!m_connection->isOpen());
    m_connection->open();
    QVERIFY(m_connection->isOpen());
    QCOMPARE(log.lines(), (QList<LogCapture::Line>{
                              {QtDebugMsg, readyLine(m_sim->slavePath())},
                          }));
}

void TestHardwareSerialConnection::openSetsLineTo115200EightNoneOneWithoutFlowControl()
{
    // A Linux pty always keeps 8 data bits and no parity; the baud rate, the stop bits
    // and the flow control show what the connection set.
    const PtySectionSimulator::LineSettings before = m_sim->lineSettings();
    QCOMPARE(before.inputBaud, 9600);
    QCOMPARE(before.stopBits, 2);
    QCOMPARE(before.hardwareFlowControl, true);

    m_connection->open();
    QVERIFY(m_connection->isOpen());
    const PtySectionSimulator::LineSettings line = m_sim->lineSettings();
    QCOMPARE(line.inputBaud, 115200);
    QCOMPARE(line.outputBaud, 115200);
    QCOMPARE(line.dataBits, 8);
    QCOMPARE(line.parity, false);
    QCOMPARE(line.stopBits, 1);
    QCOMPARE(line.hardwareFlowControl, false);
    QCOMPARE(line.softwareFlowControl, false);
    QCOMPARE(line.raw, true);
}

void TestHardwareSerialConnection::openOnOpenPortChangesNothing()
{
    m_connection->open();
    QVERIFY(m_connection->isOpen());
    m_connection->sendMessage(SerialMessage(7, 4, {0x01, 0x2C}));

    LogCapture log;
    m_connection->open();
    QVERIFY(m_connection->isOpen());
    QVERIFY(log.lines().isEmpty());
    // The buffer was not cleared by the second open, as a successful open would.
    QCOMPARE(m_connection->bufferedByteCount(), 6);
    m_connection->flush();
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("050704012c3d"), Timeout);
}

void TestHardwareSerialConnection::openOfMissingDeviceLogsNotFoundThenTwoCriticalLines()
{
    // One name per process: QSerialPort's lock file for the name is shared by every test
    // process running at the same time.
    const QString missing =
        QStringLiteral("/dev/tarvix-no-such-section-%1").arg(QCoreApplication::applicationPid());
    HardwareSerialConnection connection(1, missing);
    LogCapture log;
    connection.open();
    QVERIFY(!connection.isOpen());
    // The port reports the error while it opens, so the handler's line comes first.
    QCOMPARE(
        log.lines(),
        (QList<LogCapture::Line>{
            {QtDebugMsg, QStringLiteral("Unable to open connection to WS section 1  "
                                        "Connection name: %1 The device was not found.")
                             .arg(quoted(missing))},
            {QtCriticalMsg, QStringLiteral("Unable to open WS section 1 serial port with name:  %1")
                                .arg(quoted(missing))},
            {QtCriticalMsg, QStringLiteral("Error was: DeviceNotFoundError")},
        }));
    QCOMPARE(log.categories(), QStringList({"tarvix.worksurface.link", "tarvix.worksurface.link",
                                            "tarvix.worksurface.link"}));
}

void TestHardwareSerialConnection::openFailureLeavesConnectionClosedAndItCanOpenLater()
{
    // A second connection on a port that is in use cannot open it.
    m_connection->open();
    QVERIFY(m_connection->isOpen());
    HardwareSerialConnection second(3, m_sim->slavePath());
    {
        LogCapture log;
        second.open();
        QVERIFY(!second.isOpen());
        const QStringList critical = log.texts(QtCriticalMsg);
        QCOMPARE(critical.size(), 2);
        QCOMPARE(critical.at(0),
                 QStringLiteral("Unable to open WS section 3 serial port with name:  %1")
                     .arg(quoted(m_sim->slavePath())));
        QVERIFY2(critical.at(1).startsWith(QStringLiteral("Error was: ")),
                 qPrintable(critical.at(1)));
    }
    m_connection->close();
    LogCapture log;
    second.open();
    QVERIFY(second.isOpen());
    QCOMPARE(log.texts(), QStringList{QStringLiteral("WS section 3 serial port: %1 ready and open.")
                                          .arg(quoted(m_sim->slavePath()))});
}

void TestHardwareSerialConnection::closeOnClosedPortLogsNothing()
{
    LogCapture log;
    m_connection->close();
    QVERIFY(!m_connection->isOpen());
    m_connection->open();
    m_connection->close();
    m_connection->close();
    QVERIFY(!m_connection->isOpen());
    QCOMPARE(log.texts(), QStringList{readyLine(m_sim->slavePath())});
}

void TestHardwareSerialConnection::closeThenOpenAgainWorks()
{
    m_connection->open();
    m_connection->close();
    LogCapture log;
    m_connection->open();
    QVERIFY(m_connection->isOpen());
    QCOMPARE(log.texts(), QStringList{readyLine(m_sim->slavePath())});
    m_sim->sendRaw(QByteArray::fromHex("03000003"));
    QTRY_COMPARE_WITH_TIMEOUT(m_receiver.bytes(), QByteArray::fromHex("03000003"), Timeout);
}

void TestHardwareSerialConnection::flushWithEmptyBufferWritesNothing()
{
    m_connection->open();
    LogCapture log;
    m_connection->flush();
    m_connection->flush();
    QVERIFY(log.lines().isEmpty());
    // What arrives next is exactly the next frame: the empty flushes wrote nothing.
    m_connection->sendMessage(SerialMessage(0, 0));
    m_connection->flush();
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("03000003"), Timeout);
    QVERIFY(log.lines().isEmpty());
}

void TestHardwareSerialConnection::flushOnClosedPortDiscardsBufferedBytes()
{
    LogCapture log;
    m_connection->sendMessage(SerialMessage(7, 4, {0x01, 0x2C}));
    QCOMPARE(m_connection->bufferedByteCount(), 6);
    m_connection->flush();
    QCOMPARE(m_connection->bufferedByteCount(), 0);
    QVERIFY(log.lines().isEmpty());

    m_connection->open();
    m_connection->sendMessage(SerialMessage(0, 0));
    m_connection->flush();
    // The discarded frame never arrives: the first bytes on the line are the new frame.
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("03000003"), Timeout);
}

void TestHardwareSerialConnection::closeDiscardsBufferedBytes()
{
    m_connection->open();
    m_connection->sendMessage(SerialMessage(7, 4, {0x01, 0x2C}));
    m_connection->close();
    QCOMPARE(m_connection->bufferedByteCount(), 0);
}

void TestHardwareSerialConnection::sendMessageBuffersUntilFlush()
{
    m_connection->open();
    m_connection->sendMessage(SerialMessage(7, 4, {0x01, 0x2C}));
    QCOMPARE(m_connection->bufferedByteCount(), 6);
    // Writes reach the line in order: a marker written now arrives alone if the message
    // is still held back.
    m_connection->writeRaw(BootloaderPacket(BootloaderCommand::CommandAck));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("cc"), Timeout);
    m_connection->flush();
    QCOMPARE(m_connection->bufferedByteCount(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("cc050704012c3d"),
                              Timeout);
}

void TestHardwareSerialConnection::sendMessageAndFlushWritesExactBytes()
{
    m_connection->open();
    LogCapture log;
    m_connection->sendMessage(SerialMessage(7, 4, {0x01, 0x2C}));
    m_connection->flush();
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("050704012c3d"), Timeout);
    QCOMPARE(m_sim->receivedMessages().size(), 1);
    QCOMPARE(m_sim->receivedMessages().at(0), SerialMessage(7, 4, {0x01, 0x2C}));
    QVERIFY(m_sim->badBytes().isEmpty());
    QVERIFY(log.lines().isEmpty());
}

void TestHardwareSerialConnection::flushWritesBurstOfMessagesAsOneWrite()
{
    m_connection->open();
    QSignalSpy chunks(m_sim.get(), &PtySectionSimulator::bytesReceived);
    m_connection->sendMessage(SerialMessage(7, 4, {0x01, 0x2C}));
    m_connection->sendMessage(SerialMessage(0, 0));
    m_connection->sendMessage(SerialMessage(6, 0, {0x80}));
    m_connection->flush();
    const QByteArray expected = QByteArray::fromHex(
        "050704012c3d"
        "03000003"
        "04060080"
        "8a");
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), expected, Timeout);
    QCOMPARE(chunks.count(), 1);
    QCOMPARE(m_sim->receivedMessages().size(), 3);
}

void TestHardwareSerialConnection::messageCountCountsMessagesNotBytesAcrossCloseAndOpen()
{
    QCOMPARE(m_connection->messageCount(), uint64_t(0));
    m_connection->sendMessage(SerialMessage(7, 4, {0x01, 0x2C}));  // 6 bytes, closed
    QCOMPARE(m_connection->messageCount(), uint64_t(1));
    m_connection->open();
    m_connection->sendMessage(SerialMessage(12, 3, {1, 2, 3, 0}));  // 8 bytes
    m_connection->sendMessage(SerialMessage::makeZeroFill());       // 1,024 bytes
    QCOMPARE(m_connection->messageCount(), uint64_t(3));
    m_connection->flush();
    m_connection->close();
    QCOMPARE(m_connection->messageCount(), uint64_t(3));
    m_connection->open();
    m_connection->sendMessage(SerialMessage(0, 0));
    QCOMPARE(m_connection->messageCount(), uint64_t(4));
    // writeRaw is not a message.
    m_connection->writeRaw(BootloaderPacket(BootloaderCommand::Ping));
    QCOMPARE(m_connection->messageCount(), uint64_t(4));
}

void TestHardwareSerialConnection::writeRawWritesPacketAtOnceOutsideBuffer()
{
    m_connection->open();
    m_connection->sendMessage(SerialMessage(7, 4, {0x01, 0x2C}));
    m_connection->writeRaw(BootloaderPacket(BootloaderCommand::Ping));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("032020"), Timeout);
    // The buffered message stays for the next flush.
    QCOMPARE(m_connection->bufferedByteCount(), 6);
    m_connection->flush();
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("032020050704012c3d"),
                              Timeout);
}

void TestHardwareSerialConnection::writeRawWritesAutoBaudAsTwoBytes()
{
    m_connection->open();
    m_connection->writeRaw(BootloaderPacket(BootloaderCommand::AutoBaud));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("5555"), Timeout);
    m_connection->writeRaw(BootloaderPacket(BootloaderCommand::CommandAck));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("5555cc"), Timeout);
}

void TestHardwareSerialConnection::writeRawOnClosedPortWritesNothing()
{
    LogCapture log;
    m_connection->writeRaw(BootloaderPacket(BootloaderCommand::Ping));
    QVERIFY(log.lines().isEmpty());
    m_connection->open();
    m_connection->writeRaw(BootloaderPacket(BootloaderCommand::Reset));
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("032525"), Timeout);
}

void TestHardwareSerialConnection::receivedBytesReachDataReceiver()
{
    m_connection->open();
    m_sim->sendVersionReport();
    QTRY_COMPARE_WITH_TIMEOUT(m_receiver.bytes(), QByteArray::fromHex("0600000a22285a"), Timeout);
}

void TestHardwareSerialConnection::receivedBytesWithoutReceiverAreDropped()
{
    m_connection->setDataReceiver(nullptr);
    m_connection->open();
    m_sim->sendRaw(QByteArray::fromHex("03000003"));
    QVERIFY(m_sim->waitUntilPeerHasRead(Timeout));
    m_connection->setDataReceiver(&m_receiver);
    m_sim->sendRaw(QByteArray::fromHex("03030006"));
    QTRY_COMPARE_WITH_TIMEOUT(m_receiver.bytes(), QByteArray::fromHex("03030006"), Timeout);
    QCOMPARE(m_receiver.chunks.size(), 1);
}

void TestHardwareSerialConnection::bytesSplitAtAnyPointArriveInOrder_data()
{
    QTest::addColumn<QList<int>>("sizes");
    // A fader move, a version report and a button press: 6 + 7 + 5 bytes.
    QTest::newRow("whole") << QList<int>{};
    for (int cut = 1; cut < 18; ++cut) {
        QTest::newRow(qPrintable(QStringLiteral("cut at %1").arg(cut))) << QList<int>{cut};
    }
    QList<int> bytes;
    for (int i = 0; i < 18; ++i) {
        bytes << 1;
    }
    QTest::newRow("byte by byte") << bytes;
    QTest::newRow("1 5 2 9 1") << QList<int>{1, 5, 2, 9, 1};
}

void TestHardwareSerialConnection::bytesSplitAtAnyPointArriveInOrder()
{
    QFETCH(QList<int>, sizes);
    const QByteArray stream =
        PtySectionSimulator::encodeFrame(7, 4, QByteArray::fromHex("012c")) +
        PtySectionSimulator::encodeFrame(0, 0, QByteArray::fromHex("0a2228")) +
        PtySectionSimulator::encodeFrame(20, 21, QByteArray::fromHex("01"));
    QCOMPARE(stream.size(), 18);
    m_connection->open();
    QVERIFY(m_sim->sendRawSplit(stream, sizes, Timeout));
    QTRY_COMPARE_WITH_TIMEOUT(m_receiver.bytes(), stream, Timeout);
    // The port reads on this thread and the simulator waited for each piece to be taken,
    // so every piece arrived in a delivery of its own.
    QList<QByteArray> expectedChunks;
    int offset = 0;
    for (int size : sizes) {
        expectedChunks.append(stream.mid(offset, size));
        offset += size;
    }
    if (offset < stream.size()) {
        expectedChunks.append(stream.mid(offset));
    }
    QCOMPARE(m_receiver.chunks, expectedChunks);
}

void TestHardwareSerialConnection::hangUpOfSectionLogsOneReadErrorAndClosesThePort()
{
    m_connection->open();
    m_sim->sendRaw(QByteArray::fromHex("03000003"));
    QTRY_COMPARE_WITH_TIMEOUT(m_receiver.bytes(), QByteArray::fromHex("03000003"), Timeout);

    LogCapture log;
    m_sim->hangUp();
    // The slave of a closed pty reads as end of file, which the port reports as a read
    // error. The section is gone: the line is logged once and the port is closed, because
    // an open port would report the same error again on every pass of the event loop.
    QTRY_VERIFY_WITH_TIMEOUT(!m_connection->isOpen(), Timeout);
    const LogCapture::Line readError{
        QtDebugMsg, QStringLiteral("Error while reading data from the serial port %1")
                        .arg(quoted(m_sim->slavePath()))};
    QCOMPARE(log.lines(), QList<LogCapture::Line>{readError});
    QCOMPARE(m_receiver.bytes(), QByteArray::fromHex("03000003"));

    // Closed, the port stays quiet while the event loop runs over the dead line's time.
    QTest::qWait(100);
    QCOMPARE(log.lines(), QList<LogCapture::Line>{readError});
    QVERIFY(!m_connection->isOpen());
}

void TestHardwareSerialConnection::writesReachTheLineBeforeTheEventLoopRuns()
{
    // An update's packet waits for no pass of the event loop: it is on the line when the
    // write returns, and so is a flushed message.
    m_connection->open();
    const QByteArray block(64, char(0x5a));
    m_connection->writeRaw(BootloaderPacket(BootloaderCommand::SendData, block));
    m_sim->readLineNow();
    const QByteArray packet =
        encodeBootloaderPacket(BootloaderPacket(BootloaderCommand::SendData, block));
    QCOMPARE(m_sim->receivedBytes(), packet);
    m_connection->sendMessage(SerialMessage(MessageType::Ping, 0));
    m_connection->flush();
    m_sim->readLineNow();
    QCOMPARE(m_sim->receivedBytes(), packet + QByteArray::fromHex("03000003"));
}

void TestHardwareSerialConnection::whatTheLineCannotTakeFollowsInOrder()
{
    // More than a pty holds while nobody reads it: the line takes what it can at once, the
    // port keeps the rest and writes it as the line drains, and a later write waits behind
    // it.
    m_connection->open();
    QByteArray burst;
    const SerialMessage message(7, 4, {0x01, 0x2C});
    while (burst.size() < 256 * 1024) {
        burst.append(encode(message));
        m_connection->sendMessage(message);
    }
    m_connection->flush();
    m_connection->writeRaw(BootloaderPacket(BootloaderCommand::Reset));
    m_sim->readLineNow();
    const int taken = m_sim->receivedBytes().size();
    QVERIFY2(taken > 0 && taken < burst.size(), qPrintable(QString::number(taken)));
    QVERIFY(m_sim->receivedBytes() == burst.left(taken));
    const QByteArray expected = burst + QByteArray::fromHex("032525");
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes().size(), expected.size(), Timeout);
    QVERIFY(m_sim->receivedBytes() == expected);
}

void TestHardwareSerialConnection::hangUpAfterTheLinkWroteLogsOneErrorAndClosesThePort()
{
    // With traffic in both directions before the cable is pulled, the end of file may come
    // back from the port as a resource error instead (which error QSerialPort picks for an
    // end of file depends on what the last failed system call left behind). Either way the
    // section is gone: one line, and the port is closed.
    m_connection->open();
    m_connection->sendMessage(SerialMessage(MessageType::Ping, 0));
    m_connection->flush();
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("03000003"), Timeout);
    m_sim->sendRaw(QByteArray::fromHex("0600000a22285a"));
    QTRY_COMPARE_WITH_TIMEOUT(m_receiver.bytes(), QByteArray::fromHex("0600000a22285a"), Timeout);

    LogCapture log;
    m_sim->hangUp();
    QTRY_VERIFY_WITH_TIMEOUT(!m_connection->isOpen(), Timeout);
    const QStringList goneLines{
        QStringLiteral("Error while reading data from the serial port %1")
            .arg(quoted(m_sim->slavePath())),
        QStringLiteral("Serial port error in WS section 2 Error core: 9"),
    };
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(log.lines().first().level, QtDebugMsg);
    QVERIFY2(goneLines.contains(log.lines().first().text), qPrintable(log.lines().first().text));

    QTest::qWait(100);
    QCOMPARE(log.lines().size(), 1);
}

void TestHardwareSerialConnection::writingToAHungUpPortBeforeItsErrorArrivesDiscardsTheBytes()
{
    m_connection->open();
    LogCapture log;
    m_sim->hangUp();
    // Before the event loop has delivered the port's error: the write goes to the port's
    // own buffer without reporting anything (and without taking the connection's lock
    // twice). Then the error arrives once and closes the port, and the bytes are gone.
    m_connection->sendMessage(SerialMessage(MessageType::Ping, 0));
    m_connection->flush();
    m_connection->writeRaw(BootloaderPacket(BootloaderCommand::AutoBaud));
    QCOMPARE(m_connection->bufferedByteCount(), 0);
    QTRY_VERIFY_WITH_TIMEOUT(!m_connection->isOpen(), Timeout);
    QTest::qWait(100);
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(m_connection->messageCount(), uint64_t(1));
}

void TestHardwareSerialConnection::goneDeviceErrorsCloseAnOpenPortOthersLeaveItOpen_data()
{
    QTest::addColumn<int>("error");
    QTest::addColumn<bool>("closes");
    const QMetaEnum errors = QMetaEnum::fromType<QSerialPort::SerialPortError>();
    for (int i = 0; i < errors.keyCount(); ++i) {
        const auto error = static_cast<QSerialPort::SerialPortError>(errors.value(i));
        const bool closes = error == QSerialPort::ReadError || error == QSerialPort::ResourceError;
        QTest::newRow(errors.key(i)) << int(error) << closes;
    }
}

void TestHardwareSerialConnection::goneDeviceErrorsCloseAnOpenPortOthersLeaveItOpen()
{
    QFETCH(int, error);
    QFETCH(bool, closes);
    m_connection->open();
    QVERIFY(m_connection->isOpen());
    m_connection->sendMessage(SerialMessage(MessageType::Ping, 0));
    QCOMPARE(m_connection->bufferedByteCount(), 4);

    LogCapture log;
    m_connection->handleSerialPortError(static_cast<QSerialPort::SerialPortError>(error));
    QCOMPARE(m_connection->isOpen(), !closes);
    // Closing takes the buffered bytes with it, as every close does.
    QCOMPARE(m_connection->bufferedByteCount(), closes ? 0 : 4);
    QCOMPARE(log.lines().size(), error == QSerialPort::NoError ? 0 : 1);

    if (closes) {
        // The line can be opened again when the section is back.
        m_connection->open();
        QVERIFY(m_connection->isOpen());
    }
}

void TestHardwareSerialConnection::errorTableLogLines_data()
{
    QTest::addColumn<int>("error");
    QTest::addColumn<QStringList>("lines");
    const QString port = QStringLiteral("\"/dev/ttymxc2\"");
    auto other = [](QSerialPort::SerialPortError error) {
        return QStringList{QStringLiteral("Serial port error in WS section 2 Error core: %1")
                               .arg(serialPortErrorCode(error))};
    };
    const QMetaEnum errors = QMetaEnum::fromType<QSerialPort::SerialPortError>();
    for (int i = 0; i < errors.keyCount(); ++i) {
        const auto error = static_cast<QSerialPort::SerialPortError>(errors.value(i));
        QStringList lines;
        switch (error) {
            case QSerialPort::NoError:
                break;
            case QSerialPort::DeviceNotFoundError:
                lines << QStringLiteral(
                             "Unable to open connection to WS section 2  Connection name: %1 The "
                             "device was not found.")
                             .arg(port);
                break;
            case QSerialPort::WriteError:
                lines << QStringLiteral("Error while writing data to the serial port %1").arg(port);
                break;
            case QSerialPort::ReadError:
                lines
                    << QStringLiteral("Error while reading data from the serial port %1").arg(port);
                break;
            case QSerialPort::TimeoutError:
                lines << QStringLiteral("Timeout error in serial port %1").arg(port);
                break;
            default:
                lines = other(error);
                break;
        }
        QTest::newRow(errors.key(i)) << serialPortErrorCode(error) << lines;
    }
    // Spelled out, so that a change in the enumeration cannot hide one.
    QTest::newRow("PermissionError is 2") << 2 << other(QSerialPort::PermissionError);
    QTest::newRow("ResourceError is 9") << 9 << other(QSerialPort::ResourceError);
    QTest::newRow("UnknownError is 11") << 11 << other(QSerialPort::UnknownError);
}

void TestHardwareSerialConnection::errorTableLogLines()
{
    QFETCH(int, error);
    QFETCH(QStringList, lines);
    HardwareSerialConnection connection(Section, QStringLiteral("/dev/ttymxc2"));
    LogCapture log;
    connection.handleSerialPortError(serialPortErrorFromCode(error));
    QCOMPARE(log.texts(), lines);
    for (const LogCapture::Line& line : log.lines()) {
        QCOMPARE(line.level, QtDebugMsg);
    }
}

void TestHardwareSerialConnection::portNameIsTheDeviceAndPortErrorIsEmptyBeforeAndWhileOpen()
{
    QCOMPARE(m_connection->portName(), m_sim->slavePath());
    QCOMPARE(m_connection->portError(), QString());
    m_connection->open();
    QVERIFY(m_connection->isOpen());
    QCOMPARE(m_connection->portError(), QString());
}

void TestHardwareSerialConnection::missingDeviceGivesPortErrorNamingItUntilItOpens()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("ttyLater"));
    HardwareSerialConnection connection(1, path);
    connection.open();
    QVERIFY(!connection.isOpen());
    QCOMPARE(connection.portError(), QStringLiteral("Device not found: %1").arg(path));
    QVERIFY(QFile::link(m_sim->slavePath(), path));
    connection.reopen();
    QVERIFY(connection.isOpen());
    QCOMPARE(connection.portError(), QString());
}

void TestHardwareSerialConnection::reopenDoesNotRepeatTheLinesOfAnIdenticalFailure()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("ttyMissing"));
    HardwareSerialConnection connection(1, path);
    LogCapture log;
    connection.open();
    QCOMPARE(log.lines().size(), 3);
    for (int i = 0; i < 5; ++i) {
        connection.reopen();
    }
    QVERIFY(!connection.isOpen());
    QCOMPARE(log.lines().size(), 3);
    QCOMPARE(connection.portError(), QStringLiteral("Device not found: %1").arg(path));
}

void TestHardwareSerialConnection::openAfterFailuresStillLogsEverything()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("ttyMissing"));
    HardwareSerialConnection connection(1, path);
    LogCapture log;
    connection.open();
    connection.open();
    // A plain open is not an attempt of a series: each says everything.
    QCOMPARE(log.lines().size(), 6);
    QCOMPARE(log.count(QtCriticalMsg, QStringLiteral("Error was: DeviceNotFoundError")), 2);
}

void TestHardwareSerialConnection::reopenOfAnOpenPortSaysNothingAndAfterAFailureSaysReady()
{
    m_connection->open();
    LogCapture log;
    m_connection->close();
    m_connection->reopen();
    QVERIFY(m_connection->isOpen());
    QVERIFY(log.lines().isEmpty());

    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("ttyLater"));
    HardwareSerialConnection connection(1, path);
    connection.open();
    QVERIFY(QFile::link(m_sim->slavePath(), path));
    m_connection->close();
    log.clear();
    connection.reopen();
    QVERIFY(connection.isOpen());
    QCOMPARE(log.lines(),
             (QList<LogCapture::Line>{
                 {QtDebugMsg,
                  QStringLiteral("WS section 1 serial port: %1 ready and open.").arg(quoted(path))},
             }));
}

void TestHardwareSerialConnection::goneDeviceGivesDeviceGonePortError()
{
    m_connection->open();
    QVERIFY(m_connection->isOpen());
    m_sim->hangUp();
    QTRY_VERIFY_WITH_TIMEOUT(!m_connection->isOpen(), Timeout);
    QCOMPARE(m_connection->portError(),
             QStringLiteral("Device gone: %1").arg(m_connection->portName()));
}

// Counts the signals a connection's port emits and probes the connection's lock on each:
// the port emits from inside open() and close() (its settings, its error, aboutToClose),
// and each may reach handleSerialPortError, which can close the port, or the application.
struct PortSignalProbe
{
    explicit PortSignalProbe(const std::shared_ptr<HardwareSerialConnection>& connection)
    {
        const QSerialPort* port = connection->port();
        const auto probe = [this, connection](const char* what) {
            ++emitted;
            if (!isFreeFromAnotherThread([connection] { connection->bufferedByteCount(); },
                                         connection)) {
                underLock << QString::fromLatin1(what);
            }
        };
        QObject::connect(port, &QIODevice::aboutToClose, &context,
                         [probe] { probe("aboutToClose"); });
        QObject::connect(port, &QSerialPort::errorOccurred, &context,
                         [probe](QSerialPort::SerialPortError error) {
                             if (error != QSerialPort::NoError) {
                                 probe("errorOccurred");
                             }
                         });
        QObject::connect(port, &QSerialPort::baudRateChanged, &context,
                         [probe] { probe("baudRateChanged"); });
        QObject::connect(port, &QSerialPort::dataBitsChanged, &context,
                         [probe] { probe("dataBitsChanged"); });
        QObject::connect(port, &QSerialPort::bytesWritten, &context,
                         [probe] { probe("bytesWritten"); });
    }

    QObject context;
    int emitted = 0;
    QStringList underLock;
};

// Every signal the port emits, while the connection opens, writes, closes, fails to open a
// missing device and loses its section, finds the connection's lock free.
void TestHardwareSerialConnection::portSignalsFindTheLockFree()
{
    Watchdog dog("port signals", 60);
    auto connection = std::make_shared<HardwareSerialConnection>(Section, m_sim->slavePath());
    connection->setDataReceiver(&m_receiver);
    PortSignalProbe probe(connection);
    LogCapture log;
    LockProbingMessageHandler lines([connection] {
        return isFreeFromAnotherThread([connection] { connection->bufferedByteCount(); },
                                       connection);
    });

    connection->open();
    connection->sendMessage(SerialMessage(MessageType::Ping, 0));
    connection->flush();
    QTRY_COMPARE_WITH_TIMEOUT(m_sim->receivedBytes(), QByteArray::fromHex("03000003"), Timeout);
    connection->close();
    const int afterClose = probe.emitted;
    QVERIFY(afterClose >= 2);

    connection->open();
    m_sim->hangUp();
    QTRY_VERIFY_WITH_TIMEOUT(!connection->isOpen(), Timeout);
    QVERIFY(probe.emitted > afterClose + 1);
    const int afterHangUp = probe.emitted;

    auto missing = std::make_shared<HardwareSerialConnection>(
        Section, QDir::temp().filePath(QStringLiteral("tarvix-no-such-tty")));
    PortSignalProbe missingProbe(missing);
    missing->open();
    QVERIFY(!missing->isOpen());
    QVERIFY(missingProbe.emitted >= 1);

    QVERIFY(afterHangUp > 0);
    QVERIFY2(probe.underLock.isEmpty() && missingProbe.underLock.isEmpty(),
             qPrintable(QStringLiteral("emitted with the connection's lock held: ") +
                        (probe.underLock + missingProbe.underLock).join(QStringLiteral(", "))));
    QVERIFY(lines.lineCount() >= 3);
    QVERIFY2(lines.linesUnderLock().isEmpty(),
             qPrintable(QStringLiteral("logged with the connection's lock held: ") +
                        lines.linesUnderLock().join(QStringLiteral(" | "))));
}

QTEST_GUILESS_MAIN(TestHardwareSerialConnection)
#include "tst_hardwareserialconnection.moc"
