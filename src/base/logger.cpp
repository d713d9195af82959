#include "base/logger.h"

#include <QByteArray>
#include <QMessageLogger>
#include <utility>

#include "base/isettings.h"

namespace Velmora::Worksurface {

// Each line goes out as the text alone, in the board's local 8-bit encoding: the text is
// passed as an argument to "%s" so that a '%' in it is never read as a format directive.

Logger::Logger(std::shared_ptr<ISettings> settings) : m_settings(std::move(settings)) {}

void Logger::debug(const QString& text) const
{
    // Link and updater chatter is only wanted while the console is being looked into.
    if (!m_settings || !m_settings->debugEnabled()) {
        return;
    }
    const QByteArray bytes = text.toLocal8Bit();
    QMessageLogger().debug("%s", bytes.constData());
}

void Logger::critical(const QString& text) const
{
    const QByteArray bytes = text.toLocal8Bit();
    QMessageLogger().critical("%s", bytes.constData());
}

void Logger::info(const QString& text) const
{
    const QByteArray bytes = text.toLocal8Bit();
    QMessageLogger().info("%s", bytes.constData());
}

void Logger::warning(const QString& text) const
{
    const QByteArray bytes = text.toLocal8Bit();
    QMessageLogger().warning("%s", bytes.constData());
}

}  // namespace Velmora::Worksurface
