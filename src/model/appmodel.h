#pragma once

#include "api/accountsession.h"
#include "api/apiclient.h"
#include "api/wirerecords.h"
#include "model/downloadlist.h"
#include "model/historylist.h"
#include "model/sendjob.h"
#include "model/sendjoblist.h"
#include "model/transferlist.h"
#include "model/updatecheck.h"
#include "send/sendoptions.h"
#include "send/sendplan.h"

#include <QCoroTask>
#include <QDateTime>
#include <QObject>
#include <QSet>
#include <QStringList>
#include <QVariantMap>

#include <chrono>
#include <functional>
#include <optional>
#include <stop_token>

class QFileSystemWatcher;

namespace lofthaven {

// The whole state of the running application: account, staged selection and its plan, send
// jobs, receive lookup, downloads, devices inbox, history and update notice. Screens read its
// properties and call its operations; it needs no display (QtCore only).
//
// Threading: lives on the main thread; every operation must be called there. Background work
// (plans, uploads, downloads, requests) runs in coroutines that resume on the main thread
// before anything observable changes. Each such task has a stop source here, so signing out,
// restaging or destroying the model cancels it.
//
// Replaceable for tests and platforms: the clock, the sleeper of the poll loop, the clipboard
// writer and the notification poster.
class AppModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(Tab tab READ tab WRITE setTab NOTIFY tabChanged)
    Q_PROPERTY(bool windowDropTargeted READ windowDropTargeted WRITE setWindowDropTargeted NOTIFY
                   windowDropTargetedChanged)
    Q_PROPERTY(bool applicationActive READ applicationActive WRITE setApplicationActive NOTIFY
                   applicationActiveChanged)
    Q_PROPERTY(bool signedIn READ signedIn NOTIFY signedInChanged)
    Q_PROPERTY(QVariantMap me READ meMap NOTIFY meChanged)
    Q_PROPERTY(QVariantMap signIn READ signInMap NOTIFY signInChanged)
    Q_PROPERTY(qint64 maxBytes READ maxBytes NOTIFY meChanged)
    Q_PROPERTY(QVariantList allowedExpiries READ allowedExpiryList NOTIFY meChanged)
    Q_PROPERTY(QString notice READ notice WRITE setNotice NOTIFY noticeChanged)

    Q_PROPERTY(QStringList staged READ staged NOTIFY stagedChanged)
    Q_PROPERTY(QVariantMap stagedPlan READ stagedPlanMap NOTIFY stagedPlanChanged)
    Q_PROPERTY(QString stagedError READ stagedError NOTIFY stagedErrorChanged)
    Q_PROPERTY(bool planning READ planning NOTIFY planningChanged)

    Q_PROPERTY(qint64 expiresIn READ expiresIn WRITE setExpiresIn NOTIFY optionsChanged)
    Q_PROPERTY(qint64 maxDownloads READ maxDownloads WRITE setMaxDownloads NOTIFY optionsChanged)
    Q_PROPERTY(QString password READ password WRITE setPassword NOTIFY optionsChanged)
    Q_PROPERTY(QString title READ title WRITE setTitle NOTIFY optionsChanged)
    Q_PROPERTY(QString message READ message WRITE setMessage NOTIFY optionsChanged)
    Q_PROPERTY(bool toSelf READ toSelf WRITE setToSelf NOTIFY optionsChanged)

    Q_PROPERTY(lofthaven::SendJobList *jobs READ jobs CONSTANT)
    Q_PROPERTY(
        QString focusedJobID READ focusedJobID WRITE setFocusedJobID NOTIFY focusedJobIDChanged)

    Q_PROPERTY(
        QString receiveInput READ receiveInput WRITE setReceiveInput NOTIFY receiveInputChanged)
    Q_PROPERTY(QString receivePassword READ receivePassword WRITE setReceivePassword NOTIFY
                   receivePasswordChanged)
    Q_PROPERTY(LookupState lookupState READ lookupState NOTIFY lookupChanged)
    Q_PROPERTY(QString lookupMessage READ lookupMessage NOTIFY lookupChanged)
    Q_PROPERTY(QVariantMap lookupTransfer READ lookupTransferMap NOTIFY lookupChanged)
    Q_PROPERTY(lofthaven::DownloadList *downloads READ downloads CONSTANT)
    Q_PROPERTY(QString previewURL READ previewURL WRITE setPreviewURL NOTIFY previewURLChanged)

    Q_PROPERTY(lofthaven::TransferList *inbox READ inbox CONSTANT)
    Q_PROPERTY(QString inboxError READ inboxError NOTIFY inboxErrorChanged)
    Q_PROPERTY(QDateTime inboxUpdated READ inboxUpdated NOTIFY inboxUpdatedChanged)
    Q_PROPERTY(QStringList seenInbox READ seenInboxList NOTIFY seenInboxChanged)
    Q_PROPERTY(int newInboxCount READ newInboxCount NOTIFY newInboxCountChanged)

