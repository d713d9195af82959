#include <QtTest>

#include <atomic>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "serial/iserialmessagequeue.h"
#include "serial/iserialmessagesender.h"
#include "serial/serialmessage.h"
#include "serial/serialmessagequeue.h"
#include "support/manualclock.h"
#include "support/serialframes.h"

using namespace Velmora::Worksurface;

namespace {

constexpr qint64 kOriginNs = 1000000000;  // 1 s: an origin that is not 0

QByteArray hex(const char* text)
{
    return QByteArray::fromHex(text);
}

QByteArray payloadOf(const SerialMessage& message)
{
    QByteArray bytes;
    for (uint8_t byte : message.payload) {
        bytes.append(static_cast<char>(byte));
    }
    return bytes;
}

// Everything due now, framed as the section connection writes it.
QByteArray drain(ISerialMessageQueue& queue)
{
    QByteArray written;
    while (!queue.hasNoDueMessage()) {
        const SerialMessage message = queue.takeNextMessage();
        if (message.isValid()) {
            written.append(encode(message));
        }
    }
    return written;
}

}  // namespace

class TestSerialMessageQueue : public QObject
{
    Q_OBJECT

private slots:
    // The queue's edge cases.
    void twoFaderPositionsForOneDeviceBeforeDrainGiveOneFrameWithTheLatest();
    void faderPositionsForTwoDevicesGiveTwoFramesInEnqueueOrder();
    void delayedEntryIsNotTakenBeforeItsDelayHasPassed();
    void reenqueueAfter30msMovesReleaseTo80msAfterFirstCall();
    void takeFromEmptyQueueGivesNoMessage();
    void takeWhenEveryEntryIsInTheFutureGivesNoMessage();
    void dueEntryBehindNotYetDueEntryIsTakenFirstAndTheOtherKeepsItsPlace();
    void colourFF8000WithExtra2GivesPayloadFF800002();
    void potValueRequestAddressesDeviceZeroWithEmptyPayload();

    // Sender operations.
    void everySenderOperationBuildsItsTypeAndPayload_data();
    void everySenderOperationBuildsItsTypeAndPayload();
    void senderOperationsAreReachedThroughTheSenderInterface();

    // Release times.
    void releaseTimeIsNowPlusDelayToTheNanosecond();
    void enqueueOfReadyMadeMessageIsDueAtOnce();
    void messageSentRepeatedlyWithDelayIsReleasedOnlyOnceRepetitionsPause();
    void hugeDelayNeverWrapsIntoThePast();
    void negativeDelayIsDueAtOnce();
    void hasNoDueMessageTurnsFalseExactlyAtTheReleaseTime();

    // Coalescing.
    void replacedEntryKeepsItsPlaceAndFlags();
    void coalescingMatchesTypeAndDeviceOnly();
    void sentMessageIsNotCoalescedWithALaterOne();
    void queueHoldsAtMostOneEntryPerTypeAndDevice();
    void enqueueKeepsTheMessagesFlags();
    void concurrentSendersLoseNoKindAndKeepEachLatestValue();
    void drainAsksForDueMessagesWhileOtherThreadsSend();
};

void TestSerialMessageQueue::twoFaderPositionsForOneDeviceBeforeDrainGiveOneFrameWithTheLatest()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.sendFaderPosition(3, 100);
    queue.sendFaderPosition(3, 200);
    QCOMPARE(drain(queue), hex("05070300c8d7"));
    QCOMPARE(queue.size(), std::size_t(0));
}

void TestSerialMessageQueue::faderPositionsForTwoDevicesGiveTwoFramesInEnqueueOrder()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.sendFaderPosition(3, 100);
    queue.sendFaderPosition(4, 100);
    QCOMPARE(drain(queue), hex("0507030064"
                               "73") +
                               hex("0507040064"
                                   "74"));
}

void TestSerialMessageQueue::delayedEntryIsNotTakenBeforeItsDelayHasPassed()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.sendLed(0x30, 0xFF, 0x00, 50);

    clock.setNs(kOriginNs + 50 * kMs - 1);
    QVERIFY(queue.hasNoDueMessage());
    QCOMPARE(queue.takeNextMessage().type, uint8_t(23));

    clock.setNs(kOriginNs + 50 * kMs);
    QVERIFY(!queue.hasNoDueMessage());
    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::Led, 0x30, {0xFF, 0x00}));
}

