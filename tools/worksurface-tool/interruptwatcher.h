#pragma once

#include <QObject>

class QSocketNotifier;

// Turns SIGINT and SIGTERM into a flag the event loop sees, so that Ctrl-C ends a
// running command cleanly (ports closed, last lines flushed) instead of killing it.
class InterruptWatcher : public QObject
{
    Q_OBJECT
public:
    explicit InterruptWatcher(QObject* parent = nullptr);
    ~InterruptWatcher() override;

    bool isInterrupted() const { return m_interrupted; }

signals:
    void interrupted();

private:
    void onReadable();

    QSocketNotifier* m_notifier = nullptr;
    bool m_interrupted = false;
};
