// Downloads against a real local service: resume with Range, the 416 restart, the retry rule
// for every status it names, a killed service, a full disk, lookups, and the download job's
// states.
#include "api/apierror.h"
#include "api/apperror.h"
#include "api/cancelled.h"
#include "api/serviceorigin.h"
#include "api/usermessage.h"
#include "localservice.h"
#include "platform/waitfortask.h"
#include "receive/downloadjob.h"
#include "receive/downloadtopartial.h"
#include "receive/lookup.h"
#include "send/sendplan.h"
#include "send/uploader.h"
#include "testdata.h"

#include <QCoroTask>
#include <QJsonArray>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <sys/resource.h>

using namespace lofthaven;
using namespace lofthaven::testing;

using Sleeps = QList<qint64>;

class TestDownloadToPartial : public QObject
{
    Q_OBJECT

    LocalService m_service{{4096, {}}};
    QTemporaryDir m_dir;
    QByteArray m_bytes;
    UploadResult m_sent;
    Sleeps m_sleeps;
    std::function<void()> m_duringSleep;

    UploadResult send(const QString &path, SendOptions options = {})
    {
        options.expiresIn = 3600;
        Uploader uploader(APIClient(), SendPlan::make({path}), options,
                          m_dir.path() + QStringLiteral("/spill"),
                          std::make_shared<ProgressCounter>());
        uploader.setWantedPartSize(64 * 1024);
        return waitForTask(uploader.run());
    }

    DownloadRetry recordingRetry()
    {
        DownloadRetry retry;
        retry.sleeper = [this](std::chrono::milliseconds wait,
                               std::stop_token stop) -> QCoro::Task<bool> {
            m_sleeps.append(std::chrono::duration_cast<std::chrono::seconds>(wait).count());
            if (m_duringSleep)
                m_duringSleep();
            co_return !stop.stop_requested();
        };
        return retry;
    }

    // Runs one download; returns the failure's user-facing message, or "" on success.
    QString download(const QString &partial, const QString &id, qint64 size)
    {
        try {
            waitForTask(downloadToPartial(APIClient(), id, std::nullopt, size, false, partial,
                                          std::make_shared<ProgressCounter>(), {},
                                          recordingRetry()));
            return {};
        } catch (...) {
            return userMessage(std::current_exception());
        }
    }

    QStringList requestRanges()
    {
        QStringList ranges;
        for (const QJsonValue &entry : m_service.requests({}, QStringLiteral("/dl/")))
            ranges.append(entry.toObject().value(QStringLiteral("range")).toString());
        return ranges;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(m_service.start(), qPrintable(m_service.error()));
        ServiceOrigin::configure(
            {QStringLiteral("lofthaven"), QStringLiteral("--origin"), m_service.origin()});
        m_bytes = randomBytes(300 * 1024 + 17);
        const QString source = m_dir.path() + QStringLiteral("/source.bin");
        QVERIFY(writeFile(source, m_bytes));
        m_sent = send(source);
    }

    void init()
    {
        m_service.clearFaults();
        m_service.clearLog();
        m_sleeps.clear();
        m_duringSleep = nullptr;
    }

    // What is in the partial file before the download decides what is asked for.
    void resume_data()
    {
        QTest::addColumn<int>("prefix"); // bytes of the right content already there
        QTest::addColumn<int>("junk");   // bytes past the transfer's end
        QTest::addColumn<QStringList>("ranges");
        const int whole = 300 * 1024 + 17;
        QTest::newRow("fresh") << 0 << 0 << QStringList{QString()};
        QTest::newRow("ten bytes there") << 10 << 0 << QStringList{"bytes=10-"};
        QTest::newRow("complete already: no request") << whole << 0 << QStringList{};
        // The oversized file is deleted, but the stale offset is still asked for; the 416
        // answer restarts from zero at once.
        QTest::newRow("larger than the transfer")
            << whole << 5 << QStringList{QStringLiteral("bytes=%1-").arg(whole + 5), QString()};
    }
    void resume()
    {
        QFETCH(int, prefix);
        QFETCH(int, junk);
        QFETCH(QStringList, ranges);
        const QString partial = m_dir.path() + QStringLiteral("/resume.part");
        QVERIFY(writeFile(partial, m_bytes.left(prefix) + QByteArray(junk, 'x')));
        QCOMPARE(download(partial, m_sent.created.id, m_bytes.size()), QString());
        QCOMPARE(readFile(partial), m_bytes);
        QCOMPARE(requestRanges(), ranges);
        QCOMPARE(m_sleeps, Sleeps{});
    }

