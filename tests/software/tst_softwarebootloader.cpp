#include <QtTest>

#include "software/softwarebootloader.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

QByteArray packet(uint8_t command, const QByteArray& payload = {})
{
    return encodeBootloaderPacket(BootloaderPacket(command, payload));
}

}  // namespace

// The bootloader a QML section plays, byte for byte: what it answers to each packet of the
// updater's exchange, and what it keeps of the image.
class TestSoftwareBootloader : public QObject
{
    Q_OBJECT

private slots:
    void autoBaudIsAcknowledgedAndBeginsTheExchange();
    void pingIsAcknowledged();
    void downloadIsAcknowledgedAndStartsTheImageOver();
    void sendDataAppendsItsBlockToTheImage();
    void getStatusIsAcknowledgedAndAnsweredWithTheFlashStatus();
    void unknownCommandIsAcknowledgedAndRefusedInTheNextStatus();
    void badChecksumIsAnsweredWithANakAndNotExecuted();
    void nakCountRefusesTheNextPacketsThenAcknowledges();
    void resetIsAcknowledgedAndLeavesTheBootloader();
    void splitPacketWaitsForItsRest();
    void thePluginsOwnAnswersAndPaddingAreTakenSilently();
    void noiseIsSkippedByteByByte();
    void crc32IsTheZlibPolynomial();
    void justBootedItHearsNothingBeforeAnAutoBaud();
};

void TestSoftwareBootloader::autoBaudIsAcknowledgedAndBeginsTheExchange()
{
    SoftwareBootloader bootloader;
    QVERIFY(!bootloader.isUpdating());
    const auto result = bootloader.receive(QByteArray::fromHex("5555"));
    QCOMPARE(result.answer, QByteArray::fromHex("cc"));
    QVERIFY(!result.left);
    QVERIFY(bootloader.isUpdating());
}

void TestSoftwareBootloader::pingIsAcknowledged()
{
    SoftwareBootloader bootloader;
    QCOMPARE(packet(BootloaderCommand::Ping), QByteArray::fromHex("032020"));
    QCOMPARE(bootloader.receive(QByteArray::fromHex("032020")).answer, QByteArray::fromHex("cc"));
}

void TestSoftwareBootloader::downloadIsAcknowledgedAndStartsTheImageOver()
{
    SoftwareBootloader bootloader;
    bootloader.receive(packet(BootloaderCommand::SendData, QByteArray(64, '\x11')));
    QCOMPARE(bootloader.image().size(), 64);
    const QByteArray download = QByteArray::fromHex("0b25210000000000000400");
    QCOMPARE(packet(BootloaderCommand::Download, QByteArray::fromHex("0000000000000400")),
             download);
    const auto result = bootloader.receive(download);
    QCOMPARE(result.answer, QByteArray::fromHex("cc"));
    QVERIFY(result.imageChanged);
    QCOMPARE(bootloader.downloadAddress(), 0u);
    QCOMPARE(bootloader.downloadSize(), 0x400u);
    QCOMPARE(bootloader.image(), QByteArray());
    QCOMPARE(bootloader.imageCrc32(), QString());
}

void TestSoftwareBootloader::sendDataAppendsItsBlockToTheImage()
{
    SoftwareBootloader bootloader;
    QByteArray block;
    for (int i = 0; i < 64; ++i) {
        block.append(static_cast<char>(i));
    }
    const auto result = bootloader.receive(packet(BootloaderCommand::SendData, block));
    QCOMPARE(result.answer, QByteArray::fromHex("cc"));
    QVERIFY(result.imageChanged);
    bootloader.receive(packet(BootloaderCommand::SendData, QByteArray(64, '\xff')));
    QCOMPARE(bootloader.image(), block + QByteArray(64, '\xff'));
    QCOMPARE(bootloader.imageCrc32(),
             QStringLiteral("%1").arg(SoftwareBootloader::crc32(block + QByteArray(64, '\xff')), 8,
                                      16, QLatin1Char('0')));
}

void TestSoftwareBootloader::getStatusIsAcknowledgedAndAnsweredWithTheFlashStatus()
{
    SoftwareBootloader bootloader;
    QCOMPARE(bootloader.receive(QByteArray::fromHex("032323")).answer,
             QByteArray::fromHex("cc034040"));
    bootloader.setFlashStatus(BootloaderCommand::FlashFailure);
    QCOMPARE(bootloader.receive(QByteArray::fromHex("032323")).answer,
             QByteArray::fromHex("cc034444"));
}

void TestSoftwareBootloader::unknownCommandIsAcknowledgedAndRefusedInTheNextStatus()
{
    SoftwareBootloader bootloader;
    QCOMPARE(bootloader.receive(QByteArray::fromHex("033030")).answer, QByteArray::fromHex("cc"));
    QCOMPARE(bootloader.receive(QByteArray::fromHex("032323")).answer,
             QByteArray::fromHex("cc034242"));
    QCOMPARE(bootloader.receive(QByteArray::fromHex("032323")).answer,
             QByteArray::fromHex("cc034040"));
}

void TestSoftwareBootloader::badChecksumIsAnsweredWithANakAndNotExecuted()
{
    SoftwareBootloader bootloader;
    QByteArray broken = packet(BootloaderCommand::SendData, QByteArray(64, '\x01'));
    broken[1] = static_cast<char>(broken[1] + 1);
    const auto result = bootloader.receive(broken);
    QCOMPARE(result.answer, QByteArray::fromHex("33"));
    QVERIFY(!result.imageChanged);
    QCOMPARE(bootloader.image(), QByteArray());
}

