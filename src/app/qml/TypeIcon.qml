import QtQuick
import QtQuick.Controls.impl
import "symbols.js" as Symbols

// One symbol of the product, drawn in the text colour (or `color`).
IconImage {
    property string symbol
    property int size: 16
    name: Symbols.icon(symbol)
    color: theme.colors.text
    sourceSize: Qt.size(size, size)
    width: size
    height: size
    fillMode: Image.PreserveAspectFit
}
