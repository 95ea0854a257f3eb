#include "platform/finderorder.h"

#include <QLocale>

namespace lofthaven {

namespace {
QLocale collationLocale()
{
    // Under the C locale (typical for services and CI) ICU ignores numeric mode.
    QLocale locale;
    if (locale.language() == QLocale::C)
        locale = QLocale(QLocale::English, QLocale::UnitedStates);
    return locale;
}
} // namespace

FinderOrder::FinderOrder()
    : m_caseInsensitive(collationLocale())
    , m_caseSensitive(collationLocale())
{
    m_caseInsensitive.setNumericMode(true);
    m_caseInsensitive.setCaseSensitivity(Qt::CaseInsensitive);
    m_caseSensitive.setNumericMode(true);
    m_caseSensitive.setCaseSensitivity(Qt::CaseSensitive);
}

int FinderOrder::compare(const QString &a, const QString &b) const
{
    if (const int r = m_caseInsensitive.compare(a, b))
        return r;
    if (const int r = m_caseSensitive.compare(a, b))
        return r;
    return a.compare(b);
}

} // namespace lofthaven
