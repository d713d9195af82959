#include <QtTest/QtTest>

#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

class tst_BootloaderPacket : public QObject
{
    Q_OBJECT

private slots:
    void encodesEveryCodeToItsLineBytes_data();
    void encodesEveryCodeToItsLineBytes();
    void unknownCodesEncodeToNothing_data();
    void unknownCodesEncodeToNothing();
    void downloadCarriesAddressAndSizeWithChecksumOverAll();
    void sendDataCarriesSixtyFourBytesAfterSize67();
    void checksumWrapsModulo256();
    void shortPayloadIsWrittenAsGivenUnderTheTableSize();
    void longPayloadIsWrittenAsGivenUnderTheTableSize();
    void payloadOfAThreeByteCommandIsNeitherWrittenNorCounted();
    void singleByteAnswersIgnoreAnyPayload();
    void defaultPacketIsTheNoPacketPlaceholder();
    void namesEveryCode_data();
    void namesEveryCode();
    void everyCodeWithoutANameIsUnknownCommand();
};

void tst_BootloaderPacket::encodesEveryCodeToItsLineBytes_data()
{
    QTest::addColumn<int>("command");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("Ping") << 0x20 << QByteArray::fromHex("032020");
    QTest::newRow("Download no payload") << 0x21 << QByteArray::fromHex("0b2121");
    QTest::newRow("Run no payload") << 0x22 << QByteArray::fromHex("072222");
    QTest::newRow("GetStatus") << 0x23 << QByteArray::fromHex("032323");
    QTest::newRow("SendData no payload") << 0x24 << QByteArray::fromHex("432424");
    QTest::newRow("Reset") << 0x25 << QByteArray::fromHex("032525");
    QTest::newRow("CommandNak") << 0x33 << QByteArray::fromHex("33");
    QTest::newRow("Success") << 0x40 << QByteArray::fromHex("034040");
    QTest::newRow("placeholder 0x41") << 0x41 << QByteArray::fromHex("034141");
    QTest::newRow("InvalidCommand") << 0x42 << QByteArray::fromHex("034242");
    QTest::newRow("InvalidAddress") << 0x43 << QByteArray::fromHex("034343");
    QTest::newRow("FlashFailure") << 0x44 << QByteArray::fromHex("034444");
    QTest::newRow("CRCheckFailure") << 0x45 << QByteArray::fromHex("034545");
    QTest::newRow("AutoBaud") << 0x55 << QByteArray::fromHex("5555");
    QTest::newRow("NotBootLoader") << 0xAA << QByteArray::fromHex("aa");
    QTest::newRow("CommandAck") << 0xCC << QByteArray::fromHex("cc");
}

void tst_BootloaderPacket::encodesEveryCodeToItsLineBytes()
{
    QFETCH(int, command);
    QFETCH(QByteArray, expected);
    QCOMPARE(encodeBootloaderPacket(BootloaderPacket(static_cast<uint8_t>(command))), expected);
}

void tst_BootloaderPacket::unknownCodesEncodeToNothing_data()
{
    QTest::addColumn<int>("command");
    for (int code = 0; code < 256; ++code) {
        switch (code) {
            case 0x20:
            case 0x21:
            case 0x22:
            case 0x23:
            case 0x24:
            case 0x25:
            case 0x33:
            case 0x40:
            case 0x41:
            case 0x42:
            case 0x43:
            case 0x44:
            case 0x45:
            case 0x55:
            case 0xAA:
            case 0xCC:
                continue;
            default:
                QTest::addRow("0x%02x", code) << code;
        }
    }
}

void tst_BootloaderPacket::unknownCodesEncodeToNothing()
{
    QFETCH(int, command);
    const auto code = static_cast<uint8_t>(command);
    QCOMPARE(encodeBootloaderPacket(BootloaderPacket(code)), QByteArray());
    QCOMPARE(encodeBootloaderPacket(BootloaderPacket(code, QByteArray::fromHex("0102"))),
             QByteArray());
}

void tst_BootloaderPacket::downloadCarriesAddressAndSizeWithChecksumOverAll()
{
    // Address 0, 128 bytes: 0x21 + 0x80 = 0xa1.
    const BootloaderPacket packet(BootloaderCommand::Download,
                                  QByteArray::fromHex("0000000000000080"));
    QCOMPARE(encodeBootloaderPacket(packet), QByteArray::fromHex("0ba1210000000000000080"));

    // 256 KiB: 0x00040000; 0x21 + 0x04 = 0x25.
    const BootloaderPacket big(BootloaderCommand::Download,
                               QByteArray::fromHex("0000000000040000"));
    QCOMPARE(encodeBootloaderPacket(big), QByteArray::fromHex("0b25210000000000040000"));
}

void tst_BootloaderPacket::sendDataCarriesSixtyFourBytesAfterSize67()
{
    QByteArray data;
    for (int i = 0; i < 64; ++i) {
        data.append(static_cast<char>(i));
    }
    // Sum 0..63 = 2016 = 0x7e0; plus 0x24 -> 0x804 -> 0x04.
    const QByteArray encoded =
        encodeBootloaderPacket(BootloaderPacket(BootloaderCommand::SendData, data));
    QCOMPARE(encoded.size(), 67);
    QCOMPARE(encoded.left(3), QByteArray::fromHex("430424"));
    QCOMPARE(encoded.mid(3), data);
}

