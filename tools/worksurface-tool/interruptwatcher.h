#pragma once

#include <QObject>

class QSocketNotifier;

// Turns SIGINT and SIGTERM into a flag the event loop sees, so that Ctrl-C ends a
// running command cleanly (ports closed, last lines flushed) instead of killing it. A
// standard output that its reader closed (`worksurface-tool … | head -2`) is taken the same
// way: nobody reads what the command prints any more, so it ends as on Ctrl-C (a flash
// resets the sections it was writing) rather than being killed by its own output.
class InterruptWatcher : public QObject
{
    Q_OBJECT
public:
    explicit InterruptWatcher(QObject* parent = nullptr);
    ~InterruptWatcher() override;

    bool isInterrupted() const { return m_interrupted; }

    // The reader of standard output went away (ToolOutput found the pipe closed): the
    // watcher of the running command, or the next one made, sees an interrupt.
    static void outputClosed();

signals:
    void interrupted();

private:
    void onReadable();

    QSocketNotifier* m_notifier = nullptr;
    bool m_interrupted = false;
};
