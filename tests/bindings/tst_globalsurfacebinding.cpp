#include <QMetaMethod>
#include <QMetaProperty>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <limits>

#include "bindings/globalsurfacebinding.h"
#include "support/bindingtestrig.h"
#include "support/callfromqml.h"
#include "support/metaobjectlisting.h"

namespace {

constexpr uint8_t kBrightness = 6;
constexpr uint8_t kOverBrightness = 22;

// The same message to both sections of the two-section console, in the order the links
// send them.
QStringList toEverySection(uint8_t type, const char* payloadHex)
{
    return {BindingTestRig::frame(0, type, 0, payloadHex),
            BindingTestRig::frame(1, type, 0, payloadHex)};
}

QStringList bothValues(const char* brightnessHex, const char* overBrightnessHex)
{
    return {BindingTestRig::frame(0, kBrightness, 0, brightnessHex),
            BindingTestRig::frame(0, kOverBrightness, 0, overBrightnessHex),
            BindingTestRig::frame(1, kBrightness, 0, brightnessHex),
            BindingTestRig::frame(1, kOverBrightness, 0, overBrightnessHex)};
}

}  // namespace

class TestGlobalSurfaceBinding : public QObject
{
    Q_OBJECT

private slots:
    void metaObjectListsSignalsSlotAndPropertiesInOrder();
    void freshBindingHasNoConnectionAndZeroBrightness();

    void brightnessReachesEverySection();
    void overBrightnessReachesEverySection();
    void sameValueEmitsAndSendsNothing();
    void brightness256IsIgnored();
    void negativeBrightnessIsIgnored();
    void overBrightnessOutOfRangeIsIgnored();
    void brightness255IsTheTop();

    void brightnessStoredBeforeTheSurfaceExistsReachesItLater();
    void connectingToARunningSurfaceSendsBothValues();
    void connectingToAnEmptyConnectionSendsNothing();
    void everyNewSurfaceGetsBothValues();
    void nullConnectionStopsFollowingTheSurface();
    void creationStepsChangeNothing();
    void resendCalledFromQmlSendsBothValuesAgain();
};

void TestGlobalSurfaceBinding::metaObjectListsSignalsSlotAndPropertiesInOrder()
{
    const QMetaObject& meta = GlobalSurfaceBinding::staticMetaObject;
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(methodSignatures(meta, QMetaMethod::Signal),
             QStringList({"surfaceBrightnessChanged()", "surfaceOverBrightnessChanged()"}));
    QCOMPARE(methodSignatures(meta, QMetaMethod::Slot), QStringList({"resendValuesToSurface()"}));
    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QMetaProperty property = meta.property(i);
        properties << QStringLiteral("%1:%2:%3")
                          .arg(QString::fromLatin1(property.name()),
                               QString::fromLatin1(property.typeName()),
                               QString::fromLatin1(property.notifySignal().name()));
    }
    QCOMPARE(properties, QStringList({"connection:SurfaceConnection*:",
                                      "surfaceBrightness:int:surfaceBrightnessChanged",
                                      "surfaceOverBrightness:int:surfaceOverBrightnessChanged"}));
    QVERIFY(meta.property(meta.indexOfProperty("connection")).isWritable());
    GlobalSurfaceBinding binding;
    QVERIFY(binding.qt_metacast("org.qt-project.Qt.QQmlParserStatus") != nullptr);
}

void TestGlobalSurfaceBinding::freshBindingHasNoConnectionAndZeroBrightness()
{
    GlobalSurfaceBinding binding;
    QCOMPARE(binding.connection(), nullptr);
    QCOMPARE(binding.surfaceBrightness(), 0);
    QCOMPARE(binding.surfaceOverBrightness(), 0);
}

void TestGlobalSurfaceBinding::brightnessReachesEverySection()
{
    BindingTestRig rig;
    GlobalSurfaceBinding binding;
    binding.setConnection(&rig.connection);
    rig.takeFrames();
    QSignalSpy spy(&binding, &GlobalSurfaceBinding::surfaceBrightnessChanged);
    binding.setSurfaceBrightness(200);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(binding.surfaceBrightness(), 200);
    QCOMPARE(rig.takeFrames(), toEverySection(kBrightness, "c8"));
}

void TestGlobalSurfaceBinding::overBrightnessReachesEverySection()
{
    BindingTestRig rig;
    GlobalSurfaceBinding binding;
    binding.setConnection(&rig.connection);
    rig.takeFrames();
    QSignalSpy spy(&binding, &GlobalSurfaceBinding::surfaceOverBrightnessChanged);
    binding.setSurfaceOverBrightness(17);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(binding.surfaceOverBrightness(), 17);
    QCOMPARE(rig.takeFrames(), toEverySection(kOverBrightness, "11"));
}

