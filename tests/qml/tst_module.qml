import QtQuick 2.15
import QtTest 1.15
import Tarvix.Worksurface 1.0

// The module as an application sees it: imports, uncreatable types, singletons, settings.
DrivenTestCase {
    id: testCase
    name: "Module"

    function createdObject(source) {
        return Qt.createQmlObject(source, testCase, "inline")
    }

    function creationError(source) {
        try {
            var object = Qt.createQmlObject(source, testCase, "inline")
            object.destroy()
        } catch (error) {
            return error.qmlErrors[0].message
        }
        return ""
    }

    function test_importAtVersionOneWorks() {
        var binding = createdObject("import Tarvix.Worksurface 1.0; FaderBinding {}")
        verify(binding !== null)
        binding.destroy()
    }

    function test_importAtVersionTwoFails() {
        var message = creationError("import Tarvix.Worksurface 2.0; FaderBinding {}")
        verify(message.indexOf("version 2.0") >= 0 || message.indexOf("not installed") >= 0,
               message)
    }

    // Only 1.0 is installed: under any other version no type of the module resolves, and
    // the error names the module and the version asked for.
    function test_otherVersionsDoNotResolveTheTypes_data() {
        var rows = []
        var versions = ["0.9", "1.1", "2.0"]
        var types = ["FaderBinding", "ButtonBinding", "MeterBinding", "FaderControl"]
        for (var v = 0; v < versions.length; ++v) {
            for (var t = 0; t < types.length; ++t) {
                rows.push({ tag: versions[v] + " " + types[t], version: versions[v],
                            type: types[t] })
            }
        }
        return rows
    }

    function test_otherVersionsDoNotResolveTheTypes(data) {
        var message = creationError("import Tarvix.Worksurface " + data.version + "; "
                                    + data.type + " {}")
        verify(message !== "", "the type resolved")
        verify(message.indexOf("Tarvix.Worksurface") >= 0, message)
        verify(message.indexOf(data.version) >= 0, message)
        // The same type under 1.0 is there, so it is the version that fails.
        var object = createdObject("import Tarvix.Worksurface 1.0; " + data.type + " {}")
        verify(object !== null)
        object.destroy()
    }

    function test_uncreatableTypesGiveTheirReason_data() {
        return [
            { tag: "FlashInfo", reason: "Can't create FlashInfo from qml" },
            { tag: "FaderSettings", reason: "Can't create FaderSettings from qml" },
            { tag: "RestMode", reason: "Can't create RestMode from qml" },
            { tag: "FaderLockInfo", reason: "Can't create FaderLockInfo from qml" },
            { tag: "SurfaceSettings", reason: "Can't create SurfaceSettings from qml" },
            { tag: "SurfaceConnection", reason: "Can't create SurfaceConnection from qml" },
            { tag: "SectionInfoModel", reason: "Can't create SectionInfoModel from qml" }
        ]
    }

    function test_uncreatableTypesGiveTheirReason(data) {
        compare(creationError("import Tarvix.Worksurface 1.0; " + data.tag + " {}"), data.reason)
    }

    function test_creatableTypesCanBeCreated_data() {
        return ["GlobalSurfaceBinding", "ButtonBinding", "FaderBinding", "RotaryBinding",
                "LedBinding", "PotBinding", "MeterBinding", "RgbLedBinding", "SectionControl",
                "ButtonControl", "FaderControl", "RotaryControl", "PotControl", "RgbLedControl",
                "MeterControl"].map(function (name) { return { tag: name } })
    }

    function test_creatableTypesCanBeCreated(data) {
        var object = createdObject("import Tarvix.Worksurface 1.0; " + data.tag + " {}")
        verify(object !== null)
        object.destroy()
    }

    function test_surfaceIsOneObjectAcrossFiles() {
        var other = createdObject("import QtQuick 2.15; import Tarvix.Worksurface 1.0; "
                                  + "QtObject { property var surface: Surface }")
        verify(other.surface === Surface)
        other.destroy()
    }

    function test_surfaceBeforeConnect() {
        compare(Surface.section(-1), null)
        compare(Surface.section(3), null)
        verify(Surface.section(0) !== null)
        verify(Surface.section(2) !== null)
        compare(Surface.buildNumber, 0)
        compare(Surface.isCalibrating, false)
        compare(Surface.faders.restMode, RestMode.ForceMinimum)
        compare(Surface.settings.debugEnabled, true)
    }

    SignalSpy { id: modeSpy; target: Surface.settings; signalName: "modeChanged" }
    SignalSpy { id: countSpy; target: Surface; signalName: "sectionCountChanged" }
    SignalSpy { id: masterSpy; target: Surface; signalName: "masterSectionIndexChanged" }

    function test_settingsCountsForEachModel() {
        Surface.settings.mode = SurfaceSettings.Unknown
        modeSpy.clear(); countSpy.clear(); masterSpy.clear()
        Surface.settings.mode = SurfaceSettings.K40
        compare(modeSpy.count, 1)
        compare(countSpy.count, 1)
        compare(masterSpy.count, 1)
        compare(Surface.sectionCount, 2)
        compare(Surface.masterSectionIndex, 1)
        compare(Surface.sectionStripCount, 10)
        Surface.settings.mode = SurfaceSettings.K40
        compare(modeSpy.count, 1)
        Surface.settings.mode = SurfaceSettings.K60
        compare(countSpy.count, 2)
        compare(Surface.sectionCount, 3)
        compare(Surface.masterSectionIndex, 2)
        Surface.settings.type = SurfaceSettings.Software
        compare(Surface.sectionCount, 3)
        Surface.settings.mode = SurfaceSettings.Unknown
        compare(Surface.sectionCount, 0)
        compare(Surface.masterSectionIndex, 255)
        Surface.settings.type = SurfaceSettings.Hardware
    }

    function test_responseCurveFromQml() {
        compare(ResponseCurve.linearTodBConversion(600, ResponseCurve.Default), 10)
        compare(ResponseCurve.linearTodBConversion(511, ResponseCurve.Default), 10)
        compare(ResponseCurve.linearTodBConversion(-5, ResponseCurve.Default), -150)
        compare(ResponseCurve.linearTodBConversion(400, ResponseCurve.Default), 0)
        compare(ResponseCurve.dBtoLinearConversion(0, ResponseCurve.Default), 400)
        compare(ResponseCurve.dBtoLinearConversion(11, ResponseCurve.Default), 521)
        compare(ResponseCurve.dBtoLinearConversion(0, ResponseCurve.GraphicsEq), 255)
        compare(ResponseCurve.linearTodBConversion(0, ResponseCurve.AmmWeight), -100)
    }
}
