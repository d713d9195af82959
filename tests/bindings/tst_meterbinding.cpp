#include <QMetaEnum>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <limits>
#include <memory>

#include "bindings/meterbinding.h"
#include "support/bindingtestrig.h"
#include "support/metaobjectlisting.h"

namespace {

constexpr uint8_t kLevel = 13;
constexpr uint8_t kPeak = 14;
// The master section of the two-section console, where the meters are.
constexpr uint8_t kMaster = 1;

QString levelFrame(uint8_t device, const char* payloadHex)
{
    return BindingTestRig::frame(kMaster, kLevel, device, payloadHex);
}

QString peakFrame(uint8_t device, const char* payloadHex)
{
    return BindingTestRig::frame(kMaster, kPeak, device, payloadHex);
}

std::unique_ptr<MeterBinding> makeBinding(BindingTestRig& rig, MeterBinding::MeterType type,
                                          int section = kMaster, int index = 0, bool active = true)
{
    return makeWiredBinding<MeterBinding>(rig, type, section, index, active);
}

}  // namespace

class TestMeterBinding : public QObject
{
    Q_OBJECT

private slots:
    void metaObjectListsSignalsAndPropertiesInOrder();
    void meterTypeEnumHasTheQmlKeys();

    void freshBindingReports135ForBoth();
    void writing135ToAFreshBindingEmitsNothing();
    void level100ReadsBack135();
    void level200ReadsBack200();
    void level300ReadsBack135();
    void valuesAreCutTo8BitsThenRaisedTo135_data();
    void valuesAreCutTo8BitsThenRaisedTo135();

    void typeNamesTheMeter_data();
    void typeNamesTheMeter();
    void typeWriteLooksUpAtOnceEvenBeforeComplete();
    void bindingSendsLevelThenPeak();
    void levelAndPeakReachTheLine();

    void rebindingToTheSameMeterKeepsIt();
    void indexPlaysNoPart();
    void typeChangeMovesToTheOtherMeter();
    void sectionIndexChangeLetsTheMeterGo();
    void anotherBindingTakesTheMeterOver();
    void deactivatingLetsTheMeterGo();
    void inactiveWithoutSurfaceKeepsTheHandle();
    void destructorLetsTheMeterGo();
};

void TestMeterBinding::metaObjectListsSignalsAndPropertiesInOrder()
{
    const QMetaObject& meta = MeterBinding::staticMetaObject;
    QCOMPARE(meta.superClass(), &BindingBase::staticMetaObject);
    QCOMPARE(methodSignatures(meta, QMetaMethod::Signal),
             QStringList({"typeChanged()", "levelChanged()", "peakChanged()"}));
    QCOMPARE(methodSignatures(meta, QMetaMethod::Slot), QStringList());
    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QMetaProperty property = meta.property(i);
        properties << QStringLiteral("%1:%2").arg(
            QString::fromLatin1(property.name()),
            QString::fromLatin1(property.notifySignal().name()));
    }
    QCOMPARE(properties,
             QStringList({"type:typeChanged", "level:levelChanged", "peak:peakChanged"}));
    QCOMPARE(meta.property(meta.indexOfProperty("level")).type(), QVariant::Int);
}

void TestMeterBinding::meterTypeEnumHasTheQmlKeys()
{
    const QMetaObject& meta = MeterBinding::staticMetaObject;
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 1);
    const QMetaEnum types = meta.enumerator(meta.indexOfEnumerator("MeterType"));
    QVERIFY(types.isValid());
    QStringList keys;
    for (int i = 0; i < types.keyCount(); ++i) {
        keys << QStringLiteral("%1=%2").arg(QString::fromLatin1(types.key(i))).arg(types.value(i));
    }
    QCOMPARE(keys, QStringList({"None=0", "MasterLeft=1", "MasterRight=2"}));
}

void TestMeterBinding::freshBindingReports135ForBoth()
{
    MeterBinding binding;
    QCOMPARE(binding.level(), 135);
    QCOMPARE(binding.peak(), 135);
    QCOMPARE(binding.type(), MeterBinding::None);
}

void TestMeterBinding::writing135ToAFreshBindingEmitsNothing()
{
    MeterBinding binding;
    QSignalSpy levelSpy(&binding, &MeterBinding::levelChanged);
    QSignalSpy peakSpy(&binding, &MeterBinding::peakChanged);
    binding.setLevel(135);
    binding.setPeak(135);
    QCOMPARE(levelSpy.count(), 0);
    QCOMPARE(peakSpy.count(), 0);
}

