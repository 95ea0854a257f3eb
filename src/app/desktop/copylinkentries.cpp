#include "app/desktop/copylinkentries.h"

#include "model/sendrules.h"

namespace lofthaven {

QList<CopyLinkEntry> copyLinkEntries(const QList<HistoryEntry> &history, double nowMs)
{
    QList<CopyLinkEntry> entries;
    for (const HistoryEntry &entry : unexpiredEntries(history, nowMs, kMaxCopyLinkEntries))
        entries.append(
            {entry.name + QStringLiteral(" · ") + sendrules::spacedCode(entry.code), entry.url});
    return entries;
}

} // namespace lofthaven
