#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QString>

namespace lofthaven::testing {

inline QByteArray randomBytes(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    for (qsizetype i = size / 4 * 4; i < size; ++i)
        bytes[i] = char(QRandomGenerator::global()->bounded(256));
    return bytes;
}

inline bool writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
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
