import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The device sign-in: the code the browser should show, waiting for approval, a failure.
// Opening it starts a sign-in; it closes itself once signed in.
Popup {
    id: sheet
    objectName: "signInSheet"
    readonly property var signIn: appModel.signIn
    modal: true
    closePolicy: Popup.CloseOnEscape
    anchors.centerIn: Overlay.overlay
    width: Math.min(460, (parent ? parent.width : 460) - 40)
    padding: 24
    background: Rectangle { radius: 12; color: theme.colors.card; border.color: theme.colors.cardBorder }

    onOpened: appModel.startSignIn()
    onClosed: if (!appModel.signedIn) appModel.cancelSignIn()
    Connections {
        target: appModel
        function onSignedInChanged() { if (appModel.signedIn) sheet.close() }
    }

    ColumnLayout {
        width: parent.width
        spacing: 12
        TypeIcon { symbol: "person.crop.circle.badge.checkmark"; size: 48; color: theme.colors.accentText; Layout.alignment: Qt.AlignHCenter }
        Label {
            objectName: "signInPitch"
            text: qsTr("Free account: 2 GB transfers, 7-day links, and your devices inbox.")
            wrapMode: Text.Wrap
            horizontalAlignment: Text.AlignHCenter
            Layout.fillWidth: true
        }
        ColumnLayout {
            visible: sheet.signIn.phase === "waiting"
            Layout.fillWidth: true
            spacing: 8
            Label {
                objectName: "signInInstruction"
                text: qsTr("Check that your browser shows this code, then press Approve:")
                color: theme.colors.secondaryText
                wrapMode: Text.Wrap
                horizontalAlignment: Text.AlignHCenter
                Layout.fillWidth: true
            }
            Label {
                objectName: "userCode"
                text: sheet.signIn.userCode || ""
                font.pixelSize: Qt.application.font.pixelSize * 2
                font.bold: true
                font.letterSpacing: 2
                Layout.alignment: Qt.AlignHCenter
            }
            RowLayout {
                Layout.alignment: Qt.AlignHCenter
                BusyIndicator { running: sheet.visible; implicitWidth: 20; implicitHeight: 20 }
                Label { text: qsTr("Waiting for approval…"); color: theme.colors.secondaryText }
            }
        }
        RowLayout {
            visible: sheet.signIn.phase === "starting" || sheet.signIn.phase === undefined
            Layout.alignment: Qt.AlignHCenter
            BusyIndicator { running: parent.visible; implicitWidth: 20; implicitHeight: 20 }
        }
        Label {
            objectName: "signInError"
            visible: sheet.signIn.phase === "failed"
            text: sheet.signIn.message || ""
            color: theme.colors.error
            wrapMode: Text.Wrap
            horizontalAlignment: Text.AlignHCenter
            Layout.fillWidth: true
        }
        RowLayout {
            Layout.alignment: Qt.AlignHCenter
            spacing: 8
            Button {
                objectName: "openBrowserAgain"
                visible: sheet.signIn.phase === "waiting"
                text: qsTr("Open Browser Again")
                onClicked: desktop.openUrl(sheet.signIn.url)
            }
            AccentButton {
                objectName: "signInTryAgain"
                visible: sheet.signIn.phase === "failed"
                text: qsTr("Try Again")
                onClicked: appModel.startSignIn()
            }
            Button {
                objectName: "signInCancel"
                text: qsTr("Cancel")
                onClicked: sheet.close()
            }
        }
    }
}