void TestSerialMessageQueue::reenqueueAfter30msMovesReleaseTo80msAfterFirstCall()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.sendLed(0x30, 0xFF, 0x00, 50);
    clock.advanceMs(30);
    queue.sendLed(0x30, 0x00, 0x00, 50);

    // The first release time has passed, but the entry was postponed.
    clock.setNs(kOriginNs + 50 * kMs);
    QCOMPARE(queue.takeNextMessage().type, uint8_t(23));
    clock.setNs(kOriginNs + 80 * kMs - 1);
    QVERIFY(queue.hasNoDueMessage());
    QCOMPARE(queue.takeNextMessage().type, uint8_t(23));

    clock.setNs(kOriginNs + 80 * kMs);
    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::Led, 0x30, {0x00, 0x00}));
    QCOMPARE(queue.takeNextMessage().type, uint8_t(23));
}

void TestSerialMessageQueue::takeFromEmptyQueueGivesNoMessage()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    QVERIFY(queue.hasNoDueMessage());
    const SerialMessage message = queue.takeNextMessage();
    QCOMPARE(message.type, uint8_t(23));
    QCOMPARE(message, SerialMessage());
}

void TestSerialMessageQueue::takeWhenEveryEntryIsInTheFutureGivesNoMessage()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.sendLed(1, 1, 0, 10);
    queue.sendColor(2, 0x112233, 0, 20);
    QVERIFY(queue.hasNoDueMessage());
    QCOMPARE(queue.takeNextMessage().type, uint8_t(23));
    // Nothing was lost by asking.
    QCOMPARE(queue.size(), std::size_t(2));
    clock.advanceMs(20);
    QCOMPARE(drain(queue), hex("050b010100"
                               "12") +
                               hex("070c0211223300"
                                   "7b"));
}

void TestSerialMessageQueue::dueEntryBehindNotYetDueEntryIsTakenFirstAndTheOtherKeepsItsPlace()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.sendLed(1, 0xFF, 0, 100);   // first in the queue, due in 100 ms
    queue.sendFaderPosition(2, 300);  // due now
    queue.sendLed(3, 0x80, 0, 100);   // due in 100 ms

    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::FaderPosition, 2, {0x01, 0x2C}));
    QCOMPARE(queue.takeNextMessage().type, uint8_t(23));

    // A new due message still goes behind the waiting ones, and is taken before them.
    queue.sendMeterLevel(4, 7);
    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::MeterLevel, 4, {7}));

    clock.advanceMs(100);
    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::Led, 1, {0xFF, 0}));
    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::Led, 3, {0x80, 0}));
}

void TestSerialMessageQueue::colourFF8000WithExtra2GivesPayloadFF800002()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.sendColor(0x40, 0xFF8000, 2, 0);
    const SerialMessage message = queue.takeNextMessage();
    QCOMPARE(message.type, uint8_t(12));
    QCOMPARE(message.deviceId, uint8_t(0x40));
    QCOMPARE(payloadOf(message), hex("ff800002"));
    QVERIFY(!message.variableLength);
    QCOMPARE(encode(message), hex("070c40ff800002d4"));
}

void TestSerialMessageQueue::potValueRequestAddressesDeviceZeroWithEmptyPayload()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.requestPotValue();
    const SerialMessage message = queue.takeNextMessage();
    QCOMPARE(message.type, uint8_t(17));
    QCOMPARE(message.deviceId, uint8_t(0));
    QVERIFY(message.payload.empty());
    QVERIFY(!message.variableLength);
    QCOMPARE(encode(message), hex("03110014"));
}

void TestSerialMessageQueue::everySenderOperationBuildsItsTypeAndPayload_data()
{
    QTest::addColumn<int>("operation");
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("deviceId");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QByteArray>("frame");
    QTest::newRow("1 fader position") << 1 << 7 << 0x21 << hex("01ff") << hex("05072101ff2d");
    QTest::newRow("2 fader backstop") << 2 << 8 << 0x22 << hex("0100")
                                      << hex("0508220100"
                                             "30");
    QTest::newRow("3 fader detent") << 3 << 9 << 0x23 << hex("00c8") << hex("05092300c8f9");
    QTest::newRow("4 fader drive mode") << 4 << 10 << 0x24 << hex("01") << hex("040a240133");
    QTest::newRow("5 led") << 5 << 11 << 0x25 << hex("7f02") << hex("050b257f02b6");
    QTest::newRow("6 colour") << 6 << 12 << 0x26 << hex("0a0b0c01") << hex("070c260a0b0c015b");
    QTest::newRow("7 pot value request") << 7 << 17 << 0 << QByteArray() << hex("03110014");
    QTest::newRow("8 meter level") << 8 << 13 << 0x28 << hex("18") << hex("040d281851");
    QTest::newRow("9 meter peak") << 9 << 14 << 0x29 << hex("01") << hex("040e29013c");
}

