#include "model/historylist.h"

#include <QDateTime>

namespace lofthaven {

HistoryList::HistoryList(QObject *parent)
    : QAbstractListModel(parent)
{}

int HistoryList::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_entries.size());
}

QVariant HistoryList::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_entries.size())
        return {};
    const HistoryEntry &entry = m_entries.at(index.row());
    switch (role) {
    case IdRole:
        return entry.id;
    case CodeRole:
        return entry.code;
    case UrlRole:
        return entry.url;
    case CodeUrlRole:
        return entry.codeUrl.value_or(QString());
    case Qt::DisplayRole:
    case NameRole:
        return entry.name;
    case SizeRole:
        return entry.size;
    case ExpiresAtRole:
        return QDateTime::fromMSecsSinceEpoch(qint64(entry.expiresAt));
    case CreatedAtRole:
        return QDateTime::fromMSecsSinceEpoch(qint64(entry.createdAt));
    case FileCountRole:
        return entry.fileCount.value_or(1);
    case ToSelfRole:
        return entry.isToSelf();
    case ExtendedRole:
        return entry.isExtended();
    }
    return {};
}

QHash<int, QByteArray> HistoryList::roleNames() const
{
    return {{IdRole, "id"},
            {CodeRole, "code"},
            {UrlRole, "url"},
            {CodeUrlRole, "codeUrl"},
            {NameRole, "name"},
            {SizeRole, "size"},
            {ExpiresAtRole, "expiresAt"},
            {CreatedAtRole, "createdAt"},
            {FileCountRole, "fileCount"},
            {ToSelfRole, "toSelf"},
            {ExtendedRole, "extended"}};
}

std::optional<HistoryEntry> HistoryList::find(const QString &id) const
{
    for (const HistoryEntry &entry : m_entries) {
        if (entry.id == id)
            return entry;
    }
    return std::nullopt;
}

void HistoryList::setEntries(QList<HistoryEntry> entries)
{
    beginResetModel();
    m_entries = std::move(entries);
    endResetModel();
    Q_EMIT countChanged();
}

void HistoryList::prepend(HistoryEntry entry)
{
    beginInsertRows({}, 0, 0);
    m_entries.prepend(std::move(entry));
    endInsertRows();
    Q_EMIT countChanged();
}

bool HistoryList::update(const QString &id, const std::function<void(HistoryEntry &)> &change)
{
    bool found = false;
    for (int row = 0; row < m_entries.size(); ++row) {
        if (m_entries.at(row).id != id)
            continue;
        change(m_entries[row]);
        const QModelIndex index = createIndex(row, 0);
        Q_EMIT dataChanged(index, index);
        found = true;
    }
    return found;
}

bool HistoryList::remove(const QString &id)
{
    bool found = false;
    for (int row = int(m_entries.size()) - 1; row >= 0; --row) {
        if (m_entries.at(row).id != id)
            continue;
        beginRemoveRows({}, row, row);
        m_entries.removeAt(row);
        endRemoveRows();
        found = true;
    }
    if (found)
        Q_EMIT countChanged();
    return found;
}

} // namespace lofthaven
