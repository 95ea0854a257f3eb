#include "requestlog.h"

#include <cstdio>

namespace lofthaven::service {

RequestLog::RequestLog(size_t keep)
    : m_keep(keep)
{}

void RequestLog::add(Entry e)
{
    std::fprintf(stderr, "%s %s %d in=%lld out=%lld%s%s%s%s%s\n", e.method.c_str(), e.path.c_str(),
                 e.status, static_cast<long long>(e.bytesIn), static_cast<long long>(e.bytesOut),
                 e.range.empty() ? "" : " range=", e.range.c_str(), e.authorization ? " auth" : "",
                 e.ownerToken ? " owner" : "", e.unlockToken ? " unlock" : "");
    std::lock_guard lock(m_mutex);
    m_entries.push_back(std::move(e));
    while (m_entries.size() > m_keep)
        m_entries.pop_front();
}

std::vector<RequestLog::Entry> RequestLog::entries() const
{
    std::lock_guard lock(m_mutex);
    return {m_entries.begin(), m_entries.end()};
}

void RequestLog::clear()
{
    std::lock_guard lock(m_mutex);
    m_entries.clear();
}

} // namespace lofthaven::service
