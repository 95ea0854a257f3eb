// The device sign-in and the account session against the real local service: approval,
// denial, expiry, slow-down, failures while polling, cancellation, sign-out and a token the
// service revoked.
#include "api/accountsession.h"
#include "api/serviceorigin.h"
#include "fakepollclock.h"
#include "localservice.h"
#include "platform/credentialstore.h"
#include "platform/preferences.h"
#include "platform/waitfortask.h"

#include <QTemporaryDir>
#include <QTest>

using namespace lofthaven;
using namespace lofthaven::testing;

class TestAccountSessionService : public QObject
{
    Q_OBJECT

    QTemporaryDir m_home;
    LocalService m_service{{4096, {QStringLiteral("--device-interval"), QStringLiteral("0.05")}}};

    // A session whose polls come one virtual second apart but only 60 ms apart for real,
    // which the service (50 ms interval) accepts as patient.
    struct Fixture
    {
        std::shared_ptr<FakePollClock> clock =
            std::make_shared<FakePollClock>(std::chrono::milliseconds(60));
        AccountSession session;
        QList<SignInState> states;
        Fixture()
        {
            session.setClock(clock);
            QObject::connect(&session, &AccountSession::signInChanged, &session, [this] {
                if (session.signIn())
                    states << *session.signIn();
            });
        }
        QString userCode() const
        {
            return session.signIn() ? session.signIn()->userCode : QString();
        }
    };

    // Starts a sign-in and returns once its code is shown.
    static QCoro::Task<void> begin(Fixture &fixture)
    {
        auto task = fixture.session.startSignIn();
        const bool shown = QTest::qWaitFor([&] {
            return fixture.session.signIn() &&
                   fixture.session.signIn()->phase != SignInState::Phase::Starting;
        });
        Q_UNUSED(shown); // the callers check the phase
        return task;
    }

    void decide(const QString &userCode, bool approve)
    {
        m_service.control("POST",
                          approve ? QStringLiteral("/__test/device/approve")
                                  : QStringLiteral("/__test/device/deny"),
                          {{"userCode", userCode}, {"email", "ada@example.com"}});
    }

