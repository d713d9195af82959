import QtQuick 2.15
import QtTest 1.15

// The root of every test file here: its waits move the runner's clock (`qmlClock`, see
// tests/qml/qmltestrunner.cpp). wait(ms), and with it every poll of tryCompare() and
// tryVerify(), runs the plugin's ticks and timers for ms of its time, each at its own time,
// letting what they hand between threads arrive before the clock moves on. A time-out of
// 5000 is 5 s of the plugin's time, whatever the machine's speed.
TestCase {
    function wait(ms) {
        qmlClock.advance(ms)
    }
}
