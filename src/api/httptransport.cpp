#include "api/httptransport.h"

#include "api/apperror.h"
#include "api/cancelled.h"
#include "api/transporterror.h"
#include "platform/bytecount.h"

#include <QCoreApplication>
#include <QCoroFuture>
#include <QFile>
#include <QFileInfo>
#include <QFuture>
#include <QPromise>

#include <curl/curl.h>

#include <algorithm>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

// One thread drives every request through a curl multi handle:
//
//   main thread: send() -> submit(job) --queue+wakeup--> transfer thread: start(job) -> easy handle
//   stop_token -> cancel(job) --queue+wakeup--> remove handle, resolve Cancelled
//   transfer thread: done -> resolve(job) -> QPromise -> awaiting coroutine resumes on its thread
//
// Everything touching curl handles happens on the transfer thread only.

namespace lofthaven {

QByteArray HttpResponse::header(const QByteArray &name) const
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

namespace {

constexpr const char *kUserAgent = "Lofthaven-Desktop/1.0 (macOS)";
// Bulk transfers (part uploads, downloads) and small requests have separate limits, so a
// lookup never waits behind eight downloads: at most kMaxBulk bulk requests run at once, and
// the host may have kMaxSmall more connections for everything else.
constexpr int kMaxBulk = 8;
constexpr long kMaxSmall = 6;
constexpr long kMaxHostConnections = kMaxBulk + kMaxSmall;
constexpr long kReceiveBufferSize = 256 * 1024;
constexpr long kUploadBufferSize = 512 * 1024;
constexpr int kPollMilliseconds = 1000;
constexpr qint64 kMaxErrorBody = 64 * 1024;

struct Job
{
    HttpRequest request;
    QPromise<HttpResponse> promise;
    HttpResponse response;
    CURL *easy = nullptr;
    curl_slist *headerList = nullptr;
    QFile file;
    qint64 fileRemaining = 0;
    std::exception_ptr error; // a local failure found in a callback; wins over curl's code
    bool bulk = false;        // counted against kMaxBulk while its handle is active
    bool truncated = false;   // the captured body reached its cap and the rest was not read
    bool sinkBegun = false;
    bool sinkTaking = false;
    bool finished = false;
    qint64 lastReportedSent = -1;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    QString fileName() const { return QFileInfo(request.fileBody->path).fileName(); }
};

bool isLoopbackHost(const QString &host)
{
    if (host.compare(u"localhost", Qt::CaseInsensitive) == 0 || host == u"::1")
        return true;
    const QStringList octets = host.split(u'.');
    if (octets.size() != 4 || octets.first() != u"127")
        return false;
    for (const QString &octet : octets) {
        bool ok = false;
        const int value = octet.toInt(&ok);
        if (!ok || value < 0 || value > 255)
            return false;
    }
    return true;
}

bool carriesSecret(const HttpHeaders &headers)
{
    for (const auto &header : headers) {
        if (header.first.compare("Authorization", Qt::CaseInsensitive) == 0 ||
            header.first.compare("X-Owner-Token", Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

bool hasHeader(const HttpHeaders &headers, const char *name)
{
    for (const auto &header : headers) {
        if (header.first.compare(name, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

TransportError transportError(CURLcode code, const QString &host)
{
    switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
        return TransportError(
            QStringLiteral("Couldn't find the server %1. Check your internet connection.")
                .arg(host),
            true, code);
    case CURLE_COULDNT_CONNECT:
        return TransportError(
            QStringLiteral("Couldn't connect to the server %1. Check your internet connection.")
                .arg(host),
            true, code);
    case CURLE_OPERATION_TIMEDOUT:
        return TransportError(QStringLiteral("The request timed out."), true, code);
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_SEND_FAIL_REWIND:
        return TransportError(QStringLiteral("The network connection was lost."), true, code);
    case CURLE_SSL_CONNECT_ERROR:
        return TransportError(
            QStringLiteral("A secure connection to the server %1 could not be made.").arg(host),
            true, code);
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        return TransportError(
            QStringLiteral("The certificate of the server %1 is not valid, so the connection "
                           "was refused.")
                .arg(host),
            false, code);
    case CURLE_TOO_MANY_REDIRECTS:
        return TransportError(QStringLiteral("The server redirected too many times."), false, code);
    case CURLE_WEIRD_SERVER_REPLY:
        return TransportError(QStringLiteral("The server sent an answer that could not be read."),
                              false, code);
    default:
        return TransportError(QStringLiteral("The network request failed (%1).")
                                  .arg(QString::fromUtf8(curl_easy_strerror(code))),
                              false, code);
    }
}

size_t onHeader(char *data, size_t size, size_t count, void *user)
{
    auto *job = static_cast<Job *>(user);
    const size_t length = size * count;
    const QByteArray line = QByteArray(data, qsizetype(length)).trimmed();
    if (line.startsWith("HTTP/")) {
        // A new status block (after a followed redirect): forget the previous one.
        job->response.headers.clear();
        job->response.body.clear();
    } else if (line.isEmpty()) {
        long status = 0;
        curl_easy_getinfo(job->easy, CURLINFO_RESPONSE_CODE, &status);
        const bool followed = job->request.followRedirects && status >= 300 && status < 400;
        if (status >= 200 && !followed) {
            job->response.status = int(status);
            if (job->request.sink && !job->sinkBegun) {
                job->sinkBegun = true;
                job->sinkTaking = job->request.sink->begin(int(status), job->response.headers);
            }
        }
    } else if (const qsizetype colon = line.indexOf(':'); colon > 0) {
        job->response.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
    }
    return length;
}

size_t onWrite(char *data, size_t size, size_t count, void *user)
{
    auto *job = static_cast<Job *>(user);
    const size_t length = size * count;
    if (job->sinkTaking) {
        if (!job->request.sink->write(data, qint64(length))) {
            job->response.sinkAborted = true;
            return CURL_WRITEFUNC_ERROR;
        }
        return length;
    }
    // An error answer is only read for its message: its first 64 KiB are enough.
    const int status = job->response.status;
    const bool errorAnswer = status < 200 || status > 299;
    const qint64 cap = errorAnswer ? std::min(job->request.maxCapturedBody, kMaxErrorBody)
                                   : job->request.maxCapturedBody;
    const qint64 room = cap - job->response.body.size();
    if (qint64(length) > room) {
        if (errorAnswer || job->request.truncateCapturedBody) {
            if (room > 0)
                job->response.body.append(data, room);
            job->truncated = true;
            return CURL_WRITEFUNC_ERROR;
        }
        job->error = std::make_exception_ptr(
            TransportError(QStringLiteral("The server's answer was larger than expected (over %1).")
                               .arg(formatByteCount(job->request.maxCapturedBody)),
                           false));
        return CURL_WRITEFUNC_ERROR;
    }
    job->response.body.append(data, qsizetype(length));
    return length;
}

size_t onRead(char *buffer, size_t size, size_t count, void *user)
{
    auto *job = static_cast<Job *>(user);
    const qint64 wanted = std::min<qint64>(qint64(size * count), job->fileRemaining);
    if (wanted <= 0)
        return 0;
    const qint64 got = job->file.read(buffer, wanted);
    if (got <= 0) {
        job->error =
            std::make_exception_ptr(AppError(job->fileName() + u" changed while sending."));
        return CURL_READFUNC_ABORT;
    }
    job->fileRemaining -= got;
    return size_t(got);
}

// curl rewinds when it re-sends on a fresh connection after a stale keep-alive one.
int onSeek(void *user, curl_off_t offset, int origin)
{
    auto *job = static_cast<Job *>(user);
    if (origin != SEEK_SET || offset < 0 || offset > job->request.fileBody->length)
        return CURL_SEEKFUNC_CANTSEEK;
    if (!job->file.seek(job->request.fileBody->offset + offset))
        return CURL_SEEKFUNC_FAIL;
    job->fileRemaining = job->request.fileBody->length - offset;
    return CURL_SEEKFUNC_OK;
}

int onProgress(void *user, curl_off_t, curl_off_t, curl_off_t, curl_off_t uploaded)
{
    auto *job = static_cast<Job *>(user);
    if (job->request.onUploadProgress && uploaded != job->lastReportedSent) {
        job->lastReportedSent = uploaded;
        job->request.onUploadProgress(qint64(uploaded));
    }
    return 0;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

} // namespace

struct HttpTransport::Private
{
    std::mutex mutex;
    // Guarded by mutex.
    std::deque<std::shared_ptr<Job>> incoming;
    std::vector<std::shared_ptr<Job>> cancelling;
    QByteArray caBundle;
    bool stopping = false;
    bool running = false;
    CURLM *multi = nullptr;
    std::thread thread;

    // Transfer thread only.
    std::unordered_map<CURL *, std::shared_ptr<Job>> active;
    std::deque<std::shared_ptr<Job>> waitingBulk;
    int activeBulk = 0;

    void submit(const std::shared_ptr<Job> &job);
    void cancel(const std::shared_ptr<Job> &job);
    void run();
    void start(const std::shared_ptr<Job> &job, const QByteArray &caBundle);
    void complete(const std::shared_ptr<Job> &job, CURLcode code);
    void resolve(const std::shared_ptr<Job> &job, std::exception_ptr error);
};

static void shutdownAtExit()
{
    HttpTransport::instance().shutdown();
}

void HttpTransport::Private::submit(const std::shared_ptr<Job> &job)
{
    std::lock_guard lock(mutex);
    if (stopping) {
        resolve(job, std::make_exception_ptr(Cancelled()));
        return;
    }
    if (!running) {
        static std::once_flag once;
        std::call_once(once, [] {
            curl_global_init(CURL_GLOBAL_DEFAULT);
            if (QCoreApplication::instance())
                qAddPostRoutine(shutdownAtExit);
        });
        multi = curl_multi_init();
        curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxHostConnections);
        curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, 4 * kMaxHostConnections);
        running = true;
        thread = std::thread([this] { run(); });
    }
    incoming.push_back(job);
    curl_multi_wakeup(multi);
}

void HttpTransport::Private::cancel(const std::shared_ptr<Job> &job)
{
    std::lock_guard lock(mutex);
    if (!running)
        return;
    cancelling.push_back(job);
    curl_multi_wakeup(multi);
}

void HttpTransport::Private::run()
{
    for (;;) {
        std::deque<std::shared_ptr<Job>> started;
        std::vector<std::shared_ptr<Job>> cancelled;
        QByteArray bundle;
        bool stop = false;
        {
            std::lock_guard lock(mutex);
            started.swap(incoming);
            cancelled.swap(cancelling);
            bundle = caBundle;
            stop = stopping;
        }
        for (const auto &job : started) {
            if (job->request.fileBody || job->request.sink)
                waitingBulk.push_back(job);
            else
                start(job, bundle);
        }
        for (const auto &job : cancelled)
            resolve(job, std::make_exception_ptr(Cancelled()));
        while (activeBulk < kMaxBulk && !waitingBulk.empty() && !stop) {
            const std::shared_ptr<Job> job = waitingBulk.front();
            waitingBulk.pop_front();
            if (job->finished)
                continue; // cancelled while it waited
            job->bulk = true;
            ++activeBulk;
            start(job, bundle);
        }
        if (stop) {
            std::vector<std::shared_ptr<Job>> left(waitingBulk.begin(), waitingBulk.end());
            waitingBulk.clear();
            for (const auto &[easy, job] : active)
                left.push_back(job);
            for (const auto &job : left)
                resolve(job, std::make_exception_ptr(Cancelled()));
            return;
        }
        int stillRunning = 0;
        curl_multi_perform(multi, &stillRunning);
        int queued = 0;
        while (CURLMsg *message = curl_multi_info_read(multi, &queued)) {
            if (message->msg != CURLMSG_DONE)
                continue;
            const auto found = active.find(message->easy_handle);
            if (found != active.end()) {
                // A copy: resolve() erases the map entry that found->second lives in.
                const std::shared_ptr<Job> job = found->second;
                complete(job, message->data.result);
            }
        }
        curl_multi_poll(multi, nullptr, 0, kPollMilliseconds, nullptr);
    }
}

void HttpTransport::Private::start(const std::shared_ptr<Job> &job, const QByteArray &caBundle)
{
    try {
        const HttpRequest &request = job->request;
        const QString scheme = request.url.scheme().toLower();
        const QString host = request.url.host();
        if (scheme != u"https" && !(scheme == u"http" && isLoopbackHost(host)))
            throw AppError(QStringLiteral("Refusing to connect to %1 without encryption.")
                               .arg(host.isEmpty() ? request.url.toString() : host));

        CURL *easy = curl_easy_init();
        if (!easy)
            throw TransportError(QStringLiteral("The network request could not be started."),
                                 false);
        job->easy = easy;
        curl_easy_setopt(easy, CURLOPT_PRIVATE, job.get());
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, job->errorBuffer);
        curl_easy_setopt(easy, CURLOPT_URL, request.url.toEncoded().constData());
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_USERAGENT, kUserAgent);
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR,
                         scheme == u"https" ? "https" : "http,https");
        // A token must never reach another host: such requests never follow a redirect.
        const bool follow = request.followRedirects && !carriesSecret(request.headers);
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, follow ? 1L : 0L);
        curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 5L);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
        if (!caBundle.isEmpty()) {
            curl_blob blob{const_cast<char *>(caBundle.constData()), size_t(caBundle.size()),
                           CURL_BLOB_COPY};
            curl_easy_setopt(easy, CURLOPT_CAINFO_BLOB, &blob);
        }
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, long(request.connectTimeout.count()));
        curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, std::max(1L, request.lowSpeedLimit));
        curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, long(request.idleTimeout.count()));
        curl_easy_setopt(easy, CURLOPT_TIMEOUT, long(request.totalTimeout.count()));
        curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
        curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
        curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
        curl_easy_setopt(easy, CURLOPT_HEADERDATA, job.get());
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onWrite);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, job.get());

        HttpHeaders headers = request.headers;
        const QByteArray method = request.method.toUpper();
        if (request.fileBody) {
            const FileBody &body = *request.fileBody;
            job->file.setFileName(body.path);
            if (!job->file.open(QIODevice::ReadOnly))
                throw AppError(QStringLiteral("Couldn't read %1 (%2).")
                                   .arg(job->fileName(), job->file.errorString()));
            if (job->file.size() < body.offset + body.length || !job->file.seek(body.offset))
                throw AppError(job->fileName() + u" changed while sending.");
            job->fileRemaining = body.length;
            curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
            curl_easy_setopt(easy, CURLOPT_READFUNCTION, onRead);
            curl_easy_setopt(easy, CURLOPT_READDATA, job.get());
            curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, onSeek);
            curl_easy_setopt(easy, CURLOPT_SEEKDATA, job.get());
            curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, curl_off_t(body.length));
            curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferSize);
            if (method != "PUT")
                curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.constData());
        } else if (!request.body.isEmpty() || method == "POST" || method == "PUT" ||
                   method == "PATCH") {
            curl_easy_setopt(easy, CURLOPT_POST, 1L);
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.constData());
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(request.body.size()));
            if (method != "POST")
                curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.constData());
            // curl would add a form Content-Type of its own; only what the caller set goes out.
            if (!hasHeader(headers, "Content-Type"))
                headers.append({"Content-Type", QByteArray()});
        } else if (method == "HEAD") {
            curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
        } else if (method != "GET") {
            curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.constData());
        }
        // No "Expect: 100-continue" round trip before bodies.
        headers.append({"Expect", QByteArray()});
        for (const auto &[name, value] : headers) {
            // "Name:" removes a header curl would add; "Name;" sends it empty.
            QByteArray line = name;
            if (!value.isEmpty())
                line += ": " + value;
            else
                line += (name == "Expect" || name == "Content-Type") ? ':' : ';';
            job->headerList = curl_slist_append(job->headerList, line.constData());
        }
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, job->headerList);
        if (request.onUploadProgress) {
            curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
            curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, onProgress);
            curl_easy_setopt(easy, CURLOPT_XFERINFODATA, job.get());
        }
        if (curl_multi_add_handle(multi, easy) != CURLM_OK)
            throw TransportError(QStringLiteral("The network request could not be started."),
                                 false);
        active.emplace(easy, job);
    } catch (...) {
        resolve(job, std::current_exception());
    }
}

