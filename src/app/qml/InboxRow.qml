import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "symbols.js" as Symbols

// One transfer in the devices inbox (a row of the model's inbox).
Card {
    id: row
    objectName: "inboxRow"
    // The inbox row: id, name, size, fileCount, expiresAt, device, isNew, url, isZip.
    required property var model
    padding: 12

    RowLayout {
        anchors.fill: parent
        spacing: 12
        Rectangle {
            visible: row.model.isNew
            width: 8; height: 8; radius: 4
            color: theme.colors.accent
            Accessible.name: qsTr("New")
        }
        FileIcon { fileName: row.model.name; size: 26 }
        ColumnLayout {
            spacing: 2
            Layout.fillWidth: true
            Label { text: row.model.title || row.model.name; font.bold: true; elide: Text.ElideMiddle; Layout.fillWidth: true }
            Label {
                color: theme.colors.secondaryText
                elide: Text.ElideRight
                Layout.fillWidth: true
                text: {
                    var parts = [desktop.formatBytes(row.model.size)]
                    if (row.model.device)
                        parts.push(qsTr("from ") + row.model.device)
                    if (row.model.expiresAt)
                        parts.push(qsTr("expires ") + desktop.formatTime(row.model.expiresAt))
                    return parts.join("  ·  ")
                }
            }
        }
        ToolButton {
            visible: !!row.model.url
            icon.name: Symbols.icon("link")
            icon.color: theme.colors.text
            Accessible.name: qsTr("Copy link")
            ToolTip.visible: hovered
            ToolTip.text: qsTr("Copy link")
            onClicked: desktop.copyText(row.model.url)
        }
        Button {
            objectName: "inboxDownload"
            text: qsTr("Download")
            icon.name: Symbols.icon("arrow.down.circle.fill")
            icon.color: palette.buttonText
            onClicked: { appModel.downloadInboxItem(row.model.id); appModel.tab = 1 }
        }
    }
}
