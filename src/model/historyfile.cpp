#include "model/historyfile.h"

#include "platform/folders.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>

#include <sys/stat.h>

namespace lofthaven {

QString HistoryFile::defaultPath()
{
    return supportFolder() + QStringLiteral("/history.json");
}

std::optional<QList<HistoryEntry>> HistoryFile::read(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError || !document.isArray())
        return std::nullopt;
    QList<HistoryEntry> entries;
    try {
        for (const QJsonValue &value : document.array()) {
            if (!value.isObject())
                return std::nullopt;
            entries.append(HistoryEntry::fromJson(value.toObject()));
        }
    } catch (const DecodeError &) {
        return std::nullopt;
    }
    return entries;
}

QByteArray HistoryFile::encode(const QList<HistoryEntry> &entries)
{
    QJsonArray array;
    for (qsizetype i = 0; i < entries.size() && i < kMaxEntries; ++i)
        array.append(entries.at(i).toJson());
    return QJsonDocument(array).toJson();
}

bool HistoryFile::write(const QString &path, const QList<HistoryEntry> &entries)
{
    const QByteArray bytes = encode(entries);
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    // Owner tokens: the new file is private before its first byte is written.
    ::fchmod(file.handle(), S_IRUSR | S_IWUSR);
    if (file.write(bytes) != bytes.size() || !file.commit())
        return false;
    ::chmod(QFile::encodeName(path).constData(), S_IRUSR | S_IWUSR);
    return true;
}

bool HistoryFile::add(const QString &path, const HistoryEntry &entry)
{
    QList<HistoryEntry> entries = read(path).value_or(QList<HistoryEntry>());
    entries.prepend(entry);
    return write(path, entries);
}

} // namespace lofthaven
