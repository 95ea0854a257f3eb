#pragma once

#include <QStringList>

class QMimeData;

namespace lofthaven {

// The local files a copy in a file manager put on the clipboard (text/uri-list, or GNOME's
// x-special/gnome-copied-files), as absolute paths; empty when it holds none.
QStringList clipboardFiles(const QMimeData *data);

} // namespace lofthaven
