#pragma once

#include <QThread>
#include <QtGlobal>

namespace Velmora::Worksurface {

// The thread an object belongs to: the one that made it. Classes that are QML-thread-only
// (docs/threads.md) keep one and check it at their entry points in debug builds.
class ThreadAffinity
{
public:
    ThreadAffinity() : m_thread(QThread::currentThread()) {}

    bool isCurrent() const { return QThread::currentThread() == m_thread; }
    QThread* thread() const { return m_thread; }

private:
    QThread* const m_thread;
};

}  // namespace Velmora::Worksurface

// Fails a debug build's assertion when called off the owning thread.
#define TARVIX_ASSERT_THREAD(affinity)              \
    Q_ASSERT_X((affinity).isCurrent(), Q_FUNC_INFO, \
               "QML-thread-only: called from another thread (see docs/threads.md)")
