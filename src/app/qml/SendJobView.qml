import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Lofthaven 1.0
import "symbols.js" as Symbols

// One send: progress while it runs, then its result, its failure or its cancellation.
// `compact` is the form of the "Other transfers" list.
Item {
    id: view
    property var job: null
    property bool compact: false
    readonly property int state: job ? job.state : -1
    readonly property bool running: job !== null && job.active

    implicitHeight: loader.implicitHeight
    implicitWidth: loader.implicitWidth

    Loader {
        id: loader
        width: parent.width
        sourceComponent: {
            if (!view.job)
                return null
            if (view.running)
                return runningView
            if (view.state === SendJob.Done)
                return view.compact ? compactDoneView : doneView
            if (view.state === SendJob.Failed)
                return failedView
            return cancelledView
        }
    }

    Component {
        id: runningView
        Card {
            objectName: "runningJob"
            ColumnLayout {
                anchors.fill: parent
                spacing: 8
                RowLayout {
                    Layout.fillWidth: true
                    FileIcon { fileName: view.job.name; size: 22 }
                    Label { text: view.job.name; font.bold: true; elide: Text.ElideMiddle; Layout.fillWidth: true }
                    Button { objectName: "cancelJobButton"; text: qsTr("Cancel"); onClicked: appModel.cancelJob(view.job.id) }
                }
                ProgressLine {
                    Layout.fillWidth: true
                    done: view.job.sent
                    total: view.job.size
                    speed: view.job.speed
                    secondsLeft: view.job.secondsLeft
                }
            }
        }
    }

    Component {
        id: doneView
        ResultCard { job: view.job }
    }

    Component {
        id: compactDoneView
        Card {
            padding: 10
            RowLayout {
                anchors.fill: parent
                spacing: 10
                FileIcon { fileName: view.job.name; size: 22 }
                Label { text: view.job.name; elide: Text.ElideMiddle; Layout.fillWidth: true }
                Label {
                    text: view.job.toSelf ? qsTr("Sent to your devices") : desktop.formatCode(view.job.code)
                    font.bold: true
                }
                Button { visible: !view.job.toSelf; text: qsTr("Copy link"); onClicked: desktop.copyText(view.job.url) }
                Button { text: qsTr("Clear"); onClicked: appModel.dismissJob(view.job.id) }
            }
        }
    }

    Component {
        id: failedView
        Card {
            objectName: "failedJob"
            ColumnLayout {
                anchors.fill: parent
                spacing: 8
                RowLayout {
                    Layout.fillWidth: true
                    spacing: 10
                    TypeIcon { symbol: "exclamationmark.triangle.fill"; size: 22; color: theme.colors.warning }
                    Label {
                        objectName: "failedTitle"
                        text: qsTr("Couldn't send ") + view.job.name
                        font.bold: true
                        elide: Text.ElideMiddle
                        Layout.fillWidth: true
                    }
                }
                Label {
                    objectName: "failedMessage"
                    text: view.job.message
                    wrapMode: Text.Wrap
                    color: theme.colors.secondaryText
                    Layout.fillWidth: true
                }
                RowLayout {
                    Layout.alignment: Qt.AlignRight
                    Button { objectName: "closeJobButton"; text: qsTr("Close"); onClicked: appModel.dismissJob(view.job.id) }
                    AccentButton { objectName: "tryAgainButton"; text: qsTr("Try Again"); onClicked: appModel.retryJob(view.job.id) }
                }
            }
        }
    }

    Component {
        id: cancelledView
        Card {
            objectName: "cancelledJob"
            padding: 12
            RowLayout {
                anchors.fill: parent
                spacing: 10
                TypeIcon { symbol: "xmark.circle"; size: 20; color: theme.colors.secondaryText }
                Label { text: qsTr("Cancelled"); font.bold: true }
                Label { text: view.job.name; color: theme.colors.secondaryText; elide: Text.ElideMiddle; Layout.fillWidth: true }
                Button { objectName: "clearJobButton"; text: qsTr("Clear"); onClicked: appModel.dismissJob(view.job.id) }
            }
        }
    }
}
