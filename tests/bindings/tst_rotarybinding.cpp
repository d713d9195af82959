#include <QCoreApplication>
#include <QMetaEnum>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <memory>

#include "bindings/flashinfo.h"
#include "bindings/rotarybinding.h"
#include "support/bindingtestrig.h"
#include "support/logcapture.h"
#include "support/metaobjectlisting.h"
#include "surface/iglobalrotarybindingtarget.h"
#include "surface/surface.h"

using namespace Velmora::Worksurface;

namespace {

constexpr uint8_t kColour = 12;
constexpr uint8_t kStep = 18;
constexpr uint8_t kTouch = 19;
constexpr uint8_t kButton = 20;

const QString kRefusedWarning = QStringLiteral(
    "Rotary global target can be bound only into one binding at the time. Rotary id: %1");

QString ringFrame(uint8_t section, uint8_t light, const char* payloadHex)
{
    return BindingTestRig::frame(section, kColour, light, payloadHex);
}

std::unique_ptr<RotaryBinding> makeBinding(BindingTestRig& rig, RotaryBinding::RotaryType type,
                                           int section, int index, bool active = true,
                                           RotaryBinding::RotaryScope scope = RotaryBinding::Local)
{
    return makeWiredBinding<RotaryBinding>(
        rig, type, section, index, active,
        [scope](RotaryBinding& binding) { binding.setScope(scope); });
}

// Strip 3's rotary in section 0 (rotary 3, light 3, push switch 24), red, with the
// binding's own frames already taken.
std::unique_ptr<RotaryBinding> makeRedStripRotary(
    BindingTestRig& rig, RotaryBinding::RotaryScope scope = RotaryBinding::Local)
{
    auto binding = makeBinding(rig, RotaryBinding::UnderScreen, 0, 3, true, scope);
    binding->setColor(Qt::red);
    rig.takeFrames();
    return binding;
}

// A section's report, delivered as far as the bindings.
void play(BindingTestRig& rig, uint8_t section, uint8_t type, uint8_t deviceId, uint8_t value)
{
    rig.fixture.sendToPlugin(section, type, deviceId, {value});
    QCoreApplication::sendPostedEvents();
}

void turn(BindingTestRig& rig, uint8_t section, uint8_t rotaryId, uint8_t stepByte)
{
    play(rig, section, kStep, rotaryId, stepByte);
}

QList<int> steps(const QSignalSpy& spy)
{
    QList<int> values;
    for (const QList<QVariant>& arguments : spy) {
        values << arguments.at(0).toInt();
    }
    return values;
}

QStringList enumKeys(const QMetaObject& meta, const char* name)
{
    const QMetaEnum values = meta.enumerator(meta.indexOfEnumerator(name));
    QStringList keys;
    for (int i = 0; i < values.keyCount(); ++i) {
        keys
            << QStringLiteral("%1=%2").arg(QString::fromLatin1(values.key(i))).arg(values.value(i));
    }
    return keys;
}

// Another would-be global target, to see who the rotary has registered.
class OtherTarget : public IGlobalRotaryBindingTarget
{
public:
    void bind() override { ++binds; }
    int binds = 0;
};

}  // namespace

class TestRotaryBinding : public QObject
{
    Q_OBJECT

private slots:
    void metaObjectListsSignalsSlotsAndPropertiesInOrder();
    void enumsHaveTheQmlKeys();
    void freshBindingHasItsDefaults();
    void isAGlobalRotaryBindingTarget();

    void typeNamesTheRotary_data();
    void typeNamesTheRotary();
    void sideRotaryIndex5BindsRotary15AndIndex6Nothing();
    void bindingSendsTheRingColour();

    void rotationsAreSignedSteps_data();
    void rotationsAreSignedSteps();
    void touchAndPressAreReadBack();
    void touchedAndPressedAreFalseWithoutAHandle();

