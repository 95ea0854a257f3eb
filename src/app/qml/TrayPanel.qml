pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "symbols.js" as Symbols

// The tray icon's panel: drop zones, new items from the user's devices, recent links and the
// app's commands. Closes when it loses focus or on Escape.
ThemedWindow {
    id: window
    objectName: "trayPanel"
    title: qsTr("Lofthaven")
    flags: Qt.Tool | Qt.FramelessWindowHint | Qt.WindowStaysOnTopHint
    width: 380
    height: content.implicitHeight + 2
    minimumWidth: 380
    visible: false

    onActiveChanged: {
        if (!active && visible)
            hide()
    }

    Shortcut {
        sequence: "Escape"
        onActivated: window.hide()
    }

    Rectangle {
        anchors.fill: parent
        color: "transparent"
        border.color: theme.colors.cardBorder
    }

    ColumnLayout {
        id: content
        anchors.fill: parent
        anchors.margins: 1
        spacing: 0

        ColumnLayout {
            Layout.fillWidth: true
            Layout.margins: 14
            spacing: 10

            ColumnLayout {
                spacing: 2
                Label {
                    objectName: "panelHeading"
                    text: qsTr("Lofthaven")
                    font.bold: true
                    font.pixelSize: Qt.application.font.pixelSize * 1.25
                }
                Label {
                    objectName: "panelSignedOut"
                    visible: !appModel.signedIn
                    text: qsTr("Not signed in")
                    color: theme.colors.secondaryText
                }
            }

            PanelDropZone {
                objectName: "panelLinkZone"
                Layout.fillWidth: true
                symbol: "link"
                text: qsTr("Drop to get a link")
                caption: qsTr("The link is copied when it's ready")
                doneText: qsTr("Link copied")
                job: panel.linkJob
                onFilesDropped: function (paths) { panel.sendForLink(paths) }
            }

            PanelDropZone {
                objectName: "panelDevicesZone"
                Layout.fillWidth: true
                symbol: "laptopcomputer.and.iphone"
                text: qsTr("Drop to send to my devices")
                caption: appModel.signedIn ? qsTr("To your phones and other computers")
                                           : qsTr("Sign in to send to your devices")
                doneText: qsTr("Sent to your devices")
                job: panel.devicesJob
                onFilesDropped: function (paths) { panel.sendToDevices(paths) }
            }

            ItemDelegate {
                objectName: "panelInbox"
                Layout.fillWidth: true
                visible: appModel.newInboxCount > 0
                padding: 6
                icon.name: Symbols.icon("tray.and.arrow.down.fill")
                icon.color: theme.colors.accentText
                text: qsTr("%1 new from your devices").arg(appModel.newInboxCount)
                background: Rectangle {
                    radius: 8
                    color: parent.hovered ? theme.colors.dropZoneActive : theme.colors.card
                    border.color: parent.visualFocus ? theme.colors.accentText : theme.colors.cardBorder
                }
                onClicked: {
                    window.hide()
                    tray.showWindow(2)
                }
            }

            ColumnLayout {
                Layout.fillWidth: true
                visible: panel.recent.length > 0
                spacing: 2
                Label {
                    text: qsTr("Recent")
                    font.bold: true
                    color: theme.colors.secondaryText
                    Layout.bottomMargin: 2
                }
                Repeater {
                    model: panel.recent
                    RowLayout {
                        id: recentRow
                        objectName: "panelRecentRow"
                        required property var modelData
                        Layout.fillWidth: true
                        spacing: 6
                        Label {
                            Layout.fillWidth: true
                            text: recentRow.modelData.name
                            elide: Text.ElideMiddle
                        }
                        ToolButton {
                            objectName: "panelCopyLink"
                            icon.name: Symbols.icon("link")
                            icon.color: theme.colors.accentText
                            Accessible.name: qsTr("Copy link")
                            ToolTip.visible: hovered
                            ToolTip.text: qsTr("Copy link")
                            onClicked: desktop.copyText(recentRow.modelData.url)
                        }
                    }
                }
            }
        }

        Rectangle {
            Layout.fillWidth: true
            implicitHeight: 1
            color: theme.colors.cardBorder
        }

        RowLayout {
            Layout.fillWidth: true
            Layout.margins: 10
            spacing: 6
            Button {
                objectName: "panelOpen"
                text: qsTr("Open Lofthaven")
                flat: true
                onClicked: panel.openWindowRequested()
            }
            Item { Layout.fillWidth: true }
            Button {
                objectName: "panelSettings"
                flat: true
                icon.name: Symbols.icon("gearshape")
                icon.color: theme.colors.text
                text: qsTr("Settings")
                onClicked: panel.settingsRequested()
            }
            Button {
                objectName: "panelQuit"
                flat: true
                icon.name: Symbols.icon("power")
                icon.color: theme.colors.text
                text: qsTr("Quit Lofthaven")
                onClicked: panel.quitRequested()
            }
        }
    }
}
