#include "testhttpserver.h"
#include "platform/waitfortask.h"

#include "api/apiclient.h"
#include "api/apierror.h"
#include "api/apperror.h"
#include "api/cancelled.h"
#include "api/httptransport.h"
#include "api/serviceorigin.h"
#include "api/transporterror.h"

#include <QCoroTask>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>

using namespace lofthaven;
using namespace std::chrono_literals;

namespace {

HttpRequest get(const TestHttpServer &server, const char *path)
{
    HttpRequest request;
    request.url = QUrl(server.origin() + QString::fromLatin1(path));
    return request;
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

QByteArray randomBytes(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(42);
    for (qsizetype i = 0; i < size; ++i)
        bytes[i] = char(generator.generate() & 0xff);
    return bytes;
}

class RecordingSink : public ResponseSink
{
public:
    bool begin(int status, const HttpHeaders &headers) override
    {
        beganWith = status;
        for (const auto &[name, value] : headers) {
            if (name.compare("X-Test", Qt::CaseInsensitive) == 0)
                testHeader = value;
        }
        return status == 200;
    }
    bool write(const char *data, qint64 size) override
    {
        received.append(data, size);
        return received.size() < failAfter;
    }
    void finish() override { ++finished; }

    int beganWith = 0;
    QByteArray testHeader;
    QByteArray received;
    qint64 failAfter = std::numeric_limits<qint64>::max();
    int finished = 0;
};

} // namespace

class TestHttpTransport : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void cleanupTestCase() { HttpTransport::instance().shutdown(); }

    void capturesBodyStatusAndHeaders()
    {
        TestHttpServer server([](const httplib::Request &, httplib::Response &response) {
            response.status = 418;
            response.set_header("X-Test", "kettle");
            response.set_content("short and stout", "text/plain");
        });
        const HttpResponse response = lofthaven::waitForTask(HttpTransport::instance().send(get(server, "/tea")));
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
        TestHttpServer elsewhere([](const httplib::Request &, httplib::Response &response) {
            response.set_content("{}", "application/json");
        });
        TestHttpServer origin([&](const httplib::Request &, httplib::Response &response) {
            response.set_redirect(elsewhere.origin().toStdString() + "/api/me");
        });
        HttpRequest request = get(origin, "/api/me");
        request.headers.append({secretHeader, "s3cret"});
        request.followRedirects = true; // even when asked to: a secret never travels on
        const HttpResponse response = lofthaven::waitForTask(HttpTransport::instance().send(request));
        QCOMPARE(response.status, 302);
        QCOMPARE(elsewhere.requestCount(), size_t(0));
    }

    void apiClientSurfacesRedirectAsApiError()
    {
        TestHttpServer elsewhere([](const httplib::Request &, httplib::Response &response) {
            response.set_content(R"({"signedIn":true})", "application/json");
        });
        TestHttpServer origin([&](const httplib::Request &, httplib::Response &response) {
            response.set_redirect(elsewhere.origin().toStdString() + "/api/me");
        });
        ServiceOrigin::setUrl(origin.origin());
        try {
            lofthaven::waitForTask(APIClient(QStringLiteral("tok")).me());
            QFAIL("a redirect must not count as success");
        } catch (const APIError &error) {
            QCOMPARE(error.status(), 302);
            QCOMPARE(error.code(), QStringLiteral("http_302"));
        }
        QCOMPARE(elsewhere.requestCount(), size_t(0));
    }

    void plainFetchMayFollowRedirect()
    {
        TestHttpServer elsewhere([](const httplib::Request &, httplib::Response &response) {
            response.set_content(R"({"version":"1.2.3"})", "application/json");
        });
        TestHttpServer origin([&](const httplib::Request &, httplib::Response &response) {
            response.set_redirect(elsewhere.origin().toStdString() + "/manifest.json");
        });
        ServiceOrigin::setUrl(origin.origin());
        const UpdateInfo info = lofthaven::waitForTask(APIClient(QStringLiteral("tok")).updateInfo());
        QCOMPARE(info.version, QStringLiteral("1.2.3"));
        QCOMPARE(elsewhere.requestCount(), size_t(1));
        QVERIFY(!elsewhere.seen().at(0).has("Authorization"));
        QVERIFY(!origin.seen().at(0).has("Authorization"));
    }

    void bodyOverCapFailsCleanly()
    {
        TestHttpServer server([](const httplib::Request &, httplib::Response &response) {
            response.set_content(std::string(3 << 20, 'x'), "application/json");
        });
        try {
            lofthaven::waitForTask(HttpTransport::instance().send(get(server, "/big")));
            QFAIL("an answer over the cap must fail");
        } catch (const TransportError &error) {
            QVERIFY(!error.retryable());
            QVERIFY2(error.description().contains(u"larger than expected"),
                     qPrintable(error.description()));
        }
    }

