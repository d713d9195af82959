#include <QMetaEnum>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <memory>

#include "bindings/flashinfo.h"
#include "bindings/ledbinding.h"
#include "support/bindingtestrig.h"
#include "support/metaobjectlisting.h"

namespace {

constexpr uint8_t kLed = 11;

QString ledFrame(uint8_t section, uint8_t device, const char* payloadHex)
{
    return BindingTestRig::frame(section, kLed, device, payloadHex);
}

// A binding made the way QML makes one: values first, then componentComplete().
std::unique_ptr<LedBinding> makeBinding(BindingTestRig& rig, LedBinding::LedType type, int section,
                                        int index, bool active = true)
{
    return makeWiredBinding<LedBinding>(rig, type, section, index, active);
}

// The mute switch LED of strip 3 in section 0, lit at full brightness, with the frames of
// the binding itself already taken.
std::unique_ptr<LedBinding> makeLitMuteLed(BindingTestRig& rig)
{
    auto binding = makeBinding(rig, LedBinding::MuteButton, 0, 3);
    binding->setOn(true);
    rig.takeFrames();
    return binding;
}

}  // namespace

class TestLedBinding : public QObject
{
    Q_OBJECT

private slots:
    void metaObjectListsSignalsSlotsAndPropertiesInOrder();
    void ledTypeEnumHasTheQmlKeys();
    void freshBindingHasItsDefaults();

    void typeNamesTheLed_data();
    void typeNamesTheLed();
    void typeWriteLooksUpAtOnceEvenBeforeComplete();
    void otherWritesBeforeCompleteLookNothingUp();
    void inactiveBindingNeverBinds();

    void onReachesTheLineAsType11Frame();
    void brightnessWhileOnReachesTheLine();
    void brightnessWhileOffSendsNothing();
    void brightness300ReadsBack255();
    void brightnessMinus4ReadsBack0();
    void brightness255OnFreshBindingEmitsNothing();
    void valuesSetBeforeBindingReachTheLedOnBinding();

    void flashingTogglesEveryHalfInterval();
    void disablingFlashStopsTheToggling();

    void rebindingToTheSameLedResendsTheState();
    void indexChangeMovesToTheOtherLed();
    void sectionIndexChangeMovesToTheOtherSection();
    void typeChangeMovesToTheOtherLed();
    void negativeAndOutOfRangeIndicesAreIgnored();
    void deactivatingDarkensTheLedAfter100Ms();
    void destructorDarkensTheLedAfter100Ms();
    void inactiveWithoutSurfaceKeepsTheHandle();
    void bindsWhenTheSurfaceArrives();
};

void TestLedBinding::metaObjectListsSignalsSlotsAndPropertiesInOrder()
{
    const QMetaObject& meta = LedBinding::staticMetaObject;
    QCOMPARE(meta.superClass(), &BindingBase::staticMetaObject);
    QCOMPARE(methodSignatures(meta, QMetaMethod::Signal),
             QStringList({"typeChanged()", "onChanged()", "brightnessChanged()"}));
    QCOMPARE(methodSignatures(meta, QMetaMethod::Slot),
             QStringList({"sendLedFlashEnabled()", "sendLedFlashInterval()"}));
    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        properties << QString::fromLatin1(meta.property(i).name());
    }
    QCOMPARE(properties, QStringList({"type", "on", "brightness", "flash"}));
    QCOMPARE(meta.property(meta.indexOfProperty("type")).notifySignal().name(),
             QByteArray("typeChanged"));
    QCOMPARE(meta.property(meta.indexOfProperty("on")).notifySignal().name(),
             QByteArray("onChanged"));
    QCOMPARE(meta.property(meta.indexOfProperty("brightness")).notifySignal().name(),
             QByteArray("brightnessChanged"));
    const QMetaProperty flash = meta.property(meta.indexOfProperty("flash"));
    QVERIFY(!flash.isWritable());
    QCOMPARE(QByteArray(flash.typeName()), QByteArray("FlashInfo*"));
}

void TestLedBinding::ledTypeEnumHasTheQmlKeys()
{
    const QMetaObject& meta = LedBinding::staticMetaObject;
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 1);
    const QMetaEnum types = meta.enumerator(meta.indexOfEnumerator("LedType"));
    QVERIFY(types.isValid());
    QStringList keys;
    for (int i = 0; i < types.keyCount(); ++i) {
        keys << QStringLiteral("%1=%2").arg(QString::fromLatin1(types.key(i))).arg(types.value(i));
    }
    QCOMPARE(keys, QStringList({"None=0", "MuteButton=1", "SoloButton=2", "MasterMuteButton=3",
                                "MasterSoloButton=4", "NextSnapsthotButton=5",
                                "PreviousSnapshotButton=6", "LayerUpButton=7", "LayerDownButton=8",
                                "SpillsetButton=9", "OverviewButton=10"}));
}

