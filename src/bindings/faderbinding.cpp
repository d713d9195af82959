#include "bindings/faderbinding.h"

#include <cmath>
#include <cstdlib>

#include "base/logcategories.h"
#include "surface/controltypes.h"
#include "surface/deviceidtable.h"
#include "surface/faderhandle.h"
#include "surface/ifader.h"
#include "surface/isurface.h"

using namespace Velmora::Worksurface;

static_assert(FaderBinding::None == static_cast<int>(FaderType::None));
static_assert(FaderBinding::Fader == static_cast<int>(FaderType::Fader));
static_assert(FaderBinding::MasterFader == static_cast<int>(FaderType::MasterFader));

namespace {

// The view writes the value on every frame of a drag or an animation; steps this small
// would only make the motor twitch.
constexpr float kMinimumStepdB = 0.1f;
// A fader let go this close to its detent, where the law is this close to unity gain, is
// meant to sit at unity: report exactly 0 dB instead of a hair off it.
constexpr int kDetentSnapSteps = 5;
constexpr float kDetentSnapdB = 0.1f;

const char kMissingTouchHandler[] =
    "FaderBinding: Touch target set but the object does not have function: void "
    "onFaderTouched(bool)";

}  // namespace

FaderBinding::FaderBinding(QObject* parent) : BindingBase(parent), m_lock(new FaderLockInfo(this))
{
    connect(m_lock, &FaderLockInfo::enabledChanged, this, &FaderBinding::sendLockEnabled);
    connect(m_lock, &FaderLockInfo::valueChanged, this, &FaderBinding::sendLockValue);
    connect(this, &FaderBinding::faderTouched, this, &FaderBinding::informTouchTarget);
}

FaderBinding::~FaderBinding()
{
    // Gives the fader back while this object can still run its own updateBinding().
    deactivateForDestruction();
    dropHandle();
}

void FaderBinding::setType(FaderType type)
{
    if (type == m_type) {
        return;
    }
    m_type = type;
    emit typeChanged();
}

void FaderBinding::setMode(FaderMode mode)
{
    if (mode == m_mode) {
        return;
    }
    m_mode = mode;
    emit modeChanged();
    sendMode();
}

void FaderBinding::setConversionMode(ResponseCurve::ConversionMode mode)
{
    if (mode == m_conversionMode) {
        return;
    }
    // Detent and backstop stay where they are in dB, so their positions move with the law.
    const float detentdB = ResponseCurve::convertLinearTodB(m_detent, m_conversionMode);
    const float backstopdB = ResponseCurve::convertLinearTodB(m_backstop, m_conversionMode);
    m_conversionMode = mode;
    emit conversionModeChanged();

    const uint16_t detent = ResponseCurve::convertdBtoLinear(detentdB, m_conversionMode);
    if (detent != m_detent) {
        m_detent = detent;
        emit detentChanged();
        sendFaderDetent();
    }
    const uint16_t backstop = ResponseCurve::convertdBtoLinear(backstopdB, m_conversionMode);
    if (backstop != m_backstop) {
        m_backstop = backstop;
        emit backstopChanged();
        sendFaderBackstop();
    }
}

void FaderBinding::setValue(float value)
{
    // Written so that a NaN difference (a NaN value, or infinity over infinity) fails the
    // test and changes nothing.
    if (!(std::fabs(value - m_value) > kMinimumStepdB)) {
        return;
    }
    m_value = value;
    emit valueChanged();
    sendFaderValue();
}

float FaderBinding::detent() const
{
    return ResponseCurve::convertLinearTodB(m_detent, m_conversionMode);
}

void FaderBinding::setDetent(float dB)
{
    const uint16_t position = ResponseCurve::convertdBtoLinear(dB, m_conversionMode);
    if (position == m_detent) {
        return;
    }
    m_detent = position;
    emit detentChanged();
    sendFaderDetent();
}

float FaderBinding::backstop() const
{
    return ResponseCurve::convertLinearTodB(m_backstop, m_conversionMode);
}

void FaderBinding::setBackstop(float dB)
{
    const uint16_t position = ResponseCurve::convertdBtoLinear(dB, m_conversionMode);
    if (position == m_backstop) {
        return;
    }
    m_backstop = position;
    emit backstopChanged();
    sendFaderBackstop();
}

bool FaderBinding::touched() const
{
    const std::shared_ptr<FaderHandle> handle = m_handle.lock();
    return handle && handle->touched();
}

void FaderBinding::setTouchTarget(QObject* target)
{
    if (target != nullptr && target->metaObject()->indexOfMethod("onFaderTouched(bool)") < 0) {
        qCWarning(lcBindings, "%s", kMissingTouchHandler);
        target = nullptr;
    }
    if (target == m_touchTarget) {
        return;
    }
    // The old target hears the finger leave and the new one hears it arrive, so each sees
    // a complete touch.
    const bool isTouched = touched();
    if (isTouched) {
        callTouchTarget(m_touchTarget, false);
    }
    m_touchTarget = target;
    emit touchTargetChanged();
    if (isTouched) {
        callTouchTarget(m_touchTarget, true);
    }
}

