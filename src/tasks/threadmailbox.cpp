#include "tasks/threadmailbox.h"

#include <QCoreApplication>
#include <QEvent>
#include <QThread>
#include <condition_variable>
#include <utility>

#include "tasks/timedrive.h"

namespace Velmora::Worksurface {

namespace {

const QEvent::Type kMailEvent = static_cast<QEvent::Type>(QEvent::registerEventType());

}  // namespace

ThreadMailbox::ThreadMailbox(QObject* parent) : QObject(parent) {}

ThreadMailbox::~ThreadMailbox()
{
    // The thread that drained the queue last looks at it once more after its last work, and
    // may have finished before the QThread::wait() that preceded this: the wait then returns
    // on a flag under Qt's own mutex, an order ThreadSanitizer cannot see. Taking the queue's
    // lock once orders that last look before the queue goes. The work still waiting is
    // dropped after the lock is let go, with the members.
    int counted = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const Work& work : m_work) {
            counted += work.counted ? 1 : 0;
        }
    }
    TimeDrive::handOverEnds(counted);
}

void ThreadMailbox::post(std::function<void()> work)
{
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_work.push_back(Work{std::move(work), TimeDrive::handOverBegins()});
        wake = !m_wakePosted;
        m_wakePosted = true;
    }
    if (wake) {
        QCoreApplication::postEvent(this, new QEvent(kMailEvent));
    }
}

void ThreadMailbox::runAndWait(const std::function<void()>& work)
{
    if (thread() == QThread::currentThread()) {
        work();
        return;
    }
    std::mutex mutex;
    std::condition_variable ran;
    bool done = false;
    post([&]() {
        work();
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
        ran.notify_one();
    });
    std::unique_lock<std::mutex> lock(mutex);
    ran.wait(lock, [&done]() { return done; });
}

bool ThreadMailbox::event(QEvent* event)
{
    if (event->type() == kMailEvent) {
        drain();
        return true;
    }
    return QObject::event(event);
}

void ThreadMailbox::drain()
{
    for (;;) {
        Work work;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_work.empty()) {
                m_wakePosted = false;
                return;
            }
            work = std::move(m_work.front());
            m_work.pop_front();
        }
        work.run();
        if (work.counted) {
            TimeDrive::handOverEnds();
        }
    }
}

}  // namespace Velmora::Worksurface
