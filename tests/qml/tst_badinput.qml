import QtQuick 2.15
import QtTest 1.15
import Tarvix.Worksurface 1.0

// What a careless or hostile QML scene can do to the module: connect() out of order or in a
// burst, bindings for sections that do not exist, and every property written with values
// far out of range. None of it may crash, throw into QML or wedge the surface: after each
// case a fader still makes the round trip from its binding to the software section and back.
DrivenTestCase {
    id: testCase
    name: "BadInput"

    readonly property int timeout: 5000
    property int nextTemperature: 100
    property bool connected: false
    property int writeCount: 0

    SectionControl { id: sectionZero; connection: Surface.connection; sectionIndex: 0 }
    SectionControl { id: sectionOne; connection: Surface.connection; sectionIndex: 1 }
    SectionControl { id: sectionTwo; connection: Surface.connection; sectionIndex: 2 }

    SignalSpy { id: surfaceSpy; target: Surface.connection; signalName: "surfaceChanged" }
    // The surface relays every state change of every section link as this signal.
    SignalSpy { id: linkStateSpy; target: Surface; signalName: "isCalibratingChanged" }

    function sectionControl(index) {
        return [sectionZero, sectionOne, sectionTwo][index]
    }

    // Gives every section control a temperature that no section reported before, so that
    // seeing it in Surface.section(i) proves the current surface's link answers.
    function freshTemperatures() {
        for (var i = 0; i < 3; ++i)
            sectionControl(i).temperature = nextTemperature++
    }

    function waitForLinks() {
        for (var s = 0; s < Surface.sectionCount; ++s)
            tryCompare(Surface.section(s), "temperature", sectionControl(s).temperature, timeout)
    }

    // A new software surface of that model, with every link up.
    function connectAs(mode) {
        Surface.settings.type = SurfaceSettings.Software
        Surface.settings.mode = mode
        freshTemperatures()
        surfaceSpy.clear()
        Surface.connect()
        waitForLinks()
        compare(surfaceSpy.count, 1)
        connected = true
    }

    function create(source) {
        var object = createTemporaryQmlObject("import QtQuick 2.15; import QtTest 1.15; "
                                              + "import Tarvix.Worksurface 1.0; " + source,
                                              testCase, "inline")
        verify(object !== null, source)
        return object
    }

    function attached(typeName, properties) {
        return create(typeName + " { connection: Surface.connection; active: true; "
                      + properties + " }")
    }

    function spy(target, signalName) {
        var result = create("SignalSpy {}")
        result.target = target
        result.signalName = signalName
        return result
    }

    // The module still works: a view's 0 dB drives a fader of the section to 400 and a move
    // by hand to 320 comes back as -5 dB.
    function checkFaderRoundTrip(section, index) {
        var properties = "sectionIndex: " + section + "; index: " + index
                + "; type: FaderBinding.Fader"
        var control = attached("FaderControl", properties)
        var binding = attached("FaderBinding", properties)
        var moved = spy(binding, "faderMoved")
        binding.value = 0
        tryCompare(control, "value", 400, timeout)
        control.moveByHand(320)
        tryCompare(moved, "count", 1, timeout)
        compare(moved.signalArguments[0][0], -5)
        control.destroy()
        binding.destroy()
    }

    // --- connect() ---------------------------------------------------------------------------

    // Sorted first among the tests, so it meets the service as a fresh application does.
    function test_beforeAnySettingConnectBuildsNoSurface() {
        compare(Surface.settings.mode, SurfaceSettings.Unknown, "a test before this one set a model")
        compare(Surface.settings.type, SurfaceSettings.Hardware)
        var control = attached("FaderControl", "sectionIndex: 0; index: 6; type: FaderBinding.Fader")
        var binding = attached("FaderBinding", "sectionIndex: 0; index: 6; type: FaderBinding.Fader")
        surfaceSpy.clear()
        linkStateSpy.clear()
        Surface.connect()
        // The second call waits for the first thread to end, so the first thread's start is
        // queued by now; the queued calls then run here.
        Surface.connect()
        wait(0)
        compare(surfaceSpy.count, 0)
        compare(linkStateSpy.count, 0)
        binding.value = 0
        Surface.calibrate()
        compare(Surface.isCalibrating, false)
        compare(Surface.sectionCount, 0)

        Surface.settings.type = SurfaceSettings.Software
        Surface.settings.mode = SurfaceSettings.K40
        freshTemperatures()
        Surface.connect()
        waitForLinks()
        verify(surfaceSpy.count >= 1)
        connected = true
        // The binding made before any surface existed takes the new one.
        tryCompare(control, "value", 400, timeout)
        compare(Surface.isCalibrating, false)
        compare(sectionZero.calibrating, false)
        checkFaderRoundTrip(1, 2)
    }

    function test_connectTenTimesInARowLeavesOneWorkingSurface() {
        Surface.settings.type = SurfaceSettings.Software
        Surface.settings.mode = SurfaceSettings.K60
        freshTemperatures()
        surfaceSpy.clear()
        for (var i = 0; i < 10; ++i)
            Surface.connect()
        tryCompare(surfaceSpy, "count", 10, timeout)
        waitForLinks()
        connected = true

        // Only the last surface hears the section: one move, one report.
        var control = attached("FaderControl", "sectionIndex: 2; index: 3; type: FaderBinding.Fader")
        var binding = attached("FaderBinding", "sectionIndex: 2; index: 3; type: FaderBinding.Fader")
        var moved = spy(binding, "faderMoved")
        control.moveByHand(400)
        tryCompare(moved, "count", 1, timeout)
        compare(moved.signalArguments[0][0], 0)
        checkFaderRoundTrip(0, 2)
        compare(moved.count, 1)
    }

    function test_connectTenTimesWhileTheModelChangesLeavesTheLastModel() {
        Surface.settings.type = SurfaceSettings.Software
        freshTemperatures()
        surfaceSpy.clear()
        for (var i = 0; i < 10; ++i) {
            Surface.settings.mode = i % 2 ? SurfaceSettings.K40 : SurfaceSettings.K60
            Surface.connect()
        }
        tryCompare(surfaceSpy, "count", 10, timeout)
        compare(Surface.sectionCount, 2)
        waitForLinks()
        connected = true

        // The third section of the K60 surfaces built on the way is gone: what its controls
        // send reaches nothing.
        var control = attached("FaderControl", "sectionIndex: 2; index: 3; type: FaderBinding.Fader")
        var binding = attached("FaderBinding", "sectionIndex: 2; index: 3; type: FaderBinding.Fader")
        var moved = spy(binding, "faderMoved")
        control.moveByHand(400)
        control.touched = true
        control.touched = false
        checkFaderRoundTrip(1, 3)
        compare(moved.count, 0)
    }

    // Without a model nothing is built: the surface in place is stopped with the thread and
    // started again (each of its two links closes, then opens), and stays installed.
    function connectWithoutModelRestartsTheOldSurface(mode) {
        surfaceSpy.clear()
        linkStateSpy.clear()
        Surface.settings.mode = mode
        compare(Surface.sectionCount, 0)
        compare(Surface.masterSectionIndex, 255)
        Surface.connect()
        tryCompare(linkStateSpy, "count", 4, timeout)
        compare(surfaceSpy.count, 0)
        Surface.calibrate()
        compare(Surface.isCalibrating, false)
    }

    function test_connectWithModeUnknownBuildsNothingAndALaterConnectRecovers() {
        connectAs(SurfaceSettings.K40)
        connectWithoutModelRestartsTheOldSurface(SurfaceSettings.Unknown)
        connectAs(SurfaceSettings.K60)
        compare(Surface.isCalibrating, false)
        checkFaderRoundTrip(2, 1)
    }

    function test_modelNumbersOutOfRangeBuildNothing_data() {
        return [{ tag: "77", mode: 77 }, { tag: "-1", mode: -1 }, { tag: "NaN", mode: NaN },
                { tag: "1e9", mode: 1e9 }]
    }

    function test_modelNumbersOutOfRangeBuildNothing(data) {
        if (data.tag === "NaN" && enumsRefuseNaN)
            skip("Qt 6's engine refuses a NaN for an enum property; the mode stays as it was")
        connectAs(SurfaceSettings.K40)
        connectWithoutModelRestartsTheOldSurface(data.mode)
        connectAs(SurfaceSettings.K40)
        checkFaderRoundTrip(0, 1)
    }

    function test_numbersAreKeptInEightBits() {
        // 257 and 258 are 1 and 2 in eight bits.
        Surface.settings.mode = 258
        compare(Surface.settings.mode, SurfaceSettings.K60)
        compare(Surface.sectionCount, 3)
        Surface.settings.type = 257
        compare(Surface.settings.type, SurfaceSettings.Software)
        Surface.settings.type = 256
        compare(Surface.settings.type, SurfaceSettings.Hardware)
        Surface.settings.type = SurfaceSettings.Software
        connectAs(SurfaceSettings.K40)
        checkFaderRoundTrip(1, 1)
    }

    function test_touchTargetWithoutTheHandlerIsRefused() {
        var binding = attached("FaderBinding", "sectionIndex: 0; index: 0; type: FaderBinding.Fader")
        ignoreWarning("FaderBinding: Touch target set but the object does not have function: "
                      + "void onFaderTouched(bool)")
        binding.touchTarget = testCase
        compare(binding.touchTarget, null)
        binding.touchTarget = null
        compare(binding.touchTarget, null)
    }

    function test_surfaceQueriesOutOfRangeGiveNothing() {
        compare(Surface.section(-1), null)
        compare(Surface.section(3), null)
        compare(Surface.section(255), null)
        compare(Surface.section(2147483647), null)
        compare(Surface.section(-2147483648), null)
        // NaN reads as 0 on the way in.
        verify(Surface.section(NaN) === Surface.section(0))
        Surface.faders.restMode = 7
        Surface.faders.restMode = -1
        Surface.faders.restMode = RestMode.ForceMinimum
        compare(Surface.faders.restMode, RestMode.ForceMinimum)
    }

    // --- Sections that do not exist ----------------------------------------------------------

    function test_bindingsForASectionThatDoesNotExistDoNothing_data() {
        return [{ tag: "section 5", section: 5 }, { tag: "third section of a K40", section: 2 }]
    }

    function test_bindingsForASectionThatDoesNotExistDoNothing(data) {
        connectAs(SurfaceSettings.K40)
        var section = "sectionIndex: " + data.section + "; "
        var fader = attached("FaderControl", section + "index: 0; type: FaderBinding.Fader")
        var faderBinding = attached("FaderBinding", section + "index: 0; type: FaderBinding.Fader")
        var button = attached("ButtonControl", section + "index: 0; type: ButtonBinding.Mute")
        var buttonBinding = attached("ButtonBinding", section + "index: 0; type: ButtonBinding.Mute")
        var led = attached("LedBinding", section + "index: 0; type: LedBinding.MuteButton")
        var rotary = attached("RotaryControl", section + "index: 0; type: RotaryBinding.UnderScreen")
        var rotaryBinding = attached("RotaryBinding",
                                     section + "index: 0; type: RotaryBinding.UnderScreen")
        var pot = attached("PotControl", section + "type: PotBinding.Headphone")
        var potBinding = attached("PotBinding", section + "type: PotBinding.Headphone")
        var meter = attached("MeterControl", section + "meterType: MeterBinding.MasterLeft")
        var meterBinding = attached("MeterBinding", section + "type: MeterBinding.MasterLeft")
        var logo = attached("RgbLedControl", section + "type: RgbLedBinding.NameLogo")
        var logoBinding = attached("RgbLedBinding", section + "type: RgbLedBinding.NameLogo")
        var sectionControl = create("SectionControl { connection: Surface.connection; "
                                    + section + "temperature: 33 }")
        var heard = [spy(faderBinding, "faderMoved"), spy(faderBinding, "faderTouched"),
                     spy(buttonBinding, "buttonPressed"), spy(rotaryBinding, "rotaryRotated"),
                     spy(rotaryBinding, "touchedChanged"), spy(potBinding, "potTurned")]
        for (var i = 0; i < heard.length; ++i)
            heard[i].clear()

        // Both ways at once, then a round trip on a real section after them.
        faderBinding.value = 0
        led.on = true
        rotaryBinding.color = "red"
        potBinding.color = "blue"
        meterBinding.level = 255
        logoBinding.color = "green"
        fader.moveByHand(400)
        fader.touched = true
        button.pressed = true
        rotary.rotate(5)
        rotary.touched = true
        pot.position = 300
        sectionControl.stopCalibration()
        checkFaderRoundTrip(0, 8)

        for (i = 0; i < heard.length; ++i)
            compare(heard[i].count, 0, heard[i].signalName)
        compare(fader.value, 400)
        compare(button.brightness, 0)
        compare(String(rotary.color), "#000000")
        compare(meter.value, 0)
        compare(String(logo.color), "#000000")
        compare(sectionControl.calibrating, false)
        compare(Surface.section(0).temperature, sectionZero.temperature)

        // Calibration reaches the real sections only; it ends there.
        Surface.calibrate()
        tryCompare(Surface, "isCalibrating", true, timeout)
        tryCompare(sectionZero, "calibrating", true, timeout)
        tryCompare(sectionOne, "calibrating", true, timeout)
        compare(sectionControl.calibrating, false)
        sectionZero.stopCalibration()
        sectionOne.stopCalibration()
        tryCompare(Surface, "isCalibrating", false, timeout)
    }

    // --- Every property, out of range --------------------------------------------------------

    // Numbers no property of the module takes as they are.
    readonly property var wildIntegers: [-1, 256, 65536, 1e9, -1e9, 2147483647, -2147483648,
                                         1e12, NaN, Infinity, -Infinity]
    readonly property var wildDecibels: [NaN, Infinity, -Infinity, 1e30, -1e30, 1e-30, -1e-30,
                                         11, -151, 3.4e38, -3.4e38, NaN]
    // Qt 6's engine refuses a NaN written to an enum property with a TypeError, and the
    // property keeps its value; Qt 5 takes the NaN as 0. Either leaves the module unharmed.
    readonly property bool enumsRefuseNaN: qtMajorVersion >= 6
    readonly property var wildEnums: [-1, 3, 13, 99, 256, 1e9, -1e9, NaN]
    readonly property var wildColours: ["transparent", "#00000000", "#80ff0000", "#ffffffff",
                                        Qt.rgba(0, 0, 0, 0), "black"]
    readonly property var wildBools: [true, false, 2, -1, NaN, "yes", ""]

    // Each row: an element, made active on the running surface, and what is written to it.
    // "calls" are invokable methods and their arguments.
    function test_outOfRangeWritesToEveryPropertyAreHarmless_data() {
        var common = { sectionIndex: wildIntegers, index: wildIntegers, active: wildBools }
        function withCommon(extra) {
            var all = {}
            for (var key in common)
                all[key] = common[key]
            for (key in extra)
                all[key] = extra[key]
            return all
        }
        return [
            { tag: "FaderBinding", type: "FaderBinding", source: "type: FaderBinding.Fader",
              writes: withCommon({ type: wildEnums, mode: wildEnums, conversionMode: wildEnums,
                                   value: wildDecibels, detent: wildDecibels,
                                   backstop: wildDecibels }),
              children: { lock: { enabled: wildBools, value: wildDecibels } } },
            { tag: "RotaryBinding", type: "RotaryBinding",
              source: "type: RotaryBinding.UnderScreen",
              writes: withCommon({ type: wildEnums, color: wildColours, scope: wildEnums }),
              children: { flash: { enabled: wildBools, interval: wildIntegers } } },
            { tag: "PotBinding", type: "PotBinding", source: "type: PotBinding.Headphone",
              writes: withCommon({ type: wildEnums, color: wildColours }) },
            { tag: "ButtonBinding", type: "ButtonBinding", source: "type: ButtonBinding.Mute",
              writes: withCommon({ type: wildEnums }) },
            { tag: "LedBinding", type: "LedBinding", source: "type: LedBinding.MuteButton",
              writes: withCommon({ type: wildEnums, on: wildBools, brightness: wildIntegers }),
              children: { flash: { enabled: wildBools, interval: wildIntegers } } },
            { tag: "RgbLedBinding", type: "RgbLedBinding", source: "type: RgbLedBinding.NameLogo",
              writes: withCommon({ type: wildEnums, color: wildColours }) },
            { tag: "MeterBinding", type: "MeterBinding", source: "type: MeterBinding.MasterLeft",
              writes: withCommon({ type: wildEnums, level: wildIntegers, peak: wildIntegers }) },
            { tag: "GlobalSurfaceBinding", type: "GlobalSurfaceBinding", plain: true, source: "",
              writes: { surfaceBrightness: wildIntegers, surfaceOverBrightness: wildIntegers } },
            { tag: "SectionControl", type: "SectionControl", plain: true, source: "",
              writes: { sectionIndex: wildIntegers, temperature: wildIntegers },
              calls: { stopCalibration: [[]] } },
            { tag: "ButtonControl", type: "ButtonControl", source: "type: ButtonBinding.Mute",
              writes: withCommon({ type: wildEnums, pressed: wildBools }) },
            { tag: "FaderControl", type: "FaderControl", source: "type: FaderBinding.Fader",
              writes: withCommon({ type: wildEnums, touched: wildBools }),
              calls: { moveByHand: wildIntegers.map(function (v) { return [v] }) } },
            { tag: "RotaryControl", type: "RotaryControl",
              source: "type: RotaryBinding.UnderScreen",
              writes: withCommon({ type: wildEnums, touched: wildBools, pressed: wildBools }),
              calls: { rotate: wildIntegers.concat([-129, 128, -128, 127])
                                           .map(function (v) { return [v] }) } },
            { tag: "PotControl", type: "PotControl", source: "type: PotBinding.Headphone",
              writes: withCommon({ type: wildEnums, position: wildIntegers }) },
            { tag: "RgbLedControl", type: "RgbLedControl", source: "type: RgbLedBinding.NameLogo",
              writes: withCommon({ type: wildEnums }) },
            { tag: "MeterControl", type: "MeterControl", source: "meterType: MeterBinding.MasterLeft",
              writes: withCommon({ meterType: wildEnums }) }
        ]
    }

    // Writes every value to every property in turn, then the same with the element's
    // connection taken away and given back; returns what QML threw.
    function abuse(object, data) {
        var thrown = []
        function write(target, name, values) {
            for (var i = 0; i < values.length; ++i) {
                ++writeCount
                try {
                    target[name] = values[i]
                } catch (error) {
                    // Only an enum property may refuse the NaN; any other write that
                    // throws is a finding.
                    if (!(enumsRefuseNaN && String(values) === String(wildEnums)
                          && isNaN(values[i])
                          && String(error).indexOf("Cannot assign double to") >= 0))
                        thrown.push(data.tag + "." + name + " = " + values[i] + ": " + error)
                }
            }
        }
        for (var pass = 0; pass < 2; ++pass) {
            var name
            for (name in data.writes)
                write(object, name, data.writes[name])
            for (var child in data.children) {
                for (name in data.children[child])
                    write(object[child], name, data.children[child][name])
            }
            for (var method in data.calls) {
                for (var i = 0; i < data.calls[method].length; ++i) {
                    ++writeCount
                    try {
                        object[method].apply(object, data.calls[method][i])
                    } catch (error) {
                        thrown.push(data.tag + "." + method + "(" + data.calls[method][i] + "): "
                                    + error)
                    }
                }
            }
            object.connection = null
            object.connection = Surface.connection
        }
        return thrown
    }

    function test_outOfRangeWritesToEveryPropertyAreHarmless(data) {
        if (!connected || Surface.settings.mode !== SurfaceSettings.K60)
            connectAs(SurfaceSettings.K60)
        var object = create(data.type + " { connection: Surface.connection; "
                            + (data.plain ? "" : "active: true; sectionIndex: 2; index: 0; ")
                            + data.source + " }")
        writeCount = 0
        compare(abuse(object, data), [])
        verify(writeCount >= 16, writeCount)

        // Whatever was kept is within what the element can hold.
        if (object.sectionIndex !== undefined) {
            verify(object.sectionIndex >= 0 && object.sectionIndex <= 255, object.sectionIndex)
        }
        if (object.index !== undefined)
            verify(object.index >= 0 && object.index <= 255, object.index)
        if (data.type === "LedBinding")
            verify(object.brightness >= 0 && object.brightness <= 255, object.brightness)
        if (data.type === "MeterBinding") {
            verify(object.level >= 135 && object.level <= 255, object.level)
            verify(object.peak >= 135 && object.peak <= 255, object.peak)
        }
        if (data.type === "GlobalSurfaceBinding") {
            verify(object.surfaceBrightness >= 0 && object.surfaceBrightness <= 255)
            verify(object.surfaceOverBrightness >= 0 && object.surfaceOverBrightness <= 255)
        }
        if (data.type === "PotControl")
            verify(object.position >= 0 && object.position <= 511, object.position)
        if (data.type === "FaderControl")
            verify(object.value >= 0 && object.value <= 511, object.value)
        if (data.type === "FaderBinding")
            verify(!isNaN(object.value), "a NaN dB value was taken")

        object.destroy()
        checkFaderRoundTrip(2, 9)
        checkFaderRoundTrip(0, 9)
    }
}
