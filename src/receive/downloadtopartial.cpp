#include "receive/downloadtopartial.h"

#include "api/apierror.h"
#include "api/apperror.h"
#include "api/cancelled.h"
#include "api/httptransport.h"
#include "api/transferid.h"
#include "api/transporterror.h"
#include "platform/stoppablesleep.h"
#include "receive/filesink.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace lofthaven {

namespace {

qint64 fileLength(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() ? info.size() : 0;
}

enum class Verdict
{
    Retry,
    GiveUp
};

Verdict judge(const std::exception_ptr &error)
{
    try {
        std::rethrow_exception(error);
    } catch (const Cancelled &) {
        return Verdict::GiveUp;
    } catch (const APIError &apiError) {
        // Redirects are not followed here, so a 3xx fails like any other refusal.
        const int status = apiError.status();
        if (status < 500 && status != 408 && status != 429)
            return Verdict::GiveUp;
        return Verdict::Retry;
    } catch (...) {
        return Verdict::Retry;
    }
}

} // namespace

QString partialPathFor(const QString &tempFolder, const QString &id)
{
    return tempFolder + QStringLiteral("/downloads/") + checkedTransferId(id) +
           QStringLiteral(".part");
}

QCoro::Task<void> downloadToPartial(APIClient client, QString id, std::optional<QString> token,
                                    qint64 expectedSize, bool skipSizeChecks, QString partial,
                                    std::shared_ptr<ProgressCounter> counter, std::stop_token stop,
                                    DownloadRetry retry)
{
    if (!retry.sleeper)
        retry.sleeper = &stoppableSleep;
    if (!QDir().mkpath(QFileInfo(partial).absolutePath()))
        throw AppError(QStringLiteral("Couldn't create the folder for partial downloads."));
    const QString path = client.downloadPath(id, token);

    // 416 means the partial file no longer fits the transfer: start again from zero, once per
    // attempt. A second 416 in a row is a server that cannot serve ranges and must not spin.
    bool restartedAfter416 = false;
    for (int attempt = 0;;) {
        if (stop.stop_requested())
            throw Cancelled();
        std::exception_ptr error;
        try {
            const qint64 length = fileLength(partial);
            if (!skipSizeChecks) {
                if (length >= 1 && length == expectedSize) {
                    counter->setDone(length);
                    co_return;
                }
                // Deliberately keeps asking from the old length: the service answers 416
                // and the download restarts from zero below.
                if (length > expectedSize)
                    QFile::remove(partial);
            }
            counter->setDone(length);

            HttpRequest request = client.makeRequest(path, "GET", {});
            if (length >= 1)
                request.headers.append({"Range", "bytes=" + QByteArray::number(length) + '-'});
            request.idleTimeout = std::chrono::seconds(60);
            request.totalTimeout = std::chrono::hours(48);
            auto sink =
                std::make_shared<FileSink>(partial, length, skipSizeChecks ? -1 : expectedSize,
                                           [counter](qint64 total) { counter->setDone(total); });
            request.sink = sink;

            HttpResponse response;
            try {
                auto fetching = HttpTransport::instance().send(std::move(request), stop);
                response = co_await fetching;
            } catch (...) {
                if (sink->error() && !stop.stop_requested())
                    std::rethrow_exception(sink->error());
                throw;
            }
            if (sink->error())
                std::rethrow_exception(sink->error());

            const int status = response.status;
            if (status == 200 || status == 206) {
                if (!skipSizeChecks && fileLength(partial) < expectedSize)
                    throw TransportError(QStringLiteral("The network connection was lost."), true);
                co_return;
            }
            if (status == 416) {
                QFile::remove(partial);
                if (!restartedAfter416) {
                    restartedAfter416 = true;
                    continue; // a fresh start: no pause, not an attempt
                }
                throw TransportError(
                    QStringLiteral("The service could not send the requested part of the file."),
                    true);
            }
            throw APIError::fromResponse(status, sink->errorBody());
        } catch (...) {
            error = std::current_exception();
        }
        restartedAfter416 = false;
        if (stop.stop_requested())
            throw Cancelled();
        if (judge(error) == Verdict::GiveUp || attempt == DownloadRetry::kMaxRetries)
            std::rethrow_exception(error);
        const auto pause = std::chrono::seconds(std::min(2 << attempt, 30));
        auto waiting = retry.sleeper(pause, stop);
        if (!co_await waiting)
            throw Cancelled();
        ++attempt;
    }
}

} // namespace lofthaven
