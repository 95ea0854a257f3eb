import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// A titled group of settings rows on a card.
ColumnLayout {
    id: section
    property string title
    default property alias rows: body.data
    Layout.fillWidth: true
    spacing: 6

    Label {
        visible: section.title !== ""
        text: section.title
        font.bold: true
        color: theme.colors.secondaryText
        Layout.leftMargin: 4
    }
    Card {
        Layout.fillWidth: true
        padding: 12
        ColumnLayout {
            id: body
            anchors.left: parent.left
            anchors.right: parent.right
            spacing: 4
        }
    }
}
