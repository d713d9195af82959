#include "demohost.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QPixmap>
#include <QQuickWindow>
#include <QScreen>
#include <QTimer>
#include <cstdio>

DemoHost::DemoHost(QObject* parent) : QObject(parent) {}

void DemoHost::print(const QString& line) const
{
    const QByteArray bytes = line.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

bool DemoHost::saveScreenshot(QObject* window, const QString& path) const
{
    auto* quickWindow = qobject_cast<QQuickWindow*>(window);
    if (quickWindow == nullptr || path.isEmpty()) {
        qWarning("worksurface-demo: no window or no file name for the screenshot");
        return false;
    }
    QImage image = quickWindow->grabWindow();
    if (image.isNull() && quickWindow->screen() != nullptr) {
        // Qt Quick's software renderer cannot read back from the offscreen platform's
        // backing store; the platform's own screen grab composes the same picture.
        image = quickWindow->screen()->grabWindow(quickWindow->winId()).toImage();
    }
    if (image.isNull()) {
        qWarning("worksurface-demo: the window could not be grabbed");
        return false;
    }
    const QFileInfo file(path);
    QDir().mkpath(file.absolutePath());
    if (!image.save(file.absoluteFilePath(), "PNG")) {
        qWarning("worksurface-demo: could not write %s", qPrintable(file.absoluteFilePath()));
        return false;
    }
    return true;
}

void DemoHost::exit(int code) const
{
    // Queued, so a call from inside a QML handler unwinds before the loop ends.
    QTimer::singleShot(0, qApp, [code]() { QCoreApplication::exit(code); });
}

bool DemoHost::writeDemoFirmware(const QString& home)
{
    if (!QDir(home).mkpath(QStringLiteral(".firmware"))) {
        return false;
    }
    QByteArray image(kDemoFirmwareBytes, '\0');
    for (int i = 0; i < image.size(); ++i) {
        image[i] = static_cast<char>((i * 31 + 7) & 0xFF);
    }
    QFile file(QDir(home).filePath(QStringLiteral(".firmware/worksurface.bin")));
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(image) == image.size();
}
