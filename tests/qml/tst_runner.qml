import QtQuick 2.15
import QtTest 1.15

// What the runner gives every test file: a wait moves the plugin's clock (driven runs), and
// QML warnings are counted, which the re-entrancy matrix fails a cell on.
DrivenTestCase {
    id: testCase
    name: "Runner"

    QtObject {
        id: faulty
        property int value: 0
        onValueChanged: testCase.noSuchFunction()
    }

    function test_aWaitMovesThePluginsClockByExactlyItsTime() {
        if (!qmlClockDriven)
            skip("the plugin keeps the steady clock in this run")
        var before = qmlClock.nowMs
        wait(20000)
        // 20 s of the plugin's time, and a few nanoseconds of clock readings on the way.
        verify(qmlClock.nowMs - before >= 20000, "moved " + (qmlClock.nowMs - before))
        verify(qmlClock.nowMs - before < 20000.01, "moved " + (qmlClock.nowMs - before))
    }

    function test_qmlWarningsAreCounted() {
        var before = qmlWarnings.count
        ignoreWarning(/noSuchFunction/)
        faulty.value = 1
        compare(qmlWarnings.count, before + 1)
        ignoreWarning("a warning from a script")
        console.warn("a warning from a script")
        compare(qmlWarnings.count, before + 2)
        console.log("not a warning")
        compare(qmlWarnings.count, before + 2)
    }
}
