#include <QDir>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QPointer>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QSignalSpy>
#include <QThread>
#include <QtTest/QtTest>
#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "base/isectioninfo.h"
#include "bindings/surfaceconnection.h"
#include "qml/fadersettings.h"
#include "qml/restmode.h"
#include "qml/sectioninfomodel.h"
#include "qml/surfacesettings.h"
#include "qml/worksurfacefunctions.h"
#include "serial/isectionconnection.h"
#include "serial/iserialdatareceiver.h"
#include "serial/linkruntime.h"
#include "serial/linkthreadconnection.h"
#include "serial/sectionconnection.h"
#include "serial/serialconnectionfactory.h"
#include "serial/serialmessage.h"
#include "software/qmlcontrollerconnection.h"
#include "support/fakesoftwarehandler.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/ptysectionsimulator.h"
#include "surface/fader.h"
#include "surface/ifader.h"
#include "surface/isection.h"
#include "surface/surface.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

// Thread start and stop are real: the started and finished signals come from another thread.
constexpr int kThreadTimeoutMs = 5000;
// The pty sections answer within milliseconds; this only bounds a broken run.
constexpr int kPtyTimeoutMs = 5000;

// The software link's answer to a ping: payload 10, 34, 55 + section index.
constexpr int kSoftwareVersion = 34;
constexpr int kSoftwareTemperatureBase = 55;

// Threads of this process that Qt named after the surface thread (Linux keeps the first
// 15 characters of a thread's name).
int surfaceThreadCount()
{
    int count = 0;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().startsWith("WorksurfaceThre")) {
            ++count;
        }
    }
    return count;
}

Surface* builtSurface(const WorksurfaceFunctions& service)
{
    return dynamic_cast<Surface*>(service.connection()->surface());
}

// Every fader of every section of the surface.
std::vector<Fader*> allFaders(const Surface& surface)
{
    std::vector<Fader*> faders;
    for (const auto& section : surface.sections()) {
        for (const auto& fader : section->faders()) {
            faders.push_back(dynamic_cast<Fader*>(fader.get()));
        }
    }
    return faders;
}

std::vector<uint8_t> connectionStates(const Surface& surface)
{
    std::vector<uint8_t> states;
    for (const auto& connection : surface.connections()) {
        states.push_back(connection->state());
    }
    return states;
}

ISerialDataReceiver* receiverOf(const std::shared_ptr<ISectionConnection>& connection)
{
    return dynamic_cast<SectionConnection*>(connection.get());
}

// Waits until the queued start of the surface thread has run: every start makes a new task
// pool, whether or not it builds a surface. `previous` is the pool before connect() and is
// kept alive here so that the new pool cannot be given its address.
bool waitForStart(const WorksurfaceFunctions& service, const std::shared_ptr<TaskPool>& previous)
{
    return QTest::qWaitFor(
        [&] {
            const auto pool = service.taskPool();
            return pool && pool != previous;
        },
        kThreadTimeoutMs);
}

}  // namespace

class TestWorksurfaceFunctions : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // The QML face.
    void metaObjectDeclaresSignalsSlotsInvokablesAndPropertiesInOrder();
    void propertiesHaveTheirAccessAndNotifySignals();
    void isAParserStatusAndASectionInfoProvider();

    void sectionOutOfRangeIsNullAndZeroToTwoAlwaysGiveModels_data();
    void sectionOutOfRangeIsNullAndZeroToTwoAlwaysGiveModels();
    void buildNumberIsZero();
    void isCalibratingIsFalseBeforeTheFirstConnect();
    void calibrateBeforeConnectOnlyEmitsStartCalibration();
    void connectTwiceInARowLeavesOneRunningNewSurfaceAndANewTaskPool();
    void restModeReachesEverySectionOnlyAfterConnect();

    void constructionMakesNoSurfaceNoTaskPoolAndNoThread();
    void settingModeRelaysMasterSectionIndexThenSectionCount();
    void settingModeToItsCurrentValueRelaysNothing();
    void countsReadThroughToTheSettings_data();
    void countsReadThroughToTheSettings();
    void fadersRestModeStartsAsForceMinimum();
    void getForSectionGivesTheModelsAndNullFromThree();

    void connectBuildsOnlyWhenTheThreadsStartArrivesOnTheQmlThread();
    void connectBeforeAnySettingBuildsNoSurface();
    void connectWithModeUnknownKeepsThePreviousSurfaceWithItsStoppedPool();
    void connectTenTimesInARowLeavesOneSurfaceOnePoolAndOneThread();
    void reconnectWithFewerSectionsLeavesNoReceiverOfTheOldSurface();
    void threadFinishStopsThePoolAndClosesEveryLink();
    void eachStartStopsThePreviousPoolEvenWithoutAFinish();

    void softwareSurfaceComesUpAndReportsVersionAndTemperature();
    void calibrateAfterConnectPutsSectionsInCalibratingAndRelaysTheChange();
    void restModeAfterConnectDecidesWhetherUnboundFadersAreParked();
    void hardwareSurfaceOpensThePortsNamedInTheEnvironment();

    void destructionStopsTheThreadAndReleasesTheSurfaceAndItsPool();
    void destructionWithAStartStillQueuedBuildsNothing();

    // With the links on the surface thread.
    void theLinkThreadSettingOrTheVariablePutEachLinkOnTheSurfaceThread_data();
    void theLinkThreadSettingOrTheVariablePutEachLinkOnTheSurfaceThread();
    void aLateLinkThreadIsWaitedForNotTerminated_data();
    void aLateLinkThreadIsWaitedForNotTerminated();
    void sectionsLetGoWhileFramesStreamAreDestroyedOnTheQmlThread();

    // Last: the QML engine may leave helper threads behind, which would upset the thread
    // counts of the tests above.
    void qmlSeesSurfaceThroughTheSingletonProvider();

private:
    // A software surface of the given model, debug output off so the log stays quiet.
    std::unique_ptr<WorksurfaceFunctions> makeService(
        SurfaceSettings::SurfaceMode mode,
        SurfaceSettings::SurfaceType type = SurfaceSettings::Software);
    // connect() and wait for its queued start.
    bool connectAndWait(WorksurfaceFunctions& service);

    std::unique_ptr<LogCapture> m_log;
};

void TestWorksurfaceFunctions::init()
{
    m_log = std::make_unique<LogCapture>();
}

void TestWorksurfaceFunctions::cleanup()
{
    m_log.reset();
}

