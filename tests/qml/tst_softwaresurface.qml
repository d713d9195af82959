import QtQuick 2.15
import QtTest 1.15
import Tarvix.Worksurface 1.0

// The software surface end to end, as an application's QML scene plays it: Surface.connect()
// builds a software worksurface, software controls play its sections and bindings attach
// views to its controls. Every message crosses the real links: parser, dispatch, components,
// handles, outgoing queues, the 50 ms supervision pass and the real 5 ms task pool timer.
// Nothing here can reach a manual clock, so every check waits for its condition with a
// bounded time-out; each exchange takes a few task passes.
DrivenTestCase {
    id: testCase
    name: "SoftwareSurface"

    readonly property int timeout: 5000
    // Handed out by connectAs(): each build's sections report temperatures that no earlier
    // build reported, so seeing them proves that the new links answer.
    property int nextTemperature: 100

    // The sections' own microcontrollers: they answer pings and play calibration.
    SectionControl { id: sectionZero; connection: Surface.connection; sectionIndex: 0 }
    SectionControl { id: sectionOne; connection: Surface.connection; sectionIndex: 1 }
    SectionControl { id: sectionTwo; connection: Surface.connection; sectionIndex: 2 }

    SignalSpy { id: surfaceSpy; target: Surface.connection; signalName: "surfaceChanged" }

    function sectionControl(index) {
        return [sectionZero, sectionOne, sectionTwo][index]
    }

    function models() {
        return [
            { tag: "K40", mode: SurfaceSettings.K40, sections: 2, master: 1 },
            { tag: "K60", mode: SurfaceSettings.K60, sections: 3, master: 2 }
        ]
    }

    // Builds a new software surface of that model and waits until every section's link is
    // up: each section control answers the link's first ping with a temperature given here,
    // which the section's model then shows.
    function connectAs(mode, temperatures) {
        Surface.settings.type = SurfaceSettings.Software
        Surface.settings.mode = mode
        for (var i = 0; i < 3; ++i) {
            var temperature = temperatures ? temperatures[i] : nextTemperature++
            if (nextTemperature > 250)
                nextTemperature = 100
            sectionControl(i).temperature = temperature
        }
        surfaceSpy.clear()
        Surface.connect()
        for (var s = 0; s < Surface.sectionCount; ++s)
            tryCompare(Surface.section(s), "temperature", sectionControl(s).temperature, timeout)
        // One new surface, handed to the bindings once.
        compare(surfaceSpy.count, 1)
    }

    function create(source) {
        var object = createTemporaryQmlObject("import QtQuick 2.15; import QtTest 1.15; "
                                              + "import Tarvix.Worksurface 1.0; " + source,
                                              testCase, "inline")
        verify(object !== null, source)
        return object
    }

    // A software control or a binding, attached to the running surface and active.
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

    // For tryVerify: whether the control shows that colour ("#rrggbb") now.
    function colourIs(control, name) {
        return function () { return String(control.color) === name }
    }

    function cleanup() {
        // Later tests start from the rest mode a new surface has.
        Surface.faders.restMode = RestMode.ForceMinimum
    }

    // --- Faders ------------------------------------------------------------------------------

    function test_faderMovedByHandReachesItsBindingInDb_data() {
        return models()
    }

    function test_faderMovedByHandReachesItsBindingInDb(data) {
        connectAs(data.mode)
        var controls = [], moved = [], s, i
        for (s = 0; s < data.sections; ++s) {
            controls.push(attached("FaderControl",
                                   "sectionIndex: " + s + "; index: 1; type: FaderBinding.Fader"))
            moved.push(spy(attached("FaderBinding", "sectionIndex: " + s
                                    + "; index: 1; type: FaderBinding.Fader"), "faderMoved"))
        }
        var positions = [400, 320, 511, 0]
        var dB = [0, -5, 10, -150]
        for (i = 0; i < positions.length; ++i) {
            for (s = 0; s < data.sections; ++s)
                controls[s].moveByHand(positions[i])
            for (s = 0; s < data.sections; ++s) {
                tryCompare(moved[s], "count", i + 1, timeout)
                compare(moved[s].signalArguments[i][0], dB[i], "section " + s)
            }
        }
    }

    function test_masterFaderBindingIgnoresItsIndex_data() {
        return models()
    }

    function test_masterFaderBindingIgnoresItsIndex(data) {
        connectAs(data.mode)
        var control = attached("FaderControl", "sectionIndex: " + data.master
                               + "; type: FaderBinding.MasterFader")
        var binding = attached("FaderBinding", "sectionIndex: " + data.master
                               + "; index: 3; type: FaderBinding.MasterFader")
        var moved = spy(binding, "faderMoved")
        binding.value = -5
        tryCompare(control, "value", 320, timeout)
        control.moveByHand(400)
        tryCompare(moved, "count", 1, timeout)
        compare(moved.signalArguments[0][0], 0)
    }

    function test_faderTouchReachesItsBindingAndLiftsAgain_data() {
        return models()
    }

    function test_faderTouchReachesItsBindingAndLiftsAgain(data) {
        connectAs(data.mode)
        var controls = [], bindings = [], touches = [], s
        for (s = 0; s < data.sections; ++s) {
            controls.push(attached("FaderControl",
                                   "sectionIndex: " + s + "; index: 9; type: FaderBinding.Fader"))
            bindings.push(attached("FaderBinding",
                                   "sectionIndex: " + s + "; index: 9; type: FaderBinding.Fader"))
            touches.push(spy(bindings[s], "faderTouched"))
        }
        for (s = 0; s < data.sections; ++s)
            controls[s].touched = true
        for (s = 0; s < data.sections; ++s) {
            tryCompare(touches[s], "count", 1, timeout)
            compare(touches[s].signalArguments[0][0], true)
            compare(bindings[s].touched, true)
        }
        for (s = 0; s < data.sections; ++s)
            controls[s].touched = false
        for (s = 0; s < data.sections; ++s) {
            tryCompare(touches[s], "count", 2, timeout)
            compare(touches[s].signalArguments[1][0], false)
            compare(bindings[s].touched, false)
        }
    }

    function test_bindingValueDrivesTheFaderControl_data() {
        return models()
    }

    function test_bindingValueDrivesTheFaderControl(data) {
        connectAs(data.mode)
        var controls = [], bindings = [], values = [], s, i
        for (s = 0; s < data.sections; ++s) {
            controls.push(attached("FaderControl",
                                   "sectionIndex: " + s + "; index: 4; type: FaderBinding.Fader"))
            bindings.push(attached("FaderBinding",
                                   "sectionIndex: " + s + "; index: 4; type: FaderBinding.Fader"))
            values.push(spy(controls[s], "valueChanged"))
        }
        var dB = [0, -5, 10]
        var positions = [400, 320, 511]
        for (i = 0; i < dB.length; ++i) {
            for (s = 0; s < data.sections; ++s)
                bindings[s].value = dB[i]
            for (s = 0; s < data.sections; ++s) {
                tryCompare(controls[s], "value", positions[i], timeout)
                // Straight to the position: one message, no steps on the way.
                compare(values[s].count, i + 1, "section " + s)
            }
        }
    }

    function test_positionWrittenWhileTouchedArrivesWhenTheFingerLifts_data() {
        return models()
    }

    function test_positionWrittenWhileTouchedArrivesWhenTheFingerLifts(data) {
        connectAs(data.mode)
        var held = attached("FaderControl", "sectionIndex: 0; index: 2; type: FaderBinding.Fader")
        var heldBinding = attached("FaderBinding", "sectionIndex: 0; index: 2; type: FaderBinding.Fader")
        var free = attached("FaderControl", "sectionIndex: 0; index: 3; type: FaderBinding.Fader")
        var freeBinding = attached("FaderBinding", "sectionIndex: 0; index: 3; type: FaderBinding.Fader")
        var touches = spy(heldBinding, "faderTouched")
        held.touched = true
        tryCompare(touches, "count", 1, timeout)

        heldBinding.value = 0
        freeBinding.value = 0
        // The untouched fader's position went out after the held one was written, through the
        // same queue: had the held one gone out, it would be there by now.
        tryCompare(free, "value", 400, timeout)
        compare(held.value, 0)

        held.touched = false
        tryCompare(held, "value", 400, timeout)
    }

    // --- Buttons, rotaries, lights, meters, the pot ------------------------------------------

    function test_buttonPressesReachTheButtonBinding_data() {
        return models()
    }

    function test_buttonPressesReachTheButtonBinding(data) {
        connectAs(data.mode)
        var buttons = []
        for (var s = 0; s < data.sections; ++s) {
            buttons.push({ section: s, properties: "index: 2; type: ButtonBinding.Mute" })
            buttons.push({ section: s, properties: "index: 7; type: ButtonBinding.Solo" })
        }
        buttons.push({ section: data.master, properties: "type: ButtonBinding.MasterMute" })
        buttons.push({ section: data.master, properties: "type: ButtonBinding.NextSnapsthot" })
        buttons.push({ section: data.master, properties: "type: ButtonBinding.LayerDown" })
        buttons.push({ section: data.master, properties: "type: ButtonBinding.Overview" })

        var controls = [], pressed = [], released = [], i
        for (i = 0; i < buttons.length; ++i) {
            var properties = "sectionIndex: " + buttons[i].section + "; " + buttons[i].properties
            controls.push(attached("ButtonControl", properties))
            var binding = attached("ButtonBinding", properties)
            pressed.push(spy(binding, "buttonPressed"))
            released.push(spy(binding, "buttonReleased"))
        }
        for (i = 0; i < buttons.length; ++i)
            controls[i].pressed = true
        for (i = 0; i < buttons.length; ++i) {
            tryCompare(pressed[i], "count", 1, timeout)
            compare(released[i].count, 0, buttons[i].properties)
        }
        for (i = 0; i < buttons.length; ++i)
            controls[i].pressed = false
        for (i = 0; i < buttons.length; ++i) {
            tryCompare(released[i], "count", 1, timeout)
            compare(pressed[i].count, 1, buttons[i].properties)
        }
    }

    function test_rotaryStepsTouchesAndPressesReachTheRotaryBinding_data() {
        return models()
    }

    function test_rotaryStepsTouchesAndPressesReachTheRotaryBinding(data) {
        connectAs(data.mode)
        var rotaries = []
        for (var s = 0; s < data.sections; ++s)
            rotaries.push("sectionIndex: " + s + "; index: 4; type: RotaryBinding.UnderScreen")
        rotaries.push("sectionIndex: " + data.master + "; index: 5; type: RotaryBinding.SideRotary")

        var controls = [], bindings = [], rotated = [], i
        for (i = 0; i < rotaries.length; ++i) {
            controls.push(attached("RotaryControl", rotaries[i]))
            bindings.push(attached("RotaryBinding", rotaries[i]))
            rotated.push(spy(bindings[i], "rotaryRotated"))
        }
        for (i = 0; i < rotaries.length; ++i) {
            controls[i].rotate(-3)
            controls[i].rotate(127)
            controls[i].touched = true
            controls[i].pressed = true
        }
        for (i = 0; i < rotaries.length; ++i) {
            tryCompare(rotated[i], "count", 2, timeout)
            compare(rotated[i].signalArguments[0][0], -3, rotaries[i])
            compare(rotated[i].signalArguments[1][0], 127, rotaries[i])
            tryCompare(bindings[i], "touched", true, timeout)
            tryCompare(bindings[i], "pressed", true, timeout)
        }
        for (i = 0; i < rotaries.length; ++i) {
            controls[i].pressed = false
            controls[i].touched = false
        }
        for (i = 0; i < rotaries.length; ++i) {
            tryCompare(bindings[i], "pressed", false, timeout)
            tryCompare(bindings[i], "touched", false, timeout)
        }
    }

    function test_ringColourReachesTheRotaryControlAndGoesDarkWhenReleased_data() {
        return models()
    }

    function test_ringColourReachesTheRotaryControlAndGoesDarkWhenReleased(data) {
        connectAs(data.mode)
        var controls = [], bindings = [], s
        for (s = 0; s < data.sections; ++s) {
            var properties = "sectionIndex: " + s + "; index: 6; type: RotaryBinding.UnderScreen"
            controls.push(attached("RotaryControl", properties))
            bindings.push(attached("RotaryBinding", properties))
        }
        var colours = ["#ff8000", "#0020ff"]
        for (var i = 0; i < colours.length; ++i) {
            for (s = 0; s < data.sections; ++s)
                bindings[s].color = colours[i]
            for (s = 0; s < data.sections; ++s)
                tryVerify(colourIs(controls[s], colours[i]), timeout, "ring of section " + s)
        }
        // An inactive binding lets go of the rotary, whose ring goes dark.
        for (s = 0; s < data.sections; ++s)
            bindings[s].active = false
        for (s = 0; s < data.sections; ++s)
            tryVerify(colourIs(controls[s], "#000000"), timeout, "ring of section " + s)
    }

    function test_rgbLedColourReachesTheRgbLedControl_data() {
        return models()
    }

    function test_rgbLedColourReachesTheRgbLedControl(data) {
        connectAs(data.mode)
        var logos = ["NameLogo", "MainLogo", "SnapshotLogo", "DashboardLogo", "OverviewLogo"]
        var controls = [], bindings = [], i
        for (i = 0; i < logos.length; ++i) {
            var properties = "sectionIndex: " + data.master + "; type: RgbLedBinding." + logos[i]
            controls.push(attached("RgbLedControl", properties))
            bindings.push(attached("RgbLedBinding", properties + "; color: \"#12ab34\""))
        }
        for (i = 0; i < logos.length; ++i)
            tryVerify(colourIs(controls[i], "#12ab34"), timeout, logos[i])
        for (i = 0; i < logos.length; ++i)
            bindings[i].color = "white"
        for (i = 0; i < logos.length; ++i)
            tryVerify(colourIs(controls[i], "#ffffff"), timeout, logos[i])
        // Released, the lights turn black.
        for (i = 0; i < logos.length; ++i)
            bindings[i].destroy()
        for (i = 0; i < logos.length; ++i)
            tryVerify(colourIs(controls[i], "#000000"), timeout, logos[i])
    }

    function test_ledDrivesTheButtonControlBrightness_data() {
        return models()
    }

    function test_ledDrivesTheButtonControlBrightness(data) {
        connectAs(data.mode)
        var pairs = []
        for (var s = 0; s < data.sections; ++s) {
            pairs.push({ button: "sectionIndex: " + s + "; index: 2; type: ButtonBinding.Mute",
                         led: "sectionIndex: " + s + "; index: 2; type: LedBinding.MuteButton" })
            pairs.push({ button: "sectionIndex: " + s + "; index: 5; type: ButtonBinding.Solo",
                         led: "sectionIndex: " + s + "; index: 5; type: LedBinding.SoloButton" })
        }
        pairs.push({ button: "sectionIndex: " + data.master + "; type: ButtonBinding.MasterMute",
                     led: "sectionIndex: " + data.master + "; type: LedBinding.MasterMuteButton" })

        var controls = [], bindings = [], i
        for (i = 0; i < pairs.length; ++i) {
            controls.push(attached("ButtonControl", pairs[i].button))
            bindings.push(attached("LedBinding", pairs[i].led))
        }
        // Each step: what the binding is told, and the level the button then shows.
        var steps = [
            { write: function (led) { led.on = true }, level: 255 },
            { write: function (led) { led.brightness = 100 }, level: 100 },
            { write: function (led) { led.on = false }, level: 0 },
            { write: function (led) { led.on = true }, level: 100 }
        ]
        for (var step = 0; step < steps.length; ++step) {
            for (i = 0; i < pairs.length; ++i)
                steps[step].write(bindings[i])
            for (i = 0; i < pairs.length; ++i)
                tryCompare(controls[i], "brightness", steps[step].level, timeout, pairs[i].led)
        }
    }

    function test_flashingLedTogglesTheButtonControl() {
        connectAs(SurfaceSettings.K60)
        var control = attached("ButtonControl", "sectionIndex: 1; index: 8; type: ButtonBinding.Mute")
        var binding = attached("LedBinding", "sectionIndex: 1; index: 8; type: LedBinding.MuteButton; "
                               + "brightness: 180")
        binding.on = true
        tryCompare(control, "brightness", 180, timeout)
        var levels = spy(control, "brightnessChanged")
        // Every 150 ms between dark and lit (each step leaves 100 ms after it is made).
        binding.flash.interval = 300
        binding.flash.enabled = true
        tryCompare(control, "brightness", 0, timeout)
        tryCompare(control, "brightness", 180, timeout)
        tryCompare(control, "brightness", 0, timeout)
        binding.flash.enabled = false
        var toggles = levels.count
        verify(toggles >= 3, toggles)
        // Steady again once the state is written anew.
        binding.on = false
        binding.on = true
        tryCompare(control, "brightness", 180, timeout)
    }

    function test_meterLevelAndPeakReachTheMeterControl_data() {
        return models()
    }

    function test_meterLevelAndPeakReachTheMeterControl(data) {
        connectAs(data.mode)
        var left = attached("MeterControl", "sectionIndex: " + data.master
                            + "; meterType: MeterBinding.MasterLeft")
        var right = attached("MeterControl", "sectionIndex: " + data.master
                             + "; meterType: MeterBinding.MasterRight")
        var leftBinding = attached("MeterBinding", "sectionIndex: " + data.master
                                   + "; type: MeterBinding.MasterLeft")
        var rightBinding = attached("MeterBinding", "sectionIndex: " + data.master
                                    + "; type: MeterBinding.MasterRight")
        leftBinding.level = 255
        leftBinding.peak = 200
        rightBinding.level = 140
        rightBinding.peak = 255
        tryCompare(left, "value", 24, timeout)
        tryCompare(left, "peak", 13, timeout)
        tryCompare(right, "value", 1, timeout)
        tryCompare(right, "peak", 24, timeout)
        // The floor: anything up to 135 is the bottom of the scale.
        leftBinding.level = 20
        rightBinding.peak = -1000
        tryCompare(left, "value", 0, timeout)
        tryCompare(right, "peak", 0, timeout)
        compare(left.peak, 13)
        compare(right.value, 1)
    }

    function test_potPositionReachesThePotBinding_data() {
        return models()
    }

    function test_potPositionReachesThePotBinding(data) {
        connectAs(data.mode)
        var properties = "sectionIndex: " + data.master + "; type: PotBinding.Headphone"
        var control = attached("PotControl", properties)
        var binding = attached("PotBinding", properties)
        var turned = spy(binding, "potTurned")

        function lastTurn() {
            return turned.count > 0 ? turned.signalArguments[turned.count - 1] : [NaN, NaN]
        }

        control.position = 511
        tryVerify(function () { return lastTurn()[0] === 11 }, timeout)
        compare(lastTurn()[1], 1)
        control.position = 400
        tryVerify(function () { return lastTurn()[0] === 0 }, timeout)
        fuzzyCompare(lastTurn()[1], 400 / 511, 1e-6)
        control.position = 100
        tryVerify(function () { return lastTurn()[0] === -35 }, timeout)

        binding.color = "#00ff00"
        tryVerify(colourIs(control, "#00ff00"), timeout)
    }

    // --- Sections ----------------------------------------------------------------------------

    function test_sectionTemperatureAndVersionReachTheSectionModel_data() {
        return models()
    }

    function test_sectionTemperatureAndVersionReachTheSectionModel(data) {
        connectAs(data.mode, [40, 41, 42])
        for (var s = 0; s < data.sections; ++s) {
            compare(Surface.section(s).temperature, 40 + s)
            compare(Surface.section(s).version, 34)
        }
    }

    function test_calibrationRunsFromTheSurfaceToEverySectionAndBack_data() {
        return models()
    }

    function test_calibrationRunsFromTheSurfaceToEverySectionAndBack(data) {
        connectAs(data.mode)
        compare(Surface.isCalibrating, false)
        Surface.calibrate()
        for (var s = 0; s < data.sections; ++s)
            tryCompare(sectionControl(s), "calibrating", true, timeout)
        tryCompare(Surface, "isCalibrating", true, timeout)
        if (data.sections < 3)
            compare(sectionTwo.calibrating, false)

        // The surface calibrates while any section still does.
        for (s = 0; s < data.sections - 1; ++s) {
            sectionControl(s).stopCalibration()
            compare(sectionControl(s).calibrating, false)
            compare(Surface.isCalibrating, true)
        }
        sectionControl(data.sections - 1).stopCalibration()
        tryCompare(Surface, "isCalibrating", false, timeout)

        // Back to normal: the links carry messages again.
        var control = attached("FaderControl", "sectionIndex: 0; index: 5; type: FaderBinding.Fader")
        var binding = attached("FaderBinding", "sectionIndex: 0; index: 5; type: FaderBinding.Fader")
        binding.value = 0
        tryCompare(control, "value", 400, timeout)
    }

    // --- Fader rest mode ---------------------------------------------------------------------

    function test_restModeChangedAfterConnectReachesEveryFader_data() {
        return models()
    }

    function test_restModeChangedAfterConnectReachesEveryFader(data) {
        connectAs(data.mode)
        var faders = []
        for (var s = 0; s < data.sections; ++s)
            faders.push(attached("FaderControl",
                                 "sectionIndex: " + s + "; index: 7; type: FaderBinding.Fader"))
        faders.push(attached("FaderControl", "sectionIndex: " + data.master
                             + "; type: FaderBinding.MasterFader"))
        var i
        // A new surface parks unbound faders at the bottom.
        for (i = 0; i < faders.length; ++i)
            faders[i].moveByHand(300)
        for (i = 0; i < faders.length; ++i)
            tryCompare(faders[i], "value", 0, timeout)

        // A flashing light on every section is the clock: it toggles every 200 ms, on the
        // same task pool, and its frames leave on the same links as a parking would. A flash
        // step's level waits 100 ms in the link's queue and a newer step replaces a level
        // still waiting there, so the half interval is kept well above 100 ms: at 100 ms most
        // levels would be replaced before the link's 50 ms pass took them out.
        var lights = []
        for (s = 0; s < data.sections; ++s) {
            var button = attached("ButtonControl",
                                  "sectionIndex: " + s + "; index: 2; type: ButtonBinding.Mute")
            var led = attached("LedBinding", "sectionIndex: " + s
                               + "; index: 2; type: LedBinding.MuteButton; brightness: 180")
            led.on = true
            tryCompare(button, "brightness", 180, timeout)
            lights.push({ led: led, changes: spy(button, "brightnessChanged") })
        }

        for (i = 0; i < lights.length; ++i) {
            lights[i].led.flash.interval = 400
            lights[i].led.flash.enabled = true
        }
        // A parked fader that still reads 300 is parked again on every pass until the new
        // mode is in: two toggles of every light (400 ms and more, several passes) let the
        // last of those frames reach the controls before the faders are moved again.
        Surface.faders.restMode = RestMode.KeepCurrent
        for (i = 0; i < lights.length; ++i) {
            tryVerify(function () { return lights[i].changes.count >= 2 }, timeout,
                      "light of section " + i)
        }
        var before = []
        for (i = 0; i < lights.length; ++i)
            before.push(lights[i].changes.count)
        for (i = 0; i < faders.length; ++i)
            faders[i].moveByHand(300)
        // Parking would be decided 150 ms after the move, on the next 50 ms pass. The fifth
        // toggle of a light after the moves is decided 1,000 ms or more after them, so a
        // parking frame would have reached that section's faders before it.
        for (i = 0; i < lights.length; ++i) {
            tryVerify(function () { return lights[i].changes.count >= before[i] + 5 }, timeout,
                      "light of section " + i)
        }
        for (i = 0; i < faders.length; ++i)
            compare(faders[i].value, 300, "fader " + i)
        for (i = 0; i < lights.length; ++i)
            lights[i].led.flash.enabled = false

        Surface.faders.restMode = RestMode.ForceMinimum
        for (i = 0; i < faders.length; ++i)
            tryCompare(faders[i], "value", 0, timeout)
    }

    function test_restModeSetBeforeConnectIsNotGivenToTheNewSurface() {
        Surface.faders.restMode = RestMode.KeepCurrent
        connectAs(SurfaceSettings.K40)
        compare(Surface.faders.restMode, RestMode.KeepCurrent)
        var control = attached("FaderControl", "sectionIndex: 0; index: 7; type: FaderBinding.Fader")
        control.moveByHand(300)
        // The new surface's faders start at ForceMinimum whatever the setting says.
        tryCompare(control, "value", 0, timeout)
    }

    // --- Rebinding ---------------------------------------------------------------------------

    function test_bindingsFollowEachNewSurface_data() {
        return models()
    }

    function test_bindingsFollowEachNewSurface(data) {
        connectAs(data.mode)
        var control = attached("FaderControl", "sectionIndex: " + data.master
                               + "; index: 1; type: FaderBinding.Fader")
        var binding = attached("FaderBinding", "sectionIndex: " + data.master
                               + "; index: 1; type: FaderBinding.Fader")
        var moved = spy(binding, "faderMoved")
        binding.value = 0
        tryCompare(control, "value", 400, timeout)
        control.moveByHand(100)

        connectAs(data.mode)
        // The binding took the new surface's fader and drove it where the view wants it.
        tryCompare(control, "value", 400, timeout)
        moved.clear()
        control.moveByHand(320)
        tryCompare(moved, "count", 1, timeout)
        compare(moved.signalArguments[0][0], -5)
    }

    function test_bindingForTheThirdSectionBindsWhenTheModelGrows() {
        connectAs(SurfaceSettings.K40)
        var control = attached("FaderControl", "sectionIndex: 2; index: 0; type: FaderBinding.Fader")
        var binding = attached("FaderBinding", "sectionIndex: 2; index: 0; type: FaderBinding.Fader")
        var moved = spy(binding, "faderMoved")
        binding.value = 0
        control.moveByHand(200)
        compare(control.value, 200)

        connectAs(SurfaceSettings.K60)
        // Bound now: the binding sends its position to the new third section.
        tryCompare(control, "value", 400, timeout)
        compare(moved.count, 0)
        control.moveByHand(320)
        tryCompare(moved, "count", 1, timeout)
        compare(moved.signalArguments[0][0], -5)
    }
}
