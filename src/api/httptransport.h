#pragma once

#include "api/httprequest.h"

#include <QCoroTask>
#include <memory>
#include <stop_token>

namespace lofthaven {

// The one transfer thread. It owns a libcurl multi handle (at most 8 connections per host,
// no cache, the fixed User-Agent) and runs every HTTP request of the process; bulk bytes
// stay on that thread (read/write callbacks). Started on first use, stopped at exit.
//
// send() resolves on the caller's thread. It throws TransportError (with curl's description,
// worded for a person, and whether a retry may help), AppError (a streamed file body became
// shorter), or Cancelled when `stop` is requested; cancelling removes the easy handle at once.
class HttpTransport
{
public:
    static HttpTransport &instance();
    QCoro::Task<HttpResponse> send(HttpRequest request, std::stop_token stop = {});
    // Adds a CA bundle that is trusted in addition to the system's (tests with their own CA).
    void setExtraCaFile(const QString &path);
    // Stops the thread; requests still running resolve with Cancelled. The next send() starts
    // it again. Also runs when the QCoreApplication is destroyed.
    void shutdown();

    HttpTransport(const HttpTransport &) = delete;
    HttpTransport &operator=(const HttpTransport &) = delete;

private:
    HttpTransport();
    ~HttpTransport();
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace lofthaven
