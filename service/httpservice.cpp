#include "httpservice.h"

#include "guardedserver.h"
#include "pages.h"
#include "secrets.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace lofthaven::service {

namespace {

constexpr int64_t kMaxJsonBody = 1024 * 1024;
constexpr int64_t kMaxListedFiles = 500;
constexpr int64_t kExtendMs = 3LL * 86400 * 1000;
constexpr int64_t kKeepExpiredMs = 7LL * 86400 * 1000;
constexpr size_t kIoChunk = 1024 * 1024;
constexpr size_t kMaxHeaderBytes = 64 * 1024;
constexpr int kBusyRetrySeconds = 5;

// A failure answered with the error body; thrown from handlers.
struct Failure
{
    int status;
    std::string error;
    std::string message;
    std::optional<int64_t> limit = std::nullopt;
    int retryAfter = -1;
};

// Per-connection-thread bookkeeping between the handler and the logger.
struct RequestStats
{
    int64_t bytesIn = 0;
    int64_t bytesOut = 0;
    int64_t startedAt = 0;
    bool logged = false;
    std::optional<FaultInjector::Fault> fault;
};
thread_local RequestStats t_stats;

std::string str(const QString &s)
{
    return s.toStdString();
}

QString qs(const std::string &s)
{
    return QString::fromStdString(s);
}

std::string jsonText(const QJsonObject &o)
{
    return QJsonDocument(o).toJson(QJsonDocument::Compact).toStdString();
}

QJsonObject errorBody(const Failure &f)
{
    QJsonObject o{{"error", qs(f.error)}, {"message", qs(f.message)}};
    if (f.limit)
        o.insert("limit", static_cast<qint64>(*f.limit));
    return o;
}

void sendJson(httplib::Response &res, const QJsonObject &o, int status = 200)
{
    res.status = status;
    res.set_content(jsonText(o), "application/json");
}

void sendFailure(httplib::Response &res, const Failure &f)
{
    res.status = f.status;
    if (f.retryAfter >= 0)
        res.set_header("Retry-After", std::to_string(f.retryAfter));
    res.set_content(jsonText(errorBody(f)), "application/json");
}

[[noreturn]] void fail(int status, std::string error, std::string message,
                       std::optional<int64_t> limit = std::nullopt)
{
    throw Failure{status, std::move(error), std::move(message), limit};
}

[[noreturn]] void tooMany(int64_t waitMs, const char *message)
{
    Failure f{429, "rate_limited", message};
    f.retryAfter = static_cast<int>((waitMs + 999) / 1000);
    throw f;
}

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

// The disk ran out: say so, rather than "internal error".
bool isDiskFull(const std::exception &e)
{
    if (const auto *store = dynamic_cast<const StoreError *>(&e))
        return store->full();
    if (const auto *file = dynamic_cast<const fs::filesystem_error *>(&e))
        return file->code() == std::errc::no_space_on_device;
    return false;
}

const Failure kDiskFull{507, "storage_full", "The service is out of storage space."};

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

bool writeAll(int fd, const char *data, size_t n)
{
    while (n > 0) {
        const ssize_t w = ::write(fd, data, n);
        if (w < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

void fsyncDir(const std::string &dir)
{
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

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

std::map<std::string, std::string> parseForm(const std::string &body)
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

std::string partFileName(int64_t n)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "part-%06lld", static_cast<long long>(n));
    return buf;
}

std::string upperCode(std::string code)
{
    std::string out;
    for (char c : code) {
        if (std::isalnum(static_cast<unsigned char>(c)))
            out.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
    }
    if (out.size() == 8)
        out.insert(4, "-");
    return out;
}

// Column order of every transfer query.
const char *kTransferColumns =
    "id, code, owner_hash, user_id, name, size, mime, files, title, message, created_at, "
    "expires_at, max_downloads, downloads, password_hash, part_size, part_count, state, extended, "
    "to_self, device";
enum Col
{
    cId,
    cCode,
    cOwner,
    cUser,
    cName,
    cSize,
    cMime,
    cFiles,
    cTitle,
    cMessage,
    cCreated,
    cExpires,
    cMaxDownloads,
    cDownloads,
    cPassword,
    cPartSize,
    cPartCount,
    cState,
    cExtended,
    cToSelf,
    cDevice
};

} // namespace

struct HttpService::Context
{
    const httplib::Request &req;
    httplib::Response &res;
    const httplib::ContentReader *reader = nullptr;
    bool bodyConsumed = false;
    std::string body;
    std::optional<User> user;
    bool tokenSent = false;

    QJsonObject json() const
    {
        QJsonParseError error{};
        const auto doc = QJsonDocument::fromJson(QByteArray::fromStdString(body), &error);
        if (error.error != QJsonParseError::NoError || !doc.isObject())
            fail(400, "bad_request", "The request body must be a JSON object.");
        return doc.object();
    }
    std::string match(int i) const { return req.matches[i].str(); }
    std::string header(const char *name) const { return req.get_header_value(name); }
};

HttpService::HttpService(ServiceOptions options)
    : m_options(std::move(options))
    , m_lookups(m_options.lookupLimit, m_options.limitWindow * 1000)
    , m_unlocks(m_options.unlockLimit, m_options.limitWindow * 1000)
{
    // Password hashes, e-mail addresses and messages: readable by the service alone,
    // also when the folder was made earlier with wider modes.
    const fs::path data(m_options.dataDir);
    fs::create_directories(data / "transfers");
    fs::permissions(data, fs::perms::owner_all);
    fs::permissions(data / "transfers", fs::perms::owner_all);
    const std::string db = (data / "lofthaven.db").string();
    ::close(::open(db.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    for (const char *suffix : {"", "-wal", "-shm"}) {
        std::error_code ec;
        fs::permissions(db + suffix, fs::perms::owner_read | fs::perms::owner_write, ec);
    }
    m_store = std::make_unique<Store>(db);
    if (!m_options.tlsCert.empty()) {
        m_server = std::make_unique<httplib::SSLServer>(m_options.tlsCert.c_str(),
                                                        m_options.tlsKey.c_str());
        if (!m_server->is_valid())
            throw std::runtime_error("cannot load the TLS certificate or key");
    } else {
        m_server = std::make_unique<GuardedServer>(
            std::chrono::milliseconds(static_cast<int64_t>(m_options.headerTimeout * 1000)),
            kMaxHeaderBytes);
    }
    const int threads = m_options.threads;
    m_server->new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    // Parts are at most 64 MiB; JSON bodies are capped separately at 1 MiB.
    m_server->set_payload_max_length(static_cast<size_t>(m_options.maxPartSize) + 4096);
    m_server->set_read_timeout(60, 0);
    m_server->set_write_timeout(60, 0);
    m_server->set_keep_alive_timeout(5);
    m_server->set_keep_alive_max_count(1000);
    m_server->set_tcp_nodelay(true);
    routes();
}

HttpService::~HttpService()
{
    stop();
    if (m_sweeper.joinable())
        m_sweeper.join();
}

std::string HttpService::bind()
{
    int port = m_options.port;
    if (port == 0)
        port = m_server->bind_to_any_port(m_options.host);
    else if (!m_server->bind_to_port(m_options.host, port))
        port = -1;
    if (port <= 0)
        throw std::runtime_error("cannot listen on " + m_options.host + ":" +
                                 std::to_string(m_options.port));
    const bool v6 = m_options.host.find(':') != std::string::npos;
    const std::string host = v6 ? "[" + m_options.host + "]" : m_options.host;
    m_origin =
        (m_options.tlsCert.empty() ? "http://" : "https://") + host + ":" + std::to_string(port);
    m_publicOrigin = m_options.publicOrigin.empty() ? m_origin : m_options.publicOrigin;
    return m_origin;
}

bool HttpService::run()
{
    sweep();
    m_sweeper = std::thread([this] { sweepLoop(); });
    return m_server->listen_after_bind();
}

void HttpService::stop()
{
    {
        std::lock_guard lock(m_sweepMutex);
        m_stopping = true;
    }
    m_sweepWake.notify_all();
    if (m_server)
        m_server->stop();
}

int64_t HttpService::now() const
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count() +
           m_clockOffsetMs.load();
}

void HttpService::route(const std::string &method, const std::string &pattern, BodyMode mode, Fn fn)
{
    auto plain = [this, mode, fn](const httplib::Request &req, httplib::Response &res) {
        dispatch(req, res, nullptr, mode, fn);
    };
    auto reading = [this, mode, fn](const httplib::Request &req, httplib::Response &res,
                                    const httplib::ContentReader &reader) {
        dispatch(req, res, &reader, mode, fn);
    };
    if (method == "GET")
        m_server->Get(pattern, plain);
    else if (method == "POST")
        m_server->Post(pattern, reading);
    else if (method == "PUT")
        m_server->Put(pattern, reading);
    else if (method == "DELETE")
        m_server->Delete(pattern, reading);
}

void HttpService::routes()
{
    const std::string id = "([A-Za-z0-9]{1,64})";
    using M = BodyMode;
    auto bindFn = [this](void (HttpService::*f)(Context &)) {
        return [this, f](Context &c) { (this->*f)(c); };
    };
    route("GET", "/api/me", M::None, bindFn(&HttpService::me));
    route("GET", "/api/me/transfers", M::None, bindFn(&HttpService::meTransfers));
    route("GET", "/api/me/inbox", M::None, bindFn(&HttpService::meInbox));
    route("POST", "/api/cli/login", M::Json, bindFn(&HttpService::cliLogin));
    route("POST", "/api/cli/token", M::Json, bindFn(&HttpService::cliToken));
    route("POST", "/api/cli/logout", M::Json, bindFn(&HttpService::cliLogout));
    route("GET", "/api/code/([^/]*)", M::None, bindFn(&HttpService::codeLookup));
    route("GET", "/api/transfers/" + id, M::None, bindFn(&HttpService::transferMeta));
    route("POST", "/api/transfers/" + id + "/unlock", M::Json, bindFn(&HttpService::unlock));
    route("POST", "/api/transfers", M::Json, bindFn(&HttpService::createTransfer));
    route("PUT", "/api/transfers/" + id + "/parts/([0-9]{1,9})", M::Stream,
          bindFn(&HttpService::putPart));
    route("POST", "/api/transfers/" + id + "/complete", M::Json, bindFn(&HttpService::complete));
    route("POST", "/api/transfers/" + id + "/abort", M::Json, bindFn(&HttpService::abort));
    route("POST", "/api/transfers/" + id + "/extend", M::Json, bindFn(&HttpService::extend));
    route("DELETE", "/api/transfers/" + id, M::Json, bindFn(&HttpService::remove));
    route("GET", "/dl/" + id, M::None, bindFn(&HttpService::download));
    route("GET", "/downloads/desktop.json", M::None, bindFn(&HttpService::manifest));
    route("GET", "/device", M::None, bindFn(&HttpService::devicePageGet));
    route("POST", "/device", M::Json, bindFn(&HttpService::devicePagePost));
    route("GET", "/d/" + id, M::None, bindFn(&HttpService::transferPageGet));
    route("POST", "/d/" + id, M::Json, bindFn(&HttpService::transferPagePost));
    route("GET", "/r/([^/]*)", M::None, bindFn(&HttpService::codePage));
    route("GET", "/legal/(terms|privacy)", M::None, [](Context &c) {
        c.res.set_content(legalPage(c.match(1) == "terms"), "text/html; charset=utf-8");
    });
    route("GET", "/", M::None, [](Context &c) {
        c.res.set_content(messagePage("Lofthaven", "This is a Lofthaven service. Open a link you "
                                                   "were sent, or use the Lofthaven app."),
                          "text/html; charset=utf-8");
    });
    if (m_options.testHooks) {
        route("POST", "/__test/faults", M::Json, bindFn(&HttpService::testFaults));
        route("GET", "/__test/faults", M::None, bindFn(&HttpService::testFaults));
        route("DELETE", "/__test/faults", M::Json, bindFn(&HttpService::testFaults));
        route("POST", "/__test/device/approve", M::Json,
              [this](Context &c) { testDevice(c, true); });
        route("POST", "/__test/device/deny", M::Json, [this](Context &c) { testDevice(c, false); });
        route("GET", "/__test/log", M::None, bindFn(&HttpService::testLog));
        route("DELETE", "/__test/log", M::Json, bindFn(&HttpService::testLog));
        route("POST", "/__test/clock", M::Json, bindFn(&HttpService::testClock));
        route("POST", "/__test/sweep", M::Json, bindFn(&HttpService::testSweep));
    }

    m_server->set_pre_routing_handler([this](const httplib::Request &req, httplib::Response &res) {
        t_stats = RequestStats{};
        t_stats.startedAt = now();
        // Ranges are answered by the download handler itself; left in place,
        // the library would slice error bodies too.
        const_cast<httplib::Request &>(req).ranges.clear();
        if (const auto f = badContentLength(req)) {
            // The body's end is unknown, so nothing after it on this connection can be read.
            GuardedServer::closeAfterAnswer();
            res.set_header("Connection", "close");
            sendFailure(res, *f);
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    m_server->set_error_handler(
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
            res.status = f.status;
            res.set_content(jsonText(errorBody(f)), "application/json");
            return httplib::Server::HandlerResponse::Handled;
        }));
    m_server->set_exception_handler(
        [](const httplib::Request &, httplib::Response &res, std::exception_ptr) {
            sendFailure(res, {500, "internal", "Internal error."});
        });
    m_server->set_logger([this](const httplib::Request &req, const httplib::Response &res) {
        if (t_stats.logged)
            return;
        t_stats.logged = true;
        RequestLog::Entry e;
        e.at = now();
        e.startedAt = t_stats.startedAt ? t_stats.startedAt : e.at;
        e.method = req.method;
        e.path = req.path;
        e.status = res.status;
        e.bytesIn = t_stats.bytesIn ? t_stats.bytesIn : static_cast<int64_t>(req.body.size());
        e.bytesOut = t_stats.bytesOut ? t_stats.bytesOut : static_cast<int64_t>(res.body.size());
        e.range = req.get_header_value("Range");
        e.authorization = req.has_header("Authorization");
        e.ownerToken = req.has_header("X-Owner-Token");
        e.unlockToken = req.has_param("t");
        m_log.add(std::move(e));
    });
}

void HttpService::dispatch(const httplib::Request &req, httplib::Response &res,
                           const httplib::ContentReader *reader, BodyMode mode, const Fn &fn)
{
    // A body-less POST from curl has neither header; reading would wait for
    // the client to close.
    if (reader && !req.has_header("Content-Length") &&
        req.get_header_value("Transfer-Encoding").find("chunked") == std::string::npos)
        reader = nullptr;
    Context c{req, res, reader, false, {}, std::nullopt, false};
    auto drain = [&] {
        if (c.reader && !c.bodyConsumed) {
            c.bodyConsumed = true;
            (*c.reader)([&](const char *, size_t n) {
                t_stats.bytesIn += static_cast<int64_t>(n);
                return true;
            });
        }
    };
    try {
        if (m_options.testHooks && req.path.rfind("/__test/", 0) != 0) {
            t_stats.fault = m_faults.take(req.method, req.path);
            if (const auto &f = t_stats.fault) {
                if (f->stallSeconds > 0)
                    std::this_thread::sleep_for(std::chrono::duration<double>(f->stallSeconds));
                if (f->status > 0) {
                    drain();
                    Failure failure{f->status, "injected", "Injected fault.", std::nullopt,
                                    f->retryAfter};
                    sendFailure(res, failure);
                    return;
                }
                if (f->dropAfterBytes >= 0 && reader && mode == BodyMode::Stream) {
                    // An upload cut: take N bytes of the body, then hang up.
                    c.bodyConsumed = true;
                    int64_t got = 0;
                    (*reader)([&](const char *, size_t n) {
                        got += static_cast<int64_t>(n);
                        t_stats.bytesIn = got;
                        return got < f->dropAfterBytes;
                    });
                    cutConnection(req);
                    res.status = 499;
                    return;
                }
            }
        }
        const std::string auth = req.get_header_value("Authorization");
        if (!auth.empty()) {
            c.tokenSent = true;
            if (auth.rfind("Bearer ", 0) != 0)
                fail(401, "unauthorized", "The Authorization header must be a bearer token.");
            c.user = userForToken(auth.substr(7));
            if (!c.user)
                fail(401, "unauthorized", "Your sign-in expired or was revoked.");
        }
        if (mode == BodyMode::Json && reader) {
            c.bodyConsumed = true;
            bool tooLarge = false;
            (*reader)([&](const char *data, size_t n) {
                t_stats.bytesIn += static_cast<int64_t>(n);
                if (static_cast<int64_t>(c.body.size() + n) > kMaxJsonBody)
                    tooLarge = true;
                else
                    c.body.append(data, n);
                return true;
            });
            if (tooLarge)
                fail(413, "too_large", "The request body is larger than 1 MB.", kMaxJsonBody);
        }
        fn(c);
    } catch (const Failure &f) {
        drain();
        sendFailure(res, f);
    } catch (const std::exception &e) {
        drain();
        std::fprintf(stderr, "error: %s %s: %s\n", req.method.c_str(), req.path.c_str(), e.what());
        sendFailure(res, isDiskFull(e) ? kDiskFull : Failure{500, "internal", "Internal error."});
    }

    // Response faults on in-memory bodies: cut after N bytes, or trickle.
    const auto &f = t_stats.fault;
    if (f && (f->dropAfterBytes >= 0 || f->trickleMs > 0) && !res.body.empty()) {
        auto body = std::make_shared<std::string>(std::move(res.body));
        res.body.clear();
        std::string type = res.get_header_value("Content-Type");
        const int64_t drop = f->dropAfterBytes;
        const int trickle = f->trickleMs;
        res.set_content_provider(
            body->size(), type,
            [body, drop, trickle](size_t offset, size_t, httplib::DataSink &sink) {
                if (drop >= 0 && static_cast<int64_t>(offset) >= drop)
                    return false;
                size_t n = body->size() - offset;
                if (trickle > 0) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(trickle));
                    n = 1;
                }
                if (drop >= 0)
                    n = std::min<size_t>(n, drop - offset);
                t_stats.bytesOut += static_cast<int64_t>(n);
                return sink.write(body->data() + offset, n);
            });
    }
}

// ---- accounts --------------------------------------------------------------

std::optional<HttpService::User> HttpService::userForToken(const std::string &token)
{
    const auto rows = m_store->query(
        "SELECT u.id, u.email, u.name FROM sessions s JOIN users u ON u.id = s.user_id "
        "WHERE s.token_hash = ? AND s.revoked = 0",
        {sha256Hex(token)});
    if (rows.empty())
        return std::nullopt;
    return User{Store::text(rows[0][0]), Store::text(rows[0][1]), Store::text(rows[0][2])};
}

QJsonObject HttpService::limitsFor(bool signedIn) const
{
    QJsonArray expiries;
    for (auto e : signedIn ? m_options.accountExpiries : m_options.anonymousExpiries)
        expiries.append(static_cast<qint64>(e));
    return {{"maxBytes", static_cast<qint64>(signedIn ? m_options.accountMaxBytes
                                                      : m_options.anonymousMaxBytes)},
            {"expiries", expiries}};
}

QJsonObject HttpService::plans() const
{
    return {{"free", "Free: transfers up to 2 GB, links that last up to 7 days."}};
}

QJsonObject userJson(const HttpService::User &u)
{
    QJsonObject o{{"id", qs(u.id)}, {"email", qs(u.email)}};
    if (!u.name.empty())
        o.insert("name", qs(u.name));
    return o;
}

void HttpService::me(Context &c)
{
    if (!c.user) {
        sendJson(c.res, {{"signedIn", false}, {"limits", limitsFor(false)}});
        return;
    }
    sendJson(c.res, {{"signedIn", true},
                     {"user", userJson(*c.user)},
                     {"plans", plans()},
                     {"limits", limitsFor(true)}});
}

void HttpService::meTransfers(Context &c)
{
    if (!c.user)
        fail(401, "unauthorized", "Sign in to see your transfers.");
    QJsonArray list;
    for (const auto &row : m_store->query(std::string("SELECT ") + kTransferColumns +
                                              " FROM transfers WHERE user_id = ? "
                                              "ORDER BY created_at DESC, rowid DESC",
                                          {c.user->id}))
        list.append(metaJson(row));
    sendJson(c.res, {{"transfers", list}});
}

void HttpService::meInbox(Context &c)
{
    if (!c.user)
        fail(401, "unauthorized", "Sign in to see your devices inbox.");
    QJsonArray list;
    for (const auto &row :
         m_store->query(std::string("SELECT ") + kTransferColumns +
                            " FROM transfers WHERE user_id = ? AND to_self = 1 AND state = 'ready'"
                            " AND expires_at > ? ORDER BY created_at DESC, rowid DESC",
                        {c.user->id, now()}))
        list.append(metaJson(row));
    sendJson(c.res, {{"items", list}});
}

void HttpService::cliLogin(Context &c)
{
    const auto body = c.json();
    std::string name = str(body.value("name").toString()).substr(0, 120);
    const std::string deviceCode = randomAlnum(40);
    std::string userCode;
    const int64_t t = now();
    const int64_t intervalMs = static_cast<int64_t>(m_options.deviceInterval * 1000);
    for (int attempt = 0;; ++attempt) {
        // No vowels or look-alikes: codes are read aloud and retyped.
        static const std::string alphabet = "BCDFGHJKLMNPQRSTVWXZ";
        const std::string raw = randomDigits(8);
        userCode.clear();
        for (char d : raw)
            userCode.push_back(alphabet[(d - '0') * 2 + (randomDigits(1)[0] - '0') % 2]);
        userCode.insert(4, "-");
        try {
            m_store->exec("DELETE FROM device_logins WHERE expires_at < ?", {t - 86400000});
            m_store->exec("INSERT INTO device_logins (code_hash, user_code, name, created_at, "
                          "expires_at, interval_ms, state) VALUES (?, ?, ?, ?, ?, ?, 'pending')",
                          {sha256Hex(deviceCode), userCode, name, t,
                           t + m_options.deviceExpiresIn * 1000, intervalMs});
            break;
        } catch (const std::runtime_error &) {
            if (attempt > 20)
                throw;
        }
    }
    const std::string page = m_publicOrigin + "/device";
    sendJson(c.res, {{"deviceCode", qs(deviceCode)},
                     {"userCode", qs(userCode)},
                     {"verifyUrl", qs(page)},
                     {"verifyUrlComplete", qs(page + "?code=" + userCode)},
                     {"interval", m_options.deviceInterval},
                     {"expiresIn", static_cast<qint64>(m_options.deviceExpiresIn)}});
}

void HttpService::cliToken(Context &c)
{
    const auto body = c.json();
    const std::string deviceCode = str(body.value("deviceCode").toString());
    if (deviceCode.empty())
        fail(400, "invalid_request", "deviceCode is missing.");
    const int64_t t = now();
    const std::string hash = sha256Hex(deviceCode);
    // Decide and mark in one transaction, so one approval yields one token.
    auto answer = m_store->transaction([&]() -> std::pair<int, QJsonObject> {
        const auto rows = m_store->query("SELECT expires_at, interval_ms, last_poll, state, "
                                         "user_id, name FROM device_logins WHERE code_hash = ?",
                                         {hash});
        if (rows.empty())
            return {400, errorBody({400, "invalid_grant", "Unknown sign-in code."})};
        const auto &r = rows[0];
        const std::string state = Store::text(r[3]);
        if (state == "used")
            return {400, errorBody({400, "invalid_grant", "This sign-in code was already used."})};
        if (Store::integer(r[0]) <= t)
            return {410, errorBody({410, "expired_token", "The sign-in code expired."})};
        if (state == "denied")
            return {403, errorBody({403, "access_denied", "Sign-in was denied."})};
        if (state == "approved") {
            const std::string token = randomAlnum(48);
            const std::string userId = Store::text(r[4]);
            m_store->exec("INSERT INTO sessions (token_hash, user_id, device, created_at) "
                          "VALUES (?, ?, ?, ?)",
                          {sha256Hex(token), userId, Store::text(r[5]), t});
            m_store->exec("UPDATE device_logins SET state = 'used' WHERE code_hash = ?", {hash});
            const auto u =
                m_store->query("SELECT id, email, name FROM users WHERE id = ?", {userId});
            User user{Store::text(u.at(0)[0]), Store::text(u.at(0)[1]), Store::text(u.at(0)[2])};
            return {200, QJsonObject{{"token", qs(token)},
                                     {"user", userJson(user)},
                                     {"plans", plans()},
                                     {"limits", limitsFor(true)}}};
        }
        const int64_t interval = Store::integer(r[1]);
        const int64_t last =
            std::holds_alternative<std::nullptr_t>(r[2]) ? 0 : Store::integer(r[2]);
        m_store->exec("UPDATE device_logins SET last_poll = ? WHERE code_hash = ?", {t, hash});
        if (last > 0 && t - last < interval) {
            // Each early poll stretches the interval by 5 s, as the client does.
            m_store->exec("UPDATE device_logins SET interval_ms = interval_ms + 5000 "
                          "WHERE code_hash = ?",
                          {hash});
            return {429, errorBody({429, "slow_down", "Polling too fast; wait longer."})};
        }
        return {428,
                errorBody({428, "authorization_pending", "Waiting for approval in the browser."})};
    });
    sendJson(c.res, answer.second, answer.first);
}

void HttpService::cliLogout(Context &c)
{
    if (!c.user)
        fail(401, "unauthorized", "Not signed in.");
    const std::string auth = c.header("Authorization");
    m_store->exec("UPDATE sessions SET revoked = 1 WHERE token_hash = ?",
                  {sha256Hex(auth.substr(7))});
    sendJson(c.res, {{"ok", true}});
}

void HttpService::decideDevice(const std::string &userCodeIn, const std::string &emailIn,
                               bool approve)
{
    const std::string userCode = upperCode(userCodeIn);
    const auto rows = m_store->query(
        "SELECT state, expires_at FROM device_logins WHERE user_code = ?", {userCode});
    if (rows.empty())
        fail(404, "not_found", "No sign-in is waiting for code " + userCode + ".");
    if (Store::integer(rows[0][1]) <= now())
        fail(410, "expired_token", "This sign-in code expired. Start again in the app.");
    if (Store::text(rows[0][0]) != "pending")
        fail(409, "already_decided", "This sign-in code was already used.");
    if (!approve) {
        m_store->exec("UPDATE device_logins SET state = 'denied' WHERE user_code = ?", {userCode});
        return;
    }
    std::string email;
    for (char ch : emailIn)
        email.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(ch))));
    while (!email.empty() && std::isspace(static_cast<unsigned char>(email.back())))
        email.pop_back();
    while (!email.empty() && std::isspace(static_cast<unsigned char>(email.front())))
        email.erase(email.begin());
    const auto at = email.find('@');
    if (at == std::string::npos || at == 0 || at + 1 >= email.size() || email.size() > 254)
        fail(400, "bad_request", "Enter a valid e-mail address to approve.");
    m_store->transaction([&] {
        auto u = m_store->query("SELECT id FROM users WHERE email = ?", {email});
        std::string userId;
        if (u.empty()) {
            userId = randomAlnum(16);
            m_store->exec("INSERT INTO users (id, email, name, created_at) VALUES (?, ?, ?, ?)",
                          {userId, email, email.substr(0, at), now()});
        } else {
            userId = Store::text(u[0][0]);
        }
        m_store->exec(
            "UPDATE device_logins SET state = 'approved', user_id = ? WHERE user_code = ?",
            {userId, userCode});
    });
}

