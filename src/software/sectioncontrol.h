#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QVariant>
#include <cstdint>
#include <memory>

#include "bindings/surfaceconnection.h"
#include "serial/isoftwareserialmessagehandler.h"
#include "serial/serialmessage.h"
#include "software/isoftwaresection.h"
#include "software/sectionfaults.h"

namespace Velmora::Worksurface {
class ISoftwareControllerConnection;
class QmlControllerConnection;
}  // namespace Velmora::Worksurface

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
//
// It also plays every fault a real section can show, so that a console UI's "section lost",
// "not answering" and "updating firmware" screens can be seen and tested without hardware
// (docs/software-bootloader.md, README "Rehearsing faults"): `answering` false makes the
// section ignore everything the plugin sends; `plugged` false pulls its line out;
// `bootloader` true makes it sit in its serial bootloader, found by the link at its next
// start-up exchange, which then runs a full firmware update against it (`flashStatus`,
// `nakCount`, `receivedBytes`, `imageCrc32`); powerCycle() switches it off and on again;
// sendRaw() puts any bytes on its line. The first SectionControl of a section index plays
// these faults (SectionFaults holds them). At their defaults the section behaves as it
// always has.
class SectionControl : public QObject,
                       public Velmora::Worksurface::ISoftwareSerialMessageHandler,
                       public Velmora::Worksurface::ISoftwareSection,
                       private Velmora::Worksurface::SectionFaults::Line
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "SectionControl")
    Q_PROPERTY(SurfaceConnection* connection READ connection WRITE setConnection)
    Q_PROPERTY(int sectionIndex READ sectionIndex WRITE setSectionIndex NOTIFY sectionIndexChanged)
    Q_PROPERTY(bool calibrating READ calibrating NOTIFY calibratingChanged)
    Q_PROPERTY(int temperature READ temperature WRITE setTemperature NOTIFY temperatureChanged)
    Q_PROPERTY(bool answering READ answering WRITE setAnswering NOTIFY answeringChanged)
    Q_PROPERTY(bool plugged READ plugged WRITE setPlugged NOTIFY pluggedChanged)
    Q_PROPERTY(bool bootloader READ bootloader WRITE setBootloader NOTIFY bootloaderChanged)
    Q_PROPERTY(int flashStatus READ flashStatus WRITE setFlashStatus NOTIFY flashStatusChanged)
    Q_PROPERTY(int nakCount READ nakCount WRITE setNakCount NOTIFY nakCountChanged)
    Q_PROPERTY(int receivedBytes READ receivedBytes NOTIFY receivedBytesChanged)
    Q_PROPERTY(QString imageCrc32 READ imageCrc32 NOTIFY imageCrc32Changed)
    Q_PROPERTY(int versionMajor READ versionMajor WRITE setVersionMajor NOTIFY versionMajorChanged)
    Q_PROPERTY(int versionMinor READ versionMinor WRITE setVersionMinor NOTIFY versionMinorChanged)

public:
    static constexpr uint8_t VersionMajor = 10;
    static constexpr uint8_t VersionMinor = 34;
    // The most bytes one sendRaw() takes: far more than any frame or packet, small enough
    // that the plugin's parser gets them in one go.
    static constexpr int kMaxRawBytes = 65536;

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

    bool answering() const { return m_faults.answering(); }
    // Also while an update runs: the section falls silent under the updater.
    void setAnswering(bool answering) { m_faults.setAnswering(answering); }
    bool plugged() const { return m_faults.plugged(); }
    // Also while an update runs: the line goes away under the updater.
    void setPlugged(bool plugged) { m_faults.setPlugged(plugged); }
    bool bootloader() const { return m_faults.bootloader(); }
    // Refused (with a warning) while the updater's exchange with the bootloader runs.
    void setBootloader(bool bootloader) { m_faults.setBootloader(bootloader); }
    int flashStatus() const { return m_faults.flashStatus(); }
    // A byte, 0..255; anything else is refused with a warning.
    void setFlashStatus(int status) { m_faults.setFlashStatus(status); }
    int nakCount() const { return m_faults.nakCount(); }
    // 0 or more; a negative count is refused with a warning.
    void setNakCount(int count) { m_faults.setNakCount(count); }
    int receivedBytes() const { return m_faults.receivedBytes(); }
    QString imageCrc32() const { return m_faults.imageCrc32(); }
    int versionMajor() const { return m_versionMajor; }
    // Reported in the next ping answer, clamped to the byte 0..255 on the wire.
    void setVersionMajor(int major);
    int versionMinor() const { return m_versionMinor; }
    void setVersionMinor(int minor);

    // Puts raw bytes on the section's line towards the plugin: a JS array of numbers 0..255
    // or an ArrayBuffer. Empty, oversized (more than kMaxRawBytes) or non-byte input is
    // refused with a warning. Nothing arrives while the section is unplugged.
    Q_INVOKABLE void sendRaw(const QVariant& bytes);
    // Switches the section off and on again: whatever is on its line is lost, it is silent
    // for 300 ms while it boots, and it comes back in its bootloader if its last update
    // began and did not end with a Reset, otherwise running its application.
    Q_INVOKABLE void powerCycle() { m_faults.powerCycle(); }

    // Takes the plugin's ping and start of calibration for this section (device 0).
    bool handleSoftwareMessage(uint8_t sectionIndex,
                               const Velmora::Worksurface::SerialMessage& message) override;

    // ISoftwareSection
    uint8_t playedSectionIndex() const override { return m_sectionIndex; }
    bool isAnswering() const override { return m_faults.isAnswering(); }
    bool isPlugged() const override { return m_faults.isPlugged(); }
    bool isInBootloader() const override { return m_faults.isInBootloader(); }
    void bootloaderBytes(const QByteArray& bytes) override { m_faults.bootloaderBytes(bytes); }
    void lineReset() override { m_faults.lineReset(); }

signals:
    void sectionIndexChanged();
    void calibratingChanged();
    void temperatureChanged();
    void answeringChanged();
    void pluggedChanged();
    void bootloaderChanged();
    void flashStatusChanged();
    void nakCountChanged();
    void receivedBytesChanged();
    void imageCrc32Changed();
    void versionMajorChanged();
    void versionMinorChanged();

private:
    // SectionFaults::Line
    uint8_t faultSectionIndex() const override { return m_sectionIndex; }
    void sendBootloaderAnswer(const QByteArray& bytes) override;
    void plugMoved() override;

    Velmora::Worksurface::QmlControllerConnection* qmlController() const;

    void sendToPlugin(const Velmora::Worksurface::SerialMessage& message) const;
    void unregisterFrom(
        const std::shared_ptr<Velmora::Worksurface::ISoftwareControllerConnection>& controller);

    // Not owned; QPointer because QML destroys objects in any order.
    QPointer<SurfaceConnection> m_connection;
    std::shared_ptr<Velmora::Worksurface::ISoftwareControllerConnection> m_controller;
    uint8_t m_sectionIndex = 0;
    bool m_calibrating = false;
    int m_temperature = 0;
    int m_versionMajor = VersionMajor;
    int m_versionMinor = VersionMinor;
    Velmora::Worksurface::SectionFaults m_faults;
};