std::unique_ptr<WorksurfaceFunctions> TestWorksurfaceFunctions::makeService(
    SurfaceSettings::SurfaceMode mode, SurfaceSettings::SurfaceType type)
{
    auto service = std::make_unique<WorksurfaceFunctions>();
    service->settings()->setDebugEnabled(false);
    service->settings()->setType(type);
    service->settings()->setMode(mode);
    return service;
}

bool TestWorksurfaceFunctions::connectAndWait(WorksurfaceFunctions& service)
{
    const std::shared_ptr<TaskPool> previous = service.taskPool();
    service.connect();
    return waitForStart(service, previous);
}

// --- The QML face -------------------------------------------------------------------------

void TestWorksurfaceFunctions::metaObjectDeclaresSignalsSlotsInvokablesAndPropertiesInOrder()
{
    const QMetaObject& meta = WorksurfaceFunctions::staticMetaObject;
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        const char* kind = method.methodType() == QMetaMethod::Signal ? "signal"
                           : method.methodType() == QMetaMethod::Slot ? "slot"
                                                                      : "method";
        const char* access = method.access() == QMetaMethod::Private ? "private" : "public";
        methods << QStringLiteral("%1 %2 %3 %4")
                       .arg(QLatin1String(kind), QLatin1String(access),
                            QLatin1String(method.typeName()),
                            QString::fromLatin1(method.methodSignature()));
    }
    const QStringList expectedMethods = {
        "signal public void masterSectionIndexChanged()",
        "signal public void sectionCountChanged()",
        "signal public void sectionStripCountChanged()",
        "signal public void isCalibratingChanged()",
        "signal public void startCalibration()",
        "slot private void onStartSurfaceThread()",
        "slot private void onStopSurfaceThread()",
        "slot private void setFaderRestMode()",
        "method public SectionInfoModel* section(int)",
        "method public void connect()",
        "method public void calibrate()",
    };
    QCOMPARE(methods, expectedMethods);

    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QMetaProperty property = meta.property(i);
        properties << QStringLiteral("%1 %2").arg(QLatin1String(property.typeName()),
                                                  QLatin1String(property.name()));
    }
    const QStringList expectedProperties = {
        "SurfaceSettings* settings", "int buildNumber",
        "int masterSectionIndex",    "int sectionCount",
        "int sectionStripCount",     "bool isCalibrating",
        "FaderSettings* faders",     "SurfaceConnection* connection",
    };
    QCOMPARE(properties, expectedProperties);
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 0);
}

void TestWorksurfaceFunctions::propertiesHaveTheirAccessAndNotifySignals()
{
    const QMetaObject& meta = WorksurfaceFunctions::staticMetaObject;
    struct Expected
    {
        const char* name;
        bool constant;
        const char* notify;
    };
    const Expected expected[] = {
        {"settings", true, ""},
        {"buildNumber", true, ""},
        {"masterSectionIndex", false, "masterSectionIndexChanged"},
        {"sectionCount", false, "sectionCountChanged"},
        {"sectionStripCount", false, "sectionStripCountChanged"},
        {"isCalibrating", false, "isCalibratingChanged"},
        // Read-only, but not declared constant and without a change signal.
        {"faders", false, ""},
        {"connection", true, ""},
    };
    for (const Expected& e : expected) {
        const QMetaProperty property = meta.property(meta.indexOfProperty(e.name));
        QVERIFY2(property.isValid(), e.name);
        QVERIFY2(property.isReadable(), e.name);
        QVERIFY2(!property.isWritable(), e.name);
        QCOMPARE(property.isConstant(), e.constant);
        QCOMPARE(QByteArray(property.notifySignal().name()), QByteArray(e.notify));
    }
}

void TestWorksurfaceFunctions::isAParserStatusAndASectionInfoProvider()
{
    WorksurfaceFunctions service;
    QVERIFY(qobject_cast<QQmlParserStatus*>(&service) != nullptr);
    QVERIFY(dynamic_cast<ISectionInfoProvider*>(&service) != nullptr);
    QVERIFY(service.parent() == nullptr);
    QCOMPARE(service.surfaceThread().objectName(), QStringLiteral("WorksurfaceThread"));
    QVERIFY(service.surfaceThread().parent() == nullptr);
    // The thread object lives here; only the thread it stands for is another.
    QCOMPARE(service.surfaceThread().thread(), QThread::currentThread());
    QCOMPARE(service.settings()->parent(), &service);
    QCOMPARE(service.connection()->parent(), &service);
    QCOMPARE(service.faders()->parent(), &service);
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(service.section(i)->parent(), &service);
    }
}

void TestWorksurfaceFunctions::qmlSeesSurfaceThroughTheSingletonProvider()
{
    qmlRegisterSingletonType<WorksurfaceFunctions>("ServiceUnderTest", 1, 0, "Surface",
                                                   &WorksurfaceFunctions::singletonProvider);
    qmlRegisterUncreatableType<SurfaceSettings>("ServiceUnderTest", 1, 0, "SurfaceSettings",
                                                QStringLiteral("settings"));
    qmlRegisterUncreatableType<FaderSettings>("ServiceUnderTest", 1, 0, "FaderSettings",
                                              QStringLiteral("faders"));
    qmlRegisterUncreatableType<SectionInfoModel>("ServiceUnderTest", 1, 0, "SectionInfoModel",
                                                 QStringLiteral("section"));
    qmlRegisterUncreatableType<SurfaceConnection>("ServiceUnderTest", 1, 0, "SurfaceConnection",
                                                  QStringLiteral("connection"));
    qmlRegisterUncreatableType<::RestMode>("ServiceUnderTest", 1, 0, "RestMode",
                                           QStringLiteral("rest mode"));

    QPointer<QObject> surface;
    {
        QQmlEngine engine;
        QQmlComponent component(&engine);
        component.setData(R"(
            import QtQml 2.2
            import ServiceUnderTest 1.0
            QtObject {
                property QtObject surface: Surface
                property bool outOfRangeIsNull: Surface.section(3) === null
                                                && Surface.section(-1) === null
                property bool inRangeAreModels: Surface.section(0) !== null
                                                && Surface.section(1) !== null
                                                && Surface.section(2) !== null
                property int buildNumber: Surface.buildNumber
                property bool calibrating: Surface.isCalibrating
                property bool restModeIsForceMinimum:
                    Surface.faders.restMode === RestMode.ForceMinimum
                property int sectionCount: Surface.sectionCount
                property int masterSectionIndex: Surface.masterSectionIndex
                property int stripCount: Surface.sectionStripCount
                property bool hasConnection: Surface.connection !== null
                function setMode(mode) { Surface.settings.mode = mode }
            }
        )",
                          QUrl());
        std::unique_ptr<QObject> root(component.create());
        QVERIFY2(root, qPrintable(component.errorString()));
        surface = root->property("surface").value<QObject*>();
        QVERIFY(qobject_cast<WorksurfaceFunctions*>(surface.data()) != nullptr);

        QCOMPARE(root->property("outOfRangeIsNull").toBool(), true);
        QCOMPARE(root->property("inRangeAreModels").toBool(), true);
        QCOMPARE(root->property("buildNumber").toInt(), 0);
        QCOMPARE(root->property("calibrating").toBool(), false);
        QCOMPARE(root->property("restModeIsForceMinimum").toBool(), true);
        QCOMPARE(root->property("hasConnection").toBool(), true);
        QCOMPARE(root->property("sectionCount").toInt(), 0);
        QCOMPARE(root->property("masterSectionIndex").toInt(), 255);
        QCOMPARE(root->property("stripCount").toInt(), 10);

        // The bindings follow the relayed change signals.
        QVERIFY(QMetaObject::invokeMethod(root.get(), "setMode",
                                          Q_ARG(QVariant, QVariant(int(SurfaceSettings::K40)))));
        QCOMPARE(root->property("sectionCount").toInt(), 2);
        QCOMPARE(root->property("masterSectionIndex").toInt(), 1);
        QVERIFY(QMetaObject::invokeMethod(root.get(), "setMode",
                                          Q_ARG(QVariant, QVariant(int(SurfaceSettings::K60)))));
        QCOMPARE(root->property("sectionCount").toInt(), 3);
        QCOMPARE(root->property("masterSectionIndex").toInt(), 2);
        root.reset();
    }
    // The engine owned the singleton.
    QVERIFY(surface.isNull());
}