    Q_PROPERTY(lofthaven::HistoryList *history READ history CONSTANT)
    Q_PROPERTY(lofthaven::TransferList *account READ account CONSTANT)
    Q_PROPERTY(bool accountLoading READ accountLoading NOTIFY accountLoadingChanged)
    Q_PROPERTY(QString accountError READ accountError NOTIFY accountErrorChanged)

    Q_PROPERTY(QVariantMap update READ updateMap NOTIFY updateChanged)

public:
    enum class Tab
    {
        Send,
        Receive,
        Devices,
        History
    };
    Q_ENUM(Tab)

    enum class LookupState
    {
        Idle,
        Loading,
        Found,
        Failed
    };
    Q_ENUM(LookupState)

    using Clock = std::function<QDateTime()>;
    using Sleeper = std::function<QCoro::Task<bool>(std::chrono::milliseconds, std::stop_token)>;
    using ClipboardWriter = std::function<void(const QString &)>;
    using NotificationPoster =
        std::function<void(const QString &title, const QString &body,
                           const std::optional<QString> &transferID, bool inbox)>;

    static constexpr std::chrono::seconds kPollInterval{15};
    static constexpr qint64 kRefreshThrottleMs = 3000;

    // Builds the state the way the app starts: defaults, history file, seen and announced inbox
    // items, the account of `session` (whose load() the caller has awaited, so a stored token
    // and the cached account show at once), and the default send options. Starts nothing.
    // Without a session the model makes its own, signed out. A given session must outlive the
    // model.
    explicit AppModel(AccountSession *session = nullptr, QObject *parent = nullptr);
    ~AppModel() override;

    // The account refresh, the update check and the inbox poll loop.
    Q_INVOKABLE void start();

    void setClock(Clock clock) { m_clock = std::move(clock); }
    void setSleeper(Sleeper sleeper) { m_sleeper = std::move(sleeper); }
    void setClipboardWriter(ClipboardWriter writer) { m_clipboard = std::move(writer); }
    void setNotificationPoster(NotificationPoster poster) { m_notify = std::move(poster); }
    QDateTime now() const { return m_clock(); }

    // ---- window and account ----
    Tab tab() const { return m_tab; }
    void setTab(Tab tab);
    bool windowDropTargeted() const { return m_windowDropTargeted; }
    void setWindowDropTargeted(bool targeted);
    bool applicationActive() const { return m_applicationActive; }
    // Becoming active also refreshes the inbox (throttled).
    void setApplicationActive(bool active);
    // The application came to the front, or the system woke from sleep: an unforced refresh.
    Q_INVOKABLE void applicationActivated();
    Q_INVOKABLE void systemResumed();

    AccountSession *session() const { return m_session; }
    std::optional<QString> token() const { return m_session->token(); }
    bool signedIn() const { return token().has_value(); }
    std::optional<MeResponse> me() const { return m_session->me(); }
    QVariantMap meMap() const;
    QVariantMap signInMap() const;
    qint64 maxBytes() const;
    QList<qint64> allowedExpiries() const;
    QVariantList allowedExpiryList() const;
    // Device sign-in and sign-out, through the account session.
    Q_INVOKABLE void startSignIn();
    Q_INVOKABLE void cancelSignIn();
    Q_INVOKABLE void signOut();
    // Asks the service for the account again; a refused token signs out with a notice.
    Q_INVOKABLE void refreshAccount();

    QString notice() const { return m_notice; }
    void setNotice(const QString &notice);
    Q_INVOKABLE void clearNotice();

    // ---- staging ----
    QStringList staged() const { return m_staged; }
    // Adds files and folders (paths or file: URLs) to the staged selection and plans it anew.
    Q_INVOKABLE void stage(const QStringList &paths);
    Q_INVOKABLE void unstage(const QString &path);
    Q_INVOKABLE void clearStaged();
    Q_INVOKABLE void cancelPlanning();
    const std::optional<SendPlan> &stagedPlan() const { return m_stagedPlan; }
    QVariantMap stagedPlanMap() const;
    QString stagedError() const { return m_stagedError; }
    bool planning() const { return m_planning; }

    // ---- send options ----
    const SendOptions &options() const { return m_options; }
    void setOptions(const SendOptions &options);
    qint64 expiresIn() const { return m_options.expiresIn; }
    // Also remembered as the preferred lifetime of later sends.
    void setExpiresIn(qint64 seconds);
    qint64 maxDownloads() const { return m_options.maxDownloads; }
    void setMaxDownloads(qint64 count);
    QString password() const { return m_options.password; }
    void setPassword(const QString &password);
    QString title() const { return m_options.title; }
    void setTitle(const QString &title);
    QString message() const { return m_options.message; }
    void setMessage(const QString &message);
    bool toSelf() const { return m_options.toSelf; }
    void setToSelf(bool toSelf);
    SendOptions defaultOptions(bool toSelf = false) const;

