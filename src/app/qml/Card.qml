import QtQuick
import QtQuick.Controls

// A rounded card on the window background.
Pane {
    padding: 16
    background: Rectangle {
        radius: 10
        color: theme.colors.card
        border.color: theme.colors.cardBorder
    }
}
