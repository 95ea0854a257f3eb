// The device sign-in's decision table and polling schedule against a scripted HTTP server, on
// virtual time: every answer the service may give, in order, and what the user sees.
#include "api/accountsession.h"
#include "api/serviceorigin.h"
#include "fakepollclock.h"
#include "platform/credentialstore.h"
#include "platform/preferences.h"
#include "platform/waitfortask.h"
#include "testhttpserver.h"

#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

#include <mutex>

using namespace lofthaven;

namespace {

using Answer = std::pair<int, QByteArray>; // status, body
const QByteArray kToken = R"({"token":"tok-1","user":{"id":"u1","name":"Ada"},)"
                          R"("limits":{"maxBytes":2147483648,"expiries":[3600,604800]}})";
const QByteArray kMe = R"({"signedIn":true,"user":{"id":"u1","name":"Ada"},)"
                       R"("limits":{"maxBytes":2147483648,"expiries":[3600,604800]}})";

// Answers /api/cli/login with `start`, each /api/cli/token with the next scripted answer (the
// last one repeats), and /api/me with `me`.
struct Script
{
    Answer start;
    QList<Answer> polls;
    Answer me{200, kMe};
    std::mutex mutex;
    int next = 0;

    void handle(const httplib::Request &request, httplib::Response &response)
    {
        Answer answer;
        {
            std::lock_guard lock(mutex);
            if (request.path == "/api/cli/login")
                answer = start;
            else if (request.path == "/api/cli/token")
                answer = polls.at(std::min<int>(next++, polls.size() - 1));
            else if (request.path == "/api/me")
                answer = me;
            else
                answer = {404, "{}"};
        }
        response.status = answer.first;
        if (!answer.second.isEmpty())
            response.set_content(answer.second.toStdString(), "application/json");
    }
};

// (No "//" inside raw strings in this file: moc reads it as a comment.)
QByteArray startBody(const QString &extra)
{
    return ("{\"deviceCode\":\"dev-1\",\"userCode\":\"ABCD-EFGH\",\"verifyUrl\":"
            "\"http://127.0.0.1:1/device\"" +
            extra + "}")
        .toUtf8();
}

} // namespace

