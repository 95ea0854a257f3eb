import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "symbols.js" as Symbols

// The send screen: drop or choose files, check the plan and options, send, and follow the job.
ScrollView {
    id: view
    objectName: "sendView"
    contentWidth: availableWidth
    clip: true

    readonly property var focusedJob: {
        appModel.jobs.count
        return appModel.focusedJobID !== "" ? appModel.jobs.find(appModel.focusedJobID) : null
    }
    readonly property bool staging: appModel.staged.length > 0
    readonly property bool showingJob: !staging && focusedJob !== null

    ColumnLayout {
        width: Math.min(view.availableWidth - 48, 720)
        x: (view.availableWidth - width) / 2
        spacing: 14

        Item { implicitHeight: 6 }

        Label {
            objectName: "limitsLine"
            Layout.fillWidth: true
            wrapMode: Text.Wrap
            color: theme.colors.secondaryText
            text: appModel.signedIn && appModel.maxBytes > 0
                  ? qsTr("Up to ") + desktop.formatBytes(appModel.maxBytes) + qsTr(" per transfer. Folders are zipped while uploading.")
                  : qsTr("Up to 500 MB without an account, 2 GB free with one. Folders are zipped while uploading.")
        }

        DropZone {
            objectName: "dropZone"
            visible: !view.staging && !view.showingJob
            Layout.fillWidth: true
            text: qsTr("Drop files or folders here")
            Button {
                objectName: "chooseFilesButton"
                text: qsTr("Choose Files…")
                icon.name: Symbols.icon("folder")
                icon.color: palette.buttonText
                onClicked: ApplicationWindow.window.chooseFiles()
            }
            Button {
                objectName: "chooseFolderButton"
                text: qsTr("Choose Folder…")
                icon.name: Symbols.icon("folder")
                icon.color: palette.buttonText
                onClicked: ApplicationWindow.window.chooseFolder()
            }
            Button {
                objectName: "pasteButton"
                text: qsTr("Paste")
                icon.name: Symbols.icon("doc.on.clipboard")
                icon.color: palette.buttonText
                onClicked: ApplicationWindow.window.pasteFiles()
            }
        }

        SendJobView {
            objectName: "focusedJobView"
            visible: view.showingJob
            job: view.showingJob ? view.focusedJob : null
            Layout.fillWidth: true
        }

        StagingPanel {
            visible: view.staging
            Layout.fillWidth: true
        }

        OptionsForm {
            visible: view.staging
            Layout.fillWidth: true
        }

        RowLayout {
            visible: view.staging
            Layout.fillWidth: true
            Item { Layout.fillWidth: true }
            AccentButton {
                objectName: "sendButton"
                enabled: !appModel.planning && appModel.stagedPlan.name !== undefined && appModel.stagedError === ""
                text: appModel.toSelf ? qsTr("Send to My Devices") : qsTr("Send")
                icon.name: Symbols.icon("paperplane.fill")
                font.bold: true
                onClicked: appModel.send()
            }
        }

        Label {
            objectName: "otherTransfersTitle"
            visible: appModel.jobs.count - (view.showingJob ? 1 : 0) > 0
            text: qsTr("Other transfers")
            font.bold: true
            Layout.topMargin: 8
        }
        Repeater {
            model: appModel.jobs
            SendJobView {
                required property var model
                job: model.job
                compact: true
                visible: !(view.showingJob && model.id === appModel.focusedJobID)
                Layout.fillWidth: true
            }
        }
        Item { implicitHeight: 12 }
    }
}
