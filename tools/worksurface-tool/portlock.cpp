#include "portlock.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QStandardPaths>
#include <QStringList>

namespace {

// Where QSerialPort looks for and puts its lock files, in its order: the first directory
// that is readable and either holds the file or is writable.
QString lockFilePath(const QString& device)
{
    const QStringList directories{QStringLiteral("/var/lock"),
                                  QStringLiteral("/etc/locks"),
                                  QStringLiteral("/var/spool/locks"),
                                  QStringLiteral("/var/spool/uucp"),
                                  QStringLiteral("/tmp"),
                                  QStringLiteral("/var/tmp"),
                                  QStringLiteral("/var/lock/lockdev"),
                                  QStringLiteral("/run/lock"),
                                  QStandardPaths::writableLocation(QStandardPaths::TempLocation)};
    QString name = device;
    if (name.startsWith(QLatin1String("/dev/"))) {
        name = name.mid(5);
    }
    name.replace('/', '_');
    name.prepend(QLatin1String("/LCK.."));
    for (const QString& directory : directories) {
        const QFileInfo info(directory);
        const QString path = directory + name;
        if (info.isReadable() && (QFile::exists(path) || info.isWritable())) {
            return path;
        }
    }
    return QString();
}

}  // namespace

qint64 PortLock::holder(const QString& device)
{
    const QString path = lockFilePath(device);
    if (path.isEmpty() || !QFile::exists(path)) {
        return 0;
    }
    QLockFile lock(path);
    qint64 pid = 0;
    QString host;
    QString application;
    if (!lock.getLockInfo(&pid, &host, &application) || pid <= 0) {
        return 0;
    }
    // A lock left behind by a process that is gone holds nothing.
    if (!QFileInfo::exists(QStringLiteral("/proc/%1").arg(pid))) {
        return 0;
    }
    return pid;
}

QString PortLock::describe(const QString& device, const QString& openError)
{
    const QString canonical = QFileInfo(device).canonicalFilePath();
    const qint64 pid = holder(canonical.isEmpty() ? device : canonical);
    if (pid > 0 && pid != QCoreApplication::applicationPid()) {
        return QStringLiteral("in use by pid %1").arg(pid);
    }
    return openError;
}
