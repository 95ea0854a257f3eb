#include "exchange.h"

#include "failure.h"

#include <QByteArray>
#include <QJsonDocument>

namespace lofthaven::service {

namespace {

thread_local Exchange::Stats t_stats;

std::string formUrlDecode(const std::string &s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '+')
            out.push_back(' ');
        else if (s[i] == '%' && i + 2 < s.size()) {
            out.push_back(static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16)));
            i += 2;
        } else
            out.push_back(s[i]);
    }
    return out;
}

} // namespace

Exchange::Stats &Exchange::stats()
{
    return t_stats;
}

QJsonObject Exchange::json() const
{
    QJsonParseError error{};
    const auto doc = QJsonDocument::fromJson(QByteArray::fromStdString(body), &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        fail(400, "bad_request", "The request body must be a JSON object.");
    return doc.object();
}

std::map<std::string, std::string> Exchange::form() const
{
    std::map<std::string, std::string> out;
    size_t start = 0;
    while (start < body.size()) {
        auto amp = body.find('&', start);
        if (amp == std::string::npos)
            amp = body.size();
        const auto piece = body.substr(start, amp - start);
        const auto eq = piece.find('=');
        try {
            if (eq != std::string::npos)
                out[formUrlDecode(piece.substr(0, eq))] = formUrlDecode(piece.substr(eq + 1));
        } catch (...) {
        }
        start = amp + 1;
    }
    return out;
}

} // namespace lofthaven::service