    void colourReachesTheRing();
    void sameColourStillResendsTheRing();
    void flashingTogglesBetweenBlackAndTheColour();
    void disablingFlashShowsTheColourSteadily();

    void typeWriteWaitsForTheNextLookup();
    void rebindingToTheSameRotaryResendsTheRing();
    void indexChangeMovesToTheOtherRotary();
    void sectionIndexChangeMovesToTheOtherSection();
    void negativeAndOutOfRangeIndicesAreIgnored();
    void deactivatingLetsTheRotaryGoAndBlacksTheRing();
    void inactiveWithoutSurfaceStillLetsTheRotaryGo();
    void destructorBlacksTheRingAfter100Ms();
    void bindsWhenTheSurfaceArrives();

    void scopeWriteLooksUpAtOnceEvenBeforeComplete();
    void globalOfferAnswered1BindsAtOnce();
    void globalOfferAnswered2WaitsForTheHolderToDeactivate();
    void globalOfferAnswered2BindsWhenTheHolderIsDestroyed();
    void globalOfferAnswered0IsRefusedAndNeverBinds();
    void inactiveGlobalBindingRegistersWithoutBinding();
    void globalBindingTakesOverAgainAfterALocalBindingLetsGo();
    void destroyedGlobalBindingNoLongerClaimsTheRotary();
};

void TestRotaryBinding::metaObjectListsSignalsSlotsAndPropertiesInOrder()
{
    const QMetaObject& meta = RotaryBinding::staticMetaObject;
    QCOMPARE(meta.superClass(), &BindingBase::staticMetaObject);
    QCOMPARE(methodSignatures(meta, QMetaMethod::Signal),
             QStringList({"typeChanged()", "touchedChanged()", "pressedChanged()", "colorChanged()",
                          "rotaryRotated(int)", "flashIntervalChanged()", "scopeChanged()"}));
    const QMetaMethod rotated = meta.method(meta.indexOfSignal("rotaryRotated(int)"));
    QCOMPARE(rotated.parameterNames(), QList<QByteArray>({"value"}));
    QCOMPARE(methodSignatures(meta, QMetaMethod::Slot),
             QStringList({"sendRotaryFlashEnabled()", "sendRotaryFlashInterval()"}));
    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QMetaProperty property = meta.property(i);
        properties << QStringLiteral("%1:%2:%3:%4")
                          .arg(QString::fromLatin1(property.name()),
                               propertyTypeName(meta, property),
                               QString::fromLatin1(property.notifySignal().name()),
                               property.isWritable() ? "rw" : "r");
    }
    QCOMPARE(properties,
             QStringList({"type:RotaryType:typeChanged:rw", "touched:bool:touchedChanged:r",
                          "pressed:bool:pressedChanged:r", "color:QColor:colorChanged:rw",
                          "flash:FlashInfo*::r", "scope:RotaryScope:scopeChanged:rw"}));
}

void TestRotaryBinding::enumsHaveTheQmlKeys()
{
    const QMetaObject& meta = RotaryBinding::staticMetaObject;
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 2);
    QCOMPARE(QByteArray(meta.enumerator(meta.enumeratorOffset()).name()), QByteArray("RotaryType"));
    QCOMPARE(QByteArray(meta.enumerator(meta.enumeratorOffset() + 1).name()),
             QByteArray("RotaryScope"));
    QCOMPARE(enumKeys(meta, "RotaryType"),
             QStringList({"None=0", "UnderScreen=1", "SideRotary=2"}));
    QCOMPARE(enumKeys(meta, "RotaryScope"), QStringList({"Local=0", "Global=1"}));
}

void TestRotaryBinding::freshBindingHasItsDefaults()
{
    RotaryBinding binding;
    QCOMPARE(binding.type(), RotaryBinding::None);
    QCOMPARE(binding.color(), QColor(Qt::black));
    QCOMPARE(binding.scope(), RotaryBinding::Local);
    QCOMPARE(binding.touched(), false);
    QCOMPARE(binding.pressed(), false);
    QVERIFY(binding.flash() != nullptr);
    QCOMPARE(binding.flash()->parent(), &binding);
    QCOMPARE(binding.flash()->enabled(), false);
    QCOMPARE(binding.flash()->interval(), 0);
}

