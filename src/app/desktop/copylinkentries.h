#pragma once

#include "model/historyentry.h"

#include <QList>
#include <QString>

namespace lofthaven {

// One "Copy Link" item of the tray menu: its title ("NAME · 482 913") and the link it copies.
struct CopyLinkEntry
{
    QString title;
    QString link;

    bool operator==(const CopyLinkEntry &) const = default;
};

// The history entries the tray menu offers to copy: in history order, those not yet expired at
// `nowMs` (milliseconds since 1970), at most kMaxCopyLinkEntries. Pure, so it is tested without
// a display or a tray.
inline constexpr int kMaxCopyLinkEntries = 5;
QList<CopyLinkEntry> copyLinkEntries(const QList<HistoryEntry> &history, double nowMs);

} // namespace lofthaven
