#include "platform/folders.h"

#include "platform/applicationid.h"
#include "platform/preferences.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <sys/stat.h>
#include <sys/types.h>

namespace lofthaven {

namespace {

QString withoutTrailingSlash(QString path)
{
    while (path.size() > 1 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    return path;
}

} // namespace

QString downloadFolder()
{
    const QString chosen = stringPreference(Preference::DownloadFolder);
    if (!chosen.isEmpty())
        return withoutTrailingSlash(chosen);
    const QString standard = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    if (!standard.isEmpty())
        return withoutTrailingSlash(standard);
    return QDir::homePath() + QStringLiteral("/Downloads");
}

QString defaultTempFolder()
{
    QString base = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    if (base.isEmpty())
        base = QDir::tempPath();
    return withoutTrailingSlash(base) + QLatin1Char('/') + QLatin1String(kApplicationName);
}

QString tempFolder()
{
    const QString chosen = stringPreference(Preference::TempFolder);
    const QString folder = chosen.isEmpty()
                               ? defaultTempFolder()
                               : withoutTrailingSlash(chosen) + QStringLiteral("/Lofthaven Temp");
    QDir().mkpath(folder);
    return folder;
}

QString supportFolder()
{
    QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty())
        base = QDir::homePath() + QStringLiteral("/.local/share");
    const QString folder =
        withoutTrailingSlash(base) + QLatin1Char('/') + QLatin1String(kApplicationName);
    if (!QFileInfo::exists(folder)) {
        // Made 0700 from the start: it keeps owner tokens, so no moment with wider access.
        QDir().mkpath(base);
        ::mkdir(QFile::encodeName(folder).constData(), 0700);
    }
    return folder;
}

} // namespace lofthaven
