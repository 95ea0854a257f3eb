import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// One row of a settings form: its name on the left, its control (or value) on the right.
RowLayout {
    id: row
    property string text
    default property alias trailing: slot.data
    Layout.fillWidth: true
    Layout.minimumHeight: 36
    spacing: 12

    Label {
        text: row.text
        Layout.fillWidth: true
        Layout.fillHeight: true
        verticalAlignment: Text.AlignVCenter
        wrapMode: Text.Wrap
    }
    RowLayout {
        id: slot
        Layout.alignment: Qt.AlignVCenter
        spacing: 8
    }
}
