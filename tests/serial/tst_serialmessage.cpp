#include <QtTest>

#include "serial/serialmessage.h"
#include "support/serialframes.h"

using namespace Velmora::Worksurface;

class TestSerialMessage : public QObject
{
    Q_OBJECT

private slots:
    void defaultValueIsNoMessage();
    void constructorKeepsTypeDeviceAndPayload();
    void constructorSetsVariableLengthOnlyWhenAsked();
    void echoTypeIsAlwaysVariableLength();
    void zeroFillValueIsTypeNoMessageForDeviceZero();
    void isValidOnlyBelowTypeNoMessage_data();
    void isValidOnlyBelowTypeNoMessage();
    void equalityComparesEveryField();

    void baseLengthTable_data();
    void baseLengthTable();
    void baseLengthOutsideTableIsBareHeader();

    void byteAtReadsInsidePayloadOnly();
    void wordAtIsBigEndianAndNeedsTwoBytes();
    void wordAtWithHugeOffsetGivesDefault();
    void boolAtIsTrueForAnyNonZeroByte();

    void encodeFaderPositionForDeviceFourGivesExactFrame();
    void encodeZeroFillGives1024ZeroBytes();
    void encodeNonVariablePingDropsPayload();
    void encodeEverySenderTypeWithItsUsualPayload_data();
    void encodeEverySenderTypeWithItsUsualPayload();
    void encodeVariableLengthAddsPayloadSizeToBaseLength();
    void encodeEchoCountsPayloadInLengthByte();
    void encodeWritesWholePayloadWhateverTheTableSays();
    void encodeWritesNoPayloadWhenLengthWrapsToHeaderOrLess();
    void encodeChecksumWrapsModulo256();
};

void TestSerialMessage::defaultValueIsNoMessage()
{
    const SerialMessage message;
    QCOMPARE(message.type, uint8_t(23));
    QCOMPARE(message.deviceId, uint8_t(0));
    QVERIFY(!message.variableLength);
    QVERIFY(!message.zeroFill);
    QVERIFY(message.payload.empty());
    QVERIFY(!message.isValid());
}

void TestSerialMessage::constructorKeepsTypeDeviceAndPayload()
{
    const SerialMessage message(MessageType::RgbColor, 42, {0xFF, 0x80, 0x00, 0x02});
    QCOMPARE(message.type, uint8_t(12));
    QCOMPARE(message.deviceId, uint8_t(42));
    QCOMPARE(message.payload, (std::vector<uint8_t>{0xFF, 0x80, 0x00, 0x02}));
    QVERIFY(!message.zeroFill);
    QVERIFY(message.isValid());
}

void TestSerialMessage::constructorSetsVariableLengthOnlyWhenAsked()
{
    QVERIFY(!SerialMessage(MessageType::Ping, 0, {1, 2}).variableLength);
    QVERIFY(!SerialMessage(MessageType::Ping, 0, {1, 2}, false).variableLength);
    QVERIFY(SerialMessage(MessageType::Ping, 0, {1, 2}, true).variableLength);
}

void TestSerialMessage::echoTypeIsAlwaysVariableLength()
{
    QVERIFY(SerialMessage(MessageType::Echo, 3).variableLength);
    QVERIFY(SerialMessage(MessageType::Echo, 3, {9}, false).variableLength);
}

void TestSerialMessage::zeroFillValueIsTypeNoMessageForDeviceZero()
{
    const SerialMessage message = SerialMessage::makeZeroFill();
    QCOMPARE(message.type, uint8_t(23));
    QCOMPARE(message.deviceId, uint8_t(0));
    QVERIFY(message.zeroFill);
    QVERIFY(!message.variableLength);
    QVERIFY(message.payload.empty());
    QVERIFY(!message.isValid());
}

void TestSerialMessage::isValidOnlyBelowTypeNoMessage_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<bool>("valid");
    QTest::newRow("0") << 0 << true;
    QTest::newRow("22") << 22 << true;
    QTest::newRow("23") << 23 << false;
    QTest::newRow("24") << 24 << true;
    QTest::newRow("255") << 255 << true;
}

