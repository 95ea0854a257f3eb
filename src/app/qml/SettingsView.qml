import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The settings window: General, Account and About.
ThemedWindow {
    id: window
    objectName: "settingsWindow"
    title: qsTr("Lofthaven Settings")
    width: 560
    height: 600
    minimumWidth: 460
    minimumHeight: 420
    visible: false

    Shortcut {
        sequences: [StandardKey.Close, "Escape"]
        onActivated: window.close()
    }

    Shortcut {
        sequences: [StandardKey.NextChild, "Ctrl+PgDown"]
        onActivated: tabs.currentIndex = (tabs.currentIndex + 1) % tabs.count
    }
    Shortcut {
        sequences: [StandardKey.PreviousChild, "Ctrl+PgUp"]
        onActivated: tabs.currentIndex = (tabs.currentIndex + tabs.count - 1) % tabs.count
    }

    header: TabBar {
        id: tabs
        objectName: "settingsTabs"
        background: Rectangle { color: theme.colors.window }
        SettingsTab { objectName: "generalTab"; text: qsTr("General") }
        SettingsTab { objectName: "accountTab"; text: qsTr("Account") }
        SettingsTab { objectName: "aboutTab"; text: qsTr("About") }
    }

    StackLayout {
        anchors.fill: parent
        currentIndex: tabs.currentIndex
        GeneralSettings {}
        AccountSettings {}
        AboutSettings {}
    }
}
