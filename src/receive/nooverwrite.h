#pragma once

#include <QString>

namespace lofthaven {

// File-system steps that never replace an existing name. They return 0 or an errno value so
// callers can tell a lost race (EEXIST: pick the next free name) from a real failure.

// Renames from to to, failing with EEXIST when to exists. Uses renameat2(RENAME_NOREPLACE); on
// file systems without it, link()+unlink() for files.
int renameNoReplace(const QString &from, const QString &to);

// Copies the bytes of from into a new file to (O_EXCL) and flushes it to disk.
int copyToNewFile(const QString &from, const QString &to);

// strerror, but safe on any thread.
QString systemErrorText(int error);

} // namespace lofthaven
