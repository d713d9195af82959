#include <QRandomGenerator>
#include <QtTest>

#include <algorithm>
#include <vector>

#include "serial/serialmessage.h"
#include "serial/serialmessageparser.h"
#include "support/recordingparser.h"
#include "support/serialframes.h"

using namespace Velmora::Worksurface;

namespace {

QByteArray hex(const char* text)
{
    return QByteArray::fromHex(text);
}

QByteArray bytesOf(const std::vector<uint8_t>& payload)
{
    QByteArray bytes;
    for (uint8_t byte : payload) {
        bytes.append(static_cast<char>(byte));
    }
    return bytes;
}

// A frame a section could send: any type the link knows, any device, 0..maxPayload bytes.
QByteArray randomFrame(QRandomGenerator& rng, int maxPayload = 22)
{
    const auto type = static_cast<uint8_t>(rng.bounded(23));
    const auto device = static_cast<uint8_t>(rng.bounded(256));
    QByteArray payload;
    const int size = rng.bounded(maxPayload + 1);
    for (int i = 0; i < size; ++i) {
        payload.append(static_cast<char>(rng.bounded(256)));
    }
    return SerialFrames::frame(type, device, payload);
}

// A byte that can never start a frame: its length byte is below the minimum or above the
// maximum frame size.
char unframeableByte(QRandomGenerator& rng)
{
    const int value = rng.bounded(3 + 230);
    return static_cast<char>(value < 3 ? value : value + 23);
}

#define VERIFY_ACCOUNTING(parser) QVERIFY2((parser).error().isEmpty(), qPrintable((parser).error()))

// Clears itself from inside the first message callback, as an owner restarting the link
// on a message would.
class ClearingParser : public SerialMessageParser
{
public:
    std::vector<SerialMessage> messages;
    QList<QByteArray> bad;

protected:
    void messageReceived(const SerialMessage& message) override
    {
        messages.push_back(message);
        clear();
    }
    void badDataReceived(const QByteArray& data) override { bad.append(data); }
};

// Feeds more data into itself from inside the message callback, as an in-process link
// that answers a frame by writing to the same pipe would.
class ReenteringParser : public SerialMessageParser
{
public:
    std::vector<SerialMessage> messages;
    QByteArray bad;
    QByteArray answer;

protected:
    void messageReceived(const SerialMessage& message) override
    {
        messages.push_back(message);
        if (!answer.isEmpty()) {
            const QByteArray data = answer;
            answer.clear();
            parse(data);
        }
    }
    void badDataReceived(const QByteArray& data) override { bad.append(data); }
};

}  // namespace

class TestSerialMessageParser : public QObject
{
    Q_OBJECT

private slots:
    // The link's edge cases.
    void pingBytesYieldOneTypeZeroMessageForDeviceZero();
    void bytesFrom0x80UpAreReadAsUnsigned();
    void frameFedOneBytePerCallIsReportedOnceOnTheCompletingCall_data();
    void frameFedOneBytePerCallIsReportedOnceOnTheCompletingCall();
    void threeOrFewerPendingBytesAreNeverInspected_data();
    void threeOrFewerPendingBytesAreNeverInspected();
    void unframeableLeadingByteIsDiscardedAndParsingGoesOn_data();
    void unframeableLeadingByteIsDiscardedAndParsingGoesOn();
    void wrongChecksumLosesOnlyFirstByteAndHiddenFrameIsFound();
    void typeByte23OrMoreIsRejectedEvenWithCorrectChecksum_data();
    void typeByte23OrMoreIsRejectedEvenWithCorrectChecksum();
    void garbageThenFrameInOneCallGivesMessageFirstThenOneBadDataReport();
    void twentySixByteFrameSplitAcrossTwoCallsIsNotReassembled();
    void receivedEchoMessageIsVariableLength();

    // Frame boundaries and lengths.
    void twentySixByteFrameInOneCallIsAccepted();
    void anyLengthFrom3To25IsAcceptedForAnyType();
    void everyLengthByteAsFirstByte_data();
    void everyLengthByteAsFirstByte();
    void partialFrameStaysPendingUntilItsLastByte();
    void checksumOffByOneIsRejected_data();
    void checksumOffByOneIsRejected();

