// A deliberate data race that ThreadSanitizer must report with tests/tsan.supp in force.
// Qt 5 is not instrumented, so that file names Qt's own reports; an entry that matched a Qt
// frame below the plugin's (a Qt module, the event dispatch, the signal dispatch, the QML
// engine, the test runner) would also hide every race in the plugin's code that Qt calls
// into. Each test function here writes a plain int from a second thread and reads or writes
// it on the plugin's side of one such call, with nothing ordering the two; ctest passes only
// when the report's top frame on the plugin's side is the function named for it (see
// tests/CMakeLists.txt).
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
    // Read by a QML binding: the binding engine calls the getter.
    Q_PROPERTY(int counterRead READ counterRead NOTIFY counterReadChanged)

public:
    // The second thread's write, then its news, told with no ordering at all: a relaxed
    // store is not a release, so the other thread's access that follows is a race.
    void writeFromWorker()
    {
        counter = 1;
        workerWrote.store(true, std::memory_order_relaxed);
    }

    // The plugin's side as a slot or an invokable, called by name.
    Q_INVOKABLE void bumpRacily()
    {
        waitForWorker();
        counter = counter + 1;
        ++calls;
    }

    // The plugin's side as a lambda connected to a signal. It writes the int itself, so the
    // lambda is the top frame of its side of the report.
    auto lambdaForSignal()
    {
        return [this]() {
            waitForWorker();
            counter = counter + 1;
            ++calls;
        };
    }

    // The plugin's side as a functor given to QMetaObject::invokeMethod.
    auto functorForInvokeMethod()
    {
        return [this]() {
            waitForWorker();
            counter = counter + 1;
            ++calls;
        };
    }

    // The plugin's side as a property getter that a binding evaluates.
    int counterRead() const
    {
        waitForWorker();
        ++calls;
        return counter;
    }

    int counter = 0;
    std::atomic<bool> workerWrote{false};
    mutable std::atomic<int> calls{0};

signals:
    void poked();
    void counterReadChanged();

private:
    void waitForWorker() const
    {
        while (!workerWrote.load(std::memory_order_relaxed)) {
            std::this_thread::yield();
        }
    }
};

}  // namespace

class TestRacesReported : public QObject
{
    Q_OBJECT

private slots:
    void raceReachedFromJavaScript();
    void raceInQueuedSlot();
    void raceInConnectedLambda();
    void raceInInvokedFunctor();
    void raceInBoundGetter();
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

// A second thread emits a signal connected to a lambda, then writes what the lambda writes.
// The racer lives on this thread, so Qt queues the call here: its signal dispatch posts it and
// its event dispatch runs the lambda.
void TestRacesReported::raceInConnectedLambda()
{
    Racer racer;
    QObject::connect(&racer, &Racer::poked, &racer, racer.lambdaForSignal());
    std::thread worker([&racer]() {
        emit racer.poked();
        racer.writeFromWorker();
    });
    QVERIFY(QTest::qWaitFor([&racer]() { return racer.calls.load() == 1; }, 5000));
    worker.join();
}

// A second thread hands a functor to this thread with QMetaObject::invokeMethod, then
// writes what the functor writes.
void TestRacesReported::raceInInvokedFunctor()
{
    Racer racer;
    std::thread worker([&racer]() {
        QMetaObject::invokeMethod(&racer, racer.functorForInvokeMethod(), Qt::QueuedConnection);
        racer.writeFromWorker();
    });
    QVERIFY(QTest::qWaitFor([&racer]() { return racer.calls.load() == 1; }, 5000));
    worker.join();
}

// A QML binding reads a property whose getter reads what a second thread writes.
void TestRacesReported::raceInBoundGetter()
{
    Racer racer;
    QQmlEngine engine;
    engine.rootContext()->setContextProperty(QStringLiteral("racer"), &racer);
    QQmlComponent component(&engine);
    component.setData("import QtQml 2.0\nQtObject { property int seen: racer.counterRead }",
                      QUrl());
    std::thread worker([&racer]() { racer.writeFromWorker(); });
    QScopedPointer<QObject> root(component.create());
    worker.join();
    QVERIFY2(root, qPrintable(component.errorString()));
    QCOMPARE(root->property("seen").toInt(), 1);
}

QTEST_GUILESS_MAIN(TestRacesReported)
#include "tst_racesreported.moc"
