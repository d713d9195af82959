#pragma once

#include <QColor>
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

// What every control of a QML-played section shares (all but SectionControl): the
// connection through which the software controller is reached, the section it plays, its
// index among the controls of its type and whether it is live.
//
// A control answers to one device id of its section, given by its type and index (255
// when they name no control, and then it answers only to messages for device 255). It
// hears the plugin's messages for that device only while active (the meter also while
// inactive) and reports the widget's actions to the plugin only while active.
//
// Setting `connection` registers the control with the connection's software controller,
// once per set (setting it twice registers it twice). A control that goes away takes every
// registration with it, so the controller, which lives as long as the surface service,
// never calls a destroyed QML object.
//
// When the control is pointed at another device (a new section, index or type) or made
// active, it asks the controller to replay the last message the plugin sent to that device
// for each message type it takes, so a control created after the plugin has spoken shows
// what the hardware would.
//
// Section and control indices outside 0..255 are ignored, as a binding ignores them.
class SurfaceControlBase : public QObject,
                           public Velmora::Worksurface::ISoftwareSerialMessageHandler
{
    Q_OBJECT
    Q_PROPERTY(SurfaceConnection* connection READ connection WRITE setConnection)
    Q_PROPERTY(int sectionIndex READ sectionIndex WRITE setSectionIndex NOTIFY sectionIndexChanged)
    Q_PROPERTY(int index READ index WRITE setIndex NOTIFY indexChanged)
    Q_PROPERTY(bool active READ active WRITE setActive NOTIFY activeChanged)

public:
    static constexpr uint8_t NoDevice = 255;

    explicit SurfaceControlBase(QObject* parent = nullptr);
    ~SurfaceControlBase() override;

    SurfaceConnection* connection() const;
    void setConnection(SurfaceConnection* connection);
    int sectionIndex() const { return m_sectionIndex; }
    void setSectionIndex(int sectionIndex);
    int index() const { return m_index; }
    void setIndex(int index);
    bool active() const { return m_active; }
    void setActive(bool active);

    // Checks the section and, for controls that are deaf while inactive, `active`, then
    // leaves the message to the control.
    bool handleSoftwareMessage(uint8_t sectionIndex,
                               const Velmora::Worksurface::SerialMessage& message) final;

signals:
    void sectionIndexChanged();
    void indexChanged();
    void activeChanged();

protected:
    // Asks the controller to replay the last message for the control's device, for each
    // message type the control takes. Called when the section, index or type changes and
    // on activation.
    virtual void refresh() {}
    // Called after `active` has changed and activeChanged has been emitted. By default a
    // control that becomes active refreshes.
    virtual void activationChanged();
    // Called when the connection is set: registers the control with the controller.
    virtual void registerWithController();

public:
    // The device id the control answers to and sends from; 255 when none.
    virtual uint8_t deviceId() const = 0;

protected:
    // A message for the control's section that passed the active check; true when taken.
    virtual bool takeMessage(const Velmora::Worksurface::SerialMessage& message) = 0;
    // True for controls that take their messages even while inactive.
    virtual bool hearsWhileInactive() const { return false; }

    // The controller of the connection last set, or null.
    const std::shared_ptr<Velmora::Worksurface::ISoftwareControllerConnection>& controller() const
    {
        return m_controller;
    }
    // Sends a report to the plugin from the control's section, only while active.
    void sendToPlugin(const Velmora::Worksurface::SerialMessage& message) const;
    // Asks for the last message of this type to this device of the control's section.
    void replay(uint8_t type, uint8_t deviceId) const;
    // The colour a type-12 message carries (red, green, blue; opaque); a short payload
    // keeps the components of `current` it does not reach.
    static QColor colorFrom(const Velmora::Worksurface::SerialMessage& message,
                            const QColor& current);

private:
    void unregisterFrom(
        const std::shared_ptr<Velmora::Worksurface::ISoftwareControllerConnection>& controller);

    // Not owned; QPointer because QML destroys objects in any order.
    QPointer<SurfaceConnection> m_connection;
    std::shared_ptr<Velmora::Worksurface::ISoftwareControllerConnection> m_controller;
    uint8_t m_sectionIndex = 0;
    uint8_t m_index = 0;
    bool m_active = false;
};
