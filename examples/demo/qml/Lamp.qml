import QtQuick 2.15

// A push button with the LED in it: `level` (0..1) is how brightly the LED shines.
Item {
    id: lamp

    property string label: ""
    property color led: Theme.mute
    property real level: 0
    property bool down: false

    signal press(bool held)

    implicitWidth: 24
    implicitHeight: 16

    Rectangle {
        anchors.fill: parent
        radius: 3
        color: Theme.well
        border.color: lamp.down ? Theme.text : Theme.line
        Rectangle {
            anchors.fill: parent
            anchors.margins: 1
            radius: 2
            color: lamp.led
            opacity: lamp.level
        }
    }
    Text {
        anchors.centerIn: parent
        text: lamp.label
        color: lamp.level > 0.5 ? "#101010" : Theme.text
        font.pixelSize: Theme.small
        font.bold: true
    }
    MouseArea {
        anchors.fill: parent
        onPressed: lamp.press(true)
        onReleased: lamp.press(false)
        onCanceled: lamp.press(false)
    }
}
