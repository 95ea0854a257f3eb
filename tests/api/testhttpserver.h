#pragma once

// A real HTTP/1.1 server on a free loopback port (cpp-httplib on its own threads). Every
// request is recorded; the handler decides the answer.

#include "api/httptransport.h"

#include <httplib.h>

#include <QString>

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

// A handler that gives every request the same answer.
inline std::function<void(const httplib::Request &, httplib::Response &)>
reply(std::string body, int status = 200, std::string type = "application/json")
{
    return [=](const httplib::Request &, httplib::Response &response) {
        response.status = status;
        response.set_content(body, type);
    };
}

class TestHttpServer
{
public:
    struct Seen
    {
        std::string method;
        std::string path;
        std::string target;
        httplib::Headers headers;
        std::string body;
        int remotePort = 0;
        bool has(const char *name) const { return headers.count(name) > 0; }
        std::string header(const char *name) const
        {
            const auto found = headers.find(name);
            return found == headers.end() ? std::string() : found->second;
        }
    };
    using Handler = std::function<void(const httplib::Request &, httplib::Response &)>;

    explicit TestHttpServer(Handler handler)
        : m_handler(std::move(handler))
    {
        m_server.new_task_queue = [] { return new httplib::ThreadPool(32); };
        const auto route = [this](const httplib::Request &request, httplib::Response &response) {
            {
                std::lock_guard lock(m_mutex);
                m_seen.push_back({request.method, request.path, request.target, request.headers,
                                  request.body, request.remote_port});
            }
            m_handler(request, response);
        };
        m_server.Get(".*", route);
        m_server.Post(".*", route);
        m_server.Put(".*", route);
        m_server.Delete(".*", route);
        m_port = m_server.bind_to_any_port("127.0.0.1");
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        while (!m_server.is_running())
            std::this_thread::yield();
    }
    ~TestHttpServer() { stop(); }

    void stop()
    {
        stopping = true;
        if (m_thread.joinable()) {
            // Close the client's idle keep-alive connections, or every server thread would sit
            // out its keep-alive wait before stop() returns.
            lofthaven::HttpTransport::instance().shutdown();
            m_server.stop();
            m_thread.join();
        }
    }

    int port() const { return m_port; }
    QString origin() const { return QStringLiteral("http://127.0.0.1:%1").arg(m_port); }
    std::vector<Seen> seen() const
    {
        std::lock_guard lock(m_mutex);
        return m_seen;
    }
    // Distinct client ports = distinct TCP connections that carried a request.
    size_t connectionCount() const
    {
        std::lock_guard lock(m_mutex);
        std::set<int> ports;
        for (const auto &seen : m_seen)
            ports.insert(seen.remotePort);
        return ports.size();
    }

    // Handlers that wait poll this so the server can always stop.
    std::atomic<bool> stopping{false};

private:
    Handler m_handler;
    httplib::Server m_server;
    mutable std::mutex m_mutex;
    std::vector<Seen> m_seen;
    int m_port = 0;
    std::thread m_thread;
};
