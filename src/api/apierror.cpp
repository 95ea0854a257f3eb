#include "api/apierror.h"

#include "api/wirerecords.h"
#include "platform/bytecount.h"
#include "platform/displaytext.h"

namespace lofthaven {

APIError::APIError(int status, QString code, QString message, std::optional<qint64> limit)
    : m_status(status)
    , m_code(std::move(code))
    , m_message(std::move(message))
    , m_limit(limit)
{
    m_utf8 = description().toUtf8();
}

APIError APIError::fromResponse(int status, const QByteArray &body)
{
    ErrorBody error;
    try {
        error = decode<ErrorBody>(body);
    } catch (const DecodeError &) {
        // An HTML error page or an empty body is not a second failure; it just says nothing.
    }
    return APIError(status, error.error.value_or(QStringLiteral("http_%1").arg(status)),
                    displayText(error.message.value_or(QString())), error.limit);
}

QString APIError::description() const
{
    switch (m_status) {
    case 401:
        // Deliberately ignores the server's wording: a lost sign-in always reads the same.
        return QStringLiteral("Your sign-in expired or was revoked. Sign in again.");
    case 404:
        return m_message.isEmpty() ? QStringLiteral("Not found.") : m_message;
    case 410:
        // Never shows the server's message.
        return m_code == u"limit_reached"
                   ? QStringLiteral("This transfer reached its download limit.")
                   : QStringLiteral("This transfer has expired.");
    case 413:
        // Binary units although it says "GB": kept on purpose.
        return m_limit ? QStringLiteral("Too large: the limit is ") + formatByteCount(*m_limit) +
                             QStringLiteral(" per transfer.")
                       : QStringLiteral("Too large for your plan.");
    case 429:
        if (m_code == u"quota")
            return m_message.isEmpty() ? QStringLiteral("Daily limit reached.") : m_message;
        return QStringLiteral("Too many requests. Wait a minute, then try again.");
    default:
        return m_message.isEmpty() ? QStringLiteral("Request failed (HTTP %1).").arg(m_status)
                                   : m_message;
    }
}

} // namespace lofthaven