    void capCanTruncateInstead()
    {
        TestHttpServer server([](const httplib::Request &, httplib::Response &response) {
            response.status = 500;
            response.set_content(std::string(200000, 'e'), "text/html");
        });
        HttpRequest request = get(server, "/err");
        request.maxCapturedBody = 65536;
        request.truncateCapturedBody = true;
        const HttpResponse response = lofthaven::waitForTask(HttpTransport::instance().send(request));
        QCOMPARE(response.status, 500);
        QCOMPARE(response.body, QByteArray(65536, 'e'));
    }

    void tricklingAnswerIsCutAsRetryableTimeout()
    {
        TestHttpServer server([&](const httplib::Request &, httplib::Response &response) {
            response.set_chunked_content_provider("application/json",
                                                  [&](size_t, httplib::DataSink &sink) {
                                                      // One byte every 3 s: far below 1 byte/s over
                                                      // the 1 s idle limit.
                                                      if (!sink.write("{", 1))
                                                          return false;
                                                      sleepWhile(server, 3s);
                                                      return !server.stopping.load();
                                                  });
        });
        HttpRequest request = get(server, "/slow");
        request.idleTimeout = 1s;
        try {
            lofthaven::waitForTask(HttpTransport::instance().send(request));
            QFAIL("a trickling answer must be cut");
        } catch (const TransportError &error) {
            QVERIFY(error.retryable());
            QCOMPARE(error.description(), QStringLiteral("The request timed out."));
        }
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
        auto task = HttpTransport::instance().send(get(server, "/slow"), stop.get_token());
        QVERIFY(QTest::qWaitFor([&] { return server.requestCount() == 1; }));
        stop.request_stop();
        bool cancelled = false;
        try {
            lofthaven::waitForTask(std::move(task));
        } catch (const Cancelled &) {
            cancelled = true;
        }
        QVERIFY(cancelled);
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
        QVERIFY_THROWS_EXCEPTION(
            Cancelled, lofthaven::waitForTask(HttpTransport::instance().send(request, stop.get_token())));
    }

