#pragma once

#include "accountroutes.h"
#include "devicesigninroutes.h"
#include "downloadroutes.h"
#include "pageroutes.h"
#include "partroutes.h"
#include "router.h"
#include "servicecontext.h"
#include "serviceoptions.h"
#include "sweeper.h"
#include "testhookroutes.h"
#include "transferroutes.h"

#include <httplib.h>

#include <memory>
#include <optional>
#include <string>

namespace lofthaven::service {

// The HTTP API, web pages and test hooks on one cpp-httplib server: route
// groups by resource, each in its own file, sharing one ServiceContext and
// answering errors through one Router. Handlers run on the server's thread
// pool; state lives in the Store and on disk.
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

private:
    static std::unique_ptr<httplib::Server> makeServer(const ServiceOptions &options);

    ServiceContext m_context;
    std::unique_ptr<httplib::Server> m_server;
    Router m_router;
    Sweeper m_sweeper;
    AccountRoutes m_accounts;
    DeviceSignInRoutes m_devices;
    TransferRoutes m_transfers;
    PartRoutes m_parts;
    DownloadRoutes m_downloads;
    PageRoutes m_pages;
    std::optional<TestHookRoutes> m_testHooks;
};

} // namespace lofthaven::service
