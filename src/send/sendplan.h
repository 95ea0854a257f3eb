#pragma once

#include "send/senditem.h"

#include <QList>
#include <QString>
#include <optional>

namespace lofthaven {

// The exact list of files of one send, the transfer's name and its exact byte size.
// Computed once from metadata only, so that the size shown, announced and uploaded agree.
struct SendPlan
{
    QList<SendItem> items; // in send order
    QString name;          // the single file's name, or the archive name ending in ".zip"
    qint64 size = 0;       // bytes that will be uploaded (file size or predicted archive size)
    bool isZip = false;
    std::optional<QString> mime;

    // Plans the selection (local paths, in the order the user gave them). Blocking: walks whole
    // folder trees with one lstat per entry and never opens a regular file, so run it through
    // QtConcurrent::run. Throws AppError with the user's sentence.
    static SendPlan make(const QList<QString> &paths);

    // The second half of make(): limits, naming and size for already collected items.
    // selectionCount is how many paths were selected. Also lets tests probe the 4 GB limit
    // without files of that size.
    static SendPlan fromItems(QList<SendItem> items, qsizetype selectionCount);

    friend bool operator==(const SendPlan &, const SendPlan &) = default;
};

} // namespace lofthaven
