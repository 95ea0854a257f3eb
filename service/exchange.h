#pragma once

#include "faultinjector.h"

#include <httplib.h>

#include <QJsonObject>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace lofthaven::service {

// One request and its answer, as a handler sees them: the JSON or form body
// (already read), the signed-in user, and the route's captures.
struct Exchange
{
    struct User
    {
        std::string id;
        std::string email;
        std::string name;
    };

    // What the request log needs that the library does not keep: bytes that
    // streamed past the handler, and the fault it was given. One per thread,
    // since a worker serves one request at a time.
    struct Stats
    {
        int64_t bytesIn = 0;
        int64_t bytesOut = 0;
        int64_t startedAt = 0;
        bool logged = false;
        std::optional<FaultInjector::Fault> fault;
    };
    static Stats &stats();

    static constexpr int64_t kMaxJsonBody = 1024 * 1024;

    const httplib::Request &req;
    httplib::Response &res;
    const httplib::ContentReader *reader = nullptr; // streamed bodies (parts)
    bool bodyConsumed = false;
    std::string body;
    std::optional<User> user;

    QJsonObject json() const; // 400 unless the body is a JSON object
    std::map<std::string, std::string> form() const;
    std::string match(int i) const { return req.matches[i].str(); }
    std::string header(const char *name) const { return req.get_header_value(name); }
};

} // namespace lofthaven::service
