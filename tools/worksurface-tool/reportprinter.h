#pragma once

#include <QString>
#include <QStringList>
#include <QtGlobal>
#include <cstdint>

class ToolOutput;

// What ports, probe, monitor and exercise say about sections and devices, as text or JSON:
// results on standard output, one line per section (ports --scan: per serial device), and
// notes for people on standard error. Traffic and link events are TrafficPrinter's, a
// flash's lines FlashPrinter's.
class ReportPrinter
{
public:
    explicit ReportPrinter(ToolOutput& output);

    // ports: a section's device, whether it exists and whether it opens (and why not).
    struct PortCheck
    {
        uint8_t section = 0;
        QString device;
        bool exists = false;
        bool openable = false;
        QString error;
    };
    void portCheck(const PortCheck& check);

    // ports --scan: a serial device of the machine and what its USB side says about it.
    struct SerialDevice
    {
        QString device;
        QString byId;
        int vendorId = -1;  // -1: unknown
        int productId = -1;
        QString serialNumber;
        QString description;
        QString driver;
        qint64 pid = 0;  // the process that holds it, 0 when free
    };
    void serialDevice(const SerialDevice& device);
    static void noSerialDevices();

    // probe: a section's state ("application" with its version and temperature,
    // "port-error" with the reason, "bootloader", "garbled", "silent").
    struct ProbeResult
    {
        uint8_t section = 0;
        QString device;
        QString state;
        int version = 0;
        int temperature = 0;
        QString error;
    };
    void probeResult(const ProbeResult& result);

    // monitor's notes.
    static void portError(uint8_t section, const QString& device, const QString& error);
    static void monitoring(const QStringList& sections);
    static void leftInBootloader(uint8_t section);
    static void monitorEnded();

    // exercise: a section skipped after the probe (its state, or "port-error  why"), one
    // whose queue stopped draining, and the end of an interrupted pattern.
    static void notExercised(uint8_t section, const QString& device, const QString& state);
    static void stoppedAnswering(uint8_t section);
    void exerciseInterrupted(uint8_t section, int exitCode);

private:
    ToolOutput& m_output;
};
