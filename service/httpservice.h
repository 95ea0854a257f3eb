#pragma once

#include "faultinjector.h"
#include "ratelimiter.h"
#include "requestlog.h"
#include "serviceoptions.h"
#include "store.h"

#include <httplib.h>

#include <QJsonObject>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <optional>
#include <thread>

namespace lofthaven::service {

// The HTTP API, web pages and test hooks on one cpp-httplib server.
// Handlers run on the server's thread pool; state lives in Store and on disk.
class HttpService
{
public:
    explicit HttpService(ServiceOptions options);
    ~HttpService();

    // Binds; returns the origin actually listened on (port 0 resolved).
    std::string bind();
    // Serves until stop(); returns false when the server failed.
    bool run();
    void stop();

    struct Context;
    struct User
    {
        std::string id;
        std::string email;
        std::string name;
    };

private:
    using Fn = std::function<void(Context &)>;
    enum class BodyMode
    {
        None,
        Json,
        Stream
    };

    void routes();
    void route(const std::string &method, const std::string &pattern, BodyMode mode, Fn fn);
    void dispatch(const httplib::Request &req, httplib::Response &res,
                  const httplib::ContentReader *reader, BodyMode mode, const Fn &fn);

    // API
    void me(Context &c);
    void meTransfers(Context &c);
    void meInbox(Context &c);
    void cliLogin(Context &c);
    void cliToken(Context &c);
    void cliLogout(Context &c);
    void codeLookup(Context &c);
    void transferMeta(Context &c);
    void unlock(Context &c);
    void createTransfer(Context &c);
    void putPart(Context &c);
    void complete(Context &c);
    void abort(Context &c);
    void extend(Context &c);
    void remove(Context &c);
    void download(Context &c);
    void manifest(Context &c);
    // pages
    void devicePageGet(Context &c);
    void devicePagePost(Context &c);
    void transferPageGet(Context &c);
    void transferPagePost(Context &c);
    void codePage(Context &c);
    // test hooks
    void testFaults(Context &c);
    void testDevice(Context &c, bool approve);
    void testLog(Context &c);
    void testClock(Context &c);
    void testSweep(Context &c);

    int64_t now() const;
    std::optional<User> userForToken(const std::string &token);
    QJsonObject limitsFor(bool signedIn) const;
    QJsonObject plans() const;
    QJsonObject metaJson(const Store::Row &row);
    std::optional<Store::Row> transferRow(const std::string &id);
    bool isOwner(Context &c, const Store::Row &row);
    Store::Row ownedTransfer(Context &c, const std::string &id, const char *forbidden);
    std::string transferDir(const std::string &id) const;
    void deleteTransferFiles(const std::string &id);
    void discardTransfer(const std::string &id);
    void decideDevice(const std::string &userCode, const std::string &email, bool approve);
    std::string deviceNote(const std::string &userCode);
    void sweep();
    void sweepLoop();
    std::string clientAddress(const httplib::Request &req) const;
    void limitCodeLookup(Context &c);
    std::shared_ptr<bool> reserveDownload(const std::string &id, const Store::Row &r);
    void finishDownload(const std::string &id, bool completed);

    ServiceOptions m_options;
    std::unique_ptr<httplib::Server> m_server;
    std::unique_ptr<Store> m_store;
    RequestLog m_log;
    FaultInjector m_faults;
    std::string m_origin;
    std::string m_publicOrigin;
    std::atomic<int64_t> m_clockOffsetMs{0};
    std::mutex m_sweepMutex;
    std::condition_variable m_sweepWake;
    bool m_stopping = false;
    std::thread m_sweeper;
    RateLimiter m_lookups;
    RateLimiter m_unlocks;
    // Downloads under way per transfer: each holds one of its remaining slots.
    std::mutex m_slotMutex;
    std::map<std::string, int> m_reserved;
};

} // namespace lofthaven::service
