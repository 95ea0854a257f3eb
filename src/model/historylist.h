#pragma once

#include "model/historyentry.h"

#include <QAbstractListModel>
#include <QList>

#include <functional>

namespace lofthaven {

// The transfers sent from this computer, newest first, keyed by transfer id. Holds the whole
// in-memory list (the file keeps only the newest 300). Owner tokens are not exposed as roles.
class HistoryList : public QAbstractListModel
{
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role
    {
        IdRole = Qt::UserRole + 1,
        CodeRole,
        UrlRole,
        CodeUrlRole,
        NameRole,
        SizeRole,
        ExpiresAtRole,
        CreatedAtRole,
        FileCountRole,
        ToSelfRole,
        ExtendedRole,
    };

    explicit HistoryList(QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return int(m_entries.size()); }
    const QList<HistoryEntry> &entries() const { return m_entries; }
    std::optional<HistoryEntry> find(const QString &id) const;

    void setEntries(QList<HistoryEntry> entries);
    void prepend(HistoryEntry entry);
    // Changes the entry with that id in place; false when there is none.
    bool update(const QString &id, const std::function<void(HistoryEntry &)> &change);
    // Removes every entry with that id; false when there was none.
    bool remove(const QString &id);

Q_SIGNALS:
    void countChanged();

private:
    QList<HistoryEntry> m_entries;
};

} // namespace lofthaven
