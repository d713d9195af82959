import QtQuick 2.15

// A level meter: `level` and `peak` are fractions of full scale (0..1).
Item {
    id: meter

    property real level: 0
    property real peak: 0
    property string label: ""

    implicitWidth: 12
    implicitHeight: 64

    function clamp(v) {
        return Math.max(0, Math.min(1, v))
    }

    Rectangle {
        anchors.top: parent.top
        anchors.bottom: caption.top
        anchors.bottomMargin: 1
        width: parent.width
        color: Theme.well
        border.color: Theme.line
        Rectangle {
            anchors.bottom: parent.bottom
            anchors.bottomMargin: 1
            x: 1
            width: parent.width - 2
            height: (parent.height - 2) * meter.clamp(meter.level)
            gradient: Gradient {
                GradientStop { position: 0.0; color: Theme.mute }
                GradientStop { position: 0.25; color: Theme.solo }
                GradientStop { position: 1.0; color: Theme.good }
            }
        }
        Rectangle {
            visible: meter.peak > 0
            x: 1
            width: parent.width - 2
            height: 2
            y: 1 + (parent.height - 4) * (1 - meter.clamp(meter.peak))
            color: Theme.text
        }
    }
    Text {
        id: caption
        anchors.bottom: parent.bottom
        anchors.horizontalCenter: parent.horizontalCenter
        text: meter.label
        color: Theme.dim
        font.pixelSize: Theme.small - 1
    }
}
