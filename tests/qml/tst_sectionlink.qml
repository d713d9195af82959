import QtQuick 2.15
import QtTest 1.15
import Tarvix.Worksurface 1.0

// What QML sees of each section's link (Surface.section(i): linkState, portName,
// portError, lastUpdateFailure, updateFailed) and of the reconnect setting
// (Surface.settings.reconnectInterval): defaults, types, read-only-ness and change
// notifications. The links are those of a software surface; over its in-process link a
// section comes up as soon as the bootloader probe is answered.
DrivenTestCase {
    id: testCase
    name: "SectionLink"

    readonly property int timeout: 5000

    function create(source) {
        var object = createTemporaryQmlObject("import QtQuick 2.15; import QtTest 1.15; "
                                              + "import Tarvix.Worksurface 1.0; " + source,
                                              testCase, "inline")
        verify(object !== null, source)
        return object
    }

    function spy(target, signalName) {
        var result = create("SignalSpy {}")
        result.target = target
        result.signalName = signalName
        return result
    }

    // Before any connect(): nothing has been tried.
    function initTestCase() {
        for (var i = 0; i < 3; ++i) {
            var section = Surface.section(i)
            compare(typeof section.linkState, "number")
            compare(section.linkState, SectionInfoModel.Closed)
            compare(typeof section.portName, "string")
            compare(section.portName, "")
            compare(typeof section.portError, "string")
            compare(section.portError, "")
            compare(typeof section.lastUpdateFailure, "number")
            compare(section.lastUpdateFailure, -1)
        }
        compare(typeof Surface.settings.reconnectInterval, "number")
        compare(Surface.settings.reconnectInterval, 0)
    }

    function cleanup() {
        Surface.settings.reconnectInterval = 0
    }

    function test_linkStateEnumHasTheConnectionsStates() {
        compare(SectionInfoModel.Connected, 0)
        compare(SectionInfoModel.Closed, 1)
        compare(SectionInfoModel.Connecting, 2)
        compare(SectionInfoModel.Updating, 3)
        compare(SectionInfoModel.Calibrating, 4)
        compare(SectionInfoModel.SerialError, 5)
        compare(SectionInfoModel.NoResponse, 6)
    }

    function test_linkPropertiesAreReadOnly() {
        var section = Surface.section(0)
        var names = ["linkState", "portName", "portError", "lastUpdateFailure"]
        var values = [SectionInfoModel.NoResponse, "/dev/null", "broken", 2]
        for (var i = 0; i < names.length; ++i) {
            var before = section[names[i]]
            var threw = false
            try {
                section[names[i]] = values[i]
            } catch (error) {
                threw = true
            }
            verify(threw, names[i])
            compare(section[names[i]], before, names[i])
        }
    }

    function test_reconnectIntervalNotifiesOnChangeOnlyAndTakesNegativeAsZero() {
        var changes = spy(Surface.settings, "reconnectIntervalChanged")
        Surface.settings.reconnectInterval = 2000
        compare(Surface.settings.reconnectInterval, 2000)
        compare(changes.count, 1)
        Surface.settings.reconnectInterval = 2000
        compare(changes.count, 1)
        Surface.settings.reconnectInterval = -250
        compare(Surface.settings.reconnectInterval, 0)
        compare(changes.count, 2)
    }

    function test_softwareSectionsLinkStateFollowsItsLinkAndHasNoPort() {
        Surface.settings.type = SurfaceSettings.Software
        Surface.settings.mode = SurfaceSettings.K40
        var first = Surface.section(0)
        var states = []
        var record = function() { states.push(first.linkState) }
        first.linkStateChanged.connect(record)
        var third = spy(Surface.section(2), "linkStateChanged")
        Surface.connect()
        tryCompare(first, "linkState", SectionInfoModel.Connected, timeout)
        tryCompare(Surface.section(1), "linkState", SectionInfoModel.Connected, timeout)
        first.linkStateChanged.disconnect(record)
        // Opened (Connecting), then up once the probe was answered.
        compare(states, [SectionInfoModel.Connecting, SectionInfoModel.Connected])
        // A K40 has no third section: its model stays Closed and silent.
        compare(Surface.section(2).linkState, SectionInfoModel.Closed)
        compare(third.count, 0)
        compare(first.portName, "")
        compare(first.portError, "")
        compare(first.lastUpdateFailure, -1)

        // A new connect() replaces the surface: the model starts over with the new links.
        states = []
        first.linkStateChanged.connect(record)
        Surface.connect()
        tryVerify(function() { return states.length === 3 }, timeout, JSON.stringify(states))
        first.linkStateChanged.disconnect(record)
        // The old link closes, the new one opens and comes up.
        compare(states, [SectionInfoModel.Closed, SectionInfoModel.Connecting,
                         SectionInfoModel.Connected])
    }
}
