#pragma once

// The folders the application reads and writes, as absolute paths (no trailing slash).
// Threads: any thread; each call reads the preferences and the XDG variables afresh.

#include <QString>

namespace lofthaven {

// Where downloads land: the "downloadFolder" preference when set (as given, even if it does
// not exist), else the XDG download folder, else ~/Downloads. Never created here.
QString downloadFolder();

// $XDG_CACHE_HOME/Lofthaven, or the system temporary folder followed by "Lofthaven" when no
// cache folder is known. Not created here.
QString defaultTempFolder();

// Scratch space for spilled upload parts and partial downloads: "<tempFolder preference>/
// Lofthaven Temp" when that preference is set, else defaultTempFolder(). Created (with its
// parents) on every call; a failure to create it is ignored and the path returned all the same,
// so the file operation that follows reports the real problem.
QString tempFolder();

// $XDG_DATA_HOME/Lofthaven (holds the history file), created with mode 0700 when missing;
// a failure to create it is ignored.
QString supportFolder();

} // namespace lofthaven
