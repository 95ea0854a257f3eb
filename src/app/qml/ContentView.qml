import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import QtQuick.Dialogs
import "symbols.js" as Symbols
import "words.js" as Words

// The main window: tab bar, banners, the selected screen and the account footer. Files dropped
// anywhere on it are staged for sending.
ApplicationWindow {
    id: window
    objectName: "mainWindow"
    title: qsTr("Lofthaven")
    width: 860
    height: 620
    minimumWidth: 600
    minimumHeight: 460
    visible: true
    color: theme.colors.window

    palette.window: theme.colors.window
    palette.windowText: theme.colors.text
    palette.base: theme.colors.field
    palette.alternateBase: theme.colors.card
    palette.text: theme.colors.text
    palette.button: theme.colors.button
    palette.buttonText: theme.colors.text
    palette.brightText: "#ffffff"
    palette.highlight: theme.colors.accent
    palette.highlightedText: theme.colors.onAccent
    palette.placeholderText: theme.colors.secondaryText
    palette.toolTipBase: theme.colors.card
    palette.toolTipText: theme.colors.text
    palette.mid: theme.colors.cardBorder
    palette.dark: theme.colors.cardBorder
    palette.light: theme.colors.card
    palette.midlight: theme.colors.card
    palette.shadow: theme.dark ? "#000000" : "#b0b0b0"
    palette.link: theme.colors.accentText
    palette.disabled.text: theme.colors.secondaryText
    palette.disabled.buttonText: theme.colors.secondaryText
    palette.disabled.windowText: theme.colors.secondaryText

    function showTab(tab) {
        appModel.tab = tab
        window.raise()
        window.requestActivate()
    }
    function chooseFiles() { fileDialog.open() }
    function chooseFolder() { folderDialog.open() }
    function pasteFiles() {
        var files = desktop.clipboardFiles()
        if (files.length > 0)
            appModel.stage(files)
        else
            appModel.notice = Words.pasteNotice()
    }
    function openSignIn() { signInSheet.open() }
    function showQr(link, name) {
        qrPopup.link = link
        qrPopup.name = name
        qrPopup.open()
    }

    onActiveChanged: {
        appModel.applicationActive = active
        if (active)
            appModel.applicationActivated()
    }

    Shortcut { sequence: "Ctrl+O"; onActivated: { window.showTab(0); window.chooseFiles() } }
    Shortcut { sequence: "Ctrl+Shift+R"; onActivated: window.showTab(1) }
    Shortcut { sequence: "Ctrl+Shift+V"; onActivated: { window.showTab(0); window.pasteFiles() } }
    Shortcut { sequence: StandardKey.Quit; onActivated: Qt.quit() }
    Shortcut { sequence: "Ctrl+,"; onActivated: tray.showSettings() }

    FileDialog {
        id: fileDialog
        title: qsTr("Choose files or folders to send")
        acceptLabel: qsTr("Choose")
        fileMode: FileDialog.OpenFiles
        onAccepted: appModel.stage(selectedFiles.map(function (u) { return u.toString() }))
    }
    FolderDialog {
        id: folderDialog
        title: qsTr("Choose files or folders to send")
        acceptLabel: qsTr("Choose")
        onAccepted: appModel.stage([selectedFolder.toString()])
    }

    header: ToolBar {
        padding: 6
        background: Rectangle {
            color: theme.colors.card
            Rectangle { anchors.bottom: parent.bottom; width: parent.width; height: 1; color: theme.colors.cardBorder }
        }
        RowLayout {
            anchors.fill: parent
            Item { Layout.fillWidth: true }
            TabBar {
                id: tabs
                objectName: "tabBar"
                currentIndex: appModel.tab
                onCurrentIndexChanged: if (appModel.tab !== currentIndex) appModel.tab = currentIndex
                background: null
                Repeater {
                    model: [
                        { title: qsTr("Send"), symbol: "paperplane", name: "sendTab" },
                        { title: qsTr("Receive"), symbol: "arrow.down.circle", name: "receiveTab" },
                        { title: qsTr("My devices"), symbol: "laptopcomputer.and.iphone", name: "devicesTab" },
                        { title: qsTr("History"), symbol: "clock.arrow.circlepath", name: "historyTab" }
                    ]
                    TabButton {
                        required property var modelData
                        required property int index
                        objectName: modelData.name
                        text: modelData.title
                        icon.name: Symbols.icon(modelData.symbol)
                        icon.color: checked ? theme.colors.accentText : theme.colors.text
                        width: implicitWidth + (badge.visible ? badge.width + 4 : 0)
                        leftPadding: 14
                        rightPadding: 14 + (badge.visible ? badge.width + 4 : 0)
                        background: Rectangle {
                            radius: 6
                            color: parent.checked ? theme.colors.dropZoneActive
                                                  : (parent.hovered ? theme.colors.dropZone : "transparent")
                        }
                        Rectangle {
                            id: badge
                            objectName: "devicesBadge"
                            visible: index === 2 && appModel.newInboxCount > 0
                            anchors.right: parent.right
                            anchors.rightMargin: 8
                            anchors.verticalCenter: parent.verticalCenter
                            height: 18
                            width: Math.max(18, badgeText.implicitWidth + 10)
                            radius: 9
                            color: theme.colors.accent
                            Label {
                                id: badgeText
                                anchors.centerIn: parent
                                text: appModel.newInboxCount
                                color: theme.colors.onAccent
                                font.pixelSize: 11
                                font.bold: true
                            }
                        }
                    }
                }
            }
            Item { Layout.fillWidth: true }
            ToolButton {
                objectName: "mainMenuButton"
                icon.name: Symbols.icon("ellipsis")
                icon.color: theme.colors.text
                Accessible.name: qsTr("Menu")
                ToolTip.visible: hovered
                ToolTip.text: qsTr("Menu")
                onClicked: mainMenu.popup()
                Menu {
                    id: mainMenu
                    MenuItem { text: qsTr("Send Files…"); onTriggered: { window.showTab(0); window.chooseFiles() } }
                    MenuItem { text: qsTr("Receive…"); onTriggered: window.showTab(1) }
                    MenuItem { text: qsTr("Paste Files to Send"); onTriggered: { window.showTab(0); window.pasteFiles() } }
                    MenuSeparator {}
                    MenuItem { objectName: "settingsMenuItem"; text: qsTr("Settings…"); onTriggered: tray.showSettings() }
                    MenuSeparator {}
                    MenuItem { text: qsTr("Lofthaven Website"); onTriggered: desktop.openServicePage("/") }
                    MenuItem { text: qsTr("Terms of Service"); onTriggered: desktop.openServicePage("/legal/terms") }
                    MenuItem { text: qsTr("Privacy Policy"); onTriggered: desktop.openServicePage("/legal/privacy") }
                    MenuSeparator {}
                    MenuItem { text: qsTr("About Lofthaven"); onTriggered: aboutDialog.open() }
                }
            }
        }
    }

    ColumnLayout {
        anchors.fill: parent
        spacing: 0
        NoticeBanner { Layout.fillWidth: true }
        UpdateBanner { Layout.fillWidth: true }
        StackLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            currentIndex: appModel.tab
            SendView {}
            ReceiveView {}
            DevicesView {}
            HistoryView {}
        }
        AccountFooter { Layout.fillWidth: true }
    }

    DropArea {
        anchors.fill: parent
        keys: ["text/uri-list"]
        onEntered: appModel.windowDropTargeted = true
        onExited: appModel.windowDropTargeted = false
        onDropped: function (drop) {
            appModel.windowDropTargeted = false
            appModel.stage(drop.urls.map(function (u) { return u.toString() }))
            appModel.tab = 0
            drop.acceptProposedAction()
        }
    }

    SignInSheet { id: signInSheet }

    Popup {
        id: qrPopup
        objectName: "qrPopup"
        property string link
        property string name
        modal: true
        anchors.centerIn: Overlay.overlay
        padding: 20
        background: Rectangle { radius: 12; color: theme.colors.card; border.color: theme.colors.cardBorder }
        ColumnLayout {
            spacing: 10
            Label { text: qrPopup.name; font.bold: true; Layout.alignment: Qt.AlignHCenter; elide: Text.ElideMiddle; Layout.maximumWidth: 320 }
            QRCodeView { link: qrPopup.link; size: 300; Layout.alignment: Qt.AlignHCenter }
            Label { text: qsTr("Scan to download"); color: theme.colors.secondaryText; Layout.alignment: Qt.AlignHCenter }
            Button { text: qsTr("Close"); Layout.alignment: Qt.AlignHCenter; onClicked: qrPopup.close() }
        }
    }

    Dialog {
        id: aboutDialog
        objectName: "aboutDialog"
        title: qsTr("About Lofthaven")
        modal: true
        anchors.centerIn: Overlay.overlay
        standardButtons: Dialog.Ok
        ColumnLayout {
            spacing: 6
            Label { text: qsTr("Lofthaven"); font.bold: true; font.pixelSize: Qt.application.font.pixelSize * 1.4 }
            Label { text: qsTr("Version %1").arg(desktop.version); color: theme.colors.secondaryText }
            Label { text: qsTr("Made by the Lofthaven developers.") }
            Label { text: desktop.host }
        }
    }
}
