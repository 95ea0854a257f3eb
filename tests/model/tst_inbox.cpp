// The devices inbox of a signed-in model against the local service: the first load taken as
// seen, each later item announced once (also after a restart), auto-download of unprotected
// items, the throttle of unforced refreshes, the poll loop's schedule and an expired sign-in.
#include "api/apiclient.h"
#include "api/serviceorigin.h"
#include "isolatedhome.h"
#include "localservice.h"
#include "model/appmodel.h"
#include "platform/credentialstore.h"
#include "platform/preferences.h"
#include "platform/stoppablesleep.h"
#include "platform/waitfortask.h"
#include "testdata.h"

#include <QSignalSpy>
#include <QTest>
#include <QTimer>

using namespace lofthaven;
using namespace lofthaven::testing;
using namespace std::chrono_literals;

namespace {

constexpr int kWait = 60000;

// Sign-in polls without waiting out the service's interval.
class QuickPollClock : public PollClock
{
public:
    QCoro::Task<bool> sleep(std::chrono::milliseconds, std::stop_token stop) override
    {
        auto sleeping = stoppableSleep(20ms, stop);
        co_return co_await sleeping;
    }
};

} // namespace

class TestInbox : public QObject
{
    Q_OBJECT

    LocalService m_service{{1024, {QStringLiteral("--device-interval"), QStringLiteral("0.02")}}};
    QTemporaryDir m_files;
    std::unique_ptr<AccountSession> m_session;
    std::unique_ptr<AppModel> m_model;
    QStringList m_announced;
    QDateTime m_now = QDateTime::currentDateTimeUtc();
    int m_accounts = 0;

    void signIn()
    {
        m_session = std::make_unique<AccountSession>();
        m_session->setClock(std::make_shared<QuickPollClock>());
        AccountSession *session = m_session.get();
        const QString email = QStringLiteral("inbox%1@example.com").arg(++m_accounts);
        session->setUrlOpener([this, session, email](const QUrl &) {
            const QString code = session->signIn()->userCode;
            QTimer::singleShot(0, [this, code, email] {
                m_service.control("POST", QStringLiteral("/__test/device/approve"),
                                  {{"userCode", code}, {"email", email}});
            });
        });
        waitForTask(session->startSignIn());
    }

    AppModel &makeModel()
    {
        m_model = std::make_unique<AppModel>(m_session.get());
        m_model->setClock([this] { return m_now; });
        m_model->setNotificationPoster([this](const QString &title, const QString &body,
                                              const std::optional<QString> &id, bool inbox) {
            if (inbox)
                m_announced.append(id.value_or(QString()) + u'|' + title + u'|' + body);
        });
        return *m_model;
    }

    // Sends a file to the signed-in user's devices through the model; returns its id.
    QString sendToDevices(const QString &name, const QString &password = {})
    {
        const QString path = m_files.filePath(name);
        if (!writeFile(path, name.toUtf8()))
            return {};
        SendOptions options = m_model->defaultOptions(true);
        options.password = password;
        SendJob *job = m_model->startJob(SendPlan::make({path}), options, SendJob::Origin::Devices);
        if (!QTest::qWaitFor([job] { return !job->isActive(); }, kWait) || !job->entry())
            return {};
        return job->entry()->id;
    }

