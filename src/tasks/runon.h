#pragma once

#include <QMetaObject>
#include <QObject>
#include <QThread>
#include <functional>
#include <utility>

namespace Velmora::Worksurface {

// Runs `work` on `context`'s thread, after everything posted to that thread before it, so
// that what one thread hands another arrives in the order it was handed over. With `wait`
// the caller waits for it to have run (at once when the caller is on that thread already).
// `context` must stand until the work has run; work posted to an object that goes before
// its thread gets round to it is dropped with the object.
inline void runOn(QObject* context, std::function<void()> work, bool wait = false)
{
    if (wait && context->thread() == QThread::currentThread()) {
        work();
        return;
    }
    QMetaObject::invokeMethod(context, std::move(work),
                              wait ? Qt::BlockingQueuedConnection : Qt::QueuedConnection);
}

}  // namespace Velmora::Worksurface
