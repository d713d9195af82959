#include <QCoreApplication>
#include <QMetaMethod>
#include <QMetaObject>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <climits>
#include <memory>
#include <set>

#include "bindings/bindingbase.h"
#include "bindings/faderbinding.h"
#include "bindings/surfaceconnection.h"
#include "software/qmlcontrollerconnection.h"
#include "support/bindingtestrig.h"
#include "support/deferreddeletes.h"
#include "support/fakesoftwarehandler.h"
#include "support/manualclock.h"
#include "support/softwaresurfacefixture.h"
#include "surface/fader.h"
#include "surface/faderhandle.h"
#include "surface/surface.h"

using namespace Velmora::Worksurface;

namespace {

constexpr uint8_t kFaderPosition = 7;
constexpr uint8_t kFaderBackstop = 8;
constexpr uint8_t kFaderDetent = 9;
constexpr uint8_t kFaderDriveMode = 10;

// A frame as the tests of the bindings write them (BindingTestRig::frame).
QString frame(int section, int type, int device, const char* payloadHex)
{
    return BindingTestRig::frame(static_cast<uint8_t>(section), static_cast<uint8_t>(type),
                                 static_cast<uint8_t>(device), payloadHex);
}

// The smallest binding: it counts its updates and, following the binding contract, looks
// its strip fader up whenever it is active and a surface is reachable, keeping the handle
// weakly and giving it back when it is no longer wanted.
class CountingBinding : public BindingBase
{
public:
    using BindingBase::isComplete;
    using BindingBase::surface;

    int updates = 0;
    int lookups = 0;
    // The surface each lookup went to.
    QList<ISurface*> lookedUpIn;

    bool holdsHandle() const { return !m_handle.expired(); }

protected:
    void updateBinding() override
    {
        ++updates;
        if (const std::shared_ptr<FaderHandle> handle = m_handle.lock()) {
            if (active() && handle->standsFor(static_cast<uint8_t>(sectionIndex()),
                                              static_cast<uint8_t>(index()))) {
                return;
            }
            handle->release();
        }
        m_handle.reset();
        ISurface* const surface = this->surface();
        if (surface == nullptr || !active()) {
            return;
        }
        ++lookups;
        lookedUpIn << surface;
        if (const std::shared_ptr<IFader> fader = surface->fader(1, sectionIndex(), index())) {
            m_handle = fader->getHandle();
        }
    }

private:
    std::weak_ptr<FaderHandle> m_handle;
};

// A two-section console over the software link with its links up and its unbound faders
// parked. The surface is not installed: each test decides when.
struct Rig
{
    ManualClock clock;
    SoftwareSurfaceFixture surface{clock, 1};
    SurfaceConnection connection{surface.sharedController(), nullptr};

    Rig()
    {
        surface.start();
        surface.runForMs(200);
        settle();
        surface.sectionSide().clear();
    }

    ~Rig() { flushDeferredDeletes(); }

    void settle()
    {
        QCoreApplication::sendPostedEvents();
        surface.drain();
    }

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

    std::shared_ptr<Fader> fader(int section, int index)
    {
        return std::dynamic_pointer_cast<Fader>(surface.surface().fader(1, section, index));
    }

    bool anyFaderHasAHandle()
    {
        for (int section = 0; section < 2; ++section) {
            for (int index = 0; index <= 10; ++index) {
                const int type = index == 10 ? 2 : 1;
                const auto fader =
                    std::dynamic_pointer_cast<Fader>(surface.surface().fader(type, section, index));
                if (fader && fader->hasHandle()) {
                    return true;
                }
            }
        }
        return false;
    }
};

}  // namespace

class TestBindingBase : public QObject
{
    Q_OBJECT

private slots:
    void metaObjectIsInTheQmlOrder();
    void startsIncompleteInactiveAndPointingAtNothing();
    void surfaceConnectionStartsEmptyAndKeepsTheControllerConnection();
    void installingANullSurfaceChangesNothing();
    void installingASurfaceReplacesTheOldOneAndTellsTheBindings();

    void componentCompleteUpdatesOnce();
    void nothingUpdatesBeforeComponentComplete();
    void eachPropertyChangeUpdatesOnceComplete();
    void surfaceIsNullWithoutConnectionOrSurface();

