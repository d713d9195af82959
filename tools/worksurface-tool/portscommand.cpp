#include "portscommand.h"

#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QSerialPortInfo>

#include "exitcode.h"
#include "portlock.h"
#include "reportprinter.h"
#include "serial/hardwareserialconnection.h"
#include "toolcontext.h"

using Velmora::Worksurface::HardwareSerialConnection;

namespace {

// The device's real name (links resolved), or the name itself when it leads nowhere.
QString realName(const QString& device)
{
    const QString canonical = QFileInfo(device).canonicalFilePath();
    return canonical.isEmpty() ? device : canonical;
}

// The kernel driver of a serial device, from sysfs; empty when unknown.
QString driverOf(const QSerialPortInfo& info)
{
    const QString driver =
        QFileInfo(QStringLiteral("/sys/class/tty/%1/device/driver").arg(info.portName()))
            .canonicalFilePath();
    return driver.isEmpty() ? QString() : QFileInfo(driver).fileName();
}

}  // namespace

PortsCommand::PortsCommand(ToolContext& context) : m_context(context) {}

int PortsCommand::run()
{
    return m_context.options().scan ? scan() : checkSections();
}

int PortsCommand::checkSections()
{
    ReportPrinter printer(m_context.output());
    int code = ExitCode::Success;
    for (const SectionDevice& section : m_context.sections()) {
        ReportPrinter::PortCheck check;
        check.section = section.index;
        check.device = section.device;
        check.exists = !section.device.isEmpty() && QFileInfo::exists(section.device);
        // Opened only for the check, with the link's own line settings, under the device's
        // real name (the one its lock is taken by).
        HardwareSerialConnection connection(section.index, realName(section.device));
        connection.open();
        check.openable = connection.isOpen();
        if (!check.openable) {
            check.error = PortLock::describe(section.device, connection.errorString());
            ExitCode::keepFirst(code, ExitCode::PortError);
        }
        connection.close();
        printer.portCheck(check);
    }
    return code;
}

int PortsCommand::scan()
{
    // Every serial device the machine has, with the names that find it again after a
    // replug (/dev/serial/by-id) and what the USB side says about it.
    QMap<QString, QString> byId;
    const QDir idDirectory(QStringLiteral("/dev/serial/by-id"));
    for (const QFileInfo& link : idDirectory.entryInfoList(QDir::System | QDir::Files)) {
        byId.insert(link.canonicalFilePath(), link.absoluteFilePath());
    }
    ReportPrinter printer(m_context.output());
    const QList<QSerialPortInfo> infos = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo& info : infos) {
        ReportPrinter::SerialDevice device;
        device.device = info.systemLocation();
        device.byId = byId.value(realName(device.device));
        device.pid = PortLock::holder(realName(device.device));
        if (info.hasVendorIdentifier()) {
            device.vendorId = info.vendorIdentifier();
        }
        if (info.hasProductIdentifier()) {
            device.productId = info.productIdentifier();
        }
        device.serialNumber = info.serialNumber();
        device.description = info.description();
        device.driver = driverOf(info);
        printer.serialDevice(device);
    }
    if (infos.isEmpty()) {
        ReportPrinter::noSerialDevices();
    }
    return ExitCode::Success;
}
