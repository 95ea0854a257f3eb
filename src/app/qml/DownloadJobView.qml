import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Lofthaven 1.0
import "symbols.js" as Symbols
import "words.js" as Words

// One download (a row of the model's downloads): progress, unzipping, where it was saved,
// its failure or its cancellation.
Card {
    id: card
    objectName: "downloadJob"
    // The row of the model's downloads: id, name, size, state, active, received, speed, result,
    // message.
    required property var model

    ColumnLayout {
        anchors.fill: parent
        spacing: 8

        RowLayout {
            Layout.fillWidth: true
            spacing: 10
            FileIcon { fileName: card.model.name; size: 22 }
            Label { text: card.model.name; font.bold: true; elide: Text.ElideMiddle; Layout.fillWidth: true }
            Button {
                objectName: "cancelDownloadButton"
                visible: card.model.active
                text: qsTr("Cancel")
                onClicked: appModel.cancelDownload(card.model.id)
            }
            ToolButton {
                visible: !card.model.active
                icon.name: Symbols.icon("xmark")
                icon.color: theme.colors.secondaryText
                Accessible.name: qsTr("Remove")
                onClicked: appModel.removeDownload(card.model.id)
            }
        }

        ProgressLine {
            visible: card.model.state === DownloadJob.Starting || card.model.state === DownloadJob.Downloading
            Layout.fillWidth: true
            done: card.model.received
            total: card.model.size
            speed: card.model.speed
            secondsLeft: card.model.speed > 0 ? (card.model.size - card.model.received) / card.model.speed : -1
        }

        RowLayout {
            visible: card.model.state === DownloadJob.Unzipping
            BusyIndicator { running: parent.visible; implicitWidth: 20; implicitHeight: 20 }
            Label { text: qsTr("Unzipping…") }
        }

        ColumnLayout {
            visible: card.model.state === DownloadJob.Done
            Layout.fillWidth: true
            spacing: 8
            RowLayout {
                spacing: 8
                Layout.fillWidth: true
                TypeIcon { symbol: "checkmark.circle.fill"; color: theme.colors.accentText }
                Label {
                    objectName: "savedTo"
                    text: qsTr("Saved to ") + card.model.result
                    elide: Text.ElideMiddle
                    Layout.fillWidth: true
                }
            }
            RowLayout {
                Layout.alignment: Qt.AlignRight
                Button { objectName: "previewButton"; text: Words.preview(); icon.name: Symbols.icon("eye"); icon.color: palette.buttonText; onClicked: desktop.preview(card.model.result) }
                Button { objectName: "openButton"; text: qsTr("Open"); onClicked: desktop.openPath(card.model.result) }
                AccentButton { objectName: "showInFolderButton"; text: Words.showInFolder(); icon.name: Symbols.icon("folder.open"); onClicked: desktop.showInFolder(card.model.result) }
            }
        }

        ColumnLayout {
            visible: card.model.state === DownloadJob.Failed
            Layout.fillWidth: true
            RowLayout {
                spacing: 8
                Layout.fillWidth: true
                TypeIcon { symbol: "exclamationmark.triangle.fill"; color: theme.colors.warning }
                Label { objectName: "downloadError"; text: card.model.message; wrapMode: Text.Wrap; Layout.fillWidth: true }
            }
            Button {
                objectName: "retryDownloadButton"
                Layout.alignment: Qt.AlignRight
                text: qsTr("Try Again")
                onClicked: appModel.retryDownload(card.model.id)
            }
        }

        Label {
            visible: card.model.state === DownloadJob.Cancelled
            text: qsTr("Download cancelled")
            color: theme.colors.secondaryText
        }
    }
}
