import QtQuick

// The icon of a file by its name: folders and archives, pictures, sound, film, documents.
TypeIcon {
    property string fileName
    property bool isFolder: false
    size: 28
    color: theme.colors.accentText
    symbol: {
        if (isFolder)
            return "folder"
        var dot = fileName.lastIndexOf(".")
        var ext = dot < 0 ? "" : fileName.substring(dot + 1).toLowerCase()
        if (["zip", "gz", "tgz", "xz", "bz2", "7z", "rar", "tar"].indexOf(ext) >= 0)
            return "doc.zipper"
        if (["jpg", "jpeg", "png", "gif", "heic", "webp", "svg", "tif", "tiff"].indexOf(ext) >= 0)
            return "photo"
        if (["mp3", "wav", "flac", "ogg", "m4a", "aac"].indexOf(ext) >= 0)
            return "music.note"
        if (["mp4", "mov", "mkv", "webm", "avi"].indexOf(ext) >= 0)
            return "film"
        if (["pdf", "doc", "docx", "odt", "rtf", "pages"].indexOf(ext) >= 0)
            return "doc.richtext"
        return "doc"
    }
}