    // ---- send jobs ----
    SendJobList *jobs() const { return m_jobs; }
    QString focusedJobID() const { return m_focusedJobID; }
    void setFocusedJobID(const QString &id);
    // Why the plan may not be sent, or nothing.
    std::optional<QString> sendBlocker(const SendPlan &plan, bool toSelf) const;
    // The blocker of the staged plan with the current options ("" when it may be sent).
    Q_INVOKABLE QString stagedBlocker() const;
    // Sends the staged plan with the current options from the main window; the job id, or ""
    // when nothing was started (the reason is in `notice`).
    Q_INVOKABLE QString send();
    SendJob *startJob(const SendPlan &plan, const SendOptions &options, SendJob::Origin origin);
    Q_INVOKABLE void cancelJob(const QString &id);
    // Starts the same plan and options again as a new job.
    Q_INVOKABLE QString retryJob(const QString &id);
    Q_INVOKABLE void dismissJob(const QString &id);
    // A send started outside the main window (file manager, tray): plans, checks and starts,
    // with notices instead of screens. Resolves to the job, or nothing when refused.
    QCoro::Task<SendJob *> serviceSend(QStringList paths, bool toSelf, SendJob::Origin origin);
    Q_INVOKABLE void startServiceSend(const QStringList &paths, bool toSelf,
                                      lofthaven::SendJob::Origin origin);

    // ---- receive ----
    QString receiveInput() const { return m_receiveInput; }
    void setReceiveInput(const QString &text);
    QString receivePassword() const { return m_receivePassword; }
    void setReceivePassword(const QString &text);
    LookupState lookupState() const { return m_lookupState; }
    QString lookupMessage() const { return m_lookupMessage; }
    const std::optional<TransferMeta> &foundTransfer() const { return m_found; }
    QVariantMap lookupTransferMap() const;
    // Looks up what receiveInput names; a new lookup replaces a running one.
    Q_INVOKABLE void lookup();
    Q_INVOKABLE void resetReceive();
    // Downloads the found transfer, unlocking it with receivePassword when it needs one.
    // `unzip` true/false, or undefined for the "unzipAfterDownload" preference.
    Q_INVOKABLE void downloadFound(const QVariant &unzip = {});
    DownloadList *downloads() const { return m_downloads; }
    // One download per transfer: ignored while that transfer's job is active.
    void startDownload(const TransferMeta &meta, std::optional<QString> unlockToken,
                       std::optional<bool> unzip, bool notify);
    Q_INVOKABLE void cancelDownload(const QString &id);
    Q_INVOKABLE void retryDownload(const QString &id);
    Q_INVOKABLE void removeDownload(const QString &id);
    QString previewURL() const { return m_previewURL; }
    void setPreviewURL(const QString &url);

    // ---- devices inbox ----
    TransferList *inbox() const { return m_inbox; }
    QString inboxError() const { return m_inboxError; }
    QDateTime inboxUpdated() const { return m_inboxUpdated; }
    QSet<QString> seenInbox() const { return m_seenInbox; }
    QStringList seenInboxList() const
    {
        return QStringList(m_seenInbox.begin(), m_seenInbox.end());
    }
    QSet<QString> notifiedInbox() const { return m_notifiedInbox; }
    int newInboxCount() const { return m_newInboxCount; }
    // (Re)starts the poll loop; signed out, only stops it.
    Q_INVOKABLE void startPolling();
    void stopPolling();
    Q_INVOKABLE void refreshInbox(bool force);
    QCoro::Task<void> refreshInboxTask(bool force);
    Q_INVOKABLE void markInboxSeen();
    // The "Download" action of an inbox notification.
    Q_INVOKABLE void downloadInboxItem(const QString &id);

    // ---- history ----
    HistoryList *history() const { return m_history; }
    QString historyPath() const { return m_historyPath; }
    void saveHistory();
    Q_INVOKABLE void extend(const QString &id);
    Q_INVOKABLE void deleteTransfer(const QString &id);
    Q_INVOKABLE void forget(const QString &id);
    // The same operations for callers that wait (the command line); true on success.
    QCoro::Task<bool> extendTask(QString id);
    QCoro::Task<bool> deleteTask(QString id);
    TransferList *account() const { return m_account; }
    bool accountLoading() const { return m_accountLoading; }
    QString accountError() const { return m_accountError; }
    Q_INVOKABLE void refreshAccountTransfers();
    QCoro::Task<void> refreshAccountTransfersTask();

