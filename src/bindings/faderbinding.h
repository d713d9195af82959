#pragma once

#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <cstdint>
#include <memory>

#include "bindings/bindingbase.h"
#include "bindings/faderlockinfo.h"
#include "bindings/responsecurve.h"

class FaderHandle;

// Attaches a view to one motorised, touch-sensitive fader. The view works in dB, the fader
// in control positions 0..511; the binding converts both ways under its conversionMode,
// keeps the motor's target, the detent, the backstop, the drive mode and the position lock
// in step with the fader's handle, and reports hand moves and touches back. Touches can
// also be forwarded to any object with a `void onFaderTouched(bool)` method.
class FaderBinding : public BindingBase
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "FaderBinding")
    Q_PROPERTY(FaderType type READ type WRITE setType NOTIFY typeChanged)
    Q_PROPERTY(FaderMode mode READ mode WRITE setMode NOTIFY modeChanged)
    Q_PROPERTY(ResponseCurve::ConversionMode conversionMode READ conversionMode WRITE
                   setConversionMode NOTIFY conversionModeChanged)
    Q_PROPERTY(FaderLockInfo* lock READ lock CONSTANT)
    Q_PROPERTY(float value READ value WRITE setValue NOTIFY valueChanged)
    Q_PROPERTY(float detent READ detent WRITE setDetent NOTIFY detentChanged)
    Q_PROPERTY(float backstop READ backstop WRITE setBackstop NOTIFY backstopChanged)
    Q_PROPERTY(bool touched READ touched NOTIFY faderTouched)
    Q_PROPERTY(QObject* touchTarget READ touchTarget WRITE setTouchTarget NOTIFY touchTargetChanged)

public:
    // Backed by int: QML may write any number, which then names no fader.
    enum FaderType : int
    {
        None = 0,
        Fader = 1,
        MasterFader = 2
    };
    Q_ENUM(FaderType)

    enum FaderMode : int
    {
        Free = 0,
        Protected = 1
    };
    Q_ENUM(FaderMode)

    explicit FaderBinding(QObject* parent = nullptr);
    ~FaderBinding() override;

    // The ends of the channel-fader law.
    static float MaxFaderdBValue() { return 10.0f; }
    static float MinFaderdBValue() { return -150.0f; }

    FaderType type() const { return m_type; }
    // Takes effect at the next lookup (rebind(), or a change of index, section or active).
    void setType(FaderType type);
    FaderMode mode() const { return m_mode; }
    void setMode(FaderMode mode);
    ResponseCurve::ConversionMode conversionMode() const { return m_conversionMode; }
    // Keeps the detent and backstop at the same dB under the new law; the value is sent
    // under the new law at its next write.
    void setConversionMode(ResponseCurve::ConversionMode mode);
    FaderLockInfo* lock() const { return m_lock; }
    float value() const { return m_value; }
    // Writes within 0.1 dB of the stored value are ignored.
    void setValue(float value);
    // Detent and backstop are kept as control positions; reading converts them back, so a
    // read may differ from what was written by the truncation of the law.
    float detent() const;
    void setDetent(float dB);
    float backstop() const;
    void setBackstop(float dB);
    // Whether a finger is on the fader now (false while unbound).
    bool touched() const;
    QObject* touchTarget() const { return m_touchTarget.data(); }
    void setTouchTarget(QObject* target);

    // Forgets the current handle without giving it back and, if active, looks the fader up
    // again.
    Q_INVOKABLE void rebind();

signals:
    void typeChanged();
    void modeChanged();
    void conversionModeChanged();
    void valueChanged();
    void detentChanged();
    void backstopChanged();
    void faderMoved(float value);
    void faderTouched(bool touched);
    void touchTargetChanged();

public slots:
    void convertFaderValueToValueAndInformFaderMove(quint16 position);
    void informTouchTarget(bool touched);
    void sendLockEnabled();
    void sendLockValue();

protected:
    void updateBinding() override;

private:
    // The fader number (device id) that the type and index select within the section.
    uint8_t selectedDeviceId() const;
    void connectHandle(const std::shared_ptr<FaderHandle>& handle);
    // Cuts the handle's signals off this binding and forgets it; the handle itself is
    // left as it is.
    void dropHandle();
    void sendAll();
    void sendFaderValue();
    void sendFaderDetent();
    void sendFaderBackstop();
    void sendMode();
    void callTouchTarget(QObject* target, bool touched);

    FaderType m_type = None;
    FaderMode m_mode = Protected;
    ResponseCurve::ConversionMode m_conversionMode = ResponseCurve::Default;
    std::weak_ptr<FaderHandle> m_handle;
    // Not owned; a target destroyed before the binding reads as null.
    QPointer<QObject> m_touchTarget;
    FaderLockInfo* m_lock;
    float m_value = -150.0f;
    // 0 means no detent.
    uint16_t m_detent = 0;
    uint16_t m_backstop = 0;
    QMetaObject::Connection m_movedLink;
    QMetaObject::Connection m_touchedLink;
};
