// Tearing down the surface service, the QML engine, a binding, a software control, the
// section controls and the surface in any order, while the surface runs and the controls
// still report, touches no freed memory (run under AddressSanitizer by `make sanitize`).
// After each destruction every survivor keeps working, and each order fails on the first
// one that does not: a hand move reaches the binding and the binding's value reaches the
// control; an unbound fader is parked by the surface's task pool; a new surface answers the
// section controls that are left; with the service gone, nobody hears the controls.
//
// Time is the test's own (DrivenClock): a wait runs the surface's ticks and the sections'
// answers at their times, in microseconds, whatever the machine's speed.
#include <QPointer>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QtTest>
#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "bindings/faderbinding.h"
#include "bindings/responsecurve.h"
#include "bindings/surfaceconnection.h"
#include "qml/sectioninfomodel.h"
#include "qml/surfacesettings.h"
#include "qml/worksurfacefunctions.h"
#include "software/fadercontrol.h"
#include "software/qmlcontrollerconnection.h"
#include "software/sectioncontrol.h"
#include "support/drivenclock.h"
#include "support/servicepools.h"

namespace {

constexpr int kTimeoutMs = 5000;

// The clock of the test function that runs: the core linked into this test, or the plugin the
// QML engine loads.
DrivenClock* g_clock = nullptr;

struct OwnTime
{
    explicit OwnTime(const TarvixTimeDrive* drive) : clock(drive) { g_clock = &clock; }
    ~OwnTime() { g_clock = nullptr; }
    DrivenClock clock;
};

bool waitFor(const std::function<bool()>& done, int timeoutMs)
{
    return g_clock->advanceUntil(done, timeoutMs);
}

void wait(int ms)
{
    g_clock->advance(ms);
}

// One running software surface as an application has it, built in C++.
struct Scene
{
    QPointer<WorksurfaceFunctions> service;
    std::vector<QPointer<SectionControl>> sections;
    QPointer<FaderControl> control;
    QPointer<FaderBinding> binding;
    int moves = 0;
    // Each build of the surface is answered with temperatures no earlier build saw, so that
    // seeing them proves the new links answer.
    int nextTemperature = 60;
    int surfacesBuilt = 0;
    // Whether the last step built a new surface, whose links must then answer.
    bool surfaceReplaced = false;
    float nextDecibels = 0.0f;

    Scene()
    {
        service = new WorksurfaceFunctions();
        service->settings()->setType(SurfaceSettings::Software);
        service->settings()->setMode(SurfaceSettings::K60);
        QObject::connect(service->connection(), &SurfaceConnection::surfaceChanged,
                         [this]() { ++surfacesBuilt; });
        for (int i = 0; i < 3; ++i) {
            auto* section = new SectionControl();
            section->setConnection(service->connection());
            section->setSectionIndex(i);
            sections.push_back(section);
        }
        giveNewTemperatures();
        control = new FaderControl();
        control->setConnection(service->connection());
        control->setSectionIndex(0);
        control->setIndex(2);
        control->setType(FaderBinding::Fader);
        control->setActive(true);
        binding = new FaderBinding();
        binding->setConnection(service->connection());
        binding->setSectionIndex(0);
        binding->setIndex(2);
        binding->setType(FaderBinding::Fader);
        binding->setActive(true);
        // As the QML engine does once the object is made.
        binding->componentComplete();
        QObject::connect(binding, &FaderBinding::faderMoved, [this]() { ++moves; });
    }

    ~Scene()
    {
        delete binding.data();
        delete control.data();
        for (auto& section : sections) {
            delete section.data();
        }
        delete service.data();
    }

    void giveNewTemperatures()
    {
        for (std::size_t i = 0; i < sections.size(); ++i) {
            if (sections[i]) {
                sections[i]->setTemperature(nextTemperature + static_cast<int>(i));
            }
        }
        nextTemperature += 3;
    }

    // Every section whose control is still there shows the temperature that control answers
    // the new links' first ping with.
    bool sectionsAnswer()
    {
        return waitFor(
            [this]() {
                for (std::size_t i = 0; i < sections.size(); ++i) {
                    SectionInfoModel* const info = service->section(static_cast<int>(i));
                    if (sections[i] &&
                        (info == nullptr || info->temperature() != sections[i]->temperature())) {
                        return false;
                    }
                }
                return true;
            },
            kTimeoutMs);
    }

