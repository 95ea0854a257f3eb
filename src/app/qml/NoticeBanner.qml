import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "symbols.js" as Symbols

// The model's notice, until closed.
Rectangle {
    objectName: "noticeBanner"
    visible: appModel.notice !== ""
    implicitHeight: visible ? row.implicitHeight + 16 : 0
    color: theme.colors.banner
    RowLayout {
        id: row
        anchors.fill: parent
        anchors.leftMargin: 16
        anchors.rightMargin: 8
        spacing: 10
        TypeIcon { symbol: "info.circle.fill"; color: theme.colors.accentText }
        Label {
            objectName: "noticeText"
            text: appModel.notice
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        ToolButton {
            objectName: "noticeClose"
            icon.name: Symbols.icon("xmark")
            icon.color: theme.colors.text
            Accessible.name: qsTr("Close")
            onClicked: appModel.clearNotice()
        }
    }
}
