#include <QtTest>

#include "softwarecontroltest.h"

namespace {

// A headphone pot wired as a QML page wires it: on a section's link at index 0.
struct HeadphonePot : Rig
{
    explicit HeadphonePot(int section, bool active = true)
    {
        pot.setType(PotBinding::Headphone);
        attach(pot, *this, section, 0, active);
    }
    // The pot stands at `position`, and what it sent to get there is forgotten.
    void settleAt(int position)
    {
        pot.setPosition(position);
        clearReceivers();
    }
    PotControl pot;
};

}  // namespace

class TestPotControl : public QObject
{
    Q_OBJECT

private slots:
    // Device ids.
    void potDeviceIdFollowsTypeOnly_data();
    void potDeviceIdFollowsTypeOnly();

    // Pot.
    void potPositionOf600IsStoredAndSentAs511();
    void potPositionEqualToTheStoredOneDoesNothing();
    void potComparesBeforeClamping();
    void potClampsNegativePositionsToZero();
    void potAnswersTheValueRequestAndLeavesItToOthers();
    void inactivePotNeitherAnswersNorReports();
    void potShowsTheHeadphoneLightColour();
    void potWithoutTypeReportsFromDevice255();
};

// ---------------------------------------------------------------------------------------
// Device ids.

void TestPotControl::potDeviceIdFollowsTypeOnly_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("deviceId");
    for (int index : kIndices) {
        QTest::addRow("None index %d", index) << 0 << index << 255;
        QTest::addRow("Headphone index %d", index) << 1 << index << 0;
    }
}

void TestPotControl::potDeviceIdFollowsTypeOnly()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, deviceId);
    Rig rig;
    PotControl pot;
    pot.setType(static_cast<PotBinding::PotType>(type));
    attach(pot, rig, 2, index);

    QCOMPARE(int(pot.deviceId()), deviceId);
    pot.setPosition(2);
    QCOMPARE(rig.receiver[2].chunks(),
             QList<QByteArray>{SerialFrames::frame(MessageType::PotValue,
                                                   static_cast<uint8_t>(deviceId), bytes({0, 2}))});
}

// ---------------------------------------------------------------------------------------
// Pot.

void TestPotControl::potPositionOf600IsStoredAndSentAs511()
{
    HeadphonePot rig(1);
    PotControl& pot = rig.pot;
    QSignalSpy position(&pot, &PotControl::positionChanged);

    pot.setPosition(600);

    QCOMPARE(pot.position(), 511);
    QCOMPARE(position.count(), 1);
    // Variable-length type 17 from device 0, payload 01 FF.
    QCOMPARE(rig.receiver[1].chunks(), QList<QByteArray>{QByteArray::fromHex("05110001ff16")});
}

void TestPotControl::potPositionEqualToTheStoredOneDoesNothing()
{
    HeadphonePot rig(1);
    PotControl& pot = rig.pot;
    rig.settleAt(100);
    QSignalSpy position(&pot, &PotControl::positionChanged);

    pot.setPosition(100);

    QCOMPARE(position.count(), 0);
    QCOMPARE(rig.receiver[1].count(), 0);
}

void TestPotControl::potComparesBeforeClamping()
{
    HeadphonePot rig(1);
    PotControl& pot = rig.pot;
    rig.settleAt(600);
    QSignalSpy position(&pot, &PotControl::positionChanged);

    // 600 differs from the stored 511, so it goes through again as 511.
    pot.setPosition(600);
    QCOMPARE(pot.position(), 511);
    QCOMPARE(position.count(), 1);
    QCOMPARE(rig.receiver[1].chunks(), QList<QByteArray>{QByteArray::fromHex("05110001ff16")});

    // 511 itself is the stored value: nothing.
    pot.setPosition(511);
    QCOMPARE(position.count(), 1);
    QCOMPARE(rig.receiver[1].count(), 1);
}

void TestPotControl::potClampsNegativePositionsToZero()
{
    HeadphonePot rig(0);
    PotControl& pot = rig.pot;
    rig.settleAt(5);

    pot.setPosition(-20);

    QCOMPARE(pot.position(), 0);
    QCOMPARE(rig.receiver[0].chunks(), QList<QByteArray>{QByteArray::fromHex("051100000016")});
}

void TestPotControl::potAnswersTheValueRequestAndLeavesItToOthers()
{
    Rig rig;
    PotControl pot;
    pot.setType(PotBinding::Headphone);
    pot.setPosition(300);  // not yet connected: nothing sent
    attach(pot, rig, 2, 0);
    FakeSoftwareHandler after;
    rig.controller->addSoftwareHandler(&after);

    QVERIFY(!pot.handleSoftwareMessage(2, message(MessageType::PotValue, 0)));
    QCOMPARE(rig.receiver[2].chunks(), QList<QByteArray>{QByteArray::fromHex("051100012c43")});

    // Any device: the request is answered, and still offered on.
    rig.clearReceivers();
    rig.fromPlugin(2, message(MessageType::PotValue, 7));
    QCOMPARE(rig.receiver[2].chunks(), QList<QByteArray>{QByteArray::fromHex("051100012c43")});
    QCOMPARE(after.offerCount(), 1);
    QCOMPARE(after.offers()[0].message.type, uint8_t(MessageType::PotValue));
    rig.controller->removeSoftwareHandler(&after);
}

void TestPotControl::inactivePotNeitherAnswersNorReports()
{
    HeadphonePot rig(2, false);
    PotControl& pot = rig.pot;

    pot.setPosition(10);
    rig.fromPlugin(2, message(MessageType::PotValue, 0));

    QCOMPARE(pot.position(), 10);
    QCOMPARE(rig.receiver[2].count(), 0);
}

void TestPotControl::potShowsTheHeadphoneLightColour()
{
    HeadphonePot rig(2);
    PotControl& pot = rig.pot;
    QSignalSpy color(&pot, &PotControl::colorChanged);

    QVERIFY(!pot.handleSoftwareMessage(2, message(MessageType::RgbColor, 0, {1, 1, 1, 0})));
    QVERIFY(!pot.handleSoftwareMessage(2, message(MessageType::RgbColor, 17, {1, 1, 1, 0})));
    QCOMPARE(color.count(), 0);
    QVERIFY(pot.handleSoftwareMessage(2, message(MessageType::RgbColor, 18, {0, 128, 255, 0})));

    QCOMPARE(pot.color(), QColor(0, 128, 255));
    QCOMPARE(pot.color().alpha(), 255);
    QCOMPARE(color.count(), 1);
}

void TestPotControl::potWithoutTypeReportsFromDevice255()
{
    Rig rig;
    PotControl pot;
    attach(pot, rig, 0, 0);

    pot.setPosition(1);

    QCOMPARE(rig.receiver[0].chunks(), QList<QByteArray>{QByteArray::fromHex("0511ff000116")});
}

QTEST_GUILESS_MAIN(TestPotControl)
#include "tst_potcontrol.moc"
