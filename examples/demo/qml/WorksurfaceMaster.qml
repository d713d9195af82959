import QtQuick 2.15
import Tarvix.Worksurface 1.0

// The master section's own controls, played by software controls: master fader and mute,
// side rotaries, the headphone pot with its light, the master meters, the logo lights and
// the snapshot, layer, spill-set and overview buttons.
Rectangle {
    id: master

    property int sectionIndex: 0

    readonly property alias fader: faderControl
    readonly property alias mute: muteControl
    readonly property alias pot: potControl
    readonly property alias meterLeft: meterLeft
    readonly property alias meterRight: meterRight
    function sideRotary(k) { return sideRotaries.itemAt(k).control }
    function logo(k) { return logos.itemAt(k).control }
    function button(k) { return buttons.itemAt(k).control }
    function buttonLed(k) { return buttons.itemAt(k).ledControl }

    width: Theme.masterWidth
    height: Theme.stripHeight
    radius: 4
    color: Theme.strip

    FaderControl {
        id: faderControl
        connection: Surface.connection
        type: FaderBinding.MasterFader
        sectionIndex: master.sectionIndex
        active: true
    }
    ButtonControl {
        id: muteControl
        connection: Surface.connection
        type: ButtonBinding.MasterMute
        sectionIndex: master.sectionIndex
        active: true
    }
    PotControl {
        id: potControl
        connection: Surface.connection
        type: PotBinding.Headphone
        sectionIndex: master.sectionIndex
        active: true
        position: 420
    }
    // The meters light 0..24 segments: the plugin sends (level - 135) / 5.
    MeterControl {
        id: meterLeft
        connection: Surface.connection
        meterType: MeterBinding.MasterLeft
        sectionIndex: master.sectionIndex
        active: true
    }
    MeterControl {
        id: meterRight
        connection: Surface.connection
        meterType: MeterBinding.MasterRight
        sectionIndex: master.sectionIndex
        active: true
    }

    Row {
        anchors.fill: parent
        anchors.margins: 3
        spacing: 6

        Column {
            width: 50
            spacing: 4
            Text {
                anchors.horizontalCenter: parent.horizontalCenter
                text: "MASTER"
                color: Theme.dim
                font.pixelSize: Theme.small
            }
            Lamp {
                anchors.horizontalCenter: parent.horizontalCenter
                width: 40
                label: "MUTE"
                led: Theme.mute
                level: muteControl.brightness / 255
                down: muteControl.pressed
                onPress: (held) => muteControl.pressed = held
            }
            FaderTrack {
                anchors.horizontalCenter: parent.horizontalCenter
                height: 150
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
        }

        Column {
            width: 144
            spacing: 5

            Grid {
                columns: 6
                spacing: 1
                Repeater {
                    id: sideRotaries
                    model: 6
                    Knob {
                        id: sideKnob
                        property alias control: sideControl
                        readonly property int slot: index
                        width: 23
                        height: 23
                        ring: sideControl.color
                        touched: sideControl.touched
                        pushed: sideControl.pressed
                        onTurned: (steps) => sideControl.rotate(steps)
                        onHandOn: (on) => sideControl.touched = on
                        onClicked: {
                            sideControl.pressed = true
                            sideControl.pressed = false
                        }
                        RotaryControl {
                            id: sideControl
                            connection: Surface.connection
                            type: RotaryBinding.SideRotary
                            sectionIndex: master.sectionIndex
                            index: sideKnob.slot
                            active: true
                        }
                    }
                }
            }
            Row {
                spacing: 8
                Column {
                    spacing: 2
                    // The pot is absolute: a drag or a wheel notch moves it by 8 of 511.
                    Knob {
                        width: 40
                        height: 40
                        ring: potControl.color
                        text: potControl.position
                        onTurned: (steps) => potControl.position = Math.max(0, Math.min(511, potControl.position + 8 * steps))
                    }
                    Text {
                        text: "PHONES pos"
                        color: Theme.dim
                        font.pixelSize: Theme.small - 1
                    }
                }
                MeterBar { height: 56; level: meterLeft.value / 24; peak: meterLeft.peak / 24; label: "L" }
                MeterBar { height: 56; level: meterRight.value / 24; peak: meterRight.peak / 24; label: "R" }
                Text {
                    text: "segments\n" + meterLeft.value + " / " + meterRight.value
                    color: Theme.dim
                    font.pixelSize: Theme.small - 1
                }
            }
            Row {
                spacing: 3
                Repeater {
                    id: logos
                    model: [
                        { type: RgbLedBinding.NameLogo, name: "NAME" },
                        { type: RgbLedBinding.MainLogo, name: "MAIN" },
                        { type: RgbLedBinding.SnapshotLogo, name: "SNAP" },
                        { type: RgbLedBinding.DashboardLogo, name: "DASH" },
                        { type: RgbLedBinding.OverviewLogo, name: "OVW" }
                    ]
                    Rectangle {
                        property alias control: logoControl
                        width: 26
                        height: 16
                        radius: 3
                        color: Theme.lens(logoControl.color)
                        Text {
                            anchors.centerIn: parent
                            text: modelData.name
                            color: "#101010"
                            font.pixelSize: Theme.small - 2
                            font.bold: true
                        }
                        RgbLedControl {
                            id: logoControl
                            connection: Surface.connection
                            type: modelData.type
                            sectionIndex: master.sectionIndex
                            active: true
                        }
                    }
                }
            }
            Grid {
                columns: 3
                spacing: 3
                Repeater {
                    id: buttons
                    // These switches (37 to 42) and their LEDs (21 to 26) are numbered
                    // differently, and a ButtonControl shows the LED level sent to its own
                    // number. So each LED is shown by a second ButtonControl that sits on
                    // the LED's number (UnderscreenRotary i is number 21 + i) and is never
                    // pressed.
                    model: [
                        { type: ButtonBinding.PreviousSnapshot, led: 22, name: "SNAP-" },
                        { type: ButtonBinding.NextSnapsthot, led: 23, name: "SNAP+" },
                        { type: ButtonBinding.Spillset, led: 21, name: "SPILL" },
                        { type: ButtonBinding.LayerDown, led: 26, name: "LAY-" },
                        { type: ButtonBinding.LayerUp, led: 24, name: "LAY+" },
                        { type: ButtonBinding.Overview, led: 25, name: "OVW" }
                    ]
                    Lamp {
                        property alias control: buttonControl
                        property alias ledControl: ledReader
                        width: 46
                        label: modelData.name
                        led: Theme.amber
                        level: ledReader.brightness / 255
                        down: buttonControl.pressed
                        onPress: (held) => buttonControl.pressed = held
                        ButtonControl {
                            id: buttonControl
                            connection: Surface.connection
                            type: modelData.type
                            sectionIndex: master.sectionIndex
                            active: true
                        }
                        ButtonControl {
                            id: ledReader
                            connection: Surface.connection
                            type: ButtonBinding.UnderscreenRotary
                            index: modelData.led - 21
                            sectionIndex: master.sectionIndex
                            active: true
                        }
                    }
                }
            }
        }
    }
}