void TestSerialMessage::isValidOnlyBelowTypeNoMessage()
{
    // Only the no-message type itself means "nothing"; the parser never produces the
    // others, but a value built by hand with them is still a message.
    QFETCH(int, type);
    QFETCH(bool, valid);
    QCOMPARE(SerialMessage(static_cast<uint8_t>(type), 0).isValid(), valid);
}

void TestSerialMessage::equalityComparesEveryField()
{
    const SerialMessage base(MessageType::Led, 5, {1, 2});
    QVERIFY(base == SerialMessage(MessageType::Led, 5, {1, 2}));
    QVERIFY(base != SerialMessage(MessageType::FaderPosition, 5, {1, 2}));
    QVERIFY(base != SerialMessage(MessageType::Led, 6, {1, 2}));
    QVERIFY(base != SerialMessage(MessageType::Led, 5, {1, 3}));
    QVERIFY(base != SerialMessage(MessageType::Led, 5, {1, 2}, true));
    SerialMessage zeroFill = SerialMessage::makeZeroFill();
    QVERIFY(zeroFill != SerialMessage());
}

void TestSerialMessage::baseLengthTable_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("length");
    const int lengths[] = {3, 3, 3, 3, 3, 3, 4, 5, 5, 5, 4, 5, 7, 4, 4, 4, 4, 3, 4, 4, 4, 6, 4};
    for (int type = 0; type < 23; ++type) {
        QTest::addRow("type %d", type) << type << lengths[type];
    }
}

void TestSerialMessage::baseLengthTable()
{
    QFETCH(int, type);
    QFETCH(int, length);
    QCOMPARE(int(MessageBaseLength(static_cast<uint8_t>(type))), length);
}

void TestSerialMessage::baseLengthOutsideTableIsBareHeader()
{
    for (int type = 23; type < 256; ++type) {
        QCOMPARE(int(MessageBaseLength(static_cast<uint8_t>(type))), 3);
    }
    // So even a no-message value that slips through encodes to a frame a section rejects
    // by its type, not to bytes read from beyond the table.
    QCOMPARE(encode(SerialMessage()), QByteArray::fromHex("0317001a"));
}

void TestSerialMessage::byteAtReadsInsidePayloadOnly()
{
    const SerialMessage message(MessageType::Led, 1, {0x10, 0x20});
    QCOMPARE(message.byteAt(0), uint8_t(0x10));
    QCOMPARE(message.byteAt(1), uint8_t(0x20));
    QCOMPARE(message.byteAt(2), uint8_t(0));
    QCOMPARE(message.byteAt(2, 0x7F), uint8_t(0x7F));
    QCOMPARE(SerialMessage().byteAt(0, 9), uint8_t(9));
}

void TestSerialMessage::wordAtIsBigEndianAndNeedsTwoBytes()
{
    const SerialMessage message(MessageType::FaderPosition, 1, {0x01, 0x2C, 0xFF});
    QCOMPARE(message.wordAt(0), uint16_t(300));
    QCOMPARE(message.wordAt(1), uint16_t(0x2CFF));
    QCOMPARE(message.wordAt(2), uint16_t(0));
    QCOMPARE(message.wordAt(2, 0xFFFF), uint16_t(0xFFFF));
    QCOMPARE(message.wordAt(3, 7), uint16_t(7));
    QCOMPARE(SerialMessage(MessageType::FaderPosition, 1, {0x01}).wordAt(0, 5), uint16_t(5));
    QCOMPARE(SerialMessage().wordAt(0, 5), uint16_t(5));
}

