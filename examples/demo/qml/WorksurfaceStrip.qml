import QtQuick 2.15
import Tarvix.Worksurface 1.0

// One channel strip of the worksurface, played by software controls: the fader follows the
// plugin's motor position and reports touches and hand moves, the rotary reports turns,
// touches and pushes and shows its ring, the buttons report presses and show their LEDs.
Rectangle {
    id: strip

    property int sectionIndex: 0
    property int stripIndex: 0

    readonly property alias fader: faderControl
    readonly property alias rotary: rotaryControl
    readonly property alias mute: muteControl
    readonly property alias solo: soloControl

    width: Theme.stripWidth
    height: Theme.stripHeight
    radius: 4
    color: Theme.strip

    FaderControl {
        id: faderControl
        connection: Surface.connection
        type: FaderBinding.Fader
        sectionIndex: strip.sectionIndex
        index: strip.stripIndex
        active: true
    }
    RotaryControl {
        id: rotaryControl
        connection: Surface.connection
        type: RotaryBinding.UnderScreen
        sectionIndex: strip.sectionIndex
        index: strip.stripIndex
        active: true
    }
    ButtonControl {
        id: muteControl
        connection: Surface.connection
        type: ButtonBinding.Mute
        sectionIndex: strip.sectionIndex
        index: strip.stripIndex
        active: true
    }
    ButtonControl {
        id: soloControl
        connection: Surface.connection
        type: ButtonBinding.Solo
        sectionIndex: strip.sectionIndex
        index: strip.stripIndex
        active: true
    }

    Column {
        anchors.fill: parent
        anchors.topMargin: 3
        spacing: 4

        Text {
            anchors.horizontalCenter: parent.horizontalCenter
            text: "STRIP " + (strip.stripIndex + 1)
            color: Theme.dim
            font.pixelSize: Theme.small
        }
        Knob {
            anchors.horizontalCenter: parent.horizontalCenter
            ring: rotaryControl.color
            touched: rotaryControl.touched
            pushed: rotaryControl.pressed
            onTurned: (steps) => rotaryControl.rotate(steps)
            onHandOn: (on) => rotaryControl.touched = on
            onClicked: {
                rotaryControl.pressed = true
                rotaryControl.pressed = false
            }
        }
        Row {
            anchors.horizontalCenter: parent.horizontalCenter
            spacing: 3
            Lamp {
                label: "M"
                led: Theme.mute
                level: muteControl.brightness / 255
                down: muteControl.pressed
                onPress: (held) => muteControl.pressed = held
            }
            Lamp {
                label: "S"
                led: Theme.solo
                level: soloControl.brightness / 255
                down: soloControl.pressed
                onPress: (held) => soloControl.pressed = held
            }
        }
        FaderTrack {
            anchors.horizontalCenter: parent.horizontalCenter
            height: 116
            position: faderControl.value
            touched: faderControl.touched
            onGrabbed: faderControl.touched = true
            onMoved: faderControl.moveByHand(position)
            onLetGo: faderControl.touched = false
        }
        Text {
            anchors.horizontalCenter: parent.horizontalCenter
            text: faderControl.value
            color: faderControl.touched ? Theme.touch : Theme.text
            font.pixelSize: Theme.normal
            font.bold: true
        }
        Text {
            anchors.horizontalCenter: parent.horizontalCenter
            text: faderControl.touched ? "touched" : "position"
            color: Theme.dim
            font.pixelSize: Theme.small - 1
        }
    }
}
