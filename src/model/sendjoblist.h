#pragma once

#include "model/sendjob.h"

#include <QAbstractListModel>
#include <QList>

namespace lofthaven {

// The send jobs, newest first, at most kMaxJobs. Rows follow each job's own signals, so a view
// repaints one row when its progress moves. Owns its jobs.
class SendJobList : public QAbstractListModel
{
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
    Q_PROPERTY(int activeCount READ activeCount NOTIFY activeCountChanged)

public:
    static constexpr int kMaxJobs = 20;

    enum Role
    {
        JobRole = Qt::UserRole + 1,
        IdRole,
        NameRole,
        SizeRole,
        StateRole,
        ActiveRole,
        OriginRole,
        ToSelfRole,
        SentRole,
        SpeedRole,
        SecondsLeftRole,
        MessageRole,
        CodeRole,
        UrlRole,
    };

    explicit SendJobList(QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return int(m_jobs.size()); }
    int activeCount() const;
    // Inserts at the front; the oldest jobs beyond kMaxJobs leave the list (and are deleted
    // once their task has let go of them).
    void prepend(SendJob *job);
    Q_INVOKABLE lofthaven::SendJob *find(const QString &id) const;
    Q_INVOKABLE lofthaven::SendJob *at(int row) const;
    bool remove(const QString &id);
    QList<SendJob *> jobs() const { return m_jobs; }

Q_SIGNALS:
    void countChanged();
    void activeCountChanged();

private:
    void jobChanged(SendJob *job, const QList<int> &roles);
    void discard(SendJob *job);

    QList<SendJob *> m_jobs;
};

} // namespace lofthaven
