import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// Settings, About: the app, its version, its maker and the service's pages.
ScrollView {
    id: page
    objectName: "aboutSettings"
    contentWidth: availableWidth

    ColumnLayout {
        width: page.availableWidth
        spacing: 6

        Image {
            source: "qrc:/icons/org.lofthaven.Lofthaven.svg"
            sourceSize: Qt.size(96, 96)
            Layout.alignment: Qt.AlignHCenter
            Layout.topMargin: 28
            Layout.bottomMargin: 6
            Accessible.ignored: true
        }
        Label {
            text: qsTr("Lofthaven")
            font.bold: true
            font.pixelSize: Qt.application.font.pixelSize * 1.6
            Layout.alignment: Qt.AlignHCenter
        }
        Label {
            objectName: "aboutVersion"
            text: qsTr("Version %1").arg(desktop.version)
            color: theme.colors.secondaryText
            Layout.alignment: Qt.AlignHCenter
        }
        Label {
            text: qsTr("Free, fast file transfer.")
            Layout.alignment: Qt.AlignHCenter
            Layout.topMargin: 8
        }
        Label {
            text: qsTr("Made by the Lofthaven developers.")
            color: theme.colors.secondaryText
            Layout.alignment: Qt.AlignHCenter
        }
        RowLayout {
            Layout.alignment: Qt.AlignHCenter
            Layout.topMargin: 12
            Layout.bottomMargin: 16
            spacing: 4
            Button {
                objectName: "aboutWebsite"
                flat: true
                text: desktop.host
                palette.buttonText: theme.colors.accentText
                onClicked: desktop.openServicePage("/")
            }
            Button {
                objectName: "aboutTerms"
                flat: true
                text: qsTr("Terms")
                palette.buttonText: theme.colors.accentText
                onClicked: desktop.openServicePage("/legal/terms")
            }
            Button {
                objectName: "aboutPrivacy"
                flat: true
                text: qsTr("Privacy")
                palette.buttonText: theme.colors.accentText
                onClicked: desktop.openServicePage("/legal/privacy")
            }
        }
    }
}
