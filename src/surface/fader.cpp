#include "surface/fader.h"

#include <QPointer>
#include <QThread>
#include <algorithm>
#include <utility>

#include "base/faderrestmode.h"
#include "surface/faderhandle.h"
#include "surface/handleownership.h"
#include "tasks/monotonicclock.h"

// The fader is QML-thread-only: its QObject thread is the one it is used on.
#define TARVIX_ASSERT_FADER_THREAD()                              \
    Q_ASSERT_X(QThread::currentThread() == thread(), Q_FUNC_INFO, \
               "QML-thread-only: called from another thread (see docs/threads.md)")

namespace Velmora::Worksurface {

namespace {

// A request this soon after a hand move would make the motor fight the hand: it waits.
// An elapsed time of exactly this much still waits.
constexpr qint64 kHandMoveHoldNs = 150 * kNsPerMs;
// An unbound fader is parked only once its last binding has been gone this long, so that
// a view rebinding it at once does not see it dive to the bottom first.
constexpr qint64 kParkAfterReleaseNs = 100 * kNsPerMs;
// How long a fader bound in drive mode 0 keeps requests back after its last release,
// counted in whole milliseconds.
constexpr qint64 kFreeModeHoldMs = 300;

}  // namespace

Fader::Fader(uint8_t deviceId, uint8_t sectionIndex, FaderType type,
             std::shared_ptr<ISerialMessageSender> sender)
    : m_deviceId(deviceId),
      m_sectionIndex(sectionIndex),
      m_faderType(type),
      m_sender(std::move(sender))
{
    const qint64 now = MonotonicClock::nowNs();
    // As if the last hand move were long enough ago that a request is no longer held, and
    // as if the fader had just been released, so that parking waits for the first binding.
    m_lastHandMoveNs = now - kHandMoveHoldNs;
    m_releaseNs = now;
}

Fader::~Fader()
{
    // Made, told and let go on the model's thread only: a link on another thread never holds
    // a share of the section that could make it the last.
    TARVIX_ASSERT_FADER_THREAD();
    // A handle that outlives its fader must not reach it (nor release into it).
    if (m_handle) {
        m_handle->m_fader = nullptr;
    }
}

bool Fader::takesMessage(const SerialMessage& message) const
{
    return message.deviceId == m_deviceId &&
           (message.type == MessageType::FaderPosition || message.type == MessageType::FaderTouch);
}

bool Fader::handleMessage(const SerialMessage& message)
{
    TARVIX_ASSERT_FADER_THREAD();
    if (!takesMessage(message)) {
        return false;
    }
    if (message.type == MessageType::FaderPosition) {
        handlePositionReport(message);
    } else {
        handleTouchReport(message);
    }
    return true;
}

void Fader::handlePositionReport(const SerialMessage& message)
{
    uint16_t position = NoPosition;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        // A report too short to carry a position keeps the one we know.
        m_position = message.wordAt(0, m_position);
        m_lastHandMoveNs = MonotonicClock::nowNs();
        position = m_position;
    }
    // A held or locked fader is being moved against the view's wishes: the view is not
    // told, and what it asked for stays pending.
    if (m_hold || m_lockEnabled) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_pendingPosition = NoPosition;
    }
    // A copy, so that a receiver that rebinds or releases cannot pull the handle away
    // while it is being emitted on.
    if (const std::shared_ptr<FaderHandle> handle = m_handle) {
        emit handle->faderMoved(position);
    }
}

void Fader::handleTouchReport(const SerialMessage& message)
{
    // A report without its byte keeps the state we know.
    const bool touched = message.boolAt(0, m_touched.load());
    m_touched = touched;
    if (!touched) {
        m_hold = false;
        if (!m_lockEnabled) {
            std::lock_guard<std::mutex> lock(m_mutex);
            flushPendingLocked();
        }
    }
    if (const std::shared_ptr<FaderHandle> handle = m_handle) {
        emit handle->faderTouched(touched);
    }
}

void Fader::setLinkReady(bool /*ready*/)
{
    TARVIX_ASSERT_FADER_THREAD();
    // The section has just (re)started: it knows nothing, so everything goes out as stored,
    // never-set values included, without the range checks of the setters.
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_sender) {
        return;
    }
    m_sender->sendFaderPosition(m_deviceId, m_position);
    m_sender->sendFaderDriveMode(m_deviceId, static_cast<uint8_t>(m_driveMode & 0xFF));
    m_sender->sendFaderDetent(m_deviceId, m_detent);
    m_sender->sendFaderBackstop(m_deviceId, m_backstop);
}

uint8_t Fader::deviceId() const
{
    return m_deviceId;
}

uint8_t Fader::sectionIndex() const
{
    return m_sectionIndex;
}

FaderType Fader::faderType() const
{
    return m_faderType;
}

bool Fader::touched() const
{
    return m_touched.load();
}

void Fader::setPosition(uint16_t position)
{
    TARVIX_ASSERT_FADER_THREAD();
    const uint16_t value = std::min(position, MaxPosition);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_touched.load() || m_hold || m_lockEnabled) {
        m_pendingPosition = value;
        return;
    }
    if (MonotonicClock::nowNs() - m_lastHandMoveNs <= kHandMoveHoldNs) {
        m_pendingPosition = value;
        return;
    }
    sendPositionLocked(value);
    m_pendingPosition = NoPosition;
}

void Fader::setDetent(uint16_t position)
{
    TARVIX_ASSERT_FADER_THREAD();
    // Out of range is dropped, not clamped: a detent at the wrong place is worse than none.
    if (position == m_detent || position > MaxPosition) {
        return;
    }
    m_detent = position;
    if (m_sender) {
        m_sender->sendFaderDetent(m_deviceId, position);
    }
}

