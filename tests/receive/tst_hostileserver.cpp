// A receive against a server written to hurt the client: every case must end in a sentence
// for the user, within a bounded number of requests and bytes, with nothing written outside
// the cache folder.

#include "testdata.h"
#include "testhttpserver.h"

#include "api/apiclient.h"
#include "api/serviceorigin.h"
#include "api/usermessage.h"
#include "platform/waitfortask.h"
#include "receive/downloadtopartial.h"
#include "receive/lookup.h"
#include "send/sendplan.h"
#include "send/uploader.h"

#include <QDirIterator>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>

using namespace lofthaven;
using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kSize = 1000;

struct Behaviour
{
    std::string lookupId = "Good1234";
    std::string metaId = "Good1234";
    // Answers GET /dl/...: fills the response for the n-th download request (from 1).
    std::function<void(int n, const httplib::Request &, httplib::Response &)> download;
};

std::string metaJson(const std::string &id)
{
    return "{\"id\":\"" + id + "\",\"name\":\"report.pdf\",\"size\":" + std::to_string(kSize) + "}";
}

QStringList filesUnder(const QString &folder)
{
    QStringList files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        files << QDir(folder).relativeFilePath(it.next());
    files.sort();
    return files;
}

} // namespace

Q_DECLARE_METATYPE(std::shared_ptr<Behaviour>)

class TestHostileServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void receiveEndsCleanly_data()
    {
        QTest::addColumn<std::shared_ptr<Behaviour>>("behaviour");
        QTest::addColumn<QString>("message");
        QTest::addColumn<int>("maxDownloadRequests");

        const auto row = [](const char *tag, Behaviour behaviour, const QString &message,
                            int maxRequests) {
            QTest::newRow(tag) << std::make_shared<Behaviour>(std::move(behaviour)) << message
                               << maxRequests;
        };
        const QString badId = u"The service sent a transfer identifier that is not valid."_s;

        row("code resolves to an id that climbs out", {.lookupId = "../../x"}, badId, 0);
        row("metadata names another id that climbs out", {.metaId = "../../../escaped"}, badId, 0);
        // One restart per attempt, then the retry schedule: 9 attempts of 2 requests.
        row("416 forever",
            {.download = [](int, const auto &, auto &response) { response.status = 416; }},
            u"The service could not send the requested part of the file."_s, 18);
        row("endless 500 body is cut",
            {.download =
                 [](int, const auto &, httplib::Response &response) {
                     response.status = 500;
                     response.set_chunked_content_provider("text/html", [](size_t, auto &sink) {
                         const std::string chunk(1 << 20, 'e');
                         return sink.write(chunk.data(), chunk.size());
                     });
                 }},
            u"Request failed (HTTP 500)."_s, 9);
        row("206 from the middle when no range was asked",
            {.download =
                 [](int, const auto &, httplib::Response &response) {
                     response.status = 206;
                     response.set_header("Content-Range", "bytes 500-999/1000");
                     response.set_content(std::string(500, 'm'), "application/octet-stream");
                 }},
            u"The service sent a different part of the file than was asked for."_s, 9);
        row("a redirect fails at once",
            {.download =
                 [](int, const auto &, httplib::Response &response) {
                     response.set_redirect("http://127.0.0.1:9/elsewhere");
                 }},
            u"Request failed (HTTP 302)."_s, 1);
        row("escape sequences and 10,000 characters in the message",
            {.download =
                 [](int, const auto &, httplib::Response &response) {
                     response.status = 403;
                     response.set_content("{\"error\":\"x\",\"message\":\"\\u001b]0;pwned"
                                          "\\u0007\\u001b[2JGo away\\u202e" +
                                              std::string(10000, 'a') + "\"}",
                                          "application/json");
                 }},
            u"]0;pwned[2JGo away"_s + QString(300 - 18, u'a') + QChar(0x2026), 1);
    }

    void receiveEndsCleanly()
    {
        QFETCH(std::shared_ptr<Behaviour>, behaviour);
        QFETCH(QString, message);
        QFETCH(int, maxDownloadRequests);

        std::atomic<int> downloads{0};
        TestHttpServer server([&](const httplib::Request &request, httplib::Response &response) {
            if (request.path.starts_with("/api/code/"))
                response.set_content("{\"id\":\"" + behaviour->lookupId + "\"}",
                                     "application/json");
            else if (request.path.starts_with("/api/transfers/"))
                response.set_content(metaJson(behaviour->metaId), "application/json");
            else if (request.path.starts_with("/dl/") && behaviour->download)
                behaviour->download(++downloads, request, response);
            else
                response.status = 404;
        });
        ServiceOrigin::configure({u"lofthaven"_s, u"--origin"_s, server.origin()});

        QTemporaryDir root;
        QVERIFY(root.isValid());
        const QString cache = root.filePath(u"cache"_s);
        int sleeps = 0;
        DownloadRetry retry;
        retry.sleeper = [&](std::chrono::milliseconds, std::stop_token) -> QCoro::Task<bool> {
            ++sleeps;
            co_return true;
        };

        QString outcome;
        try {
            // A named closure: the coroutine refers to its captures through it.
            const auto receive = [&]() -> QCoro::Task<void> {
                APIClient client;
                auto looking = lookupTransfer(client, u"123456"_s, u"127.0.0.1"_s);
                const TransferMeta meta = co_await looking;
                auto counter = std::make_shared<ProgressCounter>();
                auto fetching =
                    downloadToPartial(client, meta.id, std::nullopt, meta.size, false,
                                      partialPathFor(cache, meta.id), counter, {}, retry);
                co_await fetching;
            };
            auto receiving = receive();
            waitForTask(std::move(receiving));
        } catch (...) {
            outcome = userMessage(std::current_exception());
        }

        QCOMPARE(outcome, message);
        QVERIFY2(downloads <= maxDownloadRequests, qPrintable(QString::number(downloads)));
        QVERIFY(sleeps <= DownloadRetry::kMaxRetries);
        const QStringList written = filesUnder(root.path());
        for (const QString &file : written)
            QVERIFY2(file.startsWith(u"cache/downloads/"_s), qPrintable(file));
    }

    // Redirects are never followed for a part (it carries the owner token), and retrying one
    // would only ask again for the same answer.
    void partRedirectFailsAtOnce()
    {
        std::atomic<int> puts{0};
        TestHttpServer server([&](const httplib::Request &request, httplib::Response &response) {
            if (request.method == "POST" && request.path == "/api/transfers") {
                response.set_content("{\"id\":\"Up123456\",\"code\":\"123456\",\"ownerToken\":"
                                     "\"secret\",\"partSize\":1048576,\"partCount\":1,\"url\":"
                                     "\"http://x/d/Up123456\",\"expiresAt\":1e12}",
                                     "application/json");
            } else if (request.method == "PUT") {
                ++puts;
                response.set_redirect("http://127.0.0.1:9/elsewhere", 307);
            } else {
                response.set_content("{\"ok\":true}", "application/json");
            }
        });
        ServiceOrigin::configure({u"lofthaven"_s, u"--origin"_s, server.origin()});
        QTemporaryDir root;
        QVERIFY(root.isValid());
        QVERIFY(testing::writeFile(root.filePath(u"a.bin"_s), "some bytes"));

        SendOptions options;
        options.expiresIn = 3600;
        Uploader uploader(APIClient(), SendPlan::make({root.filePath(u"a.bin"_s)}), options,
                          root.filePath(u"spill"_s), std::make_shared<ProgressCounter>());
        int sleeps = 0;
        uploader.setSleeper([&](std::chrono::milliseconds, std::stop_token) -> QCoro::Task<bool> {
            ++sleeps;
            co_return true;
        });
        QString outcome;
        try {
            auto uploading = uploader.run();
            waitForTask(std::move(uploading));
        } catch (...) {
            outcome = userMessage(std::current_exception());
        }
        QCOMPARE(outcome, u"Request failed (HTTP 307)."_s);
        QCOMPARE(puts.load(), 1);
        QCOMPARE(sleeps, 0);
    }
};

QTEST_GUILESS_MAIN(TestHostileServer)
#include "tst_hostileserver.moc"
