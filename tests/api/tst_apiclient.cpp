#include "testdata.h"
#include "testhttpserver.h"
#include "thrown.h"

#include "api/apiclient.h"
#include "api/apierror.h"
#include "api/apperror.h"
#include "api/decodeerror.h"
#include "api/httptransport.h"
#include "api/serviceorigin.h"

#include <QTemporaryDir>
#include <QTest>

using namespace lofthaven;

namespace {

QByteArray headerValue(const HttpRequest &request, const QByteArray &name)
{
    for (const auto &[key, value] : request.headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return "<absent>";
}

void json(httplib::Response &response, const std::string &body, int status = 200)
{
    response.status = status;
    response.set_content(body, "application/json");
}

// A small stand-in for the service: every endpoint the client calls, answering fixed records.
void fakeService(const httplib::Request &request, httplib::Response &response)
{
    const std::string &m = request.method;
    const std::string &p = request.path;
    if (m == "GET" && p == "/api/me")
        return json(response, R"({"signedIn":true,"user":{"id":"u1"},"plans":{"pro":"Pro"},)"
                              R"("limits":{"maxBytes":107374182400,"expiries":[3600]}})");
    if (m == "GET" && p == "/api/me/transfers")
        return json(response, R"({"transfers":[{"id":"t1","name":"a","size":1}]})");
    if (m == "GET" && p == "/api/me/inbox")
        return json(response, R"({"items":[{"id":"t2","name":"b","size":2,"device":"Phone"}]})");
    if (m == "POST" && p == "/api/cli/login")
        return json(response, R"({"deviceCode":"dc","userCode":"ABCD-EFGH",)"
                              R"("verifyUrl":"https://x/device","interval":2})");
    if (m == "POST" && p == "/api/cli/token") {
        if (request.body.find("\"pending\"") != std::string::npos)
            return json(response, R"({"error":"authorization_pending"})", 428);
        if (request.body.find("\"broken\"") != std::string::npos)
            return json(response, "<html>500</html>", 500);
        return json(response, R"({"token":"new-token","user":{"id":"u1"}})");
    }
    if (m == "POST" && p == "/api/cli/logout")
        return json(response, "", 204);
    if (m == "GET" && p == "/api/code/123456")
        return json(response, R"({"id":"t1"})");
    if (m == "GET" && p == "/api/code/000000")
        return json(response, R"({"error":"not_found","message":"No transfer has that code."})",
                    404);
    if (m == "GET" && p == "/api/transfers/t1")
        return json(response, R"({"id":"t1","name":"a.txt","size":5000000000,"hasPassword":true})");
    if (m == "GET" && p == "/api/transfers/notjson")
        return json(response, "hello");
    if (m == "POST" && p == "/api/transfers/t1/unlock")
        return request.body == R"({"password":"open sesame"})"
                   ? json(response, R"({"token":"unl&ck=+"})")
                   : json(response, R"({"error":"bad_password","message":"Wrong password."})", 403);
    if (m == "POST" && p == "/api/transfers")
        return json(response, R"({"id":"t9","code":"654321","ownerToken":"own","partSize":)"
                              R"(16777216,"partCount":1,"url":"https://x/d/t9","expiresAt":1.5})");
    if (m == "PUT" && p == "/api/transfers/t9/parts/1")
        return json(response, R"({"etag":"etag-)" + std::to_string(request.body.size()) + "\"}");
    if (m == "POST" && p == "/api/transfers/t9/complete")
        return json(response, R"({"id":"t9","code":"654321","url":"https://x/d/t9",)"
                              R"("expiresAt":2.5,"size":11})");
    if (m == "POST" && p == "/api/transfers/t9/abort")
        return json(response, R"({"error":"gone"})", 410);
    if (m == "POST" && p == "/api/transfers/t9/extend")
        return json(response, R"({"expiresAt":99})");
    if (m == "DELETE" && p == "/api/transfers/t9")
        return json(response, "");
    if (m == "DELETE" && p == "/api/transfers/t8")
        return json(response, R"({"ok":false})");
    if (m == "GET" && p == "/downloads/desktop.json")
        return json(response, R"({"version":"2.0","notes":"Faster."})");
    if (m == "GET" && p == "/dl/t1")
        return json(response, "payload");
    json(response, R"({"error":"no_route"})", 404);
}

} // namespace

class TestAPIClient : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { ServiceOrigin::setUrl(QStringLiteral("https://lofthaven.example")); }
    void cleanupTestCase() { HttpTransport::instance().shutdown(); }

    void makeRequestHeaders_data()
    {
        QTest::addColumn<bool>("withToken");
        QTest::addColumn<QByteArray>("authorization");
        QTest::newRow("signed in") << true << QByteArray("Bearer tok-1");
        QTest::newRow("anonymous: no header at all") << false << QByteArray("<absent>");
    }
    void makeRequestHeaders()
    {
        QFETCH(bool, withToken);
        QFETCH(QByteArray, authorization);
        const APIClient client(withToken ? std::optional<QString>(QStringLiteral("tok-1"))
                                         : std::nullopt);
        const HttpRequest request = client.makeRequest(QStringLiteral("/api/transfers/abc"), "GET",
                                                       {{"X-Owner-Token", "own"}});
        QCOMPARE(request.url.toString(),
                 QStringLiteral("https://lofthaven.example/api/transfers/abc"));
        QCOMPARE(headerValue(request, "Authorization"), authorization);
        QCOMPARE(headerValue(request, "User-Agent"), QByteArray("Lofthaven-Desktop/1.0 (macOS)"));
        QCOMPARE(headerValue(request, "X-Owner-Token"), QByteArray("own"));
        QCOMPARE(headerValue(request, "Content-Type"), QByteArray("<absent>"));
        QVERIFY(!request.followRedirects);
        QCOMPARE(request.idleTimeout.count(), 60);
    }

    void downloadPath_data()
    {
        QTest::addColumn<QString>("token");
        QTest::addColumn<QString>("path");
        const auto row = [](const char *name, const char *token, const char *path) {
            QTest::newRow(name) << QString(token) << QString(path);
        };
        row("no token", nullptr, "/dl/T1");
        row("ampersand equals plus", "a&b=c+d", "/dl/T1?t=a%26b%3Dc%2Bd");
        row("query-safe kept", "x/y?z:@!$'()*,;", "/dl/T1?t=x/y?z:@!$'()*,;");
        row("space and percent", "a b%", "/dl/T1?t=a%20b%25");
        row("hash", "a#b", "/dl/T1?t=a%23b");
    }
    void downloadPath()
    {
        QFETCH(QString, token);
        QFETCH(QString, path);
        QCOMPARE(APIClient::downloadPath(QStringLiteral("T1"),
                                         token.isNull() ? std::nullopt : std::optional(token)),
                 path);
    }

    void downloadTokenArrivesIntact()
    {
        TestHttpServer server(fakeService);
        ServiceOrigin::setUrl(server.origin());
        const APIClient client;
        HttpRequest request = client.makeRequest(
            APIClient::downloadPath(QStringLiteral("t1"), QStringLiteral("a&b=c+d e")));
        request.headers.append(qMakePair(QByteArray("Range"), QByteArray("bytes=3-")));
        const HttpResponse response = waitForTask(HttpTransport::instance().send(request));
        QCOMPARE(response.status, 200); // the fake service ignores ranges
        const auto seen = server.seen().at(0);
        QCOMPARE(seen.target, "/dl/t1?t=a%26b%3Dc%2Bd%20e");
        QCOMPARE(seen.header("Range"), "bytes=3-");
        QVERIFY(!seen.has("Authorization"));
    }

    void origin_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("origin"); // empty = refused
        const auto row = [](const char *name, const char *value, const char *origin) {
            QTest::newRow(name) << QString(value) << QString(origin);
        };
        row("https", "https://lofthaven.app", "https://lofthaven.app");
        row("https with port and slash", "https://a.example:8443/", "https://a.example:8443");
        row("loopback http", "http://127.0.0.1:8480", "http://127.0.0.1:8480");
        row("localhost http", "http://localhost:8480", "http://localhost:8480");
        row("remote http refused", "http://lofthaven.app", "");
        row("path refused", "https://lofthaven.app/api", "");
        row("garbage refused", "not a url", "");
        row("ftp refused", "ftp://127.0.0.1", "");
    }
    void origin()
    {
        QFETCH(QString, value);
        QFETCH(QString, origin);
        try {
            ServiceOrigin::configure(
                {QStringLiteral("lofthaven"), QStringLiteral("--origin"), value});
            QCOMPARE(ServiceOrigin::url().toString(), origin);
        } catch (const AppError &error) {
            QVERIFY2(origin.isEmpty(), qPrintable(error.message()));
            QVERIFY(error.message().contains(value.trimmed()));
        }
    }

