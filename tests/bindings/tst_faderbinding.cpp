#include <QCoreApplication>
#include <QMetaMethod>
#include <QMetaObject>
#include <QPointer>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <set>

#include "bindings/faderbinding.h"
#include "bindings/faderlockinfo.h"
#include "bindings/responsecurve.h"
#include "bindings/surfaceconnection.h"
#include "software/qmlcontrollerconnection.h"
#include "support/bindingtestrig.h"
#include "support/deferreddeletes.h"
#include "support/fakesoftwarehandler.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/softwaresurfacefixture.h"
#include "surface/fader.h"
#include "surface/surface.h"

using namespace Velmora::Worksurface;

namespace {

constexpr uint8_t kFaderPosition = 7;
constexpr uint8_t kFaderBackstop = 8;
constexpr uint8_t kFaderDetent = 9;
constexpr uint8_t kFaderDriveMode = 10;
constexpr uint8_t kFaderTouch = 16;

constexpr float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

// A frame as the tests of the bindings write them (BindingTestRig::frame).
QString frame(int section, int type, int device, const char* payloadHex)
{
    return BindingTestRig::frame(static_cast<uint8_t>(section), static_cast<uint8_t>(type),
                                 static_cast<uint8_t>(device), payloadHex);
}

// The bit pattern, so that 0.0 and -0.0 and values one ulp apart all differ.
quint32 bitsOf(float value)
{
    quint32 bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// A two-section console over the software link, its links up and its unbound faders
// parked, handed to a SurfaceConnection as the surface service does.
struct Rig
{
    ManualClock clock;
    SoftwareSurfaceFixture surface{clock, 1};
    SurfaceConnection connection{surface.sharedController(), nullptr};

    Rig()
    {
        surface.installInto(connection);
        surface.start();
        surface.runForMs(200);
        settle();
        surface.sectionSide().clear();
    }

    ~Rig() { flushDeferredDeletes(); }

    // Delivers the handle's queued calls to the faders, then lets the link pass send
    // everything queued.
    void settle()
    {
        QCoreApplication::sendPostedEvents();
        surface.drain();
    }

    void report(uint8_t section, uint8_t type, uint8_t device, std::vector<uint8_t> payload)
    {
        surface.sendToPlugin(section, type, device, std::move(payload));
        QCoreApplication::sendPostedEvents();
    }

    void reportMove(uint8_t section, uint8_t device, uint16_t position)
    {
        report(section, kFaderPosition, device,
               {static_cast<uint8_t>(position >> 8), static_cast<uint8_t>(position & 0xFF)});
    }

    // The fader messages that reached the sections, in order.
    QStringList faderFrames()
    {
        const std::set<uint8_t> types{kFaderPosition, kFaderBackstop, kFaderDetent,
                                      kFaderDriveMode};
        QStringList out;
        for (const FakeSoftwareHandler::Offer& offer : surface.sectionSide().offers()) {
            if (types.count(offer.message.type) == 0) {
                continue;
            }
            const QByteArray payload(reinterpret_cast<const char*>(offer.message.payload.data()),
                                     static_cast<int>(offer.message.payload.size()));
            out << frame(offer.sectionIndex, offer.message.type, offer.message.deviceId,
                         payload.toHex().constData());
        }
        return out;
    }

    void clearSent() { surface.sectionSide().clear(); }

    std::shared_ptr<Fader> fader(int section, int deviceId)
    {
        // Device ids 0..9 are strip faders, 10 the master fader.
        const int type = deviceId == 10 ? 2 : 1;
        return std::dynamic_pointer_cast<Fader>(surface.surface().fader(type, section, deviceId));
    }
};

// Plays QML creating a binding with its initial values.
void declare(FaderBinding& binding, SurfaceConnection* connection, FaderBinding::FaderType type,
             int section, int index, bool active = true)
{
    binding.classBegin();
    binding.setConnection(connection);
    binding.setType(type);
    binding.setSectionIndex(section);
    binding.setIndex(index);
    binding.setActive(active);
    binding.componentComplete();
}

}  // namespace

// A QML view's touch handler.
class TouchTarget : public QObject
{
    Q_OBJECT
public:
    QList<bool> calls;
    Q_INVOKABLE void onFaderTouched(bool touched) { calls << touched; }
};

// Has a handler, but not for a bool.
class WrongTouchTarget : public QObject
{
    Q_OBJECT
public:
    Q_INVOKABLE void onFaderTouched(int) {}
};

class TestFaderBinding : public QObject
{
    Q_OBJECT

private slots:
    void metaObjectIsInTheQmlOrder();
    void enumerationsCarryTheConsoleValues();
    void startsUnboundWithItsInitialValues();
    void lockStartsDisabledAtTheBottom();
    void lockValueIgnoresStepsOfATenthOrLess();

    // Binding
    void bindingSendsPositionDetentAndBackstop();
    void masterFaderBindingIgnoresItsIndexAndBindsFaderTen();
    void faderBindingWithIndexTenBindsNothing();
    void changingIndexOrSectionMovesToTheNewFader();
    void settingTheSameConnectionAgainResendsEverything();
    void typeTakesEffectOnlyAtTheNextLookup();
    void rebindLooksUpAgainWithoutReleasingTheOldHandle();
    void inactiveBindingReportsUntouchedOnEveryUpdate();
    void makingItInactiveWithNoSurfaceReachableReleasesTheFader();
    void destructorReleasesTheFader();
    void bindingToATouchedFaderReportsTheTouch();

    // Values
    void valueWritesWithinATenthOfADecibelSendNothing_data();
    void valueWritesWithinATenthOfADecibelSendNothing();
    void modeIsSentAsTheDriveMode();
    void detentAndBackstopAreKeptAsPositions();
    void conversionModeSwitchMovesTheDetentAndKeepsTheValue();
    void lockSendsEnabledThenPositionAndOnlyEnabledWhenSwitchedOff();
    void lockEnabledReachesTheFaderBeforeItsPosition();

    // Read-back
    void moveNearTheDetentSnapsToUnity_data();
    void moveNearTheDetentSnapsToUnity();
    void movesAreConvertedUnderTheConversionMode();
    void touchesAreReportedAndReadBack();

