#pragma once

#include <QObject>
#include <atomic>
#include <cstdint>

namespace Velmora::Worksurface {

class ILed;
class Led;

// The user-interface side's grip on one button LED. An LED binding switches, dims and
// flashes the LED through these methods, which call the LED directly from the caller's
// thread. Each does nothing once the handle is detached.
//
// The handle keeps a plain pointer to its LED, cleared on detach, and is owned by a shared
// pointer whose deleter calls deleteLater(). It has no signals: an LED reports nothing.
class LedHandle : public QObject
{
    Q_OBJECT

public:
    explicit LedHandle(ILed* led, QObject* parent = nullptr);
    ~LedHandle() override;

    LedHandle(const LedHandle&) = delete;
    LedHandle& operator=(const LedHandle&) = delete;

    // The LED this handle stands for; null once detached.
    ILed* led() const;
    // Whether the handle still stands for the LED with this device id in this section.
    bool standsFor(uint8_t sectionIndex, uint8_t deviceId) const;

    // Nonzero lights the LED at its brightness; 0 darkens it.
    void setOn(uint8_t on);
    void setBrightness(uint8_t brightness);
    void setFlashEnabled(bool enabled);
    // A full on/off cycle in milliseconds; the LED toggles every half interval.
    void setFlashInterval(int64_t intervalMs);
    // Gives the handle back: the LED goes dark, drops the handle, and the handle is cut off.
    void detach();

private:
    // The LED cuts its handle off without a release when the LED itself goes away.
    friend class Led;

    // Atomic: the led clears it when it goes (on the model thread) while the user-interface
    // side may be calling through it.
    std::atomic<ILed*> m_led;
};

}  // namespace Velmora::Worksurface
