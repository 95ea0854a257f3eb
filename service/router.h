#pragma once

#include "exchange.h"
#include "servicecontext.h"

#include <httplib.h>

#include <functional>
#include <string>

namespace lofthaven::service {

// Puts route groups on the server and is the one place requests pass through:
// injected faults, the bearer token, the JSON body cap, strict Content-Length,
// the error answers (a thrown Failure, a full disk, anything else as 500) and
// the request log.
class Router
{
public:
    enum class Body
    {
        None,   // GET
        Json,   // read whole, up to 1 MiB, into Exchange::body
        Stream, // the handler reads it through Exchange::reader
    };
    using Handler = std::function<void(Exchange &)>;

    Router(ServiceContext &context, httplib::Server &server);

    void add(const std::string &method, const std::string &pattern, Body body, Handler handler);

    // The pattern of a transfer id in a path (one capture).
    static constexpr const char *kId = "([A-Za-z0-9]{1,64})";

private:
    void dispatch(const httplib::Request &req, httplib::Response &res,
                  const httplib::ContentReader *reader, Body body, const Handler &handler);
    // An injected fault that answers instead of the handler; true when it did.
    bool injectFault(Exchange &x, Body body);
    void readJson(Exchange &x);
    void installHooks();

    ServiceContext &m_context;
    httplib::Server &m_server;
};

} // namespace lofthaven::service