class TestAccountSession : public QObject
{
    Q_OBJECT
    QTemporaryDir m_home;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_home.isValid());
        isolateDesktop(m_home.path());
        registerDefaultSettings();
    }

    void init()
    {
        // No token from an earlier case.
        waitForTask(deleteToken());
        removePreference(Preference::CachedMe);
    }

    void decisions_data()
    {
        QTest::addColumn<QByteArray>("start");
        QTest::addColumn<QList<Answer>>("polls");
        QTest::addColumn<QList<qint64>>("sleeps"); // seconds
        QTest::addColumn<QString>("failure");      // empty: signed in

        const QByteArray plain = startBody(R"(,"interval":3,"expiresIn":600)");
        QTest::newRow("428 pending, then the token")
            << plain << QList<Answer>{{428, "{}"}, {428, "{}"}, {200, kToken}}
            << QList<qint64>{3, 3, 3} << "";
        QTest::newRow("pending by its code on another status")
            << plain << QList<Answer>{{400, R"({"error":"authorization_pending"})"}, {200, kToken}}
            << QList<qint64>{3, 3} << "";
        QTest::newRow("slow_down twice adds 5 s each time")
            << plain
            << QList<Answer>{{429, "{}"},
                             {400, R"({"error":"slow_down"})"},
                             {428, "{}"},
                             {200, kToken}}
            << QList<qint64>{3, 8, 13, 13} << "";
        QTest::newRow("no interval: every 3 s")
            << startBody("") << QList<Answer>{{428, "{}"}, {200, kToken}} << QList<qint64>{3, 3}
            << "";
        QTest::newRow("interval 0.2: every second")
            << startBody(R"(,"interval":0.2)") << QList<Answer>{{428, "{}"}, {200, kToken}}
            << QList<qint64>{1, 1} << "";
        QTest::newRow("410 expired")
            << plain << QList<Answer>{{428, "{}"}, {410, "{}"}} << QList<qint64>{3, 3}
            << "The sign-in code expired. Try again.";
        QTest::newRow("403 denied")
            << plain << QList<Answer>{{403, R"({"message":"Denied by the admin."})"}}
            << QList<qint64>{3} << "Sign-in was denied in the browser.";
        QTest::newRow("500 with a message")
            << plain << QList<Answer>{{500, R"({"error":"x","message":"The service is down."})"}}
            << QList<qint64>{3} << "The service is down.";
        QTest::newRow("500 without a body") << plain << QList<Answer>{{500, ""}} << QList<qint64>{3}
                                            << "Sign-in failed (HTTP 500).";
        QTest::newRow("500 with HTML") << plain << QList<Answer>{{500, "<html>oops</html>"}}
                                       << QList<qint64>{3} << "Sign-in failed (HTTP 500).";
        QTest::newRow("200 without a token")
            << plain << QList<Answer>{{200, R"({"user":{"id":"u1"}})"}} << QList<qint64>{3}
            << "Sign-in failed (HTTP 200).";
        QTest::newRow("code lifetime 10 s: polls at 3, 6, 9 and 12 s")
            << startBody(R"(,"interval":3,"expiresIn":10)") << QList<Answer>{{428, "{}"}}
            << QList<qint64>{3, 3, 3, 3} << "The sign-in code expired. Try again.";
        QList<qint64> tenMinutes;
        for (int i = 0; i < 200; ++i)
            tenMinutes << 3;
        QTest::newRow("no lifetime: gives up after 600 s")
            << startBody("") << QList<Answer>{{428, "{}"}} << tenMinutes
            << "The sign-in code expired. Try again.";
    }
    void decisions()
    {
        QFETCH(QByteArray, start);
        QFETCH(QList<Answer>, polls);
        QFETCH(QList<qint64>, sleeps);
        QFETCH(QString, failure);

        Script script;
        script.start = {200, start};
        script.polls = polls;
        TestHttpServer server(
            [&](const auto &request, auto &response) { script.handle(request, response); });
        ServiceOrigin::setUrl(server.origin());
        auto clock = std::make_shared<FakePollClock>();
        AccountSession session;
        session.setClock(clock);
        int signedIn = 0;
        connect(&session, &AccountSession::signedIn, this, [&] { ++signedIn; });

        waitForTask(session.startSignIn());

        QList<qint64> slept;
        for (qint64 ms : clock->sleeps())
            slept << ms / 1000;
        QCOMPARE(slept, sleeps);
        if (failure.isEmpty()) {
            QCOMPARE(session.signIn(), std::nullopt);
            QCOMPARE(session.token(), QStringLiteral("tok-1"));
            QCOMPARE(session.me()->user->name, QStringLiteral("Ada"));
            QCOMPARE(session.me()->limits->maxBytes, 2147483648);
            QCOMPARE(signedIn, 1);
            QCOMPARE(waitForTask(loadToken()), QStringLiteral("tok-1"));
            QCOMPARE(dataPreference(Preference::CachedMe).has_value(), true);
        } else {
            QVERIFY(session.signIn().has_value());
            QCOMPARE(session.signIn()->phase, SignInState::Phase::Failed);
            QCOMPARE(session.signIn()->message, failure);
            QCOMPARE(session.token(), std::nullopt);
            QCOMPARE(signedIn, 0);
            QCOMPARE(waitForTask(loadToken()), std::nullopt);
        }
        // The device name goes with the start, every poll with the device code and its type.
        const auto seen = server.seen();
        QVERIFY(seen.front().body.find("\"name\":\"Lofthaven for Linux (") != std::string::npos);
        for (const auto &request : seen) {
            // Sign-in requests go without a token; the refresh afterwards carries it.
            QCOMPARE(request.has("Authorization"), request.path == "/api/me");
            if (request.path == "/api/cli/token") {
                QCOMPARE(request.header("Content-Type"), std::string("application/json"));
                QCOMPARE(QJsonDocument::fromJson(QByteArray::fromStdString(request.body))
                             .object()
                             .value("deviceCode")
                             .toString(),
                         QStringLiteral("dev-1"));
            }
        }
    }

    void approvalPage_data()
    {
        QTest::addColumn<QByteArray>("start");
        QTest::addColumn<QString>("expected");
        QTest::newRow("complete address first")
            << startBody(",\"verifyUrlComplete\":\"http://127.0.0.1:1/device?code=ABCD-EFGH\"")
            << "http://127.0.0.1:1/device?code=ABCD-EFGH";
        QTest::newRow("else the page") << startBody("") << "http://127.0.0.1:1/device";
        QTest::newRow("not an address: the service")
            << QByteArray(R"({"deviceCode":"d","userCode":"U","verifyUrl":"not a url"})")
            << "ORIGIN";
    }
    void approvalPage()
    {
        QFETCH(QByteArray, start);
        QFETCH(QString, expected);
        Script script;
        script.start = {200, start};
        script.polls = {{403, "{}"}};
        TestHttpServer server(
            [&](const auto &request, auto &response) { script.handle(request, response); });
        ServiceOrigin::setUrl(server.origin());
        expected.replace("ORIGIN", server.origin());
        AccountSession session;
        session.setClock(std::make_shared<FakePollClock>());
        QList<QUrl> opened;
        QList<SignInState> states;
        session.setUrlOpener([&](const QUrl &url) { opened << url; });
        connect(&session, &AccountSession::signInChanged, this, [&] {
            if (session.signIn())
                states << *session.signIn();
        });
        waitForTask(session.startSignIn());
        QCOMPARE(opened, QList<QUrl>{QUrl(expected)});
        QCOMPARE(states.size(), 3);
        QCOMPARE(states.at(0).phase, SignInState::Phase::Starting);
        QCOMPARE(states.at(1).phase, SignInState::Phase::Waiting);
        QCOMPARE(states.at(1).userCode, QString(expected.contains("1/") ? "ABCD-EFGH" : "U"));
        QCOMPARE(states.at(1).url, QUrl(expected));
        QCOMPARE(states.at(2).phase, SignInState::Phase::Failed);
    }

    void startFailureShowsTheServiceSentence()
    {
        Script script;
        script.start = {503, R"({"error":"busy","message":"Try again in a minute."})"};
        TestHttpServer server(
            [&](const auto &request, auto &response) { script.handle(request, response); });
        ServiceOrigin::setUrl(server.origin());
        AccountSession session;
        waitForTask(session.startSignIn());
        QCOMPARE(session.signIn()->phase, SignInState::Phase::Failed);
        QCOMPARE(session.signIn()->message, QStringLiteral("Try again in a minute."));
    }

    // The refresh rules: which answers sign out, which are ignored.
    void refresh_data()
    {
        QTest::addColumn<Answer>("me");
        QTest::addColumn<bool>("staysSignedIn");
        QTest::addColumn<QString>("cachedName"); // "cachedMe" afterwards
        QTest::newRow("account") << Answer{200,
                                           R"({"signedIn":true,"user":{"id":"u1","name":"Bea"}})"}
                                 << true << "Bea";
        QTest::newRow("no longer signed in") << Answer{200, R"({"signedIn":false})"} << false << "";
        QTest::newRow("401") << Answer{401, R"({"error":"unauthorized"})"} << false << "";
        QTest::newRow("500 keeps the cache") << Answer{500, "{}"} << true << "Ada";
        QTest::newRow("undecodable keeps the cache") << Answer{200, "[1]"} << true << "Ada";
    }
    void refresh()
    {
        QFETCH(Answer, me);
        QFETCH(bool, staysSignedIn);
        QFETCH(QString, cachedName);
        Script script;
        script.start = {200, startBody("")};
        script.polls = {{200, kToken}};
        TestHttpServer server(
            [&](const auto &request, auto &response) { script.handle(request, response); });
        ServiceOrigin::setUrl(server.origin());
        // Signed in, with Ada cached, as after an earlier run.
        {
            AccountSession first;
            first.setClock(std::make_shared<FakePollClock>());
            waitForTask(first.startSignIn());
            QVERIFY(first.token());
        }
        {
            std::lock_guard lock(script.mutex);
            script.me = me;
        }
        AccountSession session;
        waitForTask(session.load());
        QCOMPARE(session.me()->user->name, QStringLiteral("Ada"));
        int signedOut = 0;
        connect(&session, &AccountSession::signedOut, this, [&] { ++signedOut; });
        waitForTask(session.refresh());

        QCOMPARE(session.token().has_value(), staysSignedIn);
        QCOMPARE(signedOut, staysSignedIn ? 0 : 1);
        const auto cached = dataPreference(Preference::CachedMe);
        if (cachedName.isEmpty()) {
            QCOMPARE(cached, std::nullopt);
            QCOMPARE(session.me(), std::nullopt);
            QCOMPARE(session.notice(),
                     QStringLiteral("Your sign-in expired. Sign in again to use your account."));
            QCOMPARE(waitForTask(loadToken()), std::nullopt);
        } else {
            QCOMPARE(MeResponse::fromJson(QJsonDocument::fromJson(*cached).object()).user->name,
                     cachedName);
            QCOMPARE(session.me()->user->name, cachedName);
        }
    }
};

QTEST_GUILESS_MAIN(TestAccountSession)
#include "tst_accountsession.moc"
