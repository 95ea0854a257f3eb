import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// Bytes done of the total, speed and time left, with a bar; "Starting…" before the first bytes.
ColumnLayout {
    property real done: 0
    property real total: 0
    property real speed: 0
    property real secondsLeft: -1
    spacing: 4

    ProgressBar {
        Layout.fillWidth: true
        from: 0
        to: Math.max(1, parent.total)
        value: parent.done
        indeterminate: parent.done <= 0
    }
    Label {
        objectName: "progressText"
        Layout.fillWidth: true
        elide: Text.ElideRight
        color: theme.colors.secondaryText
        text: {
            if (parent.done <= 0)
                return qsTr("Starting…")
            var parts = [desktop.formatBytes(parent.done) + qsTr(" of ") + desktop.formatBytes(parent.total)]
            var speed = desktop.formatSpeed(parent.speed)
            if (speed !== "")
                parts.push(speed)
            var left = desktop.formatTimeLeft(parent.secondsLeft)
            if (left !== "")
                parts.push(left + qsTr(" left"))
            return parts.join("  ·  ")
        }
    }
}
