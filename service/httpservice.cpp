#include "httpservice.h"

#include "guardedserver.h"

#include <chrono>
#include <stdexcept>

namespace lofthaven::service {

namespace {

constexpr size_t kMaxHeaderBytes = 64 * 1024;

} // namespace

std::unique_ptr<httplib::Server> HttpService::makeServer(const ServiceOptions &options)
{
    std::unique_ptr<httplib::Server> server;
    if (!options.tlsCert.empty()) {
        server =
            std::make_unique<httplib::SSLServer>(options.tlsCert.c_str(), options.tlsKey.c_str());
        if (!server->is_valid())
            throw std::runtime_error("cannot load the TLS certificate or key");
    } else {
        server = std::make_unique<GuardedServer>(
            std::chrono::milliseconds(static_cast<int64_t>(options.headerTimeout * 1000)),
            kMaxHeaderBytes);
    }
    const int threads = options.threads;
    server->new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    // Parts are at most 64 MiB; JSON bodies are capped separately at 1 MiB.
    server->set_payload_max_length(static_cast<size_t>(options.maxPartSize) + 4096);
    server->set_read_timeout(60, 0);
    server->set_write_timeout(60, 0);
    server->set_keep_alive_timeout(5);
    server->set_keep_alive_max_count(1000);
    server->set_tcp_nodelay(true);
    return server;
}

HttpService::HttpService(ServiceOptions options)
    : m_context(std::move(options))
    , m_server(makeServer(m_context.options()))
    , m_router(m_context, *m_server)
    , m_sweeper(m_context)
    , m_accounts(m_context)
    , m_devices(m_context)
    , m_transfers(m_context)
    , m_parts(m_context)
    , m_downloads(m_context)
    , m_pages(m_context)
{
    m_accounts.addTo(m_router);
    m_devices.addTo(m_router);
    m_transfers.addTo(m_router);
    m_parts.addTo(m_router);
    m_downloads.addTo(m_router);
    m_pages.addTo(m_router);
    if (m_context.options().testHooks) {
        m_testHooks.emplace(m_context, m_devices, m_sweeper);
        m_testHooks->addTo(m_router);
    }
}

HttpService::~HttpService()
{
    stop();
}

std::string HttpService::bind()
{
    const auto &options = m_context.options();
    int port = options.port;
    if (port == 0)
        port = m_server->bind_to_any_port(options.host);
    else if (!m_server->bind_to_port(options.host, port))
        port = -1;
    if (port <= 0)
        throw std::runtime_error("cannot listen on " + options.host + ":" +
                                 std::to_string(options.port));
    const bool v6 = options.host.find(':') != std::string::npos;
    const std::string host = v6 ? "[" + options.host + "]" : options.host;
    const std::string origin =
        (options.tlsCert.empty() ? "http://" : "https://") + host + ":" + std::to_string(port);
    m_context.setPublicOrigin(options.publicOrigin.empty() ? origin : options.publicOrigin);
    return origin;
}

bool HttpService::run()
{
    m_sweeper.sweep();
    m_sweeper.start();
    return m_server->listen_after_bind();
}

void HttpService::stop()
{
    m_sweeper.stop();
    if (m_server)
        m_server->stop();
}

} // namespace lofthaven::service
