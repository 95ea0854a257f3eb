#pragma once

// Tells when the system wakes from sleep: logind's PrepareForSleep(false) on the system bus.
// Without a system bus or logind it simply never fires.
//
// Threads: lives on the thread that made it; the signal arrives there.

#include <QObject>

namespace lofthaven {

class SystemResumeWatcher : public QObject
{
    Q_OBJECT
public:
    explicit SystemResumeWatcher(QObject *parent = nullptr);
    // Whether logind's signal could be subscribed to.
    bool isWatching() const { return m_watching; }

Q_SIGNALS:
    void resumed();

private Q_SLOTS:
    void prepareForSleep(bool sleeping);

private:
    bool m_watching = false;
};

} // namespace lofthaven
