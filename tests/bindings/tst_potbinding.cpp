#include <QCoreApplication>
#include <QMetaEnum>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <memory>

#include "bindings/potbinding.h"
#include "software/qmlcontrollerconnection.h"
#include "support/bindingtestrig.h"
#include "support/metaobjectlisting.h"

namespace {

constexpr uint8_t kColour = 12;
constexpr uint8_t kPotValue = 17;
// The pot and its light live in the master section of the two-section console.
constexpr uint8_t kMaster = 1;
constexpr uint8_t kPotLight = 18;

QString lightFrame(const char* payloadHex)
{
    return BindingTestRig::frame(kMaster, kColour, kPotLight, payloadHex);
}

// The section reports the pot's position, as the section's firmware does: a two-byte value
// in a variable-length frame.
void movePot(BindingTestRig& rig, quint16 position)
{
    rig.fixture.controller().sendToPlugin(
        kMaster,
        Velmora::Worksurface::SerialMessage(
            kPotValue, 0,
            {static_cast<uint8_t>(position >> 8), static_cast<uint8_t>(position & 0xFF)}, true));
    QCoreApplication::sendPostedEvents();
}

std::unique_ptr<PotBinding> makeBinding(BindingTestRig& rig, PotBinding::PotType type,
                                        int section = kMaster, int index = 0, bool active = true)
{
    return makeWiredBinding<PotBinding>(rig, type, section, index, active);
}

// "value@proportion" for each potTurned.
QStringList turns(const QSignalSpy& spy)
{
    QStringList lines;
    for (const QList<QVariant>& arguments : spy) {
        lines << QStringLiteral("%1@%2")
                     .arg(double(arguments.at(0).toFloat()))
                     .arg(double(arguments.at(1).toFloat()), 0, 'f', 4);
    }
    return lines;
}

QString turn(float value, quint16 position)
{
    return QStringLiteral("%1@%2")
        .arg(double(value))
        .arg(double(float(position / 511.0)), 0, 'f', 4);
}

}  // namespace

class TestPotBinding : public QObject
{
    Q_OBJECT

private slots:
    void metaObjectListsSignalsSlotAndPropertiesInOrder();
    void potTypeEnumHasTheQmlKeys();
    void freshBindingHasItsDefaults();

    void convertForUiFollowsTheSteppedScale_data();
    void convertForUiFollowsTheSteppedScale();
    void onlyWholeStepsAreReported();
    void proportionIsTheRawPositionOverFullTravel();

    void bindingReportsTheCurrentPositionOnce_data();
    void bindingReportsTheCurrentPositionOnce();
    void sectionReportsReachTheView();
    void rebindingToTheSamePotReportsNothingNew();
    void typeWriteLooksUpAtOnceEvenBeforeComplete();
    void typeNamesThePot_data();
    void typeNamesThePot();

    void colourReachesThePotLight();
    void sameColourSendsNothing();
    void deactivatingLetsThePotGoAndBlacksTheLight();
    void destructorBlacksTheLightAfter100Ms();
    void inactiveWithoutSurfaceKeepsTheHandle();
    void negativeAndOutOfRangeIndicesAreIgnored();
    void indexPlaysNoPart();
    void sectionIndexChangeLetsThePotGo();
    void bindsWhenTheSurfaceArrives();
};

