// A deliberate data race that ThreadSanitizer must report with tests/tsan.supp in force.
// Qt 5 is not instrumented, so that file names Qt's own reports; an entry that matches any
// frame of a stack (a Qt module, the event dispatch, the test runner) would also hide every
// race in the plugin's code that QML/JS or a queued slot calls into. Each test function here
// writes a plain int from a second thread and from the plugin's side of such a call, with
// nothing ordering the two writes; ctest passes only when the report names Racer::bumpRacily
// (see tests/CMakeLists.txt).
#include <QQmlComponent>
#include <QQmlContext>
#include <QQmlEngine>
#include <QtTest>
#include <atomic>
#include <thread>

namespace {

class Racer : public QObject
{
    Q_OBJECT

public:
    // The second thread's write, then its news, told with no ordering at all: a relaxed
    // store is not a release, so the other thread's write that follows is a race.
    void writeFromWorker()
    {
        counter = 1;
        workerWrote.store(true, std::memory_order_relaxed);
    }

    Q_INVOKABLE void bumpRacily()
    {
        while (!workerWrote.load(std::memory_order_relaxed)) {
            std::this_thread::yield();
        }
        counter = counter + 1;
        ++calls;
    }

    int counter = 0;
    std::atomic<bool> workerWrote{false};
    std::atomic<int> calls{0};
};

}  // namespace

class TestRacesReported : public QObject
{
    Q_OBJECT

private slots:
    void raceReachedFromJavaScript();
    void raceInQueuedSlot();
};

// A QML handler calls an invokable on an object that a second thread writes.
void TestRacesReported::raceReachedFromJavaScript()
{
    Racer racer;
    QQmlEngine engine;
    engine.rootContext()->setContextProperty(QStringLiteral("racer"), &racer);
    QQmlComponent component(&engine);
    component.setData("import QtQml 2.0\nQtObject { Component.onCompleted: racer.bumpRacily() }",
                      QUrl());
    std::thread worker([&racer]() { racer.writeFromWorker(); });
    QScopedPointer<QObject> root(component.create());
    worker.join();
    QVERIFY2(root, qPrintable(component.errorString()));
    QCOMPARE(racer.calls.load(), 1);
}

// A second thread queues a call to a slot on this thread, then writes what the slot writes.
void TestRacesReported::raceInQueuedSlot()
{
    Racer racer;
    std::thread worker([&racer]() {
        QMetaObject::invokeMethod(&racer, "bumpRacily", Qt::QueuedConnection);
        racer.writeFromWorker();
    });
    QVERIFY(QTest::qWaitFor([&racer]() { return racer.calls.load() == 1; }, 5000));
    worker.join();
}

QTEST_GUILESS_MAIN(TestRacesReported)
#include "tst_racesreported.moc"