    // Reporting.
    void badDataFromAWholeCallIsReportedOnceAfterItsMessages();
    void callWithoutBadBytesReportsNoBadData();
    void emptyChunkChangesNothing();
    void clearForgetsPendingPartialFrame();
    void clearFromInsideMessageCallbackStopsTheCall();
    void parseFromInsideMessageCallbackKeepsEveryByte();

    // Volume and streams.
    void mebibyteOfUnframeableNoiseIsReportedByteForByte();
    void mebibyteOfRandomBytesIsAccountedForExactly();
    void thousandFramesFedOneBytePerCallComeOutInOrder();
    void validFramesAmongNoiseComeOutExactlyOnceInOrder_data();
    void validFramesAmongNoiseComeOutExactlyOnceInOrder();
    void everyByteEndsUpInExactlyOnePlace_data();
    void everyByteEndsUpInExactlyOnePlace();
};

void TestSerialMessageParser::pingBytesYieldOneTypeZeroMessageForDeviceZero()
{
    RecordingParser parser;
    parser.feed(hex("03000003"));
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.events().size(), std::size_t(1));
    const SerialMessage& message = parser.events().front().message;
    QCOMPARE(parser.events().front().kind, RecordingParser::Event::Message);
    QCOMPARE(message.type, uint8_t(0));
    QCOMPARE(message.deviceId, uint8_t(0));
    QVERIFY(message.payload.empty());
    QVERIFY(!message.variableLength);
    QVERIFY(!message.zeroFill);
    QCOMPARE(parser.pendingSize(), 0);
}

void TestSerialMessageParser::frameFedOneBytePerCallIsReportedOnceOnTheCompletingCall_data()
{
    QTest::addColumn<QByteArray>("frame");
    for (int size = 4; size <= 25; ++size) {
        QByteArray payload;
        for (int i = 0; i < size - 4; ++i) {
            payload.append(static_cast<char>(0xA0 + i));
        }
        QTest::addRow("%d bytes", size)
            << SerialFrames::frame(MessageType::FaderPosition, 9, payload);
    }
}

void TestSerialMessageParser::frameFedOneBytePerCallIsReportedOnceOnTheCompletingCall()
{
    QFETCH(QByteArray, frame);
    RecordingParser parser;
    for (int i = 0; i < frame.size() - 1; ++i) {
        parser.feed(frame.mid(i, 1));
        QVERIFY2(parser.events().empty(), qPrintable(QStringLiteral("reported at byte %1").arg(i)));
        QCOMPARE(parser.pendingSize(), i + 1);
    }
    parser.feed(frame.right(1));
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.events().size(), std::size_t(1));
    QCOMPARE(parser.events().front().kind, RecordingParser::Event::Message);
    QCOMPARE(parser.events().front().call, frame.size() - 1);
    const SerialMessage& message = parser.events().front().message;
    QCOMPARE(message.type, uint8_t(7));
    QCOMPARE(message.deviceId, uint8_t(9));
    QCOMPARE(bytesOf(message.payload), frame.mid(3, frame.size() - 4));
    QCOMPARE(parser.pendingSize(), 0);
}

void TestSerialMessageParser::threeOrFewerPendingBytesAreNeverInspected_data()
{
    QTest::addColumn<QByteArray>("garbage");
    QTest::newRow("ff") << hex("ff");
    QTest::newRow("00 01") << hex("0001");
    QTest::newRow("ff 00 1a") << hex("ff001a");
    QTest::newRow("bad-checksum ping head") << hex("030000");
}

void TestSerialMessageParser::threeOrFewerPendingBytesAreNeverInspected()
{
    QFETCH(QByteArray, garbage);
    RecordingParser parser;
    parser.feed(garbage);
    VERIFY_ACCOUNTING(parser);
    QVERIFY(parser.events().empty());
    QCOMPARE(parser.pending(), garbage);

    // Only when a fourth byte arrives is the front inspected.
    parser.feed(QByteArray(4 - garbage.size(), '\xff'));
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.badData(), garbage.left(1));
}

void TestSerialMessageParser::unframeableLeadingByteIsDiscardedAndParsingGoesOn_data()
{
    QTest::addColumn<QByteArray>("leading");
    for (const char* byte : {"00", "01", "02", "1a", "1b", "40", "7f", "80", "fe", "ff"}) {
        QTest::newRow(byte) << hex(byte);
    }
}

