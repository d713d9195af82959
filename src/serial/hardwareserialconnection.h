#pragma once

#include <QByteArray>
#include <QMutex>
#include <QObject>
#include <QSerialPort>
#include <QString>
#include <cstdint>
#include <memory>

#include "serial/iserialconnection.h"

namespace Velmora::Worksurface {

class ISerialDataReceiver;

// The byte pipe to one hardware section: its microcontroller's serial line (on the
// console "/dev/ttymxc0" to "/dev/ttymxc2"), 115200 baud, 8N1, no flow control.
//
// Messages are encoded into an output buffer and written in one go on flush(), so a
// supervision pass's burst of messages becomes one write. Failures only become log
// lines, and a lost or silent port is noticed by the section connection's time-outs,
// which restart the link by close() and open(). The one exception is a section that has
// gone (read or resource error): its port is closed as well, so that it stops reporting.
//
// The mutex guards the output buffer and the writes only. It is never held while the port
// is opened or closed or a line is logged: the port reports its errors synchronously, into
// handleSerialPortError (which may close the port) and the application's message handler.
class HardwareSerialConnection : public QObject, public ISerialConnection
{
    Q_OBJECT
public:
    // The section index is only used in log lines. The port is created now; its name is
    // set when the link is opened.
    HardwareSerialConnection(uint8_t sectionIndex, const QString& portName);
    ~HardwareSerialConnection() override;

    bool isOpen() const override;
    uint64_t messageCount() const override;
    void setDataReceiver(ISerialDataReceiver* receiver) override;
    void open() override;
    void close() override;
    void writeRaw(const BootloaderPacket& packet) override;
    void sendMessage(const SerialMessage& message) override;
    void flush() override;
    QString portName() const override;
    QString portError() const override;
    void reopen() override;

    // Bytes waiting in the output buffer for the next flush (diagnostics).
    int bufferedByteCount() const;
    // Why the port last failed (the operating system's words), e.g. after an open that
    // left the connection closed.
    QString errorString() const;
    // The port itself, read-only: for diagnostics and tests that watch its signals.
    const QSerialPort* port() const { return m_port.get(); }

public slots:
    // On the port's readyRead: hands every available byte to the data receiver.
    void readSerialData();
    // Logs the port's errors; recovery is the section connection's job. A read or resource
    // error also closes the port: the section is gone, and an open port would report it
    // again on every pass of the event loop.
    void handleSerialPortError(QSerialPort::SerialPortError error);

private:
    // Closes the port of a section that has gone (see handleSerialPortError).
    void closeVanishedPort();
    // Writes data to the port; the caller holds m_mutex. Returns the port's error when the
    // write failed (NoError otherwise), for logWriteError() once the lock is released.
    QSerialPort::SerialPortError writeLocked(const QByteArray& data);
    // Writes what the line takes at once straight to its device and returns how many bytes
    // that was (0 when something of the port's is still waiting, or on any error). The port
    // itself would keep the bytes until the next pass of the event loop, write them then and
    // wake the loop once more to stop watching the line: three passes of the links' thread
    // for every packet of a firmware update, where the line would have taken it at once.
    qint64 writeToLineNow(const QByteArray& data);
    // The two lines of a failed write; called without the lock, like every call that can
    // reach the application (its message handler) or the port's error handling.
    void logWriteError(QSerialPort::SerialPortError error) const;
    int logIndex() const { return m_sectionIndex; }
    // How the last open ended, so that a reopen() can leave out what it would only repeat.
    enum class LastOpen
    {
        None,
        Opened,
        Failed,
    };
    // Whether a line about an open that ended with `error` (NoError: it opened) is news in
    // the current attempt.
    bool isNews(QSerialPort::SerialPortError error) const;
    void noteOpenFailure(QSerialPort::SerialPortError error, const QString& portError);

    uint8_t m_sectionIndex;
    QString m_portName;
    std::unique_ptr<QSerialPort> m_port;
    ISerialDataReceiver* m_dataReceiver = nullptr;
    QByteArray m_outputBuffer;
    mutable QMutex m_mutex;
    uint64_t m_messageCount = 0;
    QString m_portError;
    LastOpen m_lastOpen = LastOpen::None;
    QSerialPort::SerialPortError m_lastOpenError = QSerialPort::NoError;
    // Set while reopen() runs.
    bool m_reopening = false;
    // Set while close() closes the port.
    bool m_closing = false;
};

}  // namespace Velmora::Worksurface