void Fader::setBackstop(uint16_t position)
{
    TARVIX_ASSERT_FADER_THREAD();
    if (position == m_backstop || position > MaxPosition) {
        return;
    }
    m_backstop = position;
    if (m_sender) {
        m_sender->sendFaderBackstop(m_deviceId, position);
    }
}

void Fader::setDriveMode(int32_t mode)
{
    TARVIX_ASSERT_FADER_THREAD();
    if (mode == m_driveMode) {
        return;
    }
    m_driveMode = mode;
    if (m_sender) {
        m_sender->sendFaderDriveMode(m_deviceId, static_cast<uint8_t>(mode & 0xFF));
    }
}

void Fader::setRestMode(int32_t mode)
{
    TARVIX_ASSERT_FADER_THREAD();
    m_restMode = mode;
}

void Fader::setLockEnabled(bool enabled)
{
    TARVIX_ASSERT_FADER_THREAD();
    // The lock is enforced by the periodic step, which drives the fader back to the lock
    // position.
    m_lockEnabled = enabled;
}

void Fader::setLockPosition(uint16_t position)
{
    TARVIX_ASSERT_FADER_THREAD();
    m_lockPosition = std::min(position, MaxPosition);
}

std::shared_ptr<FaderHandle> Fader::getHandle()
{
    TARVIX_ASSERT_FADER_THREAD();
    detachCurrentHandle(m_mutex, m_handle);
    // A finger already on the fader, or drive mode 0, keeps the new binding's first
    // requests back until the finger lifts or the step lets go.
    m_hold = m_touched.load() || m_driveMode == 0;

    const std::shared_ptr<FaderHandle> handle = makeHandle<FaderHandle>(this);
    forwardToFader(*handle, &FaderHandle::internalSendFaderPosition, &IFader::setPosition);
    forwardToFader(*handle, &FaderHandle::internalSendFaderDetent, &IFader::setDetent);
    forwardToFader(*handle, &FaderHandle::internalSendFaderBackstop, &IFader::setBackstop);
    forwardToFader(*handle, &FaderHandle::internalSendFaderLockEnabled, &IFader::setLockEnabled);
    forwardToFader(*handle, &FaderHandle::internalSendFaderLockPosition, &IFader::setLockPosition);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handle = handle;
    return handle;
}

template <typename Value, typename Argument>
void Fader::forwardToFader(FaderHandle& handle, void (FaderHandle::*signal)(Value),
                           void (IFader::*operation)(Argument))
{
    // The functor runs on this fader's thread. It goes through the handle's own pointer, so
    // a handle that has been detached since the value was emitted no longer moves the
    // fader; the guard covers a handle already destroyed when the call arrives.
    const QPointer<FaderHandle> guard(&handle);
    connect(
        &handle, signal, this,
        [guard, operation](Value value) {
            if (guard && guard->fader() != nullptr) {
                (guard->fader()->*operation)(value);
            }
        },
        Qt::QueuedConnection);
}

uint16_t Fader::releaseHandle(FaderHandle* handle)
{
    TARVIX_ASSERT_FADER_THREAD();
    if (m_handle && m_handle.get() == handle) {
        m_handle.reset();
    }
    m_releaseNs = MonotonicClock::nowNs();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_pendingPosition = NoPosition;
        // So that the next binding's first request is not held back by an old hand move.
        m_lastHandMoveNs -= kHandMoveHoldNs;
    }
    m_lockEnabled = false;
    m_lockPosition = 0;
    m_hold = false;
    return NoPosition;
}

void Fader::run()
{
    TARVIX_ASSERT_FADER_THREAD();
    const qint64 now = MonotonicClock::nowNs();
    if (m_handle) {
        if (m_lockEnabled && !m_touched.load()) {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_lockPosition != m_position) {
                sendPositionLocked(m_lockPosition);
            }
        }
    } else if (m_restMode == static_cast<int32_t>(RestMode::ForceMinimum)) {
        std::lock_guard<std::mutex> lock(m_mutex);
        // A position of "none" counts as above the bottom: a fader nobody has bound since
        // start-up is parked as well.
        if (m_position > 0 && !m_touched.load() && now - m_releaseNs > kParkAfterReleaseNs) {
            if (!m_touched.load() && !m_hold && !m_lockEnabled &&
                now - m_lastHandMoveNs > kHandMoveHoldNs) {
                sendPositionLocked(0);
                m_pendingPosition = NoPosition;
            } else {
                // Still moving by hand: park it once the hand has let go.
                m_pendingPosition = 0;
            }
        }
    }

    if (m_driveMode == 0 && m_hold && !m_touched.load()) {
        if ((now - m_releaseNs) / kNsPerMs > kFreeModeHoldMs) {
            m_hold = false;
            if (!m_lockEnabled) {
                std::lock_guard<std::mutex> lock(m_mutex);
                flushPendingLocked();
            }
        }
    }
}

uint16_t Fader::position() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_position;
}

uint16_t Fader::pendingPosition() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_pendingPosition;
}

void Fader::flushPendingLocked()
{
    if (m_pendingPosition > MaxPosition) {
        return;
    }
    const uint16_t pending = m_pendingPosition;
    m_pendingPosition = NoPosition;
    if (pending != m_position) {
        sendPositionLocked(pending);
    }
}

void Fader::sendPositionLocked(uint16_t position)
{
    m_position = position;
    if (m_sender) {
        m_sender->sendFaderPosition(m_deviceId, position);
    }
}

}  // namespace Velmora::Worksurface