void TestSerialMessageParser::unframeableLeadingByteIsDiscardedAndParsingGoesOn()
{
    QFETCH(QByteArray, leading);
    RecordingParser parser;
    parser.feed(leading + hex("050704012c3d"));
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.deliveredFrames(), hex("050704012c3d"));
    QCOMPARE(parser.badDataReports(), QList<QByteArray>{leading});
    QCOMPARE(parser.pendingSize(), 0);
}

void TestSerialMessageParser::wrongChecksumLosesOnlyFirstByteAndHiddenFrameIsFound()
{
    // A 6-byte frame of type 3 whose checksum is one too high (0b is right); its bytes
    // after the first are a whole ping frame.
    RecordingParser parser;
    parser.feed(
        hex("05"
            "03000003"
            "0c"));
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.deliveredFrames(), hex("03000003"));
    QCOMPARE(parser.badDataReports(), QList<QByteArray>{hex("05")});
    // The old checksum byte is now the start of whatever comes next.
    QCOMPARE(parser.pending(), hex("0c"));
}

void TestSerialMessageParser::typeByte23OrMoreIsRejectedEvenWithCorrectChecksum_data()
{
    QTest::addColumn<int>("type");
    for (int type = 23; type < 256; ++type) {
        QTest::addRow("type %d", type) << type;
    }
}

void TestSerialMessageParser::typeByte23OrMoreIsRejectedEvenWithCorrectChecksum()
{
    QFETCH(int, type);
    const QByteArray frame = SerialFrames::frame(static_cast<uint8_t>(type), 0x05);
    QCOMPARE(frame.size(), 4);
    RecordingParser parser;
    parser.feed(frame);
    VERIFY_ACCOUNTING(parser);
    QVERIFY(parser.messages().empty());
    QCOMPARE(parser.badDataReports(), QList<QByteArray>{hex("03")});
    QCOMPARE(parser.pending(), frame.mid(1));
}

void TestSerialMessageParser::garbageThenFrameInOneCallGivesMessageFirstThenOneBadDataReport()
{
    RecordingParser parser;
    parser.feed(
        hex("fffe00"
            "050704012c3d"));
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.events().size(), std::size_t(2));
    QCOMPARE(parser.events()[0].kind, RecordingParser::Event::Message);
    QCOMPARE(parser.events()[0].message,
             SerialMessage(MessageType::FaderPosition, 4, {0x01, 0x2C}));
    QCOMPARE(parser.events()[1].kind, RecordingParser::Event::BadData);
    QCOMPARE(parser.events()[1].data, hex("fffe00"));
}

void TestSerialMessageParser::twentySixByteFrameSplitAcrossTwoCallsIsNotReassembled()
{
    // Length byte 25, fader position to device 4 with 22 bytes of ff; checksum 0e.
    const QByteArray frame = hex("190704") + QByteArray(22, '\xff') + hex("0e");
    QCOMPARE(frame.size(), 26);
    QCOMPARE(frame, SerialFrames::frame(7, 4, QByteArray(22, '\xff')));

    RecordingParser parser;
    parser.feed(frame.left(13));
    VERIFY_ACCOUNTING(parser);
    // 19 is not waited for. 07 then announces 8 bytes that are there but fail the
    // checksum, 04 announces a frame of type ff, and the ff bytes cannot start a frame.
    QCOMPARE(parser.badDataReports(), QList<QByteArray>{hex("190704") + QByteArray(7, '\xff')});
    QCOMPARE(parser.pending(), QByteArray(3, '\xff'));

    parser.feed(frame.mid(13));
    VERIFY_ACCOUNTING(parser);
    QVERIFY(parser.messages().empty());
    QCOMPARE(parser.badDataReports().size(), 2);
    QCOMPARE(parser.badDataReports().at(1), QByteArray(13, '\xff'));
    QCOMPARE(parser.pending(), hex("ffff0e"));
}

void TestSerialMessageParser::receivedEchoMessageIsVariableLength()
{
    RecordingParser parser;
    parser.feed(hex("050501aabb70") + hex("0305020a") +
                hex("04070301"
                    "0f"));
    VERIFY_ACCOUNTING(parser);
    const std::vector<SerialMessage> messages = parser.messages();
    QCOMPARE(messages.size(), std::size_t(3));
    QCOMPARE(messages[0].type, uint8_t(5));
    QCOMPARE(bytesOf(messages[0].payload), hex("aabb"));
    QVERIFY(messages[0].variableLength);
    QCOMPARE(messages[1].type, uint8_t(5));
    QVERIFY(messages[1].payload.empty());
    QVERIFY(messages[1].variableLength);
    // Any other type is not, even with a payload longer than its usual one.
    QCOMPARE(messages[2].type, uint8_t(7));
    QVERIFY(!messages[2].variableLength);
    // So an echo re-encodes to the bytes it came in.
    QCOMPARE(encode(messages[0]), hex("050501aabb70"));
}

