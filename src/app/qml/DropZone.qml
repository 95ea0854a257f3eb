import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// An area that takes dropped files and folders (text/uri-list) and stages them, or only
// reports them when `stages` is false.
DropArea {
    id: zone
    property bool stages: true
    signal filesDropped(var paths)
    property string symbol: "paperplane.circle.fill"
    property string text
    property bool compact: false
    default property alias content: extra.data

    implicitHeight: compact ? 52 : 230
    implicitWidth: column.implicitWidth + 32
    keys: ["text/uri-list"]
    onDropped: function (drop) {
        var paths = drop.urls.map(function (u) { return u.toString() })
        if (zone.stages)
            appModel.stage(paths)
        zone.filesDropped(paths)
        drop.acceptProposedAction()
    }

    Rectangle {
        anchors.fill: parent
        radius: 12
        color: zone.containsDrag ? theme.colors.dropZoneActive : theme.colors.dropZone
        border.width: zone.containsDrag ? 2 : 1
        border.color: zone.containsDrag ? theme.colors.accent : theme.colors.cardBorder
    }

    ColumnLayout {
        id: column
        anchors.centerIn: parent
        spacing: zone.compact ? 4 : 14
        TypeIcon {
            symbol: zone.symbol
            size: 48
            color: theme.colors.accentText
            Layout.alignment: Qt.AlignHCenter
            visible: !zone.compact
        }
        RowLayout {
            Layout.alignment: Qt.AlignHCenter
            spacing: 8
            TypeIcon {
                symbol: zone.symbol
                size: 18
                color: theme.colors.accentText
                visible: zone.compact
            }
            Label {
                text: zone.text
                color: zone.compact ? theme.colors.secondaryText : theme.colors.text
                font.pixelSize: zone.compact ? Qt.application.font.pixelSize
                                             : Qt.application.font.pixelSize * 1.35
            }
        }
        RowLayout {
            id: extra
            Layout.alignment: Qt.AlignHCenter
            spacing: 8
            visible: children.length > 0
        }
    }
}