void TestSerialMessageQueue::everySenderOperationBuildsItsTypeAndPayload()
{
    QFETCH(int, operation);
    QFETCH(int, type);
    QFETCH(int, deviceId);
    QFETCH(QByteArray, payload);
    QFETCH(QByteArray, frame);

    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    const auto device = static_cast<uint8_t>(deviceId);
    switch (operation) {
        case 1:
            queue.sendFaderPosition(device, 0x01FF);
            break;
        case 2:
            queue.sendFaderBackstop(device, 0x0100);
            break;
        case 3:
            queue.sendFaderDetent(device, 200);
            break;
        case 4:
            queue.sendFaderDriveMode(device, 1);
            break;
        case 5:
            queue.sendLed(device, 0x7F, 0x02, 0);
            break;
        case 6:
            queue.sendColor(device, 0x0A0B0C, 1, 0);
            break;
        case 7:
            queue.requestPotValue();
            break;
        case 8:
            queue.sendMeterLevel(device, 24);
            break;
        case 9:
            queue.sendMeterPeak(device, 1);
            break;
    }
    QCOMPARE(queue.size(), std::size_t(1));
    const SerialMessage message = queue.takeNextMessage();
    QCOMPARE(int(message.type), type);
    QCOMPARE(int(message.deviceId), deviceId);
    QCOMPARE(payloadOf(message), payload);
    QVERIFY(!message.variableLength);
    QVERIFY(!message.zeroFill);
    QCOMPARE(encode(message), frame);
}

void TestSerialMessageQueue::senderOperationsAreReachedThroughTheSenderInterface()
{
    // Components hold the queue as a sender, the section connection as a queue.
    ManualClock clock(kOriginNs);
    auto queue = std::make_shared<SerialMessageQueue>();
    std::shared_ptr<ISerialMessageSender> sender = queue;
    std::shared_ptr<ISerialMessageQueue> drainSide = queue;
    sender->sendFaderPosition(4, 300);
    sender->sendColor(5, 0x00FF00, 0, 0);
    QCOMPARE(drain(*drainSide), hex("050704012c3d") + hex("070c0500ff0000"
                                                          "17"));
}

void TestSerialMessageQueue::releaseTimeIsNowPlusDelayToTheNanosecond()
{
    ManualClock clock(1234567);
    SerialMessageQueue queue;
    queue.sendColor(7, 0x000001, 0, 50);
    clock.setNs(51234566);
    QCOMPARE(queue.takeNextMessage().type, uint8_t(23));
    clock.setNs(51234567);
    QCOMPARE(queue.takeNextMessage().type, uint8_t(12));
}

void TestSerialMessageQueue::enqueueOfReadyMadeMessageIsDueAtOnce()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    const SerialMessage brightness(MessageType::SurfaceBrightness, 0, {0x40});
    queue.enqueue(brightness);
    QVERIFY(!queue.hasNoDueMessage());
    QCOMPARE(queue.takeNextMessage(), brightness);
    // Also when the clock stands before the origin the queue has seen so far.
    clock.setNs(-5);
    queue.enqueue(brightness);
    QCOMPARE(queue.takeNextMessage(), brightness);
}

void TestSerialMessageQueue::messageSentRepeatedlyWithDelayIsReleasedOnlyOnceRepetitionsPause()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    for (int i = 0; i < 10; ++i) {
        queue.sendLed(9, static_cast<uint8_t>(i), 0, 20);
        clock.advanceMs(19);
        QCOMPARE(queue.takeNextMessage().type, uint8_t(23));
    }
    clock.advanceMs(1);
    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::Led, 9, {9, 0}));
}