void TestSerialMessageParser::twentySixByteFrameInOneCallIsAccepted()
{
    const QByteArray frame = hex("190704") + QByteArray(22, '\xff') + hex("0e");
    RecordingParser parser;
    parser.feed(frame);
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.messages().size(), std::size_t(1));
    QCOMPARE(parser.messages().front().payload, std::vector<uint8_t>(22, 0xFF));
    QVERIFY(parser.badData().isEmpty());
}

void TestSerialMessageParser::anyLengthFrom3To25IsAcceptedForAnyType()
{
    // Lengths are not checked against the type's usual one: a ping with the version
    // report's payload, a fader position with five bytes and a colour with none.
    RecordingParser parser;
    const QByteArray frames = SerialFrames::frame(0, 0, hex("01022a")) +
                              SerialFrames::frame(7, 1, hex("0102030405")) +
                              SerialFrames::frame(12, 2);
    parser.feed(frames);
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.deliveredFrames(), frames);
    QCOMPARE(parser.messages()[0], SerialMessage(0, 0, {0x01, 0x02, 0x2A}));
    QCOMPARE(parser.messages()[1], SerialMessage(7, 1, {1, 2, 3, 4, 5}));
    QCOMPARE(parser.messages()[2], SerialMessage(12, 2));
}

void TestSerialMessageParser::everyLengthByteAsFirstByte_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArray>("frames");
    QTest::addColumn<QByteArray>("bad");
    QTest::addColumn<QByteArray>("pending");

    const QByteArray ping = hex("03000003");
    for (int length = 0; length < 256; ++length) {
        const char byte = static_cast<char>(length);
        const bool frameLength = length >= 3 && length <= 25;

        // Followed by a valid frame body of the length it announces (or, for a byte that
        // cannot be a length, by a ping).
        if (frameLength) {
            QByteArray payload;
            for (int i = 0; i < length - 3; ++i) {
                payload.append(static_cast<char>(0x10 + i));
            }
            const QByteArray frame = SerialFrames::frame(1, 2, payload);
            QTest::addRow("%02x then its frame", length)
                << frame << frame << QByteArray() << QByteArray();
        } else {
            QTest::addRow("%02x then a ping", length)
                << QByteArray(1, byte) + ping << ping << QByteArray(1, byte) << QByteArray();
        }

        // Followed by 25 bytes that fit no frame: every length is dropped alike.
        QTest::addRow("%02x then junk", length)
            << QByteArray(1, byte) + QByteArray(25, '\xff') << QByteArray()
            << QByteArray(1, byte) + QByteArray(22, '\xff') << QByteArray(3, '\xff');

        // Followed by only three more bytes: a frame of 5 to 25 bytes is waited for; a
        // 4-byte one is judged at once and a 26-byte one is never waited for.
        const QByteArray shortInput = QByteArray(1, byte) + hex("010203");
        if (length >= 4 && length <= 24) {
            QTest::addRow("%02x then 3 bytes", length)
                << shortInput << QByteArray() << QByteArray() << shortInput;
        } else {
            QTest::addRow("%02x then 3 bytes", length)
                << shortInput << QByteArray() << QByteArray(1, byte) << hex("010203");
        }
    }
}

void TestSerialMessageParser::everyLengthByteAsFirstByte()
{
    QFETCH(QByteArray, input);
    QFETCH(QByteArray, frames);
    QFETCH(QByteArray, bad);
    QFETCH(QByteArray, pending);
    RecordingParser parser;
    parser.feed(input);
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.deliveredFrames(), frames);
    QCOMPARE(parser.badData(), bad);
    QCOMPARE(parser.pending(), pending);
}

