#include "failure.h"

#include <QJsonDocument>

namespace lofthaven::service {

const Failure kDiskFull{507, "storage_full", "The service is out of storage space."};

QJsonObject Failure::body() const
{
    QJsonObject o{{"error", qs(error)}, {"message", qs(message)}};
    if (limit)
        o.insert("limit", static_cast<qint64>(*limit));
    return o;
}

void Failure::answer(httplib::Response &res) const
{
    res.status = status;
    if (retryAfter >= 0)
        res.set_header("Retry-After", std::to_string(retryAfter));
    res.set_content(jsonText(body()), "application/json");
}

void fail(int status, std::string error, std::string message, std::optional<int64_t> limit)
{
    throw Failure{status, std::move(error), std::move(message), limit};
}

void failTooMany(int64_t waitMs, std::string message)
{
    Failure f{429, "rate_limited", std::move(message)};
    f.retryAfter = static_cast<int>((waitMs + 999) / 1000);
    throw f;
}

std::string jsonText(const QJsonObject &o)
{
    return QJsonDocument(o).toJson(QJsonDocument::Compact).toStdString();
}

void sendJson(httplib::Response &res, const QJsonObject &o, int status)
{
    res.status = status;
    res.set_content(jsonText(o), "application/json");
}

} // namespace lofthaven::service
