import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import QtQuick.Window 2.15
import Tarvix.Worksurface 1.0

// The demo window: the console's user interface (bindings) on the left, the worksurface
// (software controls) on the right. Whatever is done on one side reaches the other only as
// frames through the plugin's queue, link and parser.
ApplicationWindow {
    id: window

    readonly property bool software: demoType === "software"
    property bool surfaceUp: false

    width: 1600
    height: 900
    visible: true
    title: "Tarvix worksurface demo \u2014 " + demoModel + ", " + demoType + " surface"
    color: Theme.background
    font.pixelSize: 12

    palette.window: Theme.panel
    palette.windowText: Theme.text
    palette.base: Theme.well
    palette.text: Theme.text
    palette.button: Theme.strip
    palette.buttonText: Theme.text
    palette.highlight: Theme.accent
    palette.highlightedText: "#ffffff"
    palette.mid: Theme.line
    palette.dark: Theme.well
    palette.light: Theme.line

    Component.onCompleted: {
        // The walk-through prints its own lines; the plugin's debug lines would bury them.
        Surface.settings.debugEnabled = !demoWalkthrough
        Surface.settings.type = software ? SurfaceSettings.Software : SurfaceSettings.Hardware
        Surface.settings.mode = demoModel === "K40" ? SurfaceSettings.K40 : SurfaceSettings.K60
        // Real sections may be unplugged, power-cycled or still booting: their links try
        // again every two seconds. The software sections are unplugged from the fault panel:
        // theirs come back within half a second.
        Surface.settings.reconnectInterval = software ? 500 : 2000
        // An update whose section stops answering (pulled, silent, power-cycled) fails and
        // runs again by itself once the section is back.
        Surface.settings.updateTimeout = software ? 2000 : 5000
        Surface.connect()
        tour.running = demoWalkthrough
    }

    // The surface is up once every section has answered the link's first ping.
    Timer {
        running: !window.surfaceUp
        interval: 50
        repeat: true
        onTriggered: {
            if (Surface.sectionCount === 0)
                return
            for (var s = 0; s < Surface.sectionCount; ++s) {
                if (Surface.section(s).version === 0)
                    return
            }
            window.surfaceUp = true
        }
    }

    // --screenshot without --walkthrough: a picture once the surface is up (a hardware
    // surface may never come up on this machine), then carry on.
    Timer {
        running: !demoWalkthrough && demoScreenshot !== "" && (window.surfaceUp || !window.software)
        interval: 2000
        onTriggered: {
            if (demoHost.saveScreenshot(window, demoScreenshot))
                demoHost.print("screenshot saved to " + demoScreenshot)
        }
    }

    GlobalSurfaceBinding {
        id: globalBinding
        connection: Surface.connection
        surfaceBrightness: Math.round(brightness.value)
    }

    header: ToolBar {
        height: 44
        background: Rectangle { color: Theme.panel }
        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: 10
            anchors.rightMargin: 10
            spacing: 12

            Label {
                text: "Tarvix.Worksurface \u2014 " + demoModel + ", " + Surface.sectionCount
                      + " sections, " + demoType + " surface"
                font.bold: true
                font.pixelSize: 13
            }
            Button {
                text: Surface.isCalibrating ? "Calibrating\u2026" : "Calibrate faders"
                enabled: !Surface.isCalibrating
                onClicked: Surface.calibrate()
            }
            Label { text: "Surface brightness" }
            Slider {
                id: brightness
                from: 0
                to: 255
                value: 200
                Layout.preferredWidth: 110
            }
            Label { text: globalBinding.surfaceBrightness }
            ComboBox {
                id: restMode
                model: ["Rest: force minimum", "Rest: keep current"]
                Layout.preferredWidth: 150
                onActivated: (index) => Surface.faders.restMode =
                             index === 0 ? RestMode.ForceMinimum : RestMode.KeepCurrent
            }
            Switch { id: bound; text: "Faders bound"; checked: true }
            Switch { id: detent; text: "Detent at 0 dB"; checked: true }
            Switch { id: lock; text: "Lock faders"; checked: false }
            Switch { id: signal; text: "Meter signal"; checked: !demoWalkthrough }
            Item { Layout.fillWidth: true }
        }
    }

    RowLayout {
        anchors.fill: parent
        anchors.margins: 8
        spacing: 8

        ConsolePanel {
            id: consolePanel
            Layout.fillWidth: true
            Layout.fillHeight: true
            fadersBound: bound.checked
            detentOn: detent.checked
            lockOn: lock.checked
            signalOn: signal.checked
        }
        WorksurfacePanel {
            id: worksurfacePanel
            Layout.fillWidth: true
            Layout.fillHeight: true
            software: window.software
            autoFinishCalibration: !demoWalkthrough
        }
    }

    footer: Rectangle {
        height: 24
        color: Theme.panel
        Text {
            anchors.verticalCenter: parent.verticalCenter
            x: 10
            text: tour.status !== "" ? tour.status
                : "Drag a console fader and the software fader's motor follows; drag a software fader "
                  + "and the console's dB follows. Turn knobs with a drag or the wheel; click lights to change colour."
            color: Theme.dim
            font.pixelSize: Theme.normal
        }
    }

    Walkthrough {
        id: tour
        consolePanel: consolePanel
        worksurfacePanel: worksurfacePanel
        globalBinding: globalBinding
        onFinished: {
            var saved = demoScreenshot === "" || demoHost.saveScreenshot(window, demoScreenshot)
            if (demoScreenshot !== "")
                demoHost.print(saved ? "screenshot saved to " + demoScreenshot
                                     : "screenshot could not be saved to " + demoScreenshot)
            demoHost.exit(tour.failed === 0 && saved ? 0 : 1)
        }
    }
}
