#include "base/logger.h"

#include <QByteArray>
#include <QLoggingCategory>
#include <QMessageLogger>
#include <utility>

#include "base/isettings.h"
#include "base/logcategories.h"

namespace Velmora::Worksurface {

// Each line goes out as the text alone, in the board's local 8-bit encoding: the text is
// passed as an argument to "%s" so that a '%' in it is never read as a format directive.
// The category overloads of QMessageLogger drop a line whose level the category's rules
// have turned off, and hand the category's name to the application's message handler.

Logger::Logger(std::shared_ptr<ISettings> settings) : Logger(std::move(settings), lcService()) {}

Logger::Logger(std::shared_ptr<ISettings> settings, const QLoggingCategory& category)
    : m_settings(std::move(settings)), m_category(&category)
{}

std::shared_ptr<Logger> Logger::inCategory(const QLoggingCategory& category) const
{
    return std::make_shared<Logger>(m_settings, category);
}

const QLoggingCategory& Logger::category() const
{
    return *m_category;
}

bool Logger::debugOn() const
{
    // Link and updater chatter is only wanted while the console is being looked into.
    return m_settings && m_settings->debugEnabled() && m_category->isDebugEnabled();
}

void Logger::debug(const QString& text) const
{
    if (!debugOn()) {
        return;
    }
    const QByteArray bytes = text.toLocal8Bit();
    QMessageLogger().debug(*m_category, "%s", bytes.constData());
}

void Logger::critical(const QString& text) const
{
    const QByteArray bytes = text.toLocal8Bit();
    QMessageLogger().critical(*m_category, "%s", bytes.constData());
}

void Logger::info(const QString& text) const
{
    const QByteArray bytes = text.toLocal8Bit();
    QMessageLogger().info(*m_category, "%s", bytes.constData());
}

void Logger::warning(const QString& text) const
{
    const QByteArray bytes = text.toLocal8Bit();
    QMessageLogger().warning(*m_category, "%s", bytes.constData());
}

}  // namespace Velmora::Worksurface
