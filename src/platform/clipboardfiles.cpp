#include "platform/clipboardfiles.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>

namespace lofthaven {

QList<QUrl> fileUrls(const QMimeData *data)
{
    QList<QUrl> files;
    if (!data)
        return files;
    if (data->hasUrls()) {
        for (const QUrl &url : data->urls()) {
            if (url.isLocalFile())
                files << url;
        }
        if (!files.isEmpty())
            return files;
    }
    const QByteArray legacy = data->data(QStringLiteral("x-special/gnome-copied-files"));
    const QList<QByteArray> lines = legacy.split('\n');
    // The first line says "copy" or "cut"; either way the files are sent, not moved.
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QUrl url = QUrl::fromEncoded(lines.at(i).trimmed(), QUrl::StrictMode);
        if (url.isLocalFile())
            files << url;
    }
    return files;
}

QList<QUrl> clipboardFileUrls()
{
    return fileUrls(QGuiApplication::clipboard()->mimeData());
}

} // namespace lofthaven