void TestRotaryBinding::isAGlobalRotaryBindingTarget()
{
    RotaryBinding binding;
    IGlobalRotaryBindingTarget* target = &binding;
    QVERIFY(dynamic_cast<RotaryBinding*>(target) == &binding);
}

void TestRotaryBinding::typeNamesTheRotary_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("section");
    QTest::addColumn<int>("index");
    // The rotary (and ring light) bound, or -1 for none.
    QTest::addColumn<int>("rotary");

    QTest::newRow("strip 0") << int(RotaryBinding::UnderScreen) << 0 << 0 << 0;
    QTest::newRow("strip 9") << int(RotaryBinding::UnderScreen) << 1 << 9 << 9;
    QTest::newRow("strip 10") << int(RotaryBinding::UnderScreen) << 0 << 10 << -1;
    QTest::newRow("side 0") << int(RotaryBinding::SideRotary) << 1 << 0 << 10;
    QTest::newRow("side 5") << int(RotaryBinding::SideRotary) << 1 << 5 << 15;
    QTest::newRow("side 6") << int(RotaryBinding::SideRotary) << 1 << 6 << -1;
    QTest::newRow("side on a strip section") << int(RotaryBinding::SideRotary) << 0 << 0 << -1;
    QTest::newRow("no such section") << int(RotaryBinding::UnderScreen) << 2 << 0 << -1;
    QTest::newRow("none") << int(RotaryBinding::None) << 0 << 0 << -1;
    QTest::newRow("out of the enumeration") << 3 << 0 << 0 << -1;
}

void TestRotaryBinding::typeNamesTheRotary()
{
    QFETCH(int, type);
    QFETCH(int, section);
    QFETCH(int, index);
    QFETCH(int, rotary);

    BindingTestRig rig;
    auto binding = makeBinding(rig, static_cast<RotaryBinding::RotaryType>(type), section, index);
    binding->setColor(QColor(0x10, 0x20, 0x30));
    QSignalSpy spy(binding.get(), &RotaryBinding::rotaryRotated);
    const QStringList frames = rig.takeFrames();
    if (rotary < 0) {
        QCOMPARE(frames, QStringList());
        // Every rotary the section has.
        const uint8_t last = section == 1 ? 15 : 9;
        for (uint8_t id = 0; id <= last; ++id) {
            turn(rig, static_cast<uint8_t>(section), id, 1);
        }
        QCOMPARE(spy.count(), 0);
    } else {
        const auto id = static_cast<uint8_t>(rotary);
        QCOMPARE(frames, QStringList({ringFrame(static_cast<uint8_t>(section), id, "10203000")}));
        turn(rig, static_cast<uint8_t>(section), id, 2);
        QCOMPARE(steps(spy), QList<int>({2}));
    }
}

void TestRotaryBinding::sideRotaryIndex5BindsRotary15AndIndex6Nothing()
{
    BindingTestRig rig;
    auto five = makeBinding(rig, RotaryBinding::SideRotary, 1, 5);
    auto six = makeBinding(rig, RotaryBinding::SideRotary, 1, 6);
    // Only rotary 15's ring hears of a binding (its black, the binding's colour).
    QCOMPARE(rig.takeFrames(), QStringList({ringFrame(1, 15, "00000000")}));
    six->setColor(Qt::red);
    QCOMPARE(rig.takeFrames(), QStringList());
    QSignalSpy fiveSpy(five.get(), &RotaryBinding::rotaryRotated);
    QSignalSpy sixSpy(six.get(), &RotaryBinding::rotaryRotated);
    for (uint8_t id = 10; id <= 15; ++id) {
        turn(rig, 1, id, 1);
    }
    QCOMPARE(steps(fiveSpy), QList<int>({1}));
    QCOMPARE(sixSpy.count(), 0);
    // Its push switch is button 36.
    QSignalSpy pressSpy(five.get(), &RotaryBinding::pressedChanged);
    play(rig, 1, kButton, 36, 1);
    QCOMPARE(pressSpy.count(), 1);
    QCOMPARE(five->pressed(), true);
}

