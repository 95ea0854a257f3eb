#include "app/desktop/copylinkentries.h"

#include "model/sendrules.h"

namespace lofthaven {

QList<CopyLinkEntry> copyLinkEntries(const QList<HistoryEntry> &history, double nowMs)
{
    QList<CopyLinkEntry> entries;
    for (const HistoryEntry &entry : history) {
        if (entries.size() == kMaxCopyLinkEntries)
            break;
        // An entry expiring exactly now still counts: only earlier expiries are dropped.
        if (entry.expiresAt < nowMs)
            continue;
        entries.append(
            {entry.name + QStringLiteral(" · ") + sendrules::spacedCode(entry.code), entry.url});
    }
    return entries;
}

} // namespace lofthaven
