// AppModel driven through its own operations against a real local service, with no display:
// a folder staged, sent, found by its code and downloaded again; the history file; the job list;
// notices; extend, delete and forget.
#include "api/apiclient.h"
#include "api/serviceorigin.h"
#include "isolatedhome.h"
#include "localservice.h"
#include "model/appmodel.h"
#include "model/historyfile.h"
#include "platform/folders.h"
#include "platform/preferences.h"
#include "platform/waitfortask.h"
#include "testdata.h"

#include <QDirIterator>
#include <QSignalSpy>
#include <QTest>

#include <sys/stat.h>

using namespace lofthaven;
using namespace lofthaven::testing;

namespace {

constexpr int kWait = 60000;

struct Posted
{
    QString title;
    QString body;
    std::optional<QString> transferID;
    bool inbox = false;
};

int modeOf(const QString &path)
{
    struct stat info = {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 0777) : -1;
}

} // namespace

class TestAppModel : public QObject
{
    Q_OBJECT

    LocalService m_service{{1024, {}}};
    QTemporaryDir m_files;
    std::unique_ptr<AppModel> m_model;
    QList<Posted> m_posted;
    QStringList m_clipboard;

    AppModel &makeModel()
    {
        m_model = std::make_unique<AppModel>();
        m_posted.clear();
        m_clipboard.clear();
        m_model->setNotificationPoster([this](const QString &title, const QString &body,
                                              const std::optional<QString> &id, bool inbox) {
            m_posted.append({title, body, id, inbox});
        });
        m_model->setClipboardWriter([this](const QString &text) { m_clipboard.append(text); });
        return *m_model;
    }

    QString makeFile(const QString &name, const QByteArray &bytes)
    {
        const QString path = m_files.filePath(name);
        return writeFile(path, bytes) ? path : QString();
    }

    SendPlan planOf(const QString &path) { return SendPlan::make({path}); }

    // Runs a job to its end.
    SendJob *sendAndWait(const QString &path, SendJob::Origin origin = SendJob::Origin::Window)
    {
        SendJob *job = m_model->startJob(planOf(path), m_model->options(), origin);
        [[maybe_unused]] const bool ended =
            QTest::qWaitFor([job] { return !job->isActive(); }, kWait);
        return job;
    }

