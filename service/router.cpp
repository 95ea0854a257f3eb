#include "router.h"

#include "failure.h"
#include "guardedserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <thread>

namespace lofthaven::service {

namespace {

// Content-Length exactly as HTTP defines it: digits only, one value. The
// library would read "100x" as 100 and "-5" as a huge number.
std::optional<Failure> badContentLength(const httplib::Request &req)
{
    const size_t count = req.get_header_value_count("Content-Length");
    if (count == 0)
        return std::nullopt;
    const Failure bad{400, "bad_request", "The Content-Length header is not a whole number."};
    std::string first;
    for (size_t i = 0; i < count; ++i) {
        const std::string v = req.get_header_value("Content-Length", i);
        if (v.empty() || v.find_first_not_of("0123456789") != std::string::npos)
            return bad;
        if (i == 0)
            first = v;
        else if (v != first)
            return Failure{400, "bad_request", "The request has two different Content-Length."};
    }
    const auto digits = first.find_first_not_of('0');
    if (digits != std::string::npos && first.size() - digits > 18)
        return Failure{413, "too_large", "The request body is too large."};
    if (req.has_header("Transfer-Encoding"))
        return Failure{400, "bad_request", "Content-Length and Transfer-Encoding together."};
    return std::nullopt;
}

bool isDiskFull(const std::exception &e)
{
    if (const auto *store = dynamic_cast<const StoreError *>(&e))
        return store->full();
    if (const auto *file = dynamic_cast<const std::filesystem::filesystem_error *>(&e))
        return file->code() == std::errc::no_space_on_device;
    return false;
}

// Closes the connection that carries this request, found by its port pair;
// a test hook that must look like a network cut to the client.
void cutConnection(const httplib::Request &req)
{
    for (int fd = 3; fd < 65536; ++fd) {
        sockaddr_storage local{}, peer{};
        socklen_t ll = sizeof local, pl = sizeof peer;
        if (getsockname(fd, reinterpret_cast<sockaddr *>(&local), &ll) != 0)
            continue;
        if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &pl) != 0)
            continue;
        auto port = [](const sockaddr_storage &a) {
            if (a.ss_family == AF_INET)
                return static_cast<int>(ntohs(reinterpret_cast<const sockaddr_in &>(a).sin_port));
            if (a.ss_family == AF_INET6)
                return static_cast<int>(ntohs(reinterpret_cast<const sockaddr_in6 &>(a).sin6_port));
            return -1;
        };
        if (port(local) == req.local_port && port(peer) == req.remote_port) {
            ::shutdown(fd, SHUT_RDWR);
            return;
        }
    }
}

// Response faults on in-memory bodies: cut after N bytes, or trickle.
void applyResponseFault(const FaultInjector::Fault &f, httplib::Response &res)
{
    if ((f.dropAfterBytes < 0 && f.trickleMs <= 0) || res.body.empty())
        return;
    auto body = std::make_shared<std::string>(std::move(res.body));
    res.body.clear();
    std::string type = res.get_header_value("Content-Type");
    const int64_t drop = f.dropAfterBytes;
    const int trickle = f.trickleMs;
    res.set_content_provider(
        body->size(), type, [body, drop, trickle](size_t offset, size_t, httplib::DataSink &sink) {
            if (drop >= 0 && static_cast<int64_t>(offset) >= drop)
                return false;
            size_t n = body->size() - offset;
            if (trickle > 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(trickle));
                n = 1;
            }
            if (drop >= 0)
                n = std::min<size_t>(n, drop - offset);
            Exchange::stats().bytesOut += static_cast<int64_t>(n);
            return sink.write(body->data() + offset, n);
        });
}

} // namespace

Router::Router(ServiceContext &context, httplib::Server &server)
    : m_context(context)
    , m_server(server)
{
    installHooks();
}

void Router::add(const std::string &method, const std::string &pattern, Body body, Handler handler)
{
    auto plain = [this, body, handler](const httplib::Request &req, httplib::Response &res) {
        dispatch(req, res, nullptr, body, handler);
    };
    auto reading = [this, body, handler](const httplib::Request &req, httplib::Response &res,
                                         const httplib::ContentReader &reader) {
        dispatch(req, res, &reader, body, handler);
    };
    if (method == "GET")
        m_server.Get(pattern, plain);
    else if (method == "POST")
        m_server.Post(pattern, reading);
    else if (method == "PUT")
        m_server.Put(pattern, reading);
    else if (method == "DELETE")
        m_server.Delete(pattern, reading);
}