void HttpService::devicePageGet(Context &c)
{
    c.res.set_content(devicePage(upperCode(c.req.get_param_value("code")), ""),
                      "text/html; charset=utf-8");
}

void HttpService::devicePagePost(Context &c)
{
    auto form = parseForm(c.body);
    const bool approve = form["action"] != "deny";
    try {
        decideDevice(form["code"], form["email"], approve);
    } catch (const Failure &f) {
        c.res.status = f.status;
        c.res.set_content(devicePage(upperCode(form["code"]), f.message),
                          "text/html; charset=utf-8");
        return;
    }
    c.res.set_content(deviceDonePage(approve), "text/html; charset=utf-8");
}

// ---- transfers -------------------------------------------------------------

std::optional<Store::Row> HttpService::transferRow(const std::string &id)
{
    auto rows = m_store->query(
        std::string("SELECT ") + kTransferColumns + " FROM transfers WHERE id = ?", {id});
    if (rows.empty())
        return std::nullopt;
    return rows[0];
}

std::string HttpService::transferDir(const std::string &id) const
{
    return (fs::path(m_options.dataDir) / "transfers" / id).string();
}

void HttpService::deleteTransferFiles(const std::string &id)
{
    std::error_code ec;
    fs::remove_all(transferDir(id), ec);
}

