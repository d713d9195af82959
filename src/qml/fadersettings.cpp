#include "qml/fadersettings.h"

FaderSettings::FaderSettings(QObject* parent) : QObject(parent) {}

RestMode::Type FaderSettings::restMode() const
{
    return m_restMode;
}

void FaderSettings::setRestMode(RestMode::Type restMode)
{
    if (restMode == m_restMode) {
        return;
    }
    m_restMode = restMode;
    emit restModeChanged();
}
