import QtQuick 2.15

// A motorised fader drawn as a slot and a knob, in control positions 0..511. It only shows
// `position` and reports the mouse; the panel decides what a drag means.
Item {
    id: fader

    property int position: 0
    property bool touched: false
    property int detent: -1
    property bool locked: false
    property color cap: "#c9ced6"

    signal grabbed()
    signal moved(int position)
    signal letGo()

    implicitWidth: 30
    implicitHeight: 120

    readonly property int knobHeight: 18

    function positionAt(y) {
        var travel = height - knobHeight
        var p = Math.round((1 - (y - knobHeight / 2) / travel) * 511)
        return Math.max(0, Math.min(511, p))
    }
    function yOf(p) {
        return (1 - p / 511) * (height - knobHeight)
    }

    Rectangle {
        anchors.horizontalCenter: parent.horizontalCenter
        y: fader.knobHeight / 2 - 2
        width: 4
        height: parent.height - fader.knobHeight + 4
        radius: 2
        color: Theme.well
        border.color: Theme.line
    }
    Rectangle {
        visible: fader.detent >= 0
        anchors.horizontalCenter: parent.horizontalCenter
        y: fader.yOf(fader.detent) + fader.knobHeight / 2
        width: parent.width
        height: 1
        color: Theme.amber
    }
    Rectangle {
        id: knob
        anchors.horizontalCenter: parent.horizontalCenter
        y: fader.yOf(fader.position)
        width: 24
        height: fader.knobHeight
        radius: 3
        color: fader.touched ? Theme.touch : fader.cap
        border.color: fader.locked ? Theme.mute : "#0b0c0e"
        border.width: fader.locked ? 2 : 1
        Rectangle {
            anchors.centerIn: parent
            width: parent.width - 6
            height: 2
            color: "#0b0c0e"
        }
    }
    MouseArea {
        anchors.fill: parent
        preventStealing: true
        onPressed: (mouse) => {
            fader.grabbed()
            fader.moved(fader.positionAt(mouse.y))
        }
        onPositionChanged: (mouse) => fader.moved(fader.positionAt(mouse.y))
        onReleased: fader.letGo()
        onCanceled: fader.letGo()
    }
}
