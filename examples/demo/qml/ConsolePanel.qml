import QtQuick 2.15
import Tarvix.Worksurface 1.0

// The console's user interface: every section of the model, built only from bindings and
// Surface.section(i).
Rectangle {
    id: panel

    property bool fadersBound: true
    property bool detentOn: true
    property bool lockOn: false
    property bool signalOn: false

    function section(s) { return sections.itemAt(s) }
    function strip(s, i) { return sections.itemAt(s).strip(i) }
    function master() { return sections.itemAt(Surface.masterSectionIndex).master }

    color: Theme.panel
    radius: 6

    Text {
        id: title
        x: 10
        y: 6
        text: "Console user interface \u2014 bindings"
        color: Theme.accent
        font.pixelSize: 14
        font.bold: true
    }

    Column {
        anchors.top: title.bottom
        anchors.topMargin: 6
        x: 8
        spacing: 8

        Repeater {
            id: sections
            model: Surface.sectionCount

            Column {
                id: section
                readonly property int sectionIndex: index
                readonly property var info: Surface.section(index)
                readonly property bool isMaster: index === Surface.masterSectionIndex
                readonly property alias master: masterLoader.item
                function strip(i) { return strips.itemAt(i) }
                spacing: 3

                Text {
                    // The link's own state names, in SectionInfoModel.LinkState's order.
                    readonly property var linkNames: ["connected", "closed", "connecting", "updating",
                                                      "calibrating", "serial error", "no response"]
                    readonly property bool linkUp: section.info.linkState === SectionInfoModel.Connected
                    text: {
                        var info = section.info
                        var link = info.updating ? "updating " + info.updateProgress + "%"
                                 : (linkNames[info.linkState] || "state " + info.linkState)
                        if (!info.updating && info.lastUpdateFailure >= 0)
                            link += " (last update failed: reason " + info.lastUpdateFailure + ")"
                        return "Section " + section.sectionIndex + (section.isMaster ? " (master)" : "")
                            + "   firmware " + (info.version > 0 ? info.version : "\u2013")
                            + "   " + (info.version > 0 ? info.temperature + " \u00b0C" : "")
                            + "   link " + link
                            + (info.portName !== "" ? "   " + info.portName : "")
                            + (info.portError !== "" ? "   \u26a0 " + info.portError : "")
                    }
                    color: linkUp ? Theme.text : section.info.portError !== "" ? Theme.mute : Theme.dim
                    font.pixelSize: Theme.small + 1
                }
                Row {
                    spacing: 2
                    Repeater {
                        id: strips
                        model: Surface.sectionStripCount
                        ConsoleStrip {
                            sectionIndex: section.sectionIndex
                            stripIndex: index
                            bound: panel.fadersBound
                            detentOn: panel.detentOn
                            lockOn: panel.lockOn
                            dB: [-150, -30, -12, -6, -3, 0, -8, -20, -45, -4.5][index]
                        }
                    }
                    Item { width: 4; height: 1 }
                    Loader {
                        id: masterLoader
                        active: section.isMaster
                        sourceComponent: ConsoleMaster {
                            sectionIndex: section.sectionIndex
                            signalOn: panel.signalOn
                        }
                    }
                }
            }
        }
    }
}
