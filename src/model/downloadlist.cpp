#include "model/downloadlist.h"

namespace lofthaven {

DownloadList::DownloadList(QObject *parent)
    : KeyedJobList(parent)
{}

QVariant DownloadList::ownData(DownloadJob *job, int role) const
{
    switch (role) {
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

QHash<int, QByteArray> DownloadList::ownRoleNames() const
{
    return {{ReceivedRole, "received"},
            {SpeedRole, "speed"},
            {ResultRole, "result"},
            {MessageRole, "message"}};
}

void DownloadList::insert(DownloadJob *job)
{
    remove(job->id());
    forward(job, &DownloadJob::stateChanged, {StateRole, ActiveRole, ResultRole, MessageRole});
    forward(job, &DownloadJob::progressChanged, {ReceivedRole, SpeedRole});
    prependJob(job);
    Q_EMIT countChanged();
}

void DownloadList::release(DownloadJob *job)
{
    job->cancel();
    job->deleteLater();
}

} // namespace lofthaven
