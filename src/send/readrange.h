#pragma once

#include <QByteArray>
#include <QString>

namespace lofthaven {

// Reads `length` bytes of the file at `path` starting at `offset` (a fileRange part).
// Blocking. A short read means the file shrank since planning: AppError with the file's name
// and " changed while sending."; open, seek and read failures carry the system's description.
QByteArray readRange(const QString &path, qint64 offset, qint64 length);

} // namespace lofthaven
