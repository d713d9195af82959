#include <QtTest>

#include "serial/serialmessage.h"
#include "software/qmlcontrollerconnection.h"
#include "support/fakesoftwarehandler.h"
#include "support/logcapture.h"
#include "support/recordingdatareceiver.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

SerialMessage ping()
{
    return SerialMessage(MessageType::Ping, 0);
}

SerialMessage faderPosition(uint8_t deviceId, uint16_t position)
{
    return SerialMessage(MessageType::FaderPosition, deviceId,
                         {static_cast<uint8_t>(position >> 8), static_cast<uint8_t>(position)});
}

}  // namespace

class TestQmlControllerConnection : public QObject
{
    Q_OBJECT

private slots:
    // The ping answer of a simulated section without a section control.
    void unclaimedPingIsAnsweredAtTheSectionsReceiver_data();
    void unclaimedPingIsAnsweredAtTheSectionsReceiver();
    void unclaimedPingReplyGoesOnlyToItsOwnSection();
    void unclaimedPingWithoutReceiverIsDropped();
    void claimedPingIsNotAnswered();
    void unclaimedMessagesOtherThanPingAreDroppedSilently();

    // Carrying the controls' messages to the plugin.
    void sendToPluginDeliversTheEncodedFrame();
    void sendToPluginForSectionWithoutReceiverDoesNothing();
    void sendBootloaderReplyDeliversTheEncodedPacket();
    void sendBootloaderReplyWithoutReceiverDoesNothing();

    // Receivers.
    void setDataReceiverReplacesThePreviousReceiver();
    void setDataReceiverWithNullRemovesTheReceiver();
    void clearDataReceiversForgetsEverySection();

    // Remembered messages.
    void sameTypeForSameDeviceLeavesOneRecordHoldingTheLaterMessage();
    void recordsAreKeptPerSectionDeviceAndTypeInFirstSeenOrder();
    void messagesAreRememberedWhetherOrNotAControlTookThem();
    void replayForAddresseeNeverSeenDoesNothing();
    void replayOffersTheRememberedMessageAgain();
    void replayOfRememberedPingAnswersAgainWhenUnclaimed();
    void replayStopsAtTheFirstTaker();

    // Dispatch.
    void handlersAreAskedInRegistrationOrder();
    void firstTakerHidesTheMessageFromLaterHandlers();
    void handlerAddedTwiceIsOfferedEachMessageTwice();
    void nullHandlerIsNotRegistered();
    void removeSoftwareHandlerForgetsEveryRegistration();
    void handlerRemovedWhileAMessageIsOfferedIsNotAskedAgain();
    void handlerRemovingItselfWhileOfferedKeepsTheOthers();
    void handlerAddedWhileAMessageIsOfferedSeesOnlyLaterMessages();
    void answersThatComeBackDuringReplayAreSafe();
};

void TestQmlControllerConnection::unclaimedPingIsAnsweredAtTheSectionsReceiver_data()
{
    QTest::addColumn<int>("section");
    QTest::addColumn<QByteArray>("frame");
    // Length 6 (variable-length ping, three payload bytes), type 0, device 0, version
    // 10.34, temperature 55 + section index (8-bit), checksum.
    QTest::newRow("section 2") << 2 << QByteArray::fromHex("0600000a22396b");
    QTest::newRow("section 0") << 0 << QByteArray::fromHex("0600000a223769");
    QTest::newRow("section 1") << 1 << QByteArray::fromHex("0600000a22386a");
    QTest::newRow("section 201 wraps to 0") << 201 << QByteArray::fromHex("0600000a220032");
    QTest::newRow("section 255 wraps to 54") << 255 << QByteArray::fromHex("0600000a223668");
}

void TestQmlControllerConnection::unclaimedPingIsAnsweredAtTheSectionsReceiver()
{
    QFETCH(int, section);
    QFETCH(QByteArray, frame);

    QmlControllerConnection connection;
    FakeSoftwareHandler decliner;
    connection.addSoftwareHandler(&decliner);
    RecordingDataReceiver receiver;
    connection.setDataReceiver(static_cast<uint8_t>(section), &receiver);

    connection.messageFromPlugin(static_cast<uint8_t>(section), ping());

    QCOMPARE(decliner.offerCount(), 1);
    QCOMPARE(receiver.chunks(), QList<QByteArray>{frame});
}

