#pragma once

#include "api/wirerecords.h"

#include <QAbstractListModel>
#include <QList>
#include <QSet>

namespace lofthaven {

// A list of transfers as the service describes them (the devices inbox, the account's own
// transfers), keyed by id and kept in the service's order. A new answer is merged row by row,
// so a view keeps its place and only changed rows repaint.
class TransferList : public QAbstractListModel
{
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role
    {
        IdRole = Qt::UserRole + 1,
        NameRole,
        SizeRole,
        MimeRole,
        IsZipRole,
        FileCountRole,
        TitleRole,
        MessageRole,
        CreatedAtRole,
        ExpiresAtRole,
        DownloadsRole,
        MaxDownloadsRole,
        HasPasswordRole,
        CodeRole,
        UrlRole,
        StatusRole,
        ToSelfRole,
        DeviceRole,
        IsNewRole,
    };

    explicit TransferList(QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return int(m_items.size()); }
    const QList<TransferMeta> &items() const { return m_items; }
    std::optional<TransferMeta> find(const QString &id) const;

    void setItems(const QList<TransferMeta> &items);
    // Changes the item with that id in place; false when there is none.
    bool update(const QString &id, const std::function<void(TransferMeta &)> &change);
    bool remove(const QString &id);
    void clear() { setItems({}); }
    // Ids the user has seen: the isNew role is false for them.
    void setSeen(const QSet<QString> &seen);

Q_SIGNALS:
    void countChanged();

private:
    QList<TransferMeta> m_items;
    QSet<QString> m_seen;
};

} // namespace lofthaven
