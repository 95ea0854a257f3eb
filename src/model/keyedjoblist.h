#pragma once

#include "model/joblistmodel.h"

#include <QList>

namespace lofthaven {

// Jobs keyed by id, newest first, as list rows. Owns its jobs: a job taken off the list is handed
// to release(), which decides when it goes. A row repaints when its job signals a change of the
// roles it was forwarded with. The roles every job has come first; a list adds its own from
// kFirstOwnRole on.
template<typename Job>
class KeyedJobList : public JobListModel
{
public:
    enum SharedRole
    {
        JobRole = Qt::UserRole + 1,
        IdRole,
        NameRole,
        SizeRole,
        StateRole,
        ActiveRole,
        kFirstOwnRole,
    };

    using JobListModel::JobListModel;

    int rowCount(const QModelIndex &parent = {}) const override
    {
        return parent.isValid() ? 0 : int(m_jobs.size());
    }

    QVariant data(const QModelIndex &index, int role) const override
    {
        if (!index.isValid() || index.row() >= m_jobs.size())
            return {};
        Job *job = m_jobs.at(index.row());
        switch (role) {
        case JobRole:
            return QVariant::fromValue(job);
        case IdRole:
            return job->id();
        case Qt::DisplayRole:
        case NameRole:
            return job->name();
        case SizeRole:
            return job->size();
        case StateRole:
            return QVariant::fromValue(job->state());
        case ActiveRole:
            return job->isActive();
        }
        return ownData(job, role);
    }

    QHash<int, QByteArray> roleNames() const override
    {
        QHash<int, QByteArray> names = ownRoleNames();
        names.insert({{JobRole, "job"},
                      {IdRole, "id"},
                      {NameRole, "name"},
                      {SizeRole, "size"},
                      {StateRole, "state"},
                      {ActiveRole, "active"}});
        return names;
    }

    Job *find(const QString &id) const
    {
        const qsizetype row = rowOf(id);
        return row < 0 ? nullptr : m_jobs.at(row);
    }

    bool remove(const QString &id)
    {
        const qsizetype row = rowOf(id);
        if (row < 0)
            return false;
        release(takeRow(int(row)));
        Q_EMIT countChanged();
        return true;
    }

    QList<Job *> jobs() const { return m_jobs; }

protected:
    virtual QVariant ownData(Job *job, int role) const = 0;
    virtual QHash<int, QByteArray> ownRoleNames() const = 0;
    // The end of a job that left the list; it is no longer followed.
    virtual void release(Job *job) = 0;

    // The job's signal repaints these roles of its row, wherever the row is by then.
    template<typename Signal>
    void forward(Job *job, Signal signal, QList<int> roles)
    {
        connect(job, signal, this, [this, job, roles] {
            const qsizetype row = m_jobs.indexOf(job);
            if (row < 0)
                return;
            const QModelIndex index = createIndex(int(row), 0);
            Q_EMIT dataChanged(index, index, roles);
        });
    }

    void prependJob(Job *job)
    {
        job->setParent(this);
        beginInsertRows({}, 0, 0);
        m_jobs.prepend(job);
        endInsertRows();
    }

    Job *takeRow(int row)
    {
        beginRemoveRows({}, row, row);
        Job *job = m_jobs.takeAt(row);
        endRemoveRows();
        disconnect(job, nullptr, this, nullptr);
        return job;
    }

private:
    qsizetype rowOf(const QString &id) const
    {
        for (qsizetype row = 0; row < m_jobs.size(); ++row) {
            if (m_jobs.at(row)->id() == id)
                return row;
        }
        return -1;
    }

    QList<Job *> m_jobs;
};

} // namespace lofthaven
