#include "model/downloadlist.h"

namespace lofthaven {

DownloadList::DownloadList(QObject *parent)
    : QAbstractListModel(parent)
{}

int DownloadList::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_jobs.size());
}

QVariant DownloadList::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_jobs.size())
        return {};
    DownloadJob *job = m_jobs.at(index.row());
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
    case ReceivedRole:
        return job->received();
    case SpeedRole:
        return job->speed();
    case ResultRole:
        return job->result();
    case MessageRole:
        return job->message();
    }
    return {};
}

QHash<int, QByteArray> DownloadList::roleNames() const
{
    return {{JobRole, "job"},           {IdRole, "id"},       {NameRole, "name"},
            {SizeRole, "size"},         {StateRole, "state"}, {ActiveRole, "active"},
            {ReceivedRole, "received"}, {SpeedRole, "speed"}, {ResultRole, "result"},
            {MessageRole, "message"}};
}

DownloadJob *DownloadList::find(const QString &id) const
{
    for (DownloadJob *job : m_jobs) {
        if (job->id() == id)
            return job;
    }
    return nullptr;
}

void DownloadList::insert(DownloadJob *job)
{
    remove(job->id());
    job->setParent(this);
    connect(job, &DownloadJob::stateChanged, this, [this, job] {
        jobChanged(job, {StateRole, ActiveRole, ResultRole, MessageRole});
    });
    connect(job, &DownloadJob::progressChanged, this, [this, job] {
        jobChanged(job, {ReceivedRole, SpeedRole});
    });
    beginInsertRows({}, 0, 0);
    m_jobs.prepend(job);
    endInsertRows();
    Q_EMIT countChanged();
}

bool DownloadList::remove(const QString &id)
{
    for (int row = 0; row < m_jobs.size(); ++row) {
        if (m_jobs.at(row)->id() != id)
            continue;
        beginRemoveRows({}, row, row);
        DownloadJob *job = m_jobs.takeAt(row);
        endRemoveRows();
        disconnect(job, nullptr, this, nullptr);
        job->cancel();
        job->deleteLater();
        Q_EMIT countChanged();
        return true;
    }
    return false;
}

void DownloadList::jobChanged(DownloadJob *job, const QList<int> &roles)
{
    const qsizetype row = m_jobs.indexOf(job);
    if (row < 0)
        return;
    const QModelIndex index = createIndex(int(row), 0);
    Q_EMIT dataChanged(index, index, roles);
}

} // namespace lofthaven
