#include <QtTest>

#include "softwarecontroltest.h"

class TestFaderControl : public QObject
{
    Q_OBJECT

private slots:
    // Device ids.
    void faderDeviceIdFollowsTypeAndIndex_data();
    void faderDeviceIdFollowsTypeAndIndex();

    // Fader.
    void faderTakesThePositionBigEndian();
    void faderKeepsItsValueOnAShortPosition();
    void faderTakesBackstopAndDetentWithoutEffect();
    void faderTakesTouchFromThePluginWithoutReportingIt();
    void faderReportsEveryTouchWrite();
    void inactiveFaderDoesNotReportTouches();
    void faderOfIndex12HasNoDeviceAndTakesOnlyDevice255();
    void faderMoveByHandStoresAndReportsThePosition();
    void faderMoveByHandClampsTo0Through511();
    void inactiveFaderMoveByHandStoresButDoesNotReport();
    void faderDeactivationResetsTheValueToZero();
};

// ---------------------------------------------------------------------------------------
// Device ids.

void TestFaderControl::faderDeviceIdFollowsTypeAndIndex_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("deviceId");
    for (int type = 0; type <= 2; ++type) {
        for (int index : kIndices) {
            QTest::addRow("type %d index %d", type, index)
                << type << index << expectedFaderId(type, index);
        }
    }
}

void TestFaderControl::faderDeviceIdFollowsTypeAndIndex()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, deviceId);
    Rig rig;
    FaderControl fader;
    fader.setType(static_cast<FaderBinding::FaderType>(type));
    attach(fader, rig, 2, index);

    QCOMPARE(int(fader.deviceId()), deviceId);
    QVERIFY(fader.handleSoftwareMessage(
        2, message(MessageType::FaderPosition, static_cast<uint8_t>(deviceId), {1, 2})));
    QCOMPARE(fader.value(), 258);
    QVERIFY(!fader.handleSoftwareMessage(
        2, message(MessageType::FaderPosition, static_cast<uint8_t>(deviceId + 1), {0, 1})));
    fader.setTouched(true);
    QCOMPARE(rig.receiver[2].chunks(),
             QList<QByteArray>{SerialFrames::frame(MessageType::FaderTouch,
                                                   static_cast<uint8_t>(deviceId), bytes({1}))});
}

// ---------------------------------------------------------------------------------------
// Fader.

void TestFaderControl::faderTakesThePositionBigEndian()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 1, 4);
    QSignalSpy value(&fader, &FaderControl::valueChanged);

    rig.fromPlugin(1, message(MessageType::FaderPosition, 4, {0x01, 0x2C}));
    QCOMPARE(fader.value(), 300);
    QCOMPARE(value.count(), 1);

    rig.fromPlugin(1, message(MessageType::FaderPosition, 4, {0x01, 0x2C}));
    QCOMPARE(value.count(), 1);  // the same position announces nothing
    QVERIFY(rig.receiver[1].chunks().isEmpty());
}

void TestFaderControl::faderKeepsItsValueOnAShortPosition()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::MasterFader);
    attach(fader, rig, 2, 0);
    rig.fromPlugin(2, message(MessageType::FaderPosition, 10, {0x00, 0x80}));
    QSignalSpy value(&fader, &FaderControl::valueChanged);

    QVERIFY(fader.handleSoftwareMessage(2, message(MessageType::FaderPosition, 10, {0x01})));
    QVERIFY(fader.handleSoftwareMessage(2, message(MessageType::FaderPosition, 10)));

    QCOMPARE(fader.value(), 128);
    QCOMPARE(value.count(), 0);
}

void TestFaderControl::faderTakesBackstopAndDetentWithoutEffect()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 0, 9);
    QSignalSpy value(&fader, &FaderControl::valueChanged);
    QSignalSpy touched(&fader, &FaderControl::touchedChanged);

    QVERIFY(fader.handleSoftwareMessage(0, message(MessageType::FaderBackstop, 9, {0x01, 0x00})));
    QVERIFY(fader.handleSoftwareMessage(0, message(MessageType::FaderDetent, 9, {0x01, 0x40})));
    QVERIFY(!fader.handleSoftwareMessage(0, message(MessageType::FaderDriveMode, 9, {1})));
    QVERIFY(!fader.handleSoftwareMessage(0, message(MessageType::Led, 9, {1, 0})));

    QCOMPARE(fader.value(), 0);
    QCOMPARE(value.count(), 0);
    QCOMPARE(touched.count(), 0);
}