void TestMeterBinding::level100ReadsBack135()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, MeterBinding::MasterLeft);
    binding->setLevel(200);
    rig.takeFrames();
    QSignalSpy spy(binding.get(), &MeterBinding::levelChanged);
    binding->setLevel(100);
    QCOMPARE(binding->level(), 135);
    QCOMPARE(spy.count(), 1);
    // 135 is the bottom of the scale: byte 0.
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "00")}));

    // On a fresh binding 100 is no change at all.
    MeterBinding fresh;
    QSignalSpy freshSpy(&fresh, &MeterBinding::levelChanged);
    fresh.setLevel(100);
    QCOMPARE(fresh.level(), 135);
    QCOMPARE(freshSpy.count(), 0);
}

void TestMeterBinding::level200ReadsBack200()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, MeterBinding::MasterLeft);
    QSignalSpy spy(binding.get(), &MeterBinding::levelChanged);
    binding->setLevel(200);
    QCOMPARE(binding->level(), 200);
    QCOMPARE(spy.count(), 1);
    // (200 - 135) x 0.2 = 13
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "0d")}));
}

void TestMeterBinding::level300ReadsBack135()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, MeterBinding::MasterLeft);
    binding->setLevel(255);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "18")}));
    QSignalSpy spy(binding.get(), &MeterBinding::levelChanged);
    // 300 cut to 8 bits is 44, below the floor.
    binding->setLevel(300);
    QCOMPARE(binding->level(), 135);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "00")}));
}

void TestMeterBinding::valuesAreCutTo8BitsThenRaisedTo135_data()
{
    QTest::addColumn<int>("written");
    QTest::addColumn<int>("stored");

    QTest::newRow("0") << 0 << 135;
    QTest::newRow("134") << 134 << 135;
    QTest::newRow("135") << 135 << 135;
    QTest::newRow("136") << 136 << 136;
    QTest::newRow("255") << 255 << 255;
    QTest::newRow("256") << 256 << 135;
    QTest::newRow("391") << 391 << 135;
    QTest::newRow("392") << 392 << 136;
    QTest::newRow("456") << 456 << 200;
    QTest::newRow("-1") << -1 << 255;
    QTest::newRow("-56") << -56 << 200;
    QTest::newRow("-200") << -200 << 135;
    QTest::newRow("int max") << std::numeric_limits<int>::max() << 255;
    QTest::newRow("int min") << std::numeric_limits<int>::min() << 135;
}

void TestMeterBinding::valuesAreCutTo8BitsThenRaisedTo135()
{
    QFETCH(int, written);
    QFETCH(int, stored);
    MeterBinding binding;
    binding.setLevel(written);
    binding.setPeak(written);
    QCOMPARE(binding.level(), stored);
    QCOMPARE(binding.peak(), stored);
}

void TestMeterBinding::typeNamesTheMeter_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("section");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("device");

    QTest::newRow("left") << int(MeterBinding::MasterLeft) << 1 << 0 << 0;
    QTest::newRow("right") << int(MeterBinding::MasterRight) << 1 << 0 << 1;
    QTest::newRow("right, index ignored") << int(MeterBinding::MasterRight) << 1 << 9 << 1;
    QTest::newRow("strip section") << int(MeterBinding::MasterLeft) << 0 << 0 << -1;
    QTest::newRow("no such section") << int(MeterBinding::MasterLeft) << 2 << 0 << -1;
    QTest::newRow("none") << int(MeterBinding::None) << 1 << 0 << -1;
    QTest::newRow("out of the enumeration") << 3 << 1 << 0 << -1;
}

void TestMeterBinding::typeNamesTheMeter()
{
    QFETCH(int, type);
    QFETCH(int, section);
    QFETCH(int, index);
    QFETCH(int, device);

    BindingTestRig rig;
    auto binding = makeBinding(rig, static_cast<MeterBinding::MeterType>(type), section, index);
    binding->setLevel(140);
    const QStringList frames = rig.takeFrames();
    if (device < 0) {
        QCOMPARE(frames, QStringList());
    } else {
        QCOMPARE(frames, QStringList({BindingTestRig::frame(static_cast<uint8_t>(section), kLevel,
                                                            static_cast<uint8_t>(device), "01")}));
    }
}

