#include "model/sendrules.h"

#include "platform/bytecount.h"

#include <algorithm>

namespace lofthaven::sendrules {

qint64 maxBytes(const std::optional<MeResponse> &me)
{
    if (me && me->limits && me->limits->maxBytes > 0)
        return me->limits->maxBytes;
    return kAnonymousMaxBytes;
}

QList<qint64> allowedExpiries(const std::optional<MeResponse> &me)
{
    if (me && me->limits && !me->limits->expiries.isEmpty())
        return me->limits->expiries;
    return kAnonymousExpiries;
}

qint64 defaultExpiry(qint64 preferred, const QList<qint64> &allowed)
{
    if (allowed.contains(preferred))
        return preferred;
    if (allowed.isEmpty() || allowed.contains(kDefaultExpiry))
        return kDefaultExpiry;
    return *std::max_element(allowed.begin(), allowed.end());
}

std::optional<QString> sendBlocker(const SendPlan &plan, bool toSelf, bool signedIn,
                                   const std::optional<MeResponse> &me)
{
    if (toSelf && !signedIn)
        return QStringLiteral("Sign in to send files to your devices.");
    const qint64 limit = maxBytes(me);
    if (plan.size <= limit)
        return std::nullopt;
    return plan.name + QStringLiteral(" is ") + formatByteCount(plan.size) +
           QStringLiteral("; the limit is ") + formatByteCount(limit) +
           QStringLiteral(" per transfer") +
           (signedIn ? QStringLiteral(" on your plan.")
                     : QStringLiteral(" without an account. Sign in for free to send up to 2 GB."));
}

QString spacedCode(const QString &code)
{
    return code.size() == 6 ? code.left(3) + u' ' + code.mid(3) : code;
}

} // namespace lofthaven::sendrules