QJsonObject HttpService::metaJson(const Store::Row &r)
{
    const int64_t t = now();
    QJsonObject o{{"id", qs(Store::text(r[cId]))},
                  {"name", qs(Store::text(r[cName]))},
                  {"size", static_cast<qint64>(Store::integer(r[cSize]))},
                  {"createdAt", static_cast<double>(Store::integer(r[cCreated]))},
                  {"expiresAt", static_cast<double>(Store::integer(r[cExpires]))},
                  {"downloads", static_cast<qint64>(Store::integer(r[cDownloads]))},
                  {"maxDownloads", static_cast<qint64>(Store::integer(r[cMaxDownloads]))},
                  {"hasPassword", !std::holds_alternative<std::nullptr_t>(r[cPassword])},
                  {"code", qs(Store::text(r[cCode]))},
                  {"url", qs(m_publicOrigin + "/d/" + Store::text(r[cId]))},
                  {"toSelf", Store::integer(r[cToSelf]) != 0}};
    const auto mime = Store::optText(r[cMime]);
    if (mime)
        o.insert("mime", qs(*mime));
    const std::string name = Store::text(r[cName]);
    const bool zipName = name.size() > 4 && (name.substr(name.size() - 4) == ".zip" ||
                                             name.substr(name.size() - 4) == ".ZIP");
    o.insert("isZip", (mime && *mime == "application/zip") || zipName);
    const auto files = QJsonDocument::fromJson(QByteArray::fromStdString(Store::text(r[cFiles])));
    o.insert("files", files.array());
    o.insert("fileCount", static_cast<qint64>(files.array().size()));
    if (auto v = Store::optText(r[cTitle]))
        o.insert("title", qs(*v));
    if (auto v = Store::optText(r[cMessage]))
        o.insert("message", qs(*v));
    if (auto v = Store::optText(r[cDevice]))
        o.insert("device", qs(*v));
    std::string status = Store::text(r[cState]);
    if (status == "ready" && Store::integer(r[cExpires]) <= t)
        status = "expired";
    else if (status == "ready" && Store::integer(r[cMaxDownloads]) > 0 &&
             Store::integer(r[cDownloads]) >= Store::integer(r[cMaxDownloads]))
        status = "limit_reached";
    o.insert("status", qs(status));
    return o;
}