void tst_BootloaderPacket::checksumWrapsModulo256()
{
    // 0x24 + 64 * 0xff = 0x24 + 0x3fc0 = 0x3fe4 -> 0xe4.
    const QByteArray data(64, static_cast<char>(0xFF));
    const QByteArray encoded =
        encodeBootloaderPacket(BootloaderPacket(BootloaderCommand::SendData, data));
    QCOMPARE(encoded.left(3), QByteArray::fromHex("43e424"));
    QCOMPARE(encoded.mid(3), data);

    // Run with address 0xffffffff: 0x22 + 4 * 0xff = 0x41e -> 0x1e.
    QCOMPARE(encodeBootloaderPacket(
                 BootloaderPacket(BootloaderCommand::Run, QByteArray::fromHex("ffffffff"))),
             QByteArray::fromHex("071e22ffffffff"));
}

void tst_BootloaderPacket::shortPayloadIsWrittenAsGivenUnderTheTableSize()
{
    // The size byte still says 67: the bootloader would read the next bytes on the line as
    // data. Building a full block is the caller's job.
    const QByteArray encoded = encodeBootloaderPacket(
        BootloaderPacket(BootloaderCommand::SendData, QByteArray::fromHex("0102")));
    QCOMPARE(encoded, QByteArray::fromHex("4327240102"));

    QCOMPARE(encodeBootloaderPacket(
                 BootloaderPacket(BootloaderCommand::Download, QByteArray::fromHex("00000080"))),
             QByteArray::fromHex("0ba12100000080"));
}

void tst_BootloaderPacket::longPayloadIsWrittenAsGivenUnderTheTableSize()
{
    const QByteArray data(70, '\x01');
    const QByteArray encoded =
        encodeBootloaderPacket(BootloaderPacket(BootloaderCommand::SendData, data));
    QCOMPARE(encoded.size(), 73);
    // 0x24 + 70 = 0x6a.
    QCOMPARE(encoded.left(3), QByteArray::fromHex("436a24"));
    QCOMPARE(encoded.mid(3), data);
}

void tst_BootloaderPacket::payloadOfAThreeByteCommandIsNeitherWrittenNorCounted()
{
    QCOMPARE(encodeBootloaderPacket(
                 BootloaderPacket(BootloaderCommand::Ping, QByteArray::fromHex("0102"))),
             QByteArray::fromHex("032020"));
    QCOMPARE(encodeBootloaderPacket(
                 BootloaderPacket(BootloaderCommand::Success, QByteArray::fromHex("ff"))),
             QByteArray::fromHex("034040"));
}

void tst_BootloaderPacket::singleByteAnswersIgnoreAnyPayload()
{
    const QByteArray payload = QByteArray::fromHex("0102");
    QCOMPARE(encodeBootloaderPacket(BootloaderPacket(BootloaderCommand::CommandAck, payload)),
             QByteArray::fromHex("cc"));
    QCOMPARE(encodeBootloaderPacket(BootloaderPacket(BootloaderCommand::CommandNak, payload)),
             QByteArray::fromHex("33"));
    QCOMPARE(encodeBootloaderPacket(BootloaderPacket(BootloaderCommand::NotBootLoader, payload)),
             QByteArray::fromHex("aa"));
    QCOMPARE(encodeBootloaderPacket(BootloaderPacket(BootloaderCommand::AutoBaud, payload)),
             QByteArray::fromHex("5555"));
}

void tst_BootloaderPacket::defaultPacketIsTheNoPacketPlaceholder()
{
    const BootloaderPacket packet;
    QCOMPARE(int(packet.command), 0x41);
    QVERIFY(packet.payload.isEmpty());
    QVERIFY(packet == BootloaderPacket(BootloaderCommand::NoPacket));
    QVERIFY(!(packet == BootloaderPacket(BootloaderCommand::NoPacket, QByteArray("x"))));
}

void tst_BootloaderPacket::namesEveryCode_data()
{
    QTest::addColumn<int>("command");
    QTest::addColumn<QString>("name");
    QTest::newRow("0x20") << 0x20 << "Ping";
    QTest::newRow("0x21") << 0x21 << "Download";
    QTest::newRow("0x22") << 0x22 << "Run";
    QTest::newRow("0x23") << 0x23 << "GetStatus";
    QTest::newRow("0x24") << 0x24 << "SendData";
    QTest::newRow("0x25") << 0x25 << "Reset";
    QTest::newRow("0x33") << 0x33 << "CommandNak";
    QTest::newRow("0x40") << 0x40 << "Success";
    QTest::newRow("0x41") << 0x41 << "UnknownCommand";
    QTest::newRow("0x42") << 0x42 << "InvalidCommand";
    QTest::newRow("0x43") << 0x43 << "InvalidAddress";
    QTest::newRow("0x44") << 0x44 << "FlashFailure";
    QTest::newRow("0x45") << 0x45 << "CRCheckFailure";
    QTest::newRow("0x55") << 0x55 << "AutoBaud";
    QTest::newRow("0xaa") << 0xAA << "NotBootLoader";
    QTest::newRow("0xcc") << 0xCC << "CommandAck";
}

void tst_BootloaderPacket::namesEveryCode()
{
    QFETCH(int, command);
    QFETCH(QString, name);
    QCOMPARE(bootloaderCommandName(static_cast<uint8_t>(command)), name);
}

void tst_BootloaderPacket::everyCodeWithoutANameIsUnknownCommand()
{
    const QList<int> named = {0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x33, 0x40,
                              0x42, 0x43, 0x44, 0x45, 0x55, 0xAA, 0xCC};
    for (int code = 0; code < 256; ++code) {
        const QString name = bootloaderCommandName(static_cast<uint8_t>(code));
        if (named.contains(code)) {
            QVERIFY2(name != QLatin1String("UnknownCommand"), qPrintable(QString::number(code)));
        } else {
            QCOMPARE(name, QStringLiteral("UnknownCommand"));
        }
    }
}

QTEST_GUILESS_MAIN(tst_BootloaderPacket)
#include "tst_bootloaderpacket.moc"
