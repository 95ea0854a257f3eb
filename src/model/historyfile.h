#pragma once

#include "model/historyentry.h"

#include <QList>
#include <QString>

#include <optional>

namespace lofthaven {

// The history file: one JSON array of entries, newest first, mode 0600 because it holds owner
// tokens. Shared by the app and the command line, each of which rereads it before changing it.
class HistoryFile
{
public:
    static constexpr qsizetype kMaxEntries = 300;

    // <support folder>/history.json
    static QString defaultPath();

    // The entries, or nothing when the file is missing, unreadable or not a list of entries.
    // Never reports and never touches a bad file.
    static std::optional<QList<HistoryEntry>> read(const QString &path);
    // The newest kMaxEntries entries as the file holds them.
    static QByteArray encode(const QList<HistoryEntry> &entries);
    // Replaces the file atomically and makes it 0600. Returns false when it could not.
    static bool write(const QString &path, const QList<HistoryEntry> &entries);
    // Puts a new entry at the front of what the file holds now (a bad file counts as empty).
    static bool add(const QString &path, const HistoryEntry &entry);
};

} // namespace lofthaven