    // Touch target
    void touchTargetWithoutHandlerIsRefusedWithAWarning();
    void touchTargetHearsTouchesDirectly();
    void inactiveBindingTellsItsTargetUntouched();
    void changingTargetWhileTouchedMovesTheTouch();

    // Bad input
    void badValueDecibels_data();
    void badValueDecibels();
    void badDetentDecibels_data();
    void badDetentDecibels();
    void badBackstopDecibels_data();
    void badBackstopDecibels();
    void badLockDecibels_data();
    void badLockDecibels();
    void outOfRangeIndicesAreIgnored();
};

void TestFaderBinding::metaObjectIsInTheQmlOrder()
{
    const QMetaObject& meta = FaderBinding::staticMetaObject;
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        methods << QString::fromLatin1(meta.method(i).methodSignature());
    }
    QCOMPARE(methods,
             QStringList(
                 {"typeChanged()", "modeChanged()", "conversionModeChanged()", "valueChanged()",
                  "detentChanged()", "backstopChanged()", "faderMoved(float)", "faderTouched(bool)",
                  "touchTargetChanged()", "convertFaderValueToValueAndInformFaderMove(ushort)",
                  "informTouchTarget(bool)", "sendLockEnabled()", "sendLockValue()", "rebind()"}));
    QCOMPARE(meta.method(meta.indexOfMethod("faderMoved(float)")).parameterNames(),
             QList<QByteArray>({"value"}));
    QCOMPARE(meta.method(meta.indexOfMethod("faderTouched(bool)")).parameterNames(),
             QList<QByteArray>({"touched"}));
    QCOMPARE(meta.method(meta.indexOfMethod("rebind()")).methodType(), QMetaMethod::Method);

    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        properties << QString::fromLatin1(meta.property(i).name());
    }
    QCOMPARE(properties, QStringList({"type", "mode", "conversionMode", "lock", "value", "detent",
                                      "backstop", "touched", "touchTarget"}));
    // The base's four come first.
    QCOMPARE(meta.propertyOffset() - QObject::staticMetaObject.propertyCount(), 4);

    const QMetaProperty lock = meta.property(meta.indexOfProperty("lock"));
    QVERIFY(!lock.isWritable());
    QVERIFY(!lock.hasNotifySignal());
    const QMetaProperty touched = meta.property(meta.indexOfProperty("touched"));
    QVERIFY(!touched.isWritable());
    QCOMPARE(touched.notifySignal().name(), QByteArray("faderTouched"));
    QCOMPARE(meta.property(meta.indexOfProperty("detent")).notifySignal().name(),
             QByteArray("detentChanged"));

    const QMetaObject& lockMeta = FaderLockInfo::staticMetaObject;
    QStringList lockMethods;
    for (int i = lockMeta.methodOffset(); i < lockMeta.methodCount(); ++i) {
        lockMethods << QString::fromLatin1(lockMeta.method(i).methodSignature());
    }
    QCOMPARE(lockMethods, QStringList({"enabledChanged()", "valueChanged()"}));
}

void TestFaderBinding::enumerationsCarryTheConsoleValues()
{
    const QMetaObject& meta = FaderBinding::staticMetaObject;
    const QMetaEnum type = meta.enumerator(meta.indexOfEnumerator("FaderType"));
    QCOMPARE(type.keyCount(), 3);
    QCOMPARE(type.keyToValue("None"), 0);
    QCOMPARE(type.keyToValue("Fader"), 1);
    QCOMPARE(type.keyToValue("MasterFader"), 2);
    const QMetaEnum mode = meta.enumerator(meta.indexOfEnumerator("FaderMode"));
    QCOMPARE(mode.keyCount(), 2);
    QCOMPARE(mode.keyToValue("Free"), 0);
    QCOMPARE(mode.keyToValue("Protected"), 1);
    QCOMPARE(FaderBinding::MaxFaderdBValue(), 10.0f);
    QCOMPARE(FaderBinding::MinFaderdBValue(), -150.0f);
}

void TestFaderBinding::startsUnboundWithItsInitialValues()
{
    FaderBinding binding;
    QCOMPARE(binding.type(), FaderBinding::None);
    QCOMPARE(binding.mode(), FaderBinding::Protected);
    QCOMPARE(binding.conversionMode(), ResponseCurve::Default);
    QCOMPARE(binding.value(), -150.0f);
    // No detent and no backstop: position 0, the bottom of the law.
    QCOMPARE(binding.detent(), -150.0f);
    QCOMPARE(binding.backstop(), -150.0f);
    QCOMPARE(binding.touched(), false);
    QCOMPARE(binding.touchTarget(), nullptr);
    QVERIFY(binding.lock() != nullptr);
    QCOMPARE(binding.lock()->parent(), &binding);
    QCOMPARE(binding.active(), false);
    QCOMPARE(binding.sectionIndex(), 255);
    QCOMPARE(binding.index(), 255);
}

void TestFaderBinding::lockStartsDisabledAtTheBottom()
{
    FaderLockInfo lock;
    QCOMPARE(lock.enabled(), false);
    QCOMPARE(lock.value(), -150.0f);
    QSignalSpy enabledChanged(&lock, &FaderLockInfo::enabledChanged);
    lock.setEnabled(false);
    QCOMPARE(enabledChanged.count(), 0);
    lock.setEnabled(true);
    lock.setEnabled(true);
    QCOMPARE(enabledChanged.count(), 1);
}

void TestFaderBinding::lockValueIgnoresStepsOfATenthOrLess()
{
    FaderLockInfo lock;
    QSignalSpy valueChanged(&lock, &FaderLockInfo::valueChanged);
    lock.setValue(-150.1f + 0.05f);
    QCOMPARE(valueChanged.count(), 0);
    lock.setValue(0.05f);
    QCOMPARE(valueChanged.count(), 1);
    lock.setValue(0.0f);
    QCOMPARE(valueChanged.count(), 1);
    QCOMPARE(lock.value(), 0.05f);
    lock.setValue(0.2f);
    QCOMPARE(valueChanged.count(), 2);
    QCOMPARE(lock.value(), 0.2f);
}

