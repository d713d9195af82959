import QtQuick 2.15
import QtTest 1.15
import Tarvix.Worksurface 1.0

// A QML handler may call any plugin API from any notification the plugin emits. First the
// freeze that was reported: a handler on Surface.isCalibratingChanged that calibrates hung
// the next Surface.connect() (the link told the surface of its Closed state with its own
// mutex held, and calibrating took that mutex again). Each step that could hang runs under
// the runner's watchdog, which fails the run instead of stalling it.
DrivenTestCase {
    id: testCase
    name: "Reentrancy"

    readonly property int timeout: 5000
    property bool calibrateOnChange: false
    property int calibratingChanges: 0

    SectionControl { id: sectionZero; connection: Surface.connection; sectionIndex: 0 }
    SectionControl { id: sectionOne; connection: Surface.connection; sectionIndex: 1 }
    SectionControl { id: sectionTwo; connection: Surface.connection; sectionIndex: 2 }

    Connections {
        target: Surface
        function onIsCalibratingChanged() {
            testCase.calibratingChanges++
            if (testCase.calibrateOnChange)
                Surface.calibrate()
        }
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

    // Builds a new software surface and waits until every section's link is up: each
    // section answers the first ping with a temperature no earlier build reported.
    property int nextTemperature: 100
    // 100..250, one no earlier build reported lately (a byte on the wire).
    function freshTemperature() {
        if (nextTemperature > 250 || nextTemperature < 100)
            nextTemperature = 100
        return nextTemperature++
    }
    function connectSoftware() {
        Surface.settings.type = SurfaceSettings.Software
        Surface.settings.mode = SurfaceSettings.K60
        var controls = [sectionZero, sectionOne, sectionTwo]
        for (var i = 0; i < 3; ++i) {
            controls[i].temperature = freshTemperature()
        }
        Surface.connect()
        for (var s = 0; s < Surface.sectionCount; ++s)
            tryCompare(Surface.section(s), "temperature", controls[s].temperature, timeout)
    }

    // A fader moved by hand still reaches a binding: the surface works.
    function verifyWorkingSurface(what) {
        var control = attached("FaderControl", "sectionIndex: 0; index: 5; type: FaderBinding.Fader")
        var binding = attached("FaderBinding", "sectionIndex: 0; index: 5; type: FaderBinding.Fader")
        var moved = spy(binding, "faderMoved")
        tryVerify(function () {
            control.moveByHand(moved.count % 2 === 0 ? 400 : 320)
            return moved.count > 0
        }, timeout, "a fader move arrives after " + what)
        control.destroy()
        binding.destroy()
    }

    function cleanup() {
        calibrateOnChange = false
        qmlWatchdog.disarm()
    }

    function test_calibrateFromIsCalibratingChangedThenConnect() {
        qmlWatchdog.arm("calibrate from isCalibratingChanged, then connect()", 30)
        connectSoftware()
        calibrateOnChange = true
        calibratingChanges = 0
        Surface.calibrate()
        // With the links on their own thread every report below comes a hop later.
        tryVerify(function () { return calibratingChanges > 0 }, timeout)
        // The handler's calibrate() was told from inside the report it handled: the state the
        // section shows is the latest, calibrating, as the surface says.
        tryCompare(Surface.section(0), "linkState", SectionInfoModel.Calibrating, timeout)
        tryVerify(function () { return sectionZero.calibrating }, timeout)
        // A section that ends its calibration is calibrated again at once by the handler:
        // the plugin's link is calibrating again, while the software section, which shows
        // its stop only after it has told the plugin, ends up showing the stop. With the
        // links on their own thread the plugin hears the stop after the section showed it,
        // so the section shows the new calibration instead.
        var changes = calibratingChanges
        sectionZero.stopCalibration()
        tryVerify(function () { return calibratingChanges > changes }, timeout)
        tryVerify(function () { return Surface.isCalibrating }, timeout)
        tryCompare(Surface.section(0), "linkState", SectionInfoModel.Calibrating, timeout)
        if (linkThreadRun)
            tryCompare(sectionZero, "calibrating", true, timeout)
        else
            compare(sectionZero.calibrating, false)
        // The reported freeze: the old surface's links close and tell the surface, whose
        // handler calibrates.
        Surface.connect()
        wait(50)
        calibrateOnChange = false
        connectSoftware()
        verifyWorkingSurface("connect() with a calibrating handler")
    }

    // --- The re-entrancy matrix ------------------------------------------------------------
    //
    // Generated, not hand-written: for every kind of object the plugin emits to QML, its
    // signals are read from the object itself (every function of it that has a connect()
    // is a signal), and each signal is crossed with every call back into the plugin that
    // makes sense for it. One cell: a fresh scene, a handler that makes its call on the
    // signal's first emission, the scene exercised until the signal came, and then a fader
    // move must still reach a binding, and no QML warning may have been printed. A signal the
    // exercise does not bring fails its cells, unless unreachable() names it with the reason.
    // The cells run in shards (reentrancyShard of reentrancyShards), each a ctest of its own.

    // The emitting kinds: the emitter (with the control or binding it pairs with) and the
    // properties it is made with. The master section of the three-section console is 2.
    function kinds() {
        return [
            { kind: "Surface" }, { kind: "SurfaceSettings" }, { kind: "SurfaceConnection" },
            { kind: "SectionInfoModel" }, { kind: "SectionControl" },
            { kind: "FaderBinding", partner: "FaderControl", props: "sectionIndex: 0; index: 1; type: FaderBinding.Fader" },
            { kind: "FaderControl", partner: "FaderBinding", props: "sectionIndex: 0; index: 1; type: FaderBinding.Fader" },
            { kind: "ButtonBinding", partner: "ButtonControl", props: "sectionIndex: 0; index: 2; type: ButtonBinding.Mute" },
            { kind: "ButtonControl", partner: "ButtonBinding", props: "sectionIndex: 0; index: 2; type: ButtonBinding.Mute" },
            { kind: "LedBinding", partner: "ButtonControl", props: "sectionIndex: 0; index: 2; type: LedBinding.MuteButton",
              partnerProps: "sectionIndex: 0; index: 2; type: ButtonBinding.Mute" },
            { kind: "RotaryBinding", partner: "RotaryControl", props: "sectionIndex: 0; index: 6; type: RotaryBinding.UnderScreen" },
            { kind: "RotaryControl", partner: "RotaryBinding", props: "sectionIndex: 0; index: 6; type: RotaryBinding.UnderScreen" },
            { kind: "RgbLedBinding", partner: "RgbLedControl", props: "sectionIndex: 2; type: RgbLedBinding.MainLogo" },
            { kind: "RgbLedControl", partner: "RgbLedBinding", props: "sectionIndex: 2; type: RgbLedBinding.MainLogo" },
            { kind: "PotBinding", partner: "PotControl", props: "sectionIndex: 2; type: PotBinding.Headphone" },
            { kind: "PotControl", partner: "PotBinding", props: "sectionIndex: 2; type: PotBinding.Headphone" },
            { kind: "MeterBinding", partner: "MeterControl", props: "sectionIndex: 2; type: MeterBinding.MasterLeft",
              partnerProps: "sectionIndex: 2; meterType: MeterBinding.MasterLeft" },
            { kind: "MeterControl", partner: "MeterBinding", props: "sectionIndex: 2; meterType: MeterBinding.MasterLeft",
              partnerProps: "sectionIndex: 2; type: MeterBinding.MasterLeft" },
            { kind: "GlobalSurfaceBinding" }, { kind: "FaderSettings" },
            // The value objects a binding carries: the emitter is the binding's own.
            { kind: "FaderLockInfo", type: "FaderBinding", sub: "lock", partner: "FaderControl",
              props: "sectionIndex: 0; index: 1; type: FaderBinding.Fader" },
            { kind: "FlashInfo", type: "LedBinding", sub: "flash", partner: "ButtonControl",
              props: "sectionIndex: 0; index: 2; type: LedBinding.MuteButton",
              partnerProps: "sectionIndex: 0; index: 2; type: ButtonBinding.Mute" }
        ]
    }

    function isBinding(kind) { return /Binding$/.test(kind) }
    function isControl(kind) { return /Control$/.test(kind) && kind !== "SectionControl" }

    // Builds the scene of one kind; `emitter` is the object whose signals are crossed.
    function makeScene(k) {
        var scene = { emitter: null, binding: null, control: null, made: [] }
        if (k.kind === "Surface") {
            scene.emitter = Surface
        } else if (k.kind === "SurfaceSettings") {
            scene.emitter = Surface.settings
        } else if (k.kind === "SurfaceConnection") {
            scene.emitter = Surface.connection
        } else if (k.kind === "SectionInfoModel") {
            scene.emitter = Surface.section(0)
        } else if (k.kind === "FaderSettings") {
            scene.emitter = Surface.faders
        } else if (k.kind === "GlobalSurfaceBinding") {
            scene.emitter = create("GlobalSurfaceBinding { connection: Surface.connection }")
            scene.made.push(scene.emitter)
        } else if (k.kind === "SectionControl") {
            // The section-0 control that plays the section (the first registered for it), so
            // that its faults and its bootloader act on the link.
            scene.emitter = sectionZero
        }
        if (k.partner) {
            var ownType = k.type ? k.type : k.kind
            var own = attached(ownType, k.props)
            var partner = attached(k.partner, k.partnerProps ? k.partnerProps : k.props)
            scene.made.push(own, partner)
            scene.emitter = k.sub ? own[k.sub] : own
            scene.binding = isBinding(ownType) ? own : partner
            scene.control = isControl(ownType) ? own : partner
        } else {
            // A bystander pair for the calls that write a binding or move a control.
            scene.control = attached("FaderControl", "sectionIndex: 0; index: 1; type: FaderBinding.Fader")
            scene.binding = attached("FaderBinding", "sectionIndex: 0; index: 1; type: FaderBinding.Fader")
            scene.made.push(scene.control, scene.binding)
        }
        return scene
    }

    function signalsOf(object) {
        var result = []
        for (var key in object) {
            var value
            try { value = object[key] } catch (e) { continue }
            if (typeof value !== "function" || value.connect === undefined
                    || key === "destroyed" || key === "objectNameChanged")
                continue
            // Methods have connect() too, but only a signal takes a connection.
            try {
                var probe = function () {}
                value.connect(probe)
                value.disconnect(probe)
                result.push(key)
            } catch (e) {}
        }
        return result.sort()
    }

    // Writes a different value into a property and back; read-only ones throw and are left.
    function wiggle(object, name) {
        if (!object || !(name in object))
            return
        try {
            var old = object[name]
            if (typeof old === "boolean")
                object[name] = !old
            else if (typeof old === "number") {
                // At the top of its range a value may be clamped back: then one lower.
                object[name] = old + 1
                if (object[name] === old)
                    object[name] = old - 1
            }
            else if (name === "color")
                object[name] = "#102030"
            else
                return
            object[name] = old
        } catch (e) {}
    }

    // The same for a text property: another text, then the old one back.
    function wiggleText(object, name, other) {
        if (!object || !(name in object))
            return
        var old = object[name]
        object[name] = old === other ? other + "/x" : other
        object[name] = old
    }

    function attempt(f) { try { f() } catch (e) {} }

    // Section 0 is updated from its bootloader (a 256-byte image) with the given status
    // answered to GetStatus, until the section runs its application again or `fired()`.
    function updateSectionZero(status, fired) {
        if (!qmlFirmware.write(256))
            return
        sectionZero.flashStatus = status
        sectionZero.versionMinor = sectionZero.versionMinor + 1
        sectionZero.bootloader = true
        Surface.connect()
        for (var t = 0; t < 100 && !fired(); ++t) {
            if (!sectionZero.bootloader && Surface.section(0).version === sectionZero.versionMinor)
                break
            wait(50)
        }
    }

    // Whatever the exercise or a handler left of section 0's faults ends here: an update that
    // was still running is let finish, and the section answers and is plugged in again.
    // A section switched off and on boots for 300 ms, hearing nothing.
    property bool powerCycled: false

    function settleFaults() {
        if (powerCycled) {
            wait(400)
            powerCycled = false
        }
        for (var t = 0; t < 100 && sectionZero.bootloader; ++t)
            wait(50)
        sectionZero.answering = true
        sectionZero.plugged = true
        sectionZero.bootloader = false
        sectionZero.flashStatus = 0x40
        sectionZero.nakCount = 0
        qmlFirmware.remove()
    }

    // Makes the scene emit: the section side reports, the application side writes, the
    // surface calibrates. Stops as soon as the signal under test has come.
    function exercise(scene, fired) {
        var steps = [
            function () {
                attempt(function () { scene.control.moveByHand(300) })
                // With the links on their own thread the move comes back a hop later.
                for (var t = 0; t < 10 && !fired(); ++t)
                    wait(10)
            },
            function () { attempt(function () { scene.control.rotate(1) }) },
            function () { wiggle(scene.control, "touched"); wiggle(scene.control, "pressed") },
            function () { attempt(function () { scene.control.pressed = true }); attempt(function () { scene.control.pressed = false }) },
            function () { attempt(function () { scene.control.position = 200 }) },
            function () { attempt(function () { scene.binding.value = -5 }); attempt(function () { scene.binding.on = true }) },
            function () { attempt(function () { scene.binding.color = "#ff0000" }); attempt(function () { scene.binding.level = 200; scene.binding.peak = 210 }) },
            function () { attempt(function () { scene.binding.flash.enabled = true; scene.binding.flash.interval = 100 }) },
            function () { attempt(function () { scene.binding.lock.enabled = true; scene.binding.lock.value = -10 }) },
            function () { ["detent", "backstop", "mode", "conversionMode", "scope", "brightness", "touchTarget"].forEach(function (n) { wiggle(scene.binding, n) }) },
            function () { ["active", "sectionIndex", "index", "type"].forEach(function (n) { wiggle(scene.binding, n); wiggle(scene.control, n) }) },
            function () { wiggle(scene.control, "meterType"); wiggle(scene.emitter, "temperature") },
            function () { Surface.calibrate() },
            function () { sectionZero.stopCalibration(); sectionOne.stopCalibration(); sectionTwo.stopCalibration() },
            function () { wiggle(Surface.faders, "restMode") },
            function () { wiggle(Surface.settings, "debugEnabled"); wiggle(Surface.settings, "mode"); wiggle(Surface.settings, "type"); wiggle(Surface.settings, "reconnectInterval"); wiggle(Surface.settings, "linkThread") },
            function () { wiggle(Surface.settings, "traceCapacity"); wiggle(Surface.settings, "updateTimeout"); wiggleText(Surface.settings, "traceDirectory", "/nonexistent/traces") },
            function () { ["surfaceBrightness", "surfaceOverBrightness", "restMode", "enabled", "value", "interval"].forEach(function (n) { wiggle(scene.emitter, n) }) },
            function () {
                // A touch target with the function a fader binding calls, set and cleared.
                // A QML signal is a method the binding can find by its C++ signature.
                var target = create("QtObject { signal onFaderTouched(bool touched) }")
                attempt(function () { scene.binding.touchTarget = target; scene.binding.touchTarget = null })
                target.destroy()
            },
            function () {
                // The button's LED, lit by a binding of its own: its brightness reaches the control.
                var led = attached("LedBinding", "sectionIndex: 0; index: 2; type: LedBinding.MuteButton")
                led.on = true
                wait(120)
                led.on = false
                wait(60)
                led.destroy()
            },
            function () { wait(60) },
            function () { sectionZero.temperature = freshTemperature(); Surface.connect() },
            function () { wait(120) },
            function () {
                faultsPlayed = true;
                ["answering", "bootloader", "flashStatus", "nakCount", "versionMajor", "versionMinor", "sectionIndex"].forEach(function (n) { wiggle(sectionZero, n) })
                // Out long enough for a link pass to see the line gone.
                sectionZero.plugged = false
                for (var t = 0; t < 10 && !fired(); ++t)
                    wait(30)
                sectionZero.plugged = true
            },
            function () { faultsPlayed = true; updateSectionZero(0x40, fired) },
            function () { faultsPlayed = true; updateSectionZero(0x44, fired) },
            // Hardware sections on devices this machine lacks: a port name and its error.
            function () {
                faultsPlayed = true
                Surface.settings.type = SurfaceSettings.Hardware
                Surface.connect()
                for (var t = 0; t < 20 && !fired(); ++t)
                    wait(50)
            }
        ]
        for (var i = 0; i < steps.length && !fired(); ++i)
            steps[i]()
    }

    // The signals the exercise cannot bring, each with the reason; any other signal that does
    // not come fails its cells.
    function unreachable() {
        return {
        }
    }

    // The calls a handler makes back into the plugin, by name.
    function actionsFor(kind) {
        var actions = ["connect", "calibrate", "settingsMode", "settingsType",
                       "writeValue", "writeActive", "writeSectionIndex", "writeIndex", "writeType",
                       "moveControl", "powerCycle"]
        if (isBinding(kind))
            actions.push("destroyEmitter")
        return actions
    }

    function act(action, scene) {
        var b = scene.binding
        switch (action) {
        case "connect": Surface.connect(); break
        case "calibrate": Surface.calibrate(); break
        case "settingsMode": Surface.settings.mode = SurfaceSettings.K40; break
        case "settingsType": Surface.settings.type = SurfaceSettings.Hardware; break
        case "writeValue":
            if ("value" in b) b.value = 5
            else if ("color" in b) b.color = "#00ff00"
            else if ("on" in b) b.on = !b.on
            else if ("level" in b) b.level = 180
            break
        case "writeActive": b.active = !b.active; break
        case "writeSectionIndex": b.sectionIndex = b.sectionIndex === 0 ? 1 : 0; break
        case "writeIndex": b.index = b.index + 1; break
        case "writeType": b.type = b.type + 1; break
        case "moveControl":
            scene.control.sectionIndex = scene.control.sectionIndex === 2 ? 1 : 2
            scene.control.index = scene.control.index + 1
            break
        case "powerCycle":
            // A section that boots misses whatever the link sends meanwhile (a probe, pings):
            // the scene starts over once it has booted.
            sectionZero.powerCycle()
            powerCycled = true
            faultsPlayed = true
            break
        case "destroyEmitter": scene.emitter.destroy(); break
        }
    }

    function test_matrix_data() {
        var rows = []
        connectSoftware()
        var all = kinds()
        for (var i = 0; i < all.length; ++i) {
            var scene = makeScene(all[i])
            var names = signalsOf(scene.emitter)
            for (var m = 0; m < scene.made.length; ++m)
                scene.made[m].destroy()
            var actions = actionsFor(all[i].kind)
            for (var s = 0; s < names.length; ++s)
                for (var a = 0; a < actions.length; ++a)
                    rows.push({ tag: all[i].kind + "." + names[s] + " -> " + actions[a],
                                index: i, signalName: names[s], action: actions[a] })
        }
        // Every n-th cell where the runner asks for it (emulated builds): the calls rotate
        // over the signals, so each signal still meets a call back.
        if (reentrancyStride > 1)
            rows = rows.filter(function (row, n) { return n % reentrancyStride === 0 })
        // This run's shard of the cells (every cell is in exactly one).
        return rows.filter(function (row, n) { return n % reentrancyShards === reentrancyShard })
    }

    property bool needsReconnect: true
    // Set once the exercise has reached section 0's faults.
    property bool faultsPlayed: false

    function test_matrix(data) {
        qmlWatchdog.arm(data.tag, 30)
        var warnings = qmlWarnings.count
        if (needsReconnect || Surface.settings.mode !== SurfaceSettings.K60
                || Surface.settings.type !== SurfaceSettings.Software) {
            connectSoftware()
            needsReconnect = false
        }
        var scene = makeScene(kinds()[data.index])
        var emitted = false, acted = false
        var handler = function () {
            if (emitted)
                return
            emitted = true
            act(data.action, scene)
            acted = true
        }
        scene.emitter[data.signalName].connect(handler)
        exercise(scene, function () { return emitted })
        attempt(function () { scene.emitter[data.signalName].disconnect(handler) })
        for (var m = 0; m < scene.made.length; ++m)
            attempt(function () { scene.made[m].destroy() })
        // A section that was unplugged (even if only for a moment) stays down without a
        // reconnect interval: the scene starts over.
        if (faultsPlayed || sectionZero.bootloader || !sectionZero.plugged
                || !sectionZero.answering || sectionZero.flashStatus !== 0x40) {
            settleFaults()
            faultsPlayed = false
            needsReconnect = true
        }
        if (!emitted) {
            needsReconnect = true
            var why = unreachable()[kinds()[data.index].kind + "." + data.signalName]
            // On real time (the ThreadSanitizer run, there for the threads' interleavings) a
            // signal may come after the exercise's bounded waits; the driven runs, where
            // the exercise's time is the plugin's, prove that every signal comes.
            if (why === undefined && !qmlClockDriven)
                why = "not emitted within the exercise's real-time waits"
            if (why === undefined)
                fail(data.signalName + " was not emitted by the exercise")
            skip(why)
        }
        verify(acted, "the handler returned")
        // The exercise and the handler may have changed the model or rebuilt the surface.
        if (data.action === "connect" || data.action.indexOf("settings") === 0)
            needsReconnect = true
        if (needsReconnect) {
            connectSoftware()
            needsReconnect = false
        }
        verifyWorkingSurface(data.tag)
        compare(qmlWarnings.count, warnings, "QML warnings while the cell ran")
    }
}
