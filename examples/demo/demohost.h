#pragma once

#include <QObject>
#include <QString>

// What the demo's QML needs from the launcher and cannot do itself: print the walk-through's
// lines on standard output (console.log goes to the message handler, with a "qml:" prefix,
// on standard error), save a picture of the window, and end the application with an exit
// code.
class DemoHost : public QObject
{
    Q_OBJECT

public:
    explicit DemoHost(QObject* parent = nullptr);

    // One line on standard output, flushed at once so a pipe sees each step as it happens.
    Q_INVOKABLE void print(const QString& line) const;
    // Renders `window` (a Window or ApplicationWindow) and saves it as PNG; false, with a
    // warning, when the window cannot be grabbed or the file cannot be written.
    Q_INVOKABLE bool saveScreenshot(QObject* window, const QString& path) const;
    // Leaves the event loop with `code` once control returns to it.
    Q_INVOKABLE void exit(int code) const;

    // Size of the image writeDemoFirmware() writes: 128 blocks of 64 bytes, an update of a
    // few seconds in the demo's window, long enough to watch the progress.
    static constexpr int kDemoFirmwareBytes = 8192;
    // Writes the software sections' demo firmware image as `home`/.firmware/worksurface.bin
    // (byte i is i * 31 + 7, modulo 256); false if it cannot.
    static bool writeDemoFirmware(const QString& home);
};
