#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

namespace lofthaven::service {

// At most `limit` events per key in any window of `windowMs` (a sliding log,
// so a burst at the edge of a window cannot double the rate). Memory stays
// bounded: a key keeps at most `limit` times, and idle keys are pruned.
class RateLimiter
{
public:
    RateLimiter(int limit, int64_t windowMs);

    // 0 when the key is under its limit, else the milliseconds until it is.
    int64_t wait(const std::string &key, int64_t now);
    // Counts one event of key at now.
    void record(const std::string &key, int64_t now);
    // wait(), and record() when the answer is 0.
    int64_t take(const std::string &key, int64_t now);

private:
    int64_t waitLocked(const std::string &key, int64_t now);
    void prune(int64_t now);

    std::mutex m_mutex;
    std::unordered_map<std::string, std::deque<int64_t>> m_events;
    int m_limit;
    int64_t m_windowMs;
    int64_t m_lastPrune = 0;
};

} // namespace lofthaven::service