bool HttpService::isOwner(Context &c, const Store::Row &r)
{
    const std::string owner = c.header("X-Owner-Token");
    if (!owner.empty() && constantTimeEquals(sha256Hex(owner), Store::text(r[cOwner])))
        return true;
    return c.user && !std::holds_alternative<std::nullptr_t>(r[cUser]) &&
           c.user->id == Store::text(r[cUser]);
}

// The address a limit is kept for: the peer, or what a trusted proxy names.
// IPv6 clients get a /64 each, as one host usually holds a whole /64.
std::string HttpService::clientAddress(const httplib::Request &req) const
{
    std::string address = req.remote_addr;
    if (!m_options.clientAddressHeader.empty() && req.has_header(m_options.clientAddressHeader))
        address = req.get_header_value(m_options.clientAddressHeader);
    in6_addr v6{};
    if (inet_pton(AF_INET6, address.c_str(), &v6) == 1) {
        std::memset(v6.s6_addr + 8, 0, 8);
        char text[INET6_ADDRSTRLEN] = {};
        inet_ntop(AF_INET6, &v6, text, sizeof text);
        return std::string(text) + "/64";
    }
    return address;
}

// Six digits are few: without a limit the whole space is tried in minutes.
void HttpService::limitCodeLookup(Context &c)
{
    if (const int64_t ms = m_lookups.take(clientAddress(c.req), now()))
        tooMany(ms, "Too many code lookups from this address; wait a moment.");
}

void HttpService::codeLookup(Context &c)
{
    limitCodeLookup(c);
    const std::string code = c.match(1);
    if (code.size() != 6 || code.find_first_not_of("0123456789") != std::string::npos)
        fail(404, "not_found", "A code has 6 digits.");
    const auto rows =
        m_store->query("SELECT id, expires_at FROM transfers WHERE code = ? AND state = 'ready' "
                       "ORDER BY expires_at DESC LIMIT 1",
                       {code});
    if (rows.empty() || Store::integer(rows[0][1]) <= now())
        fail(404, "not_found", "No active transfer uses the code " + code + ".");
    sendJson(c.res, {{"id", qs(Store::text(rows[0][0]))}});
}