void TestRotaryBinding::bindingSendsTheRingColour()
{
    BindingTestRig rig;
    RotaryBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setType(RotaryBinding::UnderScreen);
    binding.setSectionIndex(0);
    binding.setIndex(4);
    binding.setActive(true);
    binding.setColor(Qt::magenta);
    QCOMPARE(rig.takeFrames(), QStringList());
    binding.componentComplete();
    QCOMPARE(rig.takeFrames(), QStringList({ringFrame(0, 4, "ff00ff00")}));
}

void TestRotaryBinding::rotationsAreSignedSteps_data()
{
    QTest::addColumn<int>("stepByte");
    QTest::addColumn<int>("steps");
    QTest::newRow("+1") << 0x01 << 1;
    QTest::newRow("-1") << 0xff << -1;
    QTest::newRow("+127") << 0x7f << 127;
    QTest::newRow("-128") << 0x80 << -128;
    QTest::newRow("-5") << 0xfb << -5;
    QTest::newRow("0") << 0x00 << 0;
}

void TestRotaryBinding::rotationsAreSignedSteps()
{
    QFETCH(int, stepByte);
    QFETCH(int, steps);
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    QSignalSpy spy(binding.get(), &RotaryBinding::rotaryRotated);
    turn(rig, 0, 3, static_cast<uint8_t>(stepByte));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).type(), QVariant::Int);
    QCOMPARE(spy.at(0).at(0).toInt(), steps);
}

void TestRotaryBinding::touchAndPressAreReadBack()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    QSignalSpy touchSpy(binding.get(), &RotaryBinding::touchedChanged);
    QSignalSpy pressSpy(binding.get(), &RotaryBinding::pressedChanged);

    play(rig, 0, kTouch, 3, 1);
    QCOMPARE(touchSpy.count(), 1);
    QCOMPARE(binding->touched(), true);
    // Strip 3's push switch is button 24.
    play(rig, 0, kButton, 24, 1);
    QCOMPARE(pressSpy.count(), 1);
    QCOMPARE(binding->pressed(), true);

    play(rig, 0, kTouch, 3, 0);
    play(rig, 0, kButton, 24, 0);
    QCOMPARE(touchSpy.count(), 2);
    QCOMPARE(pressSpy.count(), 2);
    QCOMPARE(binding->touched(), false);
    QCOMPARE(binding->pressed(), false);

    // Another rotary's reports are not ours.
    play(rig, 0, kTouch, 4, 1);
    play(rig, 1, kTouch, 3, 1);
    play(rig, 0, kButton, 25, 1);
    QCOMPARE(touchSpy.count(), 2);
    QCOMPARE(pressSpy.count(), 2);
    QCOMPARE(binding->touched(), false);
}

void TestRotaryBinding::touchedAndPressedAreFalseWithoutAHandle()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    play(rig, 0, kTouch, 3, 1);
    play(rig, 0, kButton, 24, 1);
    QCOMPARE(binding->touched(), true);
    QCOMPARE(binding->pressed(), true);
    binding->setActive(false);
    // The rotary is still touched and pressed, but the binding no longer looks at it.
    QCOMPARE(binding->touched(), false);
    QCOMPARE(binding->pressed(), false);
}

void TestRotaryBinding::colourReachesTheRing()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    QSignalSpy spy(binding.get(), &RotaryBinding::colorChanged);
    binding->setColor(QColor(0x01, 0x02, 0x03, 0x04));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(rig.takeFrames(), QStringList({ringFrame(0, 3, "01020300")}));
}