    int inboxRequests()
    {
        return int(m_service.requests(QStringLiteral("GET"), "/api/me/inbox").size());
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_service.start(), qPrintable(m_service.error()));
        ServiceOrigin::setUrl(m_service.origin());
    }

    void init()
    {
        for (Preference key : {Preference::InboxSeeded, Preference::SeenInbox,
                               Preference::NotifiedInbox, Preference::AutoDownload})
            removePreference(key);
        m_announced.clear();
        signIn();
        QVERIFY(m_session->token());
    }

    void cleanup()
    {
        m_model.reset();
        m_session.reset();
    }

    void firstLoadSeedsThenEachItemIsAnnouncedOnce()
    {
        AppModel &model = makeModel();
        const QString before = sendToDevices(QStringLiteral("before.txt"));
        QSignalSpy updated(&model, &AppModel::inboxUpdatedChanged);
        waitForTask(model.refreshInboxTask(true));
        QCOMPARE(model.inbox()->count(), 1);
        QCOMPARE(updated.size(), 1);
        QVERIFY(m_announced.isEmpty());
        QCOMPARE(model.newInboxCount(), 0);
        QVERIFY(model.seenInbox().contains(before));

        const QString later = sendToDevices(QStringLiteral("later.txt"));
        QSignalSpy count(&model, &AppModel::newInboxCountChanged);
        waitForTask(model.refreshInboxTask(true));
        QCOMPARE(model.inbox()->count(), 2);
        QCOMPARE(m_announced.size(), 1);
        QVERIFY2(
            m_announced.first().startsWith(later + QStringLiteral("|New file from Lofthaven for ")),
            qPrintable(m_announced.first()));
        QVERIFY(m_announced.first().endsWith(QStringLiteral("|later.txt (9 bytes)")));
        QCOMPARE(model.newInboxCount(), 1);
        QCOMPARE(count.size(), 1);
        waitForTask(model.refreshInboxTask(true));
        QCOMPARE(m_announced.size(), 1);

        // A restart remembers what was announced and what was seen.
        AppModel &restarted = makeModel();
        waitForTask(restarted.refreshInboxTask(true));
        QCOMPARE(m_announced.size(), 1);
        QCOMPARE(restarted.newInboxCount(), 1);
        restarted.markInboxSeen();
        QCOMPARE(restarted.newInboxCount(), 0);
        QVERIFY(stringArrayPreference(Preference::SeenInbox).contains(later));
    }

    void autoDownloadSkipsProtectedItems()
    {
        AppModel &model = makeModel();
        waitForTask(model.refreshInboxTask(true)); // seeds an empty inbox
        setBoolPreference(Preference::AutoDownload, true);
        const QString open = sendToDevices(QStringLiteral("open.txt"));
        const QString locked = sendToDevices(QStringLiteral("locked.txt"), QStringLiteral("pw"));
        waitForTask(model.refreshInboxTask(true));
        QCOMPARE(m_announced.size(), 2);
        QVERIFY(!model.downloads()->find(locked));
        QVERIFY(model.downloads()->find(open));
        DownloadJob *job = model.downloads()->find(open);
        QTRY_VERIFY_WITH_TIMEOUT(!job->isActive(), kWait);
        QCOMPARE(job->state(), DownloadJob::State::Done);
        QCOMPARE(readFile(job->result()), QByteArray("open.txt"));

        // The notification's "Download" cannot carry a password: the job says it is missing.
        model.downloadInboxItem(locked);
        QTRY_VERIFY_WITH_TIMEOUT(model.downloads()->find(locked), kWait);
        QCOMPARE(model.downloads()->find(locked)->message(),
                 QStringLiteral("This transfer is password protected. Enter the password."));
    }

    void devicesTabInFrontSeesEverything()
    {
        AppModel &model = makeModel();
        waitForTask(model.refreshInboxTask(true));
        model.setTab(AppModel::Tab::Devices);
        model.setApplicationActive(true);
        sendToDevices(QStringLiteral("seen.txt"));
        waitForTask(model.refreshInboxTask(true));
        QCOMPARE(m_announced.size(), 1);
        QCOMPARE(model.newInboxCount(), 0);
    }

    void activationsWithinThreeSecondsMakeOneRequest()
    {
        AppModel &model = makeModel();
        const int before = inboxRequests();
        model.applicationActivated();
        model.systemResumed();
        model.applicationActivated();
        QTRY_COMPARE_WITH_TIMEOUT(model.inboxUpdated(), m_now, kWait);
        QCOMPARE(inboxRequests(), before + 1);
        m_now = m_now.addMSecs(2999);
        waitForTask(model.refreshInboxTask(false));
        QCOMPARE(inboxRequests(), before + 1);
        m_now = m_now.addMSecs(1);
        waitForTask(model.refreshInboxTask(false));
        QCOMPARE(inboxRequests(), before + 2);
    }

    void pollLoopLoadsEvery15Seconds()
    {
        AppModel &model = makeModel();
        QList<qint64> sleeps;
        model.setSleeper(
            [&sleeps](std::chrono::milliseconds wait, std::stop_token stop) -> QCoro::Task<bool> {
                sleeps.append(wait.count());
                auto pausing = stoppableSleep(1ms, stop);
                co_await pausing;
                co_return sleeps.size() < 3;
            });
        const int before = inboxRequests();
        model.startPolling();
        QTRY_COMPARE_WITH_TIMEOUT(sleeps.size(), 3, kWait);
        QCOMPARE(sleeps, (QList<qint64>{15000, 15000, 15000}));
        QCOMPARE(inboxRequests(), before + 3);
    }

    // A failed load keeps the list and says why; the account's list loads with its flag.
    void failuresKeepTheListsAndSayWhy()
    {
        AppModel &model = makeModel();
        sendToDevices(QStringLiteral("kept.txt"));
        waitForTask(model.refreshInboxTask(true));
        m_service.addFault({{"path", "/api/me/inbox"}, {"status", 503}});
        QSignalSpy errors(&model, &AppModel::inboxErrorChanged);
        waitForTask(model.refreshInboxTask(true));
        QCOMPARE(model.inbox()->count(), 1);
        QVERIFY(!model.inboxError().isEmpty());
        waitForTask(model.refreshInboxTask(true));
        QVERIFY(model.inboxError().isEmpty());
        QCOMPARE(errors.size(), 2);

        QList<bool> loading;
        connect(&model, &AppModel::accountLoadingChanged, this,
                [&] { loading.append(model.accountLoading()); });
        waitForTask(model.refreshAccountTransfersTask());
        QCOMPARE(loading, (QList<bool>{true, false}));
        QCOMPARE(model.account()->count(), 1);
        m_service.addFault({{"path", "/api/me/transfers"}, {"status", 500}});
        waitForTask(model.refreshAccountTransfersTask());
        QVERIFY(!model.accountError().isEmpty());
        QCOMPARE(model.account()->count(), 1);
    }

    // The account of the last run shows before any request, and only with a stored token.
    void cachedAccountShownAtOnce()
    {
        AccountSession restarted;
        waitForTask(restarted.load());
        QVERIFY(restarted.token());
        const int asked = int(m_service.requests(QStringLiteral("GET"), "/api/me").size());
        {
            AppModel model(&restarted);
            QVERIFY(model.signedIn());
            QCOMPARE(model.me(), m_session->me());
            QVERIFY(model.maxBytes() > 524288000);
            QCOMPARE(model.meMap().value(QStringLiteral("signedIn")).toBool(), true);
        }
        QCOMPARE(int(m_service.requests(QStringLiteral("GET"), "/api/me").size()), asked);

        const QByteArray cached = dataPreference(Preference::CachedMe).value_or(QByteArray());
        QVERIFY(!cached.isEmpty());
        m_session.reset();
        waitForTask(deleteToken());
        setDataPreference(Preference::CachedMe, cached);
        AccountSession signedOut;
        waitForTask(signedOut.load());
        AppModel model(&signedOut);
        QVERIFY(!model.signedIn());
        QVERIFY(!model.me());
        QCOMPARE(model.maxBytes(), 524288000);
    }

    void expiredSignInSignsOut()
    {
        AppModel &model = makeModel();
        waitForTask(model.refreshInboxTask(true));
        model.setToSelf(true);
        waitForTask(APIClient(m_session->token()).logout()); // revoked elsewhere
        QSignalSpy signedIn(&model, &AppModel::signedInChanged);
        waitForTask(model.refreshInboxTask(true));
        QTRY_VERIFY_WITH_TIMEOUT(!model.signedIn(), kWait);
        QCOMPARE(signedIn.size(), 1);
        QCOMPARE(model.notice(),
                 QStringLiteral("Your sign-in expired. Sign in again to use your account."));
        QCOMPARE(model.inbox()->count(), 0);
        QVERIFY(!model.toSelf());
        QCOMPARE(model.newInboxCount(), 0);
        // Signed out, nothing is asked.
        const int before = inboxRequests();
        waitForTask(model.refreshInboxTask(true));
        model.startPolling();
        QCOMPARE(inboxRequests(), before);
    }
};

LOFTHAVEN_ISOLATED_TEST_MAIN(TestInbox)
#include "tst_inbox.moc"