    int requestCount(const QString &method, const QString &path)
    {
        return int(m_service.requests(method, path).size());
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_service.start(), qPrintable(m_service.error()));
        ServiceOrigin::setUrl(m_service.origin());
    }

    void cleanup()
    {
        m_model.reset();
        QFile::remove(HistoryFile::defaultPath());
    }

    // The whole way through the model's operations: stage a folder, send it, find it by its
    // code, download it (unzipped) and compare every byte.
    void sendFolderThenReceiveIt()
    {
        const QString folder = m_files.filePath(QStringLiteral("Trip"));
        const QByteArray big = randomBytes(300 * 1024, 7);
        QVERIFY(writeFile(folder + QStringLiteral("/photo.jpg"), big));
        QVERIFY(writeFile(folder + QStringLiteral("/notes/day 1.txt"), "sunny"));
        QVERIFY(writeFile(folder + QStringLiteral("/.hidden"), ""));

        AppModel &model = makeModel();
        QSignalSpy planning(&model, &AppModel::planningChanged);
        QSignalSpy planned(&model, &AppModel::stagedPlanChanged);
        model.stage({QUrl::fromLocalFile(folder).toString()});
        QCOMPARE(model.staged(), QStringList{folder});
        // A small plan can be ready before stage() returns: count the changes, not the state.
        QTRY_VERIFY_WITH_TIMEOUT(!model.planning(), kWait);
        QCOMPARE(planning.size(), 2);
        QVERIFY(planned.size() >= 1);
        QVERIFY2(model.stagedError().isEmpty(), qPrintable(model.stagedError()));
        QCOMPARE(model.stagedPlanMap().value(QStringLiteral("name")).toString(),
                 QStringLiteral("Trip.zip"));

        QSignalSpy historyCount(model.history(), &HistoryList::countChanged);
        const QString id = model.send();
        QVERIFY(!id.isEmpty());
        QCOMPARE(model.focusedJobID(), id);
        QVERIFY(model.staged().isEmpty());
        SendJob *job = model.jobs()->find(id);
        QVERIFY(job);
        QList<SendJob::State> states;
        connect(job, &SendJob::stateChanged, this, [&] { states.append(job->state()); });
        QTRY_VERIFY_WITH_TIMEOUT(!job->isActive(), kWait);
        QCOMPARE(job->state(), SendJob::State::Done);
        QCOMPARE(states.last(), SendJob::State::Done);
        QCOMPARE(job->sent(), job->size());
        QCOMPARE(historyCount.size(), 1);

        // Saved at once, private, and readable by the next start.
        const QString historyPath = HistoryFile::defaultPath();
        QCOMPARE(modeOf(historyPath), 0600);
        const auto saved = HistoryFile::read(historyPath);
        QVERIFY(saved);
        QCOMPARE(saved->size(), 1);
        const HistoryEntry entry = saved->first();
        QCOMPARE(entry, *job->entry());
        QCOMPARE(entry.name, QStringLiteral("Trip.zip"));
        QCOMPARE(entry.fileCount, std::optional<int>(3));
        QVERIFY(!entry.ownerToken.isEmpty());
        QVERIFY(entry.createdAt > 1.6e12);

        // Receive it by its code, typed with a space.
        QList<AppModel::LookupState> lookups;
        connect(&model, &AppModel::lookupChanged, this,
                [&] { lookups.append(model.lookupState()); });
        model.setReceiveInput(entry.code.left(3) + u' ' + entry.code.mid(3) + u'\n');
        model.lookup();
        QTRY_VERIFY_WITH_TIMEOUT(model.lookupState() != AppModel::LookupState::Loading, kWait);
        QCOMPARE(lookups, (QList{AppModel::LookupState::Loading, AppModel::LookupState::Found}));
        QCOMPARE(model.foundTransfer()->id, entry.id);

        QSignalSpy downloads(model.downloads(), &DownloadList::countChanged);
        model.downloadFound();
        QTRY_VERIFY_WITH_TIMEOUT(model.downloads()->find(entry.id), kWait);
        DownloadJob *download = model.downloads()->find(entry.id);
        QTRY_VERIFY_WITH_TIMEOUT(!download->isActive(), kWait);
        QCOMPARE(download->state(), DownloadJob::State::Done);
        QCOMPARE(download->result(), downloadFolder() + QStringLiteral("/Trip"));
        QCOMPARE(filesBelow(download->result()), filesBelow(folder));
        QCOMPARE(filesBelow(download->result()).value(QStringLiteral("photo.jpg")), big);
        QCOMPARE(downloads.size(), 1);
        // Not in front: the end of the download is announced.
        QCOMPARE(m_posted.last().title, QStringLiteral("Downloaded Trip.zip"));

        // A second start of the same finished download replaces it; a running one is kept.
        model.startDownload(*model.foundTransfer(), std::nullopt, false, false);
        DownloadJob *again = model.downloads()->find(entry.id);
        QVERIFY(again != download);
        model.startDownload(*model.foundTransfer(), std::nullopt, false, false);
        QCOMPARE(model.downloads()->find(entry.id), again);
        QCOMPARE(model.downloads()->count(), 1);
        QTRY_VERIFY_WITH_TIMEOUT(!again->isActive(), kWait);
        QCOMPARE(readFile(again->result()).size(), entry.size);
    }

    // What the service answers is mapped in the lookup's own test; here the model's states and
    // the host it names.
    void lookupFailureAndReset()
    {
        AppModel &model = makeModel();
        model.setReceiveInput(QStringLiteral("call me at 555 123 4567"));
        model.lookup();
        QTRY_VERIFY_WITH_TIMEOUT(model.lookupState() == AppModel::LookupState::Failed, kWait);
        QCOMPARE(model.lookupMessage(), QStringLiteral("Enter the 6-digit code or paste a ") +
                                            QUrl(m_service.origin()).host() +
                                            QStringLiteral(" link."));
        model.resetReceive();
        QCOMPARE(model.lookupState(), AppModel::LookupState::Idle);
    }

    void protectedTransferNeedsThePassword()
    {
        AppModel &model = makeModel();
        model.setPassword(QStringLiteral("s3cret"));
        SendJob *job = sendAndWait(makeFile(QStringLiteral("locked.txt"), "locked bytes"));
        QCOMPARE(job->state(), SendJob::State::Done);
        model.setReceiveInput(job->url());
        model.lookup();
        QTRY_VERIFY_WITH_TIMEOUT(model.lookupState() == AppModel::LookupState::Found, kWait);
        model.downloadFound(false);
        QTRY_VERIFY_WITH_TIMEOUT(model.downloads()->find(job->entry()->id), kWait);
        DownloadJob *refused = model.downloads()->find(job->entry()->id);
        QCOMPARE(refused->state(), DownloadJob::State::Failed);
        QCOMPARE(refused->message(),
                 QStringLiteral("This transfer is password protected. Enter the password."));

        model.setReceivePassword(QStringLiteral("s3cret"));
        model.retryDownload(job->entry()->id);
        QTRY_VERIFY_WITH_TIMEOUT(model.downloads()->find(job->entry()->id) != refused, kWait);
        DownloadJob *unlocked = model.downloads()->find(job->entry()->id);
        QTRY_VERIFY_WITH_TIMEOUT(!unlocked->isActive(), kWait);
        QCOMPARE(unlocked->state(), DownloadJob::State::Done);
        QCOMPARE(readFile(unlocked->result()), QByteArray("locked bytes"));
    }

    void stagingFollowsEveryChange()
    {
        AppModel &model = makeModel();
        const QString a = makeFile(QStringLiteral("stage/a.txt"), "a");
        const QString b = makeFile(QStringLiteral("stage/b.txt"), "bb");
        QSignalSpy staged(&model, &AppModel::stagedChanged);
        model.stage({a});
        model.stage({a, b}); // a is there already
        QCOMPARE(model.staged(), (QStringList{a, b}));
        QCOMPARE(staged.size(), 2);
        QTRY_VERIFY_WITH_TIMEOUT(!model.planning(), kWait);
        // Only the last staging's plan counts, never an older one that finished later.
        QCOMPARE(model.stagedPlan()->items.size(), 2);
        model.unstage(a);
        QTRY_VERIFY_WITH_TIMEOUT(!model.planning(), kWait);
        QCOMPARE(model.stagedPlan()->name, QStringLiteral("b.txt"));
        model.stage({m_files.filePath(QStringLiteral("missing"))});
        QTRY_VERIFY_WITH_TIMEOUT(!model.planning(), kWait);
        QVERIFY(!model.stagedError().isEmpty());
        QVERIFY(!model.stagedPlan());
        model.clearStaged();
        QVERIFY(model.staged().isEmpty());
        QVERIFY(model.stagedError().isEmpty());
        QCOMPARE(staged.size(), 5);
    }

    void sizeLimitRefusesBeforeSending()
    {
        AppModel &model = makeModel();
        const QString over = m_files.filePath(QStringLiteral("over.bin"));
        QVERIFY(makeSparseFile(over, 524288000 + 1));
        model.stage({over});
        QTRY_VERIFY_WITH_TIMEOUT(!model.planning(), kWait);
        QVERIFY(model.stagedBlocker().startsWith(QStringLiteral("over.bin is 500 MB; the limit")));
        const int creates = requestCount(QStringLiteral("POST"), QStringLiteral("/api/transfers"));
        QVERIFY(model.send().isEmpty());
        QCOMPARE(model.notice(), model.stagedBlocker());
        QCOMPARE(model.jobs()->count(), 0);
        QCOMPARE(requestCount(QStringLiteral("POST"), QStringLiteral("/api/transfers")), creates);
    }

    void twentyFirstJobPushesTheOldestOut()
    {
        AppModel &model = makeModel();
        const SendPlan plan = planOf(makeFile(QStringLiteral("tiny.txt"), "tiny"));
        QStringList ids;
        for (int n = 0; n < 21; ++n)
            ids.prepend(model.startJob(plan, model.options(), SendJob::Origin::Window)->id());
        QCOMPARE(model.jobs()->count(), 20);
        QVERIFY(!model.jobs()->find(ids.last()));
        QCOMPARE(model.jobs()->at(0)->id(), ids.first());
        QTRY_COMPARE_WITH_TIMEOUT(model.jobs()->activeCount(), 0, kWait);
        // The job pushed out still finished its send and left its entry.
        QTRY_COMPARE_WITH_TIMEOUT(model.history()->count(), 21, kWait);
    }

    void completionNotices_data()
    {
        QTest::addColumn<SendJob::Origin>("origin");
        QTest::addColumn<bool>("active");
        QTest::addColumn<QString>("title"); // empty: nothing posted
        QTest::addColumn<bool>("copied");
        QTest::newRow("window, in front") << SendJob::Origin::Window << true << QString() << false;
        QTest::newRow("window, behind")
            << SendJob::Origin::Window << false << QStringLiteral("Ready to share") << false;
        QTest::newRow("file manager")
            << SendJob::Origin::Service << true << QStringLiteral("Link copied") << true;
        QTest::newRow("tray") << SendJob::Origin::MenuBar << false << QStringLiteral("Link copied")
                              << true;
    }
    void completionNotices()
    {
        QFETCH(SendJob::Origin, origin);
        QFETCH(bool, active);
        QFETCH(QString, title);
        QFETCH(bool, copied);
        AppModel &model = makeModel();
        model.setApplicationActive(active);
        SendJob *job = sendAndWait(makeFile(QStringLiteral("notice.txt"), "n"), origin);
        const HistoryEntry entry = *job->entry();
        const QString code = entry.code.left(3) + u' ' + entry.code.mid(3);
        QCOMPARE(m_clipboard, copied ? QStringList{entry.url} : QStringList());
        if (title.isEmpty()) {
            QVERIFY(m_posted.isEmpty());
            return;
        }
        QCOMPARE(m_posted.size(), 1);
        QCOMPARE(m_posted.first().title, title);
        const QString body = copied ? QString(QStringLiteral("notice.txt · ") + entry.url +
                                              QStringLiteral(" · code ") + code)
                                    : QString(QStringLiteral("notice.txt · code ") + code);
        QCOMPARE(m_posted.first().body, body);
    }

    void serviceSendRefusalsBecomeNotices()
    {
        AppModel &model = makeModel();
        const QString file = makeFile(QStringLiteral("mine.txt"), "m");
        SendJob *job = waitForTask(model.serviceSend({file}, true, SendJob::Origin::Service));
        QVERIFY(!job);
        QCOMPARE(model.notice(), QStringLiteral("Sign in to send files to your devices."));
        QCOMPARE(m_posted.first().title, QStringLiteral("Couldn't send mine.txt"));
        QVERIFY(!waitForTask(model.serviceSend({m_files.filePath(QStringLiteral("gone"))}, false,
                                               SendJob::Origin::MenuBar)));
        QCOMPARE(m_posted.last().title, QStringLiteral("Couldn't send"));
        QCOMPARE(model.jobs()->count(), 0);
    }

    void failedAndCancelledJobsLeaveNoEntry()
    {
        AppModel &model = makeModel();
        m_service.addFault({{"method", "POST"}, {"path", "/api/transfers"}, {"status", 403}});
        SendJob *failed = sendAndWait(makeFile(QStringLiteral("f.txt"), "f"));
        QCOMPARE(failed->state(), SendJob::State::Failed);
        QVERIFY(!failed->message().isEmpty());

        m_service.addFault({{"method", "POST"}, {"path", "/api/transfers"}, {"stallSeconds", 5}});
        SendJob *cancelled = model.startJob(planOf(m_files.filePath(QStringLiteral("f.txt"))),
                                            model.options(), SendJob::Origin::Window);
        model.cancelJob(cancelled->id());
        QTRY_VERIFY_WITH_TIMEOUT(!cancelled->isActive(), kWait);
        QCOMPARE(cancelled->state(), SendJob::State::Cancelled);
        QCOMPARE(model.history()->count(), 0);
        QVERIFY(!QFile::exists(HistoryFile::defaultPath()));

        const QString retried = model.retryJob(failed->id());
        QVERIFY(!model.jobs()->find(failed->id()));
        QTRY_COMPARE_WITH_TIMEOUT(model.jobs()->find(retried)->state(), SendJob::State::Done,
                                  kWait);
        QCOMPARE(model.history()->count(), 1);
    }

    // A corrupt file is neither reported nor rewritten at start; the next send replaces it, and
    // the next start reads that.
    void corruptHistoryLeftAloneThenReplaced()
    {
        const QString path = HistoryFile::defaultPath();
        QVERIFY(writeFile(path, "[{\"id\": broken"));
        AppModel &model = makeModel();
        QCOMPARE(model.history()->count(), 0);
        QCOMPARE(model.notice(), QString());
        QCOMPARE(readFile(path), QByteArray("[{\"id\": broken"));
        sendAndWait(makeFile(QStringLiteral("after.txt"), "a"));
        const auto saved = HistoryFile::read(path);
        QVERIFY(saved);
        QCOMPARE(saved->size(), 1);
        QCOMPARE(AppModel().history()->entries(), *saved);
    }

    void extendDeleteAndForget()
    {
        AppModel &model = makeModel();
        const HistoryEntry kept = *sendAndWait(makeFile(QStringLiteral("k.txt"), "k"))->entry();
        const HistoryEntry other = *sendAndWait(makeFile(QStringLiteral("o.txt"), "o"))->entry();
        const QString historyPath = HistoryFile::defaultPath();

        QVERIFY(waitForTask(model.extendTask(kept.id)));
        QCOMPARE(model.notice(), QStringLiteral("Extended by 3 days."));
        HistoryEntry extended = *model.history()->find(kept.id);
        QVERIFY(extended.isExtended());
        QVERIFY(extended.expiresAt > kept.expiresAt);
        QCOMPARE(HistoryFile::read(historyPath)->at(1), extended);

        // The service allows one extension; a second one is refused with 409.
        model.history()->update(kept.id, [](HistoryEntry &entry) { entry.extended.reset(); });
        QVERIFY(!waitForTask(model.extendTask(kept.id)));
        QCOMPARE(model.notice(), QStringLiteral("This transfer was already extended once."));
        QVERIFY(model.history()->find(kept.id)->isExtended());
        QVERIFY(HistoryFile::read(historyPath)->at(1).isExtended());
        QCOMPARE(modeOf(historyPath), 0600);

        // Forgetting makes no request, and the link keeps working.
        m_service.clearLog();
        model.forget(other.id);
        QVERIFY(!model.history()->find(other.id));
        QCOMPARE(HistoryFile::read(historyPath)->size(), 1);
        QCOMPARE(m_service.requests({}, QStringLiteral("/api/")).size(), 0);
        QCOMPARE(waitForTask(APIClient().transfer(other.id)).id, other.id);

        QVERIFY(waitForTask(model.deleteTask(kept.id)));
        QCOMPARE(model.history()->count(), 0);
        QCOMPARE(HistoryFile::read(historyPath)->size(), 0);

        // A delete the service refuses keeps the entry and says why.
        model.history()->prepend(other);
        waitForTask(APIClient().deleteTransfer(other.id, other.ownerToken));
        QVERIFY(!waitForTask(model.deleteTask(other.id)));
        QVERIFY(model.notice().startsWith(QStringLiteral("Couldn't delete: ")));
        QVERIFY(model.history()->find(other.id));
        QVERIFY(!waitForTask(model.extendTask(other.id)));
        QVERIFY(model.notice().startsWith(QStringLiteral("Couldn't extend: ")));
    }

    // A send from another process (the command line) shows up while the model runs.
    void historyWrittenElsewhereShowsUp()
    {
        AppModel &model = makeModel();
        sendAndWait(makeFile(QStringLiteral("mine.txt"), "m"));
        QList<HistoryEntry> entries = *HistoryFile::read(HistoryFile::defaultPath());
        HistoryEntry outside = entries.first();
        outside.id = QStringLiteral("from-the-terminal");
        entries.prepend(outside);
        QVERIFY(HistoryFile::write(HistoryFile::defaultPath(), entries));
        QTRY_COMPARE_WITH_TIMEOUT(model.history()->count(), 2, kWait);
        QCOMPARE(model.history()->entries().first().id, outside.id);
    }

    void optionsFollowPreferences()
    {
        setIntegerPreference(Preference::DefaultExpiry, 3600);
        AppModel &model = makeModel();
        QCOMPARE(model.expiresIn(), 3600);
        QSignalSpy changed(&model, &AppModel::optionsChanged);
        model.setExpiresIn(86400);
        model.setExpiresIn(86400);
        QCOMPARE(changed.size(), 1);
        QCOMPARE(integerPreference(Preference::DefaultExpiry), 86400);
        // Not allowed without an account: the default lifetime instead.
        setIntegerPreference(Preference::DefaultExpiry, 604800);
        QCOMPARE(makeModel().expiresIn(), 259200);
        removePreference(Preference::DefaultExpiry);
    }
};

LOFTHAVEN_ISOLATED_TEST_MAIN(TestAppModel)
#include "tst_appmodel.moc"
