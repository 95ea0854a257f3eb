#pragma once

#include "api/wirerecords.h"
#include "send/sendplan.h"

#include <QList>
#include <QString>

#include <optional>

namespace lofthaven {

// The limits a send is checked against before it starts, and the words its notices use.
namespace sendrules {

inline constexpr qint64 kAnonymousMaxBytes = 524288000; // 500 MiB
inline constexpr qint64 kDefaultExpiry = 259200;        // three days
inline const QList<qint64> kAnonymousExpiries = {3600, 86400, 259200};

// The account's maximum bytes per transfer, or the anonymous limit without account or limits.
qint64 maxBytes(const std::optional<MeResponse> &me);
// The link lifetimes the account allows (the anonymous ones without account or limits).
QList<qint64> allowedExpiries(const std::optional<MeResponse> &me);
// The preferred lifetime when allowed, else three days when allowed, else the longest allowed.
qint64 defaultExpiry(qint64 preferred, const QList<qint64> &allowed);

// Nothing when the plan may be sent, else the sentence that forbids it. A send to one's own
// devices needs a sign-in, which is checked before the size.
std::optional<QString> sendBlocker(const SendPlan &plan, bool toSelf, bool signedIn,
                                   const std::optional<MeResponse> &me);

// "123 456" for a six-character code; other lengths as they are.
QString spacedCode(const QString &code);

} // namespace sendrules

} // namespace lofthaven
