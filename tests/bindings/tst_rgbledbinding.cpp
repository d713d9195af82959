#include <QMetaEnum>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <memory>

#include "bindings/rgbledbinding.h"
#include "support/bindingtestrig.h"
#include "support/metaobjectlisting.h"

namespace {

constexpr uint8_t kRgb = 12;

QString rgbFrame(uint8_t section, uint8_t device, const char* payloadHex)
{
    return BindingTestRig::frame(section, kRgb, device, payloadHex);
}

std::unique_ptr<RgbLedBinding> makeBinding(BindingTestRig& rig, RgbLedBinding::RgbLedType type,
                                           int section, int index, bool active = true)
{
    return makeWiredBinding<RgbLedBinding>(rig, type, section, index, active);
}

// The name logo of the master section (section 1), red, with the binding's own frames
// already taken.
std::unique_ptr<RgbLedBinding> makeRedNameLogo(BindingTestRig& rig)
{
    auto binding = makeBinding(rig, RgbLedBinding::NameLogo, 1, 0);
    binding->setColor(Qt::red);
    rig.takeFrames();
    return binding;
}

}  // namespace

class TestRgbLedBinding : public QObject
{
    Q_OBJECT

private slots:
    void metaObjectListsSignalsAndPropertiesInOrder();
    void rgbLedTypeEnumHasTheQmlKeys();
    void freshBindingIsBlackAndNamesNothing();

    void typeNamesTheLight_data();
    void typeNamesTheLight();
    void typeWriteLooksUpAtOnceEvenBeforeComplete();

    void colourReachesTheLineWithoutAlpha();
    void sameColourEmitsAndSendsNothing();
    void sameColourInAnotherModelCountsAsAChange();
    void blackOnBindingSendsNothingToABlackLight();

    void rebindingToTheSameLightKeepsIt();
    void indexPlaysNoPartForALogo();
    void typeChangeMovesToTheOtherLight();
    void sectionIndexChangeMovesToTheOtherSection();
    void negativeAndOutOfRangeIndicesAreIgnored();
    void deactivatingTurnsTheLightBlackAfter100Ms();
    void destructorTurnsTheLightBlackAfter100Ms();
    void inactiveWithoutSurfaceKeepsTheHandle();
    void bindsWhenTheSurfaceArrives();
};

void TestRgbLedBinding::metaObjectListsSignalsAndPropertiesInOrder()
{
    const QMetaObject& meta = RgbLedBinding::staticMetaObject;
    QCOMPARE(meta.superClass(), &BindingBase::staticMetaObject);
    QCOMPARE(methodSignatures(meta, QMetaMethod::Signal),
             QStringList({"typeChanged()", "colorChanged()"}));
    QCOMPARE(methodSignatures(meta, QMetaMethod::Slot), QStringList());
    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        properties << QString::fromLatin1(meta.property(i).name());
    }
    QCOMPARE(properties, QStringList({"type", "color"}));
    const QMetaProperty color = meta.property(meta.indexOfProperty("color"));
    QCOMPARE(color.type(), QVariant::Color);
    QCOMPARE(color.notifySignal().name(), QByteArray("colorChanged"));
    QCOMPARE(meta.property(meta.indexOfProperty("type")).notifySignal().name(),
             QByteArray("typeChanged"));
}

void TestRgbLedBinding::rgbLedTypeEnumHasTheQmlKeys()
{
    const QMetaObject& meta = RgbLedBinding::staticMetaObject;
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 1);
    const QMetaEnum types = meta.enumerator(meta.indexOfEnumerator("RgbLedType"));
    QVERIFY(types.isValid());
    QStringList keys;
    for (int i = 0; i < types.keyCount(); ++i) {
        keys << QStringLiteral("%1=%2").arg(QString::fromLatin1(types.key(i))).arg(types.value(i));
    }
    QCOMPARE(keys, QStringList({"None=0", "UnderscreenRotaryButton=1", "SideRotaryButton=2",
                                "NameLogo=3", "MainLogo=4", "HeadphoneLogo=5", "SnapshotLogo=6",
                                "DashboardLogo=7", "OverviewLogo=8"}));
}

void TestRgbLedBinding::freshBindingIsBlackAndNamesNothing()
{
    RgbLedBinding binding;
    QCOMPARE(binding.type(), RgbLedBinding::None);
    QCOMPARE(binding.color(), QColor(Qt::black));
    QCOMPARE(binding.active(), false);
}

