#pragma once

#include <QByteArray>
#include <QException>
#include <QString>

#include <optional>

namespace lofthaven {

// A non-2xx answer of the service. description() is the sentence the screens show as it stands;
// callers branch on status() and code(), never on the wording.
class APIError : public QException
{
public:
    APIError(int status, QString code, QString message, std::optional<qint64> limit = {});

    // Builds the error from any answer body: HTML, empty or non-JSON bodies just give no fields.
    static APIError fromResponse(int status, const QByteArray &body);

    int status() const { return m_status; }
    QString code() const { return m_code; }
    QString message() const { return m_message; }
    std::optional<qint64> limit() const { return m_limit; }
    QString description() const;

    const char *what() const noexcept override { return m_utf8.constData(); }
    void raise() const override { throw *this; }
    APIError *clone() const override { return new APIError(*this); }

private:
    int m_status;
    QString m_code;
    QString m_message;
    std::optional<qint64> m_limit;
    QByteArray m_utf8;
};

} // namespace lofthaven