void TestQmlControllerConnection::unclaimedPingReplyGoesOnlyToItsOwnSection()
{
    QmlControllerConnection connection;
    RecordingDataReceiver section0;
    RecordingDataReceiver section1;
    RecordingDataReceiver section2;
    connection.setDataReceiver(0, &section0);
    connection.setDataReceiver(1, &section1);
    connection.setDataReceiver(2, &section2);

    connection.messageFromPlugin(2, ping());

    QCOMPARE(section0.count(), 0);
    QCOMPARE(section1.count(), 0);
    QCOMPARE(section2.chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a22396b")});
}

void TestQmlControllerConnection::unclaimedPingWithoutReceiverIsDropped()
{
    QmlControllerConnection connection;
    RecordingDataReceiver section0;
    connection.setDataReceiver(0, &section0);
    LogCapture log;

    connection.messageFromPlugin(1, ping());

    QCOMPARE(section0.count(), 0);
    QCOMPARE(log.lines().size(), 0);
    // Still remembered, for a control that comes later.
    QCOMPARE(connection.lastMessages().size(), std::size_t(1));
}

void TestQmlControllerConnection::claimedPingIsNotAnswered()
{
    QmlControllerConnection connection;
    FakeSoftwareHandler sectionControl;
    sectionControl.takeOnly(MessageType::Ping, 0);
    connection.addSoftwareHandler(&sectionControl);
    RecordingDataReceiver receiver;
    connection.setDataReceiver(2, &receiver);

    connection.messageFromPlugin(2, ping());

    QCOMPARE(sectionControl.offerCount(), 1);
    QCOMPARE(receiver.count(), 0);
}

void TestQmlControllerConnection::unclaimedMessagesOtherThanPingAreDroppedSilently()
{
    QmlControllerConnection connection;
    FakeSoftwareHandler decliner;
    connection.addSoftwareHandler(&decliner);
    RecordingDataReceiver receiver;
    connection.setDataReceiver(0, &receiver);
    LogCapture log;

    for (uint8_t type = 1; type < MessageType::NoMessage; ++type) {
        connection.messageFromPlugin(0, SerialMessage(type, 0));
    }

    QCOMPARE(decliner.offerCount(), MessageType::NoMessage - 1);
    QCOMPARE(receiver.count(), 0);
    QCOMPARE(log.lines().size(), 0);
}

void TestQmlControllerConnection::sendToPluginDeliversTheEncodedFrame()
{
    QmlControllerConnection connection;
    RecordingDataReceiver receiver;
    connection.setDataReceiver(1, &receiver);

    connection.sendToPlugin(1, faderPosition(4, 300));

    QCOMPARE(receiver.chunks(), QList<QByteArray>{QByteArray::fromHex("050704012c3d")});
}

void TestQmlControllerConnection::sendToPluginForSectionWithoutReceiverDoesNothing()
{
    QmlControllerConnection connection;
    RecordingDataReceiver section1;
    connection.setDataReceiver(1, &section1);
    FakeSoftwareHandler handler;
    handler.takeAll(true);
    connection.addSoftwareHandler(&handler);
    LogCapture log;

    connection.sendToPlugin(0, faderPosition(4, 300));
    connection.sendToPlugin(2, ping());

    QCOMPARE(section1.count(), 0);
    QCOMPARE(log.lines().size(), 0);
    // What a control sends is not something the plugin sent: nothing is remembered or
    // offered to the controls.
    QCOMPARE(handler.offerCount(), 0);
    QCOMPARE(connection.lastMessages().size(), std::size_t(0));
}

void TestQmlControllerConnection::sendBootloaderReplyDeliversTheEncodedPacket()
{
    QmlControllerConnection connection;
    RecordingDataReceiver receiver;
    connection.setDataReceiver(0, &receiver);

    connection.sendBootloaderReply(0, BootloaderPacket(BootloaderCommand::NotBootLoader));
    connection.sendBootloaderReply(0, BootloaderPacket(BootloaderCommand::CommandAck));
    // A status packet: size 3, checksum, status.
    connection.sendBootloaderReply(0, BootloaderPacket(BootloaderCommand::Success));

    QCOMPARE(receiver.chunks(),
             (QList<QByteArray>{QByteArray::fromHex("aa"), QByteArray::fromHex("cc"),
                                QByteArray::fromHex("034040")}));
}

void TestQmlControllerConnection::sendBootloaderReplyWithoutReceiverDoesNothing()
{
    QmlControllerConnection connection;
    RecordingDataReceiver section0;
    connection.setDataReceiver(0, &section0);

    connection.sendBootloaderReply(1, BootloaderPacket(BootloaderCommand::NotBootLoader));

    QCOMPARE(section0.count(), 0);
}

void TestQmlControllerConnection::setDataReceiverReplacesThePreviousReceiver()
{
    QmlControllerConnection connection;
    RecordingDataReceiver first;
    RecordingDataReceiver second;
    connection.setDataReceiver(0, &first);
    connection.setDataReceiver(0, &second);

    connection.sendToPlugin(0, ping());

    QCOMPARE(first.count(), 0);
    QCOMPARE(second.chunks(), QList<QByteArray>{QByteArray::fromHex("03000003")});
    QCOMPARE(connection.dataReceiver(0), &second);
}

void TestQmlControllerConnection::setDataReceiverWithNullRemovesTheReceiver()
{
    QmlControllerConnection connection;
    RecordingDataReceiver receiver;
    RecordingDataReceiver other;
    connection.setDataReceiver(0, &receiver);
    connection.setDataReceiver(1, &other);

    connection.setDataReceiver(0, nullptr);
    connection.sendToPlugin(0, ping());
    connection.messageFromPlugin(0, ping());

    QCOMPARE(receiver.count(), 0);
    QCOMPARE(connection.dataReceiver(0), static_cast<ISerialDataReceiver*>(nullptr));
    // Other sections keep theirs.
    QCOMPARE(connection.dataReceiver(1), &other);
}

void TestQmlControllerConnection::clearDataReceiversForgetsEverySection()
{
    QmlControllerConnection connection;
    RecordingDataReceiver section0;
    RecordingDataReceiver section1;
    RecordingDataReceiver section2;
    connection.setDataReceiver(0, &section0);
    connection.setDataReceiver(1, &section1);
    connection.setDataReceiver(2, &section2);
    FakeSoftwareHandler handler;
    connection.addSoftwareHandler(&handler);
    connection.messageFromPlugin(1, faderPosition(3, 12));

    connection.clearDataReceivers();
    for (uint8_t section = 0; section < 3; ++section) {
        connection.sendToPlugin(section, faderPosition(3, 100));
        connection.messageFromPlugin(section, ping());
        connection.sendBootloaderReply(section, BootloaderPacket(BootloaderCommand::NotBootLoader));
    }

    QCOMPARE(section0.count(), 0);
    QCOMPARE(section1.count(), 0);
    QCOMPARE(section2.count(), 0);
    // Only the receivers go: the controls and the remembered messages stay.
    QCOMPARE(connection.handlerCount(), std::size_t(1));
    QCOMPARE(connection.lastMessages().size(), std::size_t(4));

    // A new surface registers again and is served.
    RecordingDataReceiver fresh;
    connection.setDataReceiver(1, &fresh);
    connection.messageFromPlugin(1, ping());
    QCOMPARE(fresh.chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a22386a")});
}

void TestQmlControllerConnection::sameTypeForSameDeviceLeavesOneRecordHoldingTheLaterMessage()
{
    QmlControllerConnection connection;

    connection.messageFromPlugin(1, faderPosition(4, 100));
    connection.messageFromPlugin(1, faderPosition(4, 300));

    QCOMPARE(connection.lastMessages().size(), std::size_t(1));
    const auto& record = connection.lastMessages().front();
    QCOMPARE(record.sectionIndex, uint8_t(1));
    QCOMPARE(record.deviceId, uint8_t(4));
    QCOMPARE(record.type, uint8_t(MessageType::FaderPosition));
    QCOMPARE(record.message, faderPosition(4, 300));

    // And the later message is the one a control catching up is given.
    FakeSoftwareHandler fader;
    connection.addSoftwareHandler(&fader);
    connection.replayLastMessage(1, MessageType::FaderPosition, 4);
    QCOMPARE(fader.offerCount(), 1);
    QCOMPARE(fader.offers()[0].sectionIndex, uint8_t(1));
    QCOMPARE(encode(fader.offers()[0].message), QByteArray::fromHex("050704012c3d"));
}

void TestQmlControllerConnection::recordsAreKeptPerSectionDeviceAndTypeInFirstSeenOrder()
{
    QmlControllerConnection connection;

    connection.messageFromPlugin(0, faderPosition(4, 1));
    connection.messageFromPlugin(1, faderPosition(4, 2));
    connection.messageFromPlugin(0, faderPosition(5, 3));
    connection.messageFromPlugin(0, SerialMessage(MessageType::FaderDetent, 4, {0, 4}));
    // Replaces the first record in place; the order stays that of first sight.
    connection.messageFromPlugin(0, faderPosition(4, 9));

    const auto& records = connection.lastMessages();
    QCOMPARE(records.size(), std::size_t(4));
    QCOMPARE(records[0].message, faderPosition(4, 9));
    QCOMPARE(records[0].sectionIndex, uint8_t(0));
    QCOMPARE(records[1].message, faderPosition(4, 2));
    QCOMPARE(records[1].sectionIndex, uint8_t(1));
    QCOMPARE(records[2].message, faderPosition(5, 3));
    QCOMPARE(records[3].message, SerialMessage(MessageType::FaderDetent, 4, {0, 4}));
    QCOMPARE(records[3].type, uint8_t(MessageType::FaderDetent));
}

void TestQmlControllerConnection::messagesAreRememberedWhetherOrNotAControlTookThem()
{
    QmlControllerConnection connection;
    FakeSoftwareHandler taker;
    taker.takeOnly(MessageType::Led, 7);
    connection.addSoftwareHandler(&taker);

    connection.messageFromPlugin(0, SerialMessage(MessageType::Led, 7, {1, 0}));
    connection.messageFromPlugin(0, SerialMessage(MessageType::Led, 8, {1, 0}));

    QCOMPARE(connection.lastMessages().size(), std::size_t(2));
}

void TestQmlControllerConnection::replayForAddresseeNeverSeenDoesNothing()
{
    QmlControllerConnection connection;
    FakeSoftwareHandler handler;
    connection.addSoftwareHandler(&handler);
    RecordingDataReceiver receiver;
    connection.setDataReceiver(0, &receiver);
    connection.messageFromPlugin(0, faderPosition(4, 100));
    handler.clear();
    LogCapture log;

    connection.replayLastMessage(0, MessageType::FaderPosition, 5);  // other device
    connection.replayLastMessage(1, MessageType::FaderPosition, 4);  // other section
    connection.replayLastMessage(0, MessageType::FaderDetent, 4);    // other type
    connection.replayLastMessage(0, MessageType::Ping, 0);           // a ping never sent

    QCOMPARE(handler.offerCount(), 0);
    QCOMPARE(receiver.count(), 0);
    QCOMPARE(log.lines().size(), 0);
    QCOMPARE(connection.lastMessages().size(), std::size_t(1));
}

void TestQmlControllerConnection::replayOffersTheRememberedMessageAgain()
{
    QmlControllerConnection connection;
    FakeSoftwareHandler early;
    connection.addSoftwareHandler(&early);
    const SerialMessage colour(MessageType::RgbColor, 33, {255, 0, 16, 0});
    connection.messageFromPlugin(2, colour);

    FakeSoftwareHandler late;
    late.takeOnly(MessageType::RgbColor, 33);
    connection.addSoftwareHandler(&late);
    connection.replayLastMessage(2, MessageType::RgbColor, 33);

    QCOMPARE(early.offerCount(), 2);
    QCOMPARE(late.offerCount(), 1);
    QCOMPARE(late.offers()[0].sectionIndex, uint8_t(2));
    QCOMPARE(late.offers()[0].message, colour);
    // Replaying does not add or change records.
    QCOMPARE(connection.lastMessages().size(), std::size_t(1));
}

void TestQmlControllerConnection::replayOfRememberedPingAnswersAgainWhenUnclaimed()
{
    QmlControllerConnection connection;
    RecordingDataReceiver receiver;
    connection.setDataReceiver(2, &receiver);
    connection.messageFromPlugin(2, ping());
    receiver.clear();

    connection.replayLastMessage(2, MessageType::Ping, 0);

    QCOMPARE(receiver.chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a22396b")});

    // A section control that has arrived since takes it instead.
    FakeSoftwareHandler sectionControl;
    sectionControl.takeOnly(MessageType::Ping, 0);
    connection.addSoftwareHandler(&sectionControl);
    receiver.clear();
    connection.replayLastMessage(2, MessageType::Ping, 0);
    QCOMPARE(sectionControl.offerCount(), 1);
    QCOMPARE(receiver.count(), 0);
}

void TestQmlControllerConnection::replayStopsAtTheFirstTaker()
{
    QmlControllerConnection connection;
    QStringList calls;
    FakeSoftwareHandler first("first", &calls);
    FakeSoftwareHandler second("second", &calls);
    FakeSoftwareHandler third("third", &calls);
    second.takeAll(true);
    connection.addSoftwareHandler(&first);
    connection.addSoftwareHandler(&second);
    connection.addSoftwareHandler(&third);
    connection.messageFromPlugin(0, faderPosition(1, 1));
    calls.clear();

    connection.replayLastMessage(0, MessageType::FaderPosition, 1);

    QCOMPARE(calls, (QStringList{"first", "second"}));
}

void TestQmlControllerConnection::handlersAreAskedInRegistrationOrder()
{
    QmlControllerConnection connection;
    QStringList calls;
    FakeSoftwareHandler a("a", &calls);
    FakeSoftwareHandler b("b", &calls);
    FakeSoftwareHandler c("c", &calls);
    connection.addSoftwareHandler(&c);
    connection.addSoftwareHandler(&a);
    connection.addSoftwareHandler(&b);

    connection.messageFromPlugin(0, faderPosition(1, 1));

    QCOMPARE(calls, (QStringList{"c", "a", "b"}));
    QCOMPARE(a.offers()[0].sectionIndex, uint8_t(0));
    QCOMPARE(a.offers()[0].message, faderPosition(1, 1));
}

void TestQmlControllerConnection::firstTakerHidesTheMessageFromLaterHandlers()
{
    QmlControllerConnection connection;
    QStringList calls;
    FakeSoftwareHandler first("first", &calls);
    FakeSoftwareHandler taker("taker", &calls);
    FakeSoftwareHandler alsoWouldTake("alsoWouldTake", &calls);
    taker.takeOnly(MessageType::Led, 9);
    alsoWouldTake.takeOnly(MessageType::Led, 9);
    connection.addSoftwareHandler(&first);
    connection.addSoftwareHandler(&taker);
    connection.addSoftwareHandler(&alsoWouldTake);

    connection.messageFromPlugin(1, SerialMessage(MessageType::Led, 9, {200, 0}));
    QCOMPARE(calls, (QStringList{"first", "taker"}));

    // A message the taker declines goes on to the rest.
    calls.clear();
    connection.messageFromPlugin(1, SerialMessage(MessageType::Led, 10, {200, 0}));
    QCOMPARE(calls, (QStringList{"first", "taker", "alsoWouldTake"}));
}

void TestQmlControllerConnection::handlerAddedTwiceIsOfferedEachMessageTwice()
{
    QmlControllerConnection connection;
    QStringList calls;
    FakeSoftwareHandler twice("twice", &calls);
    FakeSoftwareHandler other("other", &calls);
    connection.addSoftwareHandler(&twice);
    connection.addSoftwareHandler(&other);
    connection.addSoftwareHandler(&twice);

    connection.messageFromPlugin(0, faderPosition(1, 1));

    QCOMPARE(connection.handlerCount(), std::size_t(3));
    QCOMPARE(calls, (QStringList{"twice", "other", "twice"}));
    QCOMPARE(twice.offerCount(), 2);
}

void TestQmlControllerConnection::nullHandlerIsNotRegistered()
{
    QmlControllerConnection connection;
    connection.addSoftwareHandler(nullptr);
    QCOMPARE(connection.handlerCount(), std::size_t(0));

    RecordingDataReceiver receiver;
    connection.setDataReceiver(0, &receiver);
    connection.messageFromPlugin(0, ping());
    QCOMPARE(receiver.chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a223769")});
}

void TestQmlControllerConnection::removeSoftwareHandlerForgetsEveryRegistration()
{
    QmlControllerConnection connection;
    QStringList calls;
    FakeSoftwareHandler gone("gone", &calls);
    FakeSoftwareHandler kept("kept", &calls);
    connection.addSoftwareHandler(&gone);
    connection.addSoftwareHandler(&kept);
    connection.addSoftwareHandler(&gone);

    connection.removeSoftwareHandler(&gone);
    connection.messageFromPlugin(0, faderPosition(1, 1));

    QCOMPARE(connection.handlerCount(), std::size_t(1));
    QCOMPARE(calls, QStringList{"kept"});

    // Removing what is not registered, or null, changes nothing.
    connection.removeSoftwareHandler(&gone);
    connection.removeSoftwareHandler(nullptr);
    QCOMPARE(connection.handlerCount(), std::size_t(1));
}

void TestQmlControllerConnection::handlerRemovedWhileAMessageIsOfferedIsNotAskedAgain()
{
    QmlControllerConnection connection;
    QStringList calls;
    FakeSoftwareHandler first("first", &calls);
    auto* doomed = new FakeSoftwareHandler("doomed", &calls);
    FakeSoftwareHandler last("last", &calls);
    connection.addSoftwareHandler(&first);
    connection.addSoftwareHandler(doomed);
    connection.addSoftwareHandler(&last);
    // The first control's reaction destroys another control, which deregisters on the way
    // out; with ASan a call through the stale pointer would be caught.
    first.setReaction([&](uint8_t, const SerialMessage&) {
        if (doomed != nullptr) {
            connection.removeSoftwareHandler(doomed);
            delete doomed;
            doomed = nullptr;
        }
    });

    connection.messageFromPlugin(0, faderPosition(1, 1));

    QCOMPARE(calls, (QStringList{"first", "last"}));
    QCOMPARE(connection.handlerCount(), std::size_t(2));

    calls.clear();
    connection.messageFromPlugin(0, faderPosition(1, 2));
    QCOMPARE(calls, (QStringList{"first", "last"}));
}

void TestQmlControllerConnection::handlerRemovingItselfWhileOfferedKeepsTheOthers()
{
    QmlControllerConnection connection;
    QStringList calls;
    FakeSoftwareHandler a("a", &calls);
    FakeSoftwareHandler b("b", &calls);
    FakeSoftwareHandler c("c", &calls);
    connection.addSoftwareHandler(&a);
    connection.addSoftwareHandler(&b);
    connection.addSoftwareHandler(&c);
    b.setReaction([&](uint8_t, const SerialMessage&) { connection.removeSoftwareHandler(&b); });

    connection.messageFromPlugin(0, faderPosition(1, 1));
    QCOMPARE(calls, (QStringList{"a", "b", "c"}));

    calls.clear();
    connection.messageFromPlugin(0, faderPosition(1, 2));
    QCOMPARE(calls, (QStringList{"a", "c"}));
    QCOMPARE(connection.handlerCount(), std::size_t(2));
}

void TestQmlControllerConnection::handlerAddedWhileAMessageIsOfferedSeesOnlyLaterMessages()
{
    QmlControllerConnection connection;
    QStringList calls;
    FakeSoftwareHandler existing("existing", &calls);
    FakeSoftwareHandler newcomer("newcomer", &calls);
    bool added = false;
    existing.setReaction([&](uint8_t, const SerialMessage&) {
        if (!added) {
            added = true;
            connection.addSoftwareHandler(&newcomer);
        }
    });
    connection.addSoftwareHandler(&existing);

    connection.messageFromPlugin(0, faderPosition(1, 1));
    QCOMPARE(calls, QStringList{"existing"});

    calls.clear();
    connection.messageFromPlugin(0, faderPosition(1, 2));
    QCOMPARE(calls, (QStringList{"existing", "newcomer"}));
}

void TestQmlControllerConnection::answersThatComeBackDuringReplayAreSafe()
{
    // A control answers a replayed message at once; the plugin side reacts by sending
    // messages to new addressees before the replay returns, so the records grow while the
    // replayed message is being offered.
    QmlControllerConnection connection;
    RecordingDataReceiver plugin;
    connection.setDataReceiver(0, &plugin);
    int sent = 0;
    plugin.setReaction([&](const QByteArray&) {
        for (int i = 0; i < 64 && sent < 64; ++i, ++sent) {
            connection.messageFromPlugin(0, faderPosition(static_cast<uint8_t>(100 + sent), 1));
        }
    });
    FakeSoftwareHandler fader;
    fader.setRule([&](uint8_t section, const SerialMessage& message) {
        if (message.deviceId == 4) {
            connection.sendToPlugin(section, SerialMessage(MessageType::FaderTouch, 4, {1}));
            return true;
        }
        return false;
    });
    connection.messageFromPlugin(0, faderPosition(4, 300));
    sent = 0;
    plugin.clear();
    connection.addSoftwareHandler(&fader);

    connection.replayLastMessage(0, MessageType::FaderPosition, 4);

    QCOMPARE(fader.offers().front().message, faderPosition(4, 300));
    QCOMPARE(plugin.chunks().front(), QByteArray::fromHex("0410040119"));
    QCOMPARE(connection.lastMessages().size(), std::size_t(65));
}

QTEST_GUILESS_MAIN(TestQmlControllerConnection)
#include "tst_qmlcontrollerconnection.moc"
