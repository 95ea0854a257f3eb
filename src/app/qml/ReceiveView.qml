import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Lofthaven 1.0
import "symbols.js" as Symbols

// The receive screen: a code or link, the transfer it names, and the downloads.
ScrollView {
    id: view
    objectName: "receiveView"
    contentWidth: availableWidth
    clip: true

    readonly property var found: appModel.lookupTransfer

    ColumnLayout {
        width: Math.min(view.availableWidth - 48, 720)
        x: (view.availableWidth - width) / 2
        spacing: 14

        Item { implicitHeight: 6 }

        RowLayout {
            spacing: 10
            TypeIcon { symbol: "arrow.down.circle.fill"; size: 28; color: theme.colors.accentText }
            Label { text: qsTr("Receive a file"); font.bold: true; font.pixelSize: Qt.application.font.pixelSize * 1.4 }
        }

        Card {
            Layout.fillWidth: true
            ColumnLayout {
                anchors.fill: parent
                spacing: 8
                RowLayout {
                    Layout.fillWidth: true
                    spacing: 8
                    TextField {
                        id: codeField
                        objectName: "codeField"
                        Layout.fillWidth: true
                        placeholderText: qsTr("123 456")
                        font.pixelSize: Qt.application.font.pixelSize * 1.3
                        text: appModel.receiveInput
                        onTextEdited: appModel.receiveInput = text
                        onAccepted: if (text.trim() !== "") appModel.lookup()
                    }
                    AccentButton {
                        objectName: "findButton"
                        text: qsTr("Find")
                        enabled: appModel.receiveInput.trim() !== "" && appModel.lookupState !== AppModel.Loading
                        onClicked: appModel.lookup()
                    }
                }
                Label {
                    Layout.fillWidth: true
                    wrapMode: Text.Wrap
                    color: theme.colors.secondaryText
                    text: qsTr("Type the 6-digit code or paste a ") + desktop.host + qsTr(" link.")
                }
                RowLayout {
                    visible: appModel.lookupState === AppModel.Loading
                    BusyIndicator { running: parent.visible; implicitWidth: 20; implicitHeight: 20 }
                    Label { text: qsTr("Looking up…"); color: theme.colors.secondaryText }
                }
                Label {
                    objectName: "lookupMessage"
                    visible: text !== ""
                    text: appModel.lookupMessage
                    wrapMode: Text.Wrap
                    color: appModel.lookupState === AppModel.Failed ? theme.colors.error : theme.colors.text
                    Layout.fillWidth: true
                }
            }
        }

        TransferCard {
            visible: appModel.lookupState === AppModel.Found
            transfer: view.found
            Layout.fillWidth: true
        }

        Repeater {
            model: appModel.downloads
            DownloadJobView { Layout.fillWidth: true }
        }
        Item { implicitHeight: 12 }
    }
}
