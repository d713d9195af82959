#include "tasks/clocktimer.h"

#include "tasks/monotonicclock.h"

namespace Velmora::Worksurface {

ClockTimer::ClockTimer(QObject* parent) : QObject(parent)
{
    m_timer.setSingleShot(true);
    // Waits of a few milliseconds: a coarse timer would double them.
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &ClockTimer::timeout);
    TimeDrive::add(this, this);
}

ClockTimer::~ClockTimer()
{
    TimeDrive::remove(this);
}

void ClockTimer::start(int ms)
{
    if (TimeDrive::isOn()) {
        m_dueNs.store(MonotonicClock::nowNs() + static_cast<int64_t>(ms) * kNsPerMs);
        return;
    }
    m_timer.start(ms);
}

void ClockTimer::stop()
{
    m_dueNs.store(-1);
    m_timer.stop();
}

bool ClockTimer::isActive() const
{
    return m_dueNs.load() >= 0 || m_timer.isActive();
}

int64_t ClockTimer::driveDueNs() const
{
    return m_dueNs.load();
}

void ClockTimer::driveFire()
{
    m_dueNs.store(-1);
    emit timeout();
}

}  // namespace Velmora::Worksurface
