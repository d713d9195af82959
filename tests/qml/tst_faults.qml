import QtQuick 2.15
import QtTest 1.15
import Tarvix.Worksurface 1.0

// Every fault a real section can show, played by a SectionControl of the software surface
// and seen from the console side (Surface.section(i)): a section pulled out and plugged in
// again, one that stops answering, one sitting in its serial bootloader that the link
// updates end to end (progress, resends, failure reasons 0, 1 and 2, the image byte for
// byte), and raw bytes on a section's line. Each in both consoles, on the first section and
// on the master. The silent section's time-outs (10 s and 20 s) are pinned under the manual
// clock in tst_softwarefaults; here a silent section is met at the start-up probe.
DrivenTestCase {
    id: testCase
    name: "Faults"

    readonly property int timeout: 8000

    SectionControl { id: sectionZero; connection: Surface.connection; sectionIndex: 0 }
    SectionControl { id: sectionOne; connection: Surface.connection; sectionIndex: 1 }
    SectionControl { id: sectionTwo; connection: Surface.connection; sectionIndex: 2 }

    function control(index) { return [sectionZero, sectionOne, sectionTwo][index] }

    function create(source) {
        var object = createTemporaryQmlObject("import QtQuick 2.15; import QtTest 1.15; "
                                              + "import Tarvix.Worksurface 1.0; " + source,
                                              testCase, "inline")
        verify(object !== null, source)
        return object
    }

    // Counts a signal's emissions until stop() (a SignalSpy does not outlive its test well
    // on the scene's own, long-lived controls).
    function counter(target, signalName) {
        var result = { count: 0 }
        result.handler = function () { result.count++ }
        target[signalName].connect(result.handler)
        result.stop = function () { target[signalName].disconnect(result.handler) }
        return result
    }

    function spy(target, signalName) {
        var result = create("SignalSpy {}")
        result.target = target
        result.signalName = signalName
        return result
    }

    // Everything the console side sees of one section, in order.
    function recorder(section) {
        var r = { states: [], portErrors: [], progress: [], updating: [], failures: [],
                  versions: [] }
        r.onState = function () { r.states.push(section.linkState) }
        r.onPortError = function () { r.portErrors.push(section.portError) }
        r.onProgress = function () { r.progress.push(section.updateProgress) }
        r.onUpdating = function () { r.updating.push(section.updating) }
        r.onFailed = function (reason) { r.failures.push(reason) }
        r.onVersion = function () { r.versions.push(section.version) }
        section.linkStateChanged.connect(r.onState)
        section.portErrorChanged.connect(r.onPortError)
        section.updateProgressChanged.connect(r.onProgress)
        section.updatingChanged.connect(r.onUpdating)
        section.updateFailed.connect(r.onFailed)
        section.versionChanged.connect(r.onVersion)
        r.stop = function () {
            section.linkStateChanged.disconnect(r.onState)
            section.portErrorChanged.disconnect(r.onPortError)
            section.updateProgressChanged.disconnect(r.onProgress)
            section.updatingChanged.disconnect(r.onUpdating)
            section.updateFailed.disconnect(r.onFailed)
            section.versionChanged.disconnect(r.onVersion)
        }
        return r
    }

    // The standard CRC-32 (zlib, PNG) of an array of bytes, as 8 lower-case hex digits.
    function crc32(bytes) {
        var crc = 0xFFFFFFFF
        for (var i = 0; i < bytes.length; ++i) {
            crc = crc ^ bytes[i]
            for (var b = 0; b < 8; ++b)
                crc = (crc & 1) ? ((crc >>> 1) ^ 0xEDB88320) : (crc >>> 1)
        }
        var hex = ((crc ^ 0xFFFFFFFF) >>> 0).toString(16)
        while (hex.length < 8)
            hex = "0" + hex
        return hex
    }

    // What the section must receive of an image written by qmlFirmware.write(size): the
    // image, padded with 0xFF to whole 64-byte blocks.
    function paddedImage(size) {
        var bytes = []
        for (var i = 0; i < size; ++i)
            bytes.push((i * 31 + 7) & 0xFF)
        while (bytes.length % 64 !== 0)
            bytes.push(0xFF)
        return bytes
    }

    function consoles() {
        return [
            { tag: "K40 first", mode: SurfaceSettings.K40, section: 0 },
            { tag: "K40 master", mode: SurfaceSettings.K40, section: 1 },
            { tag: "K60 first", mode: SurfaceSettings.K60, section: 0 },
            { tag: "K60 master", mode: SurfaceSettings.K60, section: 2 }
        ]
    }

    // connect() builds the new surface on the surface thread: its links are up once each
    // section has been through Connecting again and is Connected.
    function connectSoftware(mode) {
        Surface.settings.type = SurfaceSettings.Software
        Surface.settings.mode = mode
        var opened = [false, false, false]
        var handlers = []
        for (var i = 0; i < 3; ++i) {
            handlers.push((function (index) {
                return function () {
                    if (Surface.section(index).linkState === SectionInfoModel.Connecting)
                        opened[index] = true
                }
            })(i))
            Surface.section(i).linkStateChanged.connect(handlers[i])
        }
        Surface.connect()
        tryVerify(function () {
            if (Surface.sectionCount !== (mode === SurfaceSettings.K40 ? 2 : 3))
                return false
            for (var s = 0; s < Surface.sectionCount; ++s) {
                if (!opened[s] || Surface.section(s).linkState !== SectionInfoModel.Connected)
                    return false
            }
            return true
        }, timeout, "every link up after connect()")
        for (var j = 0; j < 3; ++j)
            Surface.section(j).linkStateChanged.disconnect(handlers[j])
    }

    function init() {
        for (var i = 0; i < 3; ++i) {
            var c = control(i)
            c.answering = true
            c.plugged = true
            c.bootloader = false
            c.flashStatus = 0x40
            c.nakCount = 0
            c.versionMajor = 10
            c.versionMinor = 34
        }
    }

    function cleanup() {
        qmlWatchdog.disarm()
        qmlFirmware.remove()
        Surface.settings.reconnectInterval = 0
        Surface.settings.updateTimeout = 0
        // Anything a test left behind ends here: every section answers and is plugged in.
        init()
    }

    function test_defaultsPlayASectionThatIsAlwaysThere() {
        var c = create("SectionControl {}")
        compare(c.answering, true)
        compare(c.plugged, true)
        compare(c.bootloader, false)
        compare(c.flashStatus, 0x40)
        compare(c.nakCount, 0)
        compare(c.receivedBytes, 0)
        compare(c.imageCrc32, "")
        compare(typeof c.imageCrc32, "string")
        compare(c.versionMajor, 10)
        compare(c.versionMinor, 34)
        var threw = false
        try { c.receivedBytes = 5 } catch (e) { threw = true }
        verify(threw, "receivedBytes is read-only")
        threw = false
        try { c.imageCrc32 = "00000000" } catch (e) { threw = true }
        verify(threw, "imageCrc32 is read-only")
        compare(c.receivedBytes, 0)
    }

    function test_eachFaultPropertyNotifiesOnChangeOnly() {
        var c = create("SectionControl {}")
        var names = ["answering", "plugged", "bootloader", "flashStatus", "nakCount",
                     "versionMajor", "versionMinor"]
        var values = [false, false, true, 0x44, 3, 11, 35]
        for (var i = 0; i < names.length; ++i) {
            var changes = spy(c, names[i] + "Changed")
            c[names[i]] = values[i]
            compare(c[names[i]], values[i], names[i])
            compare(changes.count, 1, names[i])
            c[names[i]] = values[i]
            compare(changes.count, 1, names[i] + " again")
        }
    }

    function test_unpluggedSectionGoesDownAndComesBackWithTheReconnectInterval_data() {
        return consoles()
    }

    function test_unpluggedSectionGoesDownAndComesBackWithTheReconnectInterval(data) {
        qmlWatchdog.arm(data.tag, 60)
        Surface.settings.reconnectInterval = 500
        connectSoftware(data.mode)
        var section = Surface.section(data.section)
        compare(section.portName, "")
        compare(section.portError, "")
        var seen = recorder(section)
        var plugged = counter(control(data.section), "pluggedChanged")
        var name = "software section " + data.section

        control(data.section).plugged = false
        compare(plugged.count, 1)
        plugged.stop()
        tryCompare(section, "linkState", SectionInfoModel.Connecting, timeout)
        tryCompare(section, "portError", "Device not found: " + name, timeout)
        // The other sections are untouched.
        for (var s = 0; s < Surface.sectionCount; ++s) {
            if (s !== data.section)
                compare(Surface.section(s).linkState, SectionInfoModel.Connected, "section " + s)
        }

        control(data.section).plugged = true
        tryCompare(section, "linkState", SectionInfoModel.Connected, timeout)
        tryCompare(section, "portError", "", timeout)
        seen.stop()
        compare(seen.states, [SectionInfoModel.Connecting, SectionInfoModel.Connected])
        compare(seen.portErrors, ["Device gone: " + name, "Device not found: " + name, ""])
        compare(seen.failures, [])
    }

    function test_silentSectionIsNotFoundAtStartUpAndComesUpWhenItAnswers_data() {
        return consoles()
    }

    function test_silentSectionIsNotFoundAtStartUpAndComesUpWhenItAnswers(data) {
        qmlWatchdog.arm(data.tag, 60)
        Surface.settings.reconnectInterval = 500
        connectSoftware(data.mode)
        var section = Surface.section(data.section)
        control(data.section).answering = false
        var seen = recorder(section)
        Surface.connect()
        // The probe goes unanswered: the link waits in Connecting, probing again every
        // interval, without a port error (the line is there, the section says nothing).
        tryCompare(section, "linkState", SectionInfoModel.Connecting, timeout)
        for (var s = 0; s < Surface.sectionCount; ++s) {
            if (s !== data.section)
                tryCompare(Surface.section(s), "linkState", SectionInfoModel.Connected, timeout)
        }
        compare(section.linkState, SectionInfoModel.Connecting)
        control(data.section).answering = true
        tryCompare(section, "linkState", SectionInfoModel.Connected, timeout)
        seen.stop()
        compare(seen.states, [SectionInfoModel.Closed, SectionInfoModel.Connecting,
                              SectionInfoModel.Connected])
        compare(seen.portErrors, [])
        compare(section.portError, "")
    }

    function updateOnce(data, size) {
        qmlFirmware.remove()
        if (size >= 0)
            verify(qmlFirmware.write(size))
        Surface.settings.reconnectInterval = 0
        connectSoftware(data.mode)
        var c = control(data.section)
        var section = Surface.section(data.section)
        c.bootloader = true
        var seen = recorder(section)
        seen.bootloaderChanges = []
        seen.onBootloader = function () {
            seen.bootloaderChanges.push(c.bootloader)
            // A new firmware shows as a new version once the section runs it.
            if (!c.bootloader)
                c.versionMinor = c.versionMinor + 1
        }
        c.bootloaderChanged.connect(seen.onBootloader)
        // Like a real section, it is found in its bootloader at the next start-up exchange.
        Surface.connect()
        tryCompare(c, "bootloader", false, timeout)
        tryCompare(section, "linkState", SectionInfoModel.Connected, timeout)
        c.bootloaderChanged.disconnect(seen.onBootloader)
        return seen
    }

    function test_bootloaderRunsAFullUpdateAndTheNewVersionShows_data() {
        return consoles()
    }

    function test_bootloaderRunsAFullUpdateAndTheNewVersionShows(data) {
        qmlWatchdog.arm(data.tag, 60)
        var c = control(data.section)
        var section = Surface.section(data.section)
        var received = counter(c, "receivedBytesChanged")
        var seen = updateOnce(data, 1000)
        received.stop()
        tryCompare(section, "version", 35, timeout)
        seen.stop()
        // Updating while the image goes; once the section has left its bootloader the link
        // probes it again (Connecting) and finds it running.
        compare(seen.states, [SectionInfoModel.Closed, SectionInfoModel.Connecting,
                              SectionInfoModel.Updating, SectionInfoModel.Connecting,
                              SectionInfoModel.Connected])
        compare(seen.updating, [true, false])
        // 1000 bytes in 16 blocks: 0 at the Download, then each block's share.
        verify(seen.progress[0] <= 6, JSON.stringify(seen.progress))
        compare(seen.progress[seen.progress.length - 1], 100)
        for (var i = 1; i < seen.progress.length; ++i)
            verify(seen.progress[i] > seen.progress[i - 1], JSON.stringify(seen.progress))
        // Each of the 16 blocks moves it (the 0 is not news when the last update ended there).
        verify(seen.progress.length >= 16, JSON.stringify(seen.progress))
        compare(seen.failures, [])
        compare(section.lastUpdateFailure, -1)
        compare(seen.bootloaderChanges, [false])
        compare(seen.versions[seen.versions.length - 1], 35)
        // Byte for byte: the image padded to 1024 bytes.
        var expected = paddedImage(1000)
        compare(c.receivedBytes, 1024)
        compare(c.imageCrc32, crc32(expected))
        // Download empties the image (news when an earlier one was there), then every block
        // adds 64 bytes.
        verify(received.count === 16 || received.count === 17, received.count)
        compare(section.portError, "")
    }

    function test_resendsAreAnsweredAndTheImageStillArrivesWhole_data() {
        return consoles()
    }

    function test_resendsAreAnsweredAndTheImageStillArrivesWhole(data) {
        qmlWatchdog.arm(data.tag, 60)
        var c = control(data.section)
        c.nakCount = 5
        var naks = counter(c, "nakCountChanged")
        var seen = updateOnce(data, 130)
        naks.stop()
        seen.stop()
        // Five refusals in a row are within the updater's resends.
        compare(c.nakCount, 0)
        compare(naks.count, 5)
        compare(seen.failures, [])
        compare(Surface.section(data.section).lastUpdateFailure, -1)
        compare(c.receivedBytes, 192)
        compare(c.imageCrc32, crc32(paddedImage(130)))
    }

    function test_sixRefusalsExhaustTheResendsWithReasonOne_data() {
        return consoles()
    }

    function test_sixRefusalsExhaustTheResendsWithReasonOne(data) {
        qmlWatchdog.arm(data.tag, 60)
        var c = control(data.section)
        c.nakCount = 6
        var imageChanges = 0
        var onImage = function () { imageChanges++ }
        c.receivedBytesChanged.connect(onImage)
        var seen = updateOnce(data, 130)
        c.receivedBytesChanged.disconnect(onImage)
        seen.stop()
        compare(seen.failures, [1])
        compare(Surface.section(data.section).lastUpdateFailure, 1)
        compare(c.nakCount, 0)
        // The Ping was refused six times: no Download, no image byte.
        compare(imageChanges, 0)
        compare(seen.states[seen.states.length - 1], SectionInfoModel.Connected)
        verify(seen.states.indexOf(SectionInfoModel.Updating) > 0, JSON.stringify(seen.states))
    }

    function test_flashFailureStatusAbortsWithReasonTwo_data() {
        return consoles()
    }

    function test_flashFailureStatusAbortsWithReasonTwo(data) {
        qmlWatchdog.arm(data.tag, 60)
        var c = control(data.section)
        c.flashStatus = 0x44
        var seen = updateOnce(data, 130)
        seen.stop()
        compare(seen.failures, [2])
        compare(Surface.section(data.section).lastUpdateFailure, 2)
        // Refused at the status after the Download, which emptied the image: no block went.
        compare(c.receivedBytes, 0)
        compare(c.imageCrc32, "")
    }

    function test_missingFirmwareFailsWithReasonZero_data() {
        return consoles()
    }

    function test_missingFirmwareFailsWithReasonZero(data) {
        qmlWatchdog.arm(data.tag, 60)
        var c = control(data.section)
        var seen = updateOnce(data, -1)
        seen.stop()
        compare(seen.failures, [0])
        compare(Surface.section(data.section).lastUpdateFailure, 0)
        compare(c.receivedBytes, 0)
        compare(c.imageCrc32, "")
    }

    // A ping answer with temperature t, as the section's frame: [6, 0, 0, 10, 34, t, sum].
    function pingAnswer(t) {
        return [6, 0, 0, 10, 34, t, (6 + 10 + 34 + t) & 0xFF]
    }

    function test_sendRawPutsBytesOnTheLine_data() {
        return consoles()
    }

    function test_sendRawPutsBytesOnTheLine(data) {
        connectSoftware(data.mode)
        var c = control(data.section)
        var section = Surface.section(data.section)
        // The section's own ping answers report 70; the raw frames report other values.
        c.temperature = 70
        var temperatures = []
        var record = function () {
            if (section.temperature !== 70)
                temperatures.push(section.temperature)
        }
        section.temperatureChanged.connect(record)
        // A whole frame.
        c.sendRaw(pingAnswer(71))
        // A frame split in two, the second half as an ArrayBuffer.
        var frame = pingAnswer(72)
        c.sendRaw(frame.slice(0, 3))
        c.sendRaw(new Uint8Array(frame.slice(3)).buffer)
        // A broken checksum is discarded; noise before a good frame does not hide it.
        var broken = pingAnswer(73)
        broken[6] = (broken[6] + 1) & 0xFF
        c.sendRaw(broken)
        c.sendRaw([0xF0, 0xF1].concat(pingAnswer(74)))
        // Unplugged, nothing arrives.
        Surface.settings.reconnectInterval = 200
        c.plugged = false
        c.sendRaw(pingAnswer(75))
        tryVerify(function () { return section.portError !== "" }, timeout)
        c.plugged = true
        tryCompare(section, "portError", "", timeout)
        tryCompare(section, "linkState", SectionInfoModel.Connected, timeout)
        c.sendRaw(pingAnswer(76))
        tryVerify(function () { return temperatures.indexOf(76) >= 0 }, timeout)
        section.temperatureChanged.disconnect(record)
        compare(temperatures, [71, 72, 74, 76])
    }

    function test_badInputIsRefusedWithAWarning() {
        var c = create("SectionControl {}")
        ignoreWarning("SectionControl: flashStatus 256 is not a byte (0..255); it stays 64")
        c.flashStatus = 256
        compare(c.flashStatus, 0x40)
        ignoreWarning("SectionControl: flashStatus -1 is not a byte (0..255); it stays 64")
        c.flashStatus = -1
        compare(c.flashStatus, 0x40)
        ignoreWarning("SectionControl: nakCount -2 is negative; it stays 0")
        c.nakCount = -2
        compare(c.nakCount, 0)
        ignoreWarning("SectionControl: sendRaw() needs at least one byte; nothing sent")
        c.sendRaw([])
        ignoreWarning("SectionControl: sendRaw() needs at least one byte; nothing sent")
        c.sendRaw(new ArrayBuffer(0))
        var huge = new Array(65537)
        for (var i = 0; i < huge.length; ++i)
            huge[i] = 0
        ignoreWarning("SectionControl: sendRaw() takes at most 65536 bytes, not 65537; nothing sent")
        c.sendRaw(huge)
        ignoreWarning("SectionControl: sendRaw() byte 1 is not a number 0..255; nothing sent")
        c.sendRaw([1, 300])
        ignoreWarning("SectionControl: sendRaw() byte 0 is not a number 0..255; nothing sent")
        c.sendRaw(["x"])
        ignoreWarning("SectionControl: sendRaw() takes an array of numbers 0..255 or an ArrayBuffer; nothing sent")
        c.sendRaw("abc")
    }

    function test_bootloaderIsRefusedDuringAnUpdateAndTheLinkRecovers_data() {
        return consoles()
    }

    function test_bootloaderIsRefusedDuringAnUpdateAndTheLinkRecovers(data) {
        qmlWatchdog.arm(data.tag, 60)
        verify(qmlFirmware.write(4000))
        connectSoftware(data.mode)
        var c = control(data.section)
        var section = Surface.section(data.section)
        c.bootloader = true
        // From a handler of the link's own signals, in the middle of the update.
        var tried = false
        var handler = function () {
            if (tried || section.updateProgress < 30)
                return
            tried = true
            c.bootloader = false
        }
        section.updateProgressChanged.connect(handler)
        ignoreWarning("SectionControl: section " + data.section
                      + " is being updated; bootloader stays true until the update ends")
        Surface.connect()
        tryCompare(c, "bootloader", false, timeout)
        tryCompare(section, "linkState", SectionInfoModel.Connected, timeout)
        section.updateProgressChanged.disconnect(handler)
        verify(tried)
        compare(section.lastUpdateFailure, -1)
        compare(c.receivedBytes, 4032)
        compare(c.imageCrc32, crc32(paddedImage(4000)))
        // Outside an update it is taken, and so is a pulled line, and the link comes back.
        Surface.settings.reconnectInterval = 500
        c.plugged = false
        tryCompare(section, "portError", "Device not found: software section " + data.section, timeout)
        c.plugged = true
        tryCompare(section, "linkState", SectionInfoModel.Connected, timeout)
        compare(section.portError, "")
    }

    // Every fault on every console's first and master section. The run on real time waits
    // seconds of silence and reconnect intervals in each row and is there for the threads'
    // interleaving, not for the consoles: it takes each fault once, on a console of its own.
    function cutOffRows() {
        var rows = []
        var faults = ["pulled", "silent", "power cycle"]
        var all = consoles()
        for (var f = 0; f < faults.length; ++f) {
            for (var i = 0; i < all.length; ++i) {
                if (!qmlClockDriven && i !== f)
                    continue
                rows.push({ tag: all[i].tag + ", " + faults[f], mode: all[i].mode,
                            section: all[i].section, fault: faults[f] })
            }
        }
        return rows
    }

    // Cuts the update of data.section at 40 % (1600 of 4000 bytes, from a handler of the
    // link's progress) with the row's fault; returns the recorder, once the cut is made.
    function cutAnUpdate(data) {
        verify(qmlFirmware.write(4000))
        connectSoftware(data.mode)
        var c = control(data.section)
        var section = Surface.section(data.section)
        c.bootloader = true
        var seen = recorder(section)
        seen.cutAt = -1
        var handler = function () {
            if (seen.cutAt >= 0 || section.updateProgress < 40)
                return
            seen.cutAt = c.receivedBytes
            if (data.fault === "pulled")
                c.plugged = false
            else if (data.fault === "silent")
                c.answering = false
            else
                c.powerCycle()
        }
        section.updateProgressChanged.connect(handler)
        Surface.connect()
        tryVerify(function () { return seen.cutAt >= 0 }, timeout)
        section.updateProgressChanged.disconnect(handler)
        compare(seen.cutAt, 1600)
        return seen
    }

    function test_anUpdateCutOffHalfwayComesBackByItself_data() {
        return cutOffRows()
    }

    // With an update time-out and reconnecting links, a section pulled out, fallen silent or
    // switched off and on at 40 % fails the update once with reason 3; the link then finds it
    // in its bootloader again and writes the whole image, without connect().
    function test_anUpdateCutOffHalfwayComesBackByItself(data) {
        qmlWatchdog.arm(data.tag, 60)
        Surface.settings.reconnectInterval = 500
        Surface.settings.updateTimeout = 2000
        var c = control(data.section)
        var section = Surface.section(data.section)
        var seen = cutAnUpdate(data)
        tryVerify(function () { return seen.failures.length > 0 }, timeout)
        compare(seen.failures, [3])
        compare(section.lastUpdateFailure, 3)
        compare(section.updating, false)
        // The section keeps what it received and stays in its bootloader.
        compare(c.bootloader, true)
        compare(c.receivedBytes, 1600)
        if (data.fault === "pulled") {
            compare(section.portError, "Device gone: software section " + data.section)
            wait(1000)
            c.plugged = true
        } else if (data.fault === "silent") {
            wait(1000)
            c.answering = true
        }
        tryCompare(c, "bootloader", false, timeout)
        tryCompare(section, "linkState", SectionInfoModel.Connected, timeout)
        seen.stop()
        compare(seen.failures, [3])
        compare(section.lastUpdateFailure, -1)
        compare(section.portError, "")
        compare(c.receivedBytes, 4032)
        compare(c.imageCrc32, crc32(paddedImage(4000)))
    }

    // Without an update time-out the updater waits for its bootloader for ever: a section that
    // falls silent leaves the link Updating until connect(). Ten minutes of driven time show
    // it; the run on real time waits three seconds, six reconnect intervals.
    function test_withoutAnUpdateTimeOutASilentSectionLeavesTheUpdateWaiting() {
        var data = { tag: "K40 first, silent", mode: SurfaceSettings.K40, section: 0,
                     fault: "silent" }
        qmlWatchdog.arm(data.tag, 60)
        Surface.settings.reconnectInterval = 500
        var c = control(0)
        var section = Surface.section(0)
        var seen = cutAnUpdate(data)
        c.answering = true
        wait(qmlClockDriven ? 600000 : 3000)
        compare(seen.failures, [])
        compare(section.linkState, SectionInfoModel.Updating)
        compare(section.updating, true)
        compare(section.updateProgress, 40)
        compare(c.bootloader, true)
        // connect() starts it over.
        Surface.connect()
        tryCompare(c, "bootloader", false, timeout)
        tryCompare(section, "linkState", SectionInfoModel.Connected, timeout)
        seen.stop()
        compare(seen.failures, [])
        compare(c.imageCrc32, crc32(paddedImage(4000)))
    }

    function test_replugFromALinkStateHandlerDoesNotHang() {
        qmlWatchdog.arm("replug from linkStateChanged", 60)
        Surface.settings.reconnectInterval = 500
        connectSoftware(SurfaceSettings.K60)
        var section = Surface.section(0)
        var handler = function () {
            // Whatever the link tells, the section is plugged straight back in.
            sectionZero.plugged = true
        }
        section.linkStateChanged.connect(handler)
        sectionZero.plugged = false
        tryCompare(section, "linkState", SectionInfoModel.Connected, timeout)
        section.linkStateChanged.disconnect(handler)
        compare(section.portError, "")
    }
}
