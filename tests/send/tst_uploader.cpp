// The Uploader against a real local service: parts in flight, ordering, the retry rule,
// clean-up and abort, and sources that change while they are sent.
#include "api/apierror.h"
#include "api/apperror.h"
#include "api/cancelled.h"
#include "api/serviceorigin.h"
#include "api/usermessage.h"
#include "localservice.h"
#include "platform/devicename.h"
#include "platform/waitfortask.h"
#include "send/sendplan.h"
#include "send/uploader.h"
#include "testdata.h"

#include <QCoroTask>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <csignal>
#include <map>
#include <sys/resource.h>

using namespace lofthaven;
using namespace lofthaven::testing;

namespace {

using Sleeps = QList<qint64>; // seconds asked for, in order

struct Run
{
    std::optional<UploadResult> result;
    QString error; // user-facing message of a failure
    bool cancelled = false;
    Sleeps sleeps;
    QString spillRoot;
};

} // namespace

class TestUploader : public QObject
{
    Q_OBJECT

    LocalService m_service{{4096, {}}};
    QTemporaryDir m_dir;

    Run upload(const QList<QString> &paths, qint64 partSize, SendOptions options = {},
               std::function<void(std::stop_source &)> during = {})
    {
        Run run;
        run.spillRoot = m_dir.path() + QStringLiteral("/spill-root");
        const SendPlan plan = SendPlan::make(paths);
        if (options.expiresIn == 0)
            options.expiresIn = 3600;
        Uploader uploader(APIClient(), plan, options, run.spillRoot,
                          std::make_shared<ProgressCounter>());
        uploader.setWantedPartSize(partSize);
        uploader.setSleeper(
            [&run](std::chrono::milliseconds wait, std::stop_token stop) -> QCoro::Task<bool> {
                run.sleeps.append(std::chrono::duration_cast<std::chrono::seconds>(wait).count());
                co_return !stop.stop_requested();
            });
        std::stop_source stop;
        if (during)
            during(stop);
        try {
            run.result = waitForTask(uploader.run(stop.get_token()));
        } catch (const Cancelled &) {
            run.cancelled = true;
        } catch (...) {
            run.error = userMessage(std::current_exception());
        }
        return run;
    }