    void originFromEnvironment()
    {
        qputenv("LOFTHAVEN_ORIGIN", "http://127.0.0.1:9999");
        ServiceOrigin::configure({QStringLiteral("lofthaven")});
        QCOMPARE(ServiceOrigin::url().toString(), QStringLiteral("http://127.0.0.1:9999"));
        // The command line wins over the environment.
        ServiceOrigin::configure(
            {QStringLiteral("lofthaven"), QStringLiteral("--origin=https://b.example")});
        QCOMPARE(ServiceOrigin::host(), QStringLiteral("b.example"));
        qunsetenv("LOFTHAVEN_ORIGIN");
    }

    void everyEndpoint()
    {
        TestHttpServer server(fakeService);
        ServiceOrigin::setUrl(server.origin());
        const APIClient client(QStringLiteral("tok"));

        const MeResponse me = waitForTask(client.me());
        QCOMPARE(me.limits->maxBytes, qint64(107374182400));
        QCOMPARE(waitForTask(client.accountTransfers()).transfers.at(0).id, QStringLiteral("t1"));
        QCOMPARE(waitForTask(client.inbox()).items.at(0).device.value(), QStringLiteral("Phone"));

        const DeviceLoginStart start =
            waitForTask(client.startDeviceLogin(QStringLiteral("Lofthaven for Mac (box)")));
        QCOMPARE(start.userCode, QStringLiteral("ABCD-EFGH"));
        QCOMPARE(*start.interval, 2.0);
        const DeviceLoginPoll pending =
            waitForTask(client.pollDeviceLogin(QStringLiteral("pending")));
        QCOMPARE(pending.status, 428);
        QCOMPARE(pending.token.error.value(), QStringLiteral("authorization_pending"));
        const DeviceLoginPoll broken =
            waitForTask(client.pollDeviceLogin(QStringLiteral("broken")));
        QCOMPARE(broken.status, 500);
        QCOMPARE(broken.token, DeviceLoginToken());
        const DeviceLoginPoll approved = waitForTask(client.pollDeviceLogin(QStringLiteral("dc")));
        QCOMPARE(approved.token.token.value(), QStringLiteral("new-token"));
        waitForTask(client.logout());

        QCOMPARE(waitForTask(client.lookupCode(QStringLiteral("123456"))).id, QStringLiteral("t1"));
        const TransferMeta meta = waitForTask(client.transfer(QStringLiteral("t1")));
        QCOMPARE(meta.size, qint64(5000000000));
        QCOMPARE(
            waitForTask(client.unlock(QStringLiteral("t1"), QStringLiteral("open sesame"))).token,
            QStringLiteral("unl&ck=+"));

        CreateTransferBody body;
        body.name = QStringLiteral("a.txt");
        body.size = 11;
        body.files = {{QStringLiteral("a.txt"), 11}};
        body.expiresIn = 3600;
        body.partSize = 16777216;
        body.source = QStringLiteral("desktop");
        const CreatedTransfer created = waitForTask(client.createTransfer(body));
        QCOMPARE(created.ownerToken, QStringLiteral("own"));

        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("a.txt"));
        QVERIFY(testing::writeFile(path, "hello world"));
        qint64 sent = 0;
        const PartResponse part =
            waitForTask(client.uploadPart(created.id, created.ownerToken, 1, FileBody{path, 0, 11},
                                          [&](qint64 bytes) { sent = bytes; }));
        QCOMPARE(part.etag, QStringLiteral("etag-11"));
        QCOMPARE(sent, qint64(11));

