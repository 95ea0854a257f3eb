import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "symbols.js" as Symbols

// Who is signed in and their limit, or the offer to sign in.
Rectangle {
    objectName: "accountFooter"
    implicitHeight: row.implicitHeight + 14
    color: theme.colors.card
    Rectangle { width: parent.width; height: 1; color: theme.colors.cardBorder }
    RowLayout {
        id: row
        anchors.fill: parent
        anchors.leftMargin: 16
        anchors.rightMargin: 12
        spacing: 10
        TypeIcon {
            symbol: appModel.signedIn ? "person.crop.circle.fill" : "person.crop.circle"
            size: 20
            color: appModel.signedIn ? theme.colors.accentText : theme.colors.secondaryText
        }
        Label {
            objectName: "accountText"
            Layout.fillWidth: true
            elide: Text.ElideRight
            text: {
                if (!appModel.signedIn)
                    return qsTr("Up to 500 MB without an account")
                var user = appModel.me.user || {}
                var who = user.name || user.email || ""
                return who + (appModel.maxBytes > 0 ? "  ·  " + desktop.formatBytes(appModel.maxBytes) : "")
            }
        }
        Button {
            objectName: "signOutButton"
            visible: appModel.signedIn
            text: qsTr("Sign Out")
            onClicked: appModel.signOut()
        }
        AccentButton {
            objectName: "signInButton"
            visible: !appModel.signedIn
            text: qsTr("Sign In")
            icon.name: Symbols.icon("person.crop.circle")
            onClicked: ApplicationWindow.window.openSignIn()
        }
    }
}
