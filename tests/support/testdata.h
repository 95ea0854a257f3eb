#pragma once

#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QRandomGenerator>
#include <QString>

#include <optional>

namespace lofthaven::testing {

// Random bytes; with a seed, the same bytes every run.
inline QByteArray randomBytes(qsizetype size, std::optional<quint32> seed = std::nullopt)
{
    QRandomGenerator seeded(seed.value_or(0));
    QRandomGenerator *random = seed ? &seeded : QRandomGenerator::global();
    QByteArray bytes(size, Qt::Uninitialized);
    random->fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    for (qsizetype i = size / 4 * 4; i < size; ++i)
        bytes[i] = char(random->bounded(256));
    return bytes;
}

inline bool writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}

// A file that cannot be read compares unequal to any bytes, even to an empty buffer.
inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

// A file of `size` bytes without writing them (a hole), for size limits.
// Every regular file below `folder`, by relative path.
inline QMap<QString, QByteArray> filesBelow(const QString &folder)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        files.insert(QDir(folder).relativeFilePath(path), readFile(path));
    }
    return files;
}

inline bool makeSparseFile(const QString &path, qint64 size)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.resize(size);
}

// Fetches a transfer's bytes with curl, an HTTP client independent of ours.
inline QByteArray curlDownload(const QString &url)
{
    QProcess curl;
    curl.start(QStringLiteral("curl"), {QStringLiteral("-sS"), QStringLiteral("-f"), url});
    curl.waitForFinished(60000);
    return curl.exitCode() == 0 ? curl.readAllStandardOutput() : QByteArray();
}

} // namespace lofthaven::testing