        const CompletedTransfer completed = waitForTask(client.completeTransfer(
            created.id, created.ownerToken, CompleteBody{{{1, part.etag}}}));
        QCOMPARE(completed.size.value(), qint64(11));
        waitForTask(client.abortTransfer(created.id, created.ownerToken)); // 410 is ignored
        QCOMPARE(waitForTask(client.extendTransfer(created.id, created.ownerToken)).expiresAt,
                 99.0);
        QCOMPARE(waitForTask(client.deleteTransfer(created.id, std::nullopt)).ok,
                 std::optional(true));
        QCOMPARE(waitForTask(client.deleteTransfer(QStringLiteral("t8"), QStringLiteral("o"))).ok,
                 std::optional(false));
        QCOMPARE(waitForTask(client.updateInfo()).version, QStringLiteral("2.0"));

        // What went over the wire.
        const auto seen = server.seen();
        const auto find = [&](const std::string &method, const std::string &path) {
            for (const auto &s : seen) {
                if (s.method == method && s.path == path)
                    return s;
            }
            qFatal("request not seen");
        };
        for (const auto &s : seen)
            QCOMPARE(s.header("User-Agent"), "Lofthaven-Desktop/1.0 (macOS)");
        QCOMPARE(find("GET", "/api/me").header("Authorization"), "Bearer tok");
        QVERIFY(!find("GET", "/api/me").has("Content-Type"));
        const auto login = find("POST", "/api/cli/login");
        QVERIFY(!login.has("Authorization")); // sign-in goes without the token
        QCOMPARE(login.header("Content-Type"), "application/json");
        QCOMPARE(login.body, R"j({"name":"Lofthaven for Mac (box)"})j");
        QVERIFY(!find("POST", "/api/cli/token").has("Authorization"));
        const auto logout = find("POST", "/api/cli/logout");
        QCOMPARE(logout.header("Authorization"), "Bearer tok");
        QVERIFY(!logout.has("Content-Type"));
        QVERIFY(logout.body.empty());
        QCOMPARE(find("POST", "/api/transfers").body, body.encode().toStdString());
        const auto upload = find("PUT", "/api/transfers/t9/parts/1");
        QCOMPARE(upload.header("X-Owner-Token"), "own");
        QCOMPARE(upload.header("Content-Type"), "application/octet-stream");
        QCOMPARE(upload.body, "hello world");
        QCOMPARE(find("POST", "/api/transfers/t9/complete").body,
                 R"({"parts":[{"etag":"etag-11","partNumber":1}]})");
        QCOMPARE(find("POST", "/api/transfers/t9/abort").header("X-Owner-Token"), "own");
        QCOMPARE(find("POST", "/api/transfers/t9/extend").header("X-Owner-Token"), "own");
        QVERIFY(!find("DELETE", "/api/transfers/t9").has("X-Owner-Token"));
        QCOMPARE(find("DELETE", "/api/transfers/t8").header("X-Owner-Token"), "o");
        QVERIFY(!find("GET", "/downloads/desktop.json").has("Authorization"));
    }

    void failuresOverTheWire()
    {
        TestHttpServer server(fakeService);
        ServiceOrigin::setUrl(server.origin());
        const APIClient client;
        const auto missing = thrown<APIError>(client.lookupCode(QStringLiteral("000000")));
        QVERIFY2(missing, "404 must throw");
        QCOMPARE(missing->status(), 404);
        QCOMPARE(missing->description(), QStringLiteral("No transfer has that code."));
        const auto locked =
            thrown<APIError>(client.unlock(QStringLiteral("t1"), QStringLiteral("wrong")));
        QVERIFY2(locked, "403 must throw");
        QCOMPARE(locked->code(), QStringLiteral("bad_password"));
        QCOMPARE(locked->description(), QStringLiteral("Wrong password."));
        // An empty 2xx body is fine only where an acknowledgement is expected.
        QVERIFY_THROWS_EXCEPTION(DecodeError,
                                 waitForTask(client.transfer(QStringLiteral("notjson"))));
        QVERIFY(!server.seen().at(0).has("Authorization"));
    }
};

QTEST_GUILESS_MAIN(TestAPIClient)
#include "tst_apiclient.moc"