void TestFaderBinding::bindingSendsPositionDetentAndBackstop()
{
    Rig rig;
    FaderBinding binding;
    binding.setValue(0.0f);
    binding.setDetent(0.0f);
    binding.setBackstop(-20.0f);
    // Nothing is sent before the binding is complete.
    rig.settle();
    QCOMPARE(rig.faderFrames(), QStringList());

    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    // Lock and mode first (neither makes a message here: the lock is off and the fader
    // starts in the protected drive mode), then position 400, detent 400, backstop 190.
    QCOMPARE(rig.faderFrames(),
             QStringList({frame(0, kFaderPosition, 3, "0190"), frame(0, kFaderDetent, 3, "0190"),
                          frame(0, kFaderBackstop, 3, "00be")}));
    const std::shared_ptr<Fader> fader = rig.fader(0, 3);
    QVERIFY(fader->hasHandle());
    QCOMPARE(fader->position(), quint16(400));
    QCOMPARE(fader->driveMode(), 1);
    QCOMPARE(fader->lockEnabled(), false);
}

void TestFaderBinding::masterFaderBindingIgnoresItsIndexAndBindsFaderTen()
{
    Rig rig;
    FaderBinding binding;
    binding.setValue(0.0f);
    declare(binding, &rig.connection, FaderBinding::MasterFader, 1, 3);
    rig.settle();
    QCOMPARE(rig.faderFrames(),
             QStringList({frame(1, kFaderPosition, 10, "0190"), frame(1, kFaderDetent, 10, "0000"),
                          frame(1, kFaderBackstop, 10, "0000")}));
    QVERIFY(rig.fader(1, 10)->hasHandle());
    QVERIFY(!rig.fader(1, 3)->hasHandle());

    QSignalSpy moved(&binding, &FaderBinding::faderMoved);
    rig.reportMove(1, 3, 460);
    QCOMPARE(moved.count(), 0);
    rig.reportMove(1, 10, 460);
    QCOMPARE(moved.count(), 1);
    QCOMPARE(moved.at(0).at(0).toFloat(), 5.0f);

    // Still the same fader after an index change: the index plays no part.
    rig.clearSent();
    binding.setIndex(7);
    rig.settle();
    QVERIFY(rig.fader(1, 10)->hasHandle());
    QVERIFY(!rig.fader(1, 7)->hasHandle());
}

void TestFaderBinding::faderBindingWithIndexTenBindsNothing()
{
    Rig rig;
    FaderBinding binding;
    binding.setValue(0.0f);
    declare(binding, &rig.connection, FaderBinding::Fader, 1, 10);
    rig.settle();
    QCOMPARE(rig.faderFrames(), QStringList());
    QVERIFY(!rig.fader(1, 10)->hasHandle());
    QSignalSpy moved(&binding, &FaderBinding::faderMoved);
    rig.reportMove(1, 10, 300);
    QCOMPARE(moved.count(), 0);
}

void TestFaderBinding::changingIndexOrSectionMovesToTheNewFader()
{
    Rig rig;
    FaderBinding binding;
    binding.setValue(0.0f);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    rig.clearSent();

    QSignalSpy touched(&binding, &FaderBinding::faderTouched);
    binding.setIndex(4);
    rig.settle();
    QVERIFY(!rig.fader(0, 3)->hasHandle());
    QVERIFY(rig.fader(0, 4)->hasHandle());
    QCOMPARE(touched.count(), 1);
    QCOMPARE(touched.at(0).at(0).toBool(), false);
    QCOMPARE(rig.faderFrames(),
             QStringList({frame(0, kFaderPosition, 4, "0190"), frame(0, kFaderDetent, 4, "0000"),
                          frame(0, kFaderBackstop, 4, "0000")}));

    rig.clearSent();
    binding.setSectionIndex(1);
    rig.settle();
    QVERIFY(!rig.fader(0, 4)->hasHandle());
    QVERIFY(rig.fader(1, 4)->hasHandle());
    QCOMPARE(rig.faderFrames(),
             QStringList({frame(1, kFaderPosition, 4, "0190"), frame(1, kFaderDetent, 4, "0000"),
                          frame(1, kFaderBackstop, 4, "0000")}));

    // Moves of the old fader no longer reach the binding.
    QSignalSpy moved(&binding, &FaderBinding::faderMoved);
    rig.reportMove(0, 3, 100);
    rig.reportMove(0, 4, 100);
    QCOMPARE(moved.count(), 0);
    rig.reportMove(1, 4, 400);
    QCOMPARE(moved.count(), 1);

    // Made inactive, it lets go; made active again, it binds again.
    binding.setActive(false);
    QVERIFY(!rig.fader(1, 4)->hasHandle());
    binding.setActive(true);
    QVERIFY(rig.fader(1, 4)->hasHandle());
}

void TestFaderBinding::settingTheSameConnectionAgainResendsEverything()
{
    Rig rig;
    FaderBinding binding;
    binding.setValue(0.0f);
    binding.setDetent(0.0f);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    rig.clearSent();

    QSignalSpy touched(&binding, &FaderBinding::faderTouched);
    binding.setConnection(&rig.connection);
    rig.settle();
    // Still the same handle, so no new lookup: everything is sent to it again, and of that
    // only the position makes a message (the fader repeats a position, never an unchanged
    // detent or backstop).
    QVERIFY(rig.fader(0, 3)->hasHandle());
    QCOMPARE(touched.count(), 0);
    QCOMPARE(rig.faderFrames(), QStringList({frame(0, kFaderPosition, 3, "0190")}));
}

