#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace lofthaven::service {

// One line per request on stderr, and the most recent lines in memory for the
// test hooks. Never holds header values, only whether credentials were sent.
class RequestLog
{
public:
    struct Entry
    {
        int64_t at = 0;        // when the answer was done (ms)
        int64_t startedAt = 0; // when the request's headers were in (ms)
        std::string method;
        std::string path;
        int status = 0;
        int64_t bytesIn = 0;
        int64_t bytesOut = 0;
        std::string range;
        bool authorization = false;
        bool ownerToken = false;
        bool unlockToken = false;
    };

    explicit RequestLog(size_t keep = 2000);
    void add(Entry entry);
    std::vector<Entry> entries() const;
    void clear();

private:
    mutable std::mutex m_mutex;
    std::deque<Entry> m_entries;
    size_t m_keep;
};

} // namespace lofthaven::service
