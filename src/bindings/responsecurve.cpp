#include "bindings/responsecurve.h"

#include <cmath>
#include <cstdint>
#include <limits>

namespace {

// Upper bound first, then lower bound: a NaN fails both comparisons and ends at the lower
// bound, so a NaN dB never reaches the fader as anything but the bottom.
float clamp(float x, float lower, float upper)
{
    const float bounded = x > upper ? upper : x;
    return bounded > lower ? bounded : lower;
}

// Truncation toward zero into the 16-bit control value. The channel law's top segment is
// not clamped, so large dB values carry on past 511 and wrap as a 16-bit value would.
// Values no 32-bit integer can hold (and NaN) give the processor's "integer indefinite",
// whose low 16 bits are 0, instead of undefined behaviour.
unsigned short truncateToControlValue(float x)
{
    if (!(x > -2147483648.0f && x < 2147483648.0f)) {
        return 0;
    }
    return static_cast<unsigned short>(static_cast<int32_t>(x));
}

}  // namespace

float ResponseCurve::convertLinearTodB(unsigned short value, ConversionMode mode)
{
    switch (mode) {
        case GraphicsEq:
            return geqLinearTodB(value);
        case AmmWeight:
            return ammLinearTodB(value);
        default:
            return faderLinearTodB(value);
    }
}

unsigned short ResponseCurve::convertdBtoLinear(float dB, ConversionMode mode)
{
    switch (mode) {
        case GraphicsEq:
            return geqdBtoLinear(dB);
        case AmmWeight:
            return ammdBtoLinear(dB);
        default:
            return faderdBtoLinear(dB);
    }
}

QObject* ResponseCurve::singletonProvider(QQmlEngine*, QJSEngine*)
{
    return new ResponseCurve();
}

unsigned short ResponseCurve::dBtoLinearConversion(float value,
                                                   ConversionMode conversion_mode) const
{
    return convertdBtoLinear(value, conversion_mode);
}

float ResponseCurve::linearTodBConversion(int value, ConversionMode conversion_mode) const
{
    const int bounded = value > 511 ? 511 : (value < 1 ? 0 : value);
    return convertLinearTodB(static_cast<unsigned short>(bounded), conversion_mode);
}

float ResponseCurve::faderLinearTodB(unsigned short value)
{
    const int v = value;
    if (v > 460) {
        return static_cast<float>(v - 460) * 5.0f / 51.0f + 5.0f;
    }
    if (v > 400) {
        return static_cast<float>(v - 400) * 5.0f / 60.0f;
    }
    if (v > 320) {
        return static_cast<float>(v - 320) * 5.0f / 80.0f - 5.0f;
    }
    if (v > 260) {
        return static_cast<float>(v - 260) * 5.0f / 60.0f - 10.0f;
    }
    if (v > 190) {
        return static_cast<float>(v - 190) * 10.0f / 70.0f - 20.0f;
    }
    if (v > 70) {
        return static_cast<float>(v - 70) * 10.0f / 60.0f - 40.0f;
    }
    if (v > 30) {
        return static_cast<float>(v - 30) * 10.0f / 40.0f - 50.0f;
    }
    if (v > 5) {
        return static_cast<float>(v - 5) * 10.0f / 25.0f - 60.0f;
    }
    return clamp(static_cast<float>(v) * 18.0f - 150.0f, -150.0f, 10.0f);
}

unsigned short ResponseCurve::faderdBtoLinear(float d)
{
    if (d > 5.0f) {
        return truncateToControlValue((d - 5.0f) / 5.0f * 51.0f + 460.0f);
    }
    if (d > 0.0f) {
        return truncateToControlValue(d / 5.0f * 60.0f + 400.0f);
    }
    if (d > -5.0f) {
        return truncateToControlValue((d + 5.0f) / 5.0f * 80.0f + 320.0f);
    }
    if (d > -10.0f) {
        return truncateToControlValue((d + 10.0f) / 5.0f * 60.0f + 260.0f);
    }
    if (d > -20.0f) {
        return truncateToControlValue((d + 20.0f) / 10.0f * 70.0f + 190.0f);
    }
    if (d > -40.0f) {
        return truncateToControlValue((d + 40.0f) / 10.0f * 60.0f + 70.0f);
    }
    if (d > -50.0f) {
        return truncateToControlValue((d + 50.0f) / 10.0f * 40.0f + 30.0f);
    }
    if (d > -60.0f) {
        return truncateToControlValue((d + 60.0f) / 10.0f * 25.0f + 5.0f);
    }
    return truncateToControlValue(clamp((d + 150.0f) * (1.0f / 18.0f), 0.0f, 511.0f));
}

float ResponseCurve::geqLinearTodB(unsigned short value)
{
    const float d = static_cast<float>(static_cast<int>(value) - 511) / kGeqSlope + 12.0f;
    return clamp(d, -12.0f, 12.0f);
}

unsigned short ResponseCurve::geqdBtoLinear(float dB)
{
    return boundToFaderLimits(511.0f - (12.0f - dB) * kGeqSlope);
}

float ResponseCurve::ammLinearTodB(unsigned short value)
{
    const float d = static_cast<float>(static_cast<int>(value) - 511) / kAmmSlope + 20.0f;
    return std::round(clamp(d, -100.0f, 20.0f));
}

unsigned short ResponseCurve::ammdBtoLinear(float dB)
{
    return boundToFaderLimits(511.0f - (20.0f - dB) * kAmmSlope);
}

unsigned short ResponseCurve::boundToFaderLimits(float x)
{
    return truncateToControlValue(clamp(x, 0.0f, 511.0f));
}