void TestFaderBinding::typeTakesEffectOnlyAtTheNextLookup()
{
    Rig rig;
    FaderBinding binding;
    declare(binding, &rig.connection, FaderBinding::Fader, 1, 3);
    rig.settle();
    rig.clearSent();

    QSignalSpy typeChanged(&binding, &FaderBinding::typeChanged);
    binding.setType(FaderBinding::MasterFader);
    binding.setType(FaderBinding::MasterFader);
    QCOMPARE(typeChanged.count(), 1);
    rig.settle();
    QCOMPARE(rig.faderFrames(), QStringList());
    QVERIFY(rig.fader(1, 3)->hasHandle());
    QVERIFY(!rig.fader(1, 10)->hasHandle());

    // The next update finds that the handle no longer stands for the type: it lets go of
    // fader 3 and takes the master fader.
    binding.setIndex(4);
    rig.settle();
    QVERIFY(!rig.fader(1, 3)->hasHandle());
    QVERIFY(rig.fader(1, 10)->hasHandle());
    QCOMPARE(rig.faderFrames(),
             QStringList({frame(1, kFaderPosition, 10, "0000"), frame(1, kFaderDetent, 10, "0000"),
                          frame(1, kFaderBackstop, 10, "0000")}));
}

void TestFaderBinding::rebindLooksUpAgainWithoutReleasingTheOldHandle()
{
    Rig rig;
    FaderBinding binding;
    binding.setValue(0.0f);
    declare(binding, &rig.connection, FaderBinding::Fader, 1, 3);
    rig.settle();
    rig.clearSent();

    binding.setType(FaderBinding::MasterFader);
    QSignalSpy touched(&binding, &FaderBinding::faderTouched);
    binding.rebind();
    rig.settle();
    // Fader 3 is not given back: it keeps the handle the binding forgot.
    QVERIFY(rig.fader(1, 3)->hasHandle());
    QVERIFY(rig.fader(1, 10)->hasHandle());
    QCOMPARE(touched.count(), 1);
    QCOMPARE(rig.faderFrames(),
             QStringList({frame(1, kFaderPosition, 10, "0190"), frame(1, kFaderDetent, 10, "0000"),
                          frame(1, kFaderBackstop, 10, "0000")}));
    // The forgotten fader's moves no longer reach the binding.
    QSignalSpy moved(&binding, &FaderBinding::faderMoved);
    rig.reportMove(1, 3, 200);
    QCOMPARE(moved.count(), 0);

    // Rebinding the same control takes a new handle from it: the position goes out again.
    rig.clearSent();
    binding.rebind();
    rig.settle();
    QVERIFY(rig.fader(1, 10)->hasHandle());
    QCOMPARE(rig.faderFrames(), QStringList({frame(1, kFaderPosition, 10, "0190")}));

    // Inactive, rebind only forgets.
    binding.setActive(false);
    rig.clearSent();
    touched.clear();
    binding.rebind();
    rig.settle();
    QCOMPARE(touched.count(), 0);
    QCOMPARE(rig.faderFrames(), QStringList());
}

void TestFaderBinding::inactiveBindingReportsUntouchedOnEveryUpdate()
{
    Rig rig;
    FaderBinding binding;
    QSignalSpy touched(&binding, &FaderBinding::faderTouched);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3, false);
    QCOMPARE(touched.count(), 1);
    binding.setIndex(4);
    QCOMPARE(touched.count(), 2);
    binding.setSectionIndex(1);
    QCOMPARE(touched.count(), 3);
    binding.setConnection(&rig.connection);
    QCOMPARE(touched.count(), 4);
    for (const QList<QVariant>& arguments : touched) {
        QCOMPARE(arguments.at(0).toBool(), false);
    }
    rig.settle();
    QCOMPARE(rig.faderFrames(), QStringList());
    QVERIFY(!rig.fader(1, 4)->hasHandle());
}

void TestFaderBinding::makingItInactiveWithNoSurfaceReachableReleasesTheFader()
{
    Rig rig;
    FaderBinding binding;
    binding.setValue(0.0f);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    QVERIFY(rig.fader(0, 3)->hasHandle());

    binding.setConnection(nullptr);
    QVERIFY(rig.fader(0, 3)->hasHandle());
    QSignalSpy touched(&binding, &FaderBinding::faderTouched);
    binding.setActive(false);
    QVERIFY(!rig.fader(0, 3)->hasHandle());
    QCOMPARE(touched.count(), 1);
    QCOMPARE(touched.at(0).at(0).toBool(), false);

    // Released, the fader parks at the bottom as every unbound fader does.
    rig.clearSent();
    rig.surface.runForMs(200);
    QCOMPARE(rig.faderFrames(), QStringList({frame(0, kFaderPosition, 3, "0000")}));
}