// --- Edge cases -----------------------------------------------------------------------------

void TestWorksurfaceFunctions::sectionOutOfRangeIsNullAndZeroToTwoAlwaysGiveModels_data()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("no model") << int(SurfaceSettings::Unknown);
    QTest::newRow("two sections") << int(SurfaceSettings::K40);
    QTest::newRow("three sections") << int(SurfaceSettings::K60);
}

void TestWorksurfaceFunctions::sectionOutOfRangeIsNullAndZeroToTwoAlwaysGiveModels()
{
    QFETCH(int, mode);
    WorksurfaceFunctions service;
    service.settings()->setMode(static_cast<SurfaceSettings::SurfaceMode>(mode));

    QVERIFY(service.section(3) == nullptr);
    QVERIFY(service.section(-1) == nullptr);
    QVERIFY(service.section(255) == nullptr);
    QVERIFY(service.section(std::numeric_limits<int>::min()) == nullptr);
    for (int i = 0; i < 3; ++i) {
        SectionInfoModel* model = service.section(i);
        QVERIFY(model != nullptr);
        QCOMPARE(model->index(), i);
        // Always the same object.
        QCOMPARE(service.section(i), model);
    }
    QVERIFY(service.section(0) != service.section(1));
    QVERIFY(service.section(1) != service.section(2));

    // Through the meta-object, as QML calls it.
    SectionInfoModel* viaMeta = reinterpret_cast<SectionInfoModel*>(1);
    QVERIFY(QMetaObject::invokeMethod(&service, "section", Q_RETURN_ARG(SectionInfoModel*, viaMeta),
                                      Q_ARG(int, 3)));
    QVERIFY(viaMeta == nullptr);
    QVERIFY(QMetaObject::invokeMethod(&service, "section", Q_RETURN_ARG(SectionInfoModel*, viaMeta),
                                      Q_ARG(int, 2)));
    QCOMPARE(viaMeta, service.section(2));
}

void TestWorksurfaceFunctions::buildNumberIsZero()
{
    WorksurfaceFunctions service;
    QCOMPARE(service.buildNumber(), 0);
    QCOMPARE(service.property("buildNumber"), QVariant(0));
}

void TestWorksurfaceFunctions::isCalibratingIsFalseBeforeTheFirstConnect()
{
    auto service = makeService(SurfaceSettings::K40);
    QCOMPARE(service->isCalibrating(), false);
    QCOMPARE(service->property("isCalibrating"), QVariant(false));
}

void TestWorksurfaceFunctions::calibrateBeforeConnectOnlyEmitsStartCalibration()
{
    auto service = makeService(SurfaceSettings::K40);
    QSignalSpy startCalibration(service.get(), &WorksurfaceFunctions::startCalibration);
    QSignalSpy calibratingChanged(service.get(), &WorksurfaceFunctions::isCalibratingChanged);
    QSignalSpy surfaceChanged(service->connection(), &SurfaceConnection::surfaceChanged);

    QVERIFY(QMetaObject::invokeMethod(service.get(), "calibrate"));
    QCoreApplication::processEvents();

    QCOMPARE(startCalibration.count(), 1);
    QCOMPARE(calibratingChanged.count(), 0);
    QCOMPARE(surfaceChanged.count(), 0);
    QCOMPARE(service->isCalibrating(), false);
    QVERIFY(service->connection()->surface() == nullptr);
    QVERIFY(service->taskPool() == nullptr);
    QVERIFY(!service->surfaceThread().isRunning());
    QVERIFY(service->controllerConnection()->lastMessages().empty());
    QVERIFY(m_log->lines().isEmpty());
}

void TestWorksurfaceFunctions::connectTwiceInARowLeavesOneRunningNewSurfaceAndANewTaskPool()
{
    auto service = makeService(SurfaceSettings::K40);
    QVERIFY(connectAndWait(*service));
    QPointer<ISurface> first = service->connection()->surface();
    QVERIFY(first);
    const std::weak_ptr<TaskPool> firstPool = service->taskPool();
    QSignalSpy surfaceChanged(service->connection(), &SurfaceConnection::surfaceChanged);

    QVERIFY(QMetaObject::invokeMethod(service.get(), "connect"));
    QTRY_COMPARE_WITH_TIMEOUT(surfaceChanged.count(), 1, kThreadTimeoutMs);
    QCoreApplication::processEvents();

    // The old surface is gone, and with it the last holder of the old pool.
    QVERIFY(first.isNull());
    QVERIFY(firstPool.expired());
    Surface* second = builtSurface(*service);
    QVERIFY(second != nullptr);
    QVERIFY(service->taskPool() != nullptr);
    QVERIFY(service->taskPool()->isRunning());
    QVERIFY(service->taskPool()->isTimerActive());
    QCOMPARE(service->taskPool()->timerIntervalMs(), 5);
    QCOMPARE(connectionStates(*second),
             (std::vector<uint8_t>{ISectionConnection::Connected, ISectionConnection::Connected}));
    QVERIFY(service->surfaceThread().isRunning());
    QCOMPARE(surfaceChanged.count(), 1);
}