void TestRgbLedBinding::typeNamesTheLight_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("section");
    QTest::addColumn<int>("index");
    // The light coloured, or -1 for none.
    QTest::addColumn<int>("device");

    // The rotaries' push-switch lights are the rotaries' own: the surface has no separate
    // RGB LED for them, so these types find nothing even where the number exists.
    QTest::newRow("strip rotary 0") << int(RgbLedBinding::UnderscreenRotaryButton) << 0 << 0 << -1;
    QTest::newRow("strip rotary 9") << int(RgbLedBinding::UnderscreenRotaryButton) << 1 << 9 << -1;
    QTest::newRow("strip rotary 10")
        << int(RgbLedBinding::UnderscreenRotaryButton) << 0 << 10 << -1;
    QTest::newRow("side rotary 0") << int(RgbLedBinding::SideRotaryButton) << 1 << 0 << -1;
    QTest::newRow("side rotary 5") << int(RgbLedBinding::SideRotaryButton) << 1 << 5 << -1;
    QTest::newRow("name logo") << int(RgbLedBinding::NameLogo) << 1 << 0 << 16;
    QTest::newRow("main logo") << int(RgbLedBinding::MainLogo) << 1 << 0 << 17;
    QTest::newRow("headphone logo") << int(RgbLedBinding::HeadphoneLogo) << 1 << 0 << 18;
    QTest::newRow("snapshot logo") << int(RgbLedBinding::SnapshotLogo) << 1 << 0 << 19;
    QTest::newRow("dashboard logo") << int(RgbLedBinding::DashboardLogo) << 1 << 0 << 20;
    QTest::newRow("overview logo") << int(RgbLedBinding::OverviewLogo) << 1 << 0 << 21;
    QTest::newRow("overview logo, index ignored")
        << int(RgbLedBinding::OverviewLogo) << 1 << 30 << 21;
    QTest::newRow("logo on a strip section") << int(RgbLedBinding::MainLogo) << 0 << 0 << -1;
    QTest::newRow("none") << int(RgbLedBinding::None) << 0 << 0 << -1;
    QTest::newRow("out of the enumeration") << 9 << 1 << 0 << -1;
}

void TestRgbLedBinding::typeNamesTheLight()
{
    QFETCH(int, type);
    QFETCH(int, section);
    QFETCH(int, index);
    QFETCH(int, device);

    BindingTestRig rig;
    auto binding = makeBinding(rig, static_cast<RgbLedBinding::RgbLedType>(type), section, index);
    binding->setColor(QColor(0x12, 0x34, 0x56));
    const QStringList frames = rig.takeFrames();
    if (device < 0) {
        QCOMPARE(frames, QStringList());
    } else {
        QCOMPARE(frames, QStringList({rgbFrame(static_cast<uint8_t>(section),
                                               static_cast<uint8_t>(device), "12345600")}));
    }
}

void TestRgbLedBinding::typeWriteLooksUpAtOnceEvenBeforeComplete()
{
    BindingTestRig rig;
    RgbLedBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setSectionIndex(1);
    binding.setActive(true);
    binding.setColor(Qt::blue);
    QCOMPARE(rig.takeFrames(), QStringList());

    QSignalSpy typeSpy(&binding, &RgbLedBinding::typeChanged);
    binding.setType(RgbLedBinding::SnapshotLogo);
    QCOMPARE(typeSpy.count(), 1);
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(1, 19, "0000ff00")}));
}

void TestRgbLedBinding::colourReachesTheLineWithoutAlpha()
{
    BindingTestRig rig;
    auto binding = makeRedNameLogo(rig);
    QSignalSpy spy(binding.get(), &RgbLedBinding::colorChanged);
    binding->setColor(QColor(0x00, 0xff, 0x80, 0x10));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(binding->color(), QColor(0x00, 0xff, 0x80, 0x10));
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(1, 16, "00ff8000")}));
}

void TestRgbLedBinding::sameColourEmitsAndSendsNothing()
{
    BindingTestRig rig;
    auto binding = makeRedNameLogo(rig);
    QSignalSpy spy(binding.get(), &RgbLedBinding::colorChanged);
    binding->setColor(QColor(255, 0, 0));
    QCOMPARE(spy.count(), 0);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestRgbLedBinding::sameColourInAnotherModelCountsAsAChange()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, RgbLedBinding::NameLogo, 1, 0);
    rig.takeFrames();
    QSignalSpy spy(binding.get(), &RgbLedBinding::colorChanged);
    binding->setColor(QColor(255, 0, 0));
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(1, 16, "ff000000")}));
    // Colours compare with their colour model: red given as hue, saturation and value is
    // another colour to QColor, so it is stored, announced and sent again.
    binding->setColor(QColor::fromHsv(0, 255, 255));
    QCOMPARE(spy.count(), 2);
    QCOMPARE(binding->color().spec(), QColor::Hsv);
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(1, 16, "ff000000")}));
}