void TestFaderBinding::destructorReleasesTheFader()
{
    Rig rig;
    auto* binding = new FaderBinding;
    binding->setValue(0.0f);
    declare(*binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    QVERIFY(rig.fader(0, 3)->hasHandle());

    QSignalSpy activeChanged(binding, &FaderBinding::activeChanged);
    QSignalSpy touched(binding, &FaderBinding::faderTouched);
    delete binding;
    QCOMPARE(activeChanged.count(), 1);
    QCOMPARE(touched.count(), 1);
    QVERIFY(!rig.fader(0, 3)->hasHandle());
    flushDeferredDeletes();

    rig.clearSent();
    rig.surface.runForMs(200);
    QCOMPARE(rig.faderFrames(), QStringList({frame(0, kFaderPosition, 3, "0000")}));
}

void TestFaderBinding::bindingToATouchedFaderReportsTheTouch()
{
    Rig rig;
    rig.report(0, kFaderTouch, 3, {1});
    FaderBinding binding;
    QSignalSpy touched(&binding, &FaderBinding::faderTouched);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    QCOMPARE(touched.count(), 2);
    QCOMPARE(touched.at(0).at(0).toBool(), false);
    QCOMPARE(touched.at(1).at(0).toBool(), true);
    QCOMPARE(binding.touched(), true);
}

void TestFaderBinding::valueWritesWithinATenthOfADecibelSendNothing_data()
{
    QTest::addColumn<float>("before");
    QTest::addColumn<float>("after");
    QTest::addColumn<bool>("changes");
    QTest::addColumn<QStringList>("frames");

    QTest::newRow("0.05 then 0.0") << 0.05f << 0.0f << false << QStringList();
    QTest::newRow("0.05 then 0.2")
        << 0.05f << 0.2f << true << QStringList({frame(0, kFaderPosition, 3, "0192")});
    QTest::newRow("0.05 then 0.1") << 0.05f << 0.1f << false << QStringList();
    // Exactly 0.1 apart is not more than 0.1.
    QTest::newRow("0 then 0.1") << 0.0f << 0.1f << false << QStringList();
    QTest::newRow("-10 then -10.05") << -10.0f << -10.05f << false << QStringList();
    QTest::newRow("-10 then -10.2")
        << -10.0f << -10.2f << true << QStringList({frame(0, kFaderPosition, 3, "0102")});
}

void TestFaderBinding::valueWritesWithinATenthOfADecibelSendNothing()
{
    QFETCH(float, before);
    QFETCH(float, after);
    QFETCH(bool, changes);
    QFETCH(QStringList, frames);

    Rig rig;
    FaderBinding binding;
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    binding.setValue(before);
    rig.settle();
    rig.clearSent();

    QSignalSpy valueChanged(&binding, &FaderBinding::valueChanged);
    binding.setValue(after);
    rig.settle();
    QCOMPARE(valueChanged.count(), changes ? 1 : 0);
    QCOMPARE(binding.value(), changes ? after : before);
    QCOMPARE(rig.faderFrames(), frames);
}

void TestFaderBinding::modeIsSentAsTheDriveMode()
{
    Rig rig;
    FaderBinding binding;
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    rig.clearSent();

    QSignalSpy modeChanged(&binding, &FaderBinding::modeChanged);
    binding.setMode(FaderBinding::Free);
    binding.setMode(FaderBinding::Free);
    rig.settle();
    QCOMPARE(modeChanged.count(), 1);
    QCOMPARE(rig.faderFrames(), QStringList({frame(0, kFaderDriveMode, 3, "00")}));
    QCOMPARE(rig.fader(0, 3)->driveMode(), 0);

    rig.clearSent();
    binding.setMode(FaderBinding::Protected);
    rig.settle();
    QCOMPARE(rig.faderFrames(), QStringList({frame(0, kFaderDriveMode, 3, "01")}));
}

void TestFaderBinding::detentAndBackstopAreKeptAsPositions()
{
    Rig rig;
    FaderBinding binding;
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    rig.clearSent();

    QSignalSpy detentChanged(&binding, &FaderBinding::detentChanged);
    QSignalSpy backstopChanged(&binding, &FaderBinding::backstopChanged);
    binding.setDetent(0.0f);
    // -59.2 dB is position 6.x, truncated to 6, which reads back as -59.6 dB.
    binding.setBackstop(-59.2f);
    rig.settle();
    QCOMPARE(detentChanged.count(), 1);
    QCOMPARE(backstopChanged.count(), 1);
    QCOMPARE(binding.detent(), 0.0f);
    QCOMPARE(binding.backstop(), ResponseCurve::convertLinearTodB(6, ResponseCurve::Default));
    QCOMPARE(rig.faderFrames(),
             QStringList({frame(0, kFaderDetent, 3, "0190"), frame(0, kFaderBackstop, 3, "0006")}));

    // A write that lands on the same position is no change.
    rig.clearSent();
    binding.setDetent(0.01f);
    binding.setBackstop(-59.3f);
    rig.settle();
    QCOMPARE(detentChanged.count(), 1);
    QCOMPARE(backstopChanged.count(), 1);
    QCOMPARE(rig.faderFrames(), QStringList());
}

void TestFaderBinding::conversionModeSwitchMovesTheDetentAndKeepsTheValue()
{
    Rig rig;
    FaderBinding binding;
    binding.setValue(0.0f);
    binding.setDetent(0.0f);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    rig.clearSent();
    QCOMPARE(rig.fader(0, 3)->detent(), quint16(400));

    QSignalSpy modeChanged(&binding, &FaderBinding::conversionModeChanged);
    QSignalSpy detentChanged(&binding, &FaderBinding::detentChanged);
    QSignalSpy backstopChanged(&binding, &FaderBinding::backstopChanged);
    QSignalSpy valueChanged(&binding, &FaderBinding::valueChanged);
    binding.setConversionMode(ResponseCurve::GraphicsEq);
    rig.settle();
    QCOMPARE(modeChanged.count(), 1);
    QCOMPARE(detentChanged.count(), 1);
    // The backstop at the bottom stays at the bottom.
    QCOMPARE(backstopChanged.count(), 0);
    QCOMPARE(valueChanged.count(), 0);
    QCOMPARE(binding.value(), 0.0f);
    QCOMPARE(rig.fader(0, 3)->detent(), quint16(255));
    QCOMPARE(binding.detent(), ResponseCurve::convertLinearTodB(255, ResponseCurve::GraphicsEq));
    // Only the detent moves; the value goes out under the new law at its next write.
    QCOMPARE(rig.faderFrames(), QStringList({frame(0, kFaderDetent, 3, "00ff")}));

    rig.clearSent();
    binding.setValue(12.0f);
    rig.settle();
    QCOMPARE(rig.faderFrames(), QStringList({frame(0, kFaderPosition, 3, "01ff")}));

    binding.setConversionMode(ResponseCurve::GraphicsEq);
    QCOMPARE(modeChanged.count(), 1);
}

namespace {

// Delivers the queued calls that reach one fader itself, one at a time, and notes the
// fader's lock state after each: the order of the calls shows in the order of the states.
class LockStateRecorder : public QObject
{
public:
    explicit LockStateRecorder(Fader& fader) : m_fader(fader) { fader.installEventFilter(this); }
    ~LockStateRecorder() override { m_fader.removeEventFilter(this); }

    QStringList states;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (watched != &m_fader || event->type() != QEvent::MetaCall) {
            return false;
        }
        m_fader.event(event);
        states << QStringLiteral("enabled %1 position %2")
                      .arg(m_fader.lockEnabled())
                      .arg(m_fader.lockPosition());
        return true;
    }

private:
    Fader& m_fader;
};

}  // namespace

