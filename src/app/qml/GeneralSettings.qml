import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "words.js" as Words

// Settings, General: start at login, the tray icon, light or dark, the folders and the devices
// inbox.
ScrollView {
    id: page
    objectName: "generalSettings"
    contentWidth: availableWidth

    ColumnLayout {
        width: page.availableWidth
        spacing: 16

        SettingsSection {
            Layout.topMargin: 16
            Layout.leftMargin: 16
            Layout.rightMargin: 16
            SettingsRow {
                text: qsTr("Launch at login")
                Switch {
                    id: launchSwitch
                    objectName: "launchAtLoginSwitch"
                    Accessible.name: qsTr("Launch at login")
                    checked: settings.launchAtLogin
                    onToggled: {
                        settings.setLaunchAtLogin(checked)
                        // Show the true status, also after a failure.
                        checked = Qt.binding(function () { return settings.launchAtLogin })
                    }
                }
            }
            Label {
                objectName: "launchAtLoginError"
                visible: settings.launchAtLoginError !== ""
                text: settings.launchAtLoginError
                color: theme.colors.error
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
            SettingsRow {
                text: Words.showInTray()
                Switch {
                    objectName: "showInTraySwitch"
                    Accessible.name: Words.showInTray()
                    checked: settings.showInTray
                    onToggled: {
                        settings.showInTray = checked
                        checked = Qt.binding(function () { return settings.showInTray })
                    }
                }
            }
            Label {
                objectName: "noTrayNote"
                visible: !settings.trayAvailable
                text: qsTr("This desktop shows no tray icons right now. Lofthaven adds its icon when a tray appears.")
                color: theme.colors.secondaryText
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
            SettingsRow {
                text: qsTr("Appearance")
                ComboBox {
                    objectName: "appearancePicker"
                    Accessible.name: qsTr("Appearance")
                    textRole: "text"
                    valueRole: "value"
                    implicitContentWidthPolicy: ComboBox.WidestText
                    model: [
                        { value: "system", text: qsTr("System") },
                        { value: "light", text: qsTr("Light") },
                        { value: "dark", text: qsTr("Dark") }
                    ]
                    currentIndex: Math.max(0, indexOfValue(theme.theme))
                    onActivated: theme.theme = currentValue
                }
            }
        }

        SettingsSection {
            title: qsTr("Files")
            Layout.leftMargin: 16
            Layout.rightMargin: 16
            FolderRow {
                objectName: "downloadFolderRow"
                title: qsTr("Download folder")
                path: settings.downloadFolder
                isDefault: settings.downloadFolderIsDefault
                onChosen: function (folder) { settings.chooseDownloadFolder(folder) }
                onUseDefault: settings.useDefaultDownloadFolder()
            }
            FolderRow {
                objectName: "tempFolderRow"
                title: qsTr("Temporary files")
                path: settings.tempFolder
                isDefault: settings.tempFolderIsDefault
                onChosen: function (folder) { settings.chooseTempFolder(folder) }
                onUseDefault: settings.useDefaultTempFolder()
            }
            Label {
                text: qsTr("Used for zipped uploads and resumable downloads. Pick a large SSD or HDD for very big transfers.")
                color: theme.colors.secondaryText
                wrapMode: Text.Wrap
                Layout.fillWidth: true
                Layout.leftMargin: 38
                Layout.bottomMargin: 4
            }
            SettingsRow {
                text: qsTr("Unzip folders after download")
                Switch {
                    objectName: "unzipSwitch"
                    Accessible.name: qsTr("Unzip folders after download")
                    checked: desktop.unzipAfterDownload
                    onToggled: {
                        desktop.unzipAfterDownload = checked
                        checked = Qt.binding(function () { return desktop.unzipAfterDownload })
                    }
                }
            }
        }

        SettingsSection {
            title: qsTr("My devices")
            Layout.leftMargin: 16
            Layout.rightMargin: 16
            Layout.bottomMargin: 16
            SettingsRow {
                text: qsTr("Auto-download files from my devices")
                Switch {
                    objectName: "autoDownloadSwitch"
                    Accessible.name: qsTr("Auto-download files from my devices")
                    checked: settings.autoDownload
                    onToggled: {
                        settings.autoDownload = checked
                        checked = Qt.binding(function () { return settings.autoDownload })
                    }
                }
            }
            SettingsRow {
                text: qsTr("Show notifications")
                Switch {
                    objectName: "notificationsSwitch"
                    Accessible.name: qsTr("Show notifications")
                    checked: settings.notifications
                    onToggled: {
                        settings.notifications = checked
                        checked = Qt.binding(function () { return settings.notifications })
                    }
                }
            }
        }
    }
}
