#include "serviceoptions.h"

#include <algorithm>
#include <charconv>
#include <sstream>

namespace lofthaven::service {

namespace {

bool toInt(const std::string &text, int64_t &out)
{
    const auto *end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, out);
    return ec == std::errc() && ptr == end;
}

bool toList(const std::string &text, std::vector<int64_t> &out)
{
    out.clear();
    std::stringstream in(text);
    std::string piece;
    while (std::getline(in, piece, ',')) {
        int64_t v = 0;
        if (!toInt(piece, v) || v <= 0)
            return false;
        out.push_back(v);
    }
    return !out.empty();
}

} // namespace

std::string serviceUsage()
{
    return "usage: lofthaven-service --data DIR [--listen HOST:PORT] [--tls-cert FILE --tls-key "
           "FILE]\n"
           "         [--public-origin URL] [--test-hooks] [--min-part-size BYTES]\n"
           "         [--anonymous-max-bytes BYTES] [--account-max-bytes BYTES]\n"
           "         [--anonymous-expiries S,S,..] [--account-expiries S,S,..]\n"
           "         [--daily-quota-bytes BYTES] [--device-interval SECONDS]\n"
           "         [--device-expires-in SECONDS] [--threads N] [--sweep-seconds N]\n"
           "         [--header-timeout SECONDS] [--lookup-limit N] [--unlock-limit N]\n"
           "         [--limit-window SECONDS] [--client-address-header NAME] [--help]\n";
}

bool parseServiceOptions(int argc, char **argv, ServiceOptions &o, std::string &error)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string &out) {
            if (i + 1 >= argc) {
                error = arg + " needs a value";
                return false;
            }
            out = argv[++i];
            return true;
        };
        auto number = [&](int64_t &out) {
            std::string text;
            if (!value(text))
                return false;
            if (!toInt(text, out) || out < 0) {
                error = arg + " needs a non-negative whole number";
                return false;
            }
            return true;
        };
        std::string text;
        int64_t n = 0;
        if (arg == "--listen") {
            if (!value(text))
                return false;
            const auto colon = text.rfind(':');
            if (colon == std::string::npos || !toInt(text.substr(colon + 1), n) || n > 65535) {
                error = "--listen needs HOST:PORT";
                return false;
            }
            o.host = text.substr(0, colon);
            if (o.host.size() > 2 && o.host.front() == '[' && o.host.back() == ']')
                o.host = o.host.substr(1, o.host.size() - 2);
            o.port = static_cast<int>(n);
        } else if (arg == "--data") {
            if (!value(o.dataDir))
                return false;
        } else if (arg == "--tls-cert") {
            if (!value(o.tlsCert))
                return false;
        } else if (arg == "--tls-key") {
            if (!value(o.tlsKey))
                return false;
        } else if (arg == "--public-origin") {
            if (!value(o.publicOrigin))
                return false;
            while (!o.publicOrigin.empty() && o.publicOrigin.back() == '/')
                o.publicOrigin.pop_back();
        } else if (arg == "--test-hooks") {
            o.testHooks = true;
        } else if (arg == "--min-part-size") {
            if (!number(o.minPartSize))
                return false;
            if (o.minPartSize < 1) {
                error = "--min-part-size must be at least 1";
                return false;
            }
        } else if (arg == "--anonymous-max-bytes") {
            if (!number(o.anonymousMaxBytes))
                return false;
        } else if (arg == "--account-max-bytes") {
            if (!number(o.accountMaxBytes))
                return false;
        } else if (arg == "--anonymous-expiries" || arg == "--account-expiries") {
            if (!value(text))
                return false;
            if (!toList(text,
                        arg == "--anonymous-expiries" ? o.anonymousExpiries : o.accountExpiries)) {
                error = arg + " needs a comma-separated list of seconds";
                return false;
            }
        } else if (arg == "--daily-quota-bytes") {
            if (!number(o.dailyQuotaBytes))
                return false;
        } else if (arg == "--device-interval") {
            if (!value(text))
                return false;
            try {
                o.deviceInterval = std::stod(text);
            } catch (...) {
                o.deviceInterval = -1;
            }
            if (o.deviceInterval <= 0) {
                error = "--device-interval needs a positive number of seconds";
                return false;
            }
        } else if (arg == "--device-expires-in") {
            if (!number(o.deviceExpiresIn))
                return false;
        } else if (arg == "--threads") {
            if (!number(n))
                return false;
            o.threads = static_cast<int>(std::max<int64_t>(8, n));
        } else if (arg == "--sweep-seconds") {
            if (!number(n))
                return false;
            o.sweepSeconds = static_cast<int>(std::max<int64_t>(1, n));
        } else if (arg == "--header-timeout") {
            if (!value(text))
                return false;
            try {
                o.headerTimeout = std::stod(text);
            } catch (...) {
                o.headerTimeout = -1;
            }
            if (o.headerTimeout <= 0) {
                error = "--header-timeout needs a positive number of seconds";
                return false;
            }
        } else if (arg == "--lookup-limit" || arg == "--unlock-limit") {
            if (!number(n))
                return false;
            (arg == "--lookup-limit" ? o.lookupLimit : o.unlockLimit) =
                static_cast<int>(std::min<int64_t>(n, 1000000));
        } else if (arg == "--limit-window") {
            if (!number(o.limitWindow))
                return false;
            o.limitWindow = std::max<int64_t>(1, o.limitWindow);
        } else if (arg == "--client-address-header") {
            if (!value(o.clientAddressHeader))
                return false;
        } else {
            error = "unknown option " + arg;
            return false;
        }
    }
    if (o.dataDir.empty()) {
        error = "--data DIR is required";
        return false;
    }
    if (o.tlsCert.empty() != o.tlsKey.empty()) {
        error = "--tls-cert and --tls-key go together";
        return false;
    }
    if (o.minPartSize > o.maxPartSize) {
        error = "--min-part-size is larger than the largest part (64 MiB)";
        return false;
    }
    return true;
}

} // namespace lofthaven::service
