#include "guardedserver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace lofthaven::service {

namespace {

using Clock = std::chrono::steady_clock;

thread_local GuardedServer::Trip t_trip = GuardedServer::Trip::None;
thread_local bool t_closeAfter = false;

// Waits up to ms for events on sock; true when they came.
bool waitFor(int sock, short events, int64_t ms)
{
    pollfd p{sock, events, 0};
    for (;;) {
        const int n = ::poll(&p, 1, static_cast<int>(std::max<int64_t>(0, ms)));
        if (n < 0 && errno == EINTR)
            continue;
        return n > 0;
    }
}

void address(int sock, bool peer, std::string &ip, int &port)
{
    sockaddr_storage a{};
    socklen_t len = sizeof a;
    const int rc = peer ? ::getpeername(sock, reinterpret_cast<sockaddr *>(&a), &len)
                        : ::getsockname(sock, reinterpret_cast<sockaddr *>(&a), &len);
    if (rc != 0)
        return;
    char host[NI_MAXHOST] = {};
    char service[NI_MAXSERV] = {};
    if (::getnameinfo(reinterpret_cast<sockaddr *>(&a), len, host, sizeof host, service,
                      sizeof service, NI_NUMERICHOST | NI_NUMERICSERV) == 0) {
        ip = host;
        port = std::atoi(service);
    }
}

// One request's view of the socket: until the headers are in, reads stop at the
// deadline and at the byte budget; after that, the library's per-read timeout.
class GuardedStream : public httplib::Stream
{
public:
    GuardedStream(int sock, Clock::time_point deadline, size_t budget, int64_t readMs,
                  int64_t writeMs)
        : m_sock(sock)
        , m_deadline(deadline)
        , m_budget(budget)
        , m_readMs(readMs)
        , m_writeMs(writeMs)
    {}

    void headersDone() { m_inHeaders = false; }

    bool is_readable() const override
    {
        if (m_begin < m_end)
            return true;
        int64_t ms = m_readMs;
        if (m_inHeaders) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(m_deadline - Clock::now());
            ms = std::min<int64_t>(ms, left.count());
            if (ms <= 0)
                return false;
        }
        return waitFor(m_sock, POLLIN, ms);
    }

    bool is_writable() const override { return waitFor(m_sock, POLLOUT, m_writeMs); }

    ssize_t read(char *ptr, size_t size) override
    {
        if (m_inHeaders && m_headerBytes + size > m_budget) {
            t_trip = GuardedServer::Trip::HeadersTooLarge;
            return -1;
        }
        if (m_begin == m_end) {
            if (!is_readable()) {
                if (m_inHeaders)
                    t_trip = GuardedServer::Trip::HeadersTooSlow;
                return -1;
            }
            // Small reads (the line reader asks for one byte) go through a buffer.
            if (size >= sizeof m_buffer)
                return recvSome(ptr, size);
            const ssize_t n = recvSome(m_buffer, sizeof m_buffer);
            if (n <= 0)
                return n;
            m_begin = 0;
            m_end = static_cast<size_t>(n);
        }
        const size_t n = std::min(size, m_end - m_begin);
        std::copy_n(m_buffer + m_begin, n, ptr);
        m_begin += n;
        if (m_inHeaders)
            m_headerBytes += n;
        return static_cast<ssize_t>(n);
    }

    ssize_t write(const char *ptr, size_t size) override
    {
        if (!is_writable())
            return -1;
        for (;;) {
            const ssize_t n = ::send(m_sock, ptr, size, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR)
                continue;
            return n;
        }
    }

    void get_remote_ip_and_port(std::string &ip, int &port) const override
    {
        address(m_sock, true, ip, port);
    }
    void get_local_ip_and_port(std::string &ip, int &port) const override
    {
        address(m_sock, false, ip, port);
    }
    socket_t socket() const override { return m_sock; }

    // Bytes read ahead that belong to the next request on this connection.
    bool hasBuffered() const { return m_begin < m_end; }

private:
    ssize_t recvSome(char *ptr, size_t size)
    {
        for (;;) {
            const ssize_t n = ::recv(m_sock, ptr, size, 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n > 0 && m_inHeaders && ptr != m_buffer)
                m_headerBytes += static_cast<size_t>(n);
            return n;
        }
    }

    int m_sock;
    Clock::time_point m_deadline;
    size_t m_budget;
    int64_t m_readMs;
    int64_t m_writeMs;
    bool m_inHeaders = true;
    size_t m_headerBytes = 0;
    char m_buffer[4096];
    size_t m_begin = 0;
    size_t m_end = 0;
};

// Half-closes, then reads what the client still sends for a moment, so the
// answer is not destroyed by a reset when unread bytes are left behind.
void lingeringClose(int sock)
{
    ::shutdown(sock, SHUT_WR);
    const auto until = Clock::now() + std::chrono::seconds(1);
    char sink[16384];
    size_t drained = 0;
    while (drained < (1u << 20)) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
        if (left <= 0 || !waitFor(sock, POLLIN, left))
            break;
        const ssize_t n = ::recv(sock, sink, sizeof sink, 0);
        if (n <= 0)
            break;
        drained += static_cast<size_t>(n);
    }
}

} // namespace

GuardedServer::GuardedServer(std::chrono::milliseconds headerTimeout, size_t maxHeaderBytes)
    : m_headerTimeout(headerTimeout)
    , m_maxHeaderBytes(maxHeaderBytes)
{}

GuardedServer::Trip GuardedServer::trip()
{
    return t_trip;
}

void GuardedServer::closeAfterAnswer()
{
    t_closeAfter = true;
}

bool GuardedServer::waitForRequest(socket_t sock) const
{
    // In short slices, so a stopping server is noticed.
    const auto until = Clock::now() + std::chrono::seconds(keep_alive_timeout_sec_);
    while (svr_sock_ != INVALID_SOCKET) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
        if (left <= 0)
            return false;
        pollfd p{sock, POLLIN, 0};
        const int n = ::poll(&p, 1, static_cast<int>(std::min<int64_t>(left, 100)));
        if (n > 0)
            return true;
        if (n < 0 && errno != EINTR)
            return false;
    }
    return false;
}

bool GuardedServer::process_and_close_socket(socket_t sock)
{
    bool ok = false;
    bool linger = false;
    const int64_t readMs = read_timeout_sec_ * 1000 + read_timeout_usec_ / 1000;
    const int64_t writeMs = write_timeout_sec_ * 1000 + write_timeout_usec_ / 1000;
    for (size_t left = keep_alive_max_count_; left > 0 && waitForRequest(sock); --left) {
        t_trip = Trip::None;
        t_closeAfter = false;
        GuardedStream stream(sock, Clock::now() + m_headerTimeout, m_maxHeaderBytes, readMs,
                             writeMs);
        bool closed = false;
        ok = process_request(stream, left == 1, closed,
                             [&stream](httplib::Request &) { stream.headersDone(); });
        // Read-ahead bytes would be lost between two streams; such a client
        // pipelines, and starts again on a new connection.
        if (!ok || closed || t_trip != Trip::None || t_closeAfter || stream.hasBuffered()) {
            linger = t_trip != Trip::None || t_closeAfter;
            break;
        }
    }
    if (linger)
        lingeringClose(sock);
    ::shutdown(sock, SHUT_RDWR);
    ::close(sock);
    return ok;
}

} // namespace lofthaven::service
