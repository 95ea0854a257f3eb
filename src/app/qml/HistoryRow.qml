import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "symbols.js" as Symbols

// One past send (a row of the model's history): its code and link, and extend, delete, forget.
Card {
    id: row
    objectName: "historyRow"
    // The history row: id, code, url, name, size, expiresAt, createdAt, fileCount, toSelf, extended.
    required property var model
    readonly property string transferId: row.model.id
    readonly property bool expired: row.model.expiresAt.getTime() < Date.now()
    padding: 12

    RowLayout {
        anchors.fill: parent
        spacing: 12
        FileIcon { fileName: row.model.name; size: 26 }
        ColumnLayout {
            spacing: 2
            Layout.fillWidth: true
            Label { text: row.model.name; font.bold: true; elide: Text.ElideMiddle; Layout.fillWidth: true }
            Label {
                objectName: "historyDetails"
                color: theme.colors.secondaryText
                // Narrow rows wrap between the parts, never inside one ("expires 26 Nov…").
                wrapMode: Text.Wrap
                maximumLineCount: 2
                elide: Text.ElideRight
                Layout.fillWidth: true
                text: {
                    var parts = []
                    if (row.model.toSelf)
                        parts.push(qsTr("Sent to your devices"))
                    else
                        parts.push(qsTr("Code ") + desktop.formatCode(row.model.code))
                    parts.push(desktop.formatBytes(row.model.size))
                    parts.push(row.expired ? qsTr("expired") : qsTr("expires ") + desktop.formatTime(row.model.expiresAt))
                    return parts.map(function (part) { return part.replace(/ /g, "\u00a0") }).join("  ·  ")
                }
            }
        }
        ToolButton {
            objectName: "historyCopyLink"
            enabled: !row.expired
            icon.name: Symbols.icon("link")
            icon.color: theme.colors.text
            Accessible.name: qsTr("Copy link")
            ToolTip.visible: hovered
            ToolTip.text: qsTr("Copy link")
            onClicked: desktop.copyText(row.model.url)
        }
        ToolButton {
            objectName: "historyQr"
            enabled: !row.expired
            icon.name: Symbols.icon("qrcode")
            icon.color: theme.colors.text
            Accessible.name: qsTr("Show QR code")
            ToolTip.visible: hovered
            ToolTip.text: qsTr("Show QR code")
            onClicked: ApplicationWindow.window.showQr(row.model.url, row.model.name)
        }
        Button {
            objectName: "historyExtend"
            visible: !row.model.extended && !row.expired
            text: qsTr("Extend")
            onClicked: appModel.extend(row.model.id)
        }
        Button {
            objectName: "historyDelete"
            visible: !row.expired
            text: qsTr("Delete")
            onClicked: appModel.deleteTransfer(row.model.id)
        }
        Button {
            objectName: "historyForget"
            text: qsTr("Forget")
            flat: true
            onClicked: appModel.forget(row.model.id)
        }
    }
}