    void bindingThatStaysInactiveNeverLooksUpAControl();
    void inactiveFaderBindingNeverTakesAFader();
    void outOfRangeSectionIndexIsIgnoredSilently_data();
    void outOfRangeSectionIndexIsIgnoredSilently();
    void outOfRangeIndexIsIgnoredSilently_data();
    void outOfRangeIndexIsIgnoredSilently();
    void settingActiveToItsValueEmitsNothingAndDoesNotUpdate();
    void settingTheSameConnectionAgainRunsTheLookupAgain();
    void bindingCreatedBeforeTheSurfaceBindsWhenItIsInstalled();
    void faderBindingCreatedBeforeTheSurfaceBindsWhenItIsInstalled();
    void settingConnectionToNullDoesNotUnbind();
    void anOldConnectionNoLongerTriggersUpdates();
};

void TestBindingBase::metaObjectIsInTheQmlOrder()
{
    const QMetaObject& meta = BindingBase::staticMetaObject;
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        methods << QString::fromLatin1(meta.method(i).methodSignature());
    }
    QCOMPARE(methods, QStringList({"sectionIndexChanged()", "indexChanged()", "activeChanged()",
                                   "surfaceChanged()"}));
    QCOMPARE(meta.method(meta.indexOfMethod("surfaceChanged()")).access(), QMetaMethod::Private);
    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        properties << QString::fromLatin1(meta.property(i).name());
    }
    QCOMPARE(properties, QStringList({"connection", "active", "sectionIndex", "index"}));
    QVERIFY(!meta.property(meta.indexOfProperty("connection")).hasNotifySignal());

    const QMetaObject& connectionMeta = SurfaceConnection::staticMetaObject;
    QCOMPARE(connectionMeta.methodCount() - connectionMeta.methodOffset(), 1);
    QCOMPARE(connectionMeta.method(connectionMeta.methodOffset()).methodSignature(),
             QByteArray("surfaceChanged()"));
}

void TestBindingBase::startsIncompleteInactiveAndPointingAtNothing()
{
    CountingBinding binding;
    QCOMPARE(binding.connection(), nullptr);
    QCOMPARE(binding.active(), false);
    QCOMPARE(binding.sectionIndex(), 255);
    QCOMPARE(binding.index(), 255);
    QCOMPARE(binding.isComplete(), false);
    QCOMPARE(binding.surface(), nullptr);
    binding.classBegin();
    QCOMPARE(binding.isComplete(), false);
    QCOMPARE(binding.updates, 0);
}

void TestBindingBase::surfaceConnectionStartsEmptyAndKeepsTheControllerConnection()
{
    auto controller = std::make_shared<Velmora::Worksurface::QmlControllerConnection>();
    QObject parent;
    auto* connection = new SurfaceConnection(controller, &parent);
    QCOMPARE(connection->parent(), &parent);
    QCOMPARE(connection->surface(), nullptr);
    QCOMPARE(connection->controllerConnection().get(), controller.get());
}

void TestBindingBase::installingANullSurfaceChangesNothing()
{
    Rig rig;
    QSignalSpy surfaceChanged(&rig.connection, &SurfaceConnection::surfaceChanged);
    rig.connection.installSurface(nullptr);
    QCOMPARE(surfaceChanged.count(), 0);
    QCOMPARE(rig.connection.surface(), nullptr);

    rig.surface.installInto(rig.connection);
    QCOMPARE(surfaceChanged.count(), 1);
    rig.connection.installSurface(nullptr);
    QCOMPARE(surfaceChanged.count(), 1);
    QCOMPARE(rig.connection.surface(), &rig.surface.surface());
}

void TestBindingBase::installingASurfaceReplacesTheOldOneAndTellsTheBindings()
{
    using Velmora::Worksurface::Surface;
    const auto bareSurface = []() {
        return std::make_shared<Surface>(
            std::vector<std::shared_ptr<Velmora::Worksurface::ISection>>(),
            std::vector<std::shared_ptr<Velmora::Worksurface::ISectionConnection>>());
    };
    SurfaceConnection connection(nullptr, nullptr);
    QSignalSpy surfaceChanged(&connection, &SurfaceConnection::surfaceChanged);
    std::weak_ptr<Surface> first;
    {
        const std::shared_ptr<Surface> surface = bareSurface();
        first = surface;
        connection.installSurface(surface);
    }
    // The connection owns the surface it was given.
    QVERIFY(!first.expired());
    QCOMPARE(connection.surface(), first.lock().get());
    QCOMPARE(surfaceChanged.count(), 1);

    CountingBinding binding;
    binding.setConnection(&connection);
    binding.setActive(true);
    binding.componentComplete();
    QCOMPARE(binding.lookedUpIn, QList<ISurface*>({first.lock().get()}));

    // Checked from inside the binding's update: the old surface is already gone when the
    // bindings hear of the new one.
    bool firstGoneWhenTold = false;
    QObject::connect(&connection, &SurfaceConnection::surfaceChanged,
                     [&]() { firstGoneWhenTold = first.expired(); });
    const std::shared_ptr<Surface> second = bareSurface();
    connection.installSurface(second);
    QCOMPARE(surfaceChanged.count(), 2);
    QVERIFY(firstGoneWhenTold);
    QCOMPARE(connection.surface(), second.get());
    QCOMPARE(binding.lookedUpIn.size(), 2);
    QCOMPARE(binding.lookedUpIn.last(), static_cast<ISurface*>(second.get()));
}

