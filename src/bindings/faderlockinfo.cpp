#include "bindings/faderlockinfo.h"

#include <cmath>

namespace {

// A view that recomputes the lock value from a slider or an animation writes almost the
// same number again and again; steps this small would only shake the motor.
constexpr float kMinimumLockStepdB = 0.1f;

}  // namespace

FaderLockInfo::FaderLockInfo(QObject* parent) : QObject(parent) {}

void FaderLockInfo::setEnabled(bool enabled)
{
    if (enabled == m_enabled) {
        return;
    }
    m_enabled = enabled;
    emit enabledChanged();
}

void FaderLockInfo::setValue(float value)
{
    // Written so that a NaN difference (a NaN value, or infinity written over infinity)
    // fails the test and changes nothing.
    if (!(std::fabs(value - m_value) > kMinimumLockStepdB)) {
        return;
    }
    m_value = value;
    emit valueChanged();
}
