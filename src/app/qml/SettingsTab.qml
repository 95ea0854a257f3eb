import QtQuick
import QtQuick.Controls

// A tab of the settings window: the chosen one underlined in the accent colour.
TabButton {
    id: tab
    implicitHeight: 40
    contentItem: Label {
        text: tab.text
        font.bold: tab.checked
        color: tab.checked ? theme.colors.text : theme.colors.secondaryText
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
    }
    background: Rectangle {
        color: tab.hovered && !tab.checked ? theme.colors.card : theme.colors.window
        Rectangle {
            anchors.left: parent.left
            anchors.right: parent.right
            anchors.bottom: parent.bottom
            height: tab.checked ? 3 : 1
            color: tab.checked ? theme.colors.accent : theme.colors.cardBorder
        }
        Rectangle {
            anchors.fill: parent
            color: "transparent"
            border.width: tab.visualFocus ? 2 : 0
            border.color: theme.colors.accentText
        }
    }
}
