import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The transfers sent from this computer, newest first.
Item {
    objectName: "historyView"
    ColumnLayout {
        // The same centred column as Send and Receive.
        anchors.top: parent.top
        anchors.bottom: parent.bottom
        anchors.margins: 24
        anchors.horizontalCenter: parent.horizontalCenter
        width: Math.min(parent.width - 48, 720)
        spacing: 12
        RowLayout {
            TypeIcon { symbol: "clock.arrow.circlepath"; size: 24; color: theme.colors.accentText }
            Label { text: qsTr("History"); font.bold: true; font.pixelSize: Qt.application.font.pixelSize * 1.3 }
        }
        Label {
            objectName: "historyEmpty"
            visible: appModel.history.count === 0
            text: qsTr("Transfers you send from this computer appear here, with their codes and links.")
            color: theme.colors.secondaryText
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        ListView {
            objectName: "historyList"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            spacing: 8
            model: appModel.history
            delegate: HistoryRow { width: ListView.view.width }
            ScrollBar.vertical: ScrollBar {}
        }
    }
}
