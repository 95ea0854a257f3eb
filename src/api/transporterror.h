#pragma once

#include <QByteArray>
#include <QException>
#include <QString>

namespace lofthaven {

// The request never got a complete HTTP answer: no connection, a time-out, a broken TLS
// handshake, an answer over its size cap. description() is worded for a person; retryable()
// says whether trying again may help (time-outs and dropped connections may, a bad
// certificate will not).
class TransportError : public QException
{
public:
    TransportError(QString description, bool retryable, int curlCode = 0);

    QString description() const { return m_description; }
    bool retryable() const { return m_retryable; }
    int curlCode() const { return m_curlCode; }

    const char *what() const noexcept override { return m_utf8.constData(); }
    void raise() const override { throw *this; }
    TransportError *clone() const override { return new TransportError(*this); }

private:
    QString m_description;
    bool m_retryable;
    int m_curlCode;
    QByteArray m_utf8;
};

} // namespace lofthaven
