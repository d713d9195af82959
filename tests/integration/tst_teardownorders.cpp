// Tearing down the surface service, the QML engine, a binding, a software control and the
// surface in any order, while the surface runs and the controls still report, touches no
// freed memory (run under AddressSanitizer by `make sanitize`). Before each destruction
// and after it, every survivor keeps working: controls move and touch their faders, the
// section controls answer, bindings write values, and the event loop runs the task pool.
#include <QPointer>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QtTest>
#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "bindings/faderbinding.h"
#include "bindings/surfaceconnection.h"
#include "qml/surfacesettings.h"
#include "qml/worksurfacefunctions.h"
#include "software/fadercontrol.h"
#include "software/qmlcontrollerconnection.h"
#include "software/sectioncontrol.h"

namespace {

constexpr int kTimeoutMs = 5000;

// One running software surface as an application has it, built in C++.
struct Scene
{
    QPointer<WorksurfaceFunctions> service;
    std::vector<QPointer<SectionControl>> sections;
    QPointer<FaderControl> control;
    QPointer<FaderBinding> binding;
    int moves = 0;

    Scene()
    {
        service = new WorksurfaceFunctions();
        service->settings()->setType(SurfaceSettings::Software);
        service->settings()->setMode(SurfaceSettings::K60);
        for (int i = 0; i < 3; ++i) {
            auto* section = new SectionControl();
            section->setConnection(service->connection());
            section->setSectionIndex(i);
            section->setTemperature(60 + i);
            sections.push_back(section);
        }
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

    bool connectAndWait()
    {
        service->connect();
        return QTest::qWaitFor(
            [this]() {
                return service->section(0) != nullptr && service->section(0)->temperature() == 60;
            },
            kTimeoutMs);
    }

    // A fader move by hand reaches the binding.
    bool moveArrives()
    {
        const int before = moves;
        return QTest::qWaitFor(
            [this, before]() {
                control->moveByHand(moves % 2 == 0 ? 400 : 320);
                return moves > before;
            },
            kTimeoutMs);
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
            QTest::qWait(15);
        }
    }

    void destroy(const QString& what)
    {
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
                service->connect();
                QTest::qWait(30);
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
    QStringList parts{"binding", "control", "service", "surface"};
    std::sort(parts.begin(), parts.end());
    do {
        QTest::newRow(qPrintable(parts.join(','))) << parts;
    } while (std::next_permutation(parts.begin(), parts.end()));
}

void TestTeardownOrders::everyOrderIsClean()
{
    QFETCH(QStringList, order);
    Scene scene;
    QVERIFY(scene.connectAndWait());
    QVERIFY(scene.moveArrives());
    for (const QString& part : order) {
        scene.survivorsReport();
        scene.destroy(part);
        scene.survivorsReport();
    }
}

// The use-after-free of the report: the engine (and with it the service, its singleton)
// goes first, and controls made in that engine still report on their way out.
void TestTeardownOrders::controlsReportingAfterTheEngineIsGone()
{
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
    QTest::qWait(300);
    // Keep the objects, drop the engine.
    root->setParent(nullptr);
    QQmlEngine::setObjectOwnership(root, QQmlEngine::CppOwnership);
    delete engine;
    for (int i = 0; i < 10 && control; ++i) {
        QVERIFY(QMetaObject::invokeMethod(control, "moveByHand", Q_ARG(int, 100 + i)));
        QVERIFY(control->setProperty("touched", i % 2 == 0));
        QTest::qWait(10);
    }
    delete root;
}

void TestTeardownOrders::receiverThatIsDestroyedRemovesItself()
{
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
    QTest::qWait(20);
}

QTEST_MAIN(TestTeardownOrders)
#include "tst_teardownorders.moc"
