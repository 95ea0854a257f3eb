#pragma once

// Small helpers the send tests share: build file trees in a temporary folder.

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QString>
#include <QTest>

namespace testfiles {

inline QByteArray randomBytes(qsizetype count, quint32 seed = 1)
{
    QRandomGenerator random(seed);
    QByteArray bytes(count, Qt::Uninitialized);
    for (qsizetype i = 0; i < count; ++i)
        bytes[i] = char(random.bounded(256));
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
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray("<unreadable>");
    return file.readAll();
}

// A file of `size` bytes without writing them (a hole), for size limits.
inline bool makeSparseFile(const QString &path, qint64 size)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.resize(size);
}

} // namespace testfiles