void TestFaderBinding::lockEnabledReachesTheFaderBeforeItsPosition()
{
    Rig rig;
    FaderBinding binding;
    binding.setValue(0.0f);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    const std::shared_ptr<Fader> fader = rig.fader(0, 3);
    binding.lock()->setValue(-10.0f);
    rig.settle();

    LockStateRecorder recorder(*fader);
    binding.lock()->setEnabled(true);
    QCoreApplication::sendPostedEvents();
    // Enabled first (the position still the old one), then the position: had the position
    // come first, the fader would have held it for a moment with its lock still off.
    QCOMPARE(recorder.states, QStringList({"enabled 1 position 0", "enabled 1 position 260"}));

    // Switched off, only the state goes.
    recorder.states.clear();
    binding.lock()->setEnabled(false);
    QCoreApplication::sendPostedEvents();
    QCOMPARE(recorder.states, QStringList({"enabled 0 position 260"}));
}

void TestFaderBinding::lockSendsEnabledThenPositionAndOnlyEnabledWhenSwitchedOff()
{
    Rig rig;
    FaderBinding binding;
    binding.setValue(0.0f);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    const std::shared_ptr<Fader> fader = rig.fader(0, 3);

    // Written while off: nothing goes to the fader.
    binding.lock()->setValue(-10.0f);
    rig.settle();
    QCOMPARE(fader->lockPosition(), quint16(0));

    rig.clearSent();
    binding.lock()->setEnabled(true);
    QCoreApplication::sendPostedEvents();
    QCOMPARE(fader->lockEnabled(), true);
    QCOMPARE(fader->lockPosition(), quint16(260));
    // The fader's step then holds it at the lock position.
    rig.surface.drain();
    QCOMPARE(rig.faderFrames(), QStringList({frame(0, kFaderPosition, 3, "0104")}));

    // Hand moves are not reported while locked, and the fader is driven back.
    QSignalSpy moved(&binding, &FaderBinding::faderMoved);
    rig.clearSent();
    rig.reportMove(0, 3, 300);
    rig.surface.drain();
    QCOMPARE(moved.count(), 0);
    QCOMPARE(rig.faderFrames(), QStringList({frame(0, kFaderPosition, 3, "0104")}));

    // The lock position is converted when it is sent. Switched off, only the state goes:
    // had the position gone too, it would now be -10 dB on the equaliser law, 42.
    binding.setConversionMode(ResponseCurve::GraphicsEq);
    binding.lock()->setEnabled(false);
    rig.clearSent();
    rig.settle();
    QCOMPARE(fader->lockEnabled(), false);
    QCOMPARE(fader->lockPosition(), quint16(260));
    QCOMPARE(rig.faderFrames(), QStringList());

    // Switched on again, the position follows under the current law.
    binding.lock()->setEnabled(true);
    QCoreApplication::sendPostedEvents();
    QCOMPARE(fader->lockEnabled(), true);
    QCOMPARE(fader->lockPosition(), quint16(42));
}

void TestFaderBinding::moveNearTheDetentSnapsToUnity_data()
{
    QTest::addColumn<bool>("withDetent");
    QTest::addColumn<float>("detentdB");
    QTest::addColumn<int>("position");
    QTest::addColumn<float>("reported");

    QTest::newRow("399 at the 0 dB detent") << true << 0.0f << 399 << 0.0f;
    QTest::newRow("398 at the 0 dB detent") << true << 0.0f << 398 << -0.125f;
    QTest::newRow("399 without detent") << false << 0.0f << 399 << -0.0625f;
    QTest::newRow("401 at the 0 dB detent") << true << 0.0f << 401 << 0.0f;
    QTest::newRow("400 at the 0 dB detent") << true << 0.0f << 400 << 0.0f;
    QTest::newRow("404 at the 0 dB detent") << true << 0.0f << 404 << 4.0f * 5.0f / 60.0f;
    QTest::newRow("405 at the 0 dB detent") << true << 0.0f << 405 << 5.0f * 5.0f / 60.0f;
    // Near a detent that is not at unity the move is reported as it is.
    QTest::newRow("261 at the -10 dB detent") << true << -10.0f << 261 << -10.0f + 5.0f / 60.0f;
}

void TestFaderBinding::moveNearTheDetentSnapsToUnity()
{
    QFETCH(bool, withDetent);
    QFETCH(float, detentdB);
    QFETCH(int, position);
    QFETCH(float, reported);

    Rig rig;
    FaderBinding binding;
    if (withDetent) {
        binding.setDetent(detentdB);
    }
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();

    QSignalSpy moved(&binding, &FaderBinding::faderMoved);
    QSignalSpy valueChanged(&binding, &FaderBinding::valueChanged);
    rig.reportMove(0, 3, static_cast<uint16_t>(position));
    QCOMPARE(moved.count(), 1);
    QCOMPARE(bitsOf(moved.at(0).at(0).toFloat()), bitsOf(reported));
    // The move is not stored: the view writes the value back if it takes it.
    QCOMPARE(valueChanged.count(), 0);
    QCOMPARE(binding.value(), -150.0f);
}

void TestFaderBinding::movesAreConvertedUnderTheConversionMode()
{
    Rig rig;
    FaderBinding binding;
    binding.setConversionMode(ResponseCurve::AmmWeight);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    QSignalSpy moved(&binding, &FaderBinding::faderMoved);
    rig.reportMove(0, 3, 255);
    rig.reportMove(0, 3, 511);
    QCOMPARE(moved.count(), 2);
    QCOMPARE(moved.at(0).at(0).toFloat(), -40.0f);
    QCOMPARE(moved.at(1).at(0).toFloat(), 20.0f);
}

void TestFaderBinding::touchesAreReportedAndReadBack()
{
    Rig rig;
    FaderBinding binding;
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    QSignalSpy touched(&binding, &FaderBinding::faderTouched);
    rig.report(0, kFaderTouch, 3, {1});
    QCOMPARE(touched.count(), 1);
    QCOMPARE(touched.at(0).at(0).toBool(), true);
    QCOMPARE(binding.touched(), true);
    QCOMPARE(binding.property("touched").toBool(), true);
    rig.report(0, kFaderTouch, 3, {0});
    QCOMPARE(touched.count(), 2);
    QCOMPARE(touched.at(1).at(0).toBool(), false);
    QCOMPARE(binding.touched(), false);
    // Another fader's touch is not this binding's.
    rig.report(0, kFaderTouch, 4, {1});
    QCOMPARE(touched.count(), 2);
}