    // The surface is built, its links where the run puts them, and the sections answer them.
    bool connectAndWait()
    {
        service->connect();
        return waitFor([this]() { return surfacesBuilt == 1; }, kTimeoutMs) &&
               verifyLinksWhereTheModeSays(*service) && sectionsAnswer();
    }

    // A fader move by hand reaches the binding.
    bool moveArrives()
    {
        const int before = moves;
        return waitFor(
            [this, before]() {
                control->moveByHand(moves % 2 == 0 ? 400 : 320);
                return moves > before;
            },
            kTimeoutMs);
    }

    // A value the binding writes moves the control's fader. A request this soon after a hand
    // move is held until the hand lets go, so the control touches the fader, the touch
    // reaches the fader through the link, the request reaches the fader (a queued call), and
    // only then the hand lets go. With the links on their own thread a hand move still on
    // its way can meet the request (the fader then takes the hand's position for its own and
    // has nothing to send); a fresh request must then arrive.
    bool valueArrives()
    {
        for (int attempt = 0; attempt < 3; ++attempt) {
            if (writtenValueArrives(kTimeoutMs / 3)) {
                return true;
            }
        }
        return false;
    }

    bool writtenValueArrives(int timeoutMs)
    {
        const float decibels = nextDecibels;
        nextDecibels = nextDecibels == 0.0f ? -10.0f : 0.0f;
        const int expected =
            ResponseCurve::convertdBtoLinear(decibels, ResponseCurve::ConversionMode::Default);
        control->setTouched(true);
        if (!waitFor([this]() { return binding->touched(); }, timeoutMs)) {
            return false;
        }
        binding->setValue(decibels);
        QCoreApplication::sendPostedEvents();
        control->setTouched(false);
        return waitFor([this, expected]() { return control->value() == expected; }, timeoutMs);
    }

    // Whatever is still there keeps doing its work for a while.
    void survivorsReport()
    {
        for (int round = 0; round < 4; ++round) {
            if (control) {
                control->moveByHand(100 + round * 50);
                control->setTouched(round % 2 == 0);
            }
            if (binding) {
                binding->setValue(static_cast<float>(-round));
            }
            for (auto& section : sections) {
                if (section) {
                    section->setTemperature(70 + round);
                }
            }
            wait(15);
        }
        if (control) {
            control->setTouched(false);
        }
    }

    // What every survivor must still do: an empty string when it did, else what it did not.
    QString survivorsWork()
    {
        if (!service) {
            // Nobody hears the controls any more, and nothing breaks when they report.
            const int before = moves;
            if (control) {
                control->moveByHand(250);
                control->setTouched(true);
                control->setTouched(false);
            }
            if (binding) {
                binding->setValue(-20.0f);
            }
            QCoreApplication::processEvents();
            return moves == before ? QString() : QStringLiteral("a move was heard without service");
        }
        if (surfaceReplaced && !sectionsAnswer()) {
            return QStringLiteral("the sections did not answer the new surface");
        }
        if (control && binding) {
            if (!moveArrives()) {
                return QStringLiteral("a hand move did not reach the binding");
            }
            if (!valueArrives()) {
                return QStringLiteral("the binding's value did not reach the control");
            }
        } else if (control) {
            // An unbound fader parks at the bottom after a hand move: the surface's task pool
            // runs and the control is heard.
            control->moveByHand(300);
            if (!waitFor([this]() { return control->value() == 0; }, kTimeoutMs)) {
                return QStringLiteral("the unbound fader was not parked");
            }
        }
        return QString();
    }

    void destroy(const QString& what)
    {
        surfaceReplaced = false;
        if (what == "service") {
            delete service.data();
        } else if (what == "binding") {
            delete binding.data();
        } else if (what == "control") {
            delete control.data();
        } else if (what == "sections") {
            for (auto& section : sections) {
                delete section.data();
            }
        } else if (what == "surface") {
            // The running surface goes when the service builds the next one.
            if (service) {
                const int built = surfacesBuilt;
                giveNewTemperatures();
                service->connect();
                surfaceReplaced = true;
                QVERIFY2(
                    waitFor([this, built]() { return surfacesBuilt == built + 1; }, kTimeoutMs),
                    "connect() built no new surface");
                QVERIFY(verifyLinksWhereTheModeSays(*service));
            }
        }
    }
};

}  // namespace

