import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "symbols.js" as Symbols

// A newer version is available: download it, or dismiss this version.
Rectangle {
    objectName: "updateBanner"
    visible: appModel.update.version !== undefined
    implicitHeight: visible ? row.implicitHeight + 12 : 0
    color: theme.colors.dropZone
    RowLayout {
        id: row
        anchors.fill: parent
        anchors.leftMargin: 16
        anchors.rightMargin: 8
        spacing: 10
        TypeIcon { symbol: "arrow.down.app.fill"; color: theme.colors.accentText }
        Label {
            objectName: "updateText"
            text: qsTr("Lofthaven ") + (appModel.update.version || "") + qsTr(" is available")
            Layout.fillWidth: true
            elide: Text.ElideRight
        }
        Button {
            objectName: "updateDownload"
            text: qsTr("Download")
            onClicked: desktop.openUrl(appModel.update.downloadLink)
        }
        ToolButton {
            objectName: "updateDismiss"
            icon.name: Symbols.icon("xmark")
            icon.color: theme.colors.text
            Accessible.name: qsTr("Dismiss")
            onClicked: appModel.dismissUpdate()
        }
    }
}