void TestFaderBinding::touchTargetWithoutHandlerIsRefusedWithAWarning()
{
    const QString warning = QStringLiteral(
        "FaderBinding: Touch target set but the object does not have function: void "
        "onFaderTouched(bool)");
    FaderBinding binding;
    QSignalSpy targetChanged(&binding, &FaderBinding::touchTargetChanged);
    QObject plain;
    {
        LogCapture log;
        binding.setTouchTarget(&plain);
        QCOMPARE(log.texts(), QStringList({warning}));
        QCOMPARE(log.texts(QtWarningMsg), QStringList({warning}));
        QCOMPARE(log.categories(), QStringList({"tarvix.worksurface.bindings"}));
    }
    QCOMPARE(binding.touchTarget(), nullptr);
    QCOMPARE(targetChanged.count(), 0);

    TouchTarget good;
    binding.setTouchTarget(&good);
    QCOMPARE(binding.touchTarget(), &good);
    QCOMPARE(targetChanged.count(), 1);

    // A handler for another argument type does not count; the target becomes null.
    WrongTouchTarget wrong;
    {
        LogCapture log;
        binding.setTouchTarget(&wrong);
        QCOMPARE(log.texts(), QStringList({warning}));
        QCOMPARE(log.texts(QtWarningMsg), QStringList({warning}));
    }
    QCOMPARE(binding.touchTarget(), nullptr);
    QCOMPARE(targetChanged.count(), 2);
    QVERIFY(good.calls.isEmpty());
}

void TestFaderBinding::touchTargetHearsTouchesDirectly()
{
    Rig rig;
    FaderBinding binding;
    TouchTarget target;
    binding.setTouchTarget(&target);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    // The lookup's "untouched" reaches the target too.
    QCOMPARE(target.calls, QList<bool>({false}));
    rig.surface.sendToPlugin(0, kFaderTouch, 3, {1});
    // No event delivery needed: the call is direct.
    QCOMPARE(target.calls, QList<bool>({false, true}));
    rig.surface.sendToPlugin(0, kFaderTouch, 3, {0});
    QCOMPARE(target.calls, QList<bool>({false, true, false}));
}

void TestFaderBinding::inactiveBindingTellsItsTargetUntouched()
{
    Rig rig;
    FaderBinding binding;
    TouchTarget target;
    binding.setTouchTarget(&target);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.report(0, kFaderTouch, 3, {1});
    QCOMPARE(target.calls, QList<bool>({false, true}));

    // Letting go of the fader tells the target the finger is gone.
    binding.setActive(false);
    QCOMPARE(target.calls, QList<bool>({false, true, false}));

    // Whatever an inactive binding is told, its target hears "untouched".
    target.calls.clear();
    binding.informTouchTarget(true);
    emit binding.faderTouched(true);
    QCOMPARE(target.calls, QList<bool>({false, false}));
}

void TestFaderBinding::changingTargetWhileTouchedMovesTheTouch()
{
    Rig rig;
    FaderBinding binding;
    TouchTarget first;
    TouchTarget second;
    binding.setTouchTarget(&first);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.report(0, kFaderTouch, 3, {1});
    first.calls.clear();

    binding.setTouchTarget(&second);
    QCOMPARE(first.calls, QList<bool>({false}));
    QCOMPARE(second.calls, QList<bool>({true}));

    // Untouched, a change of target tells nobody anything.
    rig.report(0, kFaderTouch, 3, {0});
    first.calls.clear();
    second.calls.clear();
    binding.setTouchTarget(&first);
    QVERIFY(first.calls.isEmpty());
    QVERIFY(second.calls.isEmpty());
}

// Each row starts from value 0 dB (position 400) on a bound fader.
void TestFaderBinding::badValueDecibels_data()
{
    QTest::addColumn<float>("input");
    QTest::addColumn<bool>("stored");
    QTest::addColumn<QStringList>("frames");

    // A NaN differs from nothing by more than 0.1: the write is ignored.
    QTest::newRow("NaN") << kNaN << false << QStringList();
    // Infinities and huge values fall out of the law as 0 and drive the fader down.
    QTest::newRow("+inf") << kInf << true << QStringList({frame(0, kFaderPosition, 3, "0000")});
    QTest::newRow("-inf") << -kInf << true << QStringList({frame(0, kFaderPosition, 3, "0000")});
    QTest::newRow("1e9") << 1e9f << true << QStringList({frame(0, kFaderPosition, 3, "0000")});
    // Above the top of the law the position runs past 511 and the fader clamps it.
    QTest::newRow("20 dB") << 20.0f << true << QStringList({frame(0, kFaderPosition, 3, "01ff")});
}

void TestFaderBinding::badValueDecibels()
{
    QFETCH(float, input);
    QFETCH(bool, stored);
    QFETCH(QStringList, frames);

    Rig rig;
    FaderBinding binding;
    binding.setValue(0.0f);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    rig.clearSent();

    QSignalSpy valueChanged(&binding, &FaderBinding::valueChanged);
    binding.setValue(input);
    rig.settle();
    QCOMPARE(valueChanged.count(), stored ? 1 : 0);
    QCOMPARE(bitsOf(binding.value()), bitsOf(stored ? input : 0.0f));
    QCOMPARE(rig.faderFrames(), frames);

    // The same bad value again is no change.
    rig.clearSent();
    binding.setValue(input);
    rig.settle();
    QCOMPARE(valueChanged.count(), stored ? 1 : 0);
    QCOMPARE(rig.faderFrames(), QStringList());
}

