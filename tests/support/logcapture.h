#pragma once

#include <QList>
#include <QString>
#include <QtGlobal>

class QThread;

// Records every Qt log line (level, exact text and category) while it lives, instead of printing
// it, so tests can compare whole lines. Nests: the previous handler comes back on
// destruction.
class LogCapture
{
public:
    struct Line
    {
        QtMsgType level;
        QString text;
        bool operator==(const Line& other) const
        {
            return level == other.level && text == other.text;
        }
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QList<Line> lines() const;
    QStringList texts() const;
    // Lines of one level only, in order.
    QStringList texts(QtMsgType level) const;
    // The logging category each line was written in, in the order of lines() ("default"
    // for a line written without one).
    QStringList categories() const;
    // The texts of the lines written in one category, in order.
    QStringList textsIn(const QString& category) const;
    // The thread each line was written on, in the order of lines(): a link's lines come from
    // the thread it runs on.
    QList<QThread*> threads() const;
    // Every line as "<category> <level>: <text>", in order, so that a test compares where
    // each line went along with what it says.
    QStringList described() const;
    bool contains(QtMsgType level, const QString& text) const;
    int count(QtMsgType level, const QString& text) const;
    void clear();

    // Also pass every line on: to the capture this one nests in (which records it as if this
    // one were not there), or to the handler that was there before any capture. For debugging
    // a failing test, and for a helper that looks at lines a test's own capture must get too.
    void setEcho(bool echo);

    // "debug", "info", "warning", "critical" or "fatal".
    static const char* levelName(QtMsgType type);

private:
    static void handler(QtMsgType type, const QMessageLogContext& context, const QString& msg);
    QtMessageHandler m_previous;
    LogCapture* m_outer;
    QList<Line> m_lines;
    QStringList m_categories;
    QList<QThread*> m_threads;
    bool m_echo = false;
};

// Lets QCOMPARE print a line as "<level>: <text>" (in the Qt Test part of the support
// library, logcaptureprinting.cpp).
char* toString(const LogCapture::Line& line);
