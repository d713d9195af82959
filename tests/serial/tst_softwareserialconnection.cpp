#include <QtTest>
#include <memory>

#include "serial/serialmessage.h"
#include "serial/softwareserialconnection.h"
#include "software/qmlcontrollerconnection.h"
#include "support/logcapture.h"
#include "support/recordingdatareceiver.h"
#include "support/recordingsoftwarecontroller.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

SerialMessage faderPosition(uint8_t deviceId, uint16_t position)
{
    return SerialMessage(MessageType::FaderPosition, deviceId,
                         {static_cast<uint8_t>(position >> 8), static_cast<uint8_t>(position)});
}

SerialMessage rgbColour(uint8_t deviceId, uint8_t r, uint8_t g, uint8_t b)
{
    return SerialMessage(MessageType::RgbColor, deviceId, {r, g, b, 0});
}

}  // namespace

class TestSoftwareSerialConnection : public QObject
{
    Q_OBJECT

private slots:
    void startsClosedWithNoMessagesAndTouchesNothing();
    void openAndCloseOnlySetTheFlagAndDoNotTouchTheController();
    void setDataReceiverRegistersWithTheControllerForThisSection();
    void sendMessageBuffersTheEncodedBytesUntilFlush();
    void flushWithTwoBufferedMessagesDeliversTwoMessagesInOrder();
    void flushEmptiesTheBuffer();
    void flushWithEmptyBufferDoesNothing();
    void badDataIsLoggedAtDebugLevelWithSectionAndHexBytes();
    void writeRawAutoBaudIsAnsweredWithOneNotBootLoaderPacket();
    void writeRawWithAnyOtherCommandProducesNothing();
    void messageCountCountsMessagesNotBytesAndKeepsCountingAcrossCloseAndOpen();
    void flushRequestedWhileFlushingDeliversInStreamOrderOnce();
    void messageSentWhileFlushingWaitsForTheNextFlush();
    void answerThatMakesThePluginSendAndFlushAgainIsSafe();
};

void TestSoftwareSerialConnection::startsClosedWithNoMessagesAndTouchesNothing()
{
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(1, controller);

    QCOMPARE(connection.isOpen(), false);
    QCOMPARE(connection.messageCount(), uint64_t(0));
    QCOMPARE(connection.sectionIndex(), uint8_t(1));
    QCOMPARE(controller->calls, QStringList());
}

void TestSoftwareSerialConnection::openAndCloseOnlySetTheFlagAndDoNotTouchTheController()
{
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(0, controller);
    connection.sendMessage(faderPosition(1, 2));
    LogCapture log;

    connection.open();
    QCOMPARE(connection.isOpen(), true);
    connection.open();
    QCOMPARE(connection.isOpen(), true);
    connection.close();
    QCOMPARE(connection.isOpen(), false);
    connection.close();
    QCOMPARE(connection.isOpen(), false);

    QCOMPARE(controller->calls, QStringList());
    QCOMPARE(log.lines().size(), 0);
    // Nothing on the line to drop: what was buffered stays for the next flush.
    QCOMPARE(connection.bufferedSize(), 6);
}

void TestSoftwareSerialConnection::setDataReceiverRegistersWithTheControllerForThisSection()
{
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(2, controller);
    RecordingDataReceiver receiver;

    connection.setDataReceiver(&receiver);
    connection.setDataReceiver(nullptr);

    QCOMPARE(controller->calls, (QStringList{"setDataReceiver", "setDataReceiver"}));
    QCOMPARE(controller->receivers[0].sectionIndex, uint8_t(2));
    QCOMPARE(controller->receivers[0].receiver, &receiver);
    QCOMPARE(controller->receivers[1].sectionIndex, uint8_t(2));
    QCOMPARE(controller->receivers[1].receiver, static_cast<ISerialDataReceiver*>(nullptr));
}

void TestSoftwareSerialConnection::sendMessageBuffersTheEncodedBytesUntilFlush()
{
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(0, controller);
    connection.open();

    connection.sendMessage(faderPosition(4, 300));  // 05 07 04 01 2C 3D

    QCOMPARE(connection.bufferedSize(), 6);
    QCOMPARE(connection.messageCount(), uint64_t(1));
    QCOMPARE(controller->calls, QStringList());
}

