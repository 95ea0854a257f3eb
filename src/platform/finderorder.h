#pragma once

#include <QCollator>
#include <QString>

namespace lofthaven {

// The file manager's order for names: case-insensitive, digit runs compared by value
// (file9 < file10, "a" < "B"). Ties the collator reports (file1/File1, file2/file02) are
// broken case-sensitively, then by code point, so the order is total and repeatable.
class FinderOrder
{
public:
    FinderOrder();
    bool operator()(const QString &a, const QString &b) const { return compare(a, b) < 0; }
    int compare(const QString &a, const QString &b) const;

    // For sorting many names: keys compare like compare() up to its case and code-point
    // tie-breaks, so sort by key and break equal keys with compare().
    QCollatorSortKey sortKey(const QString &name) const { return m_caseInsensitive.sortKey(name); }

private:
    QCollator m_caseInsensitive;
    QCollator m_caseSensitive;
};

} // namespace lofthaven
