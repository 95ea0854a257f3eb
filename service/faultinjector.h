#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace lofthaven::service {

// Test-only faults: the next `count` requests whose method and path match a
// rule get its fault instead of (or on top of) the normal answer.
class FaultInjector
{
public:
    struct Fault
    {
        std::string method = "*"; // "*" matches every method
        std::string path;         // "*" = one path segment, "**" = anything
        int count = 1;
        int status = 0;              // answer this status instead of handling
        int retryAfter = -1;         // Retry-After seconds with status
        int64_t dropAfterBytes = -1; // close the connection after N body bytes
        double stallSeconds = 0;     // send nothing for this long first
        int trickleMs = 0;           // then send the answer body 1 byte per interval
        int matched = 0;             // how many requests it has hit so far
    };

    void add(Fault fault);
    void clear();
    std::vector<Fault> list() const;
    // Consumes one use of the first rule that matches.
    std::optional<Fault> take(const std::string &method, const std::string &path);

    static bool pathMatches(const std::string &pattern, const std::string &path);

private:
    mutable std::mutex m_mutex;
    std::vector<Fault> m_faults;
};

} // namespace lofthaven::service
