#include "ratelimiter.h"

namespace lofthaven::service {

RateLimiter::RateLimiter(int limit, int64_t windowMs)
    : m_limit(limit)
    , m_windowMs(windowMs)
{}

int64_t RateLimiter::waitLocked(const std::string &key, int64_t now)
{
    if (m_limit <= 0)
        return 0;
    auto it = m_events.find(key);
    if (it == m_events.end())
        return 0;
    auto &times = it->second;
    while (!times.empty() && times.front() <= now - m_windowMs)
        times.pop_front();
    if (static_cast<int>(times.size()) < m_limit)
        return 0;
    return times.front() + m_windowMs - now;
}

int64_t RateLimiter::wait(const std::string &key, int64_t now)
{
    std::lock_guard lock(m_mutex);
    return waitLocked(key, now);
}

void RateLimiter::record(const std::string &key, int64_t now)
{
    if (m_limit <= 0)
        return;
    std::lock_guard lock(m_mutex);
    prune(now);
    auto &times = m_events[key];
    times.push_back(now);
    while (static_cast<int>(times.size()) > m_limit)
        times.pop_front();
}

int64_t RateLimiter::take(const std::string &key, int64_t now)
{
    if (m_limit <= 0)
        return 0;
    std::lock_guard lock(m_mutex);
    const int64_t ms = waitLocked(key, now);
    if (ms == 0) {
        prune(now);
        auto &times = m_events[key];
        times.push_back(now);
    }
    return ms;
}

void RateLimiter::prune(int64_t now)
{
    if (now - m_lastPrune < m_windowMs)
        return;
    m_lastPrune = now;
    for (auto it = m_events.begin(); it != m_events.end();) {
        if (it->second.empty() || it->second.back() <= now - m_windowMs)
            it = m_events.erase(it);
        else
            ++it;
    }
}

} // namespace lofthaven::service
