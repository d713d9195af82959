#pragma once

#include <QSerialPort>
#include <QtGlobal>

namespace Velmora::Worksurface {

// The number a link's log line gives for a QSerialPort error ("Error core: 9" for a
// resource error). It is Qt 5's numbering on every Qt: Qt 6 dropped the parity, framing and
// break-condition errors and renumbered the rest, and the log lines must not change with it.
inline int serialPortErrorCode(QSerialPort::SerialPortError error)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    switch (error) {
        case QSerialPort::NoError:
            return 0;
        case QSerialPort::DeviceNotFoundError:
            return 1;
        case QSerialPort::PermissionError:
            return 2;
        case QSerialPort::OpenError:
            return 3;
        case QSerialPort::WriteError:
            return 7;
        case QSerialPort::ReadError:
            return 8;
        case QSerialPort::ResourceError:
            return 9;
        case QSerialPort::UnsupportedOperationError:
            return 10;
        case QSerialPort::UnknownError:
            return 11;
        case QSerialPort::TimeoutError:
            return 12;
        case QSerialPort::NotOpenError:
            return 13;
    }
    return 11;
#else
    return static_cast<int>(error);
#endif
}

// The error a code of serialPortErrorCode() stands for; Qt 5's parity, framing and
// break-condition codes are unknown errors on Qt 6.
inline QSerialPort::SerialPortError serialPortErrorFromCode(int code)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    for (int value = QSerialPort::NoError; value <= QSerialPort::NotOpenError; ++value) {
        const auto error = static_cast<QSerialPort::SerialPortError>(value);
        if (serialPortErrorCode(error) == code) {
            return error;
        }
    }
    return QSerialPort::UnknownError;
#else
    return static_cast<QSerialPort::SerialPortError>(code);
#endif
}

}  // namespace Velmora::Worksurface
