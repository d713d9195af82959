#pragma once

#include <QObject>
#include <deque>
#include <functional>
#include <mutex>

namespace Velmora::Worksurface {

// Hands work to the thread this object lives on, from any thread, in the order it was
// handed over: how the links on the surface thread and the QML thread talk to each other.
//
// The work waits in a queue under a standard mutex, and only a bare event crosses to the
// other thread to wake it, so the hand-over of every piece of work (and of what it carries)
// is one that ThreadSanitizer sees; Qt's own queued calls synchronise inside Qt, where it
// cannot look. Work still waiting when the mailbox goes is dropped with it, on the thread
// that destroys it.
class ThreadMailbox : public QObject
{
    Q_OBJECT

public:
    explicit ThreadMailbox(QObject* parent = nullptr);
    ~ThreadMailbox() override;
    ThreadMailbox(const ThreadMailbox&) = delete;
    ThreadMailbox& operator=(const ThreadMailbox&) = delete;

    // Runs `work` on this object's thread after everything posted before it.
    void post(std::function<void()> work);
    // Runs `work` on this object's thread and waits until it has run; at once when called on
    // that thread. That thread's event loop must be running (or start later).
    void runAndWait(const std::function<void()>& work);

protected:
    bool event(QEvent* event) override;

private:
    // Runs the waiting work, oldest first, one piece at a time without the lock.
    void drain();

    struct Work
    {
        std::function<void()> run;
        // Whether a runner that owns time counts it as a hand-over until it has run.
        bool counted;
    };

    std::mutex m_mutex;
    std::deque<Work> m_work;
    bool m_wakePosted = false;
};

}  // namespace Velmora::Worksurface