void TestRotaryBinding::sameColourStillResendsTheRing()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    QSignalSpy spy(binding.get(), &RotaryBinding::colorChanged);
    binding->setColor(Qt::red);
    QCOMPARE(spy.count(), 0);
    QCOMPARE(rig.takeFrames(), QStringList({ringFrame(0, 3, "ff000000")}));
    binding->setColor(QColor(255, 0, 0));
    QCOMPARE(spy.count(), 0);
    QCOMPARE(rig.takeFrames(), QStringList({ringFrame(0, 3, "ff000000")}));
}

void TestRotaryBinding::flashingTogglesBetweenBlackAndTheColour()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    binding->flash()->setInterval(400);
    // Not flashing yet: the interval alone shows the colour steadily.
    QCOMPARE(rig.takeFrames(), QStringList({ringFrame(0, 3, "ff000000")}));
    const qint64 startMs = rig.nowMs();
    binding->flash()->setEnabled(true);
    rig.fixture.runForMs(1000);

    const std::vector<BindingTestRig::Frame> frames = rig.frames();
    QCOMPARE(int(frames.size()), 4);
    // Step k is taken once k half intervals have passed (a task runs when strictly more
    // than its interval has passed: up to 1 ms later per step at 1 ms ticks) and leaves with
    // the next 50 ms link pass.
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const qint64 k = static_cast<qint64>(i) + 1;
        QVERIFY2(frames[i].atMs >= startMs + k * 200, qPrintable(QString::number(i)));
        QVERIFY2(frames[i].atMs <= startMs + k * 201 + 51, qPrintable(QString::number(i)));
    }
    QCOMPARE(rig.takeFramesSoFar(),
             QStringList({ringFrame(0, 3, "00000000"), ringFrame(0, 3, "ff000000"),
                          ringFrame(0, 3, "00000000"), ringFrame(0, 3, "ff000000")}));
}

void TestRotaryBinding::disablingFlashShowsTheColourSteadily()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    binding->flash()->setInterval(400);
    binding->flash()->setEnabled(true);
    rig.fixture.runForMs(300);
    rig.takeFramesSoFar();
    binding->flash()->setEnabled(false);
    QCOMPARE(rig.takeFrames(), QStringList({ringFrame(0, 3, "ff000000")}));
    rig.fixture.runForMs(1000);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());
}

void TestRotaryBinding::typeWriteWaitsForTheNextLookup()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    QSignalSpy typeSpy(binding.get(), &RotaryBinding::typeChanged);
    binding->setType(RotaryBinding::SideRotary);
    QCOMPARE(typeSpy.count(), 1);
    QCOMPARE(rig.takeFrames(), QStringList());
    // Still bound to strip 3's rotary.
    QSignalSpy spy(binding.get(), &RotaryBinding::rotaryRotated);
    turn(rig, 0, 3, 1);
    QCOMPARE(spy.count(), 1);

    // The next lookup finds no side rotary in section 0 and lets strip 3's go.
    binding->setConnection(&rig.connection);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ringFrame(0, 3, "00000000")}));
    turn(rig, 0, 3, 1);
    QCOMPARE(spy.count(), 1);
}

void TestRotaryBinding::rebindingToTheSameRotaryResendsTheRing()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    binding->setConnection(&rig.connection);
    QCOMPARE(rig.takeFrames(), QStringList({ringFrame(0, 3, "ff000000")}));
    QSignalSpy spy(binding.get(), &RotaryBinding::rotaryRotated);
    turn(rig, 0, 3, 1);
    QCOMPARE(spy.count(), 1);
}

