#include <QtTest>
#include <cmath>
#include <limits>
#include <set>

#include "bindings/responsecurve.h"

namespace {

// The channel-fader law written as its breakpoints (control value : dB). The expected
// values below are computed from this table alone, segment by segment, in single
// precision, not by calling the code under test.
struct Breakpoint
{
    int value;
    float dB;
};
const Breakpoint kFaderLaw[] = {{0, -150.0f},  {5, -60.0f},   {30, -50.0f}, {70, -40.0f},
                                {190, -20.0f}, {260, -10.0f}, {320, -5.0f}, {400, 0.0f},
                                {460, 5.0f},   {511, 10.0f}};

float expectedFaderdB(int v)
{
    if (v <= 5) {
        const float d = static_cast<float>(v) * 18.0f - 150.0f;
        return std::max(-150.0f, std::min(10.0f, d));
    }
    for (int i = 9; i >= 1; --i) {
        const Breakpoint lo = kFaderLaw[i - 1];
        const Breakpoint hi = kFaderLaw[i];
        if (v > lo.value || i == 1) {
            // The law's own ratios reduce each segment's rise over run; any equal ratio of
            // small integers gives the same correctly rounded float.
            return static_cast<float>(v - lo.value) * (hi.dB - lo.dB) /
                       static_cast<float>(hi.value - lo.value) +
                   lo.dB;
        }
    }
    return 0.0f;
}

int expectedFaderValue(float d)
{
    for (int i = 9; i >= 2; --i) {
        const Breakpoint lo = kFaderLaw[i - 1];
        const Breakpoint hi = kFaderLaw[i];
        if (d > lo.dB) {
            return static_cast<int>((d - lo.dB) / (hi.dB - lo.dB) *
                                        static_cast<float>(hi.value - lo.value) +
                                    static_cast<float>(lo.value));
        }
    }
    const float x = (d + 150.0f) * (1.0f / 18.0f);
    return static_cast<int>(x > 511.0f ? 511.0f : (x > 0.0f ? x : 0.0f));
}

float expectedGeqdB(int v)
{
    const float d = static_cast<float>(v - 511) / (511.0f / 24.0f) + 12.0f;
    return std::max(-12.0f, std::min(12.0f, d));
}

int expectedGeqValue(float d)
{
    const float x = 511.0f - (12.0f - d) * (511.0f / 24.0f);
    return static_cast<int>(std::max(0.0f, std::min(511.0f, x)));
}

float expectedAmmdB(int v)
{
    const float d = static_cast<float>(v - 511) / (511.0f / 120.0f) + 20.0f;
    return std::round(std::max(-100.0f, std::min(20.0f, d)));
}

int expectedAmmValue(float d)
{
    const float x = 511.0f - (20.0f - d) * (511.0f / 120.0f);
    return static_cast<int>(std::max(0.0f, std::min(511.0f, x)));
}

using Mode = ResponseCurve::ConversionMode;

std::set<int> stepsLostOnRoundTrip(Mode mode)
{
    std::set<int> lost;
    for (int v = 0; v <= 511; ++v) {
        const auto back =
            ResponseCurve::convertdBtoLinear(ResponseCurve::convertLinearTodB(v, mode), mode);
        if (back != v) {
            lost.insert(v);
        }
    }
    return lost;
}

QObject* makeSingleton()
{
    return ResponseCurve::singletonProvider(nullptr, nullptr);
}

}  // namespace

class TestResponseCurve : public QObject
{
    Q_OBJECT

private slots:
    void constantsMatchTheStoredSlopes()
    {
        // The laws store their slopes as these floats.
        QCOMPARE(ResponseCurve::kGeqSlope, 511.0f / 24.0f);
        QCOMPARE(ResponseCurve::kAmmSlope, 511.0f / 120.0f);
    }

