#pragma once

#include <QObject>

class QQmlEngine;
class QJSEngine;

// Converts between a fader's control value (0..511, the position the fader reports and
// accepts) and a gain in dB, under one of three laws: the channel-fader law, a symmetric
// +-12 dB law for graphic-equaliser bands and a -100..+20 dB law for automatic-mixer
// weights. Pure functions; the QML singleton "ResponseCurve" wraps the same functions.
//
// All arithmetic is single precision in a fixed order, and dB -> value truncates: views
// rely on the exact values (a round trip may lose a step, and 11 dB gives 521 because the
// top of the channel law is deliberately not clamped; callers bound it themselves).
class ResponseCurve : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "ResponseCurve")
    Q_CLASSINFO("QML.Singleton", "true")

public:
    // Backed by int: QML may pass any number, which then behaves as Default.
    enum ConversionMode : int
    {
        Default = 0,
        GraphicsEq = 1,
        AmmWeight = 2
    };
    Q_ENUM(ConversionMode)

    // The slopes of the graphic-equaliser and automatic-mixer laws, 511 / 24 and 511 / 120,
    // as the laws store them (steps per dB).
    static constexpr float kGeqSlope = 21.291666f;
    static constexpr float kAmmSlope = 4.258333f;

    static float convertLinearTodB(unsigned short value, ConversionMode mode);
    static unsigned short convertdBtoLinear(float dB, ConversionMode mode);

    static QObject* singletonProvider(QQmlEngine* engine, QJSEngine* scriptEngine);

    Q_INVOKABLE unsigned short dBtoLinearConversion(float value,
                                                    ConversionMode conversion_mode) const;
    // Clamps value into 0..511 first: this is the QML entry, where any int can arrive.
    Q_INVOKABLE float linearTodBConversion(int value, ConversionMode conversion_mode) const;

private:
    ResponseCurve() = default;

    static float faderLinearTodB(unsigned short value);
    static unsigned short faderdBtoLinear(float dB);
    static float geqLinearTodB(unsigned short value);
    static unsigned short geqdBtoLinear(float dB);
    static float ammLinearTodB(unsigned short value);
    static unsigned short ammdBtoLinear(float dB);
    static unsigned short boundToFaderLimits(float x);
};
