import QtQuick
import QtQuick.Controls

// The one prominent action of a screen, filled with the brand colour.
Button {
    highlighted: true
    palette.button: theme.colors.accent
    palette.buttonText: theme.colors.onAccent
    icon.color: theme.colors.onAccent
    font.bold: true
}