void TestBindingBase::componentCompleteUpdatesOnce()
{
    CountingBinding binding;
    binding.classBegin();
    binding.componentComplete();
    QCOMPARE(binding.isComplete(), true);
    QCOMPARE(binding.updates, 1);
    // Nothing to look up in: no connection.
    QCOMPARE(binding.lookups, 0);
}

void TestBindingBase::nothingUpdatesBeforeComponentComplete()
{
    Rig rig;
    CountingBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setActive(true);
    binding.setSectionIndex(0);
    binding.setIndex(3);
    rig.surface.installInto(rig.connection);
    binding.setConnection(&rig.connection);
    QCOMPARE(binding.updates, 0);

    binding.componentComplete();
    QCOMPARE(binding.updates, 1);
    QCOMPARE(binding.lookups, 1);
    QVERIFY(binding.holdsHandle());
    binding.setActive(false);
}

void TestBindingBase::eachPropertyChangeUpdatesOnceComplete()
{
    Rig rig;
    rig.surface.installInto(rig.connection);
    CountingBinding binding;
    binding.componentComplete();
    QCOMPARE(binding.updates, 1);

    QSignalSpy activeChanged(&binding, &BindingBase::activeChanged);
    QSignalSpy sectionIndexChanged(&binding, &BindingBase::sectionIndexChanged);
    QSignalSpy indexChanged(&binding, &BindingBase::indexChanged);
    binding.setConnection(&rig.connection);
    QCOMPARE(binding.updates, 2);
    binding.setActive(true);
    QCOMPARE(binding.updates, 3);
    binding.setSectionIndex(0);
    QCOMPARE(binding.updates, 4);
    binding.setIndex(3);
    QCOMPARE(binding.updates, 5);
    // Each change emits its own signal once.
    QCOMPARE(activeChanged.count(), 1);
    QCOMPARE(sectionIndexChanged.count(), 1);
    QCOMPARE(indexChanged.count(), 1);
    QCOMPARE(binding.sectionIndex(), 0);
    QCOMPARE(binding.index(), 3);
    // The edges of the range are kept.
    binding.setIndex(0);
    binding.setIndex(255);
    QCOMPARE(binding.index(), 255);
    QCOMPARE(indexChanged.count(), 3);
    binding.setActive(false);
}

void TestBindingBase::surfaceIsNullWithoutConnectionOrSurface()
{
    Rig rig;
    CountingBinding binding;
    QCOMPARE(binding.surface(), nullptr);
    binding.setConnection(&rig.connection);
    QCOMPARE(binding.surface(), nullptr);
    rig.surface.installInto(rig.connection);
    QCOMPARE(binding.surface(), &rig.surface.surface());
    binding.setConnection(nullptr);
    QCOMPARE(binding.surface(), nullptr);
    QCOMPARE(binding.connection(), nullptr);
}

void TestBindingBase::bindingThatStaysInactiveNeverLooksUpAControl()
{
    Rig rig;
    CountingBinding binding;
    binding.setConnection(&rig.connection);
    binding.componentComplete();
    rig.surface.installInto(rig.connection);
    for (int section = 0; section < 3; ++section) {
        binding.setSectionIndex(section);
        for (int index = 0; index < 12; ++index) {
            binding.setIndex(index);
        }
    }
    binding.setConnection(&rig.connection);
    // The binding was asked to update every time, and never went looking.
    // Completion, the surface, 3 sections, 3 x 12 indices and the connection.
    QCOMPARE(binding.updates, 1 + 1 + 3 + 3 * 12 + 1);
    QCOMPARE(binding.lookups, 0);
    QVERIFY(!binding.holdsHandle());
    QVERIFY(!rig.anyFaderHasAHandle());
}