void TestRotaryBinding::indexChangeMovesToTheOtherRotary()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    QSignalSpy spy(binding.get(), &RotaryBinding::rotaryRotated);
    binding->setIndex(7);
    QCOMPARE(rig.takeFrames(), QStringList({ringFrame(0, 7, "ff000000")}));
    rig.fixture.runForMs(100);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ringFrame(0, 3, "00000000")}));
    turn(rig, 0, 3, 1);
    turn(rig, 0, 7, 2);
    QCOMPARE(steps(spy), QList<int>({2}));
}

void TestRotaryBinding::sectionIndexChangeMovesToTheOtherSection()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    QSignalSpy spy(binding.get(), &RotaryBinding::rotaryRotated);
    binding->setSectionIndex(1);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(),
             QStringList({ringFrame(1, 3, "ff000000"), ringFrame(0, 3, "00000000")}));
    turn(rig, 0, 3, 1);
    turn(rig, 1, 3, 3);
    QCOMPARE(steps(spy), QList<int>({3}));
}

void TestRotaryBinding::negativeAndOutOfRangeIndicesAreIgnored()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    QSignalSpy indexSpy(binding.get(), &BindingBase::indexChanged);
    QSignalSpy sectionSpy(binding.get(), &BindingBase::sectionIndexChanged);
    binding->setIndex(-1);
    binding->setIndex(256);
    binding->setSectionIndex(-1);
    binding->setSectionIndex(300);
    QCOMPARE(indexSpy.count(), 0);
    QCOMPARE(sectionSpy.count(), 0);
    QCOMPARE(binding->index(), 3);
    QCOMPARE(binding->sectionIndex(), 0);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());
}

void TestRotaryBinding::deactivatingLetsTheRotaryGoAndBlacksTheRing()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    QSignalSpy spy(binding.get(), &RotaryBinding::rotaryRotated);
    binding->setActive(false);
    rig.fixture.runForMs(99);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());
    rig.fixture.runForMs(51);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ringFrame(0, 3, "00000000")}));
    turn(rig, 0, 3, 1);
    QCOMPARE(spy.count(), 0);
    // Inactive, the colour goes nowhere.
    binding->setColor(Qt::green);
    QCOMPARE(rig.takeFrames(), QStringList());

    binding->setActive(true);
    QCOMPARE(rig.takeFrames(), QStringList({ringFrame(0, 3, "00ff0000")}));
    turn(rig, 0, 3, 1);
    QCOMPARE(spy.count(), 1);
}

void TestRotaryBinding::inactiveWithoutSurfaceStillLetsTheRotaryGo()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    QSignalSpy spy(binding.get(), &RotaryBinding::rotaryRotated);
    binding->setConnection(nullptr);
    binding->setActive(false);
    rig.fixture.runForMs(200);
    // Unlike the LED bindings, a rotary binding lets go before it looks for the surface.
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ringFrame(0, 3, "00000000")}));
    turn(rig, 0, 3, 1);
    QCOMPARE(spy.count(), 0);
}

void TestRotaryBinding::destructorBlacksTheRingAfter100Ms()
{
    BindingTestRig rig;
    auto binding = makeRedStripRotary(rig);
    QSignalSpy activeSpy(binding.get(), &BindingBase::activeChanged);
    const qint64 releasedAtMs = rig.nowMs();
    binding.reset();
    QCOMPARE(activeSpy.count(), 1);
    QCOMPARE(rig.takeReleaseFrames(releasedAtMs),
             QStringList({ringFrame(0, 3, "00000000") + " in the release window"}));
}

void TestRotaryBinding::bindsWhenTheSurfaceArrives()
{
    BindingTestRig rig(1, false);
    auto binding = makeBinding(rig, RotaryBinding::UnderScreen, 0, 3);
    binding->setColor(Qt::blue);
    QCOMPARE(rig.takeFrames(), QStringList());
    rig.installSurface();
    QCOMPARE(rig.takeFrames(), QStringList({ringFrame(0, 3, "0000ff00")}));
}

