#include "model/sendjoblist.h"

namespace lofthaven {

SendJobList::SendJobList(QObject *parent)
    : QAbstractListModel(parent)
{}

int SendJobList::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_jobs.size());
}

QVariant SendJobList::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_jobs.size())
        return {};
    const SendJob *job = m_jobs.at(index.row());
    switch (role) {
    case JobRole:
        return QVariant::fromValue(const_cast<SendJob *>(job));
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
    case OriginRole:
        return QVariant::fromValue(job->origin());
    case ToSelfRole:
        return job->toSelf();
    case SentRole:
        return job->sent();
    case SpeedRole:
        return job->speed();
    case SecondsLeftRole:
        return job->secondsLeft();
    case MessageRole:
        return job->message();
    case CodeRole:
        return job->code();
    case UrlRole:
        return job->url();
    }
    return {};
}

QHash<int, QByteArray> SendJobList::roleNames() const
{
    return {{JobRole, "job"},
            {IdRole, "id"},
            {NameRole, "name"},
            {SizeRole, "size"},
            {StateRole, "state"},
            {ActiveRole, "active"},
            {OriginRole, "origin"},
            {ToSelfRole, "toSelf"},
            {SentRole, "sent"},
            {SpeedRole, "speed"},
            {SecondsLeftRole, "secondsLeft"},
            {MessageRole, "message"},
            {CodeRole, "code"},
            {UrlRole, "url"}};
}

int SendJobList::activeCount() const
{
    return int(std::count_if(m_jobs.begin(), m_jobs.end(),
                             [](const SendJob *job) { return job->isActive(); }));
}

void SendJobList::prepend(SendJob *job)
{
    job->setParent(this);
    connect(job, &SendJob::stateChanged, this, [this, job] {
        jobChanged(job, {StateRole, ActiveRole, MessageRole, CodeRole, UrlRole});
        Q_EMIT activeCountChanged();
    });
    connect(job, &SendJob::progressChanged, this, [this, job] {
        jobChanged(job, {SentRole, SpeedRole, SecondsLeftRole});
    });
    beginInsertRows({}, 0, 0);
    m_jobs.prepend(job);
    endInsertRows();
    while (m_jobs.size() > kMaxJobs) {
        const int last = int(m_jobs.size()) - 1;
        beginRemoveRows({}, last, last);
        SendJob *old = m_jobs.takeLast();
        endRemoveRows();
        discard(old);
    }
    Q_EMIT countChanged();
    Q_EMIT activeCountChanged();
}

SendJob *SendJobList::find(const QString &id) const
{
    for (SendJob *job : m_jobs) {
        if (job->id() == id)
            return job;
    }
    return nullptr;
}

SendJob *SendJobList::at(int row) const
{
    return row >= 0 && row < m_jobs.size() ? m_jobs.at(row) : nullptr;
}

bool SendJobList::remove(const QString &id)
{
    for (int row = 0; row < m_jobs.size(); ++row) {
        if (m_jobs.at(row)->id() != id)
            continue;
        beginRemoveRows({}, row, row);
        SendJob *job = m_jobs.takeAt(row);
        endRemoveRows();
        discard(job);
        Q_EMIT countChanged();
        Q_EMIT activeCountChanged();
        return true;
    }
    return false;
}

void SendJobList::jobChanged(SendJob *job, const QList<int> &roles)
{
    const qsizetype row = m_jobs.indexOf(job);
    if (row < 0)
        return;
    const QModelIndex index = createIndex(int(row), 0);
    Q_EMIT dataChanged(index, index, roles);
}

void SendJobList::discard(SendJob *job)
{
    disconnect(job, nullptr, this, nullptr);
    // A job pushed out while it runs finishes its upload (and its history entry) first.
    if (!job->isActive()) {
        job->deleteLater();
        return;
    }
    connect(job, &SendJob::stateChanged, job, [job] {
        if (!job->isActive())
            job->deleteLater();
    });
}

} // namespace lofthaven
