pragma Singleton
import QtQuick 2.15

// Colours and sizes shared by both halves of the demo window.
QtObject {
    readonly property color background: "#16181c"
    readonly property color panel: "#1f2227"
    readonly property color strip: "#2a2e35"
    readonly property color well: "#111316"
    readonly property color line: "#3b414a"
    readonly property color text: "#e4e7eb"
    readonly property color dim: "#8b939e"
    readonly property color accent: "#4fa3ff"
    readonly property color touch: "#ff9f1c"
    readonly property color mute: "#ff4b4b"
    readonly property color solo: "#ffd23f"
    readonly property color amber: "#ffb347"
    readonly property color good: "#5fd068"
    readonly property color bad: "#ff5f5f"
    readonly property int small: 10
    readonly property int normal: 12
    readonly property int stripWidth: 54
    readonly property int stripHeight: 226
    readonly property int masterWidth: 206

    // Colours the demo cycles through when a light is clicked.
    readonly property var palette: ["#ff3b30", "#ff9500", "#ffcc00", "#34c759", "#00c7be",
                                    "#30b0ff", "#5856d6", "#af52de", "#ff2d92", "#ffffff"]
    function nextColor(current) {
        for (var i = 0; i < palette.length; ++i) {
            if (Qt.colorEqual(palette[i], current))
                return palette[(i + 1) % palette.length]
        }
        return palette[0]
    }
    // What a light looks like on screen: black (off) is drawn as an unlit lens.
    function lens(c) {
        return Qt.colorEqual(c, "black") || c.a === 0 ? "#30343a" : c
    }
}
