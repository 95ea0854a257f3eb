#include "receive/filenames.h"

#include "platform/displaytext.h"

#include <QDir>
#include <QFile>

#include <sys/stat.h>

namespace lofthaven {

namespace {

constexpr qsizetype kMaxCharacters = 200;
// NAME_MAX is 255 bytes; keep room for " (99999)" so numbered copies still fit.
constexpr qsizetype kMaxUtf8Bytes = 240;

bool pathTaken(const QString &path)
{
    // lstat, so a dangling symlink still counts as taken.
    struct stat st;
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0;
}

QString firstCodePoints(const QString &text, qsizetype count)
{
    qsizetype end = 0;
    for (qsizetype seen = 0; end < text.size() && seen < count; ++seen)
        end += (text.at(end).isHighSurrogate() && end + 1 < text.size()) ? 2 : 1;
    return text.left(end);
}

QString fitUtf8Bytes(QString text, qsizetype maxBytes)
{
    while (text.toUtf8().size() > maxBytes) {
        qsizetype cut = text.size() - 1;
        if (cut > 0 && text.at(cut).isLowSurrogate())
            --cut;
        text.truncate(cut);
    }
    return text;
}

} // namespace

QString safeFileName(const QString &name)
{
    QString result = withoutControlCharacters(name);
    for (QChar &c : result) {
        if (c == u'/' || c == u':')
            c = u'_';
    }
    result = result.trimmed();
    if (result.startsWith(u'.'))
        result = u'_' + result.mid(1);
    // Trimmed again: a cut can end the name in a space.
    result = fitUtf8Bytes(firstCodePoints(result, kMaxCharacters), kMaxUtf8Bytes).trimmed();
    if (result.isEmpty())
        return QStringLiteral("download");
    return result;
}

QString uniquePath(const QString &folder, const QString &name)
{
    const QDir dir(folder);
    QString candidate = dir.filePath(name);
    if (!pathTaken(candidate))
        return candidate;

    // A leading dot starts a hidden name, not an extension.
    const qsizetype dot = name.lastIndexOf(u'.');
    const bool hasExtension = dot > 0 && dot < name.size() - 1;
    const QString base = hasExtension ? name.left(dot) : name;
    const QString extension = hasExtension ? name.mid(dot) : QString();
    for (qint64 n = 2;; ++n) {
        candidate = dir.filePath(base + u" (" + QString::number(n) + u')' + extension);
        if (!pathTaken(candidate))
            return candidate;
    }
}

} // namespace lofthaven
