import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "symbols.js" as Symbols

// A found transfer: what it is, until when, from where, and the download with its options.
Card {
    id: card
    objectName: "transferCard"
    property var transfer: ({})
    readonly property bool zipped: transfer.isZip === true
                                   || (transfer.isZip === undefined && String(transfer.name || "").toLowerCase().endsWith(".zip"))
    readonly property int shownFiles: transfer.files ? Math.min(transfer.files.length, 5) : 0
    readonly property int moreFiles: (transfer.fileCount || 0) - shownFiles

    ColumnLayout {
        anchors.fill: parent
        spacing: 8

        RowLayout {
            Layout.fillWidth: true
            spacing: 12
            FileIcon { fileName: card.transfer.name || ""; isFolder: card.zipped && (card.transfer.fileCount || 0) > 1; size: 36 }
            ColumnLayout {
                spacing: 2
                Layout.fillWidth: true
                Label {
                    objectName: "transferName"
                    text: card.transfer.title || card.transfer.name || ""
                    font.bold: true
                    font.pixelSize: Qt.application.font.pixelSize * 1.2
                    elide: Text.ElideMiddle
                    Layout.fillWidth: true
                }
                Label {
                    objectName: "transferDetails"
                    color: theme.colors.secondaryText
                    elide: Text.ElideRight
                    Layout.fillWidth: true
                    text: {
                        var parts = [desktop.formatBytes(card.transfer.size || 0)]
                        if ((card.transfer.fileCount || 0) > 1)
                            parts.push(card.transfer.fileCount + qsTr(" files"))
                        if (card.transfer.expiresAt)
                            parts.push(qsTr("expires ") + desktop.formatTime(card.transfer.expiresAt))
                        if (card.transfer.toSelf && card.transfer.device)
                            parts.push(qsTr("from ") + card.transfer.device)
                        return parts.join("  ·  ")
                    }
                }
            }
        }

        Label {
            visible: !!card.transfer.message
            text: card.transfer.message || ""
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }

        Repeater {
            model: card.shownFiles
            Label {
                required property int index
                text: card.transfer.files[index].path || card.transfer.files[index].name || ""
                color: theme.colors.secondaryText
                elide: Text.ElideMiddle
                Layout.fillWidth: true
                leftPadding: 48
            }
        }
        Label {
            visible: card.shownFiles > 0 && card.moreFiles > 0
            text: card.moreFiles + qsTr(" more")
            color: theme.colors.secondaryText
            leftPadding: 48
        }

        RowLayout {
            visible: card.transfer.hasPassword === true
            Layout.fillWidth: true
            spacing: 8
            Label { text: qsTr("password protected"); color: theme.colors.warning }
            TextField {
                objectName: "receivePasswordField"
                Layout.fillWidth: true
                placeholderText: qsTr("Password")
                echoMode: TextInput.Password
                text: appModel.receivePassword
                onTextEdited: appModel.receivePassword = text
            }
        }

        Switch {
            id: unzip
            objectName: "unzipSwitch"
            visible: card.zipped
            text: qsTr("Unzip after download")
            checked: desktop.unzipAfterDownload
            onToggled: desktop.unzipAfterDownload = checked
            leftPadding: 0
        }

        RowLayout {
            Layout.fillWidth: true
            Label {
                objectName: "savesTo"
                text: qsTr("Saves to ") + desktop.downloadFolderName
                color: theme.colors.secondaryText
                Layout.fillWidth: true
                elide: Text.ElideMiddle
            }
            AccentButton {
                objectName: "downloadButton"
                text: qsTr("Download")
                icon.name: Symbols.icon("arrow.down.circle.fill")
                onClicked: appModel.downloadFound(card.zipped ? unzip.checked : undefined)
            }
        }
    }
}