void TestSerialMessage::wordAtWithHugeOffsetGivesDefault()
{
    // offset + 2 must not wrap around and pass the bound check.
    const SerialMessage message(MessageType::FaderPosition, 1, {0x01, 0x2C});
    QCOMPARE(message.wordAt(std::numeric_limits<std::size_t>::max(), 11), uint16_t(11));
    QCOMPARE(message.wordAt(std::numeric_limits<std::size_t>::max() - 1, 12), uint16_t(12));
    QCOMPARE(message.byteAt(std::numeric_limits<std::size_t>::max(), 13), uint8_t(13));
    QCOMPARE(message.boolAt(std::numeric_limits<std::size_t>::max(), true), true);
}

void TestSerialMessage::boolAtIsTrueForAnyNonZeroByte()
{
    const SerialMessage message(MessageType::ButtonState, 1, {0x00, 0x01, 0x80, 0xFF});
    QCOMPARE(message.boolAt(0, true), false);
    QCOMPARE(message.boolAt(1), true);
    QCOMPARE(message.boolAt(2), true);
    QCOMPARE(message.boolAt(3), true);
    QCOMPARE(message.boolAt(4), false);
    QCOMPARE(message.boolAt(4, true), true);
}

void TestSerialMessage::encodeFaderPositionForDeviceFourGivesExactFrame()
{
    QCOMPARE(encode(SerialMessage(MessageType::FaderPosition, 4, {0x01, 0x2C})),
             QByteArray::fromHex("050704012c3d"));
}

void TestSerialMessage::encodeZeroFillGives1024ZeroBytes()
{
    const QByteArray bytes = encode(SerialMessage::makeZeroFill());
    QCOMPARE(bytes.size(), 1024);
    QCOMPARE(bytes, QByteArray(1024, '\0'));

    // The flag alone decides: whatever else the value holds is not written.
    SerialMessage message(MessageType::FaderPosition, 4, {0x01, 0x2C});
    message.zeroFill = true;
    QCOMPARE(encode(message), QByteArray(1024, '\0'));
}

void TestSerialMessage::encodeNonVariablePingDropsPayload()
{
    QCOMPARE(encode(SerialMessage(MessageType::Ping, 0x21, {0x01, 0x02, 0x03})),
             QByteArray::fromHex("03002124"));
    QCOMPARE(encode(SerialMessage(MessageType::Ping, 0)), QByteArray::fromHex("03000003"));
    QCOMPARE(encode(SerialMessage(MessageType::PotValue, 0, {0x55})),
             QByteArray::fromHex("03110014"));
}

void TestSerialMessage::encodeEverySenderTypeWithItsUsualPayload_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("deviceId");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QByteArray>("frame");
    QTest::newRow("brightness") << 6 << 0 << QByteArray::fromHex("40")
                                << QByteArray::fromHex("040600404a");
    QTest::newRow("fader position")
        << 7 << 3 << QByteArray::fromHex("00c8") << QByteArray::fromHex("05070300c8d7");
    QTest::newRow("fader backstop")
        << 8 << 2 << QByteArray::fromHex("01ff") << QByteArray::fromHex("05080201ff0f");
    QTest::newRow("fader detent") << 9 << 1 << QByteArray::fromHex("0100")
                                  << QByteArray::fromHex(
                                         "0509010100"
                                         "10");
    QTest::newRow("drive mode") << 10 << 9 << QByteArray::fromHex("01")
                                << QByteArray::fromHex("040a090118");
    QTest::newRow("led") << 11 << 0x30 << QByteArray::fromHex("ff00")
                         << QByteArray::fromHex("050b30ff003f");
    QTest::newRow("colour") << 12 << 0x40 << QByteArray::fromHex("ff800002")
                            << QByteArray::fromHex("070c40ff800002d4");
    QTest::newRow("meter level") << 13 << 0x50 << QByteArray::fromHex("18")
                                 << QByteArray::fromHex("040d501879");
    QTest::newRow("meter peak") << 14 << 0x51 << QByteArray::fromHex("01")
                                << QByteArray::fromHex("040e510164");
    QTest::newRow("over-brightness")
        << 22 << 0 << QByteArray::fromHex("01") << QByteArray::fromHex("041600011b");
}