    void failures_data()
    {
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("error");
        QTest::addColumn<Sleeps>("sleeps");
        QTest::newRow("unknown transfer: at once") << QJsonObject() << "Zz9unknown9"
                                                   << "" << Sleeps{};
        QTest::newRow("503 storm: nine requests")
            << QJsonObject{{"method", "GET"}, {"path", "/dl/*"}, {"status", 503}, {"count", 100}}
            << QString() << "Injected fault." << Sleeps{2, 4, 8, 16, 30, 30, 30, 30};
        QTest::newRow("dropped once, resumed") << QJsonObject{{"method", "GET"},
                                                              {"path", "/dl/*"},
                                                              {"dropAfterBytes", 100000},
                                                              {"count", 1}}
                                               << QString() << QString() << Sleeps{2};
        QTest::newRow("410 is final")
            << QJsonObject{{"method", "GET"}, {"path", "/dl/*"}, {"status", 410}, {"count", 1}}
            << QString() << "This transfer has expired." << Sleeps{};
    }
    void failures()
    {
        QFETCH(QJsonObject, fault);
        QFETCH(QString, id);
        QFETCH(QString, error);
        QFETCH(Sleeps, sleeps);
        if (!fault.isEmpty())
            m_service.addFault(fault);
        const QString partial = m_dir.path() + QStringLiteral("/failures.part");
        QFile::remove(partial);
        const QString message =
            download(partial, id.isEmpty() ? m_sent.created.id : id, m_bytes.size());
        if (!id.isEmpty())
            QVERIFY2(!message.isEmpty(), "an unknown transfer must fail");
        else
            QCOMPARE(message, error);
        QCOMPARE(m_sleeps, sleeps);
        if (error.isEmpty() && id.isEmpty()) {
            QCOMPARE(readFile(partial), m_bytes);
            QCOMPARE(requestRanges(), (QStringList{QString(), "bytes=100000-"}));
        }
    }

