#include "app/desktop/clipboardfiles.h"

#include <QFileInfo>
#include <QMimeData>
#include <QUrl>

namespace lofthaven {

QStringList clipboardFiles(const QMimeData *data)
{
    if (!data)
        return {};
    QList<QUrl> urls = data->urls();
    const QString gnome = QStringLiteral("x-special/gnome-copied-files");
    if (urls.isEmpty() && data->hasFormat(gnome)) {
        // "copy\nfile:///a\nfile:///b"
        const QStringList lines = QString::fromUtf8(data->data(gnome)).split(QLatin1Char('\n'));
        for (qsizetype i = 1; i < lines.size(); ++i) {
            if (!lines.at(i).trimmed().isEmpty())
                urls.append(QUrl(lines.at(i).trimmed()));
        }
    }
    QStringList paths;
    for (const QUrl &url : urls) {
        if (url.isLocalFile() && QFileInfo::exists(url.toLocalFile()))
            paths.append(url.toLocalFile());
    }
    return paths;
}

} // namespace lofthaven
