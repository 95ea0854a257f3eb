import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// Where signing in is needed: what it gives, and the button that starts it.
ColumnLayout {
    objectName: "signInPrompt"
    spacing: 12
    TypeIcon { symbol: "laptopcomputer.and.iphone"; size: 56; color: theme.colors.accentText; Layout.alignment: Qt.AlignHCenter }
    Label { text: qsTr("My devices"); font.bold: true; font.pixelSize: Qt.application.font.pixelSize * 1.4; Layout.alignment: Qt.AlignHCenter }
    Label {
        objectName: "signInPromptText"
        text: qsTr("Sign in to see files from your phone and other computers, and to send to them.")
        color: theme.colors.secondaryText
        wrapMode: Text.Wrap
        horizontalAlignment: Text.AlignHCenter
        Layout.maximumWidth: 420
        Layout.alignment: Qt.AlignHCenter
    }
    AccentButton {
        objectName: "promptSignInButton"
        text: qsTr("Sign In")
        Layout.alignment: Qt.AlignHCenter
        onClicked: ApplicationWindow.window.openSignIn()
    }
}