void TestPotBinding::metaObjectListsSignalsSlotAndPropertiesInOrder()
{
    const QMetaObject& meta = PotBinding::staticMetaObject;
    QCOMPARE(meta.superClass(), &BindingBase::staticMetaObject);
    QCOMPARE(methodSignatures(meta, QMetaMethod::Signal),
             QStringList({"typeChanged()", "colorChanged()", "potTurned(float,float)"}));
    QCOMPARE(meta.method(meta.indexOfSignal("potTurned(float,float)")).parameterNames(),
             QList<QByteArray>({"value", "proportion"}));
    QCOMPARE(methodSignatures(meta, QMetaMethod::Slot),
             QStringList({"convertPotValueToUiScaleAndInformPotHasBeenTurned(ushort)"}));
    QCOMPARE(meta.method(meta.indexOfSlot("convertPotValueToUiScaleAndInformPotHasBeenTurned("
                                          "ushort)"))
                 .parameterNames(),
             QList<QByteArray>({"new_position"}));
    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QMetaProperty property = meta.property(i);
        properties << QStringLiteral("%1:%2:%3")
                          .arg(QString::fromLatin1(property.name()),
                               propertyTypeName(meta, property),
                               QString::fromLatin1(property.notifySignal().name()));
    }
    QCOMPARE(properties, QStringList({"type:PotType:typeChanged", "color:QColor:colorChanged"}));
}

void TestPotBinding::potTypeEnumHasTheQmlKeys()
{
    const QMetaObject& meta = PotBinding::staticMetaObject;
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 1);
    const QMetaEnum types = meta.enumerator(meta.indexOfEnumerator("PotType"));
    QVERIFY(types.isValid());
    QStringList keys;
    for (int i = 0; i < types.keyCount(); ++i) {
        keys << QStringLiteral("%1=%2").arg(QString::fromLatin1(types.key(i))).arg(types.value(i));
    }
    QCOMPARE(keys, QStringList({"None=0", "Headphone=1"}));
}

void TestPotBinding::freshBindingHasItsDefaults()
{
    PotBinding binding;
    QCOMPARE(binding.type(), PotBinding::None);
    QCOMPARE(binding.color(), QColor(Qt::transparent));
    QCOMPARE(binding.active(), false);
}

void TestPotBinding::convertForUiFollowsTheSteppedScale_data()
{
    QTest::addColumn<int>("position");
    QTest::addColumn<float>("dB");

    // The breakpoints and the points on either side of the whole-dB truncation.
    QTest::newRow("0") << 0 << -150.0f;
    QTest::newRow("1") << 1 << -132.0f;
    QTest::newRow("4") << 4 << -78.0f;
    QTest::newRow("5") << 5 << -60.0f;
    QTest::newRow("6") << 6 << -60.0f;
    QTest::newRow("7") << 7 << -60.0f;
    QTest::newRow("8") << 8 << -59.0f;
    QTest::newRow("30") << 30 << -50.0f;
    QTest::newRow("31") << 31 << -50.0f;
    QTest::newRow("69") << 69 << -41.0f;
    QTest::newRow("70") << 70 << -40.0f;
    QTest::newRow("71") << 71 << -40.0f;
    QTest::newRow("190") << 190 << -20.0f;
    QTest::newRow("191") << 191 << -20.0f;
    QTest::newRow("260") << 260 << -10.0f;
    QTest::newRow("300") << 300 << -7.0f;
    QTest::newRow("320") << 320 << -5.0f;
    QTest::newRow("321") << 321 << -5.0f;
    QTest::newRow("399") << 399 << -1.0f;
    QTest::newRow("400") << 400 << 0.0f;
    QTest::newRow("409") << 409 << 0.0f;
    QTest::newRow("410") << 410 << 1.0f;
    QTest::newRow("450") << 450 << 5.0f;
    QTest::newRow("451") << 451 << 5.0f;
    QTest::newRow("459") << 459 << 6.0f;
    QTest::newRow("460") << 460 << 6.0f;
    QTest::newRow("500") << 500 << 11.0f;
    QTest::newRow("501") << 501 << 11.0f;
    QTest::newRow("511") << 511 << 11.0f;
    QTest::newRow("65535") << 65535 << 11.0f;
}

void TestPotBinding::convertForUiFollowsTheSteppedScale()
{
    QFETCH(int, position);
    QFETCH(float, dB);
    QCOMPARE(PotBinding::convertForUi(static_cast<quint16>(position)), dB);
}

