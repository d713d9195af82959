#pragma once

#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QQmlParserStatus>
#include <cstdint>

#include "bindings/surfaceconnection.h"

namespace Velmora::Worksurface {
class ISurface;
}

// What every control binding shares: the connection through which the surface is
// reached, the section and control index that name the control, and whether the binding
// is active. It decides when the binding has to look its control up again and calls the
// derived class's updateBinding(); before componentComplete() no property change causes
// a lookup, so a binding declared in QML is looked up once all its values are in place.
class BindingBase : public QObject, public QQmlParserStatus
{
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)
    Q_PROPERTY(SurfaceConnection* connection READ connection WRITE setConnection)
    Q_PROPERTY(bool active READ active WRITE setActive NOTIFY activeChanged)
    Q_PROPERTY(int sectionIndex READ sectionIndex WRITE setSectionIndex NOTIFY sectionIndexChanged)
    Q_PROPERTY(int index READ index WRITE setIndex NOTIFY indexChanged)

public:
    explicit BindingBase(QObject* parent = nullptr);
    ~BindingBase() override;

    SurfaceConnection* connection() const;
    void setConnection(SurfaceConnection* connection);
    bool active() const { return m_active; }
    void setActive(bool active);
    int sectionIndex() const { return m_sectionIndex; }
    void setSectionIndex(int sectionIndex);
    int index() const { return m_index; }
    void setIndex(int index);

    void classBegin() override {}
    void componentComplete() override;

signals:
    void sectionIndexChanged();
    void indexChanged();
    void activeChanged();

protected:
    virtual void updateBinding() = 0;
    // The running surface, or null while there is none.
    Velmora::Worksurface::ISurface* surface() const;
    bool isComplete() const { return m_complete; }
    // Derived destructors call this first: it writes false to `active`, which lets an
    // active, complete binding release its handle through its own updateBinding() while
    // the derived object still exists.
    void deactivateForDestruction();

private slots:
    void surfaceChanged();

private:
    void updateIfComplete();

    // Not owned; QPointer so that a connection destroyed before its bindings (QML tears
    // objects down in any order) reads as null.
    QPointer<SurfaceConnection> m_connection;
    QMetaObject::Connection m_surfaceChangedLink;
    bool m_complete = false;
    bool m_active = false;
    uint8_t m_sectionIndex = 255;
    uint8_t m_index = 255;
};