void TestWorksurfaceFunctions::restModeReachesEverySectionOnlyAfterConnect()
{
    auto service = makeService(SurfaceSettings::K60);
    // Before connect() there is nothing to reach; the value is only stored...
    service->faders()->setRestMode(::RestMode::Type::KeepCurrent);
    QVERIFY(service->connection()->surface() == nullptr);

    QVERIFY(connectAndWait(*service));
    Surface* surface = builtSurface(*service);
    QVERIFY(surface != nullptr);
    // ...and a surface built afterwards is not given it: its faders start as they are made.
    const std::vector<Fader*> faders = allFaders(*surface);
    QCOMPARE(faders.size(), std::size_t(31));
    for (Fader* fader : faders) {
        QVERIFY(fader != nullptr);
        QCOMPARE(fader->restMode(), int32_t(::RestMode::Type::ForceMinimum));
    }

    // A change after connect() reaches every fader of every section at once, without the
    // event loop running.
    service->faders()->setRestMode(::RestMode::Type::ForceMinimum);
    service->faders()->setRestMode(::RestMode::Type::KeepCurrent);
    for (Fader* fader : faders) {
        QCOMPARE(fader->restMode(), int32_t(::RestMode::Type::KeepCurrent));
    }
    std::set<int> sections;
    for (Fader* fader : faders) {
        sections.insert(fader->sectionIndex());
    }
    QCOMPARE(sections, (std::set<int>{0, 1, 2}));

    service->faders()->setRestMode(::RestMode::Type::ForceMinimum);
    for (Fader* fader : faders) {
        QCOMPARE(fader->restMode(), int32_t(::RestMode::Type::ForceMinimum));
    }
}

// --- Construction and settings --------------------------------------------------------------

void TestWorksurfaceFunctions::constructionMakesNoSurfaceNoTaskPoolAndNoThread()
{
    QTRY_COMPARE_WITH_TIMEOUT(surfaceThreadCount(), 0, kThreadTimeoutMs);
    WorksurfaceFunctions service;
    QVERIFY(service.connection()->surface() == nullptr);
    QVERIFY(service.taskPool() == nullptr);
    QVERIFY(!service.surfaceThread().isRunning());
    QVERIFY(service.controllerConnection() != nullptr);
    QCOMPARE(service.connection()->controllerConnection(),
             std::static_pointer_cast<Velmora::Worksurface::ISoftwareControllerConnection>(
                 service.controllerConnection()));
    QCOMPARE(surfaceThreadCount(), 0);
    QCOMPARE(service.settings()->type(), SurfaceSettings::Hardware);
    QCOMPARE(service.settings()->mode(), SurfaceSettings::Unknown);
    QCOMPARE(service.settings()->debugEnabled(), true);
    QVERIFY(m_log->lines().isEmpty());
}

void TestWorksurfaceFunctions::settingModeRelaysMasterSectionIndexThenSectionCount()
{
    WorksurfaceFunctions service;
    QStringList order;
    QObject::connect(&service, &WorksurfaceFunctions::masterSectionIndexChanged,
                     [&] { order << "masterSectionIndexChanged"; });
    QObject::connect(&service, &WorksurfaceFunctions::sectionCountChanged,
                     [&] { order << "sectionCountChanged"; });
    QObject::connect(&service, &WorksurfaceFunctions::sectionStripCountChanged,
                     [&] { order << "sectionStripCountChanged"; });

    service.settings()->setMode(SurfaceSettings::K40);
    QCOMPARE(order, (QStringList{"masterSectionIndexChanged", "sectionCountChanged"}));
    QCOMPARE(service.sectionCount(), 2);
    QCOMPARE(service.masterSectionIndex(), 1);

    order.clear();
    service.settings()->setMode(SurfaceSettings::K60);
    QCOMPARE(order, (QStringList{"masterSectionIndexChanged", "sectionCountChanged"}));
    QCOMPARE(service.sectionCount(), 3);
    QCOMPARE(service.masterSectionIndex(), 2);

    // The type and the debug switch change no count.
    order.clear();
    service.settings()->setType(SurfaceSettings::Software);
    service.settings()->setDebugEnabled(false);
    QVERIFY(order.isEmpty());
}

void TestWorksurfaceFunctions::settingModeToItsCurrentValueRelaysNothing()
{
    WorksurfaceFunctions service;
    service.settings()->setMode(SurfaceSettings::K60);
    QSignalSpy master(&service, &WorksurfaceFunctions::masterSectionIndexChanged);
    QSignalSpy count(&service, &WorksurfaceFunctions::sectionCountChanged);
    service.settings()->setMode(SurfaceSettings::K60);
    QCOMPARE(master.count(), 0);
    QCOMPARE(count.count(), 0);
}

void TestWorksurfaceFunctions::countsReadThroughToTheSettings_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("sectionCount");
    QTest::addColumn<int>("masterSectionIndex");
    QTest::newRow("no model") << int(SurfaceSettings::Unknown) << 0 << 255;
    QTest::newRow("K40") << int(SurfaceSettings::K40) << 2 << 1;
    QTest::newRow("K60") << int(SurfaceSettings::K60) << 3 << 2;
}

void TestWorksurfaceFunctions::countsReadThroughToTheSettings()
{
    QFETCH(int, mode);
    QFETCH(int, sectionCount);
    QFETCH(int, masterSectionIndex);
    WorksurfaceFunctions service;
    service.settings()->setMode(static_cast<SurfaceSettings::SurfaceMode>(mode));
    QCOMPARE(service.property("sectionCount"), QVariant(sectionCount));
    QCOMPARE(service.property("masterSectionIndex"), QVariant(masterSectionIndex));
    QCOMPARE(service.property("sectionStripCount"), QVariant(10));
}

void TestWorksurfaceFunctions::fadersRestModeStartsAsForceMinimum()
{
    WorksurfaceFunctions service;
    QCOMPARE(service.faders()->restMode(), ::RestMode::Type::ForceMinimum);
    QCOMPARE(service.property("faders").value<FaderSettings*>(), service.faders());
}

void TestWorksurfaceFunctions::getForSectionGivesTheModelsAndNullFromThree()
{
    WorksurfaceFunctions service;
    ISectionInfoProvider& provider = service;
    for (uint8_t i = 0; i < 3; ++i) {
        ISectionInfo* info = provider.getForSection(i);
        QVERIFY(info != nullptr);
        QCOMPARE(info, static_cast<ISectionInfo*>(service.section(i)));
    }
    QVERIFY(provider.getForSection(3) == nullptr);
    QVERIFY(provider.getForSection(255) == nullptr);
}

