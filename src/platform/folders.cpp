#include "platform/folders.h"

#include <QDir>
#include <QStandardPaths>

namespace lofthaven {

QString downloadFolder()
{
    QString folder = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    if (folder.isEmpty())
        folder = QDir::homePath() + QStringLiteral("/Downloads");
    return folder;
}

QString tempFolder()
{
    QString folder = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    if (folder.isEmpty())
        folder = QDir::tempPath() + QStringLiteral("/Lofthaven");
    return folder;
}

} // namespace lofthaven
