#include "base/settings.h"

#include <QDir>
#include <QFileInfo>

namespace Velmora::Worksurface {

namespace {

constexpr uint8_t kNoSection = 255;

const char kHomeFirmwareSuffix[] = "/.firmware/worksurface.bin";
const char kResourceFirmwarePath[] = ":/firmware/worksurface.bin";

}  // namespace

uint8_t Settings::type() const
{
    return m_type.load();
}

void Settings::setType(uint8_t type)
{
    m_type.store(type);
}

uint8_t Settings::mode() const
{
    return m_mode.load();
}

void Settings::setMode(uint8_t mode)
{
    m_mode.store(mode);
}

bool Settings::debugEnabled() const
{
    return m_debugEnabled.load() != 0;
}

void Settings::setDebugEnabled(bool enabled)
{
    m_debugEnabled.store(enabled ? 1 : 0);
}

uint8_t Settings::maxResendCount() const
{
    return 5;
}

uint8_t Settings::sectionCount() const
{
    switch (static_cast<SurfaceMode>(m_mode.load())) {
        case SurfaceMode::K40:
            return 2;
        case SurfaceMode::K60:
            return 3;
        default:
            return 0;
    }
}

uint8_t Settings::stripCount() const
{
    return 10;
}

uint8_t Settings::sideRotaryCount() const
{
    return 6;
}

uint8_t Settings::masterStripCount() const
{
    return 1;
}

uint8_t Settings::masterSectionIndex() const
{
    switch (static_cast<SurfaceMode>(m_mode.load())) {
        case SurfaceMode::K40:
            return 1;
        case SurfaceMode::K60:
            return 2;
        default:
            return kNoSection;
    }
}

QString Settings::serialPortName(uint8_t section) const
{
    switch (static_cast<SurfaceMode>(m_mode.load())) {
        case SurfaceMode::K40:
            // The two-section console leaves the first device free: its master section
            // (index 1) sits on the third one.
            switch (section) {
                case 0:
                    return QStringLiteral("/dev/ttymxc1");
                case 1:
                    return QStringLiteral("/dev/ttymxc2");
                default:
                    return QString();
            }
        case SurfaceMode::K60:
            // On the three-section console every index but 1 and 2 falls back to the
            // first device.
            switch (section) {
                case 1:
                    return QStringLiteral("/dev/ttymxc1");
                case 2:
                    return QStringLiteral("/dev/ttymxc2");
                default:
                    return QStringLiteral("/dev/ttymxc0");
            }
        default:
            return QString();
    }
}

QString Settings::firmwarePath() const
{
    // An image dropped into the user's home folder overrides the one built into the
    // application, so a section can be updated in the field without a new build.
    const QFileInfo home{QDir::homePath() + QLatin1String(kHomeFirmwareSuffix)};
    if (home.exists()) {
        return home.absoluteFilePath();
    }
    const QFileInfo resource{QString::fromLatin1(kResourceFirmwarePath)};
    if (resource.exists()) {
        return resource.absoluteFilePath();
    }
    // The updater decides what a missing image means.
    return QString();
}

int Settings::reconnectInterval() const
{
    return m_reconnectInterval.load();
}

void Settings::setReconnectInterval(int intervalMs)
{
    m_reconnectInterval.store(intervalMs < 0 ? 0 : intervalMs);
}

int Settings::traceCapacity() const
{
    return m_traceCapacity.load();
}

void Settings::setTraceCapacity(int capacity)
{
    m_traceCapacity.store(capacity < 0 ? 0 : capacity);
}

QString Settings::traceDirectory() const
{
    std::lock_guard<std::mutex> lock(m_traceMutex);
    return m_traceDirectory;
}

void Settings::setTraceDirectory(const QString& directory)
{
    std::lock_guard<std::mutex> lock(m_traceMutex);
    m_traceDirectory = directory;
}

bool Settings::linkThread() const
{
    return m_linkThread.load();
}

void Settings::setLinkThread(bool enabled)
{
    m_linkThread.store(enabled);
}

int Settings::updateTimeout() const
{
    return m_updateTimeout.load();
}

void Settings::setUpdateTimeout(int timeoutMs)
{
    m_updateTimeout.store(timeoutMs < 0 ? 0 : timeoutMs);
}

}  // namespace Velmora::Worksurface