void TestSoftwareSerialConnection::flushWithTwoBufferedMessagesDeliversTwoMessagesInOrder()
{
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(2, controller);
    connection.open();
    const SerialMessage first = faderPosition(4, 300);
    const SerialMessage second = rgbColour(33, 255, 0, 16);

    connection.sendMessage(first);
    connection.sendMessage(second);
    connection.flush();

    QCOMPARE(controller->calls, (QStringList{"messageFromPlugin", "messageFromPlugin"}));
    QCOMPARE(controller->fromPlugin[0].sectionIndex, uint8_t(2));
    QCOMPARE(controller->fromPlugin[0].message, first);
    QCOMPARE(controller->fromPlugin[1].sectionIndex, uint8_t(2));
    QCOMPARE(controller->fromPlugin[1].message, second);
    // They went through the frame parser: what arrived re-encodes to what was sent.
    QCOMPARE(encode(controller->fromPlugin[0].message), QByteArray::fromHex("050704012c3d"));
    QCOMPARE(encode(controller->fromPlugin[1].message), QByteArray::fromHex("070c21ff00100043"));
}

void TestSoftwareSerialConnection::flushEmptiesTheBuffer()
{
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(0, controller);
    connection.sendMessage(faderPosition(4, 300));

    connection.flush();
    QCOMPARE(connection.bufferedSize(), 0);
    connection.flush();

    QCOMPARE(controller->fromPlugin.size(), std::size_t(1));
}

void TestSoftwareSerialConnection::flushWithEmptyBufferDoesNothing()
{
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(0, controller);
    connection.open();
    LogCapture log;

    connection.flush();

    QCOMPARE(controller->calls, QStringList());
    QCOMPARE(log.lines().size(), 0);
    QCOMPARE(connection.messageCount(), uint64_t(0));
}

void TestSoftwareSerialConnection::badDataIsLoggedAtDebugLevelWithSectionAndHexBytes()
{
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(1, controller);
    // A type outside the table encodes as a bare header, 03 1E 04 25, which the parser
    // rejects by its type byte; the ping after it (03 00 00 03) is found behind it.
    connection.sendMessage(SerialMessage(30, 4));
    connection.sendMessage(SerialMessage(MessageType::Ping, 0));
    LogCapture log;

    connection.flush();

    // The section index as a number and the discarded bytes as lowercase hex without
    // separators, quoted, the way Qt's debug stream writes a byte array.
    QCOMPARE(log.lines(),
             (QList<LogCapture::Line>{
                 {QtDebugMsg,
                  "SW serial message connection for section: 1 received bad data: \"031e0425\""}}));
    QCOMPARE(log.categories(), QStringList({"tarvix.worksurface.link"}));
    QCOMPARE(controller->calls, QStringList{"messageFromPlugin"});
    QCOMPARE(controller->fromPlugin[0].message, SerialMessage(MessageType::Ping, 0));
}

void TestSoftwareSerialConnection::writeRawAutoBaudIsAnsweredWithOneNotBootLoaderPacket()
{
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(2, controller);
    connection.open();
    connection.sendMessage(faderPosition(4, 300));

    connection.writeRaw(BootloaderPacket(BootloaderCommand::AutoBaud));

    QCOMPARE(controller->calls, QStringList{"sendBootloaderReply"});
    QCOMPARE(controller->bootloaderReplies[0].sectionIndex, uint8_t(2));
    QCOMPARE(controller->bootloaderReplies[0].packet.command,
             uint8_t(BootloaderCommand::NotBootLoader));
    QCOMPARE(controller->bootloaderReplies[0].packet.command, uint8_t(170));
    QCOMPARE(controller->bootloaderReplies[0].packet.payload, QByteArray());
    // Outside the message buffer: the buffered message and the count are untouched.
    QCOMPARE(connection.bufferedSize(), 6);
    QCOMPARE(connection.messageCount(), uint64_t(1));

    // An auto-baud request with stray data is still an auto-baud request.
    connection.writeRaw(BootloaderPacket(85, QByteArray::fromHex("55")));
    QCOMPARE(controller->bootloaderReplies.size(), std::size_t(2));
    QCOMPARE(controller->bootloaderReplies[1].packet, BootloaderPacket(170));
}

void TestSoftwareSerialConnection::writeRawWithAnyOtherCommandProducesNothing()
{
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(0, controller);
    connection.open();
    LogCapture log;

    for (int command = 0; command < 256; ++command) {
        if (command == 85) {
            continue;
        }
        connection.writeRaw(
            BootloaderPacket(static_cast<uint8_t>(command), QByteArray(8, char(0x11))));
    }

    QCOMPARE(controller->calls, QStringList());
    QCOMPARE(log.lines().size(), 0);
    QCOMPARE(connection.messageCount(), uint64_t(0));
}

