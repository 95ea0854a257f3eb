#include "platform/progresscounter.h"

namespace lofthaven {

qint64 ProgressCounter::total() const
{
    std::lock_guard lock(m_mutex);
    qint64 sum = m_done;
    for (const qint64 bytes : m_inflight)
        sum += bytes;
    return sum;
}

void ProgressCounter::sent(int part, qint64 bytes)
{
    std::lock_guard lock(m_mutex);
    m_inflight.insert(part, bytes);
}

void ProgressCounter::finished(int part, qint64 length)
{
    std::lock_guard lock(m_mutex);
    m_inflight.remove(part);
    m_done += length;
}

void ProgressCounter::failed(int part)
{
    std::lock_guard lock(m_mutex);
    m_inflight.insert(part, 0);
}

void ProgressCounter::setDone(qint64 done)
{
    std::lock_guard lock(m_mutex);
    m_done = done;
    m_inflight.clear();
}

} // namespace lofthaven
