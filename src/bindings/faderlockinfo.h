#pragma once

#include <QObject>

// The position lock of a fader binding (`lock.enabled`, `lock.value` in dB). While the
// lock is on, the fader is held at the lock position and hand moves are not reported;
// the binding sends each change to its fader.
class FaderLockInfo : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "FaderLockInfo")
    Q_CLASSINFO("QML.Creatable", "false")
    Q_CLASSINFO("QML.UncreatableReason", "Can't create FaderLockInfo from qml")
    Q_PROPERTY(bool enabled READ enabled WRITE setEnabled NOTIFY enabledChanged)
    Q_PROPERTY(float value READ value WRITE setValue NOTIFY valueChanged)

public:
    explicit FaderLockInfo(QObject* parent = nullptr);

    bool enabled() const { return m_enabled; }
    void setEnabled(bool enabled);
    float value() const { return m_value; }
    // Changes of 0.1 dB or less are ignored, as are NaNs (they compare as no change).
    void setValue(float value);

signals:
    void enabledChanged();
    void valueChanged();

private:
    bool m_enabled = false;
    float m_value = -150.0f;
};
