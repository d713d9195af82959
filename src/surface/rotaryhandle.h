#pragma once

#include <QColor>
#include <QObject>
#include <atomic>
#include <cstdint>

namespace Velmora::Worksurface {

class IRotary;
class Rotary;

// The user-interface side's grip on one rotary encoder with its push switch, touch sensor
// and RGB light. A rotary binding listens to the signals, which the rotary emits on the
// model thread while this handle is the one it has given out, and drives the light through
// the methods, which call the rotary directly from the caller's thread. Every method does
// nothing (or answers false) once the handle is detached.
//
// The handle keeps a plain pointer to its rotary, cleared on detach, and is owned by a
// shared pointer whose deleter calls deleteLater(). The signal order is part of the
// QML-facing contract.
class RotaryHandle : public QObject
{
    Q_OBJECT

public:
    explicit RotaryHandle(IRotary* rotary, QObject* parent = nullptr);
    ~RotaryHandle() override;

    RotaryHandle(const RotaryHandle&) = delete;
    RotaryHandle& operator=(const RotaryHandle&) = delete;

    // The rotary this handle stands for; null once detached.
    IRotary* rotary() const;
    // Whether the handle still stands for the rotary with this (rotary) device id in this
    // section.
    bool standsFor(uint8_t sectionIndex, uint8_t deviceId) const;

    bool touched() const;
    bool pressed() const;
    // Taken by copy: the colour may come from a binding property that changes meanwhile.
    void setColor(QColor color);
    void setFlashEnabled(bool enabled);
    // A full colour/black cycle in milliseconds; the light toggles every half interval.
    void setFlashInterval(int64_t intervalMs);
    // Gives the handle back: the light turns black, the rotary drops the handle (and asks
    // its global target, if any, to take over), and the handle is cut off.
    void detach();

signals:
    // A signed count of steps: positive clockwise.
    void rotaryRotated(qint8 value);
    void rotaryTouched();
    void rotaryPressed();

private:
    // The rotary cuts its handle off without a release when the rotary itself goes away.
    friend class Rotary;

    // Atomic: the rotary clears it when it goes (on the model thread) while the user-interface
    // side may be calling through it.
    std::atomic<IRotary*> m_rotary;
};

}  // namespace Velmora::Worksurface
