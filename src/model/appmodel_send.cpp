// AppModel: send jobs, from the staged plan or from outside the main window.
#include "model/appmodel.h"

#include "api/cancelled.h"
#include "api/usermessage.h"
#include "model/detach.h"
#include "model/sendrules.h"
#include "platform/bytecount.h"
#include "platform/devicename.h"
#include "platform/folders.h"
#include "platform/runinpool.h"
#include "platform/speedmeter.h"
#include "send/uploader.h"

#include <QFileInfo>
#include <QPointer>
#include <QTimer>
#include <QUrl>

namespace lofthaven {

void AppModel::setFocusedJobID(const QString &id)
{
    if (m_focusedJobID == id)
        return;
    m_focusedJobID = id;
    Q_EMIT focusedJobIDChanged();
}

std::optional<QString> AppModel::sendBlocker(const SendPlan &plan, bool toSelf) const
{
    return sendrules::sendBlocker(plan, toSelf, signedIn(), me());
}

QString AppModel::stagedBlocker() const
{
    if (!m_stagedPlan)
        return {};
    return sendBlocker(*m_stagedPlan, m_options.toSelf).value_or(QString());
}

QString AppModel::send()
{
    checkThread();
    if (!m_stagedPlan || m_planning)
        return {};
    if (const auto blocker = sendBlocker(*m_stagedPlan, m_options.toSelf)) {
        setNotice(*blocker);
        return {};
    }
    SendJob *job = startJob(*m_stagedPlan, m_options, SendJob::Origin::Window);
    setFocusedJobID(job->id());
    clearStaged();
    return job->id();
}

SendJob *AppModel::startJob(const SendPlan &plan, const SendOptions &options,
                            SendJob::Origin origin)
{
    checkThread();
    auto *job = new SendJob(plan, options, origin);
    m_jobs->prepend(job);
    // Asking for notification permission has no counterpart on the desktops we run on.
    detach(runJob(job, client(), tempFolder()));
    return job;
}

QCoro::Task<void> AppModel::runJob(SendJob *job, APIClient client, QString tempRoot)
{
    QPointer<AppModel> self(this);
    QPointer<SendJob> guard(job);
    const SendPlan plan = job->plan();
    const SendOptions options = job->options();
    const auto counter = job->counter();

    Uploader uploader(client, plan, options, tempRoot, counter);
    if (options.toSelf)
        uploader.setDeviceName(deviceName());
    SpeedMeter meter;
    QTimer ticker;
    ticker.setInterval(250);
    const auto publish = [&] {
        if (!guard)
            return;
        const qint64 total = counter->total();
        meter.update(total);
        guard->setProgress(total, meter.speed());
        switch (uploader.phase()) {
        case Uploader::Phase::Creating:
            break;
        case Uploader::Phase::Uploading:
            guard->setState(SendJob::State::Uploading);
            break;
        case Uploader::Phase::Finishing:
            guard->setState(SendJob::State::Finishing);
            break;
        }
    };
    QObject::connect(&ticker, &QTimer::timeout, job, publish);
    ticker.start();

    std::optional<UploadResult> result;
    std::exception_ptr failure;
    try {
        auto uploading = uploader.run(job->stopToken());
        result = co_await uploading;
    } catch (...) {
        failure = std::current_exception();
    }
    ticker.stop();
    if (!guard)
        co_return;
    publish();
    const QString id = guard->id();
    if (failure) {
        bool cancelled = guard->cancelRequested();
        try {
            std::rethrow_exception(failure);
        } catch (const Cancelled &) {
            cancelled = true;
        } catch (...) {
        }
        if (cancelled)
            guard->setState(SendJob::State::Cancelled);
        else
            guard->fail(userMessage(failure));
        if (self)
            Q_EMIT jobFinished(id);
        co_return;
    }
    if (!self)
        co_return;
    const HistoryEntry entry = HistoryEntry::fromUpload(*result, plan, options, nowMs());
    guard->finish(entry);
    m_history->prepend(entry);
    saveHistory();
    announceCompletion(*guard, entry);
    Q_EMIT jobFinished(id);
}

void AppModel::announceCompletion(const SendJob &job, const HistoryEntry &entry)
{
    const QString code = sendrules::spacedCode(entry.code);
    const QString sized = job.name() + QStringLiteral(" (") + formatByteCount(job.size()) + u')';
    const QString toDevices = QStringLiteral("Sent to your devices");
    switch (job.origin()) {
    case SendJob::Origin::Window:
        if (m_applicationActive)
            return;
        post(job.toSelf() ? toDevices : QStringLiteral("Ready to share"),
             job.name() + QStringLiteral(" · code ") + code);
        return;
    case SendJob::Origin::Devices:
        post(toDevices, sized);
        return;
    case SendJob::Origin::Service:
    case SendJob::Origin::MenuBar:
        if (job.toSelf()) {
            post(toDevices, sized + QStringLiteral(" · code ") + code);
            return;
        }
        m_clipboard(entry.url);
        post(QStringLiteral("Link copied"),
             job.name() + QStringLiteral(" · ") + entry.url + QStringLiteral(" · code ") + code);
        return;
    }
}

void AppModel::cancelJob(const QString &id)
{
    checkThread();
    if (SendJob *job = m_jobs->find(id))
        job->cancel();
}

QString AppModel::retryJob(const QString &id)
{
    checkThread();
    SendJob *old = m_jobs->find(id);
    if (!old || old->isActive())
        return {};
    const SendPlan plan = old->plan();
    const SendOptions options = old->options();
    const SendJob::Origin origin = old->origin();
    if (const auto blocker = sendBlocker(plan, options.toSelf)) {
        setNotice(*blocker);
        return {};
    }
    const bool focused = m_focusedJobID == id;
    m_jobs->remove(id);
    SendJob *job = startJob(plan, options, origin);
    if (focused)
        setFocusedJobID(job->id());
    return job->id();
}

void AppModel::dismissJob(const QString &id)
{
    checkThread();
    SendJob *job = m_jobs->find(id);
    if (!job || job->isActive())
        return;
    m_jobs->remove(id);
    if (m_focusedJobID == id)
        setFocusedJobID({});
}

QCoro::Task<SendJob *> AppModel::serviceSend(QStringList paths, bool toSelf, SendJob::Origin origin)
{
    QPointer<AppModel> self(this);
    QList<QString> absolute;
    for (const QString &given : paths) {
        const QUrl url(given);
        absolute.append(
            QFileInfo(url.isLocalFile() ? url.toLocalFile() : given).absoluteFilePath());
    }
    std::optional<SendPlan> plan;
    QString failure;
    try {
        auto planning = runInPool([absolute] { return SendPlan::make(absolute); });
        plan = co_await planning;
    } catch (...) {
        failure = userMessage(std::current_exception());
    }
    if (!self)
        co_return nullptr;
    if (!plan) {
        post(QStringLiteral("Couldn't send"), failure);
        setNotice(failure);
        co_return nullptr;
    }
    if (const auto blocker = sendBlocker(*plan, toSelf)) {
        post(QStringLiteral("Couldn't send ") + plan->name, *blocker);
        setNotice(*blocker);
        co_return nullptr;
    }
    co_return startJob(*plan, defaultOptions(toSelf), origin);
}

void AppModel::startServiceSend(const QStringList &paths, bool toSelf, SendJob::Origin origin)
{
    checkThread();
    detach(serviceSend(paths, toSelf, origin));
}

} // namespace lofthaven
