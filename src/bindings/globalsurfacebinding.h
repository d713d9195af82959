#pragma once

#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QQmlParserStatus>
#include <cstdint>

#include "bindings/surfaceconnection.h"

// Sets the brightness of the whole worksurface: every section's LEDs and lights. Unlike
// the control bindings it acts on every write at once, before and after QML has finished
// creating it, and it sends its values again to each new surface the connection reports.
class GlobalSurfaceBinding : public QObject, public QQmlParserStatus
{
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)
    Q_CLASSINFO("QML.Element", "GlobalSurfaceBinding")
    Q_PROPERTY(SurfaceConnection* connection READ connection WRITE setConnection)
    Q_PROPERTY(int surfaceBrightness READ surfaceBrightness WRITE setSurfaceBrightness NOTIFY
                   surfaceBrightnessChanged)
    Q_PROPERTY(int surfaceOverBrightness READ surfaceOverBrightness WRITE setSurfaceOverBrightness
                   NOTIFY surfaceOverBrightnessChanged)

public:
    explicit GlobalSurfaceBinding(QObject* parent = nullptr);
    ~GlobalSurfaceBinding() override;

    SurfaceConnection* connection() const;
    void setConnection(SurfaceConnection* connection);
    int surfaceBrightness() const { return m_surfaceBrightness; }
    // 0..255; anything else is ignored.
    void setSurfaceBrightness(int brightness);
    int surfaceOverBrightness() const { return m_surfaceOverBrightness; }
    // 0..255; anything else is ignored.
    void setSurfaceOverBrightness(int brightness);

    void classBegin() override {}
    void componentComplete() override {}

signals:
    void surfaceBrightnessChanged();
    void surfaceOverBrightnessChanged();

public slots:
    // Sends both values to the connection's surface, if there is one.
    void resendValuesToSurface();

private:
    // Not owned; QPointer so that a connection destroyed first reads as null.
    QPointer<SurfaceConnection> m_connection;
    QMetaObject::Connection m_surfaceChangedLink;
    uint8_t m_surfaceBrightness = 0;
    uint8_t m_surfaceOverBrightness = 0;
};