// --- connect() ------------------------------------------------------------------------------

void TestWorksurfaceFunctions::connectBuildsOnlyWhenTheThreadsStartArrivesOnTheQmlThread()
{
    auto service = makeService(SurfaceSettings::K40);
    QThread* builtOn = nullptr;
    QObject::connect(service->connection(), &SurfaceConnection::surfaceChanged,
                     [&] { builtOn = QThread::currentThread(); });

    service->connect();
    // The thread runs, but nothing is built until its started signal comes back here.
    QVERIFY(service->surfaceThread().isRunning());
    QVERIFY(service->connection()->surface() == nullptr);
    QVERIFY(service->taskPool() == nullptr);

    QTRY_VERIFY_WITH_TIMEOUT(service->connection()->surface() != nullptr, kThreadTimeoutMs);
    QCOMPARE(builtOn, QThread::currentThread());
    QVERIFY(builtOn != &service->surfaceThread());
    // Nothing was moved to the surface thread.
    Surface* surface = builtSurface(*service);
    QCOMPARE(surface->thread(), QThread::currentThread());
    QCOMPARE(service->taskPool()->thread(), QThread::currentThread());
}

void TestWorksurfaceFunctions::connectBeforeAnySettingBuildsNoSurface()
{
    WorksurfaceFunctions service;
    QSignalSpy surfaceChanged(service.connection(), &SurfaceConnection::surfaceChanged);
    QVERIFY(connectAndWait(service));

    QVERIFY(service.connection()->surface() == nullptr);
    QCOMPARE(surfaceChanged.count(), 0);
    // The start ran all the same: the pool exists and ticks, with nothing to run.
    QVERIFY(service.taskPool()->isRunning());
    QCOMPARE(service.taskPool()->taskCount(), std::size_t(0));
    QVERIFY(service.surfaceThread().isRunning());
    QCOMPARE(service.isCalibrating(), false);
    QVERIFY(m_log->lines().isEmpty());
}

void TestWorksurfaceFunctions::connectWithModeUnknownKeepsThePreviousSurfaceWithItsStoppedPool()
{
    auto service = makeService(SurfaceSettings::K40);
    QVERIFY(connectAndWait(*service));
    QPointer<ISurface> kept = service->connection()->surface();
    QVERIFY(kept);
    const std::weak_ptr<TaskPool> oldPool = service->taskPool();
    QCOMPARE(connectionStates(*builtSurface(*service)),
             (std::vector<uint8_t>{ISectionConnection::Connected, ISectionConnection::Connected}));

    service->settings()->setMode(SurfaceSettings::Unknown);
    QSignalSpy surfaceChanged(service->connection(), &SurfaceConnection::surfaceChanged);
    QVERIFY(connectAndWait(*service));
    QCoreApplication::processEvents();

    // No surface was built, so the old one stays in place...
    QCOMPARE(surfaceChanged.count(), 0);
    QVERIFY(kept);
    QCOMPARE(service->connection()->surface(), kept.data());
    // ...stopped with the thread and started again after it, but on its own pool, which was
    // stopped and replaced: nothing runs its tasks any more.
    const std::shared_ptr<TaskPool> stillHeld = oldPool.lock();
    QVERIFY(stillHeld != nullptr);
    QVERIFY(stillHeld != service->taskPool());
    QVERIFY(!stillHeld->isRunning());
    QVERIFY(!stillHeld->isTimerActive());
    QVERIFY(service->taskPool()->isRunning());
    // The simulated sections no longer answer it: connect() emptied the receivers, so the
    // links hang in Connecting after their restart.
    QCOMPARE(
        connectionStates(*builtSurface(*service)),
        (std::vector<uint8_t>{ISectionConnection::Connecting, ISectionConnection::Connecting}));
    QVERIFY(service->controllerConnection()->dataReceiver(0) == nullptr);
    QVERIFY(service->controllerConnection()->dataReceiver(1) == nullptr);
}

void TestWorksurfaceFunctions::connectTenTimesInARowLeavesOneSurfaceOnePoolAndOneThread()
{
    auto service = makeService(SurfaceSettings::K40);
    QTRY_COMPARE_WITH_TIMEOUT(surfaceThreadCount(), 0, kThreadTimeoutMs);
    QList<QPointer<ISurface>> surfaces;
    // Shares of every pool a surface was built on, so that they can be told apart.
    std::vector<std::shared_ptr<TaskPool>> pools;
    QObject::connect(service->connection(), &SurfaceConnection::surfaceChanged, [&] {
        surfaces << service->connection()->surface();
        pools.push_back(service->taskPool());
    });

    for (int i = 0; i < 10; ++i) {
        service->connect();
        QCoreApplication::processEvents();
    }
    QTRY_COMPARE_WITH_TIMEOUT(surfaces.size(), 10, kThreadTimeoutMs);
    QCoreApplication::processEvents();

    for (int i = 0; i < 9; ++i) {
        QVERIFY2(surfaces.at(i).isNull(), qPrintable(QString::number(i)));
        QVERIFY(!pools.at(std::size_t(i))->isRunning());
        QVERIFY(!pools.at(std::size_t(i))->isTimerActive());
    }
    QVERIFY(!surfaces.last().isNull());
    QCOMPARE(service->connection()->surface(), surfaces.last().data());
    QCOMPARE(pools.back(), service->taskPool());
    QVERIFY(service->taskPool()->isRunning());
    QVERIFY(service->taskPool()->isTimerActive());
    QCOMPARE(std::set<std::shared_ptr<TaskPool>>(pools.begin(), pools.end()).size(),
             std::size_t(10));

    Surface* surface = builtSurface(*service);
    QCOMPARE(connectionStates(*surface),
             (std::vector<uint8_t>{ISectionConnection::Connected, ISectionConnection::Connected}));
    // The simulated sections answer the running surface's links and nothing else.
    QCOMPARE(service->controllerConnection()->dataReceiver(0),
             receiverOf(surface->connections().at(0)));
    QCOMPARE(service->controllerConnection()->dataReceiver(1),
             receiverOf(surface->connections().at(1)));

    // One surface thread runs; the nine before it have ended.
    QVERIFY(service->surfaceThread().isRunning());
    QTRY_COMPARE_WITH_TIMEOUT(surfaceThreadCount(), 1, kThreadTimeoutMs);

    pools.clear();
    surfaces.clear();
    service.reset();
    QTRY_COMPARE_WITH_TIMEOUT(surfaceThreadCount(), 0, kThreadTimeoutMs);
}

