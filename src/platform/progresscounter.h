#pragma once

#include <QHash>
#include <mutex>

namespace lofthaven {

// One never-double-counted byte total for several parts in flight. Written from transfer
// callbacks on another thread, read by a poller; share it with std::shared_ptr. Every
// operation holds the lock for its whole (short) duration and calls nothing out.
class ProgressCounter
{
public:
    // Bytes of finished parts plus the bytes sent so far of every part still in flight.
    qint64 total() const;
    // A part's own running total of bytes sent (replaces, does not add).
    void sent(int part, qint64 bytes);
    // The part is uploaded: its in-flight entry goes, its length joins the finished bytes.
    void finished(int part, qint64 length);
    // A failed attempt no longer counts; the retry reports from zero again.
    void failed(int part);
    // Sets the finished bytes outright and forgets every part in flight (a download that
    // resumes from a partial file, or restarts from zero).
    void setDone(qint64 done);

private:
    mutable std::mutex m_mutex;
    qint64 m_done = 0;
    QHash<int, qint64> m_inflight;
};

} // namespace lofthaven