    // Signs in (approved at once) and returns the token.
    QString signIn(Fixture &fixture)
    {
        auto task = begin(fixture);
        decide(fixture.userCode(), true);
        waitForTask(std::move(task));
        return fixture.session.token().value_or(QString());
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_home.isValid());
        isolateDesktop(m_home.path());
        registerDefaultSettings();
        QVERIFY2(m_service.start(), qPrintable(m_service.error()));
        ServiceOrigin::setUrl(m_service.origin());
    }

    void init()
    {
        m_service.clearFaults();
        m_service.clearLog();
    }

    // What only the real service shows: approval, denial and expiry as it decides them, and
    // dropped connections. Answers by status alone (428, slow_down, 500) are the scripted
    // decision table's, in tst_accountsession.
    void outcomes_data()
    {
        QTest::addColumn<QList<QJsonObject>>("faults"); // on /api/cli/token, before the start
        QTest::addColumn<QString>("action");            // once the code is shown
        QTest::addColumn<QString>("failure");           // empty: signed in
        QTest::addColumn<QList<qint64>>("firstSleeps"); // seconds

        const auto fault = [](QJsonObject rule) {
            rule.insert("method", "POST");
            rule.insert("path", "/api/cli/token");
            return rule;
        };
        QTest::newRow("approved") << QList<QJsonObject>{} << "approve"
                                  << "" << QList<qint64>{1};
        QTest::newRow("denied") << QList<QJsonObject>{} << "deny"
                                << "Sign-in was denied in the browser." << QList<qint64>{1};
        QTest::newRow("code expired at the service")
            << QList<QJsonObject>{} << "expire"
            << "The sign-in code expired. Try again." << QList<qint64>{1};
        QTest::newRow("connection drops while polling are not shown")
            << QList<QJsonObject>{fault({{"dropAfterBytes", 0}, {"count", 3}})}
            << "approve after 3 polls"
            << "" << QList<qint64>{1, 1, 1};
    }
    void outcomes()
    {
        QFETCH(QList<QJsonObject>, faults);
        QFETCH(QString, action);
        QFETCH(QString, failure);
        QFETCH(QList<qint64>, firstSleeps);
        for (const QJsonObject &rule : faults)
            m_service.addFault(rule);

        Fixture fixture;
        auto task = begin(fixture);
        QCOMPARE(fixture.session.signIn()->phase, SignInState::Phase::Waiting);
        QVERIFY(fixture.session.signIn()->url.toString().endsWith("/device?code=" +
                                                                  fixture.userCode()));
        if (action == u"expire") {
            m_service.control("POST", "/__test/clock", {{"advanceSeconds", 700}});
        } else if (action == u"approve after 3 polls") {
            // An approval whose answer is lost is spent at the service: approve only after the
            // dropped polls.
            QVERIFY(QTest::qWaitFor(
                [&] { return m_service.requests("POST", "/api/cli/token").size() >= 3; }));
            decide(fixture.userCode(), true);
        } else
            decide(fixture.userCode(), action == u"approve");
        waitForTask(std::move(task));

        QList<qint64> slept;
        for (qint64 ms : fixture.clock->sleeps())
            slept << ms / 1000;
        QCOMPARE(slept.mid(0, firstSleeps.size()), firstSleeps);
        if (failure.isEmpty()) {
            QCOMPARE(fixture.session.signIn(), std::nullopt);
            QVERIFY(fixture.session.token());
            QCOMPARE(fixture.session.me()->user->email, QStringLiteral("ada@example.com"));
            QCOMPARE(fixture.session.me()->limits->maxBytes, 2147483648);
            QVERIFY(dataPreference(Preference::CachedMe).has_value());
            // The device is named after this computer at the service.
            QCOMPARE(m_service.requests("GET", "/api/me").size(), 1);
        } else {
            QCOMPARE(fixture.session.signIn()->phase, SignInState::Phase::Failed);
            QCOMPARE(fixture.session.signIn()->message, failure);
            QCOMPARE(fixture.session.token(), std::nullopt);
        }
        auto signingOut = fixture.session.signOut();
        waitForTask(std::move(signingOut));
    }

    void cancelLeavesNothing()
    {
        Fixture fixture;
        auto task = begin(fixture);
        fixture.session.cancelSignIn();
        waitForTask(std::move(task));
        QCOMPARE(fixture.session.signIn(), std::nullopt);
        QCOMPARE(fixture.session.token(), std::nullopt);
        for (const SignInState &state : fixture.states)
            QVERIFY(state.phase != SignInState::Phase::Failed);
        QCOMPARE(waitForTask(loadToken()), std::nullopt);
        // Approving now changes nothing here.
        const int polls = m_service.requests("POST", "/api/cli/token").size();
        decide(fixture.states.last().userCode, true);
        QTest::qWait(200);
        QCOMPARE(m_service.requests("POST", "/api/cli/token").size(), polls);
        QCOMPARE(fixture.session.token(), std::nullopt);
    }

    void restartCancelsTheFirst()
    {
        Fixture fixture;
        auto first = begin(fixture);
        const QString firstCode = fixture.userCode();
        auto second = begin(fixture);
        QVERIFY(fixture.userCode() != firstCode);
        decide(firstCode, true); // the abandoned code: nobody polls it any more
        decide(fixture.userCode(), true);
        waitForTask(std::move(first));
        waitForTask(std::move(second));
        QVERIFY(fixture.session.token());
        for (const SignInState &state : fixture.states)
            QVERIFY(state.phase != SignInState::Phase::Failed);
        waitForTask(fixture.session.signOut());
    }

    void signOutForgetsEverything()
    {
        Fixture fixture;
        const QString token = signIn(fixture);
        QVERIFY(!token.isEmpty());
        QCOMPARE(waitForTask(loadToken()), token);
        int signedOut = 0;
        connect(&fixture.session, &AccountSession::signedOut, this, [&] { ++signedOut; });

        waitForTask(fixture.session.signOut());
        QCOMPARE(signedOut, 1);
        QCOMPARE(fixture.session.token(), std::nullopt);
        QCOMPARE(fixture.session.me(), std::nullopt);
        QCOMPARE(fixture.session.notice(), std::nullopt);
        QCOMPARE(dataPreference(Preference::CachedMe), std::nullopt);
        QCOMPARE(waitForTask(loadToken()), std::nullopt);
        // The service revoked it: the same token is no longer signed in.
        const QJsonArray logouts = m_service.requests("POST", "/api/cli/logout");
        QCOMPARE(logouts.size(), 1);
        QCOMPARE(logouts.at(0)["authorization"].toBool(), true);
        QCOMPARE(logouts.at(0)["status"].toInt(), 200);
        AccountSession later;
        waitForTask(later.load());
        QCOMPARE(later.token(), std::nullopt);
    }

    void revokedTokenSignsOutOnRefresh()
    {
        Fixture fixture;
        const QString token = signIn(fixture);
        // Signed out from elsewhere: the service revokes the token.
        waitForTask(APIClient(token).logout());
        waitForTask(fixture.session.refresh());
        QCOMPARE(fixture.session.token(), std::nullopt);
        QCOMPARE(fixture.session.me(), std::nullopt);
        QCOMPARE(fixture.session.notice(),
                 QStringLiteral("Your sign-in expired. Sign in again to use your account."));
        QCOMPARE(dataPreference(Preference::CachedMe), std::nullopt);
        QCOMPARE(waitForTask(loadToken()), std::nullopt);
    }

    void cachedAccountShowsAtOnce()
    {
        Fixture fixture;
        signIn(fixture);
        AccountSession next; // a new run of the application
        waitForTask(next.load());
        QCOMPARE(next.token(), fixture.session.token());
        QCOMPARE(next.me(), fixture.session.me());
        // Without the token, the cache is not used.
        waitForTask(deleteToken());
        AccountSession signedOut;
        waitForTask(signedOut.load());
        QCOMPARE(signedOut.me(), std::nullopt);
        waitForTask(fixture.session.signOut());
    }
};

QTEST_GUILESS_MAIN(TestAccountSessionService)
#include "tst_accountsession_service.moc"
