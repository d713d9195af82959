#include "support/lockprobe.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>

namespace {

LockProbingMessageHandler* g_currentProbe = nullptr;

}  // namespace

Watchdog::Watchdog(const char* what, int seconds) : m_what(what)
{
    m_thread = std::thread([this, seconds]() {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_done.wait_for(lock, std::chrono::seconds(seconds), [this] { return m_disarmed; })) {
            std::fprintf(stderr, "FAIL: hung: %s\n", m_what);
            std::fflush(stderr);
            std::abort();
        }
    });
}

Watchdog::~Watchdog()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_disarmed = true;
    }
    m_done.notify_all();
    m_thread.join();
}

bool isFreeFromAnotherThread(const std::function<void()>& take, std::shared_ptr<void> keepAlive,
                             int timeoutMs)
{
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread probe([take, keepAlive, done]() {
        take();
        done->set_value();
    });
    if (finished.wait_for(std::chrono::milliseconds(timeoutMs)) == std::future_status::ready) {
        probe.join();
        return true;
    }
    probe.detach();
    return false;
}

LockProbingMessageHandler::LockProbingMessageHandler(std::function<bool()> isFree)
    : m_isFree(std::move(isFree)), m_outer(g_currentProbe)
{
    g_currentProbe = this;
    m_previous = qInstallMessageHandler(&LockProbingMessageHandler::handler);
}

LockProbingMessageHandler::~LockProbingMessageHandler()
{
    qInstallMessageHandler(m_previous);
    g_currentProbe = m_outer;
}

void LockProbingMessageHandler::handler(QtMsgType type, const QMessageLogContext& context,
                                        const QString& msg)
{
    LockProbingMessageHandler* self = g_currentProbe;
    if (self == nullptr) {
        return;
    }
    ++self->m_lineCount;
    if (self->m_isFree && !self->m_isFree()) {
        self->m_linesUnderLock << msg;
    }
    if (self->m_previous) {
        self->m_previous(type, context, msg);
    }
}
