#pragma once

#include "receive/downloadjob.h"

#include <QAbstractListModel>
#include <QList>

namespace lofthaven {

// The downloads keyed by transfer id, newest first; one job per transfer. Rows follow each
// job's own signals. Owns its jobs.
class DownloadList : public QAbstractListModel
{
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role
    {
        JobRole = Qt::UserRole + 1,
        IdRole,
        NameRole,
        SizeRole,
        StateRole,
        ActiveRole,
        ReceivedRole,
        SpeedRole,
        ResultRole,
        MessageRole,
    };

    explicit DownloadList(QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return int(m_jobs.size()); }
    Q_INVOKABLE lofthaven::DownloadJob *find(const QString &id) const;
    // Puts the job under its id, replacing (and deleting) a finished job of the same transfer.
    void insert(DownloadJob *job);
    bool remove(const QString &id);

Q_SIGNALS:
    void countChanged();

private:
    void jobChanged(DownloadJob *job, const QList<int> &roles);

    QList<DownloadJob *> m_jobs;
};

} // namespace lofthaven
