#include "support/logcapture.h"

#include <QStringList>
#include <QThread>
#include <mutex>

namespace {

LogCapture* g_currentCapture = nullptr;
// A standard mutex, not a QMutex: lines may come from other threads (the trace writer, the
// links' thread), and ThreadSanitizer sees only the standard one's synchronisation.
std::mutex g_mutex;

}  // namespace

const char* LogCapture::levelName(QtMsgType type)
{
    switch (type) {
        case QtDebugMsg:
            return "debug";
        case QtInfoMsg:
            return "info";
        case QtWarningMsg:
            return "warning";
        case QtCriticalMsg:
            return "critical";
        case QtFatalMsg:
            return "fatal";
    }
    return "?";
}

LogCapture::LogCapture()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    m_outer = g_currentCapture;
    g_currentCapture = this;
    m_previous = qInstallMessageHandler(&LogCapture::handler);
}

LogCapture::~LogCapture()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    qInstallMessageHandler(m_previous);
    g_currentCapture = m_outer;
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext& context, const QString& msg)
{
    QtMessageHandler echoTo = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        // An echoing capture passes the line on to the capture it nests in, or to the handler
        // that was there before any capture.
        for (LogCapture* capture = g_currentCapture; capture != nullptr;
             capture = capture->m_outer) {
            capture->m_lines.append(Line{type, msg});
            capture->m_categories.append(
                QString::fromLatin1(context.category ? context.category : "default"));
            capture->m_threads.append(QThread::currentThread());
            if (!capture->m_echo) {
                break;
            }
            if (capture->m_outer == nullptr) {
                echoTo = capture->m_previous;
            }
        }
    }
    if (echoTo) {
        echoTo(type, context, msg);
    }
}

QList<LogCapture::Line> LogCapture::lines() const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return m_lines;
}

QStringList LogCapture::texts() const
{
    QStringList result;
    for (const Line& line : lines()) {
        result << line.text;
    }
    return result;
}

QStringList LogCapture::texts(QtMsgType level) const
{
    QStringList result;
    for (const Line& line : lines()) {
        if (line.level == level) {
            result << line.text;
        }
    }
    return result;
}

bool LogCapture::contains(QtMsgType level, const QString& text) const
{
    return count(level, text) > 0;
}

QStringList LogCapture::categories() const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return m_categories;
}

QList<QThread*> LogCapture::threads() const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return m_threads;
}

QStringList LogCapture::textsIn(const QString& category) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    QStringList result;
    for (int i = 0; i < m_lines.size(); ++i) {
        if (m_categories.at(i) == category) {
            result << m_lines.at(i).text;
        }
    }
    return result;
}

QStringList LogCapture::described() const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    QStringList result;
    for (int i = 0; i < m_lines.size(); ++i) {
        result << QStringLiteral("%1 %2: %3")
                      .arg(m_categories.at(i), QString::fromLatin1(levelName(m_lines.at(i).level)),
                           m_lines.at(i).text);
    }
    return result;
}

int LogCapture::count(QtMsgType level, const QString& text) const
{
    int n = 0;
    for (const Line& line : lines()) {
        if (line.level == level && line.text == text) {
            ++n;
        }
    }
    return n;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    m_lines.clear();
    m_categories.clear();
    m_threads.clear();
}

void LogCapture::setEcho(bool echo)
{
    // Read by the handler on whichever thread logs.
    std::lock_guard<std::mutex> lock(g_mutex);
    m_echo = echo;
}
