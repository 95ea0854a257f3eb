#include "testdata.h"
#include "testhttpserver.h"
#include "thrown.h"

#include "api/apiclient.h"
#include "api/apierror.h"
#include "api/apperror.h"
#include "api/cancelled.h"
#include "api/httptransport.h"
#include "api/serviceorigin.h"
#include "api/transporterror.h"

#include <QCoroTask>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>

using namespace lofthaven;
using namespace std::chrono_literals;
using lofthaven::testing::randomBytes;
using lofthaven::testing::writeFile;

namespace {

HttpTransport &http()
{
    return HttpTransport::instance();
}

HttpRequest get(const TestHttpServer &server, const char *path)
{
    HttpRequest request;
    request.url = QUrl(server.origin() + QString::fromLatin1(path));
    return request;
}

// Sends every request on to the same path on `target`.
TestHttpServer::Handler redirectTo(const TestHttpServer &target)
{
    return [to = target.origin().toStdString()](const auto &request, httplib::Response &response) {
        response.set_redirect(to + request.path);
    };
}

// Waits in small slices so a stopping server is never held up.
void sleepWhile(
    const TestHttpServer &server, std::chrono::milliseconds total,
    const std::function<bool()> &keepWaiting = [] { return true; })
{
    const auto end = std::chrono::steady_clock::now() + total;
    while (std::chrono::steady_clock::now() < end && !server.stopping && keepWaiting())
        std::this_thread::sleep_for(20ms);
}

class RecordingSink : public ResponseSink
{
public:
    bool begin(int status, const HttpHeaders &headers) override
    {
        began = {status, headers};
        return status == 200;
    }
    bool write(const char *data, qint64 size) override
    {
        received.append(data, size);
        return received.size() < failAfter;
    }
    void finish() override { ++finished; }

    HttpResponse began; // status and headers only
    QByteArray received;
    qint64 failAfter = std::numeric_limits<qint64>::max();
    int finished = 0;
};

// A GET whose body goes to `sink`.
HttpRequest getInto(const TestHttpServer &server, const char *path,
                    std::shared_ptr<RecordingSink> sink)
{
    HttpRequest request = get(server, path);
    request.sink = std::move(sink);
    return request;
}

} // namespace

