import QtQuick
import QtQuick.Controls
import QtQuick.Controls.impl
import QtQuick.Dialogs
import QtQuick.Layouts
import "symbols.js" as Symbols

// A folder setting: the folder in effect with its icon and name, a button to choose another
// and one to go back to the default.
RowLayout {
    id: row
    property string title
    property string path
    property bool isDefault: true
    signal chosen(string folder)
    signal useDefault()
    Layout.fillWidth: true
    Layout.topMargin: 4
    Layout.bottomMargin: 4
    spacing: 10

    IconImage {
        name: settings.folderIcon(row.path)
        sourceSize: Qt.size(28, 28)
        Layout.preferredWidth: 28
        Layout.preferredHeight: 28
    }
    ColumnLayout {
        Layout.fillWidth: true
        spacing: 0
        Label { text: row.title; Layout.fillWidth: true; elide: Text.ElideRight }
        Label {
            objectName: "folderName"
            text: settings.folderName(row.path)
            color: theme.colors.secondaryText
            Layout.fillWidth: true
            elide: Text.ElideMiddle
            ToolTip.visible: pathHover.hovered
            ToolTip.text: row.path
            HoverHandler { id: pathHover }
        }
    }
    Button {
        objectName: "chooseFolder"
        text: qsTr("Choose…")
        Accessible.description: qsTr("Choose another folder for %1").arg(row.title.toLowerCase())
        onClicked: dialog.open()
    }
    Button {
        objectName: "useDefaultFolder"
        text: qsTr("Use default")
        icon.name: Symbols.icon("arrow.uturn.backward")
        icon.color: enabled ? theme.colors.text : theme.colors.secondaryText
        opacity: enabled ? 1 : 0.6
        enabled: !row.isDefault
        onClicked: row.useDefault()
    }
    FolderDialog {
        id: dialog
        title: row.title
        currentFolder: settings.fileUrl(row.path)
        onAccepted: row.chosen(selectedFolder.toString())
    }
}
