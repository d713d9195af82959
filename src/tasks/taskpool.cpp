#include "tasks/taskpool.h"

#include <QCoreApplication>
#include <QEvent>
#include <QThread>
#include <algorithm>
#include <limits>
#include <utility>

#include "tasks/monotonicclock.h"

namespace Velmora::Worksurface {

namespace {

constexpr int64_t kTickNs = TaskPool::kTickMs * kNsPerMs;
constexpr int64_t kIdleWaitNs = TaskPool::kIdleWaitMs * kNsPerMs;

// Posted to the pool by a schedule call from another thread: the timer can only be re-armed
// on its own thread.
const QEvent::Type kWakeEvent = static_cast<QEvent::Type>(QEvent::registerEventType());
// Posted by a stop() from another thread: the timer can only be stopped on its own thread.
const QEvent::Type kStopEvent = static_cast<QEvent::Type>(QEvent::registerEventType());

// While a runner owns time the timer is armed for as long as Qt allows (about 24 days), so
// that it never fires by itself and everything that asks whether the pool is armed still sees
// it armed.
constexpr int kDrivenWaitMs = std::numeric_limits<int>::max();

// The longest interval whose nanoseconds fit the clock's type; a longer one never comes due.
constexpr int64_t kMaxIntervalMs = std::numeric_limits<int64_t>::max() / kNsPerMs;

// Intervals arrive as unsigned milliseconds; the record keeps signed ones. Anything beyond
// the signed range is as good as "never" for a console that runs for days, not centuries.
int64_t toStoredInterval(uint64_t intervalMs)
{
    constexpr uint64_t maxMs = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    return static_cast<int64_t>(intervalMs > maxMs ? maxMs : intervalMs);
}

}  // namespace

TaskPool::TaskData::TaskData(uint64_t id, int64_t intervalMs, int64_t lastRunNs,
                             std::weak_ptr<ITask> task, bool singleShot)
    : m_id(id),
      m_intervalMs(intervalMs),
      m_lastRunNs(lastRunNs),
      m_task(std::move(task)),
      m_singleShot(singleShot)
{}

uint64_t TaskPool::TaskData::id() const
{
    return m_id;
}

bool TaskPool::TaskData::cancel()
{
    return m_cancelled.exchange(true);
}

bool TaskPool::TaskData::isDue(int64_t nowNs) const
{
    // An interval too long to express in nanoseconds can never elapse; saturating here keeps
    // the multiplication from overflowing.
    if (m_intervalMs > kMaxIntervalMs) {
        return false;
    }
    // Due only once strictly more than the interval has passed: a 100 ms task scheduled at
    // 0 is not run by a tick at exactly 100 ms but by the first tick after it.
    return nowNs - m_lastRunNs > m_intervalMs * kNsPerMs;
}

TaskPool::TaskPool(QObject* parent) : QObject(parent)
{
    // Precise: a coarse timer may fire up to 5 % late, and a task must run no later than
    // the 5 ms tick would have run it.
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &TaskPool::runPendingTasks);
    TimeDrive::add(this, this);
}

// Dropping the records releases only the pool's share of them: tasks were never owned here,
// and nothing is run on the way out.
TaskPool::~TaskPool()
{
    TimeDrive::remove(this);
    if (m_wakeCounted.exchange(false)) {
        TimeDrive::handOverEnds();
    }
}

void TaskPool::scheduleOnce(uint64_t intervalMs, const std::shared_ptr<ITask>& task)
{
    addTask(intervalMs, task, true);
}

std::shared_ptr<ITaskHandle> TaskPool::schedulePeriodic(uint64_t intervalMs,
                                                        const std::shared_ptr<ITask>& task)
{
    return addTask(intervalMs, task, false);
}