// Plain char is unsigned on the console's ARM board and signed on x86-64: a device id, a
// payload byte and a checksum from 0x80 up come out as the same unsigned values on both.
void TestSerialMessageParser::bytesFrom0x80UpAreReadAsUnsigned()
{
    const QByteArray bytes = SerialFrames::frame(12, 0xC8, hex("ff 80 7f fe"));
    QVERIFY(static_cast<uint8_t>(bytes.back()) >= 0x80);
    RecordingParser parser;
    parser.feed(bytes);
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.messages().size(), std::size_t(1));
    QCOMPARE(parser.messages().front(), SerialMessage(12, 0xC8, {0xFF, 0x80, 0x7F, 0xFE}));
    QCOMPARE(parser.messages().front().deviceId, uint8_t(200));
    QVERIFY(parser.pending().isEmpty());
}

void TestSerialMessageParser::partialFrameStaysPendingUntilItsLastByte()
{
    RecordingParser parser;
    parser.feed(hex("07 0c 40 ff 80"));
    parser.feed(hex("00"));
    VERIFY_ACCOUNTING(parser);
    QVERIFY(parser.events().empty());
    QCOMPARE(parser.pending(), hex("070c40ff8000"));
    parser.feed(hex("02 d4 03"));
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.messages().size(), std::size_t(1));
    QCOMPARE(parser.messages().front(), SerialMessage(12, 0x40, {0xFF, 0x80, 0x00, 0x02}));
    QCOMPARE(parser.pending(), hex("03"));
}

void TestSerialMessageParser::checksumOffByOneIsRejected_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArray>("bad");
    QTest::addColumn<QByteArray>("pending");
    // The length byte goes; what follows is re-examined on its own terms.
    QTest::newRow("fader position +1") << hex("050704012c3e") << hex("05") << hex("0704012c3e");
    QTest::newRow("fader position -1") << hex("050704012c3c") << hex("05") << hex("0704012c3c");
    QTest::newRow("ping +1") << hex("03000004") << hex("03") << hex("000004");
    QTest::newRow("ping -1") << hex("03000002") << hex("03") << hex("000002");
    // 03 00 fd sums to 0x100: one below the right checksum 00 is ff.
    QTest::newRow("checksum 00 -1 wraps") << hex("0300fdff") << hex("03") << hex("00fdff");
    QTest::newRow("checksum 00 +1") << hex("0300fd01") << hex("03") << hex("00fd01");
    // 0c then announces a 13-byte frame and is waited for.
    QTest::newRow("colour +1") << hex("070c40ff800002d5") << hex("07") << hex("0c40ff800002d5");
}

void TestSerialMessageParser::checksumOffByOneIsRejected()
{
    QFETCH(QByteArray, input);
    QFETCH(QByteArray, bad);
    QFETCH(QByteArray, pending);
    RecordingParser parser;
    parser.feed(input);
    VERIFY_ACCOUNTING(parser);
    QVERIFY(parser.messages().empty());
    QCOMPARE(parser.badData(), bad);
    QCOMPARE(parser.pending(), pending);
}

void TestSerialMessageParser::badDataFromAWholeCallIsReportedOnceAfterItsMessages()
{
    RecordingParser parser;
    parser.feed(hex("ff") + hex("03000003") + hex("0001") + hex("050704012c3d") + hex("fefd"));
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.events().size(), std::size_t(3));
    QCOMPARE(parser.events()[0].kind, RecordingParser::Event::Message);
    QCOMPARE(parser.events()[1].kind, RecordingParser::Event::Message);
    QCOMPARE(parser.events()[2].kind, RecordingParser::Event::BadData);
    QCOMPARE(parser.events()[2].data, hex("ff0001"));
    QCOMPARE(parser.pending(), hex("fefd"));

    parser.feed(hex("fc") + hex("fb"));
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.events().size(), std::size_t(4));
    QCOMPARE(parser.events()[3].data, hex("fe"));
    QCOMPARE(parser.pending(), hex("fdfcfb"));
}

void TestSerialMessageParser::callWithoutBadBytesReportsNoBadData()
{
    RecordingParser parser;
    parser.feed(
        hex("03000003"
            "050704012c3d"));
    VERIFY_ACCOUNTING(parser);
    QVERIFY(parser.badDataReports().isEmpty());
    QCOMPARE(parser.messages().size(), std::size_t(2));
}

void TestSerialMessageParser::emptyChunkChangesNothing()
{
    RecordingParser parser;
    parser.feed(QByteArray());
    QVERIFY(parser.events().empty());
    parser.feed(hex("0507"));
    parser.feed(QByteArray());
    VERIFY_ACCOUNTING(parser);
    QVERIFY(parser.events().empty());
    QCOMPARE(parser.pending(), hex("0507"));
}

