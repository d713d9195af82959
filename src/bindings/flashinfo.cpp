#include "bindings/flashinfo.h"

FlashInfo::FlashInfo(QObject* parent) : QObject(parent) {}

void FlashInfo::setEnabled(bool enabled)
{
    if (enabled != m_enabled) {
        m_enabled = enabled;
        emit enabledChanged();
    }
}

void FlashInfo::setInterval(int interval)
{
    if (interval != m_interval) {
        m_interval = interval;
        emit intervalChanged();
    }
}
