// Runs every tests/qml/tst_*.qml against the module in the build tree.
#include <QObject>
#include <QQmlContext>
#include <QQmlEngine>
#include <QtQuickTest>

class QmlTestSetup : public QObject
{
    Q_OBJECT

public slots:
    // The tests see which Qt runs them where the QML engines differ (qtMajorVersion).
    void qmlEngineAvailable(QQmlEngine* engine)
    {
        engine->rootContext()->setContextProperty(QStringLiteral("qtMajorVersion"),
                                                  QT_VERSION_MAJOR);
    }
};

QUICK_TEST_MAIN_WITH_SETUP(tarvixworksurface, QmlTestSetup)

#include "qmltestrunner.moc"
