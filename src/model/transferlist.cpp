#include "model/transferlist.h"

#include <QDateTime>

namespace lofthaven {

namespace {

QVariant time(const std::optional<double> &ms)
{
    return ms ? QVariant(QDateTime::fromMSecsSinceEpoch(qint64(*ms))) : QVariant();
}

template<typename T>
QVariant optional(const std::optional<T> &value)
{
    return value ? QVariant::fromValue(*value) : QVariant();
}

} // namespace

TransferList::TransferList(QObject *parent)
    : QAbstractListModel(parent)
{}

int TransferList::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_items.size());
}

QVariant TransferList::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_items.size())
        return {};
    const TransferMeta &item = m_items.at(index.row());
    switch (role) {
    case IdRole:
        return item.id;
    case Qt::DisplayRole:
    case NameRole:
        return item.name;
    case SizeRole:
        return item.size;
    case MimeRole:
        return optional(item.mime);
    case IsZipRole:
        return item.isZip.value_or(false);
    case FileCountRole:
        return optional(item.fileCount);
    case TitleRole:
        return optional(item.title);
    case MessageRole:
        return optional(item.message);
    case CreatedAtRole:
        return time(item.createdAt);
    case ExpiresAtRole:
        return time(item.expiresAt);
    case DownloadsRole:
        return optional(item.downloads);
    case MaxDownloadsRole:
        return optional(item.maxDownloads);
    case HasPasswordRole:
        return item.hasPassword.value_or(false);
    case CodeRole:
        return optional(item.code);
    case UrlRole:
        return optional(item.url);
    case StatusRole:
        return optional(item.status);
    case ToSelfRole:
        return item.toSelf.value_or(false);
    case DeviceRole:
        return optional(item.device);
    case IsNewRole:
        return !m_seen.contains(item.id);
    }
    return {};
}

QHash<int, QByteArray> TransferList::roleNames() const
{
    return {{IdRole, "id"},
            {NameRole, "name"},
            {SizeRole, "size"},
            {MimeRole, "mime"},
            {IsZipRole, "isZip"},
            {FileCountRole, "fileCount"},
            {TitleRole, "title"},
            {MessageRole, "message"},
            {CreatedAtRole, "createdAt"},
            {ExpiresAtRole, "expiresAt"},
            {DownloadsRole, "downloads"},
            {MaxDownloadsRole, "maxDownloads"},
            {HasPasswordRole, "hasPassword"},
            {CodeRole, "code"},
            {UrlRole, "url"},
            {StatusRole, "status"},
            {ToSelfRole, "toSelf"},
            {DeviceRole, "device"},
            {IsNewRole, "isNew"}};
}

std::optional<TransferMeta> TransferList::find(const QString &id) const
{
    for (const TransferMeta &item : m_items) {
        if (item.id == id)
            return item;
    }
    return std::nullopt;
}

void TransferList::setItems(const QList<TransferMeta> &items)
{
    const qsizetype before = m_items.size();
    QSet<QString> wanted;
    for (const TransferMeta &item : items)
        wanted.insert(item.id);
    // Rows that are gone, then the new order row by row: keep, move up, or insert.
    for (int row = int(m_items.size()) - 1; row >= 0; --row) {
        if (wanted.contains(m_items.at(row).id))
            continue;
        beginRemoveRows({}, row, row);
        m_items.removeAt(row);
        endRemoveRows();
    }
    for (int row = 0; row < items.size(); ++row) {
        const TransferMeta &item = items.at(row);
        if (row < m_items.size() && m_items.at(row).id == item.id) {
            if (!(m_items.at(row) == item)) {
                m_items[row] = item;
                Q_EMIT dataChanged(createIndex(row, 0), createIndex(row, 0));
            }
            continue;
        }
        int found = -1;
        for (int later = row + 1; later < m_items.size(); ++later) {
            if (m_items.at(later).id == item.id) {
                found = later;
                break;
            }
        }
        if (found >= 0) {
            beginMoveRows({}, found, found, {}, row);
            m_items.move(found, row);
            endMoveRows();
            if (!(m_items.at(row) == item)) {
                m_items[row] = item;
                Q_EMIT dataChanged(createIndex(row, 0), createIndex(row, 0));
            }
        } else {
            beginInsertRows({}, row, row);
            m_items.insert(row, item);
            endInsertRows();
        }
    }
    // Duplicate ids in an answer leave extra rows at the end.
    if (m_items.size() > items.size()) {
        beginRemoveRows({}, int(items.size()), int(m_items.size()) - 1);
        m_items.resize(items.size());
        endRemoveRows();
    }
    if (m_items.size() != before)
        Q_EMIT countChanged();
}

bool TransferList::update(const QString &id, const std::function<void(TransferMeta &)> &change)
{
    bool found = false;
    for (int row = 0; row < m_items.size(); ++row) {
        if (m_items.at(row).id != id)
            continue;
        change(m_items[row]);
        Q_EMIT dataChanged(createIndex(row, 0), createIndex(row, 0));
        found = true;
    }
    return found;
}

bool TransferList::remove(const QString &id)
{
    bool found = false;
    for (int row = int(m_items.size()) - 1; row >= 0; --row) {
        if (m_items.at(row).id != id)
            continue;
        beginRemoveRows({}, row, row);
        m_items.removeAt(row);
        endRemoveRows();
        found = true;
    }
    if (found)
        Q_EMIT countChanged();
    return found;
}

void TransferList::setSeen(const QSet<QString> &seen)
{
    if (seen == m_seen)
        return;
    m_seen = seen;
    if (!m_items.isEmpty())
        Q_EMIT dataChanged(createIndex(0, 0), createIndex(int(m_items.size()) - 1, 0), {IsNewRole});
}

} // namespace lofthaven