void TestSerialMessageParser::clearForgetsPendingPartialFrame()
{
    RecordingParser parser;
    parser.feed(hex("050704"));
    parser.restart();
    QCOMPARE(parser.pendingSize(), 0);
    QVERIFY(parser.pending().isEmpty());
    // The rest of the old frame cannot start one: 01, 2c and 3d are dropped.
    parser.feed(hex("012c3d") + hex("03000003"));
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.deliveredFrames(), hex("03000003"));
    QCOMPARE(parser.badData(), hex("012c3d"));
}

void TestSerialMessageParser::clearFromInsideMessageCallbackStopsTheCall()
{
    ClearingParser parser;
    parser.parse(hex("ff") + hex("03000003") + hex("050704012c3d") + hex("fe"));
    QCOMPARE(parser.messages.size(), std::size_t(1));
    QCOMPARE(parser.messages.front(), SerialMessage(0, 0));
    // Bytes dropped before the clear are still reported.
    QCOMPARE(parser.bad, QList<QByteArray>{hex("ff")});
    QCOMPARE(parser.pendingSize(), 0);
}

void TestSerialMessageParser::parseFromInsideMessageCallbackKeepsEveryByte()
{
    ReenteringParser parser;
    parser.answer = hex("ff") + hex("050704012c3d");
    parser.parse(hex("ff") + hex("03000003") + hex("0504"));
    // The nested call appends behind what is pending and goes on from there; it reports
    // the bytes it dropped (05 04 ff) before the outer call reports its own (ff).
    QCOMPARE(parser.messages.size(), std::size_t(2));
    QCOMPARE(parser.messages[0], SerialMessage(0, 0));
    QCOMPARE(parser.messages[1], SerialMessage(7, 4, {0x01, 0x2C}));
    QCOMPARE(parser.bad, hex("0504ff") + hex("ff"));
    QCOMPARE(parser.pendingSize(), 0);
}

void TestSerialMessageParser::mebibyteOfUnframeableNoiseIsReportedByteForByte()
{
    QRandomGenerator rng(0x5EC7104);
    QByteArray noise(1 << 20, '\0');
    for (char& byte : noise) {
        byte = unframeableByte(rng);
    }
    RecordingParser parser;
    parser.feed(noise);
    VERIFY_ACCOUNTING(parser);
    QVERIFY(parser.messages().empty());
    QCOMPARE(parser.badDataReports().size(), 1);
    QVERIFY(parser.badData() == noise.left(noise.size() - 3));
    QCOMPARE(parser.pending(), noise.right(3));
}

void TestSerialMessageParser::mebibyteOfRandomBytesIsAccountedForExactly()
{
    QRandomGenerator rng(0xF00D);
    QByteArray noise(1 << 20, '\0');
    for (char& byte : noise) {
        byte = static_cast<char>(rng.bounded(256));
    }
    RecordingParser parser;
    parser.feed(noise);
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.badDataReports().size(), 1);
    QVERIFY(parser.pendingSize() <= RecordingParser::kMaximumPending);
    QCOMPARE(parser.deliveredFrames().size() + parser.badData().size() + parser.pendingSize(),
             noise.size());
}

void TestSerialMessageParser::thousandFramesFedOneBytePerCallComeOutInOrder()
{
    QRandomGenerator rng(1000);
    std::vector<QByteArray> frames;
    QByteArray stream;
    for (int i = 0; i < 1000; ++i) {
        // Up to 25 bytes: the largest frame is never waited for.
        frames.push_back(randomFrame(rng, 21));
        stream.append(frames.back());
    }
    RecordingParser parser;
    std::size_t delivered = 0;
    int position = 0;
    for (const QByteArray& frame : frames) {
        for (int i = 0; i < frame.size(); ++i) {
            parser.feed(stream.mid(position++, 1));
            const std::size_t expected = delivered + (i == frame.size() - 1 ? 1 : 0);
            QCOMPARE(parser.events().size(), expected);
        }
        ++delivered;
        QCOMPARE(SerialFrames::wireBytes(parser.events().back().message), frame);
    }
    VERIFY_ACCOUNTING(parser);
    QCOMPARE(parser.deliveredFrames(), stream);
    QCOMPARE(parser.pendingSize(), 0);
}