void TestLedBinding::freshBindingHasItsDefaults()
{
    LedBinding binding;
    QCOMPARE(binding.type(), LedBinding::None);
    QCOMPARE(binding.on(), false);
    QCOMPARE(binding.brightness(), 255);
    QVERIFY(binding.flash() != nullptr);
    QCOMPARE(binding.flash()->parent(), &binding);
    QCOMPARE(binding.flash()->enabled(), false);
    QCOMPARE(binding.flash()->interval(), 0);
    QCOMPARE(binding.active(), false);
    QCOMPARE(binding.sectionIndex(), 255);
    QCOMPARE(binding.index(), 255);
}

void TestLedBinding::typeNamesTheLed_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("section");
    QTest::addColumn<int>("index");
    // The LED lit, or -1 for none.
    QTest::addColumn<int>("device");

    QTest::newRow("mute 0") << int(LedBinding::MuteButton) << 0 << 0 << 0;
    QTest::newRow("mute 9") << int(LedBinding::MuteButton) << 0 << 9 << 9;
    QTest::newRow("mute 10") << int(LedBinding::MuteButton) << 0 << 10 << -1;
    QTest::newRow("solo 0") << int(LedBinding::SoloButton) << 0 << 0 << 10;
    QTest::newRow("solo 9") << int(LedBinding::SoloButton) << 1 << 9 << 19;
    QTest::newRow("solo 10") << int(LedBinding::SoloButton) << 0 << 10 << -1;
    QTest::newRow("master mute") << int(LedBinding::MasterMuteButton) << 1 << 0 << 20;
    QTest::newRow("master mute, index ignored")
        << int(LedBinding::MasterMuteButton) << 1 << 7 << 20;
    QTest::newRow("master solo") << int(LedBinding::MasterSoloButton) << 1 << 0 << -1;
    QTest::newRow("next snapshot") << int(LedBinding::NextSnapsthotButton) << 1 << 0 << 23;
    QTest::newRow("previous snapshot") << int(LedBinding::PreviousSnapshotButton) << 1 << 0 << 22;
    QTest::newRow("layer up") << int(LedBinding::LayerUpButton) << 1 << 0 << 24;
    QTest::newRow("layer down") << int(LedBinding::LayerDownButton) << 1 << 0 << 26;
    QTest::newRow("spill set") << int(LedBinding::SpillsetButton) << 1 << 0 << 21;
    QTest::newRow("overview") << int(LedBinding::OverviewButton) << 1 << 0 << 25;
    QTest::newRow("overview on a strip section") << int(LedBinding::OverviewButton) << 0 << 0 << -1;
    QTest::newRow("no such section") << int(LedBinding::MuteButton) << 2 << 0 << -1;
    QTest::newRow("none") << int(LedBinding::None) << 0 << 0 << -1;
    QTest::newRow("out of the enumeration") << 11 << 0 << 0 << -1;
}

void TestLedBinding::typeNamesTheLed()
{
    QFETCH(int, type);
    QFETCH(int, section);
    QFETCH(int, index);
    QFETCH(int, device);

    BindingTestRig rig;
    auto binding = makeBinding(rig, static_cast<LedBinding::LedType>(type), section, index);
    binding->setOn(true);
    const QStringList frames = rig.takeFrames();
    if (device < 0) {
        QCOMPARE(frames, QStringList());
    } else {
        QCOMPARE(frames, QStringList({ledFrame(static_cast<uint8_t>(section),
                                               static_cast<uint8_t>(device), "ff00")}));
    }
}

void TestLedBinding::typeWriteLooksUpAtOnceEvenBeforeComplete()
{
    BindingTestRig rig;
    LedBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setSectionIndex(0);
    binding.setIndex(3);
    binding.setActive(true);
    binding.setOn(true);
    QCOMPARE(rig.takeFrames(), QStringList());

    QSignalSpy typeSpy(&binding, &LedBinding::typeChanged);
    binding.setType(LedBinding::MuteButton);
    QCOMPARE(typeSpy.count(), 1);
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "ff00")}));

    // Writing the same type again is no change.
    binding.setType(LedBinding::MuteButton);
    QCOMPARE(typeSpy.count(), 1);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestLedBinding::otherWritesBeforeCompleteLookNothingUp()
{
    BindingTestRig rig;
    LedBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setType(LedBinding::MuteButton);
    binding.setSectionIndex(0);
    binding.setIndex(3);
    binding.setActive(true);
    binding.setOn(true);
    QCOMPARE(rig.takeFrames(), QStringList());

    binding.componentComplete();
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "ff00")}));
}