    bool spillLeftovers(const Run &run)
    {
        return !QDir(run.spillRoot).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).isEmpty();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(m_service.start(), qPrintable(m_service.error()));
        ServiceOrigin::configure(
            {QStringLiteral("lofthaven"), QStringLiteral("--origin"), m_service.origin()});
    }

    void init()
    {
        m_service.clearFaults();
        m_service.clearLog();
    }

    void wantedPartSize_data()
    {
        QTest::addColumn<qint64>("planSize");
        QTest::addColumn<qint64>("partSize");
        const qint64 MiB = 1024 * 1024;
        QTest::newRow("small") << qint64(1) << 16 * MiB;
        QTest::newRow("100 GB") << qint64(100'000'000'000) << 16 * MiB;
        QTest::newRow("144,000 MiB exactly") << 144000 * MiB << 16 * MiB;
        QTest::newRow("one byte more") << 144000 * MiB + 1 << 17 * MiB;
        QTest::newRow("200 GB") << qint64(200'000'000'000) << 22 * MiB;
        QTest::newRow("1 TB is capped") << qint64(1'000'000'000'000) << 64 * MiB;
    }
    void wantedPartSize()
    {
        QFETCH(qint64, planSize);
        QFETCH(qint64, partSize);
        QCOMPARE(Uploader::wantedPartSizeFor(planSize), partSize);
    }

    void createBody()
    {
        QList<SendItem> items;
        for (int i = 0; i < 600; ++i)
            items.append(SendItem{QStringLiteral("/x"), QStringLiteral("F/%1").arg(i), 1, {}});
        const SendPlan plan = SendPlan::fromItems(items, 1);
        SendOptions options;
        options.title = QString(200, QLatin1Char('t'));
        options.expiresIn = 3600;
        Uploader uploader(APIClient(), plan, options, m_dir.path(), nullptr);
        const QJsonObject body = uploader.createBody().toJson();
        QCOMPARE(body.value(QStringLiteral("files")).toArray().size(), 500);
        QCOMPARE(body.value(QStringLiteral("title")).toString().size(), 120);
        // 120 characters as a person counts them: an accent stays with its letter.
        options.title = QString(119, u't') + u"e\u0301xyz";
        QCOMPARE(Uploader(APIClient(), plan, options, m_dir.path(), nullptr).createBody().title,
                 QString(119, u't') + u"e\u0301");
        QVERIFY(!body.contains(QStringLiteral("message")));
        QVERIFY(!body.contains(QStringLiteral("password")));
        QCOMPARE(body.value(QStringLiteral("partSize")).toInteger(), 16 * 1024 * 1024);

        SendOptions bare;
        const SendPlan single = SendPlan::fromItems(
            {SendItem{QStringLiteral("/x"), QStringLiteral("notes"), 5, {}}}, 1);
        const QJsonObject plain =
            Uploader(APIClient(), single, bare, m_dir.path(), nullptr).createBody().toJson();
        QVERIFY(!plain.contains(QStringLiteral("title")));
        QVERIFY(!plain.contains(QStringLiteral("device")));
        bare.toSelf = true;
        const CreateTransferBody toDevices =
            Uploader(APIClient(), single, bare, m_dir.path(), nullptr).createBody();
        QCOMPARE(toDevices.device, deviceName());
        QVERIFY(toDevices.device->startsWith(u"Lofthaven for Linux ("));
        QCOMPARE(plain.value(QStringLiteral("mime")).toString(), "application/octet-stream");
    }

    // Bytes arrive intact for both kinds of plan, and parts are listed in order.
    void uploadsIntact_data()
    {
        QTest::addColumn<bool>("folder");
        QTest::addColumn<qint64>("partSize");
        QTest::newRow("single file, 10 parts") << false << qint64(4096);
        QTest::newRow("folder archive, many parts") << true << qint64(4096);
        QTest::newRow("folder archive, one part") << true << qint64(1 << 20);
    }
    void uploadsIntact()
    {
        QFETCH(bool, folder);
        QFETCH(qint64, partSize);
        const QString root =
            m_dir.path() + QStringLiteral("/intact-%1").arg(QTest::currentDataTag());
        const QByteArray a = randomBytes(40960 - 7);
        const QByteArray b = randomBytes(3000);
        QVERIFY(writeFile(root + QStringLiteral("/Trip/a.bin"), a));
        QVERIFY(writeFile(root + QStringLiteral("/Trip/Sub/bé ✓.bin"), b));
        const QString path =
            folder ? root + QStringLiteral("/Trip") : root + QStringLiteral("/Trip/a.bin");

        const Run run = upload({path}, partSize);
        QVERIFY2(run.result, qPrintable(run.error));
        QVERIFY(!spillLeftovers(run));
        const QByteArray received =
            curlDownload(m_service.origin() + QStringLiteral("/dl/") + run.result->created.id);
        if (!folder) {
            QCOMPARE(received, a);
        } else {
            QCOMPARE(received.size(), SendPlan::make({path}).size);
            const QString zip = root + QStringLiteral("/got.zip");
            QVERIFY(writeFile(zip, received));
            QCOMPARE(
                QProcess::execute(QStringLiteral("/usr/bin/unzip"), {QStringLiteral("-tq"), zip}),
                0);
        }

        // Never more than four parts at the service at once.
        const QJsonArray parts =
            m_service.requests(QStringLiteral("PUT"), QStringLiteral("/parts/"));
        QCOMPARE(qint64(parts.size()), run.result->created.partCount);
        std::map<qint64, int> edges; // +1 at a request's start, -1 at its end
        for (const QJsonValue &value : parts) {
            const QJsonObject part = value.toObject();
            if (!part.contains(QStringLiteral("startedAt")))
                QSKIP("the service log has no start times");
            edges[part.value(QStringLiteral("startedAt")).toInteger() * 2 + 1] += 1;
            edges[part.value(QStringLiteral("at")).toInteger() * 2] -= 1;
        }
        int open = 0, most = 0;
        for (const auto &[at, delta] : edges)
            most = std::max(most, open += delta);
        QVERIFY2(most <= Uploader::kMaxPartsInFlight, qPrintable(QString::number(most)));
    }

    // What the service answers to parts decides retries, waits and the outcome.
    void retryRule_data()
    {
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<QString>("error");
        QTest::addColumn<Sleeps>("sleeps");
        QTest::addColumn<int>("putsForPartOne");

        const auto onPartOne = [](QJsonObject rule) {
            rule.insert(QStringLiteral("method"), QStringLiteral("PUT"));
            rule.insert(QStringLiteral("path"), QStringLiteral("/api/transfers/*/parts/1"));
            return rule;
        };
        QTest::newRow("503 three times, then fine")
            << onPartOne({{"status", 503}, {"count", 3}}) << QString() << Sleeps{1, 2, 4} << 4;
        QTest::newRow("429 once") << onPartOne({{"status", 429}, {"count", 1}}) << QString()
                                  << Sleeps{1} << 2;
        QTest::newRow("408 once") << onPartOne({{"status", 408}, {"count", 1}}) << QString()
                                  << Sleeps{1} << 2;
        QTest::newRow("403 fails at once")
            << onPartOne({{"status", 403}, {"count", 1}}) << "Injected fault." << Sleeps{} << 1;
        QTest::newRow("503 storm: six tries") << onPartOne({{"status", 503}, {"count", 100}})
                                              << "Injected fault." << Sleeps{1, 2, 4, 8, 16} << 6;
        QTest::newRow("connection dropped mid-part")
            << onPartOne({{"dropAfterBytes", 1000}, {"count", 1}}) << QString() << Sleeps{-1} << 2;
        // A reused connection that dies before any answer is re-sent by libcurl itself (the
        // part body rewinds); a part cut on a fresh connection goes through our own retry.
        // Either way the bytes arrive intact ({-1}: the waits are not checked).
        QTest::newRow("connection dropped on every try")
            << onPartOne({{"dropAfterBytes", 1000}, {"count", 100}})
            << "The network connection was lost." << Sleeps{1, 2, 4, 8, 16} << -6;
    }
    void retryRule()
    {
        QFETCH(QJsonObject, fault);
        QFETCH(QString, error);
        QFETCH(Sleeps, sleeps);
        QFETCH(int, putsForPartOne);

        const QString file = m_dir.path() + QStringLiteral("/retry.bin");
        const QByteArray bytes = randomBytes(3 * 4096 + 100);
        QVERIFY(writeFile(file, bytes));
        m_service.addFault(fault);
        const Run run = upload({file}, 4096);

        if (error.isEmpty()) {
            QVERIFY2(run.result, qPrintable(run.error));
            QCOMPARE(
                curlDownload(m_service.origin() + QStringLiteral("/dl/") + run.result->created.id),
                bytes);
        } else {
            QVERIFY(!run.result);
            QCOMPARE(run.error, error);
            QCOMPARE(m_service.requests(QStringLiteral("POST"), QStringLiteral("/complete")).size(),
                     0);
            QCOMPARE(m_service.requests(QStringLiteral("POST"), QStringLiteral("/abort")).size(),
                     1);
        }
        if (sleeps != Sleeps{-1})
            QCOMPARE(run.sleeps, sleeps);
        // A negative count is a minimum: libcurl may re-send on a reused connection by itself.
        const qsizetype puts =
            m_service.requests(QStringLiteral("PUT"), QStringLiteral("/parts/1")).size();
        if (putsForPartOne < 0)
            QVERIFY2(puts >= -putsForPartOne, qPrintable(QString::number(puts)));
        else
            QVERIFY2(puts == putsForPartOne || sleeps == Sleeps{-1},
                     qPrintable(QString::number(puts)));
        QVERIFY(!spillLeftovers(run));
    }

    void sourceShrinks_data()
    {
        QTest::addColumn<bool>("folder");
        QTest::addColumn<QString>("error");
        QTest::newRow("single file") << false << "a.bin changed while sending.";
        QTest::newRow("archive") << true << "Trip/a.bin changed while sending (it got smaller).";
    }
    void sourceShrinks()
    {
        QFETCH(bool, folder);
        QFETCH(QString, error);
        const QString root = m_dir.path() + QStringLiteral("/shrink-%1").arg(folder);
        const QString file = root + QStringLiteral("/Trip/a.bin");
        QVERIFY(writeFile(file, randomBytes(5 * 4096)));
        const QString path = folder ? root + QStringLiteral("/Trip") : file;
        const SendPlan plan = SendPlan::make({path});
        QVERIFY(QFile::resize(file, 4096 + 10)); // after planning, before sending
        Uploader uploader(APIClient(), plan, SendOptions{3600, 0, {}, {}, {}, false},
                          m_dir.path() + QStringLiteral("/spill-shrink"),
                          std::make_shared<ProgressCounter>());
        uploader.setWantedPartSize(4096);
        QString message;
        try {
            waitForTask(uploader.run());
        } catch (const AppError &failure) {
            message = failure.message();
        }
        QCOMPARE(message, error);
        QCOMPARE(m_service.requests(QStringLiteral("POST"), QStringLiteral("/abort")).size(), 1);
    }

    // No room for a spilled part (a file size limit stands in for a full disk): the upload
    // fails with the system's word for it, and nothing is left behind or completed.
    void fullDiskWhileSpilling()
    {
        const QString root = m_dir.path() + QStringLiteral("/full");
        QVERIFY(writeFile(root + QStringLiteral("/Trip/a.bin"), randomBytes(3 * 4096)));
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit previous{};
        getrlimit(RLIMIT_FSIZE, &previous);
        rlimit small = previous;
        small.rlim_cur = 1000;
        setrlimit(RLIMIT_FSIZE, &small);
        const Run run = upload({root + QStringLiteral("/Trip")}, 4096);
        setrlimit(RLIMIT_FSIZE, &previous);
        QVERIFY(!run.result);
        QVERIFY2(run.error.contains(QStringLiteral("too large"), Qt::CaseInsensitive),
                 qPrintable(run.error));
        QVERIFY(!spillLeftovers(run));
        QCOMPARE(m_service.requests(QStringLiteral("POST"), QStringLiteral("/complete")).size(), 0);
        QCOMPARE(m_service.requests(QStringLiteral("POST"), QStringLiteral("/abort")).size(), 1);
    }

    void cancelWhileUploading()
    {
        const QString file = m_dir.path() + QStringLiteral("/cancel.bin");
        QVERIFY(writeFile(file, randomBytes(8 * 4096)));
        m_service.addFault({{"method", "PUT"},
                            {"path", "/api/transfers/*/parts/*"},
                            {"stallSeconds", 20},
                            {"count", 100}});
        QElapsedTimer clock;
        clock.start();
        const Run run = upload({file}, 4096, {}, [](std::stop_source &stop) {
            QTimer::singleShot(300, [&stop] { stop.request_stop(); });
        });
        QVERIFY(run.cancelled);
        QVERIFY2(clock.elapsed() < 10000, "cancelling must not wait for stalled parts");
        QVERIFY(!spillLeftovers(run));
        QCOMPARE(m_service.requests(QStringLiteral("POST"), QStringLiteral("/abort")).size(), 1);
    }

    // The service dies with parts in flight and comes back: the upload rides through.
    void serviceRestartsMidUpload()
    {
        const QString file = m_dir.path() + QStringLiteral("/restart.bin");
        const QByteArray bytes = randomBytes(12 * 4096);
        QVERIFY(writeFile(file, bytes));
        m_service.addFault({{"method", "PUT"},
                            {"path", "/api/transfers/*/parts/3"},
                            {"stallSeconds", 5},
                            {"count", 1}});
        const SendPlan plan = SendPlan::make({file});
        Uploader uploader(APIClient(), plan, SendOptions{3600, 0, {}, {}, {}, false},
                          m_dir.path() + QStringLiteral("/spill-restart"),
                          std::make_shared<ProgressCounter>());
        uploader.setWantedPartSize(4096);
        bool restarted = false;
        uploader.setSleeper([&](std::chrono::milliseconds, std::stop_token) -> QCoro::Task<bool> {
            if (!restarted) {
                restarted = true;
                m_service.start();
            }
            co_return true;
        });
        QTimer::singleShot(500, [this] { m_service.kill(); });
        const UploadResult result = waitForTask(uploader.run());
        QVERIFY(restarted);
        QCOMPARE(curlDownload(m_service.origin() + QStringLiteral("/dl/") + result.created.id),
                 bytes);
    }
};

QTEST_GUILESS_MAIN(TestUploader)
#include "tst_uploader.moc"