void TestRotaryBinding::scopeWriteLooksUpAtOnceEvenBeforeComplete()
{
    BindingTestRig rig;
    RotaryBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setType(RotaryBinding::UnderScreen);
    binding.setSectionIndex(0);
    binding.setIndex(3);
    binding.setActive(true);
    binding.setColor(Qt::red);
    QCOMPARE(rig.takeFrames(), QStringList());

    QSignalSpy scopeSpy(&binding, &RotaryBinding::scopeChanged);
    binding.setScope(RotaryBinding::Global);
    QCOMPARE(scopeSpy.count(), 1);
    QCOMPARE(binding.scope(), RotaryBinding::Global);
    QCOMPARE(rig.takeFrames(), QStringList({ringFrame(0, 3, "ff000000")}));
    binding.setScope(RotaryBinding::Global);
    QCOMPARE(scopeSpy.count(), 1);
}

void TestRotaryBinding::globalOfferAnswered1BindsAtOnce()
{
    BindingTestRig rig;
    auto global = makeRedStripRotary(rig, RotaryBinding::Global);
    QSignalSpy spy(global.get(), &RotaryBinding::rotaryRotated);
    turn(rig, 0, 3, 1);
    QCOMPARE(spy.count(), 1);

    // The rotary holds it as its global target: another offer is refused.
    OtherTarget other;
    LogCapture log;
    QCOMPARE(rig.fixture.surface().offerGlobalTarget(1, 0, 3, &other), 0);
    QCOMPARE(log.texts(QtWarningMsg), QStringList({kRefusedWarning.arg(3)}));
}

void TestRotaryBinding::globalOfferAnswered2WaitsForTheHolderToDeactivate()
{
    BindingTestRig rig;
    auto holder = makeRedStripRotary(rig);
    auto global = makeBinding(rig, RotaryBinding::UnderScreen, 0, 3, true, RotaryBinding::Global);
    global->setColor(Qt::blue);
    // Registered, but the rotary stays with its holder.
    QCOMPARE(rig.takeFrames(), QStringList());
    QSignalSpy holderSpy(holder.get(), &RotaryBinding::rotaryRotated);
    QSignalSpy globalSpy(global.get(), &RotaryBinding::rotaryRotated);
    turn(rig, 0, 3, 1);
    QCOMPARE(holderSpy.count(), 1);
    QCOMPARE(globalSpy.count(), 0);

    holder->setActive(false);
    // The rotary asked its global target to bind: it takes the handle and shows its colour
    // at once; the holder's release black (sent with a delay) was overtaken by it.
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ringFrame(0, 3, "0000ff00")}));
    turn(rig, 0, 3, -2 & 0xff);
    QCOMPARE(holderSpy.count(), 1);
    QCOMPARE(steps(globalSpy), QList<int>({-2}));
}

void TestRotaryBinding::globalOfferAnswered2BindsWhenTheHolderIsDestroyed()
{
    BindingTestRig rig;
    auto global = std::make_unique<RotaryBinding>();
    auto holder = makeRedStripRotary(rig);
    global->classBegin();
    global->setConnection(&rig.connection);
    global->setType(RotaryBinding::UnderScreen);
    global->setSectionIndex(0);
    global->setIndex(3);
    global->setActive(true);
    global->setScope(RotaryBinding::Global);
    global->setColor(Qt::white);
    global->componentComplete();
    QCOMPARE(rig.takeFrames(), QStringList());
    QSignalSpy globalSpy(global.get(), &RotaryBinding::rotaryRotated);

    holder.reset();
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ringFrame(0, 3, "ffffff00")}));
    turn(rig, 0, 3, 5);
    QCOMPARE(steps(globalSpy), QList<int>({5}));
}