void HttpService::transferMeta(Context &c)
{
    const auto row = transferRow(c.match(1));
    if (!row)
        fail(404, "not_found", "No transfer has this link.");
    const auto &r = *row;
    const bool owner = isOwner(c, r);
    const std::string state = Store::text(r[cState]);
    if (state == "uploading" && !owner)
        fail(404, "not_found", "This transfer is still uploading.");
    if (state == "expired" || Store::integer(r[cExpires]) <= now())
        fail(410, "expired", "This transfer has expired.");
    sendJson(c.res, metaJson(r));
}

void HttpService::unlock(Context &c)
{
    const auto body = c.json();
    const auto row = transferRow(c.match(1));
    if (!row || Store::text((*row)[cState]) == "uploading")
        fail(404, "not_found", "No transfer has this link.");
    const auto &r = *row;
    if (Store::text(r[cState]) == "expired" || Store::integer(r[cExpires]) <= now())
        fail(410, "expired", "This transfer has expired.");
    if (!body.value("password").isString())
        fail(400, "bad_request", "password is missing.");
    const auto stored = Store::optText(r[cPassword]);
    // Failures count per transfer, whoever guesses; past the limit even the right
    // password waits, or the answer would tell a guesser when it was right.
    const std::string id = Store::text(r[cId]);
    if (const int64_t ms = stored ? m_unlocks.wait(id, now()) : 0)
        tooMany(ms, "Too many wrong passwords for this transfer; wait a moment.");
    if (stored && !verifyPassword(str(body.value("password").toString()), *stored)) {
        m_unlocks.record(id, now());
        fail(403, "wrong_password", "Wrong password.");
    }
    const std::string token = randomAlnum(40);
    m_store->exec("DELETE FROM unlock_tokens WHERE expires_at < ?", {now()});
    m_store->exec(
        "INSERT INTO unlock_tokens (token_hash, transfer_id, expires_at) VALUES (?, ?, ?)",
        {sha256Hex(token), Store::text(r[cId]), Store::integer(r[cExpires])});
    sendJson(c.res, {{"token", qs(token)}});
}

void HttpService::createTransfer(Context &c)
{
    const auto b = c.json();
    const bool signedIn = c.user.has_value();
    const std::string name = str(b.value("name").toString());
    if (name.empty() || name.size() > 1024)
        fail(400, "bad_request", "name must be a non-empty string.");
    if (!b.value("size").isDouble() || b.value("size").toInteger(-1) < 0)
        fail(400, "bad_request", "size must be a whole number of bytes.");
    const int64_t size = b.value("size").toInteger();
    const int64_t maxBytes = signedIn ? m_options.accountMaxBytes : m_options.anonymousMaxBytes;
    if (size > maxBytes)
        fail(413, "too_large",
             signedIn ? "This transfer is larger than your plan allows."
                      : "Transfers without an account are limited; sign in to send more.",
             maxBytes);
    const auto &allowed = signedIn ? m_options.accountExpiries : m_options.anonymousExpiries;
    const int64_t expiresIn = b.value("expiresIn").toInteger(-1);
    if (std::find(allowed.begin(), allowed.end(), expiresIn) == allowed.end()) {
        std::string list;
        for (auto e : allowed)
            list += (list.empty() ? "" : ", ") + std::to_string(e);
        fail(400, "bad_expiry",
             "expiresIn must be one of " + list + " seconds" +
                 (signedIn ? "." : " without an account."));
    }
    const int64_t maxDownloads = b.value("maxDownloads").toInteger(0);
    if (maxDownloads < 0)
        fail(400, "bad_request", "maxDownloads must not be negative.");
    QJsonArray files;
    for (const auto &f : b.value("files").toArray()) {
        const auto o = f.toObject();
        if (!o.value("name").isString() || !o.value("size").isDouble())
            fail(400, "bad_request", "files entries need a name and a size.");
        if (files.size() < kMaxListedFiles)
            files.append(QJsonObject{{"name", o.value("name")},
                                     {"size", static_cast<qint64>(o.value("size").toInteger())}});
    }
    const bool toSelf = b.value("toSelf").toBool(false);
    if (toSelf && !signedIn)
        fail(401, "unauthorized", "Sign in to send to your own devices.");
    int64_t partSize = b.value("partSize").toInteger(16 * 1024 * 1024);
    partSize = std::clamp(partSize, m_options.minPartSize, m_options.maxPartSize);
    const int64_t partCount = std::max<int64_t>(1, (size + partSize - 1) / partSize);
    const int64_t t = now();

    if (m_options.dailyQuotaBytes > 0) {
        const std::string creator = signedIn ? "user:" + c.user->id : "ip:" + c.req.remote_addr;
        const auto used = m_store->query(
            "SELECT COALESCE(SUM(size), 0) FROM transfers WHERE creator = ? AND created_at > ?",
            {creator, t - 86400000});
        if (Store::integer(used.at(0).at(0)) + size > m_options.dailyQuotaBytes)
            fail(429, "quota", "Daily limit reached. Try again tomorrow.",
                 m_options.dailyQuotaBytes);
    }

    auto optional = [&](const char *key, size_t cap) -> Store::Value {
        const auto v = b.value(key);
        if (!v.isString() || v.toString().isEmpty())
            return nullptr;
        return str(v.toString()).substr(0, cap);
    };
    Store::Value passwordHash = nullptr;
    if (b.value("password").isString() && !b.value("password").toString().isEmpty())
        passwordHash = hashPassword(str(b.value("password").toString()));

    const std::string id = randomAlnum(12);
    const std::string ownerToken = randomAlnum(43); // > 128 bits
    const std::string code = m_store->transaction([&] {
        std::string candidate;
        for (;;) {
            candidate = randomDigits(6);
            if (m_store
                    ->query("SELECT 1 FROM transfers WHERE code = ? AND state != 'expired' "
                            "AND expires_at > ?",
                            {candidate, t})
                    .empty())
                break;
        }
        m_store->exec(
            "INSERT INTO transfers (id, code, owner_hash, user_id, name, size, mime, files, title, "
            "message, created_at, expires_at, max_downloads, password_hash, part_size, part_count, "
            "state, to_self, device, source, creator) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, 'uploading', ?, ?, ?, ?)",
            {id,
             candidate,
             sha256Hex(ownerToken),
             signedIn ? Store::Value(c.user->id) : Store::Value(nullptr),
             name,
             size,
             optional("mime", 255),
             QJsonDocument(files).toJson(QJsonDocument::Compact).toStdString(),
             optional("title", 200),
             optional("message", 2000),
             t,
             t + expiresIn * 1000,
             maxDownloads,
             passwordHash,
             partSize,
             partCount,
             int64_t(toSelf ? 1 : 0),
             optional("device", 120),
             optional("source", 60),
             signedIn ? "user:" + c.user->id : "ip:" + c.req.remote_addr});
        return candidate;
    });
    fs::create_directories(transferDir(id));
    sendJson(c.res, {{"id", qs(id)},
                     {"code", qs(code)},
                     {"ownerToken", qs(ownerToken)},
                     {"partSize", static_cast<qint64>(partSize)},
                     {"partCount", static_cast<qint64>(partCount)},
                     {"url", qs(m_publicOrigin + "/d/" + id)},
                     {"codeUrl", qs(m_publicOrigin + "/r/" + code)},
                     {"expiresAt", static_cast<double>(t + expiresIn * 1000)}});
}

// A part's temporary file: closed and removed on every way out, unless kept.
struct PartFile
{
    std::string path;
    int fd = -1;
    ~PartFile()
    {
        if (fd >= 0)
            ::close(fd);
        if (!path.empty())
            ::unlink(path.c_str());
    }
};

