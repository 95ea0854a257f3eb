#include "receive/downloadjob.h"

#include "api/cancelled.h"
#include "api/usermessage.h"
#include "platform/runinpool.h"
#include "platform/speedmeter.h"
#include "receive/downloadtopartial.h"
#include "receive/moveintoplace.h"
#include "receive/unzipinplace.h"

#include <QPointer>
#include <QTimer>

namespace lofthaven {

DownloadJob::DownloadJob(QString id, QString name, qint64 size, QObject *parent)
    : QObject(parent)
    , m_id(std::move(id))
    , m_name(std::move(name))
    , m_size(size)
    , m_counter(std::make_shared<ProgressCounter>())
{}

bool DownloadJob::isActive() const
{
    return m_state == State::Starting || m_state == State::Downloading ||
           m_state == State::Unzipping;
}

void DownloadJob::setState(State state, QString detail)
{
    if (state == State::Done)
        m_result = detail;
    if (state == State::Failed)
        m_message = detail;
    if (m_state == state)
        return;
    m_state = state;
    Q_EMIT stateChanged(state);
}

void DownloadJob::setProgress(qint64 received, double speed)
{
    if (received == m_received && speed == m_speed)
        return;
    m_received = received;
    m_speed = speed;
    Q_EMIT progressChanged(received, speed);
}

bool shouldUnzip(const TransferMeta &meta, bool unzipWanted)
{
    if (!unzipWanted)
        return false;
    if (meta.isZip)
        return *meta.isZip;
    return meta.name.toLower().endsWith(QStringLiteral(".zip"));
}

QCoro::Task<void> runDownload(DownloadJob *job, APIClient client, DownloadPlan plan)
{
    QPointer<DownloadJob> guard(job);
    const std::stop_token stop = job->stopToken();
    auto counter = job->counter();

    QTimer ticker;
    ticker.setInterval(250);
    SpeedMeter meter;
    QObject::connect(&ticker, &QTimer::timeout, job, [job, counter, &meter] {
        const qint64 total = counter->total();
        meter.update(total);
        job->setProgress(total, meter.speed());
    });
    const auto publish = [&] {
        ticker.stop();
        if (guard)
            guard->setProgress(counter->total(), meter.speed());
    };

    std::exception_ptr failure;
    try {
        if (stop.stop_requested())
            throw Cancelled();
        job->setState(DownloadJob::State::Downloading);
        ticker.start();
        auto fetching = downloadToPartial(client, plan.meta.id, plan.unlockToken, plan.meta.size,
                                          false, plan.partialFile, counter, stop);
        co_await fetching;
        publish();
        auto moving = runInPool([plan] {
            return moveIntoPlace(plan.partialFile, plan.meta.name, plan.destinationFolder);
        });
        QString result = co_await moving;
        if (plan.unzip && guard) {
            guard->setState(DownloadJob::State::Unzipping);
            // The archive may not unpack to much more than the service said it holds.
            const qint64 budget = plan.meta.size + plan.meta.size / 10 + (64 << 20);
            auto unzipping = runInPool([result, budget] { return unzipInPlace(result, budget); });
            result = co_await unzipping;
        }
        if (guard)
            guard->setState(DownloadJob::State::Done, result);
        co_return;
    } catch (...) {
        failure = std::current_exception();
    }
    publish();
    if (!guard)
        co_return;
    try {
        std::rethrow_exception(failure);
    } catch (const Cancelled &) {
        guard->setState(DownloadJob::State::Cancelled);
    } catch (...) {
        guard->setState(DownloadJob::State::Failed, userMessage(std::current_exception()));
    }
}

} // namespace lofthaven
