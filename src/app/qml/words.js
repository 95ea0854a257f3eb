.pragma library
// The product's words that name macOS things, as a Linux desktop says them (one table).
function showInFolder() { return qsTr("Show in Folder"); }
function preview() { return qsTr("Preview"); }
function pasteNotice() { return qsTr("Copy files in your file manager (Ctrl+C), then paste them here."); }
function showInTray() { return qsTr("Show in tray"); }
function thisComputerShowsAs() { return qsTr("This computer shows as"); }
