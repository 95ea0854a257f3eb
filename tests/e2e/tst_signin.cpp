// lofthaven login, whoami, send and logout end to end: a real local service, a real
// gnome-keyring on a private bus (the test runs under tests/support/with-keyring.sh), a throw-away
// HOME.
#include "api/apiclient.h"
#include "api/serviceorigin.h"
#include "filesholding.h"
#include "localservice.h"
#include "platform/waitfortask.h"
#include "testdata.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

using namespace lofthaven;
using namespace lofthaven::testing;

namespace {

struct Outcome
{
    int status = -1;
    QByteArray out;
    QByteArray err;
    QJsonObject lastJson() const
    {
        const QList<QByteArray> lines = out.trimmed().split('\n');
        return QJsonDocument::fromJson(lines.last()).object();
    }
};

} // namespace

class TestSignIn : public QObject
{
    Q_OBJECT

    // Small limits, so "over the anonymous limit, under the account's" is a few MiB.
    LocalService m_service{{4096,
                            {"--device-interval", "0.05", "--anonymous-max-bytes", "1048576",
                             "--account-max-bytes", "8388608"}}};
    QTemporaryDir m_dir;
    QString m_big; // 2 MiB
    QString m_small;
    QString m_huge; // 9 MiB, sparse

    QProcessEnvironment environment(bool withBus = true) const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("LOFTHAVEN_ORIGIN", m_service.origin());
        if (!withBus)
            environment.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + m_dir.path() + "/no-bus");
        return environment;
    }

    Outcome finish(QProcess &process) const
    {
        Outcome outcome;
        if (!process.waitForFinished(120000)) {
            process.kill();
            process.waitForFinished();
            return outcome;
        }
        outcome.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
        outcome.out += process.readAllStandardOutput();
        outcome.err = process.readAllStandardError();
        return outcome;
    }

    Outcome lofthaven(const QStringList &arguments, bool withBus = true) const
    {
        QProcess process;
        process.setProcessEnvironment(environment(withBus));
        process.start(LOFTHAVEN_BIN_DIR "/lofthaven", arguments);
        return finish(process);
    }

    // Starts `lofthaven login --json --no-browser` and returns its first line (code and URL).
    QJsonObject startLogin(QProcess &process, bool withBus = true) const
    {
        process.setProcessEnvironment(environment(withBus));
        process.start(LOFTHAVEN_BIN_DIR "/lofthaven", {"login", "--json", "--no-browser"});
        while (!process.canReadLine() && process.waitForReadyRead(30000)) {
        }
        return QJsonDocument::fromJson(process.readLine()).object();
    }

    // Signs in with the service's approve hook.
    Outcome login(const QString &email, bool withBus = true)
    {
        QProcess process;
        const QJsonObject waiting = startLogin(process, withBus);
        m_service.control("POST", "/__test/device/approve",
                          {{"userCode", waiting["userCode"]}, {"email", email}});
        return finish(process);
    }

    // The token in the Secret Service, as another client sees it.
    static QByteArray storedToken()
    {
        QProcess lookup;
        lookup.start("secret-tool",
                     {"lookup", "server", "org.lofthaven.Lofthaven", "user", "lofthaven-token"});
        lookup.waitForFinished();
        return lookup.readAllStandardOutput();
    }

    static QByteArray settingsText()
    {
        QFile file(qEnvironmentVariable("XDG_CONFIG_HOME") + "/Lofthaven/Lofthaven.conf");
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    static QStringList filesHolding(const QByteArray &secret)
    {
        return testing::filesHolding(qEnvironmentVariable("HOME"), secret);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(qEnvironmentVariable("HOME").startsWith(QDir::tempPath()),
                 "run through tests/support/with-keyring.sh");
        QVERIFY(m_dir.isValid());
        QVERIFY2(m_service.start(), qPrintable(m_service.error()));
        m_big = m_dir.filePath("big.bin");
        m_small = m_dir.filePath("note.txt");
        writeFile(m_big, randomBytes(2 << 20, 7));
        writeFile(m_small, "hello\n");
        m_huge = m_dir.filePath("huge.bin");
        QVERIFY(makeSparseFile(m_huge, 9 << 20));
    }

    void signedOutLimits_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("message");
        QTest::newRow("whoami") << QStringList{"whoami"}
                                << "Not signed in. Run 'lofthaven login' to sign in.";
        QTest::newRow("to devices") << QStringList{"send", "--to-devices", "NOTE"}
                                    << "Sign in to send files to your devices.";
        QTest::newRow("an account's lifetime") << QStringList{"send", "--expires", "604800", "NOTE"}
                                               << "--expires takes 3600, 86400 or 259200 seconds.";
    }
    void signedOutLimits()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, message);
        arguments.replaceInStrings("BIG", m_big).replaceInStrings("NOTE", m_small);
        const Outcome outcome = lofthaven(arguments);
        QVERIFY(outcome.status == 1 || outcome.status == 2);
        QCOMPARE(QString::fromUtf8(outcome.err).trimmed(), message);
    }

    void loginSendWhoamiLogout()
    {
        const Outcome signedIn = login("ada@example.com");
        QCOMPARE(signedIn.status, 0);
        QCOMPARE(signedIn.err, QByteArray());
        QCOMPARE(signedIn.lastJson()["user"].toObject()["email"].toString(),
                 QStringLiteral("ada@example.com"));
        const QByteArray token = storedToken();
        QVERIFY(token.size() >= 32);
        QCOMPARE(filesHolding(token), QStringList());
        QVERIFY(settingsText().contains("cachedMe"));

        const Outcome again = lofthaven({"login", "--no-browser"});
        QCOMPARE(again.status, 0);
        QCOMPARE(again.out, QByteArray("Already signed in as ada. Run 'lofthaven logout' to "
                                       "switch accounts.\n"));
        QCOMPARE(storedToken(), token);

        const Outcome who = lofthaven({"whoami", "--json"});
        QCOMPARE(who.status, 0);
        QCOMPARE(who.lastJson()["user"].toObject()["email"].toString(),
                 QStringLiteral("ada@example.com"));
        QCOMPARE(who.lastJson()["limits"].toObject()["maxBytes"].toInteger(), 8388608);
        const Outcome text = lofthaven({"whoami"});
        QVERIFY(text.out.startsWith("Signed in as ada <ada@example.com>.\n"));
        QVERIFY(text.out.contains("Largest transfer: 8 MB\n"));

        // The account's limits and lifetimes, the token on the creating request.
        m_service.clearLog();
        const Outcome big = lofthaven({"send", "--json", "--expires", "604800", m_big});
        QCOMPARE(big.status, 0);
        const Outcome toDevices = lofthaven({"send", "--to-devices", m_small});
        QCOMPARE(toDevices.status, 0);
        int creates = 0;
        for (const auto &request : m_service.requests("POST", "/api/transfers")) {
            if (request.toObject()["path"].toString() != u"/api/transfers")
                continue;
            ++creates;
            QCOMPARE(request.toObject()["authorization"].toBool(), true);
        }
        QCOMPARE(creates, 2);
        const Outcome huge = lofthaven({"send", m_huge});
        QCOMPARE(huge.status, 1);
        QCOMPARE(huge.err,
                 QByteArray("huge.bin is 9 MB; the limit is 8 MB per transfer on your plan.\n"));

        const Outcome out = lofthaven({"logout"});
        QCOMPARE(out.status, 0);
        QCOMPARE(out.out, QByteArray("Signed out.\n"));
        QCOMPARE(storedToken(), QByteArray());
        QVERIFY(!settingsText().contains("cachedMe"));
        QCOMPARE(lofthaven({"whoami"}).status, 1);
        QCOMPARE(m_service.requests("POST", "/api/cli/logout").size(), 1);
    }

    void interruptLeavesNothing()
    {
        QProcess process;
        const QJsonObject waiting = startLogin(process);
        QVERIFY(!waiting["userCode"].toString().isEmpty());
        ::kill(pid_t(process.processId()), SIGINT);
        const Outcome outcome = finish(process);
        QCOMPARE(outcome.status, 130);
        QCOMPARE(outcome.err, QByteArray("Cancelled.\n"));
        QCOMPARE(storedToken(), QByteArray());
        QVERIFY(!settingsText().contains("cachedMe"));
    }

    void deniedAndRevoked()
    {
        QProcess process;
        const QJsonObject waiting = startLogin(process);
        m_service.control("POST", "/__test/device/deny", {{"userCode", waiting["userCode"]}});
        const Outcome denied = finish(process);
        QCOMPARE(denied.status, 1);
        QCOMPARE(denied.err, QByteArray("Sign-in was denied in the browser.\n"));

        QCOMPARE(login("bea@example.com").status, 0);
        // Signed out elsewhere: the service revokes the token.
        const QByteArray token = storedToken();
        ServiceOrigin::setUrl(m_service.origin());
        waitForTask(APIClient(QString::fromUtf8(token)).logout());
        const Outcome who = lofthaven({"whoami"});
        QCOMPARE(who.status, 1);
        QCOMPARE(who.err, QByteArray("Your sign-in expired. Sign in again to use your account.\n"));
        QCOMPARE(storedToken(), QByteArray());
        QVERIFY(!settingsText().contains("cachedMe"));
    }

    // No Secret Service (here: no session bus at all): the sign-in works for this run only.
    void withoutSecretService()
    {
        const Outcome signedIn = login("cy@example.com", false);
        QCOMPARE(signedIn.status, 0);
        QCOMPARE(signedIn.err, QByteArray("Lofthaven couldn't save your sign-in in the keyring, so "
                                          "it won't be remembered after Lofthaven quits.\n"));
        const Outcome later = lofthaven({"whoami"}, false);
        QCOMPARE(later.status, 1);
        QCOMPARE(later.err, QByteArray("Not signed in. Run 'lofthaven login' to sign in.\n"));
    }
};

QTEST_GUILESS_MAIN(TestSignIn)
#include "tst_signin.moc"
