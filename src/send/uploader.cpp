#include "send/uploader.h"

#include "api/apierror.h"
#include "api/apperror.h"
#include "api/cancelled.h"
#include "platform/devicename.h"
#include "platform/displaytext.h"
#include "platform/runinpool.h"
#include "platform/stoppablesleep.h"
#include "platform/wakeup.h"
#include "send/partproducer.h"

#include <QDir>
#include <QFile>
#include <QTimer>
#include <QUuid>

#include <algorithm>
#include <limits>
#include <vector>

namespace lofthaven {

namespace {

constexpr qint64 kMiB = 1024 * 1024;

bool mayHealOnRetry(const std::exception_ptr &error)
{
    try {
        std::rethrow_exception(error);
    } catch (const Cancelled &) {
        return false;
    } catch (const AppError &) {
        return false;
    } catch (const APIError &apiError) {
        const int status = apiError.status();
        // A redirect is not followed for a part and does not heal by itself either.
        return status >= 500 || status == 408 || status == 429;
    } catch (...) {
        return true;
    }
}

} // namespace

// The state a group of concurrent part uploads shares with the loop that feeds it.
struct PartGroup
{
    std::stop_source stop;
    Wakeup wakeup;
    int inFlight = 0;
    std::vector<PartETag> etags;
    std::exception_ptr failure;