void TestWorksurfaceFunctions::reconnectWithFewerSectionsLeavesNoReceiverOfTheOldSurface()
{
    auto service = makeService(SurfaceSettings::K60);
    QSignalSpy surfaceChanged(service->connection(), &SurfaceConnection::surfaceChanged);
    // QML switches to the smaller console as soon as the first surface shows up.
    QObject::connect(service->connection(), &SurfaceConnection::surfaceChanged,
                     [&] { service->settings()->setMode(SurfaceSettings::K40); });
    // Both starts are still queued when the second connect() empties the receivers: the
    // three-section surface registers its links after that, and is then replaced by the
    // two-section one.
    service->connect();
    service->connect();
    QTRY_COMPARE_WITH_TIMEOUT(surfaceChanged.count(), 2, kThreadTimeoutMs);

    Surface* surface = builtSurface(*service);
    QCOMPARE(surface->connections().size(), std::size_t(2));
    const auto& controller = *service->controllerConnection();
    QCOMPARE(controller.dataReceiver(0), receiverOf(surface->connections().at(0)));
    QCOMPARE(controller.dataReceiver(1), receiverOf(surface->connections().at(1)));
    QVERIFY(controller.dataReceiver(2) == nullptr);

    // A QML control of the third section talking to the plugin reaches nothing.
    service->controllerConnection()->sendToPlugin(
        2, SerialMessage(MessageType::Ping, 0, {10, 1, 2}, true));
    QCOMPARE(service->section(2)->version(), 0);
}

void TestWorksurfaceFunctions::threadFinishStopsThePoolAndClosesEveryLink()
{
    auto service = makeService(SurfaceSettings::K60);
    QVERIFY(connectAndWait(*service));
    Surface* surface = builtSurface(*service);
    QVERIFY(surface != nullptr);
    const std::shared_ptr<TaskPool> pool = service->taskPool();
    QVERIFY(pool->isRunning());

    // What the thread's queued finished signal runs.
    QVERIFY(QMetaObject::invokeMethod(service.get(), "onStopSurfaceThread"));
    QVERIFY(!pool->isRunning());
    QVERIFY(!pool->isTimerActive());
    QCOMPARE(connectionStates(*surface),
             (std::vector<uint8_t>{ISectionConnection::Closed, ISectionConnection::Closed,
                                   ISectionConnection::Closed}));
    // The surface stays until a new one replaces it.
    QCOMPARE(builtSurface(*service), surface);
    QCOMPARE(service->taskPool(), pool);
}

void TestWorksurfaceFunctions::eachStartStopsThePreviousPoolEvenWithoutAFinish()
{
    auto service = makeService(SurfaceSettings::K40);
    QVERIFY(connectAndWait(*service));
    const std::shared_ptr<TaskPool> first = service->taskPool();
    QVERIFY(first->isRunning());

    // What the thread's queued started signal runs.
    QVERIFY(QMetaObject::invokeMethod(service.get(), "onStartSurfaceThread"));
    QVERIFY(service->taskPool() != first);
    QVERIFY(!first->isRunning());
    QVERIFY(!first->isTimerActive());
    QVERIFY(service->taskPool()->isRunning());
}

// --- A running surface ----------------------------------------------------------------------

void TestWorksurfaceFunctions::softwareSurfaceComesUpAndReportsVersionAndTemperature()
{
    ManualClock clock(1000 * kMs);
    auto service = makeService(SurfaceSettings::K40);
    FakeSoftwareHandler sectionSide;
    service->controllerConnection()->addSoftwareHandler(&sectionSide);
    QSignalSpy surfaceChanged(service->connection(), &SurfaceConnection::surfaceChanged);
    QSignalSpy version0(service->section(0), &SectionInfoModel::versionChanged);
    QSignalSpy temperature1(service->section(1), &SectionInfoModel::temperatureChanged);

    QVERIFY(connectAndWait(*service));
    QCOMPARE(surfaceChanged.count(), 1);
    Surface* surface = builtSurface(*service);
    QVERIFY(surface != nullptr);
    QCOMPARE(surface->sections().size(), std::size_t(2));
    // The software link answers the updater's probe at once.
    QCOMPARE(connectionStates(*surface),
             (std::vector<uint8_t>{ISectionConnection::Connected, ISectionConnection::Connected}));
    QCOMPARE(service->section(0)->version(), 0);

    // The first keep-alive goes out once 2 s have passed since the clock's origin; the
    // simulated sections answer it with their version and temperature.
    const std::shared_ptr<TaskPool> pool = service->taskPool();
    for (int ms = 0; ms < 1100; ++ms) {
        clock.advanceMs(1);
        pool->runPendingTasks();
    }
    int pings = 0;
    for (const auto& offer : sectionSide.offers()) {
        if (offer.message.type == MessageType::Ping) {
            ++pings;
        }
    }
    QCOMPARE(pings, 2);
    QCOMPARE(service->section(0)->version(), kSoftwareVersion);
    QCOMPARE(service->section(0)->temperature(), kSoftwareTemperatureBase);
    QCOMPARE(service->section(1)->version(), kSoftwareVersion);
    QCOMPARE(service->section(1)->temperature(), kSoftwareTemperatureBase + 1);
    QCOMPARE(service->section(2)->version(), 0);
    QCOMPARE(service->section(2)->temperature(), 0);
    QCOMPARE(version0.count(), 1);
    QCOMPARE(temperature1.count(), 1);
    QCOMPARE(surface->sections().at(1)->version(), uint8_t(kSoftwareVersion));

    service->controllerConnection()->removeSoftwareHandler(&sectionSide);
}

void TestWorksurfaceFunctions::calibrateAfterConnectPutsSectionsInCalibratingAndRelaysTheChange()
{
    auto service = makeService(SurfaceSettings::K40);
    FakeSoftwareHandler sectionSide;
    service->controllerConnection()->addSoftwareHandler(&sectionSide);
    QVERIFY(connectAndWait(*service));
    Surface* surface = builtSurface(*service);
    QVERIFY(surface != nullptr);
    QCOMPARE(service->isCalibrating(), false);
    sectionSide.clear();

    QSignalSpy calibratingChanged(service.get(), &WorksurfaceFunctions::isCalibratingChanged);
    QVERIFY(QMetaObject::invokeMethod(service.get(), "calibrate"));

    // Each link entering Calibrating is one relayed change.
    QCOMPARE(calibratingChanged.count(), 2);
    QCOMPARE(service->isCalibrating(), true);
    QCOMPARE(service->property("isCalibrating"), QVariant(true));
    QCOMPARE(connectionStates(*surface), (std::vector<uint8_t>{ISectionConnection::Calibrating,
                                                               ISectionConnection::Calibrating}));
    // The calibration command went straight to both sections.
    std::vector<int> calibrated;
    for (const auto& offer : sectionSide.offers()) {
        if (offer.message.type == MessageType::Calibration) {
            calibrated.push_back(offer.sectionIndex);
        }
    }
    QCOMPARE(calibrated, (std::vector<int>{0, 1}));

    service->controllerConnection()->removeSoftwareHandler(&sectionSide);
}

