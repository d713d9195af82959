import QtQuick 2.15
import Tarvix.Worksurface 1.0

// The worksurface itself, played by software controls: every section of the model with its
// microcontroller (SectionControl: version, temperature, calibration), its strips and, on
// the master section, the master controls. Everything here reaches the plugin as frames
// through the software link, as the sections' serial lines would carry them.
Rectangle {
    id: panel

    property bool software: true
    property bool autoFinishCalibration: true

    function section(s) { return sections.itemAt(s) }
    function strip(s, i) { return sections.itemAt(s).strip(i) }
    function master() { return sections.itemAt(Surface.masterSectionIndex).master }

    color: Theme.panel
    radius: 6

    Text {
        id: title
        x: 10
        y: 6
        text: panel.software ? "Worksurface \u2014 software controls"
                             : "Worksurface \u2014 software controls idle: the hardware sections are on their serial lines"
        color: panel.software ? Theme.good : Theme.dim
        font.pixelSize: 14
        font.bold: true
    }

    Column {
        anchors.top: title.bottom
        anchors.topMargin: 6
        x: 8
        spacing: 8
        opacity: panel.software ? 1 : 0.4

        Repeater {
            id: sections
            model: Surface.sectionCount

            Column {
                id: section
                readonly property int sectionIndex: index
                readonly property bool isMaster: index === Surface.masterSectionIndex
                readonly property alias control: sectionControl
                readonly property alias master: masterLoader.item
                function strip(i) { return strips.itemAt(i) }
                spacing: 3

                SectionControl {
                    id: sectionControl
                    connection: Surface.connection
                    sectionIndex: section.sectionIndex
                    temperature: 41 + 3 * section.sectionIndex
                    // The new firmware shows once the section runs it.
                    onBootloaderChanged: if (!bootloader && flashStatus === 0x40) versionMinor += 1
                }
                // A real section takes a few seconds to calibrate its faders.
                Timer {
                    running: panel.autoFinishCalibration && sectionControl.calibrating
                    interval: 2500
                    onTriggered: sectionControl.stopCalibration()
                }

                Row {
                    spacing: 6
                    height: 15
                    Text {
                        text: "Section " + section.sectionIndex + (section.isMaster ? " (master)" : "")
                              + "   SectionControl: firmware " + sectionControl.versionMajor + "."
                              + sectionControl.versionMinor + ","
                        color: Theme.text
                        font.pixelSize: Theme.small + 1
                    }
                    Text {
                        text: "\u2212"
                        color: Theme.accent
                        font.pixelSize: Theme.small + 1
                        font.bold: true
                        MouseArea { anchors.fill: parent; anchors.margins: -3; onClicked: sectionControl.temperature -= 1 }
                    }
                    Text {
                        text: sectionControl.temperature + " \u00b0C"
                        color: Theme.text
                        font.pixelSize: Theme.small + 1
                    }
                    Text {
                        text: "+"
                        color: Theme.accent
                        font.pixelSize: Theme.small + 1
                        font.bold: true
                        MouseArea { anchors.fill: parent; anchors.margins: -3; onClicked: sectionControl.temperature += 1 }
                    }
                    // The fault panel: what a real section can do to its link.
                    Repeater {
                        model: [
                            { label: "answering", on: sectionControl.answering,
                              toggle: function () { sectionControl.answering = !sectionControl.answering } },
                            { label: "plugged", on: sectionControl.plugged,
                              toggle: function () { sectionControl.plugged = !sectionControl.plugged } },
                            { label: "bootloader", on: sectionControl.bootloader,
                              toggle: function () { sectionControl.bootloader = !sectionControl.bootloader } },
                            { label: "flash failure", on: sectionControl.flashStatus !== 0x40,
                              toggle: function () { sectionControl.flashStatus = sectionControl.flashStatus === 0x40 ? 0x44 : 0x40 } }
                        ]
                        Text {
                            text: (modelData.on ? "\u25a0 " : "\u25a1 ") + modelData.label
                            color: modelData.on ? Theme.good : Theme.mute
                            font.pixelSize: Theme.small + 1
                            MouseArea { anchors.fill: parent; anchors.margins: -3; onClicked: modelData.toggle() }
                        }
                    }
                    Text {
                        text: "\u21bb power cycle"
                        color: Theme.accent
                        font.pixelSize: Theme.small + 1
                        MouseArea { anchors.fill: parent; anchors.margins: -3; onClicked: sectionControl.powerCycle() }
                    }
                    Text {
                        visible: sectionControl.bootloader || sectionControl.receivedBytes > 0
                        text: "image " + sectionControl.receivedBytes + " B"
                        color: Theme.dim
                        font.pixelSize: Theme.small + 1
                    }
                    Text {
                        visible: sectionControl.calibrating
                        text: "calibrating faders\u2026  [finish]"
                        color: Theme.touch
                        font.pixelSize: Theme.small + 1
                        MouseArea { anchors.fill: parent; onClicked: sectionControl.stopCalibration() }
                    }
                }
                Row {
                    spacing: 2
                    Repeater {
                        id: strips
                        model: Surface.sectionStripCount
                        WorksurfaceStrip {
                            sectionIndex: section.sectionIndex
                            stripIndex: index
                        }
                    }
                    Item { width: 4; height: 1 }
                    Loader {
                        id: masterLoader
                        active: section.isMaster
                        sourceComponent: WorksurfaceMaster {
                            sectionIndex: section.sectionIndex
                        }
                    }
                }
            }
        }
    }
}