void TestPotBinding::onlyWholeStepsAreReported()
{
    PotBinding binding;
    QSignalSpy spy(&binding, &PotBinding::potTurned);
    // 400 to 409 are all 0 dB, the value a fresh binding starts from.
    binding.convertPotValueToUiScaleAndInformPotHasBeenTurned(400);
    binding.convertPotValueToUiScaleAndInformPotHasBeenTurned(409);
    QCOMPARE(spy.count(), 0);
    binding.convertPotValueToUiScaleAndInformPotHasBeenTurned(410);
    binding.convertPotValueToUiScaleAndInformPotHasBeenTurned(419);
    binding.convertPotValueToUiScaleAndInformPotHasBeenTurned(420);
    binding.convertPotValueToUiScaleAndInformPotHasBeenTurned(399);
    binding.convertPotValueToUiScaleAndInformPotHasBeenTurned(396);
    QCOMPARE(turns(spy), QStringList({turn(1, 410), turn(2, 420), turn(-1, 399)}));
}

void TestPotBinding::proportionIsTheRawPositionOverFullTravel()
{
    PotBinding binding;
    QSignalSpy spy(&binding, &PotBinding::potTurned);
    binding.convertPotValueToUiScaleAndInformPotHasBeenTurned(511);
    binding.convertPotValueToUiScaleAndInformPotHasBeenTurned(0);
    binding.convertPotValueToUiScaleAndInformPotHasBeenTurned(300);
    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(0).at(1).toFloat(), 1.0f);
    QCOMPARE(spy.at(1).at(1).toFloat(), 0.0f);
    QCOMPARE(spy.at(2).at(1).toFloat(), float(300 / 511.0));
    QCOMPARE(spy.at(2).at(0).toFloat(), -7.0f);
}

void TestPotBinding::bindingReportsTheCurrentPositionOnce_data()
{
    QTest::addColumn<int>("position");
    // -1000 for no report.
    QTest::addColumn<float>("reported");

    QTest::newRow("0") << 0 << -150.0f;
    QTest::newRow("300") << 300 << -7.0f;
    QTest::newRow("399") << 399 << -1.0f;
    QTest::newRow("400") << 400 << -1000.0f;
    QTest::newRow("405") << 405 << -1000.0f;
    QTest::newRow("409") << 409 << -1000.0f;
    QTest::newRow("410") << 410 << 1.0f;
    QTest::newRow("511") << 511 << 11.0f;
}

void TestPotBinding::bindingReportsTheCurrentPositionOnce()
{
    QFETCH(int, position);
    QFETCH(float, reported);

    BindingTestRig rig;
    movePot(rig, static_cast<quint16>(position));
    PotBinding binding;
    QSignalSpy spy(&binding, &PotBinding::potTurned);
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setType(PotBinding::Headphone);
    binding.setSectionIndex(kMaster);
    binding.setActive(true);
    QCOMPARE(spy.count(), 0);
    binding.componentComplete();
    if (reported < -999.0f) {
        QCOMPARE(turns(spy), QStringList());
    } else {
        QCOMPARE(turns(spy), QStringList({turn(reported, static_cast<quint16>(position))}));
    }
}

void TestPotBinding::sectionReportsReachTheView()
{
    BindingTestRig rig;
    movePot(rig, 400);
    auto binding = makeBinding(rig, PotBinding::Headphone);
    QSignalSpy spy(binding.get(), &PotBinding::potTurned);
    movePot(rig, 405);
    movePot(rig, 460);
    movePot(rig, 465);
    movePot(rig, 470);
    // Reported above the travel: the pot takes it as 511.
    movePot(rig, 700);
    QCOMPARE(turns(spy), QStringList({turn(6, 460), turn(7, 470), turn(11, 511)}));
}

