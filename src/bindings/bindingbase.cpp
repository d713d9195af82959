#include "bindings/bindingbase.h"

#include "surface/isurface.h"

using namespace Velmora::Worksurface;

BindingBase::BindingBase(QObject* parent) : QObject(parent) {}

BindingBase::~BindingBase() = default;

SurfaceConnection* BindingBase::connection() const
{
    return m_connection.data();
}

void BindingBase::setConnection(SurfaceConnection* connection)
{
    // Setting the same connection again is a way to ask for a fresh lookup.
    QObject::disconnect(m_surfaceChangedLink);
    m_connection = connection;
    if (connection) {
        m_surfaceChangedLink = QObject::connect(connection, &SurfaceConnection::surfaceChanged,
                                                this, &BindingBase::surfaceChanged);
        updateIfComplete();
    }
}

void BindingBase::setActive(bool active)
{
    if (active == m_active) {
        return;
    }
    m_active = active;
    emit activeChanged();
    updateIfComplete();
}

void BindingBase::setSectionIndex(int sectionIndex)
{
    // Indices are 8-bit on the link; anything else (negative values included) is ignored.
    if (static_cast<unsigned>(sectionIndex) > 255 || sectionIndex == m_sectionIndex) {
        return;
    }
    m_sectionIndex = static_cast<uint8_t>(sectionIndex);
    emit sectionIndexChanged();
    updateIfComplete();
}

void BindingBase::setIndex(int index)
{
    if (static_cast<unsigned>(index) > 255 || index == m_index) {
        return;
    }
    m_index = static_cast<uint8_t>(index);
    emit indexChanged();
    updateIfComplete();
}

void BindingBase::componentComplete()
{
    m_complete = true;
    updateBinding();
}

ISurface* BindingBase::surface() const
{
    return m_connection ? m_connection->surface() : nullptr;
}

void BindingBase::deactivateForDestruction()
{
    setActive(false);
}

void BindingBase::surfaceChanged()
{
    updateIfComplete();
}

void BindingBase::updateIfComplete()
{
    if (m_complete) {
        updateBinding();
    }
}
