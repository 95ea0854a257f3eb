#pragma once

#include "exchange.h"
#include "faultinjector.h"
#include "ratelimiter.h"
#include "requestlog.h"
#include "serviceoptions.h"
#include "store.h"

#include <QJsonObject>

#include <atomic>
#include <memory>
#include <optional>
#include <string>

namespace lofthaven::service {

// What every route group shares: the options, the store and the transfer
// folders, the clock (movable by a test hook), the request log, the faults,
// the rate limits, and the few transfer rules more than one group applies.
class ServiceContext
{
public:
    explicit ServiceContext(ServiceOptions options);

    const ServiceOptions &options() const { return m_options; }
    Store &store() { return *m_store; }
    RequestLog &log() { return m_log; }
    FaultInjector &faults() { return m_faults; }

    // Milliseconds since the epoch, plus what the test clock was moved.
    int64_t now() const;
    void advanceClock(int64_t ms) { m_clockOffsetMs += ms; }
    // The origin used in links; known once the server is bound.
    const std::string &publicOrigin() const { return m_publicOrigin; }
    void setPublicOrigin(std::string origin) { m_publicOrigin = std::move(origin); }

    std::optional<Exchange::User> userForToken(const std::string &token);
    QJsonObject limitsFor(bool signedIn) const;
    QJsonObject plans() const;
    static QJsonObject userJson(const Exchange::User &u);

    std::optional<Store::Row> transferRow(const std::string &id);
    QJsonObject metaJson(const Store::Row &row);
    bool isOwner(const Exchange &x, const Store::Row &row);
    // The transfer's row, when it exists (404) and the caller owns it (403).
    Store::Row ownedTransfer(const Exchange &x, const std::string &id, const char *forbidden);
    std::string transferDir(const std::string &id) const;
    std::string partPath(const std::string &id, int64_t number) const;
    void deleteTransferFiles(const std::string &id);
    void discardTransfer(const std::string &id);

    // 429 when this client looked up too many codes.
    void limitCodeLookup(const httplib::Request &req);
    // An unlock token for the transfer, or a Failure (404, 410, 400, 403, 429).
    std::string unlock(const std::string &id, const std::optional<std::string> &password);

private:
    std::string clientAddress(const httplib::Request &req) const;

    ServiceOptions m_options;
    std::unique_ptr<Store> m_store;
    RequestLog m_log;
    FaultInjector m_faults;
    std::atomic<int64_t> m_clockOffsetMs{0};
    std::string m_publicOrigin;
    RateLimiter m_lookups;
    RateLimiter m_unlocks;
};

} // namespace lofthaven::service
