import QtQuick
import QtQuick.Controls
import "symbols.js" as Symbols

// Sharing the link: copy it, e-mail it, or show its QR code large.
Button {
    id: share
    property string link
    property string name
    objectName: "shareButton"
    text: qsTr("Share")
    icon.name: Symbols.icon("square.and.arrow.up")
    icon.color: palette.buttonText
    onClicked: menu.popup()
    Menu {
        id: menu
        MenuItem { text: qsTr("Copy link"); onTriggered: desktop.copyText(share.link) }
        MenuItem { text: qsTr("Email link"); onTriggered: desktop.openUrl(desktop.mailtoLink(share.link, share.name)) }
        MenuItem { text: qsTr("Show QR large"); onTriggered: ApplicationWindow.window.showQr(share.link, share.name) }
    }
}
