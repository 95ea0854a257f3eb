#pragma once

#include <QString>

namespace lofthaven {

// Moves a finished partial file into folder under safeFileName(name), made unique, and returns
// the final path. Never replaces an existing file, even when another process creates the same
// name at the same moment. Across file systems the bytes are copied to a hidden name in folder,
// flushed, and only then given their final name, so a half-copied file never shows under it.
// Blocking; run it off the main thread. Throws AppError.
QString moveIntoPlace(const QString &partial, const QString &name, const QString &folder);

} // namespace lofthaven