void TestSoftwareSerialConnection::
    messageCountCountsMessagesNotBytesAndKeepsCountingAcrossCloseAndOpen()
{
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(0, controller);
    connection.open();

    connection.sendMessage(rgbColour(33, 1, 2, 3));         // 8 bytes
    connection.sendMessage(SerialMessage::makeZeroFill());  // 1,024 bytes
    QCOMPARE(connection.messageCount(), uint64_t(2));
    {
        LogCapture log;  // the zero fill is bad data to the parser
        connection.flush();
    }
    QCOMPARE(connection.messageCount(), uint64_t(2));

    connection.close();
    QCOMPARE(connection.messageCount(), uint64_t(2));
    connection.sendMessage(faderPosition(1, 1));
    connection.open();
    QCOMPARE(connection.messageCount(), uint64_t(3));
    connection.sendMessage(faderPosition(1, 2));
    QCOMPARE(connection.messageCount(), uint64_t(4));
}

void TestSoftwareSerialConnection::flushRequestedWhileFlushingDeliversInStreamOrderOnce()
{
    // The controller's answer reaches the section connection on the same call stack, and
    // it sends and flushes again before the first flush has returned.
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(0, controller);
    connection.open();
    const SerialMessage a = faderPosition(1, 10);
    const SerialMessage b = faderPosition(2, 20);
    const SerialMessage c = faderPosition(3, 30);
    const SerialMessage d = faderPosition(4, 40);
    controller->setMessageReaction([&](uint8_t, const SerialMessage& message) {
        if (message == a) {
            connection.sendMessage(c);
            connection.flush();
        } else if (message == c) {
            connection.sendMessage(d);
            connection.flush();
        }
    });
    connection.sendMessage(a);
    connection.sendMessage(b);

    connection.flush();

    QCOMPARE(controller->fromPlugin.size(), std::size_t(4));
    QCOMPARE(controller->fromPlugin[0].message, a);
    QCOMPARE(controller->fromPlugin[1].message, b);
    QCOMPARE(controller->fromPlugin[2].message, c);
    QCOMPARE(controller->fromPlugin[3].message, d);
    QCOMPARE(connection.bufferedSize(), 0);
    QCOMPARE(connection.messageCount(), uint64_t(4));

    connection.flush();
    QCOMPARE(controller->fromPlugin.size(), std::size_t(4));
}

void TestSoftwareSerialConnection::messageSentWhileFlushingWaitsForTheNextFlush()
{
    auto controller = std::make_shared<RecordingSoftwareController>();
    SoftwareSerialConnection connection(0, controller);
    const SerialMessage a = faderPosition(1, 10);
    const SerialMessage late = faderPosition(9, 90);
    controller->setMessageReaction([&](uint8_t, const SerialMessage& message) {
        if (message == a) {
            connection.sendMessage(late);
        }
    });
    connection.sendMessage(a);

    connection.flush();

    QCOMPARE(controller->fromPlugin.size(), std::size_t(1));
    QCOMPARE(connection.bufferedSize(), 6);

    connection.flush();
    QCOMPARE(controller->fromPlugin.size(), std::size_t(2));
    QCOMPARE(controller->fromPlugin[1].message, late);
}

void TestSoftwareSerialConnection::answerThatMakesThePluginSendAndFlushAgainIsSafe()
{
    // The whole loop with the real controller: the plugin's ping is answered by the
    // simulated section straight into the receiver, which (as a section connection may)
    // sends and flushes on the same connection before the first flush has returned.
    auto controller = std::make_shared<QmlControllerConnection>();
    SoftwareSerialConnection connection(2, controller);
    RecordingDataReceiver plugin;
    connection.setDataReceiver(&plugin);
    connection.open();
    int answers = 0;
    plugin.setReaction([&](const QByteArray&) {
        if (++answers < 3) {
            connection.sendMessage(SerialMessage(MessageType::Ping, 0));
            connection.flush();
        }
    });
    connection.sendMessage(SerialMessage(MessageType::Ping, 0));
    connection.sendMessage(faderPosition(4, 300));

    connection.flush();

    const QByteArray reply = QByteArray::fromHex("0600000a22396b");
    QCOMPARE(plugin.chunks(), (QList<QByteArray>{reply, reply, reply}));
    QCOMPARE(connection.messageCount(), uint64_t(4));
    QCOMPARE(connection.bufferedSize(), 0);
    const auto& records = controller->lastMessages();
    QCOMPARE(records.size(), std::size_t(2));
    QCOMPARE(records[0].type, uint8_t(MessageType::Ping));
    QCOMPARE(records[1].message, faderPosition(4, 300));
}

QTEST_GUILESS_MAIN(TestSoftwareSerialConnection)
#include "tst_softwareserialconnection.moc"