    // ---- update ----
    const std::optional<UpdateNotice> &update() const { return m_update; }
    QVariantMap updateMap() const;
    QCoro::Task<void> checkForUpdateTask();
    Q_INVOKABLE void checkForUpdate();
    Q_INVOKABLE void dismissUpdate();

Q_SIGNALS:
    void tabChanged();
    void windowDropTargetedChanged();
    void applicationActiveChanged();
    void signedInChanged();
    void meChanged();
    void signInChanged();
    void noticeChanged();
    void stagedChanged();
    void stagedPlanChanged();
    void stagedErrorChanged();
    void planningChanged();
    void optionsChanged();
    void focusedJobIDChanged();
    void receiveInputChanged();
    void receivePasswordChanged();
    void lookupChanged();
    void previewURLChanged();
    void inboxErrorChanged();
    void inboxUpdatedChanged();
    void seenInboxChanged();
    void newInboxCountChanged();
    void accountLoadingChanged();
    void accountErrorChanged();
    void updateChanged();
    // A send job reached `done`, `failed` or `cancelled`.
    void jobFinished(const QString &id);
    // A download reached `done`, `failed` or `cancelled`.
    void downloadFinished(const QString &id);

private:
    struct DownloadRequest
    {
        TransferMeta meta;
        std::optional<QString> unlockToken;
        std::optional<bool> unzip;
        bool notify = false;
    };

    void checkThread() const;
    // Whether the history or the account's list knows the transfer; the owner token a change to
    // it needs, none for the account's own transfers (the bearer token authorises those).
    bool ownerTokenFor(const QString &id, std::optional<QString> &ownerToken) const;
    // The notice "<what><reason>" for a change that failed, none for a cancelled one; false.
    bool changeFailed(const QString &what, std::exception_ptr failure);
    void accountChanged();
    void signedInNow();
    void signedOutNow();
    void post(const QString &title, const QString &body,
              const std::optional<QString> &transferID = std::nullopt, bool inbox = false);
    APIClient client() const { return APIClient(token()); }
    double nowMs() const { return double(m_clock().toMSecsSinceEpoch()); }

    void replan();
    void setPlanning(bool planning);
    void setStagedPlan(std::optional<SendPlan> plan, const QString &error);
    QCoro::Task<void> planTask(QList<QString> paths, std::stop_token stop);

    QCoro::Task<void> runJob(SendJob *job, APIClient client, QString tempRoot);
    void announceCompletion(const SendJob &job, const HistoryEntry &entry);

    void setLookup(LookupState state, std::optional<TransferMeta> found, const QString &message);
    QCoro::Task<void> lookupTask(QString input, std::stop_token stop);
    QCoro::Task<void> downloadFoundTask(TransferMeta meta, QString password,
                                        std::optional<bool> unzip);
    QCoro::Task<void> downloadTask(DownloadJob *job, DownloadRequest request);

    QCoro::Task<void> pollLoop(std::stop_token stop);
    void setInboxError(const QString &error);
    void setSeenInbox(QSet<QString> seen);
    void storeInboxSets();
    void publishNewInboxCount();

    void loadHistory();
    void historyFileChanged();
    void setAccountLoading(bool loading);
    void setAccountError(const QString &error);

    Clock m_clock;
    Sleeper m_sleeper;
    ClipboardWriter m_clipboard;
    NotificationPoster m_notify;

    Tab m_tab = Tab::Send;
    bool m_windowDropTargeted = false;
    bool m_applicationActive = false;
    AccountSession *m_session;
    QString m_notice;

    QStringList m_staged;
    std::optional<SendPlan> m_stagedPlan;
    QString m_stagedError;
    bool m_planning = false;
    std::stop_source m_planStop;
    SendOptions m_options;

    SendJobList *m_jobs;
    QString m_focusedJobID;

    QString m_receiveInput;
    QString m_receivePassword;
    LookupState m_lookupState = LookupState::Idle;
    std::optional<TransferMeta> m_found;
    QString m_lookupMessage;
    std::stop_source m_lookupStop;
    DownloadList *m_downloads;
    QHash<QString, DownloadRequest> m_downloadRequests;
    QString m_previewURL;

    TransferList *m_inbox;
    QString m_inboxError;
    QDateTime m_inboxUpdated;
    QSet<QString> m_seenInbox;
    QSet<QString> m_notifiedInbox;
    int m_newInboxCount = 0;
    std::stop_source m_pollStop;
    // Ends every request of the signed-in session at sign-out.
    std::stop_source m_sessionStop;
    QDateTime m_lastPoll;

    HistoryList *m_history;
    QString m_historyPath;
    QByteArray m_historyWritten;
    QFileSystemWatcher *m_historyWatcher = nullptr;
    TransferList *m_account;
    bool m_accountLoading = false;
    QString m_accountError;

    std::optional<UpdateNotice> m_update;
    std::stop_source m_lifetimeStop;
};

} // namespace lofthaven
