#include "interruptwatcher.h"

#include <fcntl.h>
#include <unistd.h>
#include <QSocketNotifier>
#include <atomic>
#include <csignal>

namespace {

// The signal handler may only write to a pipe; the notifier reads it on the event loop.
int g_pipe[2] = {-1, -1};
// Standard output was found closed, perhaps before any watcher was made.
std::atomic<bool> g_outputClosed{false};

void wakeWatcher()
{
    const char byte = 1;
    const ssize_t written = ::write(g_pipe[1], &byte, 1);
    (void)written;
}

void onSignal(int)
{
    wakeWatcher();
}

}  // namespace

InterruptWatcher::InterruptWatcher(QObject* parent) : QObject(parent)
{
    if (g_pipe[0] < 0 && ::pipe(g_pipe) == 0) {
        ::fcntl(g_pipe[0], F_SETFL, O_NONBLOCK);
        ::fcntl(g_pipe[1], F_SETFL, O_NONBLOCK);
    }
    if (g_pipe[0] < 0) {
        return;
    }
    m_notifier = new QSocketNotifier(g_pipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &InterruptWatcher::onReadable);
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    if (g_outputClosed) {
        wakeWatcher();
    }
}

InterruptWatcher::~InterruptWatcher()
{
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
}

void InterruptWatcher::outputClosed()
{
    g_outputClosed = true;
    if (g_pipe[1] >= 0) {
        wakeWatcher();
    }
}

void InterruptWatcher::onReadable()
{
    char buffer[16];
    while (::read(g_pipe[0], buffer, sizeof buffer) > 0) {
    }
    if (!m_interrupted) {
        m_interrupted = true;
        // A second Ctrl-C ends the program at once, should the clean ending hang.
        ::signal(SIGINT, SIG_DFL);
        emit interrupted();
    }
}