void TestSoftwareBootloader::nakCountRefusesTheNextPacketsThenAcknowledges()
{
    SoftwareBootloader bootloader;
    bootloader.setNakCount(2);
    auto result = bootloader.receive(QByteArray::fromHex("032020"));
    QCOMPARE(result.answer, QByteArray::fromHex("33"));
    QVERIFY(result.nakCountChanged);
    QCOMPARE(bootloader.nakCount(), 1);
    // AutoBaud is not a counted packet.
    QCOMPARE(bootloader.receive(QByteArray::fromHex("5555")).answer, QByteArray::fromHex("cc"));
    QCOMPARE(bootloader.nakCount(), 1);
    result = bootloader.receive(packet(BootloaderCommand::SendData, QByteArray(64, '\x02')));
    QCOMPARE(result.answer, QByteArray::fromHex("33"));
    QCOMPARE(bootloader.image(), QByteArray());
    QCOMPARE(bootloader.nakCount(), 0);
    result = bootloader.receive(QByteArray::fromHex("032020"));
    QCOMPARE(result.answer, QByteArray::fromHex("cc"));
    QVERIFY(!result.nakCountChanged);
    bootloader.setNakCount(-3);
    QCOMPARE(bootloader.nakCount(), 0);
}

void TestSoftwareBootloader::resetIsAcknowledgedAndLeavesTheBootloader()
{
    SoftwareBootloader bootloader;
    bootloader.receive(QByteArray::fromHex("5555"));
    const auto result =
        bootloader.receive(QByteArray::fromHex("032525") + QByteArray::fromHex("032020"));
    // What follows the Reset is the application's, not answered here.
    QCOMPARE(result.answer, QByteArray::fromHex("cc"));
    QVERIFY(result.left);
    QVERIFY(!bootloader.isUpdating());
    QCOMPARE(bootloader.receive(QByteArray::fromHex("032020")).answer, QByteArray::fromHex("cc"));
}

void TestSoftwareBootloader::splitPacketWaitsForItsRest()
{
    SoftwareBootloader bootloader;
    const QByteArray whole = packet(BootloaderCommand::SendData, QByteArray(64, '\x05'));
    for (int split = 1; split < whole.size(); ++split) {
        SoftwareBootloader fresh;
        QCOMPARE(fresh.receive(whole.left(split)).answer, QByteArray());
        QCOMPARE(fresh.receive(whole.mid(split)).answer, QByteArray::fromHex("cc"));
        QCOMPARE(fresh.image(), QByteArray(64, '\x05'));
    }
    QCOMPARE(bootloader.receive(QByteArray::fromHex("55")).answer, QByteArray());
    QCOMPARE(bootloader.receive(QByteArray::fromHex("55")).answer, QByteArray::fromHex("cc"));
}

void TestSoftwareBootloader::thePluginsOwnAnswersAndPaddingAreTakenSilently()
{
    SoftwareBootloader bootloader;
    QCOMPARE(bootloader.receive(QByteArray::fromHex("cc0033cc00")).answer, QByteArray());
    QCOMPARE(bootloader.receive(QByteArray::fromHex("cc032020")).answer, QByteArray::fromHex("cc"));
}

void TestSoftwareBootloader::noiseIsSkippedByteByByte()
{
    SoftwareBootloader bootloader;
    // 0x01 and 0x02 are no size, 0x70 is too large: skipped, then the Ping is found.
    QCOMPARE(bootloader.receive(QByteArray::fromHex("010270032020")).answer,
             QByteArray::fromHex("cc"));
    // A huge chunk of noise is consumed whole.
    QCOMPARE(bootloader.receive(QByteArray(100000, '\x01')).answer, QByteArray());
    QCOMPARE(bootloader.receive(QByteArray::fromHex("032020")).answer, QByteArray::fromHex("cc"));
}

void TestSoftwareBootloader::crc32IsTheZlibPolynomial()
{
    QCOMPARE(SoftwareBootloader::crc32(QByteArray("123456789")), 0xCBF43926u);
    QCOMPARE(SoftwareBootloader::crc32(QByteArray()), 0u);
}

// After a power cycle the bootloader has not found the line's baud rate: packets, a lone
// 0x55 and noise go unanswered and unexecuted; the AutoBaud is acknowledged, and from then
// on it answers as before. The image it kept stays.
void TestSoftwareBootloader::justBootedItHearsNothingBeforeAnAutoBaud()
{
    SoftwareBootloader bootloader;
    bootloader.receive(packet(BootloaderCommand::SendData, QByteArray(64, '\x22')));
    bootloader.awaitAutoBaud();
    QVERIFY(bootloader.isAwaitingAutoBaud());
    const auto before =
        bootloader.receive(packet(BootloaderCommand::SendData, QByteArray(64, '\x33')) +
                           QByteArray::fromHex("032020") + QByteArray::fromHex("0355") +
                           packet(BootloaderCommand::Reset));
    QCOMPARE(before.answer, QByteArray());
    QVERIFY(!before.left);
    QCOMPARE(bootloader.image(), QByteArray(64, '\x22'));
    QVERIFY(bootloader.isAwaitingAutoBaud());
    // A split AutoBaud is found too.
    QCOMPARE(bootloader.receive(QByteArray::fromHex("0055")).answer, QByteArray());
    QCOMPARE(bootloader.receive(QByteArray::fromHex("55032020")).answer,
             QByteArray::fromHex("cccc"));
    QVERIFY(!bootloader.isAwaitingAutoBaud());
    QVERIFY(bootloader.isUpdating());
}

QTEST_GUILESS_MAIN(TestSoftwareBootloader)

#include "tst_softwarebootloader.moc"
