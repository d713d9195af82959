#pragma once

#include <QObject>
#include <QTimer>
#include <atomic>
#include <cstdint>

#include "tasks/timedrive.h"

namespace Velmora::Worksurface {

// A single-shot timer measured on the plugin's clock: a precise Qt timer, or, while a test
// runner owns time (TimeDrive), a wait that the runner ends when its clock gets there. For
// waits of a few milliseconds that must not snap to the task pool's 5 ms tick.
class ClockTimer : public QObject, private TimeDrive::Waiter
{
    Q_OBJECT

public:
    explicit ClockTimer(QObject* parent = nullptr);
    ~ClockTimer() override;
    ClockTimer(const ClockTimer&) = delete;
    ClockTimer& operator=(const ClockTimer&) = delete;

    // (Re)starts the wait: timeout() comes once, ms from now.
    void start(int ms);
    void stop();
    bool isActive() const;

signals:
    void timeout();

private:
    int64_t driveDueNs() const override;
    void driveFire() override;

    QTimer m_timer;
    // When the runner's clock ends the wait; -1 when it does not wait.
    std::atomic<int64_t> m_dueNs{-1};
};

}  // namespace Velmora::Worksurface