void Router::installHooks()
{
    m_server.set_pre_routing_handler([this](const httplib::Request &req, httplib::Response &res) {
        auto &stats = Exchange::stats();
        stats = Exchange::Stats{};
        stats.startedAt = m_context.now();
        // Ranges are answered by the download handler itself; left in place,
        // the library would slice error bodies too.
        const_cast<httplib::Request &>(req).ranges.clear();
        if (const auto f = badContentLength(req)) {
            // The body's end is unknown, so nothing after it on this connection can be read.
            GuardedServer::closeAfterAnswer();
            res.set_header("Connection", "close");
            f->answer(res);
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    m_server.set_error_handler(
        httplib::Server::HandlerWithResponse([](const httplib::Request &, httplib::Response &res) {
            if (!res.body.empty())
                return httplib::Server::HandlerResponse::Unhandled;
            Failure f{res.status, "http_" + std::to_string(res.status), "Request failed."};
            if (GuardedServer::trip() == GuardedServer::Trip::HeadersTooLarge)
                f = {431, "headers_too_large", "The request headers are too large."};
            else if (GuardedServer::trip() == GuardedServer::Trip::HeadersTooSlow)
                f = {408, "timeout", "The request headers took too long to arrive."};
            else if (res.status == 404)
                f = {404, "not_found", "Not found."};
            else if (res.status == 413)
                f = {413, "too_large", "The request body is too large."};
            else if (res.status == 400)
                f = {400, "bad_request", "The request could not be read."};
            f.answer(res);
            return httplib::Server::HandlerResponse::Handled;
        }));
    m_server.set_exception_handler(
        [](const httplib::Request &, httplib::Response &res, std::exception_ptr) {
            Failure{500, "internal", "Internal error."}.answer(res);
        });
    m_server.set_logger([this](const httplib::Request &req, const httplib::Response &res) {
        auto &stats = Exchange::stats();
        if (stats.logged)
            return;
        stats.logged = true;
        RequestLog::Entry e;
        e.at = m_context.now();
        e.startedAt = stats.startedAt ? stats.startedAt : e.at;
        e.method = req.method;
        e.path = req.path;
        e.status = res.status;
        e.bytesIn = stats.bytesIn ? stats.bytesIn : static_cast<int64_t>(req.body.size());
        e.bytesOut = stats.bytesOut ? stats.bytesOut : static_cast<int64_t>(res.body.size());
        e.range = req.get_header_value("Range");
        e.authorization = req.has_header("Authorization");
        e.ownerToken = req.has_header("X-Owner-Token");
        e.unlockToken = req.has_param("t");
        m_context.log().add(std::move(e));
    });
}

bool Router::injectFault(Exchange &x, Body body)
{
    auto &stats = Exchange::stats();
    if (!m_context.options().testHooks || x.req.path.rfind("/__test/", 0) == 0)
        return false;
    stats.fault = m_context.faults().take(x.req.method, x.req.path);
    const auto &f = stats.fault;
    if (!f)
        return false;
    if (f->stallSeconds > 0)
        std::this_thread::sleep_for(std::chrono::duration<double>(f->stallSeconds));
    if (f->status > 0) {
        Failure{f->status, "injected", "Injected fault.", std::nullopt, f->retryAfter}.answer(
            x.res);
        return true; // the caller drains the body
    }
    if (f->dropAfterBytes >= 0 && x.reader && body == Body::Stream) {
        // An upload cut: take N bytes of the body, then hang up.
        x.bodyConsumed = true;
        int64_t got = 0;
        (*x.reader)([&](const char *, size_t n) {
            got += static_cast<int64_t>(n);
            stats.bytesIn = got;
            return got < f->dropAfterBytes;
        });
        cutConnection(x.req);
        x.res.status = 499;
        return true;
    }
    return false;
}

void Router::readJson(Exchange &x)
{
    x.bodyConsumed = true;
    bool tooLarge = false;
    (*x.reader)([&](const char *data, size_t n) {
        Exchange::stats().bytesIn += static_cast<int64_t>(n);
        if (static_cast<int64_t>(x.body.size() + n) > Exchange::kMaxJsonBody)
            tooLarge = true;
        else
            x.body.append(data, n);
        return true;
    });
    if (tooLarge)
        fail(413, "too_large", "The request body is larger than 1 MB.", Exchange::kMaxJsonBody);
}

void Router::dispatch(const httplib::Request &req, httplib::Response &res,
                      const httplib::ContentReader *reader, Body body, const Handler &handler)
{
    // A body-less POST from curl has neither header; reading would wait for
    // the client to close.
    if (reader && !req.has_header("Content-Length") &&
        req.get_header_value("Transfer-Encoding").find("chunked") == std::string::npos)
        reader = nullptr;
    Exchange x{req, res, reader, false, {}, std::nullopt};
    // Whatever the handler left unread, so the connection can carry the next request.
    auto drain = [&] {
        if (x.reader && !x.bodyConsumed) {
            x.bodyConsumed = true;
            (*x.reader)([&](const char *, size_t n) {
                Exchange::stats().bytesIn += static_cast<int64_t>(n);
                return true;
            });
        }
    };
    try {
        if (injectFault(x, body)) {
            drain();
            return;
        }
        const std::string auth = req.get_header_value("Authorization");
        if (!auth.empty()) {
            if (auth.rfind("Bearer ", 0) != 0)
                fail(401, "unauthorized", "The Authorization header must be a bearer token.");
            x.user = m_context.userForToken(auth.substr(7));
            if (!x.user)
                fail(401, "unauthorized", "Your sign-in expired or was revoked.");
        }
        if (body == Body::Json && reader)
            readJson(x);
        handler(x);
    } catch (const Failure &f) {
        drain();
        f.answer(res);
    } catch (const std::exception &e) {
        drain();
        std::fprintf(stderr, "error: %s %s: %s\n", req.method.c_str(), req.path.c_str(), e.what());
        (isDiskFull(e) ? kDiskFull : Failure{500, "internal", "Internal error."}).answer(res);
    }
    if (const auto &f = Exchange::stats().fault)
        applyResponseFault(*f, res);
}

} // namespace lofthaven::service
