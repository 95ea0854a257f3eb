#pragma once

#include "api/apiclient.h"
#include "platform/progresscounter.h"

#include <QCoroTask>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>

namespace lofthaven {

struct DownloadRetry
{
    static constexpr int kMaxRetries = 8;
    // Waits between attempts; tests replace it to record the schedule without sleeping.
    std::function<QCoro::Task<bool>(std::chrono::milliseconds, std::stop_token)> sleeper;
};

// Fetches transfer `id` into `partial`, resuming from what the file already holds with a
// Range request, and retrying what may heal after 2, 4, 8, 16, 30, 30, 30 and 30 seconds.
// Returns when the partial file holds the whole transfer. `counter` follows the bytes on disk.
// A 416 answer restarts from byte 0 at once (a second one in a row counts as a failed
// attempt); any other status below 500 except 408 and 429 fails at once.
QCoro::Task<void> downloadToPartial(APIClient client, QString id, std::optional<QString> token,
                                    qint64 expectedSize, bool skipSizeChecks, QString partial,
                                    std::shared_ptr<ProgressCounter> counter,
                                    std::stop_token stop = {}, DownloadRetry retry = {});

// The partial file of a transfer: <tempFolder>/downloads/<id>.part
QString partialPathFor(const QString &tempFolder, const QString &id);

} // namespace lofthaven
