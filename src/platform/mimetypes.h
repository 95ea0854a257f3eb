#pragma once

#include <QString>
#include <optional>

namespace lofthaven {

// The preferred MIME type announced for a file, judged by its name's extension only.
// No extension, an unknown one, or the generic octet-stream answer gives none.
std::optional<QString> mimeTypeForFileName(const QString &fileName);

} // namespace lofthaven