void TestPotBinding::rebindingToTheSamePotReportsNothingNew()
{
    BindingTestRig rig;
    movePot(rig, 300);
    auto binding = makeBinding(rig, PotBinding::Headphone);
    rig.takeFrames();
    QSignalSpy spy(binding.get(), &PotBinding::potTurned);
    binding->setConnection(&rig.connection);
    QCOMPARE(spy.count(), 0);
    // Still bound: the light gets its colour again, and moves still arrive.
    QCOMPARE(rig.takeFrames(), QStringList({lightFrame("00000000")}));
    movePot(rig, 0);
    QCOMPARE(turns(spy), QStringList({turn(-150, 0)}));
}

void TestPotBinding::typeWriteLooksUpAtOnceEvenBeforeComplete()
{
    BindingTestRig rig;
    movePot(rig, 511);
    PotBinding binding;
    QSignalSpy spy(&binding, &PotBinding::potTurned);
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setSectionIndex(kMaster);
    binding.setActive(true);
    binding.setColor(Qt::green);
    QCOMPARE(spy.count(), 0);
    QCOMPARE(rig.takeFrames(), QStringList());

    QSignalSpy typeSpy(&binding, &PotBinding::typeChanged);
    binding.setType(PotBinding::Headphone);
    QCOMPARE(typeSpy.count(), 1);
    QCOMPARE(turns(spy), QStringList({turn(11, 511)}));
    QCOMPARE(rig.takeFrames(), QStringList({lightFrame("00ff0000")}));
}

void TestPotBinding::typeNamesThePot_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("section");
    QTest::addColumn<int>("index");
    QTest::addColumn<bool>("binds");

    QTest::newRow("headphone") << int(PotBinding::Headphone) << 1 << 0 << true;
    QTest::newRow("headphone, index ignored") << int(PotBinding::Headphone) << 1 << 77 << true;
    QTest::newRow("strip section") << int(PotBinding::Headphone) << 0 << 0 << false;
    QTest::newRow("no such section") << int(PotBinding::Headphone) << 2 << 0 << false;
    QTest::newRow("none") << int(PotBinding::None) << 1 << 0 << false;
    QTest::newRow("out of the enumeration") << 2 << 1 << 0 << false;
}

void TestPotBinding::typeNamesThePot()
{
    QFETCH(int, type);
    QFETCH(int, section);
    QFETCH(int, index);
    QFETCH(bool, binds);

    BindingTestRig rig;
    movePot(rig, 100);
    auto binding = makeBinding(rig, static_cast<PotBinding::PotType>(type), section, index);
    QSignalSpy spy(binding.get(), &PotBinding::potTurned);
    binding->setColor(Qt::red);
    movePot(rig, 200);
    if (binds) {
        QCOMPARE(rig.takeFrames(), QStringList({lightFrame("ff000000")}));
        QCOMPARE(turns(spy), QStringList({turn(-19, 200)}));
    } else {
        QCOMPARE(rig.takeFrames(), QStringList());
        QCOMPARE(spy.count(), 0);
    }
}

void TestPotBinding::colourReachesThePotLight()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, PotBinding::Headphone);
    // Binding sends the colour it holds: transparent, which the light shows as off.
    QCOMPARE(rig.takeFrames(), QStringList({lightFrame("00000000")}));
    QSignalSpy spy(binding.get(), &PotBinding::colorChanged);
    binding->setColor(QColor(0x11, 0x22, 0x33, 0x80));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(rig.takeFrames(), QStringList({lightFrame("11223300")}));
}