void TestSerialMessageQueue::hugeDelayNeverWrapsIntoThePast()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.sendLed(1, 1, 0, std::numeric_limits<int64_t>::max());
    queue.sendColor(2, 0x010203, 0, std::numeric_limits<int64_t>::max() / 1000);
    QVERIFY(queue.hasNoDueMessage());
    clock.setNs(std::numeric_limits<qint64>::max() - 1);
    QVERIFY(queue.hasNoDueMessage());
    QCOMPARE(queue.takeNextMessage().type, uint8_t(23));
    clock.setNs(std::numeric_limits<qint64>::max());
    QCOMPARE(queue.takeNextMessage().type, uint8_t(11));
    QCOMPARE(queue.takeNextMessage().type, uint8_t(12));
}

void TestSerialMessageQueue::negativeDelayIsDueAtOnce()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.sendLed(1, 1, 0, -5);
    queue.sendColor(2, 0x010203, 0, std::numeric_limits<int64_t>::min());
    QCOMPARE(queue.takeNextMessage().type, uint8_t(11));
    QCOMPARE(queue.takeNextMessage().type, uint8_t(12));
}

void TestSerialMessageQueue::hasNoDueMessageTurnsFalseExactlyAtTheReleaseTime()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    QVERIFY(queue.hasNoDueMessage());
    queue.sendLed(1, 1, 0, 30);
    queue.sendLed(2, 1, 0, 10);
    clock.setNs(kOriginNs + 10 * kMs - 1);
    QVERIFY(queue.hasNoDueMessage());
    clock.setNs(kOriginNs + 10 * kMs);
    // The second entry is due although the first is not.
    QVERIFY(!queue.hasNoDueMessage());
    // Asking does not take anything.
    QVERIFY(!queue.hasNoDueMessage());
    QCOMPARE(queue.size(), std::size_t(2));
    QCOMPARE(queue.takeNextMessage().deviceId, uint8_t(2));
    QVERIFY(queue.hasNoDueMessage());
}

void TestSerialMessageQueue::replacedEntryKeepsItsPlaceAndFlags()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    // A variable-length fader position first, then two other messages.
    queue.enqueue(SerialMessage(MessageType::FaderPosition, 3, {0x00, 0x01}, true));
    queue.sendMeterLevel(5, 1);
    queue.sendMeterPeak(5, 2);
    // The replacement is not variable-length and comes last, yet it takes the old entry's
    // place and keeps its flag.
    queue.sendFaderPosition(3, 0x01FF);
    QCOMPARE(queue.size(), std::size_t(3));

    const SerialMessage first = queue.takeNextMessage();
    QCOMPARE(first.type, uint8_t(7));
    QCOMPARE(first.deviceId, uint8_t(3));
    QCOMPARE(payloadOf(first), hex("01ff"));
    QVERIFY(first.variableLength);
    QCOMPARE(encode(first), hex("07070301ff"
                                "11"));
    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::MeterLevel, 5, {1}));
    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::MeterPeak, 5, {2}));

    // And the other way round: a variable-length replacement does not make it variable.
    queue.sendFaderPosition(3, 1);
    queue.enqueue(SerialMessage(MessageType::FaderPosition, 3, {0x00, 0x02, 0x03}, true));
    const SerialMessage second = queue.takeNextMessage();
    QVERIFY(!second.variableLength);
    QCOMPARE(payloadOf(second), hex("000203"));
}

void TestSerialMessageQueue::coalescingMatchesTypeAndDeviceOnly()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.sendFaderPosition(3, 1);
    queue.sendFaderDetent(3, 2);    // same device, other type
    queue.sendFaderPosition(4, 3);  // same type, other device
    queue.sendFaderPosition(3, 4);  // replaces the first
    QCOMPARE(queue.size(), std::size_t(3));
    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::FaderPosition, 3, {0, 4}));
    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::FaderDetent, 3, {0, 2}));
    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::FaderPosition, 4, {0, 3}));
}

void TestSerialMessageQueue::sentMessageIsNotCoalescedWithALaterOne()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.sendFaderPosition(3, 1);
    queue.sendMeterLevel(1, 1);
    QCOMPARE(queue.takeNextMessage().type, uint8_t(7));
    // The fader position was sent, so a new one goes to the back.
    queue.sendFaderPosition(3, 2);
    QCOMPARE(queue.takeNextMessage().type, uint8_t(13));
    QCOMPARE(queue.takeNextMessage(), SerialMessage(MessageType::FaderPosition, 3, {0, 2}));
}

