import QtQuick 2.15
import Tarvix.Worksurface 1.0

// The scripted tour: one action per kind of control, in both directions, each crossing the
// plugin's real frames, queue and parser. A step acts, then polls on the running event loop
// until what it sent has arrived on the other side or its time-out has passed, and prints
//   step N <name>: sent <what> -> got <what> [ok|FAILED]
// ending with "walkthrough: N passed, M failed".
Item {
    id: tour

    property var consolePanel
    property var worksurfacePanel
    property var globalBinding
    property bool running: false
    property int timeoutMs: 3000

    property int passed: 0
    property int failed: 0
    property int skipped: 0
    property string status: ""

    signal finished()

    property var steps: []
    property int current: -1
    property var ctx: ({})
    property double deadline: 0

    onRunningChanged: if (running && current < 0) begin()

    Timer {
        id: poll
        interval: 20
        repeat: true
        onTriggered: tour.check()
    }
    Timer {
        id: next
        interval: 60
        onTriggered: tour.start(tour.current + 1)
    }

    function say(line) {
        status = line
        demoHost.print(line)
    }
    function db(v) {
        return v <= -150 ? "-inf" : Number(v).toFixed(2)
    }
    function hex(n) {
        var s = Number(n).toString(16)
        return s.length < 2 ? "0" + s : s
    }
    function u16(n) {
        return hex((n >> 8) & 0xff) + " " + hex(n & 0xff)
    }
    function near(a, b) {
        return a !== undefined && Math.abs(a - b) < 0.001
    }
    // Connects a handler for the rest of the current step.
    function listen(signal, handler) {
        signal.connect(handler)
        ctx.listeners.push({ signal: signal, handler: handler })
    }

    function begin() {
        steps = makeSteps()
        passed = 0
        failed = 0
        skipped = 0
        start(0)
    }

    function start(i) {
        current = i
        if (i >= steps.length) {
            say("walkthrough: " + passed + " passed, " + failed + " failed"
                + (skipped > 0 ? ", " + skipped + " skipped" : ""))
            finished()
            return
        }
        ctx = { listeners: [] }
        var step = steps[i]
        ctx.sent = step.act(ctx)
        if (step.skip !== undefined) {
            skipped += 1
            say("step " + (i + 1) + " " + step.name + ": sent " + ctx.sent + " -> " + step.skip
                + " [skipped]")
            next.start()
            return
        }
        deadline = Date.now() + (step.timeout !== undefined ? step.timeout : timeoutMs)
        poll.start()
        check()
    }

    function check() {
        if (!poll.running)
            return
        var step = steps[current]
        var result = step.check(ctx)
        var late = Date.now() > deadline
        if (!result.ok && !late)
            return
        poll.stop()
        if (result.ok)
            passed += 1
        else
            failed += 1
        say("step " + (current + 1) + " " + step.name + ": sent " + ctx.sent + " -> got "
            + result.got + (result.ok ? " [ok]"
                                      : " after " + (step.timeout || timeoutMs) + " ms [FAILED]"))
        for (var k = 0; k < ctx.listeners.length; ++k)
            ctx.listeners[k].signal.disconnect(ctx.listeners[k].handler)
        if (step.cleanup !== undefined)
            step.cleanup(ctx)
        next.start()
    }

    function makeSteps() {
        var C = consolePanel
        var W = worksurfacePanel
        var m = Surface.masterSectionIndex
        return [
        {
            name: "link",
            timeout: 5000,
            act: function (c) {
                return "Surface.connect() for " + Surface.sectionCount + " software sections"
            },
            check: function (c) {
                var got = []
                var ok = Surface.sectionCount > 0
                for (var s = 0; s < Surface.sectionCount; ++s) {
                    var info = Surface.section(s)
                    ok = ok && info.version > 0 && info.linkState === SectionInfoModel.Connected
                         && info.portName === "" && info.portError === ""
                    got.push("section " + s + " v" + info.version + " " + info.temperature + " C"
                             + " linkState " + info.linkState)
                }
                return { ok: ok, got: "ping answers, links Connected (0): " + got.join(", ") }
            }
        },
        {
            name: "fader (console -> worksurface)",
            act: function (c) {
                c.expect = ResponseCurve.dBtoLinearConversion(-10, ResponseCurve.Default)
                C.strip(0, 0).dB = -10
                return "FaderBinding.value = -10 dB (type 7, " + u16(c.expect) + ")"
            },
            check: function (c) {
                var v = W.strip(0, 0).fader.value
                return { ok: v === c.expect, got: "FaderControl.value = " + v }
            }
        },
        {
            name: "fader by hand (worksurface -> console)",
            act: function (c) {
                c.expect = ResponseCurve.linearTodBConversion(300, ResponseCurve.Default)
                listen(C.strip(0, 1).fader.faderMoved, function (value) { c.moved = value })
                W.strip(0, 1).fader.moveByHand(300)
                return "FaderControl.moveByHand(300) (type 7, " + u16(300) + ")"
            },
            check: function (c) {
                return { ok: near(c.moved, c.expect),
                         got: "faderMoved(" + (c.moved === undefined ? "none" : db(c.moved) + " dB")
                              + "), console reads " + db(C.strip(0, 1).dB) + " dB" }
            }
        },
        {
            name: "fader detent",
            act: function (c) {
                listen(C.strip(0, 5).fader.faderMoved, function (value) { c.moved = value })
                W.strip(0, 5).fader.moveByHand(399)
                return "FaderControl.moveByHand(399) next to the 0 dB detent (400)"
            },
            check: function (c) {
                return { ok: c.moved === 0,
                         got: "faderMoved(" + (c.moved === undefined ? "none" : db(c.moved) + " dB")
                              + "), snapped to the detent" }
            }
        },
        {
            name: "fader touch (worksurface -> console)",
            act: function (c) {
                W.strip(0, 2).fader.touched = true
                return "FaderControl.touched = true (type 16, 01)"
            },
            check: function (c) {
                var t = C.strip(0, 2).fader.touched
                return { ok: t === true, got: "FaderBinding.touched = " + t }
            },
            cleanup: function (c) { W.strip(0, 2).fader.touched = false }
        },
        {
            name: "fader lock (console -> worksurface)",
            act: function (c) {
                var f = C.strip(0, 6).fader
                c.expect = ResponseCurve.dBtoLinearConversion(-30, ResponseCurve.Default)
                f.lock.value = -30
                f.lock.enabled = true
                return "FaderBinding.lock at -30 dB on a fader at " + db(C.strip(0, 6).dB) + " dB"
            },
            check: function (c) {
                var v = W.strip(0, 6).fader.value
                return { ok: v === c.expect, got: "FaderControl.value = " + v + " (held at the lock)" }
            }
        },
        {
            name: "fader hand move while locked",
            act: function (c) {
                c.expect = ResponseCurve.dBtoLinearConversion(-30, ResponseCurve.Default)
                c.moves = 0
                listen(C.strip(0, 6).fader.faderMoved, function (value) { c.moves += 1 })
                W.strip(0, 6).fader.moveByHand(450)
                return "FaderControl.moveByHand(450)"
            },
            check: function (c) {
                var v = W.strip(0, 6).fader.value
                return { ok: v === c.expect && c.moves === 0,
                         got: "motor back to " + v + ", " + c.moves + " faderMoved" }
            }
        },
        {
            name: "fader rest mode",
            act: function (c) {
                C.strip(0, 8).bound = false
                return "FaderBinding.active = false with Surface.faders.restMode = "
                       + (Surface.faders.restMode === RestMode.ForceMinimum ? "ForceMinimum" : "KeepCurrent")
            },
            check: function (c) {
                var v = W.strip(0, 8).fader.value
                return { ok: v === 0, got: "FaderControl.value = " + v + " (parked)" }
            }
        },
        {
            name: "master fader (console -> worksurface)",
            act: function (c) {
                c.expect = ResponseCurve.dBtoLinearConversion(-5, ResponseCurve.Default)
                C.master().dB = -5
                return "MasterFader FaderBinding.value = -5 dB (type 7, device 10, " + u16(c.expect) + ")"
            },
            check: function (c) {
                var v = W.master().fader.value
                return { ok: v === c.expect, got: "master FaderControl.value = " + v }
            }
        },
        {
            name: "rotary turn (worksurface -> console)",
            act: function (c) {
                listen(C.strip(0, 3).rotary.rotaryRotated, function (value) { c.steps = value })
                W.strip(0, 3).rotary.rotate(3)
                return "RotaryControl.rotate(3) (type 18, 03)"
            },
            check: function (c) {
                return { ok: c.steps === 3,
                         got: "rotaryRotated(" + (c.steps === undefined ? "none" : c.steps) + ")" }
            }
        },
        {
            name: "rotary ring (console -> worksurface)",
            act: function (c) {
                C.strip(0, 3).ringColor = "#ff2d92"
                return "RotaryBinding.color = #ff2d92 (type 12, ff 2d 92 00)"
            },
            check: function (c) {
                var col = W.strip(0, 3).rotary.color
                return { ok: Qt.colorEqual(col, "#ff2d92"), got: "RotaryControl.color = " + col }
            }
        },
        {
            name: "side rotary turn (worksurface -> console)",
            act: function (c) {
                listen(C.master().sideRotary(2).rotaryRotated, function (value) { c.steps = value })
                W.master().sideRotary(2).rotate(-2)
                return "SideRotary 2 RotaryControl.rotate(-2) (type 18, device 12, fe)"
            },
            check: function (c) {
                return { ok: c.steps === -2,
                         got: "rotaryRotated(" + (c.steps === undefined ? "none" : c.steps) + ")" }
            }
        },
        {
            name: "button (worksurface -> console)",
            act: function (c) {
                c.before = C.strip(1, 0).muteCount
                W.strip(1, 0).mute.pressed = true
                return "Mute ButtonControl.pressed = true (type 20, 01)"
            },
            check: function (c) {
                var s = C.strip(1, 0)
                return { ok: s.muteCount === c.before + 1,
                         got: (s.muteCount - c.before) + " buttonPressed, console mute "
                              + (s.muted ? "on" : "off") }
            },
            cleanup: function (c) { W.strip(1, 0).mute.pressed = false }
        },
        {
            name: "LED (console -> worksurface)",
            act: function (c) {
                C.strip(1, 4).soloed = true
                return "Solo LedBinding.on = true (type 11, ff 00)"
            },
            check: function (c) {
                var b = W.strip(1, 4).solo.brightness
                return { ok: b === 255, got: "ButtonControl.brightness = " + b }
            }
        },
        {
            name: "master button and its LED (round trip)",
            act: function (c) {
                c.layer = C.master().layerNumber
                W.master().button(4).pressed = true
                return "LayerUp ButtonControl.pressed = true (type 20, device 40)"
            },
            check: function (c) {
                var b = W.master().buttonLed(4).brightness
                var layer = C.master().layerNumber
                return { ok: layer === c.layer + 1 && b === 255,
                         got: "buttonPressed: layer " + c.layer + " -> " + layer
                              + ", LayerUp LED back at brightness " + b }
            },
            cleanup: function (c) { W.master().button(4).pressed = false }
        },
        {
            name: "logo (console -> worksurface)",
            act: function (c) {
                C.master().logo(0).colour = "#af52de"
                return "NameLogo RgbLedBinding.color = #af52de (type 12, device 16)"
            },
            check: function (c) {
                var col = W.master().logo(0).color
                return { ok: Qt.colorEqual(col, "#af52de"), got: "RgbLedControl.color = " + col }
            }
        },
        {
            name: "meter (console -> worksurface)",
            act: function (c) {
                // The section lights (v - 135) / 5 of its 24 segments.
                c.level = Math.floor((220 - 135) * 0.2)
                c.peak = Math.floor((240 - 135) * 0.2)
                C.master().levelLeft = 220
                C.master().peakLeft = 240
                return "MasterLeft MeterBinding.level = 220, peak = 240 (type 13, " + hex(c.level)
                       + "; type 14, " + hex(c.peak) + ")"
            },
            check: function (c) {
                var meter = W.master().meterLeft
                return { ok: meter.value === c.level && meter.peak === c.peak,
                         got: "MeterControl.value = " + meter.value + ", peak = " + meter.peak }
            }
        },
        {
            name: "headphone pot (worksurface -> console)",
            act: function (c) {
                listen(C.master().pot.potTurned, function (value, proportion) {
                    c.value = value
                    c.proportion = proportion
                })
                W.master().pot.position = 460
                return "PotControl.position = 460 (type 17, " + u16(460) + ")"
            },
            check: function (c) {
                return { ok: c.value === 6 && near(c.proportion, 460 / 511),
                         got: c.value === undefined ? "no potTurned"
                              : "potTurned(" + c.value + " dB, " + Number(c.proportion).toFixed(3) + ")" }
            }
        },
        {
            name: "headphone light (console -> worksurface)",
            act: function (c) {
                C.master().headphoneColor = "#ffcc00"
                return "PotBinding.color = #ffcc00 (type 12, device 18)"
            },
            check: function (c) {
                var col = W.master().pot.color
                return { ok: Qt.colorEqual(col, "#ffcc00"), got: "PotControl.color = " + col }
            }
        },
        {
            name: "section report (worksurface -> console)",
            // The section reports at the link's next ping, every 2 s.
            timeout: 5000,
            act: function (c) {
                var control = W.section(m).control
                c.temperature = control.temperature + 5
                control.temperature = c.temperature
                return "section " + m + " SectionControl.temperature = " + c.temperature
                       + " (ping answer 0a 22 " + hex(c.temperature) + ")"
            },
            check: function (c) {
                var info = Surface.section(m)
                return { ok: info.temperature === c.temperature && info.version === 34,
                         got: "Surface.section(" + m + ").version = " + info.version
                              + ", temperature = " + info.temperature }
            }
        },
        {
            name: "calibration start (console -> worksurface)",
            act: function (c) {
                Surface.calibrate()
                return "Surface.calibrate() (type 3 to every section)"
            },
            check: function (c) {
                var on = []
                var ok = Surface.isCalibrating
                for (var s = 0; s < Surface.sectionCount; ++s) {
                    var cal = W.section(s).control.calibrating
                    ok = ok && cal
                    if (cal)
                        on.push(s)
                }
                return { ok: ok, got: "SectionControl.calibrating in sections [" + on.join(", ")
                                      + "], Surface.isCalibrating = " + Surface.isCalibrating }
            }
        },
        {
            name: "calibration done (worksurface -> console)",
            act: function (c) {
                for (var s = 0; s < Surface.sectionCount; ++s)
                    W.section(s).control.stopCalibration()
                return "SectionControl.stopCalibration() in every section (type 3 back)"
            },
            check: function (c) {
                return { ok: !Surface.isCalibrating,
                         got: "Surface.isCalibrating = " + Surface.isCalibrating }
            }
        },
        {
            name: "section unplugged (worksurface -> console)",
            act: function (c) {
                W.section(0).control.plugged = false
                return "section 0 SectionControl.plugged = false (its line goes as a pulled adapter)"
            },
            check: function (c) {
                var info = Surface.section(0)
                return { ok: info.linkState !== SectionInfoModel.Connected
                             && info.portError.indexOf("Device ") === 0,
                         got: "Surface.section(0).linkState = " + info.linkState
                              + ", portError = \"" + info.portError + "\"" }
            }
        },
        {
            name: "section plugged in (worksurface -> console)",
            act: function (c) {
                W.section(0).control.plugged = true
                return "section 0 SectionControl.plugged = true (reconnectInterval "
                       + Surface.settings.reconnectInterval + " ms)"
            },
            check: function (c) {
                var info = Surface.section(0)
                return { ok: info.linkState === SectionInfoModel.Connected && info.portError === "",
                         got: "Surface.section(0).linkState = " + info.linkState
                              + ", portError = \"" + info.portError + "\"" }
            }
        },
        {
            name: "firmware update (worksurface bootloader -> console)",
            // 8 KiB in 128 blocks at the line's pace, the probe a second after the reset, and
            // the new version at the next ping.
            timeout: 25000,
            act: function (c) {
                var control = W.section(m).control
                var info = Surface.section(m)
                c.version = control.versionMinor + 1
                c.sawUpdating = false
                c.maxProgress = -1
                listen(info.updatingChanged, function () { if (info.updating) c.sawUpdating = true })
                listen(info.updateProgressChanged, function () {
                    c.maxProgress = Math.max(c.maxProgress, info.updateProgress)
                })
                control.bootloader = true
                Surface.connect()
                return "section " + m + " SectionControl.bootloader = true, Surface.connect()"
            },
            check: function (c) {
                var info = Surface.section(m)
                var control = W.section(m).control
                return { ok: c.sawUpdating && c.maxProgress === 100 && !control.bootloader
                             && info.linkState === SectionInfoModel.Connected
                             && info.version === c.version && info.lastUpdateFailure === -1,
                         got: "updating seen " + c.sawUpdating + ", progress up to " + c.maxProgress
                              + ", linkState " + info.linkState + ", version " + info.version
                              + ", " + control.receivedBytes + " bytes crc " + control.imageCrc32 }
            }
        },
        {
            name: "flash failure (worksurface bootloader -> console)",
            timeout: 10000,
            act: function (c) {
                var control = W.section(m).control
                var info = Surface.section(m)
                c.reasons = []
                listen(info.updateFailed, function (reason) { c.reasons.push(reason) })
                control.flashStatus = 0x44
                control.bootloader = true
                Surface.connect()
                return "section " + m + " SectionControl.flashStatus = 0x44, bootloader = true, Surface.connect()"
            },
            check: function (c) {
                var info = Surface.section(m)
                return { ok: c.reasons.length === 1 && c.reasons[0] === 2
                             && info.lastUpdateFailure === 2
                             && info.linkState === SectionInfoModel.Connected,
                         got: "updateFailed(" + c.reasons.join(", ") + "), lastUpdateFailure "
                              + info.lastUpdateFailure + ", linkState " + info.linkState }
            },
            cleanup: function (c) {
                W.section(m).control.flashStatus = 0x40
            }
        },
        {
            name: "update cut off halfway (worksurface bootloader -> console)",
            // Pulled out at half of the update, plugged back a second after the console saw
            // it fail: the link probes again by itself, finds the section still in its
            // bootloader and writes the whole image; the new version shows.
            timeout: 30000,
            act: function (c) {
                var control = W.section(m).control
                var info = Surface.section(m)
                c.version = control.versionMinor + 1
                c.reasons = []
                c.cutAt = -1
                c.failedAt = 0
                listen(info.updateProgressChanged, function () {
                    if (c.cutAt < 0 && info.updating && info.updateProgress >= 50) {
                        c.cutAt = info.updateProgress
                        control.plugged = false
                    }
                })
                listen(info.updateFailed, function (reason) {
                    c.reasons.push(reason)
                    c.failedAt = Date.now()
                })
                control.bootloader = true
                Surface.connect()
                return "section " + m + " SectionControl.bootloader = true, Surface.connect(), "
                       + "plugged = false at 50 %, plugged = true a second after updateFailed"
            },
            check: function (c) {
                var info = Surface.section(m)
                var control = W.section(m).control
                if (c.failedAt > 0 && !control.plugged && Date.now() - c.failedAt >= 1000)
                    control.plugged = true
                return { ok: c.reasons.length === 1 && c.reasons[0] === 3 && control.plugged
                             && !control.bootloader && info.linkState === SectionInfoModel.Connected
                             && info.version === c.version && info.lastUpdateFailure === -1,
                         got: "cut at " + c.cutAt + "%, updateFailed(" + c.reasons.join(", ")
                              + "), linkState " + info.linkState + ", version " + info.version
                              + ", " + control.receivedBytes + " bytes crc " + control.imageCrc32 }
            },
            cleanup: function (c) {
                W.section(m).control.plugged = true
            }
        },
        {
            name: "surface brightness (console -> worksurface)",
            act: function (c) {
                globalBinding.surfaceBrightness = 128
                return "GlobalSurfaceBinding.surfaceBrightness = 128 (type 6, device 0, every section)"
            },
            skip: "not observable: no software control takes type 6, so the message ends at the software link"
        },
        {
            // The picture the walk-through ends on: one section out, the master updating.
            name: "section out while the master updates (worksurface -> console)",
            timeout: 15000,
            act: function (c) {
                W.section(0).control.plugged = false
                W.section(m).control.bootloader = true
                Surface.connect()
                return "section 0 plugged = false, section " + m + " bootloader = true, Surface.connect()"
            },
            check: function (c) {
                var out = Surface.section(0)
                var info = Surface.section(m)
                return { ok: out.portError !== "" && info.updating && info.updateProgress >= 30,
                         got: "section 0 portError \"" + out.portError + "\", section " + m
                              + " updating " + info.updating + " at " + info.updateProgress + "%" }
            }
        }
        ]
    }
}
