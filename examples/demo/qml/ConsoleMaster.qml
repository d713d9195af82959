import QtQuick 2.15
import Tarvix.Worksurface 1.0

// The master section's controls in the console's user interface, through bindings: master
// fader and mute, the six side rotaries, the headphone pot and its light, the master
// meters, the logo lights and the snapshot, layer, spill-set and overview buttons.
Rectangle {
    id: master

    property int sectionIndex: 0
    property bool signalOn: false

    property real dB: 0
    property bool muted: false
    property var sideValues: [0, 0, 0, 0, 0, 0]
    property real headphone: 0
    property color headphoneColor: "#30b0ff"
    property int levelLeft: 135
    property int levelRight: 135
    property int peakLeft: 135
    property int peakRight: 135
    property int snapshotNumber: 1
    property int layerNumber: 1
    property bool spill: false
    property bool overview: false

    readonly property alias fader: faderBinding
    readonly property alias muteButton: muteButton
    readonly property alias pot: potBinding
    readonly property alias meterLeft: meterLeft
    readonly property alias meterRight: meterRight
    function sideRotary(k) { return sideRotaries.itemAt(k).binding }
    function logo(k) { return logos.itemAt(k) }
    function button(k) { return buttons.itemAt(k) }

    width: Theme.masterWidth
    height: Theme.stripHeight
    radius: 4
    color: Theme.strip

    FaderBinding {
        id: faderBinding
        connection: Surface.connection
        type: FaderBinding.MasterFader
        sectionIndex: master.sectionIndex
        active: true
        value: master.dB
        detent: 0
        onFaderMoved: master.dB = value
    }
    ButtonBinding {
        id: muteButton
        connection: Surface.connection
        type: ButtonBinding.MasterMute
        sectionIndex: master.sectionIndex
        active: true
        onButtonPressed: master.muted = !master.muted
    }
    LedBinding {
        id: muteLed
        connection: Surface.connection
        type: LedBinding.MasterMuteButton
        sectionIndex: master.sectionIndex
        active: true
        on: master.muted
    }
    PotBinding {
        id: potBinding
        connection: Surface.connection
        type: PotBinding.Headphone
        sectionIndex: master.sectionIndex
        active: true
        // The pot's light is the headphone logo.
        color: master.headphoneColor
        onPotTurned: (value) => master.headphone = value
    }
    // Levels on the console's meter scale: 135 and below shows nothing, 255 is full.
    MeterBinding {
        id: meterLeft
        connection: Surface.connection
        type: MeterBinding.MasterLeft
        sectionIndex: master.sectionIndex
        active: true
        level: master.levelLeft
        peak: master.peakLeft
    }
    MeterBinding {
        id: meterRight
        connection: Surface.connection
        type: MeterBinding.MasterRight
        sectionIndex: master.sectionIndex
        active: true
        level: master.levelRight
        peak: master.peakRight
    }
    // A programme signal for the meters, when asked for.
    Timer {
        running: master.signalOn
        interval: 80
        repeat: true
        property real phase: 0
        onTriggered: {
            phase += 0.37
            master.levelLeft = 180 + Math.round(45 * Math.abs(Math.sin(phase)) + 20 * Math.random())
            master.levelRight = 175 + Math.round(45 * Math.abs(Math.sin(phase * 1.13)) + 20 * Math.random())
            master.peakLeft = Math.max(master.levelLeft, master.peakLeft - 2)
            master.peakRight = Math.max(master.levelRight, master.peakRight - 2)
        }
    }

    Row {
        anchors.fill: parent
        anchors.margins: 3
        spacing: 6

        // Master strip
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
                level: muteLed.on ? 1 : 0
                onPress: (held) => { if (held) master.muted = !master.muted }
            }
            FaderTrack {
                anchors.horizontalCenter: parent.horizontalCenter
                height: 150
                position: ResponseCurve.dBtoLinearConversion(master.dB, ResponseCurve.Default)
                touched: faderBinding.touched
                detent: 400
                onMoved: master.dB = ResponseCurve.linearTodBConversion(position, ResponseCurve.Default)
            }
            Text {
                anchors.horizontalCenter: parent.horizontalCenter
                text: master.dB <= -150 ? "-inf" : master.dB.toFixed(1)
                color: faderBinding.touched ? Theme.touch : Theme.text
                font.pixelSize: Theme.normal
                font.bold: true
            }
        }

        Column {
            width: 144
            spacing: 5

            // Side rotaries
            Grid {
                columns: 6
                spacing: 1
                Repeater {
                    id: sideRotaries
                    model: 6
                    Knob {
                        id: side
                        property alias binding: sideBinding
                        readonly property int slot: index
                        property color colour: Theme.palette[(index * 2 + 1) % Theme.palette.length]
                        width: 23
                        height: 23
                        ring: colour
                        touched: sideBinding.touched
                        pushed: sideBinding.pressed
                        text: master.sideValues[index]
                        onTurned: (steps) => master.bump(index, steps)
                        onClicked: colour = Theme.nextColor(colour)
                        RotaryBinding {
                            id: sideBinding
                            connection: Surface.connection
                            type: RotaryBinding.SideRotary
                            sectionIndex: master.sectionIndex
                            index: side.slot
                            active: true
                            color: side.colour
                            onRotaryRotated: (value) => master.bump(side.slot, value)
                        }
                    }
                }
            }
            // Headphone pot and master meters
            Row {
                spacing: 8
                Column {
                    spacing: 2
                    Knob {
                        width: 40
                        height: 40
                        ring: master.headphoneColor
                        text: master.headphone.toFixed(0)
                        onClicked: master.headphoneColor = Theme.nextColor(master.headphoneColor)
                    }
                    Text {
                        text: "PHONES dB"
                        color: Theme.dim
                        font.pixelSize: Theme.small - 1
                    }
                }
                MeterBar { height: 56; level: (meterLeft.level - 135) / 120; peak: (meterLeft.peak - 135) / 120; label: "L" }
                MeterBar { height: 56; level: (meterRight.level - 135) / 120; peak: (meterRight.peak - 135) / 120; label: "R" }
                Column {
                    spacing: 3
                    Text {
                        text: "SNAP " + master.snapshotNumber
                        color: Theme.text
                        font.pixelSize: Theme.small
                    }
                    Text {
                        text: "LAYER " + master.layerNumber
                        color: Theme.text
                        font.pixelSize: Theme.small
                    }
                    Text {
                        text: (master.spill ? "SPILL " : "") + (master.overview ? "OVW" : "")
                        color: Theme.amber
                        font.pixelSize: Theme.small
                    }
                }
            }
            // Logo lights
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
                        id: logo
                        property alias binding: logoBinding
                        property color colour: Theme.palette[(index * 2 + 4) % Theme.palette.length]
                        width: 26
                        height: 16
                        radius: 3
                        color: Theme.lens(colour)
                        Text {
                            anchors.centerIn: parent
                            text: modelData.name
                            color: "#101010"
                            font.pixelSize: Theme.small - 2
                            font.bold: true
                        }
                        MouseArea {
                            anchors.fill: parent
                            onClicked: logo.colour = Theme.nextColor(logo.colour)
                        }
                        RgbLedBinding {
                            id: logoBinding
                            connection: Surface.connection
                            type: modelData.type
                            sectionIndex: master.sectionIndex
                            active: true
                            color: logo.colour
                        }
                    }
                }
            }
            // Snapshot, layer, spill-set and overview buttons: the LED of a momentary
            // button lights while it is held; spill-set and overview are modes.
            Grid {
                columns: 3
                spacing: 3
                Repeater {
                    id: buttons
                    model: [
                        { button: ButtonBinding.PreviousSnapshot, led: LedBinding.PreviousSnapshotButton, name: "SNAP-" },
                        { button: ButtonBinding.NextSnapsthot, led: LedBinding.NextSnapsthotButton, name: "SNAP+" },
                        { button: ButtonBinding.Spillset, led: LedBinding.SpillsetButton, name: "SPILL" },
                        { button: ButtonBinding.LayerDown, led: LedBinding.LayerDownButton, name: "LAY-" },
                        { button: ButtonBinding.LayerUp, led: LedBinding.LayerUpButton, name: "LAY+" },
                        { button: ButtonBinding.Overview, led: LedBinding.OverviewButton, name: "OVW" }
                    ]
                    Lamp {
                        id: lamp
                        property alias binding: buttonBinding
                        property alias ledBinding: ledBinding
                        property bool holding: false
                        width: 46
                        label: modelData.name
                        led: Theme.amber
                        level: ledBinding.on ? 1 : 0
                        onPress: (held) => { if (held) master.act(modelData.button) }
                        ButtonBinding {
                            id: buttonBinding
                            connection: Surface.connection
                            type: modelData.button
                            sectionIndex: master.sectionIndex
                            active: true
                            onButtonPressed: {
                                lamp.holding = true
                                master.act(modelData.button)
                            }
                            onButtonReleased: lamp.holding = false
                        }
                        LedBinding {
                            id: ledBinding
                            connection: Surface.connection
                            type: modelData.led
                            sectionIndex: master.sectionIndex
                            active: true
                            on: modelData.button === ButtonBinding.Spillset ? master.spill
                              : modelData.button === ButtonBinding.Overview ? master.overview
                              : lamp.holding
                        }
                    }
                }
            }
        }
    }

    function bump(k, steps) {
        var values = sideValues.slice()
        values[k] += steps
        sideValues = values
    }
    function act(button) {
        switch (button) {
        case ButtonBinding.PreviousSnapshot: snapshotNumber = Math.max(1, snapshotNumber - 1); break
        case ButtonBinding.NextSnapsthot: snapshotNumber += 1; break
        case ButtonBinding.LayerDown: layerNumber = Math.max(1, layerNumber - 1); break
        case ButtonBinding.LayerUp: layerNumber += 1; break
        case ButtonBinding.Spillset: spill = !spill; break
        case ButtonBinding.Overview: overview = !overview; break
        }
    }
}
