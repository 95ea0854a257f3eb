#include "platform/mimetypes.h"

#include <QMimeDatabase>

namespace lofthaven {

std::optional<QString> mimeTypeForFileName(const QString &fileName)
{
    static const QMimeDatabase database;
    const QMimeType type = database.mimeTypeForFile(fileName, QMimeDatabase::MatchExtension);
    if (!type.isValid() || type.isDefault())
        return std::nullopt;
    return type.name();
}

} // namespace lofthaven
