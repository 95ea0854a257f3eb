import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Lofthaven 1.0

// A drop zone of the tray panel: its caption, or the progress and outcome of the send its
// last drop started.
DropZone {
    id: zone
    property string caption
    property var job: null
    // What a finished send says in place of the caption.
    property string doneText

    stages: false
    compact: true
    implicitHeight: job && job.active ? 112 : 88

    ColumnLayout {
        Layout.preferredWidth: Math.min(260, zone.width - 32)
        spacing: 4
        Label {
            objectName: "panelZoneCaption"
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.Wrap
            visible: !zone.job || !zone.job.active
            color: zone.job && zone.job.state === SendJob.Failed ? theme.colors.error
                                                                  : theme.colors.secondaryText
            text: {
                if (!zone.job)
                    return zone.caption
                switch (zone.job.state) {
                case SendJob.Done: return zone.doneText
                case SendJob.Failed: return zone.job.message
                case SendJob.Cancelled: return qsTr("Cancelled")
                }
                return zone.caption
            }
        }
        Label {
            Layout.fillWidth: true
            visible: !!zone.job && zone.job.active
            text: zone.job ? zone.job.name : ""
            elide: Text.ElideMiddle
            horizontalAlignment: Text.AlignHCenter
        }
        ProgressLine {
            objectName: "panelZoneProgress"
            Layout.fillWidth: true
            visible: !!zone.job && zone.job.active
            done: zone.job ? zone.job.sent : 0
            total: zone.job ? zone.job.size : 0
            speed: zone.job ? zone.job.speed : 0
            secondsLeft: zone.job ? zone.job.secondsLeft : -1
        }
    }
}
