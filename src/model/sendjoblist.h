#pragma once

#include "model/keyedjoblist.h"
#include "model/sendjob.h"

namespace lofthaven {

// The send jobs, newest first, at most kMaxJobs. Rows follow each job's own signals, so a view
// repaints one row when its progress moves. Owns its jobs.
class SendJobList : public KeyedJobList<SendJob>
{
    Q_OBJECT
    Q_PROPERTY(int activeCount READ activeCount NOTIFY activeCountChanged)

public:
    static constexpr int kMaxJobs = 20;

    enum Role
    {
        OriginRole = kFirstOwnRole,
        ToSelfRole,
        SentRole,
        SpeedRole,
        SecondsLeftRole,
        MessageRole,
        CodeRole,
        UrlRole,
    };

    explicit SendJobList(QObject *parent = nullptr);

    int activeCount() const;
    // Inserts at the front; the oldest jobs beyond kMaxJobs leave the list (and are deleted
    // once their task has let go of them).
    void prepend(SendJob *job);
    Q_INVOKABLE lofthaven::SendJob *find(const QString &id) const { return KeyedJobList::find(id); }
    Q_INVOKABLE lofthaven::SendJob *at(int row) const;
    bool remove(const QString &id);

Q_SIGNALS:
    void activeCountChanged();

protected:
    QVariant ownData(SendJob *job, int role) const override;
    QHash<int, QByteArray> ownRoleNames() const override;
    void release(SendJob *job) override;
};

} // namespace lofthaven
