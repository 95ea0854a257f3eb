#include "api/decodeerror.h"

namespace lofthaven {

DecodeError::DecodeError(QString record, QString field, QString problem)
    : m_record(std::move(record))
    , m_field(std::move(field))
    , m_problem(std::move(problem))
{
    m_utf8 = description().toUtf8();
}

QString DecodeError::description() const
{
    const QString subject = m_field.isEmpty() ? m_record : m_record + u'.' + m_field;
    return QStringLiteral("The service's answer could not be read (%1 %2).")
        .arg(subject, m_problem);
}

} // namespace lofthaven