// Each row starts from a detent at 0 dB (position 400) on a bound fader.
void TestFaderBinding::badDetentDecibels_data()
{
    QTest::addColumn<float>("input");
    QTest::addColumn<int>("position");
    QTest::addColumn<QStringList>("frames");

    // NaN, the infinities and huge values all convert to position 0: no detent.
    QTest::newRow("NaN") << kNaN << 0 << QStringList({frame(0, kFaderDetent, 3, "0000")});
    QTest::newRow("+inf") << kInf << 0 << QStringList({frame(0, kFaderDetent, 3, "0000")});
    QTest::newRow("-inf") << -kInf << 0 << QStringList({frame(0, kFaderDetent, 3, "0000")});
    QTest::newRow("1e9") << 1e9f << 0 << QStringList({frame(0, kFaderDetent, 3, "0000")});
    // Past the top of the law: stored, but the fader drops a detent above 511.
    QTest::newRow("20 dB") << 20.0f << 613 << QStringList();
}

void TestFaderBinding::badDetentDecibels()
{
    QFETCH(float, input);
    QFETCH(int, position);
    QFETCH(QStringList, frames);

    Rig rig;
    FaderBinding binding;
    binding.setDetent(0.0f);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    rig.clearSent();

    QSignalSpy detentChanged(&binding, &FaderBinding::detentChanged);
    binding.setDetent(input);
    rig.settle();
    QCOMPARE(detentChanged.count(), 1);
    QCOMPARE(binding.detent(), ResponseCurve::convertLinearTodB(
                                   static_cast<unsigned short>(position), ResponseCurve::Default));
    QCOMPARE(rig.faderFrames(), frames);
    QCOMPARE(rig.fader(0, 3)->detent(), quint16(position > 511 ? 400 : position));
}

// Each row starts from a backstop at -20 dB (position 190) on a bound fader.
void TestFaderBinding::badBackstopDecibels_data()
{
    QTest::addColumn<float>("input");
    QTest::addColumn<int>("position");
    QTest::addColumn<QStringList>("frames");

    QTest::newRow("NaN") << kNaN << 0 << QStringList({frame(0, kFaderBackstop, 3, "0000")});
    QTest::newRow("+inf") << kInf << 0 << QStringList({frame(0, kFaderBackstop, 3, "0000")});
    QTest::newRow("-inf") << -kInf << 0 << QStringList({frame(0, kFaderBackstop, 3, "0000")});
    QTest::newRow("1e9") << 1e9f << 0 << QStringList({frame(0, kFaderBackstop, 3, "0000")});
    QTest::newRow("20 dB") << 20.0f << 613 << QStringList();
}

void TestFaderBinding::badBackstopDecibels()
{
    QFETCH(float, input);
    QFETCH(int, position);
    QFETCH(QStringList, frames);

    Rig rig;
    FaderBinding binding;
    binding.setBackstop(-20.0f);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    rig.clearSent();

    QSignalSpy backstopChanged(&binding, &FaderBinding::backstopChanged);
    binding.setBackstop(input);
    rig.settle();
    QCOMPARE(backstopChanged.count(), 1);
    QCOMPARE(binding.backstop(),
             ResponseCurve::convertLinearTodB(static_cast<unsigned short>(position),
                                              ResponseCurve::Default));
    QCOMPARE(rig.faderFrames(), frames);
    QCOMPARE(rig.fader(0, 3)->backstop(), quint16(position > 511 ? 190 : position));
}

// Each row starts with the value at -10 dB and the lock on at 0 dB, so the fader is held
// at 400.
void TestFaderBinding::badLockDecibels_data()
{
    QTest::addColumn<float>("input");
    QTest::addColumn<bool>("stored");
    QTest::addColumn<int>("lockPosition");
    QTest::addColumn<QStringList>("frames");

    QTest::newRow("NaN") << kNaN << false << 400 << QStringList();
    QTest::newRow("+inf") << kInf << true << 0
                          << QStringList({frame(0, kFaderPosition, 3, "0000")});
    QTest::newRow("-inf") << -kInf << true << 0
                          << QStringList({frame(0, kFaderPosition, 3, "0000")});
    QTest::newRow("1e9") << 1e9f << true << 0 << QStringList({frame(0, kFaderPosition, 3, "0000")});
    // 613 reaches the fader, which holds at 511 instead.
    QTest::newRow("20 dB") << 20.0f << true << 511
                           << QStringList({frame(0, kFaderPosition, 3, "01ff")});
}

void TestFaderBinding::badLockDecibels()
{
    QFETCH(float, input);
    QFETCH(bool, stored);
    QFETCH(int, lockPosition);
    QFETCH(QStringList, frames);

    Rig rig;
    FaderBinding binding;
    binding.setValue(-10.0f);
    binding.lock()->setValue(0.0f);
    binding.lock()->setEnabled(true);
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    rig.surface.drain();
    const std::shared_ptr<Fader> fader = rig.fader(0, 3);
    QCOMPARE(fader->lockPosition(), quint16(400));
    QCOMPARE(fader->position(), quint16(400));
    rig.clearSent();

    QSignalSpy valueChanged(binding.lock(), &FaderLockInfo::valueChanged);
    binding.lock()->setValue(input);
    rig.settle();
    QCOMPARE(valueChanged.count(), stored ? 1 : 0);
    QCOMPARE(fader->lockPosition(), quint16(lockPosition));
    QCOMPARE(rig.faderFrames(), frames);
}

void TestFaderBinding::outOfRangeIndicesAreIgnored()
{
    Rig rig;
    FaderBinding binding;
    declare(binding, &rig.connection, FaderBinding::Fader, 0, 3);
    rig.settle();
    rig.clearSent();
    QSignalSpy touched(&binding, &FaderBinding::faderTouched);
    binding.setIndex(-1);
    binding.setIndex(256);
    binding.setSectionIndex(-3);
    binding.setSectionIndex(1000);
    rig.settle();
    QCOMPARE(binding.index(), 3);
    QCOMPARE(binding.sectionIndex(), 0);
    QCOMPARE(touched.count(), 0);
    QCOMPARE(rig.faderFrames(), QStringList());
    QVERIFY(rig.fader(0, 3)->hasHandle());

    // A section that does not exist binds nothing, and lets the old fader go.
    binding.setSectionIndex(7);
    rig.settle();
    QVERIFY(!rig.fader(0, 3)->hasHandle());
    QCOMPARE(rig.faderFrames(), QStringList());
}

QTEST_GUILESS_MAIN(TestFaderBinding)
#include "tst_faderbinding.moc"
