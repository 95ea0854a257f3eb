#include "model/sendjoblist.h"

namespace lofthaven {

SendJobList::SendJobList(QObject *parent)
    : KeyedJobList(parent)
{}

QVariant SendJobList::ownData(SendJob *job, int role) const
{
    switch (role) {
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

QHash<int, QByteArray> SendJobList::ownRoleNames() const
{
    return {{OriginRole, "origin"},
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
    const QList<SendJob *> all = jobs();
    return int(
        std::count_if(all.begin(), all.end(), [](const SendJob *job) { return job->isActive(); }));
}

void SendJobList::prepend(SendJob *job)
{
    forward(job, &SendJob::stateChanged, {StateRole, ActiveRole, MessageRole, CodeRole, UrlRole});
    connect(job, &SendJob::stateChanged, this, &SendJobList::activeCountChanged);
    forward(job, &SendJob::progressChanged, {SentRole, SpeedRole, SecondsLeftRole});
    prependJob(job);
    while (count() > kMaxJobs)
        release(takeRow(count() - 1));
    Q_EMIT countChanged();
    Q_EMIT activeCountChanged();
}

SendJob *SendJobList::at(int row) const
{
    return row >= 0 && row < count() ? jobs().at(row) : nullptr;
}

bool SendJobList::remove(const QString &id)
{
    if (!KeyedJobList::remove(id))
        return false;
    Q_EMIT activeCountChanged();
    return true;
}

void SendJobList::release(SendJob *job)
{
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