void TestBindingBase::inactiveFaderBindingNeverTakesAFader()
{
    Rig rig;
    rig.surface.installInto(rig.connection);
    FaderBinding binding;
    binding.setValue(0.0f);
    binding.setConnection(&rig.connection);
    binding.componentComplete();
    for (const FaderBinding::FaderType type : {FaderBinding::Fader, FaderBinding::MasterFader}) {
        binding.setType(type);
        for (int section = 0; section < 2; ++section) {
            binding.setSectionIndex(section);
            for (int index = 0; index <= 10; ++index) {
                binding.setIndex(index);
                binding.rebind();
            }
        }
    }
    rig.settle();
    QVERIFY(!rig.anyFaderHasAHandle());
    QCOMPARE(rig.faderFrames(), QStringList());
}

void TestBindingBase::outOfRangeSectionIndexIsIgnoredSilently_data()
{
    QTest::addColumn<int>("value");
    QTest::newRow("256") << 256;
    QTest::newRow("-1") << -1;
    QTest::newRow("1000") << 1000;
    QTest::newRow("INT_MIN") << INT_MIN;
    QTest::newRow("INT_MAX") << INT_MAX;
}

void TestBindingBase::outOfRangeSectionIndexIsIgnoredSilently()
{
    QFETCH(int, value);
    Rig rig;
    rig.surface.installInto(rig.connection);
    CountingBinding binding;
    binding.setConnection(&rig.connection);
    binding.setActive(true);
    binding.setSectionIndex(1);
    binding.setIndex(3);
    binding.componentComplete();
    QSignalSpy sectionIndexChanged(&binding, &BindingBase::sectionIndexChanged);
    const int updates = binding.updates;

    binding.setSectionIndex(value);
    QCOMPARE(binding.sectionIndex(), 1);
    QCOMPARE(sectionIndexChanged.count(), 0);
    QCOMPARE(binding.updates, updates);
    // Through the QML property too.
    QVERIFY(binding.setProperty("sectionIndex", value));
    QCOMPARE(binding.property("sectionIndex").toInt(), 1);
    QCOMPARE(sectionIndexChanged.count(), 0);
    QCOMPARE(binding.updates, updates);
    // Still bound to the same fader.
    QVERIFY(rig.fader(1, 3)->hasHandle());
    binding.setActive(false);
}

void TestBindingBase::outOfRangeIndexIsIgnoredSilently_data()
{
    QTest::addColumn<int>("value");
    QTest::newRow("256") << 256;
    QTest::newRow("-1") << -1;
    QTest::newRow("INT_MIN") << INT_MIN;
}

void TestBindingBase::outOfRangeIndexIsIgnoredSilently()
{
    QFETCH(int, value);
    CountingBinding binding;
    binding.componentComplete();
    binding.setIndex(4);
    QSignalSpy indexChanged(&binding, &BindingBase::indexChanged);
    const int updates = binding.updates;
    binding.setIndex(value);
    QCOMPARE(binding.index(), 4);
    QCOMPARE(indexChanged.count(), 0);
    QCOMPARE(binding.updates, updates);
}

void TestBindingBase::settingActiveToItsValueEmitsNothingAndDoesNotUpdate()
{
    Rig rig;
    rig.surface.installInto(rig.connection);
    CountingBinding binding;
    binding.setConnection(&rig.connection);
    binding.setSectionIndex(0);
    binding.setIndex(3);
    binding.componentComplete();
    QSignalSpy activeChanged(&binding, &BindingBase::activeChanged);

    binding.setActive(false);
    QCOMPARE(activeChanged.count(), 0);
    QCOMPARE(binding.updates, 1);
    QCOMPARE(binding.lookups, 0);

    binding.setActive(true);
    QCOMPARE(activeChanged.count(), 1);
    QCOMPARE(binding.updates, 2);
    QCOMPARE(binding.lookups, 1);

    binding.setActive(true);
    QCOMPARE(activeChanged.count(), 1);
    QCOMPARE(binding.updates, 2);
    QCOMPARE(binding.lookups, 1);
    binding.setActive(false);
}