void TestGlobalSurfaceBinding::sameValueEmitsAndSendsNothing()
{
    BindingTestRig rig;
    GlobalSurfaceBinding binding;
    binding.setConnection(&rig.connection);
    binding.setSurfaceBrightness(50);
    binding.setSurfaceOverBrightness(60);
    rig.takeFrames();
    QSignalSpy spy(&binding, &GlobalSurfaceBinding::surfaceBrightnessChanged);
    QSignalSpy overSpy(&binding, &GlobalSurfaceBinding::surfaceOverBrightnessChanged);
    binding.setSurfaceBrightness(50);
    binding.setSurfaceOverBrightness(60);
    QCOMPARE(spy.count(), 0);
    QCOMPARE(overSpy.count(), 0);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestGlobalSurfaceBinding::brightness256IsIgnored()
{
    BindingTestRig rig;
    GlobalSurfaceBinding binding;
    binding.setConnection(&rig.connection);
    binding.setSurfaceBrightness(80);
    rig.takeFrames();
    QSignalSpy spy(&binding, &GlobalSurfaceBinding::surfaceBrightnessChanged);
    binding.setSurfaceBrightness(256);
    binding.setSurfaceBrightness(1000);
    QCOMPARE(spy.count(), 0);
    QCOMPARE(binding.surfaceBrightness(), 80);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestGlobalSurfaceBinding::negativeBrightnessIsIgnored()
{
    BindingTestRig rig;
    GlobalSurfaceBinding binding;
    binding.setConnection(&rig.connection);
    binding.setSurfaceBrightness(80);
    rig.takeFrames();
    QSignalSpy spy(&binding, &GlobalSurfaceBinding::surfaceBrightnessChanged);
    binding.setSurfaceBrightness(-1);
    binding.setSurfaceBrightness(std::numeric_limits<int>::min());
    QCOMPARE(spy.count(), 0);
    QCOMPARE(binding.surfaceBrightness(), 80);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestGlobalSurfaceBinding::overBrightnessOutOfRangeIsIgnored()
{
    BindingTestRig rig;
    GlobalSurfaceBinding binding;
    binding.setConnection(&rig.connection);
    rig.takeFrames();
    QSignalSpy spy(&binding, &GlobalSurfaceBinding::surfaceOverBrightnessChanged);
    binding.setSurfaceOverBrightness(256);
    binding.setSurfaceOverBrightness(-1);
    QCOMPARE(spy.count(), 0);
    QCOMPARE(binding.surfaceOverBrightness(), 0);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestGlobalSurfaceBinding::brightness255IsTheTop()
{
    BindingTestRig rig;
    GlobalSurfaceBinding binding;
    binding.setConnection(&rig.connection);
    rig.takeFrames();
    binding.setSurfaceBrightness(255);
    QCOMPARE(binding.surfaceBrightness(), 255);
    QCOMPARE(rig.takeFrames(), toEverySection(kBrightness, "ff"));
}

void TestGlobalSurfaceBinding::brightnessStoredBeforeTheSurfaceExistsReachesItLater()
{
    BindingTestRig rig(1, false);
    GlobalSurfaceBinding binding;
    binding.setConnection(&rig.connection);
    QSignalSpy spy(&binding, &GlobalSurfaceBinding::surfaceBrightnessChanged);
    binding.setSurfaceBrightness(100);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(binding.surfaceBrightness(), 100);
    QCOMPARE(rig.takeFrames(), QStringList());

    rig.installSurface();
    QCOMPARE(rig.takeFrames(), bothValues("64", "00"));
}

void TestGlobalSurfaceBinding::connectingToARunningSurfaceSendsBothValues()
{
    BindingTestRig rig;
    GlobalSurfaceBinding binding;
    binding.setSurfaceBrightness(30);
    binding.setSurfaceOverBrightness(40);
    QCOMPARE(rig.takeFrames(), QStringList());
    binding.setConnection(&rig.connection);
    QCOMPARE(binding.connection(), &rig.connection);
    QCOMPARE(rig.takeFrames(), bothValues("1e", "28"));
}

void TestGlobalSurfaceBinding::connectingToAnEmptyConnectionSendsNothing()
{
    BindingTestRig rig(1, false);
    GlobalSurfaceBinding binding;
    binding.setSurfaceBrightness(30);
    binding.setConnection(&rig.connection);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestGlobalSurfaceBinding::everyNewSurfaceGetsBothValues()
{
    BindingTestRig rig;
    GlobalSurfaceBinding binding;
    binding.setConnection(&rig.connection);
    binding.setSurfaceBrightness(7);
    binding.setSurfaceOverBrightness(9);
    rig.takeFrames();
    // The surface service installs a surface again (here the same one).
    rig.installSurface();
    QCOMPARE(rig.takeFrames(), bothValues("07", "09"));
}

void TestGlobalSurfaceBinding::nullConnectionStopsFollowingTheSurface()
{
    BindingTestRig rig;
    GlobalSurfaceBinding binding;
    binding.setConnection(&rig.connection);
    binding.setSurfaceBrightness(7);
    rig.takeFrames();
    binding.setConnection(nullptr);
    QCOMPARE(binding.connection(), nullptr);
    rig.installSurface();
    binding.setSurfaceBrightness(8);
    QCOMPARE(binding.surfaceBrightness(), 8);
    QCOMPARE(rig.takeFrames(), QStringList());
}

void TestGlobalSurfaceBinding::creationStepsChangeNothing()
{
    BindingTestRig rig;
    GlobalSurfaceBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    rig.takeFrames();
    // Acts on every write at once, also before QML has finished creating it.
    binding.setSurfaceBrightness(12);
    QCOMPARE(rig.takeFrames(), toEverySection(kBrightness, "0c"));
    binding.componentComplete();
    QCOMPARE(rig.takeFrames(), QStringList());
    QCOMPARE(binding.surfaceBrightness(), 12);
}

// A QML handler may hand both values to the surface again, e.g. after the console
// changed them behind the surface's back.
void TestGlobalSurfaceBinding::resendCalledFromQmlSendsBothValuesAgain()
{
    BindingTestRig rig;
    GlobalSurfaceBinding binding;
    binding.setConnection(&rig.connection);
    binding.setSurfaceBrightness(50);
    binding.setSurfaceOverBrightness(60);
    rig.takeFrames();
    QCOMPARE(callFromQml(&binding, QStringLiteral("target.resendValuesToSurface()")), QString());
    QCOMPARE(rig.takeFrames(), bothValues("32", "3c"));
}

QTEST_GUILESS_MAIN(TestGlobalSurfaceBinding)
#include "tst_globalsurfacebinding.moc"