std::shared_ptr<TaskPool::TaskData> TaskPool::addTask(uint64_t intervalMs,
                                                      const std::shared_ptr<ITask>& task,
                                                      bool singleShot)
{
    std::unique_lock<Mutex> lock(m_mutex);
    const uint64_t id = m_nextId++;
    auto record = std::make_shared<TaskData>(id, toStoredInterval(intervalMs),
                                             MonotonicClock::nowNs(), task, singleShot);
    // Appending may reallocate the list while a tick is walking it (a task scheduling from
    // inside its run): the walk goes by index and never keeps a reference across a run.
    m_tasks.push_back(record);
    // A sleeping pool may be armed for a tick after the one the new record needs. Inside a
    // tick nothing is to do: the tick arms for the whole list when it ends.
    bool wake = false;
    if (!m_inTick) {
        std::lock_guard<std::mutex> state(m_stateMutex);
        wake = m_armed && wakeForRecordNs(*record, m_anchorNs) < m_armedForNs;
    }
    lock.unlock();

    if (wake) {
        if (QThread::currentThread() == m_timer.thread()) {
            rearmIfEarlier();
        } else if (!m_wakePosted.exchange(true)) {
            m_wakeCounted.store(TimeDrive::handOverBegins());
            QCoreApplication::postEvent(this, new QEvent(kWakeEvent));
        }
    }
    return record;
}

bool TaskPool::event(QEvent* event)
{
    if (event->type() == kWakeEvent) {
        // Taken before the flag is cleared: a wake posted after that counts for its own event.
        const bool counted = m_wakeCounted.exchange(false);
        m_wakePosted.store(false);
        rearmIfEarlier();
        if (counted) {
            TimeDrive::handOverEnds();
        }
        return true;
    }
    if (event->type() == kStopEvent) {
        // Unless start() came first: then the timer is armed for the running pool.
        std::lock_guard<std::mutex> state(m_stateMutex);
        if (m_state == State::Stopped) {
            m_timer.stop();
        }
        return true;
    }
    return QObject::event(event);
}

int64_t TaskPool::wakeForNs(int64_t intervalMs, int64_t lastRunNs, int64_t anchorNs)
{
    const int64_t limitNs = anchorNs + kIdleWaitNs;
    const int64_t sinceLastRunNs = limitNs - lastRunNs;
    if (intervalMs >= sinceLastRunNs / kNsPerMs + 1) {
        return limitNs;  // not due before the idle wake, which is armed anyway
    }
    // Due at the first tick t = anchor + k * 5 ms, k >= 1, with t - last run > interval.
    const int64_t spanNs = intervalMs * kNsPerMs - (anchorNs - lastRunNs);
    const int64_t ticks = spanNs < 0 ? 1 : spanNs / kTickNs + 1;
    return std::min(limitNs, anchorNs + ticks * kTickNs);
}

int64_t TaskPool::wakeForRecordNs(const TaskData& record, int64_t anchorNs)
{
    // Cancelled and orphaned records count too: they are dropped at their due time.
    return wakeForNs(record.m_intervalMs, record.m_lastRunNs, anchorNs);
}

bool TaskPool::keepsPhase(const TaskData& record)
{
    // A record whose owner has gone still counts until it is dropped at its due time: it is
    // not worth a look at the task's control block for every record on every tick.
    return !record.m_singleShot && record.m_intervalMs > 0 &&
           record.m_intervalMs <= kMaxIntervalMs && !record.m_cancelled.load();
}

void TaskPool::markPhases(int64_t nowNs)
{
    m_tickMarks.clear();
    for (const auto& record : m_tasks) {
        if (!keepsPhase(*record) || record->isDue(nowNs)) {
            continue;
        }
        const auto mark =
            std::find_if(m_tickMarks.begin(), m_tickMarks.end(),
                         [&](const PhaseMark& m) { return m.intervalMs == record->m_intervalMs; });
        if (mark == m_tickMarks.end()) {
            m_tickMarks.push_back(PhaseMark{record->m_intervalMs, record->m_lastRunNs});
        } else {
            mark->lastRunNs = std::min(mark->lastRunNs, record->m_lastRunNs);
        }
    }
}

