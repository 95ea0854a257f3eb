#pragma once

#include <httplib.h>

#include <QJsonObject>
#include <QString>

#include <cstdint>
#include <optional>
#include <string>

namespace lofthaven::service {

// A failure answered with the error body {"error", "message", "limit"?}. Handlers
// throw it; the router turns it into the answer, so every error looks the same.
struct Failure
{
    int status;
    std::string error;
    std::string message;
    std::optional<int64_t> limit = std::nullopt;
    int retryAfter = -1;

    QJsonObject body() const;
    void answer(httplib::Response &res) const;
};

[[noreturn]] void fail(int status, std::string error, std::string message,
                       std::optional<int64_t> limit = std::nullopt);
// 429 with Retry-After: the rate limits' answer.
[[noreturn]] void failTooMany(int64_t waitMs, std::string message);

// The disk ran out; said plainly rather than as an internal error.
extern const Failure kDiskFull;

void sendJson(httplib::Response &res, const QJsonObject &o, int status = 200);
std::string jsonText(const QJsonObject &o);
inline std::string str(const QString &s)
{
    return s.toStdString();
}
inline QString qs(const std::string &s)
{
    return QString::fromStdString(s);
}

} // namespace lofthaven::service