void TestRgbLedBinding::blackOnBindingSendsNothingToABlackLight()
{
    BindingTestRig rig;
    auto binding = makeBinding(rig, RgbLedBinding::NameLogo, 1, 0);
    // The binding sends its black, which the light already shows.
    QCOMPARE(rig.takeFrames(), QStringList());
    binding->setColor(Qt::white);
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(1, 16, "ffffff00")}));
}

void TestRgbLedBinding::rebindingToTheSameLightKeepsIt()
{
    BindingTestRig rig;
    auto binding = makeRedNameLogo(rig);
    binding->setConnection(&rig.connection);
    rig.fixture.runForMs(200);
    // Still bound: no release, and colours still arrive.
    QCOMPARE(rig.takeFramesSoFar(), QStringList());
    binding->setColor(Qt::green);
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(1, 16, "00ff0000")}));
}

void TestRgbLedBinding::indexPlaysNoPartForALogo()
{
    BindingTestRig rig;
    auto binding = makeRedNameLogo(rig);
    binding->setIndex(7);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());
    binding->setColor(Qt::cyan);
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(1, 16, "00ffff00")}));
}

void TestRgbLedBinding::typeChangeMovesToTheOtherLight()
{
    BindingTestRig rig;
    auto binding = makeRedNameLogo(rig);
    binding->setType(RgbLedBinding::DashboardLogo);
    // The new logo lights at once; the old one goes black on the release's delay.
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(1, 20, "ff000000")}));
    rig.fixture.runForMs(100);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({rgbFrame(1, 16, "00000000")}));
}

void TestRgbLedBinding::sectionIndexChangeMovesToTheOtherSection()
{
    BindingTestRig rig(2);
    // The three-section console has its logos in section 2.
    auto binding = makeBinding(rig, RgbLedBinding::NameLogo, 2, 0);
    binding->setColor(Qt::red);
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(2, 16, "ff000000")}));
    // Section 0 has no logo: the binding lets go of section 2's and binds nothing.
    binding->setSectionIndex(0);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({rgbFrame(2, 16, "00000000")}));
    binding->setColor(Qt::green);
    QCOMPARE(rig.takeFrames(), QStringList());
    binding->setSectionIndex(2);
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(2, 16, "00ff0000")}));
}

void TestRgbLedBinding::negativeAndOutOfRangeIndicesAreIgnored()
{
    BindingTestRig rig;
    auto binding = makeRedNameLogo(rig);
    QSignalSpy indexSpy(binding.get(), &BindingBase::indexChanged);
    binding->setIndex(-1);
    binding->setIndex(256);
    binding->setSectionIndex(-3);
    binding->setSectionIndex(1000);
    QCOMPARE(indexSpy.count(), 0);
    QCOMPARE(binding->index(), 0);
    QCOMPARE(binding->sectionIndex(), 1);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());
}

void TestRgbLedBinding::deactivatingTurnsTheLightBlackAfter100Ms()
{
    BindingTestRig rig;
    auto binding = makeRedNameLogo(rig);
    binding->setActive(false);
    rig.fixture.runForMs(99);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());
    rig.fixture.runForMs(51);
    QCOMPARE(rig.takeFramesSoFar(), QStringList({rgbFrame(1, 16, "00000000")}));

    binding->setColor(Qt::green);
    QCOMPARE(rig.takeFrames(), QStringList());
    binding->setActive(true);
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(1, 16, "00ff0000")}));
}

void TestRgbLedBinding::destructorTurnsTheLightBlackAfter100Ms()
{
    BindingTestRig rig;
    auto binding = makeRedNameLogo(rig);
    const qint64 releasedAtMs = rig.nowMs();
    binding.reset();
    QCOMPARE(rig.takeReleaseFrames(releasedAtMs),
             QStringList({rgbFrame(1, 16, "00000000") + " in the release window"}));
}

void TestRgbLedBinding::inactiveWithoutSurfaceKeepsTheHandle()
{
    BindingTestRig rig;
    auto binding = makeRedNameLogo(rig);
    binding->setConnection(nullptr);
    binding->setActive(false);
    rig.fixture.runForMs(200);
    QCOMPARE(rig.takeFramesSoFar(), QStringList());

    binding->setColor(Qt::blue);
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(1, 16, "0000ff00")}));
}

void TestRgbLedBinding::bindsWhenTheSurfaceArrives()
{
    BindingTestRig rig(1, false);
    auto binding = makeBinding(rig, RgbLedBinding::MainLogo, 1, 0);
    binding->setColor(Qt::yellow);
    QCOMPARE(rig.takeFrames(), QStringList());
    rig.installSurface();
    QCOMPARE(rig.takeFrames(), QStringList({rgbFrame(1, 17, "ffff0000")}));
}

QTEST_GUILESS_MAIN(TestRgbLedBinding)
#include "tst_rgbledbinding.moc"