void TestBindingBase::settingTheSameConnectionAgainRunsTheLookupAgain()
{
    Rig rig;
    rig.surface.installInto(rig.connection);
    CountingBinding binding;
    binding.setConnection(&rig.connection);
    binding.setActive(true);
    binding.setSectionIndex(0);
    binding.setIndex(3);
    binding.componentComplete();
    QCOMPARE(binding.updates, 1);
    QCOMPARE(binding.lookups, 1);

    binding.setConnection(&rig.connection);
    QCOMPARE(binding.updates, 2);
    // The binding re-checks its handle, which still stands for fader 3: no new lookup.
    QCOMPARE(binding.lookups, 1);
    QVERIFY(binding.holdsHandle());

    // Once the handle no longer stands for the control (here: another binding took the
    // fader), setting the same connection again finds the fader anew.
    const std::shared_ptr<FaderHandle> taken = rig.fader(0, 3)->getHandle();
    binding.setConnection(&rig.connection);
    QCOMPARE(binding.updates, 3);
    QCOMPARE(binding.lookups, 2);
    QVERIFY(binding.holdsHandle());

    // Re-subscribed once, not twice: one surface change is one update.
    rig.surface.installInto(rig.connection);
    QCOMPARE(binding.updates, 4);
    binding.setActive(false);
}

void TestBindingBase::bindingCreatedBeforeTheSurfaceBindsWhenItIsInstalled()
{
    Rig rig;
    CountingBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setActive(true);
    binding.setSectionIndex(1);
    binding.setIndex(2);
    binding.componentComplete();
    QCOMPARE(binding.updates, 1);
    QCOMPARE(binding.lookups, 0);

    rig.surface.installInto(rig.connection);
    QCOMPARE(binding.updates, 2);
    QCOMPARE(binding.lookups, 1);
    QVERIFY(binding.holdsHandle());
    QVERIFY(rig.fader(1, 2)->hasHandle());
    binding.setActive(false);
}

void TestBindingBase::faderBindingCreatedBeforeTheSurfaceBindsWhenItIsInstalled()
{
    Rig rig;
    FaderBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setType(FaderBinding::Fader);
    binding.setSectionIndex(1);
    binding.setIndex(2);
    binding.setActive(true);
    binding.setValue(0.0f);
    binding.setDetent(0.0f);
    binding.componentComplete();
    rig.settle();
    QVERIFY(!rig.anyFaderHasAHandle());
    QCOMPARE(rig.faderFrames(), QStringList());

    rig.surface.installInto(rig.connection);
    rig.settle();
    QVERIFY(rig.fader(1, 2)->hasHandle());
    QCOMPARE(rig.faderFrames(),
             QStringList({frame(1, kFaderPosition, 2, "0190"), frame(1, kFaderDetent, 2, "0190"),
                          frame(1, kFaderBackstop, 2, "0000")}));
}

void TestBindingBase::settingConnectionToNullDoesNotUnbind()
{
    Rig rig;
    rig.surface.installInto(rig.connection);
    FaderBinding binding;
    binding.classBegin();
    binding.setConnection(&rig.connection);
    binding.setType(FaderBinding::Fader);
    binding.setSectionIndex(0);
    binding.setIndex(3);
    binding.setActive(true);
    binding.componentComplete();
    rig.settle();
    rig.surface.sectionSide().clear();

    QSignalSpy touched(&binding, &FaderBinding::faderTouched);
    binding.setConnection(nullptr);
    QCOMPARE(binding.connection(), nullptr);
    QCOMPARE(touched.count(), 0);
    rig.settle();
    QVERIFY(rig.fader(0, 3)->hasHandle());
    QCOMPARE(rig.faderFrames(), QStringList());

    // Still bound both ways: moves are heard, values reach the fader.
    QSignalSpy moved(&binding, &FaderBinding::faderMoved);
    rig.surface.sendToPlugin(0, kFaderPosition, 3, {0x01, 0x90});
    QCOMPARE(moved.count(), 1);
    QCOMPARE(moved.at(0).at(0).toFloat(), 0.0f);
    rig.surface.runForMs(200);
    binding.setValue(-10.0f);
    rig.settle();
    QCOMPARE(rig.faderFrames(), QStringList({frame(0, kFaderPosition, 3, "0104")}));

    // A new surface no longer reaches it either.
    CountingBinding counter;
    counter.setConnection(&rig.connection);
    counter.setConnection(nullptr);
    counter.componentComplete();
    rig.surface.installInto(rig.connection);
    QCOMPARE(counter.updates, 1);
}

void TestBindingBase::anOldConnectionNoLongerTriggersUpdates()
{
    Rig rig;
    SurfaceConnection other(nullptr, nullptr);
    CountingBinding binding;
    binding.setConnection(&rig.connection);
    binding.componentComplete();
    binding.setConnection(&other);
    QCOMPARE(binding.updates, 2);
    rig.surface.installInto(rig.connection);
    QCOMPARE(binding.updates, 2);
    QCOMPARE(binding.surface(), nullptr);
}

QTEST_GUILESS_MAIN(TestBindingBase)
#include "tst_bindingbase.moc"
