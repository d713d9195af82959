#pragma once

#include <QString>

// Who holds a serial device. A program that opens a port through QSerialPort leaves a
// UUCP-style lock file (LCK..<name>, its pid on the first line) in the first usable lock
// directory; the tool reads it to say "in use by pid N" instead of Qt's "Permission error
// while locking the device".
class PortLock
{
public:
    // The pid named by the device's lock file while that process lives; 0 when the device
    // is not locked. The device name is taken as given (resolve links first).
    static qint64 holder(const QString& device);
    // Qt's reason for a port that did not open, or "in use by pid N" when another process
    // holds the device.
    static QString describe(const QString& device, const QString& openError);
};
