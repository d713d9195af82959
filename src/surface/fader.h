#pragma once

#include <QObject>
#include <QtGlobal>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "serial/iserialmessagesender.h"
#include "surface/controltypes.h"
#include "surface/ifader.h"
#include "tasks/itask.h"

class FaderHandle;

namespace Velmora::Worksurface {

// One motorised, touch-sensitive fader of a section.
//
// Position reports and touch changes from the section become signals of the fader's
// handle; positions, detents, backstops and the lock from the handle become messages to
// the section. Between the two the fader arbitrates, so that the motor never fights a
// hand: while a finger is on it, while its lock holds it, while it is held after being
// bound in drive mode 0, or within 150 ms of a hand move, a requested position is kept as
// the pending position and sent later. While no binding holds the fader, its 50 ms step
// parks it according to the rest mode.
//
// The component factory schedules run() every 50 ms on the task pool (which keeps it
// weakly) and registers the fader as a handler of its section's messages.
//
// Threads: QML-thread-only (docs/threads.md), checked in debug builds against the fader's
// QObject thread; the handle's requests arrive there as queued calls. Only touched() is
// read from anywhere (atomic). The mutex guards the position and the pending position
// where they are written together with a send (the queue's lock is a leaf); it is never
// held while a handle signal is emitted, so a receiver may call straight back into the
// fader.
class Fader : public QObject,
              public IFader,
              public ITask,
              public std::enable_shared_from_this<Fader>
{
    Q_OBJECT

public:
    static constexpr uint16_t MaxPosition = 511;
    static constexpr uint16_t NoPosition = 0xFFFF;

    Fader(uint8_t deviceId, uint8_t sectionIndex, FaderType type,
          std::shared_ptr<ISerialMessageSender> sender);
    ~Fader() override;

    Fader(const Fader&) = delete;
    Fader& operator=(const Fader&) = delete;

    // ISerialMessageHandler
    bool handleMessage(const SerialMessage& message) override;
    bool takesMessage(const SerialMessage& message) const override;
    // Resends the whole stored state when the section's link comes up, whatever the flag.
    void setLinkReady(bool ready) override;

    // IFader
    uint8_t deviceId() const override;
    uint8_t sectionIndex() const override;
    FaderType faderType() const override;
    bool touched() const override;
    void setPosition(uint16_t position) override;
    void setDetent(uint16_t position) override;
    void setBackstop(uint16_t position) override;
    void setDriveMode(int32_t mode) override;
    void setRestMode(int32_t mode) override;
    void setLockEnabled(bool enabled) override;
    void setLockPosition(uint16_t position) override;
    std::shared_ptr<FaderHandle> getHandle() override;
    uint16_t releaseHandle(FaderHandle* handle) override;

    // ITask: the 50 ms step (lock enforcement, parking, releasing the drive-mode-0 hold).
    void run() override;

    // State, for diagnostics and tests.
    uint16_t position() const;
    uint16_t pendingPosition() const;
    uint16_t detent() const { return m_detent; }
    uint16_t backstop() const { return m_backstop; }
    int32_t driveMode() const { return m_driveMode; }
    int32_t restMode() const { return m_restMode; }
    bool lockEnabled() const { return m_lockEnabled; }
    uint16_t lockPosition() const { return m_lockPosition; }
    bool isHeld() const { return m_hold; }
    bool hasHandle() const { return m_handle != nullptr; }

private:
    // Connects one of the handle's internalSend... signals, queued, to an operation of the
    // fader the handle stands for when the call arrives.
    template <typename Value, typename Argument>
    void forwardToFader(FaderHandle& handle, void (FaderHandle::*signal)(Value),
                        void (IFader::*operation)(Argument));
    void handlePositionReport(const SerialMessage& message);
    void handleTouchReport(const SerialMessage& message);
    // Sends the pending position, if there is one, unless the fader is already there.
    // Called with the mutex held.
    void flushPendingLocked();
    // Records the position and queues it for the section: the one place a position goes
    // out, apart from the resend of the whole state. Called with the mutex held.
    void sendPositionLocked(uint16_t position);

    const uint8_t m_deviceId;
    const uint8_t m_sectionIndex;
    const FaderType m_faderType;
    const std::shared_ptr<ISerialMessageSender> m_sender;
    std::shared_ptr<FaderHandle> m_handle;
    qint64 m_lastHandMoveNs;
    qint64 m_releaseNs;
    int32_t m_restMode = 0;
    uint16_t m_position = NoPosition;
    uint16_t m_pendingPosition = NoPosition;
    uint16_t m_backstop = NoPosition;
    uint16_t m_detent = NoPosition;
    int32_t m_driveMode = 1;
    // Atomic because the handle answers the binding's touched query from its own thread.
    std::atomic<bool> m_touched{false};
    bool m_lockEnabled = false;
    uint16_t m_lockPosition = 0;
    bool m_hold = false;
    mutable std::mutex m_mutex;
};

}  // namespace Velmora::Worksurface
