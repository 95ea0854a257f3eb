import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "words.js" as Words

// Settings, Account: who is signed in, the plans, how this computer is listed, sign-out, and
// the limits that apply.
ScrollView {
    id: page
    objectName: "accountSettings"
    contentWidth: availableWidth

    ColumnLayout {
        width: page.availableWidth
        spacing: 16

        SettingsSection {
            objectName: "accountSection"
            title: appModel.signedIn ? qsTr("Signed in") : qsTr("Not signed in")
            Layout.topMargin: 16
            Layout.leftMargin: 16
            Layout.rightMargin: 16

            SettingsRow {
                visible: appModel.signedIn
                text: qsTr("Account")
                Label {
                    objectName: "accountIdentity"
                    text: {
                        var user = appModel.me.user || {}
                        return user.email || user.name || ""
                    }
                    color: theme.colors.secondaryText
                    elide: Text.ElideMiddle
                    Layout.maximumWidth: page.availableWidth * 0.55
                }
            }
            SettingsRow {
                visible: appModel.signedIn
                text: qsTr("Transfer plan")
                Label { objectName: "transferPlan"; text: (appModel.me, settings.planName("transfer")); color: theme.colors.secondaryText }
            }
            SettingsRow {
                visible: appModel.signedIn
                text: qsTr("Media plan")
                Label { objectName: "mediaPlan"; text: (appModel.me, settings.planName("media")); color: theme.colors.secondaryText }
            }
            SettingsRow {
                visible: appModel.signedIn
                text: qsTr("Upload API plan")
                Label { objectName: "apiPlan"; text: (appModel.me, settings.planName("api")); color: theme.colors.secondaryText }
            }
            SettingsRow {
                visible: appModel.signedIn
                text: Words.thisComputerShowsAs()
                Label {
                    objectName: "deviceName"
                    text: settings.deviceName
                    color: theme.colors.secondaryText
                    elide: Text.ElideRight
                    Layout.maximumWidth: page.availableWidth * 0.55
                }
            }
            RowLayout {
                visible: appModel.signedIn
                Layout.fillWidth: true
                Item { Layout.fillWidth: true }
                Button {
                    objectName: "settingsSignOut"
                    text: qsTr("Sign Out")
                    onClicked: appModel.signOut()
                }
            }

            Label {
                visible: !appModel.signedIn
                text: qsTr("Sign in with your browser to send larger files, keep links longer and get files from your other devices.")
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
            RowLayout {
                visible: !appModel.signedIn
                Layout.fillWidth: true
                Item { Layout.fillWidth: true }
                AccentButton {
                    objectName: "settingsSignIn"
                    text: qsTr("Sign In…")
                    onClicked: tray.showSignIn()
                }
            }
        }

        SettingsSection {
            title: qsTr("Limits")
            Layout.leftMargin: 16
            Layout.rightMargin: 16
            SettingsRow {
                text: qsTr("Max transfer size")
                Label { objectName: "maxTransferSize"; text: desktop.formatBytes(appModel.maxBytes); color: theme.colors.secondaryText }
            }
            SettingsRow {
                text: qsTr("Link expiry")
                Label {
                    objectName: "linkExpiry"
                    text: settings.expiryList(appModel.allowedExpiries)
                    color: theme.colors.secondaryText
                    horizontalAlignment: Text.AlignRight
                    wrapMode: Text.Wrap
                    Layout.maximumWidth: page.availableWidth * 0.55
                }
            }
        }

        Label {
            text: qsTr("Without an account you can send up to 500 MB, with links that last up to 3 days. A free account raises that to 2 GB and 7 days and turns on the devices inbox.")
            color: theme.colors.secondaryText
            wrapMode: Text.Wrap
            Layout.fillWidth: true
            Layout.leftMargin: 20
            Layout.rightMargin: 20
            Layout.bottomMargin: 16
        }
    }
}
