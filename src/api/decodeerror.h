#pragma once

#include <QByteArray>
#include <QException>
#include <QString>

namespace lofthaven {

// A 2xx answer that is not the expected record. Names the record and the field so that a
// changed service is diagnosable from the sentence alone.
class DecodeError : public QException
{
public:
    DecodeError(QString record, QString field, QString problem);

    QString record() const { return m_record; }
    QString field() const { return m_field; }
    QString description() const;

    const char *what() const noexcept override { return m_utf8.constData(); }
    void raise() const override { throw *this; }
    DecodeError *clone() const override { return new DecodeError(*this); }

private:
    QString m_record;
    QString m_field;
    QString m_problem;
    QByteArray m_utf8;
};

} // namespace lofthaven
