#include "reportprinter.h"

#include "base/jsonline.h"
#include "tooloutput.h"

namespace {

QString hex4(int value)
{
    return QStringLiteral("%1").arg(value, 4, 16, QLatin1Char('0'));
}

// Adds the key only for a value that is there.
void addKnown(JsonLine& line, const char* key, const QString& value)
{
    if (!value.isEmpty()) {
        line.add(key, value);
    }
}

}  // namespace

ReportPrinter::ReportPrinter(ToolOutput& output) : m_output(output) {}

void ReportPrinter::portCheck(const PortCheck& check)
{
    if (m_output.isJson()) {
        JsonLine line;
        line.add("section", static_cast<int>(check.section))
            .add("device", check.device)
            .add("exists", check.exists)
            .add("openable", check.openable);
        if (!check.openable) {
            line.add("error", check.error);
        }
        m_output.json(line);
        return;
    }
    QString text =
        QStringLiteral("section %1  %2  %3  ")
            .arg(check.section)
            .arg(check.device, check.exists ? QStringLiteral("exists") : QStringLiteral("missing"));
    text += check.openable ? QStringLiteral("openable")
                           : QStringLiteral("not openable: %1").arg(check.error);
    m_output.text(text);
}

void ReportPrinter::serialDevice(const SerialDevice& device)
{
    if (m_output.isJson()) {
        JsonLine line;
        line.add("device", device.device);
        addKnown(line, "byId", device.byId);
        if (device.vendorId >= 0) {
            line.add("vendorId", hex4(device.vendorId));
        }
        if (device.productId >= 0) {
            line.add("productId", hex4(device.productId));
        }
        addKnown(line, "serialNumber", device.serialNumber);
        addKnown(line, "description", device.description);
        addKnown(line, "driver", device.driver);
        if (device.pid > 0) {
            line.add("pid", device.pid);
        }
        m_output.json(line);
        return;
    }
    QStringList fields{device.device};
    if (!device.byId.isEmpty()) {
        fields << device.byId;
    }
    if (device.vendorId >= 0 && device.productId >= 0) {
        fields << QStringLiteral("usb %1:%2").arg(hex4(device.vendorId), hex4(device.productId));
    }
    if (!device.serialNumber.isEmpty()) {
        fields << QStringLiteral("serial %1").arg(device.serialNumber);
    }
    if (!device.description.isEmpty()) {
        fields << device.description;
    }
    if (!device.driver.isEmpty()) {
        fields << QStringLiteral("driver %1").arg(device.driver);
    }
    fields << (device.pid > 0 ? QStringLiteral("in use by pid %1").arg(device.pid)
                              : QStringLiteral("free"));
    m_output.text(fields.join(QStringLiteral("  ")));
}

void ReportPrinter::noSerialDevices()
{
    ToolOutput::note(QStringLiteral("no serial devices found"));
}

void ReportPrinter::probeResult(const ProbeResult& result)
{
    const bool application = result.state == QLatin1String("application");
    if (m_output.isJson()) {
        JsonLine line;
        line.add("section", static_cast<int>(result.section))
            .add("device", result.device)
            .add("state", result.state);
        if (application) {
            line.add("version", result.version).add("temperature", result.temperature);
        }
        addKnown(line, "error", result.error);
        m_output.json(line);
        return;
    }
    QString text =
        QStringLiteral("section %1  %2  %3").arg(result.section).arg(result.device, result.state);
    if (application) {
        text += QStringLiteral("  version %1  temperature %2")
                    .arg(result.version)
                    .arg(result.temperature);
    }
    if (!result.error.isEmpty()) {
        text += QStringLiteral("  %1").arg(result.error);
    }
    m_output.text(text);
}

void ReportPrinter::portError(uint8_t section, const QString& device, const QString& error)
{
    ToolOutput::note(
        QStringLiteral("section %1  %2  port-error  %3").arg(section).arg(device, error));
}

void ReportPrinter::monitoring(const QStringList& sections)
{
    ToolOutput::note(QStringLiteral("monitoring section %1; Ctrl-C ends").arg(sections.join(", ")));
}

void ReportPrinter::leftInBootloader(uint8_t section)
{
    ToolOutput::note(QStringLiteral("section %1 is in its bootloader: left there").arg(section));
}

void ReportPrinter::monitorEnded()
{
    ToolOutput::note(QStringLiteral("monitor ended"));
}

void ReportPrinter::notExercised(uint8_t section, const QString& device, const QString& state)
{
    ToolOutput::note(
        QStringLiteral("section %1  %2  %3: not exercised").arg(section).arg(device, state));
}

void ReportPrinter::stoppedAnswering(uint8_t section)
{
    ToolOutput::note(QStringLiteral("section %1 stopped answering").arg(section));
}

void ReportPrinter::exerciseInterrupted(uint8_t section, int exitCode)
{
    if (m_output.isJson()) {
        m_output.json(JsonLine()
                          .add("section", static_cast<int>(section))
                          .add("event", "interrupted")
                          .add("exit", exitCode));
        return;
    }
    ToolOutput::note(
        QStringLiteral("section %1 interrupted: LEDs off (exit %2)").arg(section).arg(exitCode));
}
