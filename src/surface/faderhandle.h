#pragma once

#include <QObject>
#include <cstdint>

namespace Velmora::Worksurface {
class Fader;
class IFader;
}  // namespace Velmora::Worksurface

// Unlike the other handles, this one stays in the global namespace, so that its
// meta-object keeps the class name "FaderHandle" that its tests pin.
//
// The user-interface side's grip on one fader. A binding listens to faderMoved and
// faderTouched and drives the fader by emitting the internalSend... signals, which the
// fader connects, queued, to its own operations when it hands the handle out; so the
// values cross to the model thread in the order they were emitted.
//
// The handle keeps a plain pointer to its fader, cleared on detach (when the fader gives a
// new handle out), after which the signals of this handle no longer reach it. The signal
// order is part of the QML-facing contract: do not reorder or add signals.
class FaderHandle : public QObject
{
    Q_OBJECT

public:
    explicit FaderHandle(Velmora::Worksurface::IFader* fader, QObject* parent = nullptr);
    ~FaderHandle() override;

    FaderHandle(const FaderHandle&) = delete;
    FaderHandle& operator=(const FaderHandle&) = delete;

    // The fader this handle drives; null once detached.
    Velmora::Worksurface::IFader* fader() const;
    // Cuts the handle off its fader, which returns to its unbound behaviour. Called by the
    // fader when it gives out a new handle.
    void detach();

    // For the binding, on the thread that runs both the binding and the fader (the QML
    // thread in this plugin):
    //
    // Whether the fader is touched now; false once detached.
    bool touched() const;
    // Whether the handle still drives the fader with this device id in this section.
    bool standsFor(uint8_t sectionIndex, uint8_t deviceId) const;
    // Passes the binding's fader mode to the fader as its drive mode. Delivered queued,
    // like the internal signals, so it keeps its place among the values sent before and
    // after it.
    void setMode(int32_t mode);
    // Gives the handle back: the fader drops it and returns to its unbound behaviour, and
    // the handle is detached.
    void release();

signals:
    void faderMoved(quint16 to_position);
    void faderTouched(bool touched);
    void internalSendFaderPosition(quint16 position);
    void internalSendFaderDetent(quint16 position);
    void internalSendFaderBackstop(quint16 position);
    void internalSendFaderLockEnabled(bool enabled);
    void internalSendFaderLockPosition(quint16 position);

private:
    // The fader clears the pointer when it goes.
    friend class Velmora::Worksurface::Fader;
    Velmora::Worksurface::IFader* m_fader;
};