void TestSerialMessageQueue::queueHoldsAtMostOneEntryPerTypeAndDevice()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    for (int step = 0; step < 512; ++step) {
        for (uint8_t fader = 0; fader < 10; ++fader) {
            queue.sendFaderPosition(fader, static_cast<uint16_t>(step));
        }
    }
    QCOMPARE(queue.size(), std::size_t(10));
    for (uint8_t fader = 0; fader < 10; ++fader) {
        QCOMPARE(queue.takeNextMessage(),
                 SerialMessage(MessageType::FaderPosition, fader, {0x01, 0xFF}));
    }
}

void TestSerialMessageQueue::enqueueKeepsTheMessagesFlags()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    queue.enqueue(SerialMessage::makeZeroFill());
    queue.enqueue(SerialMessage(MessageType::Ping, 0, {1, 2}, true));
    const SerialMessage zeroFill = queue.takeNextMessage();
    QVERIFY(zeroFill.zeroFill);
    QCOMPARE(encode(zeroFill), QByteArray(1024, '\0'));
    const SerialMessage ping = queue.takeNextMessage();
    QVERIFY(ping.variableLength);
    QCOMPARE(encode(ping), hex("0500000102"
                               "08"));
}

void TestSerialMessageQueue::drainAsksForDueMessagesWhileOtherThreadsSend()
{
    // The link's drain asks whether anything is due while controls on another thread add
    // messages; the question walks the entries, so it must hold the queue's lock (under
    // ThreadSanitizer, make tsan, an unguarded walk is reported here).
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    std::atomic<bool> done{false};
    std::thread sender([&]() {
        for (int step = 0; step < 5000; ++step) {
            queue.sendFaderPosition(static_cast<uint8_t>(step % 10), static_cast<uint16_t>(step));
            queue.sendMeterLevel(static_cast<uint8_t>(step % 7), static_cast<uint8_t>(step));
        }
        done = true;
    });
    int taken = 0;
    while (!done.load()) {
        if (!queue.hasNoDueMessage() && queue.takeNextMessage().isValid()) {
            ++taken;
        }
    }
    sender.join();
    while (!queue.hasNoDueMessage()) {
        QVERIFY(queue.takeNextMessage().isValid());
        ++taken;
    }
    QVERIFY(taken > 0);
    // Nothing due is left: the answer and the queue agree.
    QVERIFY(!queue.takeNextMessage().isValid());
}

void TestSerialMessageQueue::concurrentSendersLoseNoKindAndKeepEachLatestValue()
{
    ManualClock clock(kOriginNs);
    SerialMessageQueue queue;
    constexpr int kThreads = 4;
    constexpr int kSteps = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&queue, t]() {
            for (int step = 0; step < kSteps; ++step) {
                for (int fader = 0; fader < 4; ++fader) {
                    queue.sendFaderPosition(static_cast<uint8_t>(t * 4 + fader),
                                            static_cast<uint16_t>(step));
                }
                queue.sendColor(static_cast<uint8_t>(t), static_cast<uint32_t>(step), 0, 0);
            }
        });
    }
    // The drain runs meanwhile; whatever it takes is a whole, valid message.
    for (int i = 0; i < 1000; ++i) {
        const SerialMessage message = queue.takeNextMessage();
        if (message.isValid()) {
            QVERIFY(message.type == MessageType::FaderPosition ||
                    message.type == MessageType::RgbColor);
            QCOMPARE(message.payload.size(), std::size_t(message.type == 7 ? 2 : 4));
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    QVERIFY(queue.size() <= std::size_t(kThreads * 5));
    // The last values are all still there, one entry per kind.
    std::vector<SerialMessage> rest;
    for (SerialMessage message = queue.takeNextMessage(); message.isValid();
         message = queue.takeNextMessage()) {
        rest.push_back(message);
    }
    QVERIFY(rest.size() <= std::size_t(kThreads * 5));
    const uint16_t last = kSteps - 1;
    for (const SerialMessage& message : rest) {
        if (message.type == MessageType::FaderPosition) {
            QCOMPARE(message.wordAt(0), last);
        } else {
            QCOMPARE(message.byteAt(1), uint8_t(last >> 8));
            QCOMPARE(message.byteAt(2), uint8_t(last & 0xFF));
        }
    }
}

QTEST_GUILESS_MAIN(TestSerialMessageQueue)
#include "tst_serialmessagequeue.moc"
