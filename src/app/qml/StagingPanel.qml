import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "symbols.js" as Symbols

// The staged files and folders, their count and size, the plan being counted and what stops it.
Card {
    id: panel
    objectName: "stagingPanel"
    readonly property var plan: appModel.stagedPlan

    ColumnLayout {
        anchors.fill: parent
        spacing: 8

        RowLayout {
            Layout.fillWidth: true
            Label {
                objectName: "stagedSummary"
                Layout.fillWidth: true
                font.bold: true
                elide: Text.ElideRight
                text: appModel.staged.length + qsTr(" item(s)")
                      + (panel.plan.size !== undefined ? "  ·  " + desktop.formatBytes(panel.plan.size) : "")
            }
            Button {
                objectName: "clearStagedButton"
                text: qsTr("Clear")
                flat: true
                onClicked: appModel.clearStaged()
            }
        }

        Repeater {
            model: appModel.staged
            RowLayout {
                required property string modelData
                Layout.fillWidth: true
                spacing: 10
                FileIcon {
                    fileName: modelData
                    isFolder: panel.plan.isZip === true && appModel.staged.length === 1
                    size: 22
                }
                Label {
                    text: desktop.fileName(modelData)
                    elide: Text.ElideMiddle
                    Layout.fillWidth: true
                }
                ToolButton {
                    objectName: "removeStaged"
                    icon.name: Symbols.icon("minus.circle.fill")
                    icon.color: theme.colors.secondaryText
                    Accessible.name: qsTr("Remove")
                    ToolTip.visible: hovered
                    ToolTip.text: qsTr("Remove")
                    onClicked: appModel.unstage(modelData)
                }
            }
        }

        DropZone {
            objectName: "dropMoreZone"
            compact: true
            symbol: "plus.circle"
            text: qsTr("Drop more here")
            Layout.fillWidth: true
        }

        RowLayout {
            visible: appModel.planning
            Layout.fillWidth: true
            BusyIndicator { running: appModel.planning; implicitWidth: 22; implicitHeight: 22 }
            Label { objectName: "countingLabel"; text: qsTr("Counting files…"); Layout.fillWidth: true }
            Button {
                objectName: "cancelPlanningButton"
                text: qsTr("Cancel")
                onClicked: appModel.cancelPlanning()
            }
        }

        Label {
            objectName: "planLine"
            visible: !appModel.planning && text !== ""
            color: theme.colors.secondaryText
            Layout.fillWidth: true
            elide: Text.ElideRight
            text: {
                if (panel.plan.name === undefined)
                    return ""
                var toSelf = appModel.toSelf ? qsTr(" · to my devices") : ""
                if (panel.plan.isZip)
                    return panel.plan.fileCount + qsTr(" files, zipped while uploading") + toSelf
                return panel.plan.name + toSelf
            }
        }

        Rectangle {
            objectName: "stagedErrorRow"
            visible: appModel.stagedError !== ""
            Layout.fillWidth: true
            implicitHeight: errorRow.implicitHeight + 12
            radius: 6
            color: theme.colors.warningBackground
            RowLayout {
                id: errorRow
                anchors.fill: parent
                anchors.margins: 6
                spacing: 8
                TypeIcon { symbol: "exclamationmark.triangle.fill"; color: theme.colors.warning }
                Label {
                    objectName: "stagedErrorText"
                    text: appModel.stagedError
                    wrapMode: Text.Wrap
                    Layout.fillWidth: true
                }
            }
        }
    }
}
