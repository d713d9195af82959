// worksurface-demo: one window with a console user interface built from the plugin's
// bindings beside a worksurface played by its software controls, or, with --walkthrough,
// a scripted tour that checks every kind of control in both directions.

#include <QCommandLineParser>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQuickWindow>
#include <QSGRendererInterface>
#include <QTemporaryDir>
#include <QUrl>
#include <cstdio>

#include "demohost.h"

#ifndef TARVIX_QML_ROOT
#define TARVIX_QML_ROOT ""
#endif

namespace {

int usageError(const QCommandLineParser& parser, const QString& message)
{
    std::fprintf(stderr, "worksurface-demo: %s\n\n%s", qPrintable(message),
                 qPrintable(parser.helpText()));
    return 2;
}

}  // namespace

int main(int argc, char* argv[])
{
    QGuiApplication app(argc, argv);
    QGuiApplication::setApplicationName(QStringLiteral("worksurface-demo"));
    QGuiApplication::setApplicationVersion(QStringLiteral("1.0"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Drives a worksurface from a console user interface; by default the worksurface is "
        "the software surface shown beside it."));
    parser.addHelpOption();
    const QCommandLineOption modelOption(QStringList{QStringLiteral("m"), QStringLiteral("model")},
                                         QStringLiteral("Console model: K40 or K60."),
                                         QStringLiteral("model"), QStringLiteral("K60"));
    const QCommandLineOption typeOption(
        QStringList{QStringLiteral("t"), QStringLiteral("type")},
        QStringLiteral("Surface type: software (played by the window) or hardware (the "
                       "sections on their serial devices)."),
        QStringLiteral("type"), QStringLiteral("software"));
    const QCommandLineOption screenshotOption(
        QStringLiteral("screenshot"),
        QStringLiteral("Save a PNG of the window: after the walk-through, or once the surface "
                       "is up."),
        QStringLiteral("file"));
    const QCommandLineOption walkthroughOption(
        QStringLiteral("walkthrough"),
        QStringLiteral("Run the scripted tour, print one line per step and exit with 0 only "
                       "if every step arrived."));
    parser.addOption(modelOption);
    parser.addOption(typeOption);
    parser.addOption(screenshotOption);
    parser.addOption(walkthroughOption);
    parser.process(app);

    const QString model = parser.value(modelOption).toUpper();
    if (model != QLatin1String("K40") && model != QLatin1String("K60")) {
        return usageError(parser, QStringLiteral("unknown model \"%1\"").arg(model));
    }
    const QString type = parser.value(typeOption).toLower();
    if (type != QLatin1String("software") && type != QLatin1String("hardware")) {
        return usageError(parser, QStringLiteral("unknown surface type \"%1\"").arg(type));
    }
    const bool walkthrough = parser.isSet(walkthroughOption);
    if (walkthrough && type != QLatin1String("software")) {
        return usageError(parser,
                          QStringLiteral("the walk-through plays the sections itself: it needs "
                                         "--type software"));
    }
    QString screenshot = parser.value(screenshotOption);
    if (screenshot.isEmpty() && walkthrough) {
        screenshot = QStringLiteral("demo-walkthrough.png");
    }
    if (!screenshot.isEmpty()) {
        screenshot = QFileInfo(screenshot).absoluteFilePath();
    }

    // Without a display there is usually no OpenGL either; Qt Quick's software renderer
    // draws the same scene and can still be grabbed for the screenshot.
    if (QGuiApplication::platformName() == QLatin1String("offscreen") ||
        QGuiApplication::platformName() == QLatin1String("minimal")) {
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
#else
        QQuickWindow::setSceneGraphBackend(QSGRendererInterface::Software);
#endif
    }

    // The software sections can be put into their bootloader from the fault panel: they are
    // then updated from a firmware image generated here, in a scratch home folder where the
    // plugin looks first. The sections on hardware keep the user's own image.
    QTemporaryDir firmwareHome;
    if (type == QLatin1String("software") && firmwareHome.isValid() &&
        DemoHost::writeDemoFirmware(firmwareHome.path())) {
        qputenv("HOME", QFile::encodeName(firmwareHome.path()));
    }

    // Before the engine, so it outlives every QML object that may still call it.
    DemoHost host;
    QQmlApplicationEngine engine;
    // The module as built, ahead of any installed copy.
    const QString builtModules = QStringLiteral(TARVIX_QML_ROOT);
    if (!builtModules.isEmpty() && QFileInfo(builtModules).isDir()) {
        engine.addImportPath(builtModules);
    }

    QQmlContext* context = engine.rootContext();
    context->setContextProperty(QStringLiteral("demoHost"), &host);
    context->setContextProperty(QStringLiteral("demoModel"), model);
    context->setContextProperty(QStringLiteral("demoType"), type);
    context->setContextProperty(QStringLiteral("demoScreenshot"), screenshot);
    context->setContextProperty(QStringLiteral("demoWalkthrough"), walkthrough);

    engine.load(QUrl(QStringLiteral("qrc:/demo/Main.qml")));
    if (engine.rootObjects().isEmpty()) {
        std::fprintf(stderr, "worksurface-demo: the demo's QML did not load\n");
        return 1;
    }
    return QGuiApplication::exec();
}