void HttpTransport::Private::complete(const std::shared_ptr<Job> &job, CURLcode code)
{
    if (job->error) {
        resolve(job, job->error);
        return;
    }
    const bool endedOnPurpose = job->response.sinkAborted || job->truncated;
    if (code != CURLE_OK && !endedOnPurpose) {
        resolve(job, std::make_exception_ptr(transportError(code, job->request.url.host())));
        return;
    }
    long status = 0;
    curl_easy_getinfo(job->easy, CURLINFO_RESPONSE_CODE, &status);
    job->response.status = int(status);
    resolve(job, nullptr);
}

// Ends a job exactly once: releases its handle, tells the sink, then settles the promise.
void HttpTransport::Private::resolve(const std::shared_ptr<Job> &job, std::exception_ptr error)
{
    if (job->finished)
        return;
    job->finished = true;
    if (job->bulk) {
        job->bulk = false;
        --activeBulk;
    }
    if (job->easy) {
        curl_multi_remove_handle(multi, job->easy);
        active.erase(job->easy);
        curl_easy_cleanup(job->easy);
        job->easy = nullptr;
    }
    curl_slist_free_all(job->headerList);
    job->headerList = nullptr;
    job->file.close();
    if (job->request.sink)
        job->request.sink->finish();
    if (error) {
        job->response = {};
        job->promise.setException(error);
    } else {
        job->promise.addResult(std::move(job->response));
    }
    job->promise.finish();
    job->request.sink.reset();
    job->request.onUploadProgress = nullptr;
}