void FaderBinding::rebind()
{
    // The handle is not given back: the fresh lookup replaces it at the fader anyway.
    dropHandle();
    if (active()) {
        updateBinding();
    }
}

void FaderBinding::convertFaderValueToValueAndInformFaderMove(quint16 position)
{
    // Not stored: the view writes `value` back if it accepts the move.
    const float dB = ResponseCurve::convertLinearTodB(position, m_conversionMode);
    if (m_detent != 0 &&
        std::abs(static_cast<int>(position) - static_cast<int>(m_detent)) < kDetentSnapSteps) {
        if (std::fabs(dB) < kDetentSnapdB) {
            emit faderMoved(0.0f);
            return;
        }
    }
    emit faderMoved(dB);
}

void FaderBinding::informTouchTarget(bool touched)
{
    // An inactive binding's fader is not the view's: its target is always told "untouched".
    callTouchTarget(m_touchTarget, touched && active());
}

void FaderBinding::sendLockEnabled()
{
    const std::shared_ptr<FaderHandle> handle = m_handle.lock();
    if (!handle) {
        return;
    }
    emit handle->internalSendFaderLockEnabled(m_lock->enabled());
    if (m_lock->enabled()) {
        sendLockValue();
    }
}

void FaderBinding::sendLockValue()
{
    if (!m_lock->enabled()) {
        return;
    }
    const std::shared_ptr<FaderHandle> handle = m_handle.lock();
    if (!handle) {
        return;
    }
    emit handle->internalSendFaderLockPosition(
        ResponseCurve::convertdBtoLinear(m_lock->value(), m_conversionMode));
}

void FaderBinding::updateBinding()
{
    if (const std::shared_ptr<FaderHandle> handle = m_handle.lock()) {
        if (active() &&
            handle->standsFor(static_cast<uint8_t>(sectionIndex()), selectedDeviceId())) {
            sendAll();
            return;
        }
        dropHandle();
        handle->release();
    }
    dropHandle();
    // Whatever was touched before belongs to a fader this binding no longer drives.
    emit faderTouched(false);

    ISurface* const surface = this->surface();
    if (surface == nullptr || !active()) {
        return;
    }
    const std::shared_ptr<IFader> fader =
        surface->fader(static_cast<int32_t>(m_type), sectionIndex(), index());
    if (!fader) {
        return;
    }
    const std::shared_ptr<FaderHandle> handle = fader->getHandle();
    if (!handle) {
        return;
    }
    m_handle = handle;
    connectHandle(handle);
    sendAll();
    if (handle->touched()) {
        emit faderTouched(true);
    }
}

uint8_t FaderBinding::selectedDeviceId() const
{
    return DeviceIdTable::fader(static_cast<int32_t>(m_type), index());
}

void FaderBinding::connectHandle(const std::shared_ptr<FaderHandle>& handle)
{
    m_movedLink = connect(handle.get(), &FaderHandle::faderMoved, this,
                          &FaderBinding::convertFaderValueToValueAndInformFaderMove);
    m_touchedLink =
        connect(handle.get(), &FaderHandle::faderTouched, this, &FaderBinding::faderTouched);
}

void FaderBinding::dropHandle()
{
    QObject::disconnect(m_movedLink);
    QObject::disconnect(m_touchedLink);
    m_handle.reset();
}

void FaderBinding::sendAll()
{
    // The lock goes first so that the position sent after it is already judged against
    // the lock; the lock position is sent a second time, as the fader has always had it.
    sendLockEnabled();
    sendLockValue();
    sendMode();
    sendFaderValue();
    sendFaderDetent();
    sendFaderBackstop();
}

void FaderBinding::sendFaderValue()
{
    if (const std::shared_ptr<FaderHandle> handle = m_handle.lock()) {
        emit handle->internalSendFaderPosition(
            ResponseCurve::convertdBtoLinear(m_value, m_conversionMode));
    }
}

void FaderBinding::sendFaderDetent()
{
    if (const std::shared_ptr<FaderHandle> handle = m_handle.lock()) {
        emit handle->internalSendFaderDetent(m_detent);
    }
}

void FaderBinding::sendFaderBackstop()
{
    if (const std::shared_ptr<FaderHandle> handle = m_handle.lock()) {
        emit handle->internalSendFaderBackstop(m_backstop);
    }
}

void FaderBinding::sendMode()
{
    if (const std::shared_ptr<FaderHandle> handle = m_handle.lock()) {
        handle->setMode(static_cast<int32_t>(m_mode));
    }
}

void FaderBinding::callTouchTarget(QObject* target, bool touched)
{
    if (target == nullptr) {
        return;
    }
    QMetaObject::invokeMethod(target, "onFaderTouched", Qt::DirectConnection, Q_ARG(bool, touched));
}
