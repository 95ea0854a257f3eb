#pragma once

#include "model/keyedjoblist.h"
#include "receive/downloadjob.h"

namespace lofthaven {

// The downloads keyed by transfer id, newest first; one job per transfer. Rows follow each
// job's own signals. Owns its jobs.
class DownloadList : public KeyedJobList<DownloadJob>
{
    Q_OBJECT

public:
    enum Role
    {
        ReceivedRole = kFirstOwnRole,
        SpeedRole,
        ResultRole,
        MessageRole,
    };

    explicit DownloadList(QObject *parent = nullptr);

    Q_INVOKABLE lofthaven::DownloadJob *find(const QString &id) const
    {
        return KeyedJobList::find(id);
    }
    // Puts the job under its id, replacing (and deleting) a finished job of the same transfer.
    void insert(DownloadJob *job);

protected:
    QVariant ownData(DownloadJob *job, int role) const override;
    QHash<int, QByteArray> ownRoleNames() const override;
    void release(DownloadJob *job) override;
};

} // namespace lofthaven