void TestLedBinding::inactiveBindingNeverBinds()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, LedBinding::MuteButton, 0, 3, false);
    binding->setOn(true);
    binding->setIndex(4);
    binding->setSectionIndex(1);
    binding->setType(LedBinding::SoloButton);
    binding->setBrightness(10);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestLedBinding::onReachesTheLineAsType11Frame()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, LedBinding::MuteButton, 0, 3);
    // Binding sends the state it holds: off.
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "0000")}));

    QSignalSpy onSpy(binding.get(), &LedBinding::onChanged);
    binding->setOn(true);
    QCOMPARE(onSpy.count(), 1);
    QCOMPARE(binding->on(), true);
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "ff00")}));

    binding->setOn(true);
    QCOMPARE(onSpy.count(), 1);
    QCOMPARE(rig.takeFrames(), QStringList());

    binding->setOn(false);
    QCOMPARE(onSpy.count(), 2);
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "0000")}));
}

void TestLedBinding::brightnessWhileOnReachesTheLine()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    QSignalSpy spy(binding.get(), &LedBinding::brightnessChanged);
    binding->setBrightness(128);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(binding->brightness(), 128);
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "8000")}));
}

void TestLedBinding::brightnessWhileOffSendsNothing()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, LedBinding::MuteButton, 0, 3);
    rig.takeFrames();
    binding->setBrightness(128);
    QCOMPARE(binding->brightness(), 128);
    QCOMPARE(rig.takeFrames(), QStringList());
    // The LED lights at the brightness it was given meanwhile.
    binding->setOn(true);
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "8000")}));
}

void TestLedBinding::brightness300ReadsBack255()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    binding->setBrightness(100);
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "6400")}));

    QSignalSpy spy(binding.get(), &LedBinding::brightnessChanged);
    binding->setBrightness(300);
    QCOMPARE(binding->brightness(), 255);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "ff00")}));

    // 300 again is 255 again: no change.
    binding->setBrightness(300);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestLedBinding::brightnessMinus4ReadsBack0()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    QSignalSpy spy(binding.get(), &LedBinding::brightnessChanged);
    binding->setBrightness(-4);
    QCOMPARE(binding->brightness(), 0);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "0000")}));

    binding->setBrightness(0);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestLedBinding::brightness255OnFreshBindingEmitsNothing()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    QSignalSpy spy(binding.get(), &LedBinding::brightnessChanged);
    binding->setBrightness(255);
    QCOMPARE(spy.count(), 0);
    QCOMPARE(binding->brightness(), 255);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestLedBinding::valuesSetBeforeBindingReachTheLedOnBinding()
{
    BindingTestRig rig;
    LedBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setSectionIndex(1);
    binding.setOn(true);
    binding.setBrightness(100);
    binding.setActive(true);
    binding.componentComplete();
    QCOMPARE(rig.takeFrames(), QStringList());

    // State and brightness go out together; the queue keeps only the last LED frame.
    binding.setType(LedBinding::LayerUpButton);
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(1, 24, "6400")}));
}

void TestLedBinding::flashingTogglesEveryHalfInterval()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    binding->flash()->setInterval(500);
    QCOMPARE(rig.takeFrames(), QStringList());
    const qint64 startMs = rig.nowMs();
    binding->flash()->setEnabled(true);
    // Steps at 250, 500, 750 and 1000 ms have left by 1150 ms; the next leaves at 1350 ms.
    rig.fixture.runForMs(1150);

    const std::vector<BindingTestRig::Frame> frames = rig.frames();
    QCOMPARE(int(frames.size()), 4);
    // Step k is taken once k half intervals have passed (the pool runs a task when strictly
    // more than its interval has passed, so up to 1 ms later per step at 1 ms ticks) and
    // leaves with the next 50 ms link pass once its 100 ms delay is over.
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const qint64 k = static_cast<qint64>(i) + 1;
        QVERIFY2(frames[i].atMs >= startMs + k * 250 + 100, qPrintable(QString::number(i)));
        QVERIFY2(frames[i].atMs <= startMs + k * 251 + 100 + 51, qPrintable(QString::number(i)));
    }
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ledFrame(0, 3, "ff00"), ledFrame(0, 3, "0000"),
                                                 ledFrame(0, 3, "ff00"), ledFrame(0, 3, "0000")}));
}