void HttpService::putPart(Context &c)
{
    const std::string id = c.match(1);
    const int64_t number = std::stoll(c.match(2));
    const Store::Row r = ownedTransfer(c, id, "The owner token does not match this transfer.");
    if (Store::integer(r[cExpires]) <= now())
        fail(410, "expired", "This transfer has expired.");
    if (Store::text(r[cState]) != "uploading")
        fail(409, "already_complete", "This transfer is already complete.");
    const int64_t partSize = Store::integer(r[cPartSize]);
    const int64_t partCount = Store::integer(r[cPartCount]);
    const int64_t size = Store::integer(r[cSize]);
    if (number < 1 || number > partCount)
        fail(400, "bad_part",
             "Part number must be between 1 and " + std::to_string(partCount) + ".");
    const int64_t expected = number < partCount ? partSize : size - (partCount - 1) * partSize;
    if (!c.reader)
        fail(411, "length_required", "A part needs a Content-Length.");
    if (c.req.has_header("Content-Length")) {
        // Digits only: checked before routing.
        const int64_t declared = std::stoll(c.header("Content-Length"));
        if (declared > expected)
            fail(413, "too_large",
                 "Part " + std::to_string(number) + " must be " + std::to_string(expected) +
                     " bytes.",
                 expected);
        if (declared != expected)
            fail(400, "bad_part_size",
                 "Part " + std::to_string(number) + " must be " + std::to_string(expected) +
                     " bytes, not " + std::to_string(declared) + ".");
    }

    const std::string dir = transferDir(id);
    fs::create_directories(dir);
    fs::permissions(dir, fs::perms::owner_all);
    const std::string finalPath = dir + "/" + partFileName(number);
    PartFile tmp;
    tmp.path = finalPath + ".tmp-" + randomHex(6);
    tmp.fd = ::open(tmp.path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0600);
    if (tmp.fd < 0) {
        tmp.path.clear();
        if (errno == ENOSPC)
            throw Failure(kDiskFull);
        throw std::runtime_error("cannot create a part file: " + std::string(std::strerror(errno)));
    }
    // Bytes go to disk as they arrive, through one small buffer.
    std::vector<char> buffer;
    buffer.reserve(kIoChunk);
    int64_t received = 0;
    int writeError = 0;
    auto flush = [&](const char *data, size_t n) {
        if (!writeError && !writeAll(tmp.fd, data, n))
            writeError = errno;
    };
    c.bodyConsumed = true;
    const bool readOk = (*c.reader)([&](const char *data, size_t n) {
        received += static_cast<int64_t>(n);
        t_stats.bytesIn = received;
        if (received > expected || writeError)
            return true; // keep reading so the connection stays usable
        if (buffer.size() + n > kIoChunk) {
            flush(buffer.data(), buffer.size());
            buffer.clear();
        }
        if (n >= kIoChunk)
            flush(data, n);
        else
            buffer.insert(buffer.end(), data, data + n);
        return true;
    });
    if (!buffer.empty() && received <= expected)
        flush(buffer.data(), buffer.size());
    if (!writeError && ::fsync(tmp.fd) != 0)
        writeError = errno;
    if (!readOk)
        fail(400, "bad_request", "The part body was cut short.");
    if (writeError == ENOSPC || writeError == EDQUOT)
        throw Failure(kDiskFull);
    if (writeError)
        fail(507, "storage", "The service could not store the part.");
    if (received != expected)
        fail(received > expected ? 413 : 400, "bad_part_size",
             "Part " + std::to_string(number) + " must be " + std::to_string(expected) +
                 " bytes, not " + std::to_string(received) + ".",
             received > expected ? std::optional<int64_t>(expected) : std::nullopt);
    ::close(tmp.fd);
    tmp.fd = -1;
    // The rename happens under the store's lock, after the state check: a
    // transfer completed meanwhile keeps the bytes its etags name.
    const std::string etag = randomHex(8);
    const bool registered = m_store->transaction([&] {
        const auto state = m_store->query("SELECT state FROM transfers WHERE id = ?", {id});
        if (state.empty() || Store::text(state[0][0]) != "uploading")
            return false;
        m_store->exec("INSERT OR REPLACE INTO parts (transfer_id, part_number, size, etag) "
                      "VALUES (?, ?, ?, ?)",
                      {id, number, expected, etag});
        if (::rename(tmp.path.c_str(), finalPath.c_str()) != 0)
            throw std::runtime_error("cannot rename part: " + std::string(std::strerror(errno)));
        tmp.path.clear();
        fsyncDir(dir);
        return true;
    });
    if (!registered)
        fail(409, "gone", "The transfer was completed, aborted or deleted meanwhile.");
    sendJson(c.res, {{"etag", qs(etag)}});
}

void HttpService::complete(Context &c)
{
    const std::string id = c.match(1);
    const auto body = c.json();
    const Store::Row r = ownedTransfer(c, id, "The owner token does not match this transfer.");
    const std::string code = Store::text(r[cCode]);
    auto answer = [&] {
        sendJson(c.res, {{"id", qs(id)},
                         {"code", qs(code)},
                         {"url", qs(m_publicOrigin + "/d/" + id)},
                         {"codeUrl", qs(m_publicOrigin + "/r/" + code)},
                         {"expiresAt", static_cast<double>(Store::integer(r[cExpires]))},
                         {"size", static_cast<qint64>(Store::integer(r[cSize]))}});
    };
    if (Store::text(r[cState]) == "ready") {
        answer(); // a repeated complete gets the same answer
        return;
    }
    if (Store::integer(r[cExpires]) <= now())
        fail(410, "expired", "This transfer has expired.");
    const int64_t partCount = Store::integer(r[cPartCount]);
    const auto listed = body.value("parts").toArray();
    // Checked and marked in one transaction, so no part changes in between.
    m_store->transaction([&] {
        std::map<int64_t, std::string> stored;
        int64_t total = 0;
        for (const auto &p : m_store->query(
                 "SELECT part_number, size, etag FROM parts WHERE transfer_id = ?", {id})) {
            stored[Store::integer(p[0])] = Store::text(p[2]);
            total += Store::integer(p[1]);
        }
        for (int64_t n = 1; n <= partCount; ++n) {
            if (!stored.count(n))
                fail(409, "incomplete",
                     "Part " + std::to_string(n) + " of " + std::to_string(partCount) +
                         " has not arrived.");
        }
        if (total != Store::integer(r[cSize]))
            fail(409, "size_mismatch",
                 "The parts hold " + std::to_string(total) + " bytes, not " +
                     std::to_string(Store::integer(r[cSize])) + ".");
        if (listed.size() != partCount)
            fail(409, "incomplete",
                 "The list names " + std::to_string(listed.size()) + " of " +
                     std::to_string(partCount) + " parts.");
        for (int64_t i = 0; i < partCount; ++i) {
            const auto p = listed[i].toObject();
            const int64_t n = p.value("partNumber").toInteger(-1);
            if (n != i + 1)
                fail(409, "bad_order", "Parts must be listed in order from 1.");
            if (str(p.value("etag").toString()) != stored[n])
                fail(409, "etag_mismatch",
                     "Part " + std::to_string(n) +
                         " was replaced or is wrong; "
                         "upload it again.");
        }
        m_store->exec("UPDATE transfers SET state = 'ready' WHERE id = ? AND state = 'uploading'",
                      {id});
    });
    answer();
}

void HttpService::abort(Context &c)
{
    const std::string id = c.match(1);
    const Store::Row r = ownedTransfer(c, id, "The owner token does not match this transfer.");
    if (Store::text(r[cState]) == "ready")
        fail(409, "already_complete", "This transfer is complete; delete it instead.");
    discardTransfer(id);
    sendJson(c.res, {{"ok", true}});
}

// The transfer's row, when it exists (404) and the caller owns it (403).
Store::Row HttpService::ownedTransfer(Context &c, const std::string &id, const char *forbidden)
{
    auto row = transferRow(id);
    if (!row)
        fail(404, "not_found", "No transfer has this id.");
    if (!isOwner(c, *row))
        fail(403, "forbidden", forbidden);
    return std::move(*row);
}

// Metadata first, in one transaction, then the bytes: a crash in between leaves only
// unreferenced files, which the sweep removes.
void HttpService::discardTransfer(const std::string &id)
{
    m_store->transaction([&] {
        m_store->exec("DELETE FROM parts WHERE transfer_id = ?", {id});
        m_store->exec("DELETE FROM unlock_tokens WHERE transfer_id = ?", {id});
        m_store->exec("DELETE FROM transfers WHERE id = ?", {id});
    });
    deleteTransferFiles(id);
}

void HttpService::extend(Context &c)
{
    const std::string id = c.match(1);
    const Store::Row r = ownedTransfer(c, id, "Only the sender can extend this transfer.");
    if (Store::text(r[cState]) == "expired" || Store::integer(r[cExpires]) <= now())
        fail(410, "expired", "This transfer has expired.");
    const int64_t changed = m_store->exec("UPDATE transfers SET expires_at = expires_at + ?, "
                                          "extended = 1 WHERE id = ? AND extended = 0",
                                          {kExtendMs, id});
    if (changed == 0)
        fail(409, "already_extended", "This transfer was already extended once.");
    const auto updated = transferRow(id);
    sendJson(c.res, {{"expiresAt", static_cast<double>(Store::integer((*updated)[cExpires]))}});
}

