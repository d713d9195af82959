#pragma once

#include <QObject>
#include <QPointer>
#include <cstdint>
#include <memory>

#include "bindings/surfaceconnection.h"
#include "serial/isoftwareserialmessagehandler.h"
#include "serial/serialmessage.h"

namespace Velmora::Worksurface {
class ISoftwareControllerConnection;
}

// The microcontroller of a QML-played section itself: it answers the link's ping with the
// section's firmware version (10.34) and `temperature`, and plays fader calibration. The
// plugin's start of calibration sets `calibrating`; the scene ends it with
// stopCalibration(), which reports calibration done to the plugin.
//
// A section without a SectionControl is still answered by the software controller, with a
// temperature of 55 + the section index.
//
// Like the other controls it registers with the connection's software controller once per
// `connection` set and takes every registration with it when it goes away. It has no
// `active` switch: it always plays its section. Section indices outside 0..255 are ignored.
class SectionControl : public QObject, public Velmora::Worksurface::ISoftwareSerialMessageHandler
{
    Q_OBJECT
    Q_PROPERTY(SurfaceConnection* connection READ connection WRITE setConnection)
    Q_PROPERTY(int sectionIndex READ sectionIndex WRITE setSectionIndex NOTIFY sectionIndexChanged)
    Q_PROPERTY(bool calibrating READ calibrating NOTIFY calibratingChanged)
    Q_PROPERTY(int temperature READ temperature WRITE setTemperature NOTIFY temperatureChanged)

public:
    static constexpr uint8_t VersionMajor = 10;
    static constexpr uint8_t VersionMinor = 34;

    explicit SectionControl(QObject* parent = nullptr);
    ~SectionControl() override;

    SurfaceConnection* connection() const;
    void setConnection(SurfaceConnection* connection);
    int sectionIndex() const { return m_sectionIndex; }
    void setSectionIndex(int sectionIndex);
    bool calibrating() const { return m_calibrating; }
    int temperature() const { return m_temperature; }
    // Reported in the next ping answer, clamped to the byte 0..255 on the wire.
    void setTemperature(int temperature);

    // Reports calibration done (type 3, device 0) and clears `calibrating`.
    Q_INVOKABLE void stopCalibration();

    // Takes the plugin's ping and start of calibration for this section (device 0).
    bool handleSoftwareMessage(uint8_t sectionIndex,
                               const Velmora::Worksurface::SerialMessage& message) override;

signals:
    void sectionIndexChanged();
    void calibratingChanged();
    void temperatureChanged();

private:
    void sendToPlugin(const Velmora::Worksurface::SerialMessage& message) const;
    void unregisterFrom(
        const std::shared_ptr<Velmora::Worksurface::ISoftwareControllerConnection>& controller);

    // Not owned; QPointer because QML destroys objects in any order.
    QPointer<SurfaceConnection> m_connection;
    std::shared_ptr<Velmora::Worksurface::ISoftwareControllerConnection> m_controller;
    uint8_t m_sectionIndex = 0;
    bool m_calibrating = false;
    int m_temperature = 0;
};
