#include "api/transferid.h"

#include "api/apperror.h"

namespace lofthaven {

bool isTransferId(const QString &id)
{
    if (id.isEmpty() || id.size() > 64)
        return false;
    for (const QChar c : id) {
        const char16_t u = c.unicode();
        if (!((u >= u'0' && u <= u'9') || (u >= u'a' && u <= u'z') || (u >= u'A' && u <= u'Z')))
            return false;
    }
    return true;
}

QString checkedTransferId(const QString &id)
{
    if (!isTransferId(id))
        throw AppError(QStringLiteral("The service sent a transfer identifier that is not valid."));
    return id;
}

} // namespace lofthaven