void HttpService::remove(Context &c)
{
    const std::string id = c.match(1);
    const Store::Row r = ownedTransfer(c, id, "Only the sender can delete this transfer.");
    discardTransfer(id);
    sendJson(c.res, {{"ok", true}});
}

void HttpService::download(Context &c)
{
    const std::string id = c.match(1);
    const auto row = transferRow(id);
    if (!row || Store::text((*row)[cState]) == "uploading")
        fail(404, "not_found", "No transfer has this link.");
    const auto &r = *row;
    if (Store::text(r[cState]) == "expired" || Store::integer(r[cExpires]) <= now())
        fail(410, "expired", "This transfer has expired.");
    const int64_t maxDownloads = Store::integer(r[cMaxDownloads]);
    if (maxDownloads > 0 && Store::integer(r[cDownloads]) >= maxDownloads)
        fail(410, "limit_reached", "This transfer reached its download limit.");
    if (!std::holds_alternative<std::nullptr_t>(r[cPassword])) {
        const std::string t = c.req.get_param_value("t");
        const auto ok = t.empty()
                            ? std::vector<Store::Row>{}
                            : m_store->query("SELECT 1 FROM unlock_tokens WHERE token_hash = ?"
                                             " AND transfer_id = ? AND expires_at > ?",
                                             {sha256Hex(t), id, now()});
        if (ok.empty())
            fail(403, "password_required", "This transfer is password protected.");
    }
    const int64_t size = Store::integer(r[cSize]);
    const int64_t partSize = Store::integer(r[cPartSize]);
    int64_t first = 0, last = size - 1;
    const std::string range = c.header("Range");
    bool partial = false;
    if (!range.empty()) {
        // One range, "bytes=N-" or "bytes=N-M"; anything else is served whole.
        unsigned long long a = 0, b = 0;
        char dash = 0;
        int consumed = 0;
        if (std::sscanf(range.c_str(), "bytes=%llu%c%n", &a, &dash, &consumed) == 2 &&
            dash == '-') {
            const std::string rest = range.substr(consumed);
            bool valid = true;
            if (!rest.empty()) {
                valid = rest.find_first_not_of("0123456789") == std::string::npos;
                if (valid)
                    b = std::stoull(rest);
            }
            if (valid && (rest.empty() || b >= a)) {
                if (static_cast<int64_t>(a) >= size) {
                    c.res.set_header("Content-Range", "bytes */" + std::to_string(size));
                    fail(416, "range_not_satisfiable",
                         "The range starts at or past the end of the transfer.");
                }
                first = static_cast<int64_t>(a);
                if (!rest.empty())
                    last = std::min<int64_t>(static_cast<int64_t>(b), size - 1);
                partial = true;
            }
        }
    }
    const int64_t length = size == 0 ? 0 : last - first + 1;
    c.res.status = partial ? 206 : 200;
    c.res.set_header("Accept-Ranges", "bytes");
    if (partial)
        c.res.set_header("Content-Range", "bytes " + std::to_string(first) + "-" +
                                              std::to_string(last) + "/" + std::to_string(size));
    const std::string name = Store::text(r[cName]);
    std::string safe;
    for (char ch : name)
        safe.push_back(ch == '"' || ch == '\\' || static_cast<unsigned char>(ch) < 32 ? '_' : ch);
    c.res.set_header("Content-Disposition", "attachment; filename=\"" + safe + "\"");
    const std::string mime = Store::optText(r[cMime]).value_or("application/octet-stream");
    // Only an answer that reaches the last byte can complete a download; it
    // holds a slot from now on, so parallel starts cannot pass the limit.
    std::shared_ptr<bool> slot;
    if (last == size - 1)
        slot = reserveDownload(id, r);
    if (length == 0) {
        finishDownload(id, true);
        *slot = true;
        c.res.set_content("", mime);
        return;
    }

    struct Reader
    {
        std::string dir;
        int64_t partSize;
        int64_t part = -1;
        int fd = -1;
        std::vector<char> buffer = std::vector<char>(kIoChunk);
        ~Reader()
        {
            if (fd >= 0)
                ::close(fd);
        }
    };
    auto state = std::make_shared<Reader>();
    state->dir = transferDir(id);
    state->partSize = partSize;
    const auto fault = t_stats.fault;
    const int64_t dropAt = fault ? fault->dropAfterBytes : -1;
    const int trickle = fault ? fault->trickleMs : 0;
    c.res.set_content_provider(
        static_cast<size_t>(length), mime,
        [this, state, first, size, dropAt, trickle, id, slot](size_t offset, size_t remaining,
                                                              httplib::DataSink &sink) {
            if (dropAt >= 0 && static_cast<int64_t>(offset) >= dropAt)
                return false;
            const int64_t pos = first + static_cast<int64_t>(offset);
            const int64_t part = pos / state->partSize;
            if (part != state->part) {
                if (state->fd >= 0)
                    ::close(state->fd);
                state->part = part;
                state->fd = ::open((state->dir + "/" + partFileName(part + 1)).c_str(),
                                   O_RDONLY | O_CLOEXEC);
                if (state->fd < 0)
                    return false;
                ::posix_fadvise(state->fd, 0, 0, POSIX_FADV_SEQUENTIAL);
            }
            const int64_t inPart = pos - part * state->partSize;
            int64_t want =
                std::min<int64_t>(static_cast<int64_t>(kIoChunk), state->partSize - inPart);
            want = std::min<int64_t>(want, size - pos);
            want = std::min<int64_t>(want, static_cast<int64_t>(remaining));
            if (trickle > 0)
                want = 1;
            if (dropAt >= 0)
                want = std::min<int64_t>(want, dropAt - static_cast<int64_t>(offset));
            const ssize_t got =
                ::pread(state->fd, state->buffer.data(), static_cast<size_t>(want), inPart);
            if (got <= 0)
                return false;
            if (trickle > 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(trickle));
            if (!sink.write(state->buffer.data(), static_cast<size_t>(got)))
                return false;
            t_stats.bytesOut += got;
            // A download counts once, when the transfer's last byte goes out,
            // so a resumed download is one download.
            if (pos + got == size && slot && !*slot) {
                *slot = true;
                finishDownload(id, true);
            }
            return true;
        });
}

// A slot for one download of the transfer; given back when the answer ends
// without its last byte (the returned flag is still false then).
std::shared_ptr<bool> HttpService::reserveDownload(const std::string &id, const Store::Row &r)
{
    const int64_t maxDownloads = Store::integer(r[cMaxDownloads]);
    {
        std::lock_guard lock(m_slotMutex);
        if (maxDownloads > 0) {
            const auto now = transferRow(id);
            const int64_t done = now ? Store::integer((*now)[cDownloads]) : maxDownloads;
            if (done >= maxDownloads)
                fail(410, "limit_reached", "This transfer reached its download limit.");
            if (done + m_reserved[id] >= maxDownloads) {
                Failure f{429, "busy",
                          "Every download this transfer allows is under way; try again shortly."};
                f.retryAfter = kBusyRetrySeconds;
                throw f;
            }
        }
        ++m_reserved[id];
    }
    return std::shared_ptr<bool>(new bool(false), [this, id](bool *completed) {
        if (!*completed)
            finishDownload(id, false);
        delete completed;
    });
}

void HttpService::finishDownload(const std::string &id, bool completed)
{
    std::lock_guard lock(m_slotMutex);
    if (completed)
        m_store->exec("UPDATE transfers SET downloads = downloads + 1 WHERE id = ?", {id});
    if (--m_reserved[id] <= 0)
        m_reserved.erase(id);
}

void HttpService::manifest(Context &c)
{
    const fs::path file = fs::path(m_options.dataDir) / "desktop.json";
    std::ifstream in(file, std::ios::binary);
    if (in) {
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        c.res.set_content(text.substr(0, kMaxJsonBody), "application/json");
        return;
    }
    sendJson(c.res,
             {{"version", "0.1.0"}, {"notes", "The desktop app that matches this service."}});
}

// ---- browser pages ---------------------------------------------------------

