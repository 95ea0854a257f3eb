.pragma library
// The symbols the screens name, mapped to freedesktop icon names. The icon theme draws them;
// icons/ holds bundled drawings of the same names for desktops whose theme lacks one.
var names = {
    "paperplane": "document-send-symbolic",
    "paperplane.fill": "document-send-symbolic",
    "paperplane.circle.fill": "document-send-symbolic",
    "arrow.down.circle": "folder-download-symbolic",
    "arrow.down.circle.fill": "folder-download-symbolic",
    "laptopcomputer.and.iphone": "computer-symbolic",
    "clock.arrow.circlepath": "document-open-recent-symbolic",
    "folder": "folder-symbolic",
    "folder.badge.plus": "folder-new-symbolic",
    "doc.on.clipboard": "edit-paste-symbolic",
    "doc.on.doc": "edit-copy-symbolic",
    "minus.circle.fill": "list-remove-symbolic",
    "plus.circle": "list-add-symbolic",
    "exclamationmark.triangle.fill": "dialog-warning-symbolic",
    "checkmark": "object-select-symbolic",
    "checkmark.circle.fill": "emblem-ok-symbolic",
    "safari": "lofthaven-open-link",
    "square.and.arrow.up": "emblem-shared-symbolic",
    "xmark.circle": "process-stop-symbolic",
    "xmark": "window-close-symbolic",
    "info.circle.fill": "dialog-information-symbolic",
    "arrow.down.app.fill": "software-update-available-symbolic",
    "person.crop.circle": "avatar-default-symbolic",
    "person.crop.circle.fill": "avatar-default-symbolic",
    "person.crop.circle.badge.checkmark": "avatar-default-symbolic",
    "link": "lofthaven-link",
    "qrcode": "lofthaven-qr-code",
    "trash": "user-trash-symbolic",
    "clock.badge.plus": "appointment-new-symbolic",
    "eye": "view-reveal-symbolic",
    "folder.open": "folder-open-symbolic",
    "arrow.clockwise": "view-refresh-symbolic",
    "envelope": "mail-send-symbolic",
    "ellipsis": "open-menu-symbolic",
    "doc": "text-x-generic-symbolic",
    "doc.zipper": "package-x-generic-symbolic",
    "photo": "image-x-generic-symbolic",
    "music.note": "audio-x-generic-symbolic",
    "film": "video-x-generic-symbolic",
    "doc.richtext": "x-office-document-symbolic",
    "gearshape": "emblem-system-symbolic",
    "power": "system-shutdown-symbolic",
    "arrow.uturn.backward": "edit-undo-symbolic",
    "tray.and.arrow.down.fill": "lofthaven-inbox",
    "arrow.up.circle.fill": "go-up-symbolic"
};

// The tray icon sits on panels of any colour, so it uses the full-colour drawings in icons/.
var trayNames = {
    "paperplane.fill": "lofthaven-tray-idle",
    "arrow.up.circle.fill": "lofthaven-tray-uploading"
};

function icon(symbol) {
    return names[symbol] || symbol;
}

function trayIcon(symbol) {
    return trayNames[symbol] || icon(symbol);
}