class TestHttpTransport : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void cleanupTestCase() { http().shutdown(); }

    void capturesBodyStatusAndHeaders()
    {
        TestHttpServer server([](const httplib::Request &, httplib::Response &response) {
            response.status = 418;
            response.set_header("X-Test", "kettle");
            response.set_content("short and stout", "text/plain");
        });
        const HttpResponse response = waitForTask(http().send(get(server, "/tea")));
        QCOMPARE(response.status, 418);
        QCOMPARE(response.body, QByteArray("short and stout"));
        QCOMPARE(response.header("x-test"), QByteArray("kettle"));
        QCOMPARE(server.seen().at(0).header("User-Agent"), "Lofthaven-Desktop/1.0 (macOS)");
    }

    void redirectWithTokenIsNotFollowed_data()
    {
        QTest::addColumn<QByteArray>("secretHeader");
        QTest::newRow("bearer token") << QByteArray("Authorization");
        QTest::newRow("owner token") << QByteArray("X-Owner-Token");
    }
    void redirectWithTokenIsNotFollowed()
    {
        QFETCH(QByteArray, secretHeader);
        TestHttpServer elsewhere(reply("{}"));
        TestHttpServer origin(redirectTo(elsewhere));
        HttpRequest request = get(origin, "/api/me");
        request.headers.append({secretHeader, "s3cret"});
        request.followRedirects = true; // even when asked to: a secret never travels on
        QCOMPARE(waitForTask(http().send(request)).status, 302);
        QCOMPARE(elsewhere.seen().size(), size_t(0));
    }

    void apiClientFollowsOnlyTokenlessRedirects()
    {
        TestHttpServer elsewhere(reply(R"({"signedIn":true,"version":"1.2.3"})"));
        TestHttpServer origin(redirectTo(elsewhere));
        ServiceOrigin::setUrl(origin.origin());
        const APIClient client(QStringLiteral("tok"));
        const auto error = thrown<APIError>(client.me());
        QVERIFY2(error, "a redirect must not count as success");
        QCOMPARE(error->status(), 302);
        QCOMPARE(error->code(), QStringLiteral("http_302"));
        QCOMPARE(elsewhere.seen().size(), size_t(0));
        // The update manifest goes without the token, so it may follow.
        QCOMPARE(waitForTask(client.updateInfo()).version, QStringLiteral("1.2.3"));
        QCOMPARE(elsewhere.seen().size(), size_t(1));
        QVERIFY(!elsewhere.seen().at(0).has("Authorization"));
        QVERIFY(!origin.seen().at(1).has("Authorization"));
    }

    void bodyOverCapFailsCleanly()
    {
        TestHttpServer server(reply(std::string(3 << 20, 'x')));
        const auto error = thrown<TransportError>(http().send(get(server, "/big")));
        QVERIFY2(error, "an answer over the cap must fail");
        QVERIFY(!error->retryable());
        QVERIFY2(error->description().contains(u"larger than expected"),
                 qPrintable(error->description()));
    }

    // An error answer is read for its message only: an endless one is cut after 64 KiB.
    void endlessErrorAnswerIsCutAt64KiB()
    {
        std::atomic<qint64> sent{0};
        TestHttpServer server([&](const httplib::Request &, httplib::Response &response) {
            response.status = 500;
            response.set_chunked_content_provider("text/html", [&](size_t, auto &sink) {
                const std::string chunk(64 * 1024, 'e');
                sent += qint64(chunk.size());
                return sent < (256 << 20) && !server.stopping &&
                       sink.write(chunk.data(), chunk.size());
            });
        });
        const HttpResponse response = waitForTask(http().send(get(server, "/err")));
        QCOMPARE(response.status, 500);
        QCOMPARE(response.body, QByteArray(65536, 'e'));
        QVERIFY2(sent < (16 << 20), qPrintable(QString::number(sent)));
    }

    void tricklingAnswerIsCutAsRetryableTimeout()
    {
        // Four bytes a second, forever: alive, but far below the floor of 1 KiB/s.
        TestHttpServer server([&](const httplib::Request &, httplib::Response &response) {
            response.set_chunked_content_provider("application/json", [&](size_t, auto &sink) {
                if (!sink.write("  ", 2))
                    return false;
                sleepWhile(server, 500ms);
                return !server.stopping.load();
            });
        });
        HttpRequest request = get(server, "/slow");
        request.idleTimeout = 2s;
        const auto error = thrown<TransportError>(http().send(request));
        QVERIFY2(error, "a trickling answer must be cut");
        QVERIFY(error->retryable());
        QCOMPARE(error->description(), QStringLiteral("The request timed out."));
    }

    void cancellingDuringSlowAnswerReturnsPromptly()
    {
        std::atomic<bool> answered{false};
        std::atomic<bool> release{false};
        TestHttpServer server([&](const httplib::Request &, httplib::Response &response) {
            sleepWhile(server, 20s, [&] { return !release.load(); });
            answered = true;
            response.set_content("{}", "application/json");
        });
        std::stop_source stop;
        auto task = http().send(get(server, "/slow"), stop.get_token());
        QVERIFY(QTest::qWaitFor([&] { return server.seen().size() == 1; }));
        stop.request_stop();
        QVERIFY_THROWS_EXCEPTION(Cancelled, waitForTask(std::move(task)));
        // The server was still holding its answer: the cancel did not wait for it.
        QVERIFY(!answered);
        release = true;
    }

    void cancelBeforeStartThrowsAtOnce()
    {
        std::stop_source stop;
        stop.request_stop();
        HttpRequest request;
        request.url = QUrl(QStringLiteral("http://127.0.0.1:9/never"));
        QVERIFY_THROWS_EXCEPTION(Cancelled, waitForTask(http().send(request, stop.get_token())));
    }

    // Downloads and part uploads run at most eight at once; a small request never queues
    // behind them.
    void bulkTransfersLeaveRoomForSmallRequests()
    {
        std::atomic<int> inFlight{0};
        std::atomic<int> peak{0};
        std::atomic<bool> release{false};
        TestHttpServer server([&](const httplib::Request &request, httplib::Response &response) {
            if (request.path == "/small") {
                response.set_content("{}", "application/json");
                return;
            }
            const int now = ++inFlight;
            int seenPeak = peak.load();
            while (now > seenPeak && !peak.compare_exchange_weak(seenPeak, now)) {
            }
            sleepWhile(server, 20s, [&] { return !release.load(); });
            --inFlight;
            response.set_content("bytes", "application/octet-stream");
        });
        std::vector<std::shared_ptr<RecordingSink>> sinks;
        std::vector<QCoro::Task<HttpResponse>> downloads;
        for (int i = 0; i < 12; ++i) {
            sinks.push_back(std::make_shared<RecordingSink>());
            downloads.push_back(http().send(getInto(server, "/bulk", sinks.back())));
        }
        QVERIFY(QTest::qWaitFor([&] { return inFlight.load() == 8; }));
        QCOMPARE(waitForTask(http().send(get(server, "/small"))).status, 200);
        QCOMPARE(inFlight.load(), 8); // the small answer came while eight were held
        release = true;
        for (auto &download : downloads)
            QCOMPARE(waitForTask(std::move(download)).status, 200);
        QCOMPARE(peak.load(), 8);
    }

    void fileBodyArrivesByteExact_data()
    {
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<qint64>("length");
        QTest::newRow("whole file") << qint64(0) << qint64(3 << 20);
        QTest::newRow("middle range") << qint64(1000) << qint64((2 << 20) + 7);
        QTest::newRow("empty range") << qint64(5) << qint64(0);
    }
    void fileBodyArrivesByteExact()
    {
        QFETCH(qint64, offset);
        QFETCH(qint64, length);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("part.bin"));
        const QByteArray content = randomBytes(3 << 20, 42);
        QVERIFY(writeFile(path, content));
        TestHttpServer server(reply(R"({"etag":"e1"})"));
        HttpRequest request = get(server, "/api/transfers/t/parts/1");
        request.method = "PUT";
        request.fileBody = FileBody{path, offset, length};
        std::atomic<qint64> lastSent{-1};
        request.onUploadProgress = [&](qint64 sent) { lastSent = sent; };
        QCOMPARE(waitForTask(http().send(request)).status, 200);
        const auto seen = server.seen().at(0);
        QCOMPARE(seen.method, "PUT");
        QVERIFY(seen.body == content.mid(offset, length).toStdString());
        QVERIFY(!seen.has("Expect"));
        if (length > 0)
            QCOMPARE(lastSent.load(), length);
    }

    void changedFileFails_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<qint64>("length");
        QTest::addColumn<qint64>("shrinkTo"); // on the first progress report; -1 = never
        QTest::newRow("shorter than the range")
            << "notes.txt" << qint64(100) << qint64(50) << qint64(51) << qint64(-1);
        QTest::newRow("shrinks while sending")
            << "movie.mov" << qint64(24 << 20) << qint64(0) << qint64(24 << 20) << qint64(1 << 20);
    }
    void changedFileFails()
    {
        QFETCH(QString, name);
        QFETCH(qint64, size);
        QFETCH(qint64, offset);
        QFETCH(qint64, length);
        QFETCH(qint64, shrinkTo);
        QTemporaryDir dir;
        const QString path = dir.filePath(name);
        QVERIFY(writeFile(path, randomBytes(size, 7)));
        TestHttpServer server(reply("{}"));
        HttpRequest request = get(server, "/put");
        request.method = "PUT";
        request.fileBody = FileBody{path, offset, length};
        std::atomic<bool> shrunk{false};
        if (shrinkTo >= 0) {
            request.onUploadProgress = [&](qint64 sent) {
                if (sent > 0 && !shrunk.exchange(true))
                    QFile::resize(path, shrinkTo);
            };
        }
        const auto error = thrown<AppError>(http().send(request));
        QVERIFY2(error, "a file that changed must fail");
        QCOMPARE(error->message(), name + QStringLiteral(" changed while sending."));
        QCOMPARE(shrunk.load(), shrinkTo >= 0);
    }

    void sinkReceivesDeclinesAndAborts()
    {
        const QByteArray content = randomBytes(700000, 42);
        TestHttpServer server([&](const httplib::Request &request, httplib::Response &response) {
            if (request.path == "/missing")
                return reply(R"({"error":"not_found","message":"No such transfer."})",
                             404)(request, response);
            response.set_header("X-Test", "sink");
            response.set_content(content.toStdString(), "application/octet-stream");
        });
        auto sink = std::make_shared<RecordingSink>();
        const HttpResponse response = waitForTask(http().send(getInto(server, "/dl/x", sink)));
        QCOMPARE(response.status, 200);
        QVERIFY(response.body.isEmpty());
        QVERIFY(!response.sinkAborted);
        QCOMPARE(sink->began.status, 200);
        QCOMPARE(sink->began.header("x-test"), QByteArray("sink"));
        QCOMPARE(sink->finished, 1);
        QVERIFY(sink->received == content);

        // An error answer stays with the response, for its message.
        auto declining = std::make_shared<RecordingSink>();
        const HttpResponse missing =
            waitForTask(http().send(getInto(server, "/missing", declining)));
        QCOMPARE(missing.status, 404);
        QCOMPARE(APIError::fromResponse(missing.status, missing.body).description(),
                 QStringLiteral("No such transfer."));
        QVERIFY(declining->received.isEmpty());

        auto failing = std::make_shared<RecordingSink>();
        failing->failAfter = 1000;
        const HttpResponse aborted = waitForTask(http().send(getInto(server, "/dl/x", failing)));
        QVERIFY2(aborted.sinkAborted, qPrintable(QString::number(aborted.status)));
        QCOMPARE(failing->finished, 1);
        QVERIFY(failing->received.size() < content.size());
    }

    void refusedConnectionIsRetryable()
    {
        int port = 0;
        {
            TestHttpServer gone(reply("{}"));
            port = gone.port();
        }
        HttpRequest request;
        request.url = QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(port));
        const auto error = thrown<TransportError>(http().send(request));
        QVERIFY2(error, "nothing listens there");
        QVERIFY(error->retryable());
        QVERIFY2(error->description().startsWith(u"Couldn't connect to the server 127.0.0.1"),
                 qPrintable(error->description()));
    }

    void plainHttpOnlyForLoopback_data()
    {
        QTest::addColumn<QString>("url");
        QTest::newRow("remote host") << "http://example.com/api/me";
        QTest::newRow("looks local but is not") << "http://127.0.0.1.example.com/";
        QTest::newRow("other scheme") << "ftp://127.0.0.1/";
    }
    void plainHttpOnlyForLoopback()
    {
        QFETCH(QString, url);
        HttpRequest request;
        request.url = QUrl(url);
        QVERIFY_THROWS_EXCEPTION(AppError, waitForTask(http().send(request)));
    }

    void restartsAfterShutdown()
    {
        TestHttpServer server(reply("{}"));
        QCOMPARE(waitForTask(http().send(get(server, "/a"))).status, 200);
        http().shutdown();
        QCOMPARE(waitForTask(http().send(get(server, "/b"))).status, 200);
    }
};

QTEST_GUILESS_MAIN(TestHttpTransport)
#include "tst_httptransport.moc"