bool TaskPool::waitsForItsPhase(const TaskData& record) const
{
    if (m_tickMarks.empty() || !keepsPhase(record)) {
        return false;
    }
    const auto mark = std::find_if(m_tickMarks.begin(), m_tickMarks.end(), [&](const PhaseMark& m) {
        return m.intervalMs == record.m_intervalMs;
    });
    // The marked record is not due and this one is, so it last ran later than this one.
    return mark != m_tickMarks.end() &&
           mark->lastRunNs - record.m_lastRunNs <= record.m_intervalMs * kNsPerMs / 2;
}

int64_t TaskPool::nextWakeNs(int64_t anchorNs) const
{
    // The latest last run of each interval: a record at most half an interval behind it waits
    // for it (those between them are due by then as well), so its tick is that one's.
    m_wakeMarks.clear();
    for (const auto& record : m_tasks) {
        if (!keepsPhase(*record)) {
            continue;
        }
        const auto mark =
            std::find_if(m_wakeMarks.begin(), m_wakeMarks.end(),
                         [&](const PhaseMark& m) { return m.intervalMs == record->m_intervalMs; });
        if (mark == m_wakeMarks.end()) {
            m_wakeMarks.push_back(PhaseMark{record->m_intervalMs, record->m_lastRunNs});
        } else {
            mark->lastRunNs = std::max(mark->lastRunNs, record->m_lastRunNs);
        }
    }
    int64_t wakeNs = anchorNs + kIdleWaitNs;
    for (const auto& record : m_tasks) {
        int64_t lastRunNs = record->m_lastRunNs;
        if (!m_wakeMarks.empty() && keepsPhase(*record)) {
            const auto mark = std::find_if(
                m_wakeMarks.begin(), m_wakeMarks.end(),
                [&](const PhaseMark& m) { return m.intervalMs == record->m_intervalMs; });
            // Always found: cancelling is for good, so a record that keeps the phase now kept
            // it in the pass above.
            const int64_t behindNs = mark == m_wakeMarks.end() ? 0 : mark->lastRunNs - lastRunNs;
            if (behindNs > 0 && behindNs <= record->m_intervalMs * kNsPerMs / 2) {
                lastRunNs = mark->lastRunNs;
            }
        }
        // A record that waits for one nearer than the latest (which lies more than half an
        // interval on) keeps its own due tick here: the pool then wakes earlier than the
        // record runs, never later.
        wakeNs = std::min(wakeNs, wakeForNs(record->m_intervalMs, lastRunNs, anchorNs));
    }
    return wakeNs;
}

void TaskPool::armFrom(int64_t anchorNs)
{
    m_anchorNs = anchorNs;
    const int64_t wakeNs = nextWakeNs(anchorNs);
    // Checked and armed under the state mutex: a stop() from another thread comes either
    // before, and the pool stays disarmed, or after, and disarms it.
    std::lock_guard<std::mutex> state(m_stateMutex);
    if (m_state == State::Stopped) {
        return;
    }
    m_armedForNs = wakeNs;
    const int64_t waitNs = m_armedForNs - MonotonicClock::nowNs();
    // Rounded up: the timer never fires before the tick it stands for. A clock that has run
    // past the armed tick (a busy thread) fires at once; one that went back (only a test's
    // clock does) waits no longer than the idle wake.
    const int64_t waitMs =
        waitNs <= 0 ? 0 : std::min<int64_t>((waitNs + kNsPerMs - 1) / kNsPerMs, kIdleWaitMs);
    m_timer.start(TimeDrive::isOn() ? kDrivenWaitMs : static_cast<int>(waitMs));
    m_armed = true;
    m_driveDueNs.store(m_armedForNs);
}

void TaskPool::disarm()
{
    m_armed = false;
    m_driveDueNs.store(-1);
}

int64_t TaskPool::driveDueNs() const
{
    return m_driveDueNs.load();
}

void TaskPool::driveFire()
{
    runPendingTasks();
}

void TaskPool::rearmIfEarlier()
{
    std::lock_guard<Mutex> lock(m_mutex);
    bool armed = false;
    int64_t armedForNs = 0;
    {
        std::lock_guard<std::mutex> state(m_stateMutex);
        armed = m_armed;
        armedForNs = m_armedForNs;
    }
    if (!armed || m_inTick || !m_timer.isActive()) {
        return;
    }
    if (nextWakeNs(m_anchorNs) < armedForNs) {
        armFrom(m_anchorNs);
    }
}