void TestWorksurfaceFunctions::restModeAfterConnectDecidesWhetherUnboundFadersAreParked()
{
    ManualClock clock(1000 * kMs);
    auto service = makeService(SurfaceSettings::K40);
    FakeSoftwareHandler sectionSide;
    service->controllerConnection()->addSoftwareHandler(&sectionSide);
    QVERIFY(connectAndWait(*service));
    const std::shared_ptr<TaskPool> pool = service->taskPool();
    const auto runForMs = [&](int ms) {
        for (int i = 0; i < ms; ++i) {
            clock.advanceMs(1);
            pool->runPendingTasks();
        }
    };
    const auto fadersParked = [&] {
        std::set<std::pair<int, int>> parked;
        for (const auto& offer : sectionSide.offers()) {
            if (offer.message.type == MessageType::FaderPosition &&
                offer.message.wordAt(0, 0xFFFF) == 0) {
                parked.insert({offer.sectionIndex, offer.message.deviceId});
            }
        }
        return parked;
    };

    // Kept where they are: nothing moves them.
    service->faders()->setRestMode(::RestMode::Type::KeepCurrent);
    runForMs(300);
    QVERIFY(fadersParked().empty());

    // Forced to the bottom: every unbound fader of both sections is driven to 0.
    service->faders()->setRestMode(::RestMode::Type::ForceMinimum);
    runForMs(300);
    std::set<std::pair<int, int>> expected;
    for (int id = 0; id < 10; ++id) {
        expected.insert({0, id});
        expected.insert({1, id});
    }
    expected.insert({1, 10});
    QCOMPARE(fadersParked(), expected);

    service->controllerConnection()->removeSoftwareHandler(&sectionSide);
}

void TestWorksurfaceFunctions::hardwareSurfaceOpensThePortsNamedInTheEnvironment()
{
    PtySectionSimulator section0;
    PtySectionSimulator section1;
    if (!section0.isOpen() || !section1.isOpen()) {
        QSKIP(qPrintable(section0.errorString() + section1.errorString()));
    }
    const QByteArray saved = qgetenv(SerialConnectionFactory::kPortsVariable);
    const bool wasSet = qEnvironmentVariableIsSet(SerialConnectionFactory::kPortsVariable);
    qputenv(SerialConnectionFactory::kPortsVariable,
            (section0.slavePath() + QLatin1Char(',') + section1.slavePath()).toLocal8Bit());
    struct RestoreEnvironment
    {
        QByteArray value;
        bool wasSet;
        ~RestoreEnvironment()
        {
            if (wasSet) {
                qputenv(SerialConnectionFactory::kPortsVariable, value);
            } else {
                qunsetenv(SerialConnectionFactory::kPortsVariable);
            }
        }
    } restore{saved, wasSet};

    auto service = makeService(SurfaceSettings::K40, SurfaceSettings::Hardware);
    QVERIFY(connectAndWait(*service));
    Surface* surface = builtSurface(*service);
    QVERIFY(surface != nullptr);

    // Each section's link probes its bootloader over its pty; the running application's
    // answer brings the link up.
    QTRY_VERIFY_WITH_TIMEOUT(section0.commandCount(0x55) >= 1, kPtyTimeoutMs);
    QTRY_VERIFY_WITH_TIMEOUT(section1.commandCount(0x55) >= 1, kPtyTimeoutMs);
    QTRY_COMPARE_WITH_TIMEOUT(
        connectionStates(*surface),
        (std::vector<uint8_t>{ISectionConnection::Connected, ISectionConnection::Connected}),
        kPtyTimeoutMs);
    // The software link was not used.
    QVERIFY(service->controllerConnection()->dataReceiver(0) == nullptr);
    QVERIFY(service->controllerConnection()->dataReceiver(1) == nullptr);

    // Reconnecting closes the ports and opens them again.
    QSignalSpy surfaceChanged(service->connection(), &SurfaceConnection::surfaceChanged);
    section0.clearReceived();
    QVERIFY(connectAndWait(*service));
    QCOMPARE(surfaceChanged.count(), 1);
    QTRY_VERIFY_WITH_TIMEOUT(section0.commandCount(0x55) >= 1, kPtyTimeoutMs);
    QTRY_COMPARE_WITH_TIMEOUT(
        connectionStates(*builtSurface(*service)),
        (std::vector<uint8_t>{ISectionConnection::Connected, ISectionConnection::Connected}),
        kPtyTimeoutMs);
    service.reset();
}

// --- Destruction ----------------------------------------------------------------------------

void TestWorksurfaceFunctions::destructionStopsTheThreadAndReleasesTheSurfaceAndItsPool()
{
    auto service = makeService(SurfaceSettings::K60);
    QVERIFY(connectAndWait(*service));
    QPointer<ISurface> surface = service->connection()->surface();
    QVERIFY(surface);
    const std::weak_ptr<TaskPool> pool = service->taskPool();
    const std::weak_ptr<Velmora::Worksurface::QmlControllerConnection> controller =
        service->controllerConnection();

    service.reset();
    QVERIFY(surface.isNull());
    QVERIFY(pool.expired());
    QVERIFY(controller.expired());
    QCoreApplication::processEvents();
    QTRY_COMPARE_WITH_TIMEOUT(surfaceThreadCount(), 0, kThreadTimeoutMs);
    QVERIFY(m_log->texts(QtWarningMsg).isEmpty());
}

void TestWorksurfaceFunctions::destructionWithAStartStillQueuedBuildsNothing()
{
    auto service = makeService(SurfaceSettings::K40);
    QPointer<SurfaceConnection> connection = service->connection();
    service->connect();
    service.reset();
    QVERIFY(connection.isNull());
    // The queued start went with the object: nothing is built on the way out.
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents();
    QVERIFY(m_log->texts(QtWarningMsg).isEmpty());
}

// --- With the links on the surface thread -------------------------------------------------

