#pragma once

// The files on a clipboard or in a drop (GUI-side: lofthaven_platform_gui).
// Threads: main thread (the clipboard belongs to the GUI thread).

#include <QList>
#include <QUrl>

class QMimeData;

namespace lofthaven {

// Local file URLs from "text/uri-list", in order; when it holds none, the file manager's
// legacy list "x-special/gnome-copied-files" ("copy" or "cut", then one URI a line). Possibly
// empty.
QList<QUrl> fileUrls(const QMimeData *data);

// fileUrls() of the system clipboard.
QList<QUrl> clipboardFileUrls();

} // namespace lofthaven