void TaskPool::start()
{
    std::lock_guard<Mutex> lock(m_mutex);
    bool armed = false;
    {
        std::lock_guard<std::mutex> state(m_stateMutex);
        m_state = State::Running;
        armed = m_armed;
    }
    if (!armed) {
        armFrom(MonotonicClock::nowNs());
    }
}

void TaskPool::stop()
{
    {
        std::lock_guard<std::mutex> state(m_stateMutex);
        m_state = State::Stopped;
        m_stops.fetch_add(1);
        disarm();
    }
    if (QThread::currentThread() == m_timer.thread()) {
        m_timer.stop();
    } else {
        QCoreApplication::postEvent(this, new QEvent(kStopEvent));
    }
}

bool TaskPool::isRunning() const
{
    std::lock_guard<std::mutex> state(m_stateMutex);
    return m_state == State::Running;
}

bool TaskPool::isTimerActive() const
{
    return m_timer.isActive();
}

int TaskPool::timerIntervalMs() const
{
    return kTickMs;
}

int64_t TaskPool::armedForNs() const
{
    std::lock_guard<std::mutex> state(m_stateMutex);
    return m_armed ? m_armedForNs : -1;
}

int TaskPool::armedWaitMs() const
{
    return m_timer.isActive() ? m_timer.interval() : -1;
}

std::size_t TaskPool::taskCount() const
{
    std::lock_guard<Mutex> lock(m_mutex);
    return m_tasks.size();
}

void TaskPool::runPendingTasks()
{
    if (m_timer.isActive()) {
        m_timer.stop();
    }
    uint64_t stops = 0;
    {
        std::lock_guard<std::mutex> state(m_stateMutex);
        disarm();
        if (m_state == State::Stopped) {
            return;
        }
        stops = m_stops.load();
    }
    const int64_t now = MonotonicClock::nowNs();

    std::unique_lock<Mutex> lock(m_mutex);
    m_inTick = true;
    markPhases(now);
    // By index, and re-reading the size each time: a task may append a record while it runs
    // (the link restart schedules its new supervision task from within its own pass), which
    // can reallocate the list. The new record's last run is its scheduling time, not before
    // `now`, so it is never due in the walk that created it; nor is it one that a due record
    // waits for, since the marks are taken before the walk.
    for (std::size_t i = 0; i < m_tasks.size();) {
        // Most records are not due on most ticks; they are checked in place.
        if (!m_tasks[i]->isDue(now)) {
            ++i;
            continue;
        }
        // Stopped by the task that ran last, or from another thread meanwhile: no task starts
        // after the stop, and those left keep their last runs for the next start().
        if (m_stops.load() != stops) {
            break;
        }
        // A copy, not a reference: the record must outlive a run that reallocates the list.
        const std::shared_ptr<TaskData> record = m_tasks[i];
        // Holding the task for the length of its run keeps it alive even when the run
        // releases its owner's last reference (a section connection dropping itself, or one
        // task releasing another's owner).
        const std::shared_ptr<ITask> task = record->m_task.lock();
        if (!task || record->m_cancelled.load()) {
            m_tasks.erase(m_tasks.begin() + static_cast<std::ptrdiff_t>(i));
            continue;
        }
        if (waitsForItsPhase(*record)) {
            ++i;
            continue;
        }
        task->run();
        record->m_lastRunNs = MonotonicClock::nowNs();
        if (record->m_singleShot) {
            // Not erased yet: it is dropped when it next comes due, one interval from now.
            record->m_cancelled.store(true);
        }
        ++i;
    }
    m_inTick = false;
    // The next tick is measured from the end of this one, as a plain 5 ms timer would be;
    // a pool stopped meanwhile is not armed again.
    armFrom(MonotonicClock::nowNs());
}

}  // namespace Velmora::Worksurface
