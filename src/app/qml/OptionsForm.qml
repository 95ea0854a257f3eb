import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The options of the next send: lifetime, download limit, password, title, note, to my devices.
Card {
    objectName: "optionsForm"

    GridLayout {
        anchors.fill: parent
        columns: 2
        columnSpacing: 14
        rowSpacing: 8

        Label { text: qsTr("Expires after") }
        ComboBox {
            id: expiry
            objectName: "expiryPicker"
            Layout.fillWidth: true
            textRole: "text"
            valueRole: "value"
            model: appModel.allowedExpiries.map(function (s) { return { value: s, text: desktop.formatExpiry(s) } })
            currentIndex: {
                var list = appModel.allowedExpiries
                for (var i = 0; i < list.length; ++i)
                    if (list[i] === appModel.expiresIn) return i
                return list.length - 1
            }
            onActivated: function (index) { appModel.expiresIn = appModel.allowedExpiries[index] }
        }

        Label { text: qsTr("Download limit") }
        ComboBox {
            objectName: "downloadLimitPicker"
            Layout.fillWidth: true
            textRole: "text"
            valueRole: "value"
            model: desktop.downloadLimits.map(function (n) { return { value: n, text: desktop.downloadLimitLabel(n) } })
            currentIndex: Math.max(0, desktop.downloadLimits.indexOf(appModel.maxDownloads))
            onActivated: function (index) { appModel.maxDownloads = desktop.downloadLimits[index] }
        }

        Label { text: qsTr("Password") }
        TextField {
            objectName: "passwordField"
            Layout.fillWidth: true
            placeholderText: qsTr("Optional")
            echoMode: TextInput.Password
            text: appModel.password
            onTextEdited: appModel.password = text
        }

        Label { text: qsTr("Title") }
        TextField {
            objectName: "titleField"
            Layout.fillWidth: true
            placeholderText: qsTr("Optional")
            text: appModel.title
            onTextEdited: appModel.title = text
        }

        Label { text: qsTr("Message") }
        TextField {
            objectName: "messageField"
            Layout.fillWidth: true
            placeholderText: qsTr("Optional note for the receiver")
            text: appModel.message
            onTextEdited: appModel.message = text
        }

        Item { implicitWidth: 1 }
        ColumnLayout {
            spacing: 0
            Layout.fillWidth: true
            Switch {
                objectName: "toSelfSwitch"
                text: qsTr("Send to my devices")
                enabled: appModel.signedIn
                checked: appModel.toSelf
                onToggled: appModel.toSelf = checked
                leftPadding: 0
            }
            Label {
                objectName: "toSelfCaption"
                Layout.fillWidth: true
                wrapMode: Text.Wrap
                color: theme.colors.secondaryText
                font.pixelSize: Qt.application.font.pixelSize * 0.9
                text: appModel.signedIn ? qsTr("Shows up on your phone, the web and your other computers.")
                                        : qsTr("Sign in to send to your phone and other computers.")
            }
        }
    }
}
