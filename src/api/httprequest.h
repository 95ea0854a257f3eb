#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QUrl>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace lofthaven {

using HttpHeaders = QList<QPair<QByteArray, QByteArray>>;

// Receives a response body on the transfer thread (downloads stream to disk through it).
class ResponseSink
{
public:
    virtual ~ResponseSink() = default;
    // Called once the status and headers are in. Return true to take the body; false to let
    // the transport capture it as an error body (capped at HttpRequest::maxCapturedBody).
    virtual bool begin(int status, const HttpHeaders &headers) = 0;
    // Return false to abort the request; the sink then reports its own error to its owner.
    virtual bool write(const char *data, qint64 size) = 0;
    // Called exactly once when the request ends, before its future resolves.
    virtual void finish() = 0;
};

// A request body streamed from disk in the read callback: `length` bytes of `path` from
// `offset`. A file that has become shorter fails the request with an AppError
// "<file name> changed while sending.".
struct FileBody
{
    QString path;
    qint64 offset = 0;
    qint64 length = 0;
};

struct HttpRequest
{
    QByteArray method = "GET";
    QUrl url;
    HttpHeaders headers;
    QByteArray body;                  // in-memory body (JSON)
    std::optional<FileBody> fileBody; // streamed body (part uploads)

    // A transfer slower than lowSpeedLimit bytes/s for idleTimeout is cut (curl's low-speed
    // rule) and fails as a retryable time-out. The floor of 1 KiB/s over a minute is far below
    // any link people use, yet a server trickling a few bytes a second cannot hold a request.
    std::chrono::seconds idleTimeout{60};
    long lowSpeedLimit = 1024;
    std::chrono::seconds connectTimeout{30};
    std::chrono::seconds totalTimeout{86400};
    // Redirects are never followed for requests carrying Authorization or X-Owner-Token.
    bool followRedirects = false;
    // A captured body larger than this fails the request (no memory blow-up).
    qint64 maxCapturedBody = 1 << 20;
    // Keep the first maxCapturedBody bytes and end the request there instead of failing (error
    // answers, where the status matters more than the whole text).
    bool truncateCapturedBody = false;

    std::shared_ptr<ResponseSink> sink;                // optional: stream the body instead
    std::function<void(qint64 sent)> onUploadProgress; // transfer thread
};

struct HttpResponse
{
    int status = 0;
    HttpHeaders headers;
    QByteArray body; // captured body (empty when a sink took it)
    // The sink's write() returned false and the request was stopped: the sink holds the reason.
    bool sinkAborted = false;
    QByteArray header(const QByteArray &name) const; // case-insensitive, first match
};

} // namespace lofthaven