void TestLedBinding::disablingFlashStopsTheToggling()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    binding->flash()->setInterval(500);
    binding->flash()->setEnabled(true);
    rig.fixture.runForMs(1000);
    QCOMPARE(rig.takeFramesSoFar().size(), 3);

    binding->flash()->setEnabled(false);
    // A step taken just before may still be on its way.
    rig.fixture.runForMs(150);
    rig.takeFramesSoFar();
    rig.fixture.runForMs(2000);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());
}

void TestLedBinding::rebindingToTheSameLedResendsTheState()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    // Setting the same connection again asks for a fresh lookup; the binding still stands
    // for its LED and sends its state again instead of letting it go.
    binding->setConnection(&rig.connection);
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "ff00")}));
}

void TestLedBinding::indexChangeMovesToTheOtherLed()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    binding->setIndex(4);
    // The new LED lights at once; the old one goes dark on the release's delay.
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 4, "ff00")}));
    rig.fixture.runForMs(100);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ledFrame(0, 3, "0000")}));
}

void TestLedBinding::sectionIndexChangeMovesToTheOtherSection()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    binding->setSectionIndex(1);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ledFrame(1, 3, "ff00"), ledFrame(0, 3, "0000")}));
}

void TestLedBinding::typeChangeMovesToTheOtherLed()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    binding->setType(LedBinding::SoloButton);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ledFrame(0, 13, "ff00"), ledFrame(0, 3, "0000")}));

    // A type with no LED lets the LED go and binds nothing.
    binding->setType(LedBinding::MasterSoloButton);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ledFrame(0, 13, "0000")}));
    binding->setOn(false);
    binding->setOn(true);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestLedBinding::negativeAndOutOfRangeIndicesAreIgnored()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    QSignalSpy indexSpy(binding.get(), &BindingBase::indexChanged);
    QSignalSpy sectionSpy(binding.get(), &BindingBase::sectionIndexChanged);
    binding->setIndex(-1);
    binding->setIndex(256);
    binding->setSectionIndex(-1);
    binding->setSectionIndex(256);
    QCOMPARE(indexSpy.count(), 0);
    QCOMPARE(sectionSpy.count(), 0);
    QCOMPARE(binding->index(), 3);
    QCOMPARE(binding->sectionIndex(), 0);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());

    // An index in range that names no LED lets the LED go.
    binding->setIndex(200);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ledFrame(0, 3, "0000")}));
}

void TestLedBinding::deactivatingDarkensTheLedAfter100Ms()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    binding->setActive(false);
    rig.fixture.runForMs(99);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());
    rig.fixture.runForMs(51);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({ledFrame(0, 3, "0000")}));

    // Inactive, it no longer reaches the LED.
    binding->setBrightness(10);
    binding->setOn(false);
    binding->setOn(true);
    QCOMPARE(rig.takeFrames(), QStringList());

    binding->setActive(true);
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "0a00")}));
}

void TestLedBinding::destructorDarkensTheLedAfter100Ms()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    QSignalSpy activeSpy(binding.get(), &BindingBase::activeChanged);
    const qint64 releasedAtMs = rig.nowMs();
    binding.reset();
    QCOMPARE(activeSpy.count(), 1);

    QCOMPARE(rig.takeReleaseFrames(releasedAtMs),
             QStringList({ledFrame(0, 3, "0000") + " in the release window"}));
}

void TestLedBinding::inactiveWithoutSurfaceKeepsTheHandle()
{
    BindingTestRig rig;
    auto binding = makeLitMuteLed(rig);
    binding->setConnection(nullptr);
    binding->setActive(false);
    rig.fixture.runForMs(200);
    // No release: the LED is not switched off.
    QCOMPARE(rig.takeFramesSoFar(), QStringList());

    // The handle is still held and still reaches the LED.
    binding->setBrightness(100);
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(0, 3, "6400")}));
}

void TestLedBinding::bindsWhenTheSurfaceArrives()
{
    BindingTestRig rig(1, false);
    auto binding = makeBinding(rig, LedBinding::SpillsetButton, 1, 0);
    binding->setOn(true);
    QCOMPARE(rig.takeFrames(), QStringList());

    rig.installSurface();
    QCOMPARE(rig.takeFrames(), QStringList({ledFrame(1, 21, "ff00")}));
}

QTEST_GUILESS_MAIN(TestLedBinding)
#include "tst_ledbinding.moc"