void HttpService::transferPageGet(Context &c)
{
    const auto row = transferRow(c.match(1));
    const bool gone = !row || Store::text((*row)[cState]) == "uploading";
    if (gone || Store::text((*row)[cState]) == "expired" ||
        Store::integer((*row)[cExpires]) <= now()) {
        c.res.status = gone ? 404 : 410;
        c.res.set_content(
            messagePage(gone ? "Not found" : "Expired",
                        gone ? "No transfer has this link." : "This transfer has expired."),
            "text/html; charset=utf-8");
        return;
    }
    const auto &r = *row;
    std::vector<PageFile> files;
    for (const auto &f :
         QJsonDocument::fromJson(QByteArray::fromStdString(Store::text(r[cFiles]))).array())
        files.push_back(
            {str(f.toObject().value("name").toString()), f.toObject().value("size").toInteger()});
    c.res.set_content(transferPage(Store::text(r[cId]), Store::text(r[cName]),
                                   Store::integer(r[cSize]), Store::optText(r[cTitle]).value_or(""),
                                   Store::optText(r[cMessage]).value_or(""), files,
                                   Store::integer(r[cExpires]),
                                   !std::holds_alternative<std::nullptr_t>(r[cPassword]), ""),
                      "text/html; charset=utf-8");
}

void HttpService::transferPagePost(Context &c)
{
    auto form = parseForm(c.body);
    const std::string id = c.match(1);
    // Reuse the API's rules, then hand the browser the unlocked link.
    Context api{c.req, c.res, nullptr, false, {}, std::nullopt, false};
    api.body = jsonText(QJsonObject{{"password", qs(form["password"])}});
    try {
        unlock(api);
    } catch (const Failure &f) {
        c.res.status = f.status;
        if (f.retryAfter >= 0)
            c.res.set_header("Retry-After", std::to_string(f.retryAfter));
        c.res.set_content(messagePage("Can't download", f.message), "text/html; charset=utf-8");
        return;
    }
    const auto token = QJsonDocument::fromJson(QByteArray::fromStdString(c.res.body))
                           .object()
                           .value("token")
                           .toString();
    c.res.body.clear();
    c.res.set_redirect("/dl/" + id + "?t=" + str(token), 303);
}

void HttpService::codePage(Context &c)
{
    try {
        limitCodeLookup(c);
    } catch (const Failure &f) {
        c.res.status = f.status;
        c.res.set_header("Retry-After", std::to_string(f.retryAfter));
        c.res.set_content(messagePage("Slow down", f.message), "text/html; charset=utf-8");
        return;
    }
    const std::string code = c.match(1);
    const auto rows = m_store->query("SELECT id FROM transfers WHERE code = ? AND state = 'ready' "
                                     "AND expires_at > ? ORDER BY expires_at DESC LIMIT 1",
                                     {code, now()});
    if (rows.empty()) {
        c.res.status = 404;
        c.res.set_content(messagePage("Not found", "No active transfer uses this code."),
                          "text/html; charset=utf-8");
        return;
    }
    c.res.set_redirect("/d/" + Store::text(rows[0][0]), 302);
}

// ---- test hooks ------------------------------------------------------------

void HttpService::testFaults(Context &c)
{
    if (c.req.method == "DELETE") {
        m_faults.clear();
        sendJson(c.res, {{"ok", true}});
        return;
    }
    if (c.req.method == "POST") {
        const auto b = c.json();
        FaultInjector::Fault f;
        f.method = str(b.value("method").toString("*"));
        f.path = str(b.value("path").toString());
        if (f.path.empty() || f.path[0] != '/')
            fail(400, "bad_request", "path must start with /.");
        f.count = b.value("count").toInt(1);
        f.status = b.value("status").toInt(0);
        f.retryAfter = b.value("retryAfter").toInt(-1);
        f.dropAfterBytes = b.value("dropAfterBytes").toInteger(-1);
        f.stallSeconds = b.value("stallSeconds").toDouble(0);
        f.trickleMs = b.value("trickleMs").toInt(0);
        if (f.count < 1)
            fail(400, "bad_request", "count must be at least 1.");
        if (f.status == 0 && f.dropAfterBytes < 0 && f.stallSeconds <= 0 && f.trickleMs <= 0)
            fail(400, "bad_request",
                 "Give at least one of status, dropAfterBytes, stallSeconds, trickleMs.");
        if (f.status != 0 && (f.status < 400 || f.status > 599))
            fail(400, "bad_request", "status must be 400 to 599.");
        m_faults.add(f);
    }
    QJsonArray list;
    for (const auto &f : m_faults.list())
        list.append(QJsonObject{{"method", qs(f.method)},
                                {"path", qs(f.path)},
                                {"count", f.count},
                                {"status", f.status},
                                {"retryAfter", f.retryAfter},
                                {"dropAfterBytes", static_cast<qint64>(f.dropAfterBytes)},
                                {"stallSeconds", f.stallSeconds},
                                {"trickleMs", f.trickleMs}});
    sendJson(c.res, {{"faults", list}});
}

void HttpService::testDevice(Context &c, bool approve)
{
    const auto b = c.json();
    decideDevice(str(b.value("userCode").toString()),
                 str(b.value("email").toString("tester@example.com")), approve);
    sendJson(c.res, {{"ok", true}});
}

void HttpService::testLog(Context &c)
{
    if (c.req.method == "DELETE") {
        m_log.clear();
        sendJson(c.res, {{"ok", true}});
        return;
    }
    QJsonArray list;
    for (const auto &e : m_log.entries()) {
        QJsonObject o{{"at", static_cast<double>(e.at)},
                      {"startedAt", static_cast<double>(e.startedAt)},
                      {"method", qs(e.method)},
                      {"path", qs(e.path)},
                      {"status", e.status},
                      {"bytesIn", static_cast<qint64>(e.bytesIn)},
                      {"bytesOut", static_cast<qint64>(e.bytesOut)},
                      {"authorization", e.authorization},
                      {"ownerToken", e.ownerToken},
                      {"unlockToken", e.unlockToken}};
        if (!e.range.empty())
            o.insert("range", qs(e.range));
        list.append(o);
    }
    sendJson(c.res, {{"requests", list}});
}

void HttpService::testClock(Context &c)
{
    const auto b = c.json();
    m_clockOffsetMs += static_cast<int64_t>(b.value("advanceSeconds").toDouble(0) * 1000);
    sendJson(c.res, {{"now", static_cast<double>(now())}});
}

void HttpService::testSweep(Context &c)
{
    sweep();
    sendJson(c.res, {{"ok", true}});
}

// ---- expiry sweep ----------------------------------------------------------

void HttpService::sweep()
{
    const int64_t t = now();
    // Expired transfers lose their bytes at once but keep a row for a week,
    // so links answer "expired" rather than "not found".
    for (const auto &row : m_store->query(
             "SELECT id, state FROM transfers WHERE expires_at <= ? AND state != 'expired'", {t})) {
        const std::string id = Store::text(row[0]);
        if (Store::text(row[1]) == "uploading") {
            m_store->transaction([&] {
                m_store->exec("DELETE FROM parts WHERE transfer_id = ?", {id});
                m_store->exec("DELETE FROM transfers WHERE id = ?", {id});
            });
        } else {
            m_store->transaction([&] {
                m_store->exec("DELETE FROM parts WHERE transfer_id = ?", {id});
                m_store->exec("DELETE FROM unlock_tokens WHERE transfer_id = ?", {id});
                m_store->exec("UPDATE transfers SET state = 'expired' WHERE id = ?", {id});
            });
        }
        deleteTransferFiles(id);
    }
    m_store->exec("DELETE FROM transfers WHERE state = 'expired' AND expires_at < ?",
                  {t - kKeepExpiredMs});
    // Left-over temporary files of parts whose upload was cut.
    std::error_code ec;
    for (const auto &dir : fs::directory_iterator(fs::path(m_options.dataDir) / "transfers", ec)) {
        if (!transferRow(dir.path().filename().string())) {
            fs::remove_all(dir.path(), ec);
            continue;
        }
        for (const auto &f : fs::directory_iterator(dir.path(), ec)) {
            const auto name = f.path().filename().string();
            if (name.find(".tmp-") == std::string::npos)
                continue;
            const auto age = fs::file_time_type::clock::now() - fs::last_write_time(f.path(), ec);
            if (age > std::chrono::hours(1))
                fs::remove(f.path(), ec);
        }
    }
}

void HttpService::sweepLoop()
{
    std::unique_lock lock(m_sweepMutex);
    while (!m_stopping) {
        m_sweepWake.wait_for(lock, std::chrono::seconds(m_options.sweepSeconds));
        if (m_stopping)
            break;
        lock.unlock();
        try {
            sweep();
        } catch (const std::exception &e) {
            std::fprintf(stderr, "sweep failed: %s\n", e.what());
        }
        lock.lock();
    }
}

} // namespace lofthaven::service
