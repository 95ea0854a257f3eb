import QtQuick

// The QR code of a link, drawn in whole pixels on white so any camera reads it.
Rectangle {
    property string link
    property int size: 148
    implicitWidth: size
    implicitHeight: size
    color: "white"
    radius: 6
    Image {
        objectName: "qrImage"
        anchors.fill: parent
        anchors.margins: 2
        source: parent.link !== "" ? "image://qr/" + encodeURIComponent(parent.link) : ""
        sourceSize: Qt.size(parent.size, parent.size)
        smooth: false
        fillMode: Image.PreserveAspectFit
        cache: false
    }
}