void TestMeterBinding::typeWriteLooksUpAtOnceEvenBeforeComplete()
{
    BindingTestRig rig;
    MeterBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setSectionIndex(kMaster);
    binding.setActive(true);
    binding.setLevel(255);
    QCOMPARE(rig.takeFrames(), QStringList());
    binding.setType(MeterBinding::MasterRight);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(1, "18")}));
}

void TestMeterBinding::bindingSendsLevelThenPeak()
{
    BindingTestRig rig;
    MeterBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setType(MeterBinding::MasterLeft);
    binding.setSectionIndex(kMaster);
    binding.setLevel(200);
    binding.setPeak(255);
    binding.setActive(true);
    QCOMPARE(rig.takeFrames(), QStringList());
    binding.componentComplete();
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "0d"), peakFrame(0, "18")}));
}

void TestMeterBinding::levelAndPeakReachTheLine()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, MeterBinding::MasterRight);
    QCOMPARE(rig.takeFrames(), QStringList());
    binding->setPeak(160);
    QCOMPARE(rig.takeFrames(), QStringList({peakFrame(1, "05")}));
    binding->setLevel(145);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(1, "02")}));
}

void TestMeterBinding::rebindingToTheSameMeterKeepsIt()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, MeterBinding::MasterLeft);
    binding->setConnection(&rig.connection);
    binding->setLevel(255);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "18")}));
}

void TestMeterBinding::indexPlaysNoPart()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, MeterBinding::MasterLeft);
    binding->setIndex(5);
    binding->setLevel(255);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "18")}));
}

void TestMeterBinding::typeChangeMovesToTheOtherMeter()
{
    BindingTestRig rig;
    auto left = makeBinding(rig, MeterBinding::MasterLeft);
    left->setLevel(255);
    left->setPeak(200);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "18"), peakFrame(0, "0d")}));
    left->setType(MeterBinding::MasterRight);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(1, "18"), peakFrame(1, "0d")}));
    // The left meter is no longer driven.
    left->setLevel(140);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(1, "01")}));
}

void TestMeterBinding::sectionIndexChangeLetsTheMeterGo()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, MeterBinding::MasterLeft);
    binding->setSectionIndex(0);
    binding->setLevel(255);
    QCOMPARE(rig.takeFrames(), QStringList());
    binding->setSectionIndex(kMaster);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "18")}));
}

void TestMeterBinding::anotherBindingTakesTheMeterOver()
{
    BindingTestRig rig;
    auto first = makeBinding(rig, MeterBinding::MasterLeft);
    auto second = makeBinding(rig, MeterBinding::MasterLeft);
    first->setLevel(255);
    QCOMPARE(rig.takeFrames(), QStringList());
    second->setLevel(200);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "0d")}));
}

void TestMeterBinding::deactivatingLetsTheMeterGo()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, MeterBinding::MasterLeft);
    QSignalSpy activeSpy(binding.get(), &BindingBase::activeChanged);
    binding->setActive(false);
    QCOMPARE(activeSpy.count(), 1);
    binding->setLevel(255);
    QCOMPARE(rig.takeFrames(), QStringList());
    binding->setActive(true);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "18")}));
}

void TestMeterBinding::inactiveWithoutSurfaceKeepsTheHandle()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, MeterBinding::MasterLeft);
    binding->setConnection(nullptr);
    binding->setActive(false);
    binding->setLevel(255);
    binding->setPeak(140);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "18"), peakFrame(0, "01")}));
}

void TestMeterBinding::destructorLetsTheMeterGo()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, MeterBinding::MasterLeft);
    binding->setLevel(255);
    rig.takeFrames();
    QSignalSpy activeSpy(binding.get(), &BindingBase::activeChanged);
    binding.reset();
    QCOMPARE(activeSpy.count(), 1);
    // A meter is not cleared when it is given up.
    QCOMPARE(rig.takeFrames(), QStringList());
    // It is free for the next binding, whose values it shows.
    auto next = makeBinding(rig, MeterBinding::MasterLeft);
    QCOMPARE(rig.takeFrames(), QStringList({levelFrame(0, "00")}));
}

QTEST_GUILESS_MAIN(TestMeterBinding)
#include "tst_meterbinding.moc"
