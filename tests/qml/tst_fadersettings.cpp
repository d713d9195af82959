#include <QMetaEnum>
#include <QMetaProperty>
#include <QSignalSpy>
#include <QtTest/QtTest>

#include "qml/fadersettings.h"
#include "qml/restmode.h"

class TestFaderSettings : public QObject
{
    Q_OBJECT

private slots:
    void restModeStartsAsForceMinimum();
    void settingANewRestModeStoresAndEmitsOnce();
    void settingTheCurrentRestModeEmitsNothing();
    void restModeIsAPropertyWithItsNotifySignal();
    void restModeTypeIsAScopedEnumerationWithItsValues();
};

void TestFaderSettings::restModeStartsAsForceMinimum()
{
    FaderSettings faders;
    QCOMPARE(faders.restMode(), RestMode::Type::ForceMinimum);
    QCOMPARE(faders.property("restMode").value<RestMode::Type>(), RestMode::Type::ForceMinimum);
}

void TestFaderSettings::settingANewRestModeStoresAndEmitsOnce()
{
    FaderSettings faders;
    QSignalSpy spy(&faders, &FaderSettings::restModeChanged);

    faders.setRestMode(RestMode::Type::KeepCurrent);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(faders.restMode(), RestMode::Type::KeepCurrent);

    faders.setRestMode(RestMode::Type::ForceMinimum);
    QCOMPARE(spy.count(), 2);
    QCOMPARE(faders.restMode(), RestMode::Type::ForceMinimum);
}

void TestFaderSettings::settingTheCurrentRestModeEmitsNothing()
{
    FaderSettings faders;
    QSignalSpy spy(&faders, &FaderSettings::restModeChanged);

    faders.setRestMode(RestMode::Type::ForceMinimum);
    QCOMPARE(spy.count(), 0);

    faders.setRestMode(RestMode::Type::KeepCurrent);
    faders.setRestMode(RestMode::Type::KeepCurrent);
    QCOMPARE(spy.count(), 1);
}

void TestFaderSettings::restModeIsAPropertyWithItsNotifySignal()
{
    const QMetaObject& meta = FaderSettings::staticMetaObject;
    QCOMPARE(meta.propertyCount() - meta.propertyOffset(), 1);
    const QMetaProperty property = meta.property(meta.propertyOffset());
    QCOMPARE(property.name(), "restMode");
    QCOMPARE(property.typeName(), "RestMode::Type");
    QVERIFY(property.isWritable());
    QCOMPARE(property.notifySignal().methodSignature(), QByteArray("restModeChanged()"));
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 1);

    FaderSettings faders;
    QSignalSpy spy(&faders, &FaderSettings::restModeChanged);
    QVERIFY(faders.setProperty("restMode", QVariant::fromValue(RestMode::Type::KeepCurrent)));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(faders.restMode(), RestMode::Type::KeepCurrent);
}

void TestFaderSettings::restModeTypeIsAScopedEnumerationWithItsValues()
{
    const QMetaEnum type = QMetaEnum::fromType<RestMode::Type>();
    QCOMPARE(type.enclosingMetaObject(), &RestMode::staticMetaObject);
    QCOMPARE(type.name(), "Type");
    QVERIFY(type.isScoped());
    QCOMPARE(type.keyCount(), 2);
    QCOMPARE(type.keyToValue("ForceMinimum"), 0);
    QCOMPARE(type.keyToValue("KeepCurrent"), 1);
}

QTEST_GUILESS_MAIN(TestFaderSettings)
#include "tst_fadersettings.moc"
