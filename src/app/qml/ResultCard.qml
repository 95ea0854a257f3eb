import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "symbols.js" as Symbols

// A finished send: the code, the link's buttons and its QR code; or, for a send to the
// user's devices, where it went.
Card {
    id: card
    objectName: "resultCard"
    property var job

    ColumnLayout {
        anchors.fill: parent
        spacing: 12

        ColumnLayout {
            visible: card.job !== null && card.job.toSelf
            Layout.fillWidth: true
            spacing: 8
            TypeIcon { symbol: "checkmark.circle.fill"; size: 40; color: theme.colors.accentText; Layout.alignment: Qt.AlignHCenter }
            Label { text: qsTr("Sent to your devices"); font.bold: true; font.pixelSize: Qt.application.font.pixelSize * 1.3; Layout.alignment: Qt.AlignHCenter }
            Label { text: qsTr("They appear on your phone, the web and your other computers."); color: theme.colors.secondaryText; wrapMode: Text.Wrap; horizontalAlignment: Text.AlignHCenter; Layout.fillWidth: true }
        }

        RowLayout {
            visible: card.job !== null && !card.job.toSelf
            Layout.fillWidth: true
            spacing: 20
            ColumnLayout {
                Layout.fillWidth: true
                spacing: 8
                Label { text: qsTr("Ready to share"); color: theme.colors.accentText; font.bold: true }
                Label {
                    objectName: "codeLabel"
                    text: qsTr("Code ") + desktop.formatCode(card.job ? card.job.code : "")
                    font.pixelSize: Qt.application.font.pixelSize * 2.2
                    font.bold: true
                    font.letterSpacing: 1
                }
                Label {
                    objectName: "linkLabel"
                    text: card.job ? card.job.url : ""
                    color: theme.colors.secondaryText
                    elide: Text.ElideMiddle
                    Layout.fillWidth: true
                }
                Flow {
                    Layout.fillWidth: true
                    spacing: 8
                    AccentButton {
                        id: copyLink
                        objectName: "copyLinkButton"
                        property bool copied: false
                        text: copied ? qsTr("Copied") : qsTr("Copy link")
                        icon.name: Symbols.icon(copied ? "checkmark" : "link")
                        onClicked: { desktop.copyText(card.job.url); copied = true; copyLinkTimer.restart() }
                        Timer { id: copyLinkTimer; interval: 1500; onTriggered: copyLink.copied = false }
                    }
                    Button {
                        id: copyCode
                        objectName: "copyCodeButton"
                        property bool copied: false
                        text: copied ? qsTr("Copied") : qsTr("Copy code")
                        icon.name: Symbols.icon(copied ? "checkmark" : "doc.on.doc")
                        icon.color: palette.buttonText
                        onClicked: { desktop.copyText(card.job.code); copied = true; copyCodeTimer.restart() }
                        Timer { id: copyCodeTimer; interval: 1500; onTriggered: copyCode.copied = false }
                    }
                    Button {
                        objectName: "openLinkButton"
                        text: qsTr("Open")
                        icon.name: Symbols.icon("safari")
                        icon.color: palette.buttonText
                        onClicked: desktop.openUrl(card.job.url)
                    }
                    ShareButton { link: card.job ? card.job.url : ""; name: card.job ? card.job.name : "" }
                }
                Label {
                    text: qsTr("Receivers can open the link or type the code at ") + desktop.host + qsTr(".")
                    color: theme.colors.secondaryText
                    wrapMode: Text.Wrap
                    Layout.fillWidth: true
                }
            }
            ColumnLayout {
                spacing: 4
                Layout.alignment: Qt.AlignTop
                QRCodeView { objectName: "resultQr"; link: card.job ? card.job.url : "" }
                Label { text: qsTr("Scan to download"); color: theme.colors.secondaryText; Layout.alignment: Qt.AlignHCenter; font.pixelSize: Qt.application.font.pixelSize * 0.9 }
            }
        }

        Button {
            objectName: "sendMoreButton"
            text: qsTr("Send More")
            Layout.alignment: Qt.AlignRight
            onClicked: appModel.dismissJob(card.job.id)
        }
    }
}
