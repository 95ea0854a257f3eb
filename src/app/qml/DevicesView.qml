import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "symbols.js" as Symbols

// Files sent to the user's devices; the sign-in prompt while signed out.
Item {
    id: view
    objectName: "devicesView"

    onVisibleChanged: if (visible && appModel.signedIn) appModel.refreshInbox(false)

    SignInPrompt {
        visible: !appModel.signedIn
        anchors.centerIn: parent
        width: Math.min(parent.width - 48, 480)
    }

    ColumnLayout {
        visible: appModel.signedIn
        // The same centred column as Send and Receive.
        anchors.top: parent.top
        anchors.bottom: parent.bottom
        anchors.margins: 24
        anchors.horizontalCenter: parent.horizontalCenter
        width: Math.min(parent.width - 48, 720)
        spacing: 12

        RowLayout {
            Layout.fillWidth: true
            TypeIcon { symbol: "laptopcomputer.and.iphone"; size: 24; color: theme.colors.accentText }
            Label { text: qsTr("My devices"); font.bold: true; font.pixelSize: Qt.application.font.pixelSize * 1.3; Layout.fillWidth: true }
            ToolButton {
                objectName: "refreshInbox"
                icon.name: Symbols.icon("arrow.clockwise")
                icon.color: theme.colors.text
                Accessible.name: qsTr("Refresh")
                ToolTip.visible: hovered
                ToolTip.text: qsTr("Refresh")
                onClicked: appModel.refreshInbox(true)
            }
        }
        Label {
            visible: appModel.inboxError !== ""
            text: appModel.inboxError
            color: theme.colors.error
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        Label {
            objectName: "inboxEmpty"
            visible: appModel.inbox.count === 0 && appModel.inboxError === ""
            text: qsTr("Nothing here yet. Files you send to your devices from your phone, the web or another computer show up here.")
            color: theme.colors.secondaryText
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        ListView {
            objectName: "inboxList"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            spacing: 8
            model: appModel.inbox
            delegate: InboxRow { width: ListView.view.width }
            ScrollBar.vertical: ScrollBar {}
        }
    }
}
