#pragma once

#include "api/apiclient.h"
#include "api/wirerecords.h"
#include "platform/progresscounter.h"
#include "send/sendoptions.h"
#include "send/sendplan.h"

#include <QCoroTask>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>

namespace lofthaven {

struct PartGroup;

struct UploadResult
{
    CreatedTransfer created;
    CompletedTransfer completed;
};

// Runs one send from creation to completion:
//
//   creating ──create──▶ uploading ──all parts, totals checked──▶ finishing ──complete──▶ result
//
// Parts go up at most four at a time. While they upload, the next part is produced (for an
// archive: streamed and spilled) on the thread pool, so a folder uploads at the speed of the
// slower of the two. A failed part is retried after 1, 2, 4, 8 and 16 s (six tries) unless the
// failure cannot heal (cancellation, a local file problem, a 4xx other than 408/429). Whatever
// the outcome the spill folder is removed, and a created transfer that fails is aborted.
//
// Lives on the thread that calls run() (the main thread); phase() may be read from anywhere.
class Uploader
{
public:
    enum class Phase
    {
        Creating,
        Uploading,
        Finishing
    };
    static constexpr int kMaxPartsInFlight = 4;
    static constexpr int kMaxTries = 6;
    static constexpr int kMaxListedFiles = 500;

    // Waits between tries; tests replace it to record the schedule without sleeping.
    using Sleeper = std::function<QCoro::Task<bool>(std::chrono::milliseconds, std::stop_token)>;

    Uploader(APIClient api, SendPlan plan, SendOptions options, QString tempRoot,
             std::shared_ptr<ProgressCounter> counter);

    QCoro::Task<UploadResult> run(std::stop_token stop = {});

    Phase phase() const { return m_phase.load(); }
    std::optional<CreatedTransfer> created() const { return m_created; }
    qint64 wantedPartSize() const { return m_wantedPartSize; }
    CreateTransferBody createBody() const;

    // 16 MiB up to 144,000 MiB; above, one MiB per started 9,000 MiB, capped at 64 MiB.
    static qint64 wantedPartSizeFor(qint64 planSize);

    void setSleeper(Sleeper sleeper) { m_sleeper = std::move(sleeper); }
    // Asks the service for another part size than the rule above (tests, tuning).
    void setWantedPartSize(qint64 bytes) { m_wantedPartSize = bytes; }
    void setSource(QString source) { m_source = std::move(source); }
    void setDeviceName(QString device) { m_device = std::move(device); }

private:
    QCoro::Task<UploadResult> uploadAndComplete(std::stop_token stop);
    QCoro::Task<void> runPart(int partNumber, FileBody body, std::stop_token stop,
                              std::shared_ptr<PartGroup> group, bool spilled);
    QCoro::Task<PartETag> uploadPart(int partNumber, FileBody body, std::stop_token stop);
    QCoro::Task<void> abortCreated();
    QCoro::Task<void> removeSpillFolder();

    APIClient m_api;
    SendPlan m_plan;
    SendOptions m_options;
    QString m_tempRoot;
    QString m_spillDir;
    std::shared_ptr<ProgressCounter> m_counter;
    std::atomic<Phase> m_phase{Phase::Creating};
    std::optional<CreatedTransfer> m_created;
    qint64 m_wantedPartSize = 0;
    Sleeper m_sleeper;
    QString m_source = QStringLiteral("desktop");
    QString m_device;
};

} // namespace lofthaven