void TestSerialMessage::encodeEverySenderTypeWithItsUsualPayload()
{
    QFETCH(int, type);
    QFETCH(int, deviceId);
    QFETCH(QByteArray, payload);
    QFETCH(QByteArray, frame);
    const std::vector<uint8_t> bytes(payload.begin(), payload.end());
    QCOMPARE(
        encode(SerialMessage(static_cast<uint8_t>(type), static_cast<uint8_t>(deviceId), bytes)),
        frame);
}

void TestSerialMessage::encodeVariableLengthAddsPayloadSizeToBaseLength()
{
    // Base length 3 for type 0: the section's version report with a 3-byte payload.
    QCOMPARE(encode(SerialMessage(MessageType::Ping, 0, {0x01, 0x02, 0x2A}, true)),
             QByteArray::fromHex("060000"
                                 "01022a"
                                 "33"));
    // Base length 3 for the pot value, as the software pot sends it with a 16-bit value.
    QCOMPARE(encode(SerialMessage(MessageType::PotValue, 0x60, {0x01, 0x00}, true)),
             QByteArray::fromHex("05116001"
                                 "0077"));
    // The base length is added even where it already counts a payload.
    QCOMPARE(encode(SerialMessage(MessageType::FaderPosition, 4, {0x01, 0x2C}, true)),
             QByteArray::fromHex("070704012c3f"));
    // With an empty payload a variable-length message is the plain header.
    QCOMPARE(encode(SerialMessage(MessageType::Calibration, 0, {}, true)),
             QByteArray::fromHex("03030006"));
}

void TestSerialMessage::encodeEchoCountsPayloadInLengthByte()
{
    QCOMPARE(encode(SerialMessage(MessageType::Echo, 1, {0xAA, 0xBB})),
             QByteArray::fromHex("050501aabb70"));
}

void TestSerialMessage::encodeWritesWholePayloadWhateverTheTableSays()
{
    // Length 5 from the table, but all three payload bytes go out.
    QCOMPARE(encode(SerialMessage(MessageType::FaderPosition, 4, {0x01, 0x02, 0x03})),
             QByteArray::fromHex("05070401020316"));
    // And a short payload is not padded.
    QCOMPARE(encode(SerialMessage(MessageType::RgbColor, 4, {0x01})),
             QByteArray::fromHex("070c040118"));
}

void TestSerialMessage::encodeWritesNoPayloadWhenLengthWrapsToHeaderOrLess()
{
    // 3 + 253 = 256 wraps to 0: not above 3, so no payload is written.
    const std::vector<uint8_t> payload(253, 0x01);
    QCOMPARE(encode(SerialMessage(MessageType::Calibration, 2, payload, true)),
             QByteArray::fromHex("00030205"));
    // 3 + 256 wraps to 3.
    const std::vector<uint8_t> longer(256, 0x01);
    QCOMPARE(encode(SerialMessage(MessageType::Calibration, 2, longer, true)),
             QByteArray::fromHex("03030208"));
    // 3 + 257 wraps to 4: the whole payload goes out behind a length byte of 4.
    const std::vector<uint8_t> longest(257, 0x01);
    const QByteArray bytes = encode(SerialMessage(MessageType::Calibration, 2, longest, true));
    QCOMPARE(bytes.size(), 3 + 257 + 1);
    QCOMPARE(bytes.left(3), QByteArray::fromHex("040302"));
    QCOMPARE(uint8_t(bytes.back()), uint8_t((4 + 3 + 2 + 257) & 0xFF));
}

void TestSerialMessage::encodeChecksumWrapsModulo256()
{
    QCOMPARE(encode(SerialMessage(MessageType::FaderPosition, 0xFF, {0xFF, 0xFF})),
             QByteArray::fromHex("0507ffffff09"));
}

QTEST_GUILESS_MAIN(TestSerialMessage)
#include "tst_serialmessage.moc"