void TestWorksurfaceFunctions::theLinkThreadSettingOrTheVariablePutEachLinkOnTheSurfaceThread_data()
{
    QTest::addColumn<bool>("setting");
    QTest::addColumn<QByteArray>("variable");
    QTest::addColumn<bool>("onThread");
    QTest::newRow("neither") << false << QByteArray() << false;
    QTest::newRow("variable 0") << false << QByteArray("0") << false;
    QTest::newRow("variable yes") << false << QByteArray("yes") << false;
    QTest::newRow("variable 1") << false << QByteArray("1") << true;
    QTest::newRow("setting") << true << QByteArray() << true;
    QTest::newRow("setting and variable 0") << true << QByteArray("0") << true;
}

void TestWorksurfaceFunctions::theLinkThreadSettingOrTheVariablePutEachLinkOnTheSurfaceThread()
{
    QFETCH(bool, setting);
    QFETCH(QByteArray, variable);
    QFETCH(bool, onThread);
    const bool hadVariable = qEnvironmentVariableIsSet(WorksurfaceFunctions::kLinkThreadVariable);
    const QByteArray saved = qgetenv(WorksurfaceFunctions::kLinkThreadVariable);
    if (variable.isNull()) {
        qunsetenv(WorksurfaceFunctions::kLinkThreadVariable);
    } else {
        qputenv(WorksurfaceFunctions::kLinkThreadVariable, variable);
    }
    auto service = makeService(SurfaceSettings::K60);
    service->settings()->setLinkThread(setting);
    const bool connected = connectAndWait(*service);
    if (hadVariable) {
        qputenv(WorksurfaceFunctions::kLinkThreadVariable, saved);
    } else {
        qunsetenv(WorksurfaceFunctions::kLinkThreadVariable);
    }
    QVERIFY(connected);
    QCOMPARE(service->linksOnSurfaceThread(), onThread);
    QCOMPARE(service->linkTaskPool() != nullptr, onThread);
    const QThread* expected = onThread ? &service->surfaceThread() : QThread::currentThread();
    const auto links = service->connection()->surface()->sectionLinks();
    QCOMPARE(links.size(), std::size_t{3});
    for (const auto& link : links) {
        const auto* made = dynamic_cast<SectionConnection*>(link.get());
        if (const auto* face = dynamic_cast<LinkThreadConnection*>(link.get())) {
            made = face->link().get();
        }
        QVERIFY(made != nullptr);
        QCOMPARE(made->thread(), expected);
    }
}

// A link thread that is late when connect() is called again or the service goes (a trace
// being saved after a fault, a long queue of work, a loaded board) is waited for: nothing is
// terminated, nothing is warned about, and its links are closed there.
void TestWorksurfaceFunctions::aLateLinkThreadIsWaitedForNotTerminated_data()
{
    QTest::addColumn<bool>("destroy");
    QTest::newRow("connect() again") << false;
    QTest::newRow("the service goes") << true;
}

void TestWorksurfaceFunctions::aLateLinkThreadIsWaitedForNotTerminated()
{
    QFETCH(bool, destroy);
    auto service = makeService(SurfaceSettings::K60);
    service->settings()->setLinkThread(true);
    QVERIFY(connectAndWait(*service));
    QVERIFY(service->linksOnSurfaceThread());
    std::vector<std::shared_ptr<SectionConnection>> links;
    for (const auto& link : service->connection()->surface()->sectionLinks()) {
        links.push_back(dynamic_cast<LinkThreadConnection&>(*link).link());
    }
    std::atomic<bool> lateWorkDone{false};
    service->linkRuntime().postToLinkThread([&lateWorkDone]() {
        QThread::msleep(400);
        lateWorkDone.store(true);
    });
    if (destroy) {
        service.reset();
    } else {
        QVERIFY(connectAndWait(*service));
    }
    QVERIFY(lateWorkDone.load());
    for (const auto& link : links) {
        QCOMPARE(link->state(), uint8_t{ISectionConnection::Closed});
    }
    // Neither terminated nor warned about.
    QCOMPARE(m_log->texts(QtWarningMsg), QStringList());
    QCOMPARE(m_log->texts(QtCriticalMsg), QStringList());
    if (!destroy) {
        QCOMPARE(service->connection()->surface()->sectionLinks().size(), std::size_t{3});
    }
}

// Sections stream fader moves at full rate while connect() rebuilds the surface again and
// again: every section, and every fader QObject with it, goes on the QML thread (the fader
// asserts it in debug builds), never on the thread that judges the frames.
void TestWorksurfaceFunctions::sectionsLetGoWhileFramesStreamAreDestroyedOnTheQmlThread()
{
    PtySectionSimulator first;
    PtySectionSimulator second;
    QVERIFY2(first.isOpen() && second.isOpen(), qPrintable(first.errorString()));
    const QByteArray saved = qgetenv("TARVIX_WORKSURFACE_SERIAL_PORTS");
    qputenv("TARVIX_WORKSURFACE_SERIAL_PORTS",
            (first.slavePath() + QLatin1Char(',') + second.slavePath()).toLocal8Bit());
    auto service = makeService(SurfaceSettings::K40, SurfaceSettings::Hardware);
    service->settings()->setLinkThread(true);
    int faderQObjectsGone = 0;
    int fadersWatched = 0;
    std::vector<QThread*> goneOn;
    for (int round = 0; round < 10; ++round) {
        QVERIFY(connectAndWait(*service));
        if (Surface* surface = builtSurface(*service)) {
            for (Fader* fader : allFaders(*surface)) {
                ++fadersWatched;
                QObject::connect(fader, &QObject::destroyed, [&]() {
                    goneOn.push_back(QThread::currentThread());
                    ++faderQObjectsGone;
                });
            }
        }
        // A burst of moves on every fader of both sections, read on the surface thread
        // while this thread builds the next surface.
        QByteArray moves;
        for (int i = 0; i < 200; ++i) {
            const auto fader = static_cast<uint8_t>(i % 10);
            const auto position = static_cast<uint16_t>(i * 5);
            moves += encode(SerialMessage(
                MessageType::FaderPosition, fader,
                {static_cast<uint8_t>(position >> 8), static_cast<uint8_t>(position & 0xFF)}));
        }
        first.sendRaw(moves);
        second.sendRaw(moves);
        QCoreApplication::processEvents();
    }
    service.reset();
    qputenv("TARVIX_WORKSURFACE_SERIAL_PORTS", saved);
    QVERIFY(fadersWatched > 0);
    QCOMPARE(faderQObjectsGone, fadersWatched);
    QCOMPARE(goneOn, std::vector<QThread*>(std::size_t(fadersWatched), QThread::currentThread()));
}

QTEST_GUILESS_MAIN(TestWorksurfaceFunctions)
#include "tst_worksurfacefunctions.moc"
