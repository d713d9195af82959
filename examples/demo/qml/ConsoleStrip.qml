import QtQuick 2.15
import Tarvix.Worksurface 1.0

// One channel strip of the console's user interface, attached to the worksurface only
// through bindings: the fader (dB value, detent, lock, touch), the under-screen rotary
// (steps in, ring colour out), and mute and solo (presses in, LEDs out).
Rectangle {
    id: strip

    property int sectionIndex: 0
    property int stripIndex: 0
    property bool bound: true
    property bool detentOn: true
    property bool lockOn: false

    // The console's own state for the channel.
    property real dB: -150
    property int rotaryValue: 0
    property color ringColor: Theme.palette[(sectionIndex * 3 + stripIndex) % Theme.palette.length]
    property bool muted: false
    property bool soloed: false
    property int muteCount: 0

    readonly property alias fader: faderBinding
    readonly property alias rotary: rotaryBinding
    readonly property alias muteButton: muteButton
    readonly property alias muteLed: muteLed
    readonly property alias soloButton: soloButton
    readonly property alias soloLed: soloLed

    width: Theme.stripWidth
    height: Theme.stripHeight
    radius: 4
    color: Theme.strip

    FaderBinding {
        id: faderBinding
        connection: Surface.connection
        type: FaderBinding.Fader
        sectionIndex: strip.sectionIndex
        index: strip.stripIndex
        active: strip.bound
        value: strip.dB
        // -150 dB is position 0, which means no detent.
        detent: strip.detentOn ? 0 : -150
        // A hand move is what the console shows from then on.
        onFaderMoved: strip.dB = value
    }
    // The lock holds the fader where it is when the lock goes on.
    onLockOnChanged: {
        if (lockOn)
            faderBinding.lock.value = dB
        faderBinding.lock.enabled = lockOn
    }
    RotaryBinding {
        id: rotaryBinding
        connection: Surface.connection
        type: RotaryBinding.UnderScreen
        sectionIndex: strip.sectionIndex
        index: strip.stripIndex
        active: true
        color: strip.ringColor
        onRotaryRotated: (value) => strip.rotaryValue += value
    }
    ButtonBinding {
        id: muteButton
        connection: Surface.connection
        type: ButtonBinding.Mute
        sectionIndex: strip.sectionIndex
        index: strip.stripIndex
        active: true
        onButtonPressed: {
            strip.muteCount += 1
            strip.muted = !strip.muted
        }
    }
    LedBinding {
        id: muteLed
        connection: Surface.connection
        type: LedBinding.MuteButton
        sectionIndex: strip.sectionIndex
        index: strip.stripIndex
        active: true
        on: strip.muted
    }
    ButtonBinding {
        id: soloButton
        connection: Surface.connection
        type: ButtonBinding.Solo
        sectionIndex: strip.sectionIndex
        index: strip.stripIndex
        active: true
        onButtonPressed: strip.soloed = !strip.soloed
    }
    LedBinding {
        id: soloLed
        connection: Surface.connection
        type: LedBinding.SoloButton
        sectionIndex: strip.sectionIndex
        index: strip.stripIndex
        active: true
        on: strip.soloed
    }

    Column {
        anchors.fill: parent
        anchors.topMargin: 3
        spacing: 4

        Text {
            anchors.horizontalCenter: parent.horizontalCenter
            text: "CH " + (strip.sectionIndex * 10 + strip.stripIndex + 1)
            color: Theme.dim
            font.pixelSize: Theme.small
        }
        Knob {
            anchors.horizontalCenter: parent.horizontalCenter
            ring: strip.ringColor
            touched: rotaryBinding.touched
            pushed: rotaryBinding.pressed
            text: strip.rotaryValue
            onTurned: (steps) => strip.rotaryValue += steps
            onClicked: strip.ringColor = Theme.nextColor(strip.ringColor)
        }
        Row {
            anchors.horizontalCenter: parent.horizontalCenter
            spacing: 3
            Lamp {
                label: "M"
                led: Theme.mute
                level: muteLed.on ? 1 : 0
                onPress: (held) => { if (held) strip.muted = !strip.muted }
            }
            Lamp {
                label: "S"
                led: Theme.solo
                level: soloLed.on ? 1 : 0
                onPress: (held) => { if (held) strip.soloed = !strip.soloed }
            }
        }
        FaderTrack {
            anchors.horizontalCenter: parent.horizontalCenter
            height: 116
            position: ResponseCurve.dBtoLinearConversion(strip.dB, ResponseCurve.Default)
            touched: faderBinding.touched
            locked: faderBinding.lock.enabled
            detent: strip.detentOn ? 400 : -1
            cap: faderBinding.active ? "#c9ced6" : "#5c626b"
            onMoved: strip.dB = ResponseCurve.linearTodBConversion(position, ResponseCurve.Default)
        }
        Text {
            anchors.horizontalCenter: parent.horizontalCenter
            text: strip.dB <= -150 ? "-inf" : strip.dB.toFixed(1)
            color: faderBinding.touched ? Theme.touch : Theme.text
            font.pixelSize: Theme.normal
            font.bold: true
        }
        Text {
            anchors.horizontalCenter: parent.horizontalCenter
            text: faderBinding.lock.enabled ? "locked"
                                            : faderBinding.touched ? "touched"
                                                                   : faderBinding.active ? "dB" : "unbound"
            color: faderBinding.lock.enabled ? Theme.mute : Theme.dim
            font.pixelSize: Theme.small - 1
        }
    }
}
