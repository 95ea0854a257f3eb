#pragma once

#include <QDateTime>
#include <QHash>
#include <QString>

namespace lofthaven {

// One file of a send: where its bytes come from and the name it carries in the transfer.
struct SendItem
{
    QString path;    // absolute local path the bytes are read from
    QString name;    // "a.txt" for a loose file, "Trip/Sub/b.bin" below a folder; "/"-separated
    qint64 size = 0; // from metadata at planning time; the stream sends exactly this many bytes
    QDateTime mtime; // content modification time (kept in UTC; made local when zipped)

    friend bool operator==(const SendItem &, const SendItem &) = default;
};

inline size_t qHash(const SendItem &item, size_t seed = 0)
{
    return qHashMulti(seed, item.path, item.name, item.size, item.mtime);
}

} // namespace lofthaven
