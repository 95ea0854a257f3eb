#pragma once

#include <httplib.h>

#include <chrono>

namespace lofthaven::service {

// A plain-HTTP cpp-httplib server whose connections are read under limits the
// library lacks: the request line and headers must arrive within a deadline
// and within a byte budget, and an idle keep-alive connection gives its worker
// back after a short wait. Without these, a client that sends one header line
// every few seconds holds a worker thread forever, and a client that sends a
// million header lines is read to the end.
class GuardedServer : public httplib::Server
{
public:
    enum class Trip
    {
        None,
        HeadersTooLarge,
        HeadersTooSlow
    };

    GuardedServer(std::chrono::milliseconds headerTimeout, size_t maxHeaderBytes);

    // Why the request on this thread failed to be read, for the error answer.
    static Trip trip();
    // The request on this thread cannot be followed by another on the same
    // connection (its body was not read); the connection closes after the answer.
    static void closeAfterAnswer();

private:
    bool process_and_close_socket(socket_t sock) override;
    bool waitForRequest(socket_t sock) const;

    std::chrono::milliseconds m_headerTimeout;
    size_t m_maxHeaderBytes;
};

} // namespace lofthaven::service
