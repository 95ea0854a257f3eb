import QtQuick
import QtQuick.Controls

// The one prominent action of a screen, filled with the brand colour (flat, so white text
// keeps its contrast).
Button {
    id: button
    highlighted: true
    palette.buttonText: theme.colors.onAccent
    icon.color: theme.colors.onAccent
    font.bold: true
    background: Rectangle {
        implicitWidth: 80
        implicitHeight: 28
        radius: 4
        opacity: button.enabled ? 1 : 0.45
        color: button.down ? Qt.darker(theme.colors.accent, 1.25)
                           : (button.hovered ? Qt.darker(theme.colors.accent, 1.1) : theme.colors.accent)
        border.width: button.visualFocus ? 2 : 0
        border.color: theme.colors.text
    }
}
