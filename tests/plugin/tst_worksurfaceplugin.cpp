#include <QJsonObject>
#include <QPluginLoader>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QtTest>

#include "plugin/worksurfaceplugin.h"

namespace {

QString pluginPath()
{
    return QStringLiteral(TARVIX_QML_ROOT "/Tarvix/Worksurface/libtarvixworksurface.so");
}

}  // namespace

class TestWorksurfacePlugin : public QObject
{
    Q_OBJECT

private slots:
    void metadataNamesTheModuleAndTheClass()
    {
        QPluginLoader loader(pluginPath());
        const QJsonObject meta = loader.metaData();
        QCOMPARE(meta.value("IID").toString(), QString("Tarvix.Worksurface"));
        QCOMPARE(meta.value("className").toString(), QString("WorksurfacePlugin"));
        QCOMPARE(meta.value("debug").toBool(true), false);
        QCOMPARE(meta.value("MetaData").toObject(), QJsonObject());
    }

    void theInstanceIsOnePerProcessWhileItLives()
    {
        QPluginLoader loader(pluginPath());
        QObject* first = loader.instance();
        QVERIFY2(first, qPrintable(loader.errorString()));
        QCOMPARE(QByteArray(first->metaObject()->className()), QByteArray("WorksurfacePlugin"));
        QPluginLoader second(pluginPath());
        QCOMPARE(second.instance(), first);
    }

    void everyTypeIsRegisteredAtOneZeroAsItsKind_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("reason");  // empty: creatable
        for (const char* name : {"GlobalSurfaceBinding", "ButtonBinding", "FaderBinding",
                                 "RotaryBinding", "LedBinding", "PotBinding", "MeterBinding",
                                 "RgbLedBinding", "SectionControl", "ButtonControl", "FaderControl",
                                 "RotaryControl", "PotControl", "RgbLedControl", "MeterControl"}) {
            QTest::newRow(name) << QString(name) << QString();
        }
        for (const char* name : {"FlashInfo", "FaderSettings", "RestMode", "FaderLockInfo",
                                 "SurfaceSettings", "SurfaceConnection", "SectionInfoModel"}) {
            QTest::newRow(name) << QString(name) << QString("Can't create %1 from qml").arg(name);
        }
    }

    void everyTypeIsRegisteredAtOneZeroAsItsKind()
    {
        QFETCH(QString, name);
        QFETCH(QString, reason);
        QQmlEngine engine;
        engine.addImportPath(QStringLiteral(TARVIX_QML_ROOT));
        QQmlComponent component(&engine);
        component.setData(QString("import Tarvix.Worksurface 1.0\n%1 {}").arg(name).toUtf8(),
                          QUrl());
        std::unique_ptr<QObject> object(component.create());
        if (reason.isEmpty()) {
            QVERIFY2(object, qPrintable(component.errorString()));
        } else {
            QVERIFY(!object);
            QCOMPARE(component.errors().value(0).description(), reason);
        }
    }

    void singletonsAreOnePerEngine()
    {
        QQmlEngine engine;
        engine.addImportPath(QStringLiteral(TARVIX_QML_ROOT));
        QQmlComponent component(&engine);
        component.setData(
            "import QtQml 2.15\nimport Tarvix.Worksurface 1.0\n"
            "QtObject { property var a: Surface; property var b: Surface;"
            " property var c: ResponseCurve }",
            QUrl());
        std::unique_ptr<QObject> object(component.create());
        QVERIFY2(object, qPrintable(component.errorString()));
        QObject* a = object->property("a").value<QObject*>();
        QVERIFY(a);
        QCOMPARE(object->property("b").value<QObject*>(), a);
        QCOMPARE(QByteArray(a->metaObject()->className()), QByteArray("WorksurfaceFunctions"));
        QCOMPARE(QByteArray(object->property("c").value<QObject*>()->metaObject()->className()),
                 QByteArray("ResponseCurve"));
    }
};

// QML's own types are enough here: no GUI application, so no platform plugin.
QTEST_GUILESS_MAIN(TestWorksurfacePlugin)
#include "tst_worksurfaceplugin.moc"