void TestRotaryBinding::globalOfferAnswered0IsRefusedAndNeverBinds()
{
    BindingTestRig rig;
    OtherTarget other;
    QCOMPARE(rig.fixture.surface().offerGlobalTarget(1, 0, 3, &other), 1);

    LogCapture log;
    auto global = makeBinding(rig, RotaryBinding::UnderScreen, 0, 3, true, RotaryBinding::Global);
    // Offered once when the scope was written and once when QML completed it.
    QCOMPARE(log.texts(QtWarningMsg),
             QStringList({kRefusedWarning.arg(3), kRefusedWarning.arg(3)}));
    global->setColor(Qt::red);
    // Refused: no handle, although the rotary is free.
    QCOMPARE(rig.takeFrames(), QStringList());
    QSignalSpy spy(global.get(), &RotaryBinding::rotaryRotated);
    turn(rig, 0, 3, 1);
    QCOMPARE(spy.count(), 0);

    // A local binding that comes and goes wakes the registered target, not this one.
    auto local = makeBinding(rig, RotaryBinding::UnderScreen, 0, 3);
    local.reset();
    QCOMPARE(other.binds, 1);
    turn(rig, 0, 3, 1);
    QCOMPARE(spy.count(), 0);
    QCOMPARE(rig.fixture.surface().offerGlobalTarget(1, 0, 3, nullptr), 1);
}

void TestRotaryBinding::inactiveGlobalBindingRegistersWithoutBinding()
{
    BindingTestRig rig;
    auto global = makeBinding(rig, RotaryBinding::UnderScreen, 0, 3, false, RotaryBinding::Global);
    QCOMPARE(rig.takeFrames(), QStringList());
    OtherTarget other;
    LogCapture log;
    QCOMPARE(rig.fixture.surface().offerGlobalTarget(1, 0, 3, &other), 0);

    // A holder that lets go wakes it, but inactive it stays unbound.
    auto holder = makeBinding(rig, RotaryBinding::UnderScreen, 0, 3);
    QSignalSpy spy(global.get(), &RotaryBinding::rotaryRotated);
    holder.reset();
    turn(rig, 0, 3, 1);
    QCOMPARE(spy.count(), 0);

    global->setActive(true);
    turn(rig, 0, 3, 1);
    QCOMPARE(spy.count(), 1);
}

void TestRotaryBinding::globalBindingTakesOverAgainAfterALocalBindingLetsGo()
{
    BindingTestRig rig;
    auto global = makeRedStripRotary(rig, RotaryBinding::Global);
    QSignalSpy globalSpy(global.get(), &RotaryBinding::rotaryRotated);

    // A local binding takes the rotary from the global one.
    auto local = makeBinding(rig, RotaryBinding::UnderScreen, 0, 3);
    QSignalSpy localSpy(local.get(), &RotaryBinding::rotaryRotated);
    turn(rig, 0, 3, 1);
    QCOMPARE(localSpy.count(), 1);
    QCOMPARE(globalSpy.count(), 0);

    rig.takeFrames();
    local->setActive(false);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ringFrame(0, 3, "ff000000")}));
    turn(rig, 0, 3, 1);
    QCOMPARE(localSpy.count(), 1);
    QCOMPARE(globalSpy.count(), 1);
}

void TestRotaryBinding::destroyedGlobalBindingNoLongerClaimsTheRotary()
{
    BindingTestRig rig;
    auto global = makeRedStripRotary(rig, RotaryBinding::Global);
    auto holder = makeBinding(rig, RotaryBinding::UnderScreen, 0, 3);
    global.reset();

    // The rotary forgot it: the next target is taken, and the holder's release wakes that
    // one instead of a binding that no longer exists.
    OtherTarget other;
    QCOMPARE(rig.fixture.surface().offerGlobalTarget(1, 0, 3, &other), 2);
    holder.reset();
    QCOMPARE(other.binds, 1);
    QCOMPARE(rig.fixture.surface().offerGlobalTarget(1, 0, 3, nullptr), 1);
}

QTEST_GUILESS_MAIN(TestRotaryBinding)
#include "tst_rotarybinding.moc"
