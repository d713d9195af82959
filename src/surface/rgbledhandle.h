#pragma once

#include <QColor>
#include <QObject>
#include <atomic>
#include <cstdint>

namespace Velmora::Worksurface {

class IRgbLed;
class RgbLed;

// The user-interface side's grip on one RGB LED (a rotary push button's light or a logo).
// An RGB LED binding sets its colour through it; the call goes to the LED directly from the
// caller's thread and does nothing once the handle is detached.
//
// The handle keeps a plain pointer to its LED, cleared on detach, and is owned by a shared
// pointer whose deleter calls deleteLater(). It has no signals.
class RgbLedHandle : public QObject
{
    Q_OBJECT

public:
    explicit RgbLedHandle(IRgbLed* rgbLed, QObject* parent = nullptr);
    ~RgbLedHandle() override;

    RgbLedHandle(const RgbLedHandle&) = delete;
    RgbLedHandle& operator=(const RgbLedHandle&) = delete;

    // The LED this handle stands for; null once detached.
    IRgbLed* rgbLed() const;
    // Whether the handle still stands for the LED with this device id in this section.
    bool standsFor(uint8_t sectionIndex, uint8_t deviceId) const;

    // Taken by copy: the colour may come from a binding property that changes meanwhile.
    void setColor(QColor color);
    // Gives the handle back: the LED turns black, drops the handle, and the handle is cut
    // off.
    void detach();

private:
    // The LED cuts its handle off without a release when the LED itself goes away.
    friend class RgbLed;

    // Atomic: the LED clears it when it goes (on the model thread) while the user-interface
    // side may be calling through it.
    std::atomic<IRgbLed*> m_rgbLed;
};

}  // namespace Velmora::Worksurface
