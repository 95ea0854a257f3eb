#include "model/appmodel.h"

#include "api/apierror.h"
#include "api/cancelled.h"
#include "api/serviceorigin.h"
#include "api/usermessage.h"
#include "model/detach.h"
#include "model/historyfile.h"
#include "model/sendrules.h"
#include "platform/folders.h"
#include "platform/notifications.h"
#include "platform/preferences.h"
#include "platform/runinpool.h"
#include "platform/stoppablesleep.h"
#include "platform/systemresumewatcher.h"
#include "receive/downloadtopartial.h"
#include "receive/lookup.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QJsonDocument>
#include <QThread>
#include <QUrl>

namespace lofthaven {

namespace {

QCoro::Task<void> finishDetached(QCoro::Task<void> task)
{
    try {
        co_await task;
    } catch (const std::exception &error) {
        qWarning("lofthaven: background task failed: %s", error.what());
    } catch (...) {
        qWarning("lofthaven: background task failed");
    }
}

} // namespace

void detach(QCoro::Task<void> task)
{
    auto running = finishDetached(std::move(task));
}

AppModel::AppModel(AccountSession *session, QObject *parent)
    : QObject(parent)
    , m_clock([] { return QDateTime::currentDateTimeUtc(); })
    , m_sleeper(&stoppableSleep)
    , m_clipboard([](const QString &) {})
    , m_notify(&postNotification)
    , m_session(session ? session : new AccountSession(this))
    , m_jobs(new SendJobList(this))
    , m_downloads(new DownloadList(this))
    , m_inbox(new TransferList(this))
    , m_history(new HistoryList(this))
    , m_account(new TransferList(this))
{
    m_historyPath = HistoryFile::defaultPath();
    registerDefaultSettings();
    const QStringList seen = stringArrayPreference(Preference::SeenInbox);
    m_seenInbox = QSet<QString>(seen.begin(), seen.end());
    const QStringList notified = stringArrayPreference(Preference::NotifiedInbox);
    m_notifiedInbox = QSet<QString>(notified.begin(), notified.end());
    m_inbox->setSeen(m_seenInbox);
    loadHistory();
    m_options = defaultOptions();
    setNotice(m_session->notice().value_or(QString()));

    connect(m_session, &AccountSession::tokenChanged, this, &AppModel::signedInChanged);
    connect(m_session, &AccountSession::meChanged, this, &AppModel::accountChanged);
    connect(m_session, &AccountSession::signInChanged, this, &AppModel::signInChanged);
    connect(m_session, &AccountSession::noticeChanged, this,
            [this] { setNotice(m_session->notice().value_or(QString())); });
    connect(m_session, &AccountSession::signedIn, this, &AppModel::signedInNow);
    connect(m_session, &AccountSession::signedOut, this, &AppModel::signedOutNow);
}

AppModel::~AppModel()
{
    m_lifetimeStop.request_stop();
    m_planStop.request_stop();
    m_pollStop.request_stop();
    m_sessionStop.request_stop();
    m_lookupStop.request_stop();
    for (SendJob *job : m_jobs->jobs())
        job->cancel();
}

void AppModel::checkThread() const
{
    if (QThread::currentThread() != thread())
        qFatal("AppModel used from a thread other than its own");
}

void AppModel::start()
{
    checkThread();
    if (signedIn())
        refreshAccount();
    checkForUpdate();
    startPolling();
    // Waking the computer refreshes the inbox; becoming active is reported by the desktop
    // shell through setApplicationActive().
    auto *resume = new SystemResumeWatcher(this);
    connect(resume, &SystemResumeWatcher::resumed, this, &AppModel::systemResumed);
}

void AppModel::downloadInboxItem(const QString &id)
{
    checkThread();
    const std::optional<TransferMeta> item = m_inbox->find(id);
    if (!item)
        return;
    if (item->hasPassword.value_or(false)) {
        // No password can come with a notification: the job says what is missing.
        detach(downloadFoundTask(*item, {}, std::nullopt));
        return;
    }
    startDownload(*item, std::nullopt, std::nullopt, true);
}

void AppModel::post(const QString &title, const QString &body,
                    const std::optional<QString> &transferID, bool inbox)
{
    m_notify(title, body, transferID, inbox);
}

// ---- window and account ----------------------------------------------------------------------

void AppModel::setTab(Tab tab)
{
    if (m_tab == tab)
        return;
    m_tab = tab;
    Q_EMIT tabChanged();
    // Choosing the tab is the user looking at it.
    if (m_tab == Tab::Devices)
        markInboxSeen();
}

void AppModel::setWindowDropTargeted(bool targeted)
{
    if (m_windowDropTargeted == targeted)
        return;
    m_windowDropTargeted = targeted;
    Q_EMIT windowDropTargetedChanged();
}

void AppModel::setApplicationActive(bool active)
{
    if (m_applicationActive == active)
        return;
    m_applicationActive = active;
    Q_EMIT applicationActiveChanged();
    if (active)
        applicationActivated();
}

void AppModel::applicationActivated()
{
    refreshInbox(false);
}

void AppModel::systemResumed()
{
    refreshInbox(false);
}

QVariantMap AppModel::meMap() const
{
    const std::optional<MeResponse> account = me();
    return account ? account->toJson().toVariantMap() : QVariantMap();
}

QVariantMap AppModel::signInMap() const
{
    const std::optional<SignInState> state = m_session->signIn();
    if (!state)
        return {};
    static const char *const phases[] = {"starting", "waiting", "failed"};
    return {{QStringLiteral("phase"), QString::fromLatin1(phases[int(state->phase)])},
            {QStringLiteral("userCode"), state->userCode},
            {QStringLiteral("url"), state->url.toString()},
            {QStringLiteral("message"), state->message}};
}

qint64 AppModel::maxBytes() const
{
    return sendrules::maxBytes(me());
}

QList<qint64> AppModel::allowedExpiries() const
{
    return sendrules::allowedExpiries(me());
}

QVariantList AppModel::allowedExpiryList() const
{
    QVariantList list;
    for (qint64 seconds : allowedExpiries())
        list.append(seconds);
    return list;
}

void AppModel::accountChanged()
{
    Q_EMIT meChanged();
    // A lifetime the new limits do not allow falls back to the default.
    if (!allowedExpiries().contains(m_options.expiresIn)) {
        SendOptions options = m_options;
        options.expiresIn = defaultOptions().expiresIn;
        setOptions(options);
    }
}

void AppModel::startSignIn()
{
    checkThread();
    detach(m_session->startSignIn());
}

void AppModel::cancelSignIn()
{
    checkThread();
    m_session->cancelSignIn();
}

void AppModel::signOut()
{
    checkThread();
    detach(m_session->signOut());
}

void AppModel::refreshAccount()
{
    checkThread();
    detach(m_session->refresh(m_lifetimeStop.get_token()));
}

void AppModel::signedInNow()
{
    m_sessionStop.request_stop();
    m_sessionStop = std::stop_source();
    SendOptions options = m_options;
    options.expiresIn = defaultOptions().expiresIn;
    setOptions(options);
    startPolling();
    publishNewInboxCount();
}

void AppModel::signedOutNow()
{
    stopPolling();
    m_sessionStop.request_stop();
    m_sessionStop = std::stop_source();
    m_inbox->clear();
    m_account->clear();
    setInboxError({});
    SendOptions options = m_options;
    options.toSelf = false;
    if (!allowedExpiries().contains(options.expiresIn))
        options.expiresIn = defaultOptions().expiresIn;
    setOptions(options);
    publishNewInboxCount();
}

void AppModel::clearNotice()
{
    m_session->clearNotice();
    setNotice({});
}

void AppModel::setNotice(const QString &notice)
{
    if (m_notice == notice)
        return;
    m_notice = notice;
    Q_EMIT noticeChanged();
}

// ---- staging ---------------------------------------------------------------------------------

void AppModel::stage(const QStringList &paths)
{
    checkThread();
    bool added = false;
    for (const QString &given : paths) {
        const QUrl url(given);
        const QString path =
            QFileInfo(url.isLocalFile() ? url.toLocalFile() : given).absoluteFilePath();
        if (path.isEmpty() || m_staged.contains(path))
            continue;
        m_staged.append(path);
        added = true;
    }
    if (!added)
        return;
    Q_EMIT stagedChanged();
    replan();
}

void AppModel::unstage(const QString &path)
{
    checkThread();
    const QUrl url(path);
    const QString local = url.isLocalFile() ? url.toLocalFile() : path;
    if (m_staged.removeAll(local) + m_staged.removeAll(QFileInfo(local).absoluteFilePath()) == 0)
        return;
    Q_EMIT stagedChanged();
    replan();
}

void AppModel::clearStaged()
{
    checkThread();
    if (m_staged.isEmpty() && !m_planning && !m_stagedPlan && m_stagedError.isEmpty())
        return;
    const bool had = !m_staged.isEmpty();
    m_staged.clear();
    if (had)
        Q_EMIT stagedChanged();
    replan();
}

void AppModel::cancelPlanning()
{
    checkThread();
    m_planStop.request_stop();
    setPlanning(false);
}

void AppModel::replan()
{
    m_planStop.request_stop();
    m_planStop = std::stop_source();
    setStagedPlan(std::nullopt, {});
    if (m_staged.isEmpty()) {
        setPlanning(false);
        return;
    }
    setPlanning(true);
    detach(planTask(m_staged, m_planStop.get_token()));
}

QCoro::Task<void> AppModel::planTask(QList<QString> paths, std::stop_token stop)
{
    QPointer<AppModel> self(this);
    std::optional<SendPlan> plan;
    QString error;
    try {
        auto planning = runInPool([paths] { return SendPlan::make(paths); });
        plan = co_await planning;
    } catch (...) {
        error = userMessage(std::current_exception());
    }
    // A newer staging (or a cancel) owns the state now.
    if (!self || stop.stop_requested())
        co_return;
    setStagedPlan(std::move(plan), error);
    setPlanning(false);
}

void AppModel::setPlanning(bool planning)
{
    if (m_planning == planning)
        return;
    m_planning = planning;
    Q_EMIT planningChanged();
}

void AppModel::setStagedPlan(std::optional<SendPlan> plan, const QString &error)
{
    if (m_stagedPlan != plan) {
        m_stagedPlan = std::move(plan);
        Q_EMIT stagedPlanChanged();
    }
    if (m_stagedError != error) {
        m_stagedError = error;
        Q_EMIT stagedErrorChanged();
    }
}

QVariantMap AppModel::stagedPlanMap() const
{
    if (!m_stagedPlan)
        return {};
    return {{QStringLiteral("name"), m_stagedPlan->name},
            {QStringLiteral("size"), m_stagedPlan->size},
            {QStringLiteral("isZip"), m_stagedPlan->isZip},
            {QStringLiteral("fileCount"), int(m_stagedPlan->items.size())}};
}

// ---- send options ----------------------------------------------------------------------------

SendOptions AppModel::defaultOptions(bool toSelf) const
{
    SendOptions options;
    const qint64 preferred = integerPreference(Preference::DefaultExpiry);
    options.expiresIn = sendrules::defaultExpiry(preferred, allowedExpiries());
    options.toSelf = toSelf;
    return options;
}

void AppModel::setOptions(const SendOptions &options)
{
    if (m_options == options)
        return;
    m_options = options;
    Q_EMIT optionsChanged();
}

void AppModel::setExpiresIn(qint64 seconds)
{
    if (m_options.expiresIn == seconds)
        return;
    m_options.expiresIn = seconds;
    setIntegerPreference(Preference::DefaultExpiry, seconds);
    Q_EMIT optionsChanged();
}

void AppModel::setMaxDownloads(qint64 count)
{
    SendOptions options = m_options;
    options.maxDownloads = count;
    setOptions(options);
}

void AppModel::setPassword(const QString &password)
{
    SendOptions options = m_options;
    options.password = password;
    setOptions(options);
}

void AppModel::setTitle(const QString &title)
{
    SendOptions options = m_options;
    options.title = title;
    setOptions(options);
}

void AppModel::setMessage(const QString &message)
{
    SendOptions options = m_options;
    options.message = message;
    setOptions(options);
}

void AppModel::setToSelf(bool toSelf)
{
    SendOptions options = m_options;
    options.toSelf = toSelf;
    setOptions(options);
}

// ---- receive ---------------------------------------------------------------------------------

void AppModel::setReceiveInput(const QString &text)
{
    if (m_receiveInput == text)
        return;
    m_receiveInput = text;
    Q_EMIT receiveInputChanged();
}

void AppModel::setReceivePassword(const QString &text)
{
    if (m_receivePassword == text)
        return;
    m_receivePassword = text;
    Q_EMIT receivePasswordChanged();
}

void AppModel::setPreviewURL(const QString &url)
{
    if (m_previewURL == url)
        return;
    m_previewURL = url;
    Q_EMIT previewURLChanged();
}

QVariantMap AppModel::lookupTransferMap() const
{
    return m_found ? m_found->toJson().toVariantMap() : QVariantMap();
}

void AppModel::setLookup(LookupState state, std::optional<TransferMeta> found,
                         const QString &message)
{
    if (m_lookupState == state && m_found == found && m_lookupMessage == message)
        return;
    m_lookupState = state;
    m_found = std::move(found);
    m_lookupMessage = message;
    Q_EMIT lookupChanged();
}

void AppModel::lookup()
{
    checkThread();
    m_lookupStop.request_stop();
    m_lookupStop = std::stop_source();
    setLookup(LookupState::Loading, std::nullopt, {});
    detach(lookupTask(m_receiveInput, m_lookupStop.get_token()));
}

QCoro::Task<void> AppModel::lookupTask(QString input, std::stop_token stop)
{
    QPointer<AppModel> self(this);
    std::optional<TransferMeta> meta;
    QString failure;
    try {
        auto looking = lookupTransfer(client(), input, ServiceOrigin::host(), stop);
        meta = co_await looking;
    } catch (const Cancelled &) {
        co_return;
    } catch (...) {
        failure = userMessage(std::current_exception());
    }
    if (!self || stop.stop_requested())
        co_return;
    if (meta)
        setLookup(LookupState::Found, std::move(meta), {});
    else
        setLookup(LookupState::Failed, std::nullopt, failure);
}

void AppModel::resetReceive()
{
    checkThread();
    m_lookupStop.request_stop();
    setReceiveInput({});
    setReceivePassword({});
    setLookup(LookupState::Idle, std::nullopt, {});
}

void AppModel::downloadFound(const QVariant &unzip)
{
    checkThread();
    if (!m_found)
        return;
    std::optional<bool> choice;
    if (unzip.isValid() && !unzip.isNull())
        choice = unzip.toBool();
    detach(downloadFoundTask(*m_found, m_receivePassword, choice));
}

QCoro::Task<void> AppModel::downloadFoundTask(TransferMeta meta, QString password,
                                              std::optional<bool> unzip)
{
    QPointer<AppModel> self(this);
    std::optional<QString> unlockToken;
    QString failure;
    try {
        auto unlocking = unlockTransfer(client(), meta, password, m_lifetimeStop.get_token());
        unlockToken = co_await unlocking;
    } catch (const Cancelled &) {
        co_return;
    } catch (...) {
        failure = userMessage(std::current_exception());
    }
    if (!self)
        co_return;
    if (failure.isEmpty()) {
        startDownload(meta, unlockToken, unzip, false);
        co_return;
    }
    // The screen shows the refusal where the download would have been.
    if (DownloadJob *running = m_downloads->find(meta.id); running && running->isActive())
        co_return;
    auto *job = new DownloadJob(meta.id, meta.name, meta.size);
    job->setState(DownloadJob::State::Failed, failure);
    m_downloadRequests.insert(meta.id, {meta, std::nullopt, unzip, false});
    m_downloads->insert(job);
}

void AppModel::startDownload(const TransferMeta &meta, std::optional<QString> unlockToken,
                             std::optional<bool> unzip, bool notify)
{
    checkThread();
    if (DownloadJob *running = m_downloads->find(meta.id); running && running->isActive())
        return;
    auto *job = new DownloadJob(meta.id, meta.name, meta.size);
    m_downloads->insert(job);
    DownloadRequest request{meta, std::move(unlockToken), unzip, notify};
    m_downloadRequests.insert(meta.id, request);
    detach(downloadTask(job, std::move(request)));
}

QCoro::Task<void> AppModel::downloadTask(DownloadJob *job, DownloadRequest request)
{
    QPointer<AppModel> self(this);
    QPointer<DownloadJob> guard(job);
    DownloadPlan plan;
    plan.meta = request.meta;
    plan.unlockToken = request.unlockToken;
    const bool unzipWanted = request.unzip.value_or(boolPreference(Preference::UnzipAfterDownload));
    plan.unzip = shouldUnzip(request.meta, unzipWanted);
    plan.destinationFolder = downloadFolder();
    plan.partialFile = partialPathFor(tempFolder(), request.meta.id);

    auto running = runDownload(job, client(), plan);
    co_await running;
    if (!self || !guard)
        co_return;
    const QString name = request.meta.name;
    switch (guard->state()) {
    case DownloadJob::State::Done:
        if (request.notify || !m_applicationActive)
            post(QStringLiteral("Downloaded ") + name, guard->result());
        break;
    case DownloadJob::State::Failed:
        if (request.notify)
            post(QStringLiteral("Couldn't download ") + name, guard->message());
        break;
    default:
        break;
    }
    Q_EMIT downloadFinished(request.meta.id);
}

void AppModel::cancelDownload(const QString &id)
{
    checkThread();
    if (DownloadJob *job = m_downloads->find(id))
        job->cancel();
}

void AppModel::retryDownload(const QString &id)
{
    checkThread();
    const auto found = m_downloadRequests.constFind(id);
    if (found == m_downloadRequests.constEnd())
        return;
    const DownloadRequest request = *found;
    // A refused unlock is tried again with the password as it stands now.
    if (request.meta.hasPassword.value_or(false) && !request.unlockToken) {
        detach(downloadFoundTask(request.meta, m_receivePassword, request.unzip));
        return;
    }
    startDownload(request.meta, request.unlockToken, request.unzip, request.notify);
}

void AppModel::removeDownload(const QString &id)
{
    checkThread();
    DownloadJob *job = m_downloads->find(id);
    if (!job || job->isActive())
        return;
    m_downloads->remove(id);
    m_downloadRequests.remove(id);
}

// ---- update ----------------------------------------------------------------------------------

QVariantMap AppModel::updateMap() const
{
    if (!m_update)
        return {};
    return {{QStringLiteral("version"), m_update->info.version},
            {QStringLiteral("notes"), m_update->info.notes.value_or(QString())},
            {QStringLiteral("downloadLink"), m_update->downloadLink}};
}

void AppModel::checkForUpdate()
{
    checkThread();
    detach(checkForUpdateTask());
}

QCoro::Task<void> AppModel::checkForUpdateTask()
{
    QPointer<AppModel> self(this);
    std::optional<UpdateNotice> notice;
    try {
        auto checking = UpdateCheck::run(UpdateCheck::currentVersion(),
                                         stringPreference(Preference::DismissedUpdate),
                                         m_lifetimeStop.get_token());
        notice = co_await checking;
    } catch (...) {
        co_return;
    }
    if (!self || !notice || m_update == notice)
        co_return;
    m_update = std::move(notice);
    Q_EMIT updateChanged();
}

void AppModel::dismissUpdate()
{
    checkThread();
    if (!m_update)
        return;
    setStringPreference(Preference::DismissedUpdate, m_update->info.version);
    m_update.reset();
    Q_EMIT updateChanged();
}

} // namespace lofthaven
