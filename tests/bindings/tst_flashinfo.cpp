#include <QMetaMethod>
#include <QMetaProperty>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <limits>

#include "bindings/flashinfo.h"

class TestFlashInfo : public QObject
{
    Q_OBJECT

private slots:
    void metaObjectListsSignalsAndPropertiesInOrder();
    void freshFlashIsOffWithIntervalZero();
    void enabledEmitsOnlyOnAChange();
    void intervalEmitsOnlyOnAChange();
    void intervalTakesAnyValueWithoutARangeCheck_data();
    void intervalTakesAnyValueWithoutARangeCheck();
    void propertiesWorkThroughTheMetaObject();
};

void TestFlashInfo::metaObjectListsSignalsAndPropertiesInOrder()
{
    const QMetaObject& meta = FlashInfo::staticMetaObject;
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        methods << QStringLiteral("%1 %2").arg(
            method.methodType() == QMetaMethod::Signal ? "signal" : "other",
            QString::fromLatin1(method.methodSignature()));
    }
    QCOMPARE(methods, QStringList({"signal enabledChanged()", "signal intervalChanged()"}));
    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QMetaProperty property = meta.property(i);
        properties << QStringLiteral("%1:%2:%3")
                          .arg(QString::fromLatin1(property.name()),
                               QString::fromLatin1(property.typeName()),
                               QString::fromLatin1(property.notifySignal().name()));
        QVERIFY(property.isWritable());
    }
    QCOMPARE(properties,
             QStringList({"enabled:bool:enabledChanged", "interval:int:intervalChanged"}));
}

void TestFlashInfo::freshFlashIsOffWithIntervalZero()
{
    FlashInfo flash;
    QCOMPARE(flash.enabled(), false);
    QCOMPARE(flash.interval(), 0);
}

void TestFlashInfo::enabledEmitsOnlyOnAChange()
{
    FlashInfo flash;
    QSignalSpy spy(&flash, &FlashInfo::enabledChanged);
    QSignalSpy intervalSpy(&flash, &FlashInfo::intervalChanged);
    flash.setEnabled(false);
    QCOMPARE(spy.count(), 0);
    flash.setEnabled(true);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(flash.enabled(), true);
    flash.setEnabled(true);
    QCOMPARE(spy.count(), 1);
    flash.setEnabled(false);
    QCOMPARE(spy.count(), 2);
    QCOMPARE(flash.enabled(), false);
    QCOMPARE(intervalSpy.count(), 0);
}

void TestFlashInfo::intervalEmitsOnlyOnAChange()
{
    FlashInfo flash;
    QSignalSpy spy(&flash, &FlashInfo::intervalChanged);
    QSignalSpy enabledSpy(&flash, &FlashInfo::enabledChanged);
    flash.setInterval(0);
    QCOMPARE(spy.count(), 0);
    flash.setInterval(500);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(flash.interval(), 500);
    flash.setInterval(500);
    QCOMPARE(spy.count(), 1);
    flash.setInterval(400);
    QCOMPARE(spy.count(), 2);
    QCOMPARE(enabledSpy.count(), 0);
}

void TestFlashInfo::intervalTakesAnyValueWithoutARangeCheck_data()
{
    QTest::addColumn<int>("interval");
    QTest::newRow("negative") << -250;
    QTest::newRow("one") << 1;
    QTest::newRow("int max") << std::numeric_limits<int>::max();
    QTest::newRow("int min") << std::numeric_limits<int>::min();
}

void TestFlashInfo::intervalTakesAnyValueWithoutARangeCheck()
{
    QFETCH(int, interval);
    FlashInfo flash;
    QSignalSpy spy(&flash, &FlashInfo::intervalChanged);
    flash.setInterval(interval);
    QCOMPARE(flash.interval(), interval);
    QCOMPARE(spy.count(), 1);
}

void TestFlashInfo::propertiesWorkThroughTheMetaObject()
{
    FlashInfo flash;
    QSignalSpy spy(&flash, &FlashInfo::enabledChanged);
    QVERIFY(flash.setProperty("enabled", true));
    QVERIFY(flash.setProperty("interval", 300));
    QCOMPARE(flash.enabled(), true);
    QCOMPARE(flash.interval(), 300);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(flash.property("interval").toInt(), 300);
}

QTEST_GUILESS_MAIN(TestFlashInfo)
#include "tst_flashinfo.moc"