void TestFaderControl::faderTakesTouchFromThePluginWithoutReportingIt()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 0, 1);
    QSignalSpy touched(&fader, &FaderControl::touchedChanged);

    QVERIFY(fader.handleSoftwareMessage(0, message(MessageType::FaderTouch, 1, {1})));
    QVERIFY(fader.handleSoftwareMessage(0, message(MessageType::FaderTouch, 1, {7})));
    QCOMPARE(fader.touched(), true);
    QCOMPARE(touched.count(), 1);
    QVERIFY(fader.handleSoftwareMessage(0, message(MessageType::FaderTouch, 1, {0})));
    QCOMPARE(fader.touched(), false);
    QCOMPARE(touched.count(), 2);
    QCOMPARE(rig.receiver[0].count(), 0);
}

void TestFaderControl::faderReportsEveryTouchWrite()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 1, 2);
    QSignalSpy touched(&fader, &FaderControl::touchedChanged);

    fader.setTouched(true);
    fader.setTouched(true);
    fader.setTouched(false);

    QCOMPARE(touched.count(), 2);
    const QByteArray on = QByteArray::fromHex(
        "04100201"
        "17");
    const QByteArray off = QByteArray::fromHex(
        "04100200"
        "16");
    QCOMPARE(rig.receiver[1].chunks(), (QList<QByteArray>{on, on, off}));
}

void TestFaderControl::inactiveFaderDoesNotReportTouches()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 1, 2, false);

    fader.setTouched(true);

    QCOMPARE(fader.touched(), true);
    QCOMPARE(rig.receiver[1].count(), 0);
}

void TestFaderControl::faderOfIndex12HasNoDeviceAndTakesOnlyDevice255()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 0, 12);
    QCOMPARE(int(fader.deviceId()), 255);

    const uint8_t types[] = {MessageType::FaderPosition, MessageType::FaderBackstop,
                             MessageType::FaderDetent, MessageType::FaderTouch};
    for (uint8_t type : types) {
        for (int device = 0; device < 255; ++device) {
            QVERIFY(!fader.handleSoftwareMessage(
                0, message(type, static_cast<uint8_t>(device), {0x01, 0x01})));
        }
    }
    QCOMPARE(fader.value(), 0);
    QCOMPARE(fader.touched(), false);

    QVERIFY(fader.handleSoftwareMessage(0, message(MessageType::FaderPosition, 255, {0x00, 0x09})));
    QCOMPARE(fader.value(), 9);
}

void TestFaderControl::faderMoveByHandStoresAndReportsThePosition()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 2, 4);
    QSignalSpy value(&fader, &FaderControl::valueChanged);

    fader.moveByHand(300);
    fader.moveByHand(300);

    QCOMPARE(fader.value(), 300);
    QCOMPARE(value.count(), 1);
    // Reported like a section's hand move, every time.
    const QByteArray frame = QByteArray::fromHex("050704012c3d");
    QCOMPARE(rig.receiver[2].chunks(), (QList<QByteArray>{frame, frame}));
}

void TestFaderControl::faderMoveByHandClampsTo0Through511()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::MasterFader);
    attach(fader, rig, 0, 0);

    fader.moveByHand(600);
    QCOMPARE(fader.value(), 511);
    fader.moveByHand(-5);
    QCOMPARE(fader.value(), 0);

    QCOMPARE(rig.receiver[0].chunks(), (QList<QByteArray>{QByteArray::fromHex("05070a01ff16"),
                                                          QByteArray::fromHex("05070a000016")}));
}

void TestFaderControl::inactiveFaderMoveByHandStoresButDoesNotReport()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 0, 0, false);
    QSignalSpy value(&fader, &FaderControl::valueChanged);

    fader.moveByHand(42);

    QCOMPARE(fader.value(), 42);
    QCOMPARE(value.count(), 1);
    QCOMPARE(rig.receiver[0].count(), 0);
}

void TestFaderControl::faderDeactivationResetsTheValueToZero()
{
    Rig rig;
    FaderControl fader;
    fader.setType(FaderBinding::Fader);
    attach(fader, rig, 0, 3);
    rig.fromPlugin(0, message(MessageType::FaderPosition, 3, {0x01, 0x00}));
    QCOMPARE(fader.value(), 256);
    QSignalSpy value(&fader, &FaderControl::valueChanged);

    fader.setActive(false);

    QCOMPARE(fader.value(), 0);
    QCOMPARE(value.count(), 1);
    fader.setActive(true);  // the last position comes back
    QCOMPARE(fader.value(), 256);
    QCOMPARE(value.count(), 2);
}

QTEST_GUILESS_MAIN(TestFaderControl)
#include "tst_fadercontrol.moc"
