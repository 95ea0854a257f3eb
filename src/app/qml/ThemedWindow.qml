import QtQuick
import QtQuick.Controls

// A window of the app outside the main one (tray panel, settings), in the current theme's
// colours.
ApplicationWindow {
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
}