    void everyValueToDbMatchesTheBreakpointTable_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("Default") << int(ResponseCurve::Default);
        QTest::newRow("GraphicsEq") << int(ResponseCurve::GraphicsEq);
        QTest::newRow("AmmWeight") << int(ResponseCurve::AmmWeight);
    }

    void everyValueToDbMatchesTheBreakpointTable()
    {
        QFETCH(int, mode);
        for (int v = 0; v <= 511; ++v) {
            float expected = 0;
            switch (mode) {
                case ResponseCurve::GraphicsEq:
                    expected = expectedGeqdB(v);
                    break;
                case ResponseCurve::AmmWeight:
                    expected = expectedAmmdB(v);
                    break;
                default:
                    expected = expectedFaderdB(v);
            }
            const float actual = ResponseCurve::convertLinearTodB(v, Mode(mode));
            if (actual != expected) {
                QFAIL(qPrintable(QString("value %1: %2 dB, expected %3 dB")
                                     .arg(v)
                                     .arg(double(actual), 0, 'g', 9)
                                     .arg(double(expected), 0, 'g', 9)));
            }
        }
    }

    void everyRoundTripMatchesTheBreakpointTable_data()
    {
        everyValueToDbMatchesTheBreakpointTable_data();
    }

    void everyRoundTripMatchesTheBreakpointTable()
    {
        QFETCH(int, mode);
        for (int v = 0; v <= 511; ++v) {
            const float dB = ResponseCurve::convertLinearTodB(v, Mode(mode));
            int expected = 0;
            switch (mode) {
                case ResponseCurve::GraphicsEq:
                    expected = expectedGeqValue(dB);
                    break;
                case ResponseCurve::AmmWeight:
                    expected = expectedAmmValue(dB);
                    break;
                default:
                    expected = expectedFaderValue(dB);
            }
            const int actual = ResponseCurve::convertdBtoLinear(dB, Mode(mode));
            if (actual != expected) {
                QFAIL(qPrintable(QString("value %1 -> %2 dB -> %3, expected %4")
                                     .arg(v)
                                     .arg(dB)
                                     .arg(actual)
                                     .arg(expected)));
            }
        }
    }

    void defaultSpotValues()
    {
        QCOMPARE(ResponseCurve::convertLinearTodB(400, ResponseCurve::Default), 0.0f);
        QCOMPARE(ResponseCurve::convertLinearTodB(511, ResponseCurve::Default), 10.0f);
        QCOMPARE(ResponseCurve::convertLinearTodB(0, ResponseCurve::Default), -150.0f);
        QCOMPARE(ResponseCurve::convertLinearTodB(1, ResponseCurve::Default), -132.0f);
        QCOMPARE(ResponseCurve::convertLinearTodB(6, ResponseCurve::Default), -59.6f);
        QVERIFY(qAbs(ResponseCurve::convertLinearTodB(461, ResponseCurve::Default) - 5.098f) <
                0.0005f);
        QCOMPARE(ResponseCurve::convertLinearTodB(7, ResponseCurve::Default), -59.2f);
    }

    void defaultDbToValueSpotValues()
    {
        QCOMPARE(ResponseCurve::convertdBtoLinear(0.0f, ResponseCurve::Default), 400);
        QCOMPARE(ResponseCurve::convertdBtoLinear(10.0f, ResponseCurve::Default), 511);
        QCOMPARE(ResponseCurve::convertdBtoLinear(11.0f, ResponseCurve::Default), 521);
        QCOMPARE(ResponseCurve::convertdBtoLinear(20.0f, ResponseCurve::Default), 613);
        QCOMPARE(ResponseCurve::convertdBtoLinear(-150.0f, ResponseCurve::Default), 0);
        QCOMPARE(ResponseCurve::convertdBtoLinear(-200.0f, ResponseCurve::Default), 0);
        // The test is strict, so -60 dB takes the foot segment: (-60 + 150) / 18 = 5.
        QCOMPARE(ResponseCurve::convertdBtoLinear(-60.0f, ResponseCurve::Default), 5);
        QCOMPARE(ResponseCurve::convertdBtoLinear(-59.2f, ResponseCurve::Default), 6);
    }

    void defaultRoundTripLosesExactlyTheListedSteps()
    {
        std::set<int> expected{7, 9, 12, 14, 17, 19, 22, 24, 27, 29, 72, 75, 78};
        for (int v = 81; v <= 126; v += 3) {
            expected.insert(v);
        }
        QCOMPARE(stepsLostOnRoundTrip(ResponseCurve::Default), expected);
    }

    void graphicsEqRoundTripLosesTheListedSteps()
    {
        const std::set<int> lost = stepsLostOnRoundTrip(ResponseCurve::GraphicsEq);
        const std::vector<int> first(lost.begin(), std::next(lost.begin(), 5));
        QCOMPARE(first, (std::vector<int>{8, 9, 19, 30, 40}));
    }

    void ammWeightRoundTripIsWholeDb()
    {
        for (int v = 0; v <= 511; ++v) {
            const float dB = ResponseCurve::convertLinearTodB(v, ResponseCurve::AmmWeight);
            QCOMPARE(dB, std::round(dB));
            QVERIFY(dB >= -100.0f && dB <= 20.0f);
        }
    }

    void graphicsEqSpotValues()
    {
        QCOMPARE(ResponseCurve::convertLinearTodB(0, ResponseCurve::GraphicsEq), -12.0f);
        QCOMPARE(ResponseCurve::convertLinearTodB(511, ResponseCurve::GraphicsEq), 12.0f);
        QVERIFY(qAbs(ResponseCurve::convertLinearTodB(255, ResponseCurve::GraphicsEq) + 0.023f) <
                0.0005f);
        QVERIFY(qAbs(ResponseCurve::convertLinearTodB(256, ResponseCurve::GraphicsEq) - 0.023f) <
                0.0005f);
        QCOMPARE(ResponseCurve::convertdBtoLinear(0.0f, ResponseCurve::GraphicsEq), 255);
        QCOMPARE(ResponseCurve::convertdBtoLinear(12.0f, ResponseCurve::GraphicsEq), 511);
        QCOMPARE(ResponseCurve::convertdBtoLinear(-12.0f, ResponseCurve::GraphicsEq), 0);
        QCOMPARE(ResponseCurve::convertdBtoLinear(30.0f, ResponseCurve::GraphicsEq), 511);
    }

    void ammWeightSpotValues()
    {
        for (int v : {0, 1, 2}) {
            QCOMPARE(ResponseCurve::convertLinearTodB(v, ResponseCurve::AmmWeight), -100.0f);
        }
        for (int v : {510, 511}) {
            QCOMPARE(ResponseCurve::convertLinearTodB(v, ResponseCurve::AmmWeight), 20.0f);
        }
        for (int v : {255, 256}) {
            QCOMPARE(ResponseCurve::convertLinearTodB(v, ResponseCurve::AmmWeight), -40.0f);
        }
        QCOMPARE(ResponseCurve::convertdBtoLinear(20.0f, ResponseCurve::AmmWeight), 511);
        QCOMPARE(ResponseCurve::convertdBtoLinear(-100.0f, ResponseCurve::AmmWeight), 0);
        QCOMPARE(ResponseCurve::convertdBtoLinear(0.0f, ResponseCurve::AmmWeight), 425);
    }

    void qmlEntryClampsTheControlValue()
    {
        std::unique_ptr<QObject> singleton(makeSingleton());
        auto* curve = qobject_cast<ResponseCurve*>(singleton.get());
        QVERIFY(curve);
        QVERIFY(!singleton->parent());
        QCOMPARE(curve->linearTodBConversion(600, ResponseCurve::Default), 10.0f);
        QCOMPARE(curve->linearTodBConversion(-5, ResponseCurve::Default), -150.0f);
        QCOMPARE(curve->linearTodBConversion(1, ResponseCurve::Default), -132.0f);
        QCOMPARE(curve->dBtoLinearConversion(11.0f, ResponseCurve::Default), 521);
        // The static function continues the top segment instead.
        QVERIFY(qAbs(ResponseCurve::convertLinearTodB(600, ResponseCurve::Default) - 18.7255f) <
                0.001f);
        QVERIFY(qAbs(ResponseCurve::convertLinearTodB(521, ResponseCurve::Default) - 10.98f) <
                0.001f);
    }

    void qmlInvokablesAreInOrder()
    {
        const QMetaObject& meta = ResponseCurve::staticMetaObject;
        QCOMPARE(meta.methodCount() - meta.methodOffset(), 2);
        QCOMPARE(meta.method(meta.methodOffset()).methodSignature(),
                 QByteArray("dBtoLinearConversion(float,ConversionMode)"));
        QCOMPARE(meta.method(meta.methodOffset() + 1).methodSignature(),
                 QByteArray("linearTodBConversion(int,ConversionMode)"));
        QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 1);
        QCOMPARE(QByteArray(meta.enumerator(meta.enumeratorOffset()).name()),
                 QByteArray("ConversionMode"));
        QCOMPARE(meta.propertyCount() - meta.propertyOffset(), 0);
    }

    void unknownModesBehaveAsDefault()
    {
        for (int mode : {3, -1}) {
            for (int v : {0, 6, 399, 400, 511}) {
                QCOMPARE(ResponseCurve::convertLinearTodB(v, Mode(mode)),
                         ResponseCurve::convertLinearTodB(v, ResponseCurve::Default));
            }
            QCOMPARE(ResponseCurve::convertdBtoLinear(-3.0f, Mode(mode)), 352);
        }
    }

    void nanAndInfinityNeverCrash()
    {
        const float nan = std::numeric_limits<float>::quiet_NaN();
        const float inf = std::numeric_limits<float>::infinity();
        for (Mode mode :
             {ResponseCurve::Default, ResponseCurve::GraphicsEq, ResponseCurve::AmmWeight}) {
            // A NaN fails every comparison and ends at the lower bound.
            QCOMPARE(ResponseCurve::convertdBtoLinear(nan, mode), 0);
            QCOMPARE(ResponseCurve::convertdBtoLinear(-inf, mode), 0);
        }
        QCOMPARE(ResponseCurve::convertdBtoLinear(inf, ResponseCurve::GraphicsEq), 511);
        QCOMPARE(ResponseCurve::convertdBtoLinear(inf, ResponseCurve::AmmWeight), 511);
        // The unclamped top segment cannot carry infinity into a control value; it gives
        // the integer-indefinite result instead of undefined behaviour.
        QCOMPARE(ResponseCurve::convertdBtoLinear(inf, ResponseCurve::Default), 0);
        QCOMPARE(ResponseCurve::convertdBtoLinear(1e20f, ResponseCurve::Default), 0);
    }
};

QTEST_GUILESS_MAIN(TestResponseCurve)
#include "tst_responsecurve.moc"
