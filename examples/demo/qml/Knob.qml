import QtQuick 2.15

// An endless rotary with its light ring. A drag up or down turns it (one step per 6 px),
// the wheel turns it one step per notch, and a click without a drag is a push.
Item {
    id: knob

    property color ring: "black"
    property bool touched: false
    property bool pushed: false
    property string text: ""

    signal turned(int steps)
    signal handOn(bool on)
    signal clicked()

    implicitWidth: 40
    implicitHeight: 40

    Rectangle {
        anchors.fill: parent
        radius: width / 2
        color: knob.pushed ? "#4a505a" : Theme.well
        border.color: Theme.lens(knob.ring)
        border.width: knob.touched ? Math.max(4, width / 7) : Math.max(2, width / 12)
    }
    Text {
        anchors.centerIn: parent
        text: knob.text
        color: Theme.text
        font.pixelSize: knob.width > 30 ? Theme.normal : Theme.small - 1
    }
    MouseArea {
        anchors.fill: parent
        preventStealing: true
        property real startY: 0
        property bool dragged: false
        onPressed: (mouse) => {
            startY = mouse.y
            dragged = false
            knob.handOn(true)
        }
        onPositionChanged: (mouse) => {
            var steps = Math.trunc((startY - mouse.y) / 6)
            if (steps !== 0) {
                dragged = true
                startY -= steps * 6
                knob.turned(steps)
            }
        }
        onReleased: {
            knob.handOn(false)
            if (!dragged)
                knob.clicked()
        }
        onCanceled: knob.handOn(false)
        onWheel: (wheel) => knob.turned(wheel.angleDelta.y > 0 ? 1 : -1)
    }
}