    // The retry rule for every status it names.
    void statuses_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("times"); // answered that many times in a row, then the bytes
        QTest::addColumn<int>("requests");
        QTest::addColumn<Sleeps>("sleeps");
        QTest::addColumn<bool>("fails");
        for (const int status : {408, 429, 500, 502, 503, 504, 599})
            QTest::addRow("%d: pause, then the bytes", status)
                << status << 1 << 2 << Sleeps{2} << false;
        QTest::newRow("416: restart at once") << 416 << 1 << 2 << Sleeps{} << false;
        QTest::newRow("416 twice: a failed try") << 416 << 2 << 3 << Sleeps{2} << false;
        // 3xx fails the same way; the service injects 4xx and 5xx only, so the hostile-server
        // table covers redirects. 410 has its own row, with its sentence, in failures().
        for (const int status : {400, 401, 403, 404, 409, 499})
            QTest::addRow("%d: fails at once", status) << status << 1 << 1 << Sleeps{} << true;
    }
    void statuses()
    {
        QFETCH(int, status);
        QFETCH(int, times);
        QFETCH(int, requests);
        QFETCH(Sleeps, sleeps);
        QFETCH(bool, fails);
        QVERIFY(m_service.addFault(
            {{"method", "GET"}, {"path", "/dl/*"}, {"status", status}, {"count", times}}));
        const QString partial = m_dir.path() + QStringLiteral("/retry.part");
        QFile::remove(partial);
        const QString message = download(partial, m_sent.created.id, m_bytes.size());
        QCOMPARE(!message.isEmpty(), fails);
        QCOMPARE(m_service.requests(QStringLiteral("GET"), QStringLiteral("/dl/")).size(),
                 requests);
        QCOMPARE(m_sleeps, sleeps);
        if (!fails)
            QCOMPARE(readFile(partial), m_bytes);
    }

    void serviceKilledMidDownload()
    {
        const QString partial = m_dir.path() + QStringLiteral("/killed.part");
        QFile::remove(partial);
        m_service.addFault(
            {{"method", "GET"}, {"path", "/dl/*"}, {"stallSeconds", 30}, {"count", 1}});
        QTimer::singleShot(300, [this] { m_service.kill(); });
        m_duringSleep = [this] {
            if (m_sleeps.size() == 2)
                QVERIFY(m_service.start());
        };
        QCOMPARE(download(partial, m_sent.created.id, m_bytes.size()), QString());
        QCOMPARE(readFile(partial), m_bytes);
        QCOMPARE(m_sleeps, (Sleeps{2, 4}));
    }

    void fullDiskKeepsWhatArrived()
    {
        const QString partial = m_dir.path() + QStringLiteral("/full.part");
        QFile::remove(partial);
        // A file size limit stands in for a full disk: writes past it fail with EFBIG.
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit previous{};
        getrlimit(RLIMIT_FSIZE, &previous);
        rlimit small = previous;
        small.rlim_cur = 100 * 1024;
        setrlimit(RLIMIT_FSIZE, &small);
        const QString message = download(partial, m_sent.created.id, m_bytes.size());
        setrlimit(RLIMIT_FSIZE, &previous);
        QVERIFY2(message.startsWith(QStringLiteral("Couldn't write the download: ")),
                 qPrintable(message));
        QVERIFY(QFileInfo(partial).size() <= 100 * 1024);
        // Once there is room again the download resumes from what is there.
        m_sleeps.clear();
        QCOMPARE(download(partial, m_sent.created.id, m_bytes.size()), QString());
        QCOMPARE(readFile(partial), m_bytes);
    }

    void lookup_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("error");
        QTest::newRow("code") << "CODE" << QString();
        QTest::newRow("code typed with a space") << "SPACED" << QString();
        QTest::newRow("link") << "LINK" << QString();
        QTest::newRow("empty") << "  "
                               << "Enter the 6-digit code or paste a 127.0.0.1 link.";
        QTest::newRow("unknown code") << "000001"
                                      << "No active transfer uses that code or link.";
        QTest::newRow("unknown link") << "http://x/d/Nope12345"
                                      << "No active transfer uses that code or link.";
    }
    void lookup()
    {
        QFETCH(QString, input);
        QFETCH(QString, error);
        const QString code = m_sent.completed.code;
        if (input == QLatin1String("CODE"))
            input = QStringLiteral(" ") + code + QStringLiteral("\n");
        else if (input == QLatin1String("SPACED"))
            input = code.left(3) + QLatin1Char(' ') + code.mid(3);
        else if (input == QLatin1String("LINK"))
            input = m_sent.completed.url;
        try {
            const TransferMeta meta =
                waitForTask(lookupTransfer(APIClient(), input, ServiceOrigin::host()));
            QCOMPARE(error, QString());
            QCOMPARE(meta.id, m_sent.created.id);
            QCOMPARE(meta.size, m_bytes.size());
        } catch (...) {
            QCOMPARE(userMessage(std::current_exception()), error);
        }
    }

    void passwordProtected()
    {
        const QString source = m_dir.path() + QStringLiteral("/secret.txt");
        QVERIFY(writeFile(source, "the secret bytes"));
        SendOptions options;
        options.password = QStringLiteral("pa&ss=w+rd");
        const UploadResult sent = send(source, options);
        const TransferMeta meta =
            waitForTask(lookupTransfer(APIClient(), sent.completed.code, ServiceOrigin::host()));
        QVERIFY(meta.hasPassword.value_or(false));

        QString missing;
        try {
            waitForTask(unlockTransfer(APIClient(), meta, QString()));
        } catch (const AppError &error) {
            missing = error.message();
        }
        QCOMPARE(missing, "This transfer is password protected. Enter the password.");

        bool refused = false;
        try {
            waitForTask(unlockTransfer(APIClient(), meta, QStringLiteral("wrong")));
        } catch (const APIError &) {
            refused = true;
        }
        QVERIFY(refused);

        const auto token = waitForTask(unlockTransfer(APIClient(), meta, options.password));
        QVERIFY(token && !token->isEmpty());
        const QString partial = m_dir.path() + QStringLiteral("/secret.part");
        waitForTask(downloadToPartial(APIClient(), meta.id, token, meta.size, false, partial,
                                      std::make_shared<ProgressCounter>()));
        QCOMPARE(readFile(partial), QByteArray("the secret bytes"));
        // Without the token the bytes are refused.
        QFile::remove(partial);
        QVERIFY(!download(partial, meta.id, meta.size).isEmpty());
    }

    void jobStates_data()
    {
        QTest::addColumn<bool>("cancel");
        QTest::addColumn<DownloadJob::State>("state");
        QTest::newRow("done") << false << DownloadJob::State::Done;
        QTest::newRow("cancelled, partial kept") << true << DownloadJob::State::Cancelled;
    }
    void jobStates()
    {
        QFETCH(bool, cancel);
        QFETCH(DownloadJob::State, state);
        const QString folder = m_dir.path() + QStringLiteral("/job-%1").arg(cancel);
        DownloadPlan plan;
        plan.meta = waitForTask(APIClient().transfer(m_sent.created.id));
        plan.destinationFolder = folder;
        plan.partialFile = folder + QStringLiteral("/partial/x.part");
        if (cancel)
            m_service.addFault(
                {{"method", "GET"}, {"path", "/dl/*"}, {"trickleMs", 20}, {"count", 1}});
        DownloadJob job(plan.meta.id, plan.meta.name, plan.meta.size);
        QList<DownloadJob::State> seen;
        connect(&job, &DownloadJob::stateChanged, this,
                [&seen](DownloadJob::State s) { seen.append(s); });
        if (cancel)
            QTimer::singleShot(500, &job, [&job] { job.cancel(); });
        waitForTask(runDownload(&job, APIClient(), plan));
        QCOMPARE(job.state(), state);
        QCOMPARE(seen.first(), DownloadJob::State::Downloading);
        if (cancel) {
            QVERIFY(QFileInfo::exists(plan.partialFile));
        } else {
            QCOMPARE(readFile(job.result()), m_bytes);
            QVERIFY(!QFileInfo::exists(plan.partialFile));
        }
    }
};

QTEST_GUILESS_MAIN(TestDownloadToPartial)
#include "tst_downloadtopartial.moc"
