#pragma once

#include <QString>

namespace lofthaven {

// A name from the service made safe to create in a folder: no separators, no colons, no control
// characters, no leading dot, at most 200 characters and never more than fits a Linux file name
// with room for a " (n)" suffix. Never empty ("download").
QString safeFileName(const QString &name);

// The first free path in folder for name: name itself, then "base (2).ext", "base (3).ext", ...
// ("base (n)" when the name has no extension). Only a hint: creating the file must still refuse
// to replace one that appeared in between.
QString uniquePath(const QString &folder, const QString &name);

} // namespace lofthaven