void TestPotBinding::sameColourSendsNothing()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, PotBinding::Headphone);
    binding->setColor(Qt::red);
    rig.takeFrames();
    QSignalSpy spy(binding.get(), &PotBinding::colorChanged);
    binding->setColor(QColor(255, 0, 0));
    QCOMPARE(spy.count(), 0);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestPotBinding::deactivatingLetsThePotGoAndBlacksTheLight()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, PotBinding::Headphone);
    binding->setColor(Qt::red);
    rig.takeFrames();
    QSignalSpy spy(binding.get(), &PotBinding::potTurned);
    binding->setActive(false);
    rig.fixture.runForMs(99);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());
    rig.fixture.runForMs(51);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({lightFrame("00000000")}));
    movePot(rig, 511);
    QCOMPARE(spy.count(), 0);

    binding->setActive(true);
    QCOMPARE(turns(spy), QStringList({turn(11, 511)}));
    QCOMPARE(rig.takeFrames(), QStringList({lightFrame("ff000000")}));
}

void TestPotBinding::destructorBlacksTheLightAfter100Ms()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, PotBinding::Headphone);
    binding->setColor(Qt::red);
    rig.takeFrames();
    const qint64 releasedAtMs = rig.nowMs();
    binding.reset();
    QCOMPARE(rig.takeReleaseFrames(releasedAtMs),
             QStringList({lightFrame("00000000") + " in the release window"}));
}

void TestPotBinding::inactiveWithoutSurfaceKeepsTheHandle()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, PotBinding::Headphone);
    rig.takeFrames();
    QSignalSpy spy(binding.get(), &PotBinding::potTurned);
    binding->setConnection(nullptr);
    binding->setActive(false);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());
    // Still bound: moves arrive and the light takes colours.
    movePot(rig, 460);
    QCOMPARE(turns(spy), QStringList({turn(6, 460)}));
    binding->setColor(Qt::blue);
    QCOMPARE(rig.takeFrames(), QStringList({lightFrame("0000ff00")}));
}

void TestPotBinding::negativeAndOutOfRangeIndicesAreIgnored()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, PotBinding::Headphone);
    rig.takeFrames();
    QSignalSpy sectionSpy(binding.get(), &BindingBase::sectionIndexChanged);
    binding->setSectionIndex(-1);
    binding->setSectionIndex(257);
    binding->setIndex(-1);
    QCOMPARE(sectionSpy.count(), 0);
    QCOMPARE(binding->sectionIndex(), int(kMaster));
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());
}

void TestPotBinding::indexPlaysNoPart()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, PotBinding::Headphone);
    binding->setColor(Qt::red);
    rig.takeFrames();
    QSignalSpy spy(binding.get(), &PotBinding::potTurned);
    binding->setIndex(4);
    // Still the same pot: its light gets the colour again and is not let go.
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({lightFrame("ff000000")}));
    movePot(rig, 511);
    QCOMPARE(turns(spy), QStringList({turn(11, 511)}));
}

void TestPotBinding::sectionIndexChangeLetsThePotGo()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, PotBinding::Headphone);
    binding->setColor(Qt::red);
    rig.takeFrames();
    QSignalSpy spy(binding.get(), &PotBinding::potTurned);
    // Section 0 has no pot.
    binding->setSectionIndex(0);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({lightFrame("00000000")}));
    movePot(rig, 511);
    QCOMPARE(spy.count(), 0);

    binding->setSectionIndex(kMaster);
    QCOMPARE(turns(spy), QStringList({turn(11, 511)}));
    QCOMPARE(rig.takeFrames(), QStringList({lightFrame("ff000000")}));
}

void TestPotBinding::bindsWhenTheSurfaceArrives()
{
    BindingTestRig rig(1, false);
    auto binding = makeBinding(rig, PotBinding::Headphone);
    QSignalSpy spy(binding.get(), &PotBinding::potTurned);
    binding->setColor(Qt::white);
    QCOMPARE(rig.takeFrames(), QStringList());
    rig.installSurface();
    // The pot was reported at 0 while the surface started.
    QCOMPARE(turns(spy), QStringList({turn(-150, 0)}));
    QCOMPARE(rig.takeFrames(), QStringList({lightFrame("ffffff00")}));
}

QTEST_GUILESS_MAIN(TestPotBinding)
#include "tst_potbinding.moc"
