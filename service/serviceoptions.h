#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lofthaven::service {

struct ServiceOptions
{
    std::string host = "127.0.0.1";
    int port = 8480;
    std::string dataDir;
    std::string tlsCert;
    std::string tlsKey;
    std::string publicOrigin; // empty: the listen origin
    bool testHooks = false;
    int64_t minPartSize = 5 * 1024 * 1024;
    int64_t maxPartSize = 64 * 1024 * 1024;
    int64_t anonymousMaxBytes = 500LL * 1024 * 1024;
    int64_t accountMaxBytes = 2LL * 1024 * 1024 * 1024;
    std::vector<int64_t> anonymousExpiries{3600, 86400, 259200};
    std::vector<int64_t> accountExpiries{3600, 86400, 259200, 604800};
    int64_t dailyQuotaBytes = 0; // 0: no daily quota
    double deviceInterval = 5;
    int64_t deviceExpiresIn = 600;
    int threads = 128;
    int sweepSeconds = 60;
    double headerTimeout = 10;       // seconds for a request line and its headers
    int lookupLimit = 30;            // code lookups per client address per window
    int unlockLimit = 10;            // failed unlocks per transfer per window
    int64_t limitWindow = 60;        // seconds
    std::string clientAddressHeader; // set by a trusted reverse proxy, e.g. X-Real-IP
};

// Parses argv; on a usage error returns false and fills error.
bool parseServiceOptions(int argc, char **argv, ServiceOptions &options, std::string &error);
std::string serviceUsage();

} // namespace lofthaven::service
