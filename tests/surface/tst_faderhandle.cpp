#include <QMetaMethod>
#include <QMetaObject>
#include <QPointer>
#include <QtTest/QtTest>
#include <cstdint>
#include <memory>

#include "serial/serialmessage.h"
#include "serial/serialmessagequeue.h"
#include "support/deferreddeletes.h"
#include "support/manualclock.h"
#include "surface/controltypes.h"
#include "surface/fader.h"
#include "surface/faderhandle.h"

using namespace Velmora::Worksurface;

namespace {}  // namespace

class TestFaderHandle : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { flushDeferredDeletes(); }

    void signalsHaveIndexes0To6InDeclarationOrder_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<QByteArray>("declared");
        QTest::addColumn<QByteArray>("parameterName");
        QTest::newRow("0") << 0 << QByteArray("faderMoved(quint16)") << QByteArray("to_position");
        QTest::newRow("1") << 1 << QByteArray("faderTouched(bool)") << QByteArray("touched");
        QTest::newRow("2") << 2 << QByteArray("internalSendFaderPosition(quint16)")
                           << QByteArray("position");
        QTest::newRow("3") << 3 << QByteArray("internalSendFaderDetent(quint16)")
                           << QByteArray("position");
        QTest::newRow("4") << 4 << QByteArray("internalSendFaderBackstop(quint16)")
                           << QByteArray("position");
        QTest::newRow("5") << 5 << QByteArray("internalSendFaderLockEnabled(bool)")
                           << QByteArray("enabled");
        QTest::newRow("6") << 6 << QByteArray("internalSendFaderLockPosition(quint16)")
                           << QByteArray("position");
    }

    void signalsHaveIndexes0To6InDeclarationOrder()
    {
        QFETCH(int, index);
        QFETCH(QByteArray, declared);
        // moc records quint16 under its underlying name.
        const QByteArray signature = QByteArray(declared).replace("quint16", "ushort");
        QFETCH(QByteArray, parameterName);
        const QMetaObject& meta = FaderHandle::staticMetaObject;
        const QMetaMethod method = meta.method(meta.methodOffset() + index);
        QCOMPARE(method.methodType(), QMetaMethod::Signal);
        QCOMPARE(method.methodSignature(), signature);
        QCOMPARE(method.parameterNames(), QList<QByteArray>{parameterName});
        QCOMPARE(method.parameterCount(), 1);
        QCOMPARE(method.parameterType(0),
                 declared.contains("bool") ? int(QMetaType::Bool) : int(QMetaType::UShort));
        QCOMPARE(meta.indexOfSignal(signature.constData()) - meta.methodOffset(), index);
    }

    void handleHasOnlyItsSevenSignalsAndNoProperties()
    {
        const QMetaObject& meta = FaderHandle::staticMetaObject;
        QCOMPARE(QByteArray(meta.className()), QByteArray("FaderHandle"));
        QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
        QCOMPARE(meta.methodCount() - meta.methodOffset(), 7);
        QCOMPARE(meta.propertyCount() - meta.propertyOffset(), 0);
    }

    void handleGivenOutPointsAtItsFader()
    {
        ManualClock clock(kStartNs);
        const auto fader =
            std::make_shared<Fader>(4, 2, FaderType::Fader, std::make_shared<SerialMessageQueue>());
        const auto handle = fader->getHandle();
        QCOMPARE(handle->fader(), static_cast<IFader*>(fader.get()));
        QVERIFY(handle->standsFor(2, 4));
        QVERIFY(!handle->standsFor(1, 4));
        QVERIFY(!handle->standsFor(2, 5));
        QVERIFY(!handle->standsFor(2, 10));
    }

    void touchedQueryFollowsTheFader()
    {
        ManualClock clock(kStartNs);
        const auto fader =
            std::make_shared<Fader>(4, 2, FaderType::Fader, std::make_shared<SerialMessageQueue>());
        const auto handle = fader->getHandle();
        QCOMPARE(handle->touched(), false);
        QVERIFY(fader->handleMessage(SerialMessage(MessageType::FaderTouch, 4, {1})));
        QCOMPARE(handle->touched(), true);
        handle->detach();
        QCOMPARE(handle->touched(), false);
    }

    void detachedHandleStandsForNothing()
    {
        ManualClock clock(kStartNs);
        const auto fader = std::make_shared<Fader>(10, 1, FaderType::MasterFader,
                                                   std::make_shared<SerialMessageQueue>());
        const auto handle = fader->getHandle();
        QVERIFY(handle->standsFor(1, 10));
        handle->detach();
        QCOMPARE(handle->fader(), static_cast<IFader*>(nullptr));
        QVERIFY(!handle->standsFor(1, 10));
    }

    void setModeReachesTheFaderQueuedAsDriveMode()
    {
        ManualClock clock(kStartNs);
        const auto queue = std::make_shared<SerialMessageQueue>();
        const auto fader = std::make_shared<Fader>(4, 2, FaderType::Fader, queue);
        clock.advanceMs(1000);
        const auto handle = fader->getHandle();
        emit handle->internalSendFaderPosition(100);
        handle->setMode(0);
        emit handle->internalSendFaderDetent(50);
        QCOMPARE(fader->driveMode(), 1);
        QCOMPARE(queue->size(), std::size_t(0));

        QCoreApplication::sendPostedEvents();
        QCOMPARE(fader->driveMode(), 0);
        QCOMPARE(queue->takeNextMessage(), SerialMessage(MessageType::FaderPosition, 4, {0, 100}));
        QCOMPARE(queue->takeNextMessage(), SerialMessage(MessageType::FaderDriveMode, 4, {0}));
        QCOMPARE(queue->takeNextMessage(), SerialMessage(MessageType::FaderDetent, 4, {0, 50}));
        QVERIFY(!queue->takeNextMessage().isValid());
    }

    void setModeOfHandleDetachedBeforeDeliveryIsDropped()
    {
        ManualClock clock(kStartNs);
        const auto queue = std::make_shared<SerialMessageQueue>();
        const auto fader = std::make_shared<Fader>(4, 2, FaderType::Fader, queue);
        const auto first = fader->getHandle();
        first->setMode(0);
        const auto second = fader->getHandle();
        QCoreApplication::sendPostedEvents();
        QCOMPARE(fader->driveMode(), 1);
        QCOMPARE(queue->size(), std::size_t(0));
        // A detached handle does nothing at all.
        first->setMode(0);
        QCoreApplication::sendPostedEvents();
        QCOMPARE(fader->driveMode(), 1);
    }

    void releaseGivesHandleBackAndDetachesIt()
    {
        ManualClock clock(kStartNs);
        const auto queue = std::make_shared<SerialMessageQueue>();
        const auto fader = std::make_shared<Fader>(4, 2, FaderType::Fader, queue);
        clock.advanceMs(1000);
        const auto handle = fader->getHandle();
        fader->setLockEnabled(true);
        handle->release();
        QCOMPARE(fader->hasHandle(), false);
        QCOMPARE(fader->lockEnabled(), false);
        QCOMPARE(handle->fader(), static_cast<IFader*>(nullptr));

        emit handle->internalSendFaderPosition(100);
        QCoreApplication::sendPostedEvents();
        QCOMPARE(queue->size(), std::size_t(0));
        // Releasing again is harmless.
        handle->release();
    }

    void handleOutlivingItsOwnersIsDeletedOnItsThread()
    {
        ManualClock clock(kStartNs);
        auto fader =
            std::make_shared<Fader>(4, 2, FaderType::Fader, std::make_shared<SerialMessageQueue>());
        QPointer<FaderHandle> guard;
        {
            const auto handle = fader->getHandle();
            guard = handle.get();
            fader.reset();
        }
        // Both owners are gone, but the handle waits for its event loop.
        QVERIFY(guard);
        flushDeferredDeletes();
        QVERIFY(!guard);
    }
};

QTEST_GUILESS_MAIN(TestFaderHandle)
#include "tst_faderhandle.moc"