    void atMostEightConnectionsPerHost()
    {
        std::atomic<int> inFlight{0};
        std::atomic<int> peak{0};
        TestHttpServer server([&](const httplib::Request &, httplib::Response &response) {
            const int now = ++inFlight;
            int seenPeak = peak.load();
            while (now > seenPeak && !peak.compare_exchange_weak(seenPeak, now)) {
            }
            // Hold the answer until eight are in flight (or a while), so that a ninth connection
            // would have had every chance to open.
            sleepWhile(server, 500ms, [&] { return inFlight.load() < 8; });
            sleepWhile(server, 100ms);
            --inFlight;
            response.set_content("{}", "application/json");
        });
        auto all = [&]() -> QCoro::Task<int> {
            std::vector<QCoro::Task<HttpResponse>> tasks;
            for (int i = 0; i < 12; ++i)
                tasks.push_back(HttpTransport::instance().send(get(server, "/c")));
            int ok = 0;
            for (auto &task : tasks)
                ok += (co_await task).status == 200;
            co_return ok;
        };
        QCOMPARE(lofthaven::waitForTask(all()), 12);
        QVERIFY2(server.connectionCount() <= 8,
                 qPrintable(QString::number(server.connectionCount())));
        QVERIFY(peak.load() <= 8);
        QVERIFY(peak.load() >= 2); // they did run side by side
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
        const QByteArray content = randomBytes(3 << 20);
        QFile file(dir.filePath(QStringLiteral("part.bin")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(content), content.size());
        file.close();

        TestHttpServer server([](const httplib::Request &, httplib::Response &response) {
            response.set_content(R"({"etag":"e1"})", "application/json");
        });
        HttpRequest request = get(server, "/api/transfers/t/parts/1");
        request.method = "PUT";
        request.fileBody = FileBody{file.fileName(), offset, length};
        std::atomic<qint64> lastSent{-1};
        request.onUploadProgress = [&](qint64 sent) { lastSent = sent; };
        const HttpResponse response = lofthaven::waitForTask(HttpTransport::instance().send(request));
        QCOMPARE(response.status, 200);
        const auto seen = server.seen().at(0);
        QCOMPARE(seen.method, "PUT");
        QVERIFY(seen.body == content.mid(offset, length).toStdString());
        QVERIFY(!seen.has("Expect"));
        if (length > 0)
            QCOMPARE(lastSent.load(), length);
    }

    void shortFileFailsAsChanged()
    {
        QTemporaryDir dir;
        QFile file(dir.filePath(QStringLiteral("notes.txt")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(100, 'n'));
        file.close();
        TestHttpServer server([](const httplib::Request &, httplib::Response &response) {
            response.set_content("{}", "application/json");
        });
        HttpRequest request = get(server, "/put");
        request.method = "PUT";
        request.fileBody = FileBody{file.fileName(), 50, 51};
        try {
            lofthaven::waitForTask(HttpTransport::instance().send(request));
            QFAIL("a short file must fail");
        } catch (const AppError &error) {
            QCOMPARE(error.message(), QStringLiteral("notes.txt changed while sending."));
        }
    }

    void fileShrinkingWhileSendingFails()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("movie.mov"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(randomBytes(24 << 20));
        file.close();
        TestHttpServer server([](const httplib::Request &, httplib::Response &response) {
            response.set_content("{}", "application/json");
        });
        HttpRequest request = get(server, "/put");
        request.method = "PUT";
        request.fileBody = FileBody{path, 0, 24 << 20};
        std::atomic<bool> truncated{false};
        request.onUploadProgress = [&](qint64 sent) {
            if (sent > 0 && !truncated.exchange(true))
                QFile::resize(path, 1 << 20);
        };
        try {
            lofthaven::waitForTask(HttpTransport::instance().send(request));
            QFAIL("a file that shrinks while sending must fail");
        } catch (const AppError &error) {
            QCOMPARE(error.message(), QStringLiteral("movie.mov changed while sending."));
        }
        QVERIFY(truncated);
    }

    void sinkReceivesBody()
    {
        const QByteArray content = randomBytes(700000);
        TestHttpServer server([&](const httplib::Request &, httplib::Response &response) {
            response.set_header("X-Test", "sink");
            response.set_content(content.toStdString(), "application/octet-stream");
        });
        auto sink = std::make_shared<RecordingSink>();
        HttpRequest request = get(server, "/dl/x");
        request.sink = sink;
        const HttpResponse response = lofthaven::waitForTask(HttpTransport::instance().send(request));
        QCOMPARE(response.status, 200);
        QVERIFY(response.body.isEmpty());
        QVERIFY(!response.sinkAborted);
        QCOMPARE(sink->beganWith, 200);
        QCOMPARE(sink->testHeader, QByteArray("sink"));
        QCOMPARE(sink->finished, 1);
        QVERIFY(sink->received == content);
    }

    void sinkDeclinesErrorBodyAndCanAbort()
    {
        TestHttpServer server([](const httplib::Request &request, httplib::Response &response) {
            if (request.path == "/missing") {
                response.status = 404;
                response.set_content(R"({"error":"not_found","message":"No such transfer."})",
                                     "application/json");
            } else {
                response.set_content(std::string(1 << 20, 'd'), "application/octet-stream");
            }
        });
        auto sink = std::make_shared<RecordingSink>();
        HttpRequest request = get(server, "/missing");
        request.sink = sink;
        const HttpResponse missing = lofthaven::waitForTask(HttpTransport::instance().send(request));
        QCOMPARE(missing.status, 404);
        QCOMPARE(APIError::fromResponse(missing.status, missing.body).description(),
                 QStringLiteral("No such transfer."));
        QVERIFY(sink->received.isEmpty());

        auto failing = std::make_shared<RecordingSink>();
        failing->failAfter = 1000;
        HttpRequest full = get(server, "/full");
        full.sink = failing;
        const HttpResponse aborted = lofthaven::waitForTask(HttpTransport::instance().send(full));
        QVERIFY2(aborted.sinkAborted, qPrintable(QStringLiteral("status %1 received %2 began %3")
                                                     .arg(aborted.status)
                                                     .arg(failing->received.size())
                                                     .arg(failing->beganWith)));
        QCOMPARE(failing->finished, 1);
        QVERIFY(failing->received.size() < (1 << 20));
    }

    void refusedConnectionIsRetryable()
    {
        int port = 0;
        {
            TestHttpServer gone([](const httplib::Request &, httplib::Response &) {});
            port = gone.port();
        }
        HttpRequest request;
        request.url = QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(port));
        try {
            lofthaven::waitForTask(HttpTransport::instance().send(request));
            QFAIL("nothing listens there");
        } catch (const TransportError &error) {
            QVERIFY(error.retryable());
            QVERIFY2(error.description().startsWith(u"Couldn't connect to the server 127.0.0.1"),
                     qPrintable(error.description()));
        }
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
        QVERIFY_THROWS_EXCEPTION(AppError, lofthaven::waitForTask(HttpTransport::instance().send(request)));
    }

    void restartsAfterShutdown()
    {
        TestHttpServer server([](const httplib::Request &, httplib::Response &response) {
            response.set_content("{}", "application/json");
        });
        QCOMPARE(lofthaven::waitForTask(HttpTransport::instance().send(get(server, "/a"))).status, 200);
        HttpTransport::instance().shutdown();
        QCOMPARE(lofthaven::waitForTask(HttpTransport::instance().send(get(server, "/b"))).status, 200);
    }
};

QTEST_GUILESS_MAIN(TestHttpTransport)
#include "tst_httptransport.moc"