void TestSerialMessageParser::validFramesAmongNoiseComeOutExactlyOnceInOrder_data()
{
    QTest::addColumn<quint32>("seed");
    for (quint32 seed : {1u, 2u, 3u, 0xC0FFEEu}) {
        QTest::addRow("seed %u", seed) << seed;
    }
}

void TestSerialMessageParser::validFramesAmongNoiseComeOutExactlyOnceInOrder()
{
    // Noise drawn only from bytes that cannot start a frame never hides or eats a frame:
    // every frame comes out once, in order, and every noise byte is reported once.
    QFETCH(quint32, seed);
    QRandomGenerator rng(seed);
    for (int round = 0; round < 2000; ++round) {
        QByteArray stream;
        QByteArray frames;
        QByteArray noise;
        // Chunk boundaries may fall anywhere except inside a 26-byte frame, which the
        // parser deliberately does not wait for.
        std::vector<bool> canCut(1, true);
        const int segments = 1 + rng.bounded(16);
        for (int s = 0; s < segments; ++s) {
            // Always end on a frame, so that no noise is left pending.
            if (s < segments - 1 && rng.bounded(2) == 0) {
                const int count = 1 + rng.bounded(12);
                for (int i = 0; i < count; ++i) {
                    noise.append(unframeableByte(rng));
                    stream.append(noise.back());
                    canCut.push_back(true);
                }
            } else {
                const QByteArray frame = randomFrame(rng);
                frames.append(frame);
                stream.append(frame);
                for (int i = 1; i <= frame.size(); ++i) {
                    canCut.push_back(frame.size() < 26 || i == frame.size());
                }
            }
        }

        std::vector<int> cuts;
        const int cutCount = rng.bounded(9);
        for (int i = 0; i < cutCount; ++i) {
            const int at = 1 + rng.bounded(stream.size());
            if (at < stream.size() && canCut[at]) {
                cuts.push_back(at);
            }
        }
        std::sort(cuts.begin(), cuts.end());
        cuts.push_back(stream.size());

        RecordingParser parser;
        int from = 0;
        for (int at : cuts) {
            parser.feed(stream.mid(from, at - from));
            from = at;
        }
        const QByteArray context =
            QByteArray("round ") + QByteArray::number(round) + ", stream " + stream.toHex();
        QVERIFY2(parser.error().isEmpty(), qPrintable(parser.error() + " / " + context));
        QVERIFY2(parser.deliveredFrames() == frames, context.constData());
        QVERIFY2(parser.badData() == noise, context.constData());
        QVERIFY2(parser.pendingSize() == 0, context.constData());
        QVERIFY2(parser.events().size() <= parser.messages().size() + cuts.size(),
                 context.constData());
    }
}

void TestSerialMessageParser::everyByteEndsUpInExactlyOnePlace_data()
{
    QTest::addColumn<quint32>("seed");
    for (quint32 seed : {7u, 8u, 9u, 0xBADu}) {
        QTest::addRow("seed %u", seed) << seed;
    }
}

void TestSerialMessageParser::everyByteEndsUpInExactlyOnePlace()
{
    // With noise of any value, frames may be eaten or invented by the noise around them,
    // but no byte is lost or counted twice: RecordingParser places every one in a frame,
    // in the bad data or in the pending rest, in order.
    QFETCH(quint32, seed);
    QRandomGenerator rng(seed);
    for (int round = 0; round < 2000; ++round) {
        QByteArray stream;
        const int segments = 1 + rng.bounded(16);
        for (int s = 0; s < segments; ++s) {
            if (rng.bounded(2) == 0) {
                const int count = 1 + rng.bounded(12);
                for (int i = 0; i < count; ++i) {
                    stream.append(static_cast<char>(rng.bounded(256)));
                }
            } else {
                stream.append(randomFrame(rng));
            }
        }
        RecordingParser parser;
        int from = 0;
        while (from < stream.size()) {
            const int size = 1 + rng.bounded(qMin(40, stream.size() - from));
            parser.feed(stream.mid(from, size));
            from += size;
        }
        QVERIFY2(parser.error().isEmpty(),
                 qPrintable(parser.error() + QStringLiteral(" / round %1, stream %2")
                                                 .arg(round)
                                                 .arg(QString::fromLatin1(stream.toHex()))));
        QCOMPARE(parser.deliveredFrames().size() + parser.badData().size() + parser.pendingSize(),
                 stream.size());
    }
}

QTEST_GUILESS_MAIN(TestSerialMessageParser)
#include "tst_serialmessageparser.moc"