HttpTransport::HttpTransport()
    : d(std::make_unique<Private>())
{}

HttpTransport::~HttpTransport()
{
    shutdown();
}

HttpTransport &HttpTransport::instance()
{
    static HttpTransport transport;
    return transport;
}

QCoro::Task<HttpResponse> HttpTransport::send(HttpRequest request, std::stop_token stop)
{
    if (stop.stop_requested())
        throw Cancelled();
    auto job = std::make_shared<Job>();
    job->request = std::move(request);
    QFuture<HttpResponse> future = job->promise.future();
    job->promise.start();
    d->submit(job);
    std::stop_callback onStop(stop, [this, job] { d->cancel(job); });
    co_return co_await future;
}

void HttpTransport::setExtraCaFile(const QString &path)
{
    const curl_version_info_data *info = curl_version_info(CURLVERSION_NOW);
    QByteArray bundle;
    if (info && info->cainfo)
        bundle = readFile(QString::fromLocal8Bit(info->cainfo));
    bundle += '\n' + readFile(path);
    std::lock_guard lock(d->mutex);
    d->caBundle = bundle;
}

void HttpTransport::shutdown()
{
    std::thread thread;
    {
        std::lock_guard lock(d->mutex);
        if (!d->running)
            return;
        d->stopping = true;
        curl_multi_wakeup(d->multi);
        thread = std::move(d->thread);
    }
    thread.join();
    std::lock_guard lock(d->mutex);
    for (const auto &job : d->incoming)
        d->resolve(job, std::make_exception_ptr(Cancelled()));
    d->incoming.clear();
    d->cancelling.clear();
    curl_multi_cleanup(d->multi);
    d->multi = nullptr;
    d->running = false;
    d->stopping = false;
}

} // namespace lofthaven
