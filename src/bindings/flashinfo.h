#pragma once

#include <QObject>

// How an LED or a rotary ring flashes: `flash.enabled` and `flash.interval` (ms) of the
// LED and rotary bindings. The binding sends each change to its control.
class FlashInfo : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "FlashInfo")
    Q_CLASSINFO("QML.Creatable", "false")
    Q_CLASSINFO("QML.UncreatableReason", "Can't create FlashInfo from qml")
    Q_PROPERTY(bool enabled READ enabled WRITE setEnabled NOTIFY enabledChanged)
    Q_PROPERTY(int interval READ interval WRITE setInterval NOTIFY intervalChanged)

public:
    explicit FlashInfo(QObject* parent = nullptr);

    bool enabled() const { return m_enabled; }
    void setEnabled(bool enabled);
    int interval() const { return m_interval; }
    void setInterval(int interval);

signals:
    void enabledChanged();
    void intervalChanged();

private:
    bool m_enabled = false;
    int m_interval = 0;
};