class TestTeardownOrders : public QObject
{
    Q_OBJECT

private slots:
    void everyOrderIsClean_data();
    void everyOrderIsClean();
    void controlsReportingAfterTheEngineIsGone();
    void receiverThatIsDestroyedRemovesItself();
};

void TestTeardownOrders::everyOrderIsClean_data()
{
    QTest::addColumn<QStringList>("order");
    QStringList parts{"binding", "control", "sections", "service", "surface"};
    std::sort(parts.begin(), parts.end());
    do {
        QTest::newRow(qPrintable(parts.join(','))) << parts;
    } while (std::next_permutation(parts.begin(), parts.end()));
}

void TestTeardownOrders::everyOrderIsClean()
{
    QFETCH(QStringList, order);
    OwnTime time(tarvixWorksurfaceTimeDrive());
    Scene scene;
    QVERIFY(scene.connectAndWait());
    QString failure = scene.survivorsWork();
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    for (const QString& part : order) {
        scene.survivorsReport();
        scene.destroy(part);
        if (QTest::currentTestFailed()) {
            return;
        }
        failure = scene.survivorsWork();
        QVERIFY2(failure.isEmpty(), qPrintable(QStringLiteral("after %1: %2").arg(part, failure)));
    }
}

// The use-after-free of the report: the engine (and with it the service, its singleton)
// goes first, and controls made in that engine still report on their way out.
void TestTeardownOrders::controlsReportingAfterTheEngineIsGone()
{
    OwnTime time(DrivenClock::pluginDrive(TARVIX_PLUGIN_FILE));
    auto* engine = new QQmlEngine();
    engine->addImportPath(QStringLiteral(TARVIX_QML_ROOT));
    QQmlComponent component(engine);
    component.setData(R"(
        import QtQuick 2.15
        import Tarvix.Worksurface 1.0
        Item {
            property QtObject control: FaderControl {
                connection: Surface.connection; active: true
                sectionIndex: 0; index: 3; type: FaderBinding.Fader
            }
            property QtObject binding: FaderBinding {
                connection: Surface.connection; active: true
                sectionIndex: 0; index: 3; type: FaderBinding.Fader
            }
            property QtObject section: SectionControl {
                connection: Surface.connection; sectionIndex: 0; temperature: 61
            }
            Component.onCompleted: {
                Surface.settings.type = SurfaceSettings.Software
                Surface.settings.mode = SurfaceSettings.K60
                Surface.connect()
            }
        }
    )",
                      QUrl());
    QObject* root = component.create();
    QVERIFY2(root != nullptr, qPrintable(component.errorString()));
    // The plugin's own FaderControl (not this test's copy of the class): reached through its
    // meta object.
    QPointer<QObject> control = root->property("control").value<QObject*>();
    QVERIFY2(control, qPrintable(component.errorString()));
    wait(300);
    // Keep the objects, drop the engine.
    root->setParent(nullptr);
    QQmlEngine::setObjectOwnership(root, QQmlEngine::CppOwnership);
    delete engine;
    for (int i = 0; i < 10 && control; ++i) {
        QVERIFY(QMetaObject::invokeMethod(control, "moveByHand", Q_ARG(int, 100 + i)));
        QVERIFY(control->setProperty("touched", i % 2 == 0));
        wait(10);
    }
    delete root;
}

void TestTeardownOrders::receiverThatIsDestroyedRemovesItself()
{
    OwnTime time(tarvixWorksurfaceTimeDrive());
    Scene scene;
    QVERIFY(scene.connectAndWait());
    const std::shared_ptr<Velmora::Worksurface::QmlControllerConnection> controller =
        scene.service->controllerConnection();
    QVERIFY(controller->dataReceiver(0) != nullptr);
    delete scene.service.data();
    for (uint8_t section = 0; section < 3; ++section) {
        QCOMPARE(controller->dataReceiver(section), nullptr);
    }
    // A control that reports now is simply not heard.
    scene.control->moveByHand(200);
    wait(20);
}

QTEST_MAIN(TestTeardownOrders)
#include "tst_teardownorders.moc"