    void fail(std::exception_ptr error)
    {
        if (!failure)
            failure = std::move(error);
        stop.request_stop();
    }
};

Uploader::Uploader(APIClient api, SendPlan plan, SendOptions options, QString tempRoot,
                   std::shared_ptr<ProgressCounter> counter)
    : m_api(std::move(api))
    , m_plan(std::move(plan))
    , m_options(std::move(options))
    , m_tempRoot(std::move(tempRoot))
    , m_counter(std::move(counter))
    , m_wantedPartSize(wantedPartSizeFor(m_plan.size))
    , m_sleeper(&stoppableSleep)
{}

qint64 Uploader::wantedPartSizeFor(qint64 planSize)
{
    if (planSize <= 144000 * kMiB)
        return 16 * kMiB;
    const qint64 step = 9000 * kMiB;
    return std::min((planSize + step - 1) / step * kMiB, 64 * kMiB);
}

CreateTransferBody Uploader::createBody() const
{
    CreateTransferBody body;
    body.name = m_plan.name;
    body.size = m_plan.size;
    body.mime = m_plan.mime.value_or(QStringLiteral("application/octet-stream"));
    const qsizetype listed = std::min<qsizetype>(m_plan.items.size(), kMaxListedFiles);
    for (qsizetype i = 0; i < listed; ++i)
        body.files.append(FileEntry{m_plan.items.at(i).name, m_plan.items.at(i).size});
    if (!m_options.title.isEmpty())
        body.title = firstGraphemes(m_options.title, 120);
    if (!m_options.message.isEmpty())
        body.message = firstGraphemes(m_options.message, 1000);
    body.expiresIn = m_options.expiresIn;
    if (m_options.maxDownloads < 0 || m_options.maxDownloads > std::numeric_limits<qint32>::max())
        throw AppError(QStringLiteral("The download limit must be between 0 and 2147483647."));
    body.maxDownloads = int(m_options.maxDownloads);
    if (!m_options.password.isEmpty())
        body.password = m_options.password;
    body.partSize = m_wantedPartSize;
    body.source = m_source;
    if (m_options.toSelf) {
        body.toSelf = true;
        // The inbox on the user's other devices says where the file came from.
        body.device = m_device.isEmpty() ? deviceName() : m_device;
    }
    return body;
}

QCoro::Task<UploadResult> Uploader::run(std::stop_token stop)
{
    m_phase = Phase::Creating;
    auto creating = m_api.createTransfer(createBody(), stop);
    m_created = co_await creating;

    std::exception_ptr failure;
    try {
        auto uploading = uploadAndComplete(stop);
        UploadResult result = co_await uploading;
        auto cleaning = removeSpillFolder();
        co_await cleaning;
        co_return result;
    } catch (...) {
        failure = std::current_exception();
    }
    auto cleaning = removeSpillFolder();
    co_await cleaning;
    auto aborting = abortCreated();
    co_await aborting;
    std::rethrow_exception(failure);
}

QCoro::Task<UploadResult> Uploader::uploadAndComplete(std::stop_token stop)
{
    m_phase = Phase::Uploading;
    const CreatedTransfer created = *m_created;
    if (created.partSize <= 0)
        throw AppError(QStringLiteral("The service chose an invalid part size. Try again."));

    m_spillDir =
        m_tempRoot + QStringLiteral("/spill-") + QUuid::createUuid().toString(QUuid::WithoutBraces);
    const qint64 partSize = created.partSize;
    auto creatingProducer = runInPool([plan = m_plan, partSize, dir = m_spillDir] {
        return std::make_shared<PartProducer>(plan, partSize, dir);
    });
    auto producer = co_await creatingProducer;
    const auto produce = [producer](int partNumber) {
        return QtConcurrent::run([producer, partNumber] { return producer->next(partNumber); });
    };

    auto group = std::make_shared<PartGroup>();
    std::stop_callback forwardCancel(stop, [group] { group->stop.request_stop(); });
    std::vector<QCoro::Task<void>> parts;
    int nextPart = 1;
    bool exhausted = false;
    // The next part is produced while the current ones upload.
    QFuture<std::optional<PartPayload>> pending = produce(nextPart);

    while (true) {
        while (!exhausted && !group->failure && group->inFlight < kMaxPartsInFlight) {
            std::optional<PartPayload> payload;
            try {
                co_await pending;
                payload = pending.result();
            } catch (const QUnhandledException &wrapped) {
                group->fail(wrapped.exception() ? wrapped.exception() : std::current_exception());
                break;
            } catch (...) {
                group->fail(std::current_exception());
                break;
            }
            if (!payload) {
                exhausted = true;
                break;
            }
            const int partNumber = nextPart++;
            pending = produce(nextPart);
            const bool spilled = payload->kind == PartPayload::Kind::Spilled;
            FileBody body{payload->path, spilled ? 0 : payload->offset, payload->length};
            ++group->inFlight;
            parts.push_back(runPart(partNumber, body, group->stop.get_token(), group, spilled));
        }
        if (group->inFlight == 0)
            break;
        co_await group->wakeup.wait();
    }
    // Never leave a producer writing into the spill folder that is about to be removed.
    try {
        co_await pending;
        pending.waitForFinished();
    } catch (...) {
    }
    for (auto &part : parts)
        co_await part;
    if (group->failure)
        std::rethrow_exception(group->failure);
    if (stop.stop_requested())
        throw Cancelled();

    const qint64 done = m_counter->total();
    if (producer->isFinished() && done == m_plan.size) {
        if (qint64(group->etags.size()) != created.partCount)
            throw AppError(QStringLiteral("Upload incomplete (%1 of %2 parts). Try again.")
                               .arg(group->etags.size())
                               .arg(created.partCount));
    } else {
        throw AppError(QStringLiteral("Upload size mismatch (%1 of %2 bytes). Try again.")
                           .arg(done)
                           .arg(m_plan.size));
    }

    m_phase = Phase::Finishing;
    CompleteBody complete;
    complete.parts = QList<PartETag>(group->etags.begin(), group->etags.end());
    std::sort(complete.parts.begin(), complete.parts.end(),
              [](const PartETag &a, const PartETag &b) { return a.partNumber < b.partNumber; });
    auto completing = m_api.completeTransfer(created.id, created.ownerToken, complete, stop);
    CompletedTransfer completed = co_await completing;
    co_return UploadResult{created, completed};
}

QCoro::Task<void> Uploader::runPart(int partNumber, FileBody body, std::stop_token stop,
                                    std::shared_ptr<PartGroup> group, bool spilled)
{
    try {
        auto upload = uploadPart(partNumber, body, stop);
        group->etags.push_back(co_await upload);
        // The part is safely at the service; its spill file is no longer needed.
        if (spilled)
            (void)QtConcurrent::run([path = body.path] { QFile::remove(path); });
    } catch (...) {
        group->fail(std::current_exception());
    }
    --group->inFlight;
    group->wakeup.notify();
}

QCoro::Task<PartETag> Uploader::uploadPart(int partNumber, FileBody body, std::stop_token stop)
{
    const CreatedTransfer created = *m_created;
    auto counter = m_counter;
    for (int attempt = 0;; ++attempt) {
        std::exception_ptr error;
        try {
            // Built before the co_await: GCC 12 mishandles temporaries inside co_await
            // expressions (a converted lambda was destroyed twice).
            std::function<void(qint64)> onSent = [counter, partNumber](qint64 sent) {
                counter->sent(partNumber, sent);
            };
            auto request = m_api.uploadPart(created.id, created.ownerToken, partNumber, body,
                                            std::move(onSent), stop);
            PartResponse response = co_await request;
            counter->finished(partNumber, body.length);
            co_return PartETag{partNumber, response.etag};
        } catch (...) {
            error = std::current_exception();
        }
        counter->failed(partNumber);
        if (stop.stop_requested())
            throw Cancelled();
        if (!mayHealOnRetry(error) || attempt + 1 >= kMaxTries)
            std::rethrow_exception(error);
        auto pause = m_sleeper(std::chrono::seconds(1LL << attempt), stop);
        if (!co_await pause)
            throw Cancelled();
    }
}

QCoro::Task<void> Uploader::removeSpillFolder()
{
    if (m_spillDir.isEmpty())
        co_return;
    auto removing = runInPool([dir = m_spillDir] { QDir(dir).removeRecursively(); });
    co_await removing;
}

QCoro::Task<void> Uploader::abortCreated()
{
    if (!m_created)
        co_return;
    // Best effort, bounded: a service that does not answer must not hold up the failure.
    std::stop_source giveUp;
    QTimer deadline;
    deadline.setSingleShot(true);
    QObject::connect(&deadline, &QTimer::timeout, [&giveUp] { giveUp.request_stop(); });
    deadline.start(std::chrono::seconds(10));
    try {
        auto aborting =
            m_api.abortTransfer(m_created->id, m_created->ownerToken, giveUp.get_token());
        co_await aborting;
    } catch (...) {
    }
}

} // namespace lofthaven
