#include "filesholding.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

// The credential store against a real gnome-keyring-daemon, each case on a private session bus
// in a private HOME, each step a new process (the probe), so a load really follows a restart.
using lofthaven::testing::filesHolding;

class TestCredentialStore : public QObject
{
    Q_OBJECT
private:
    // Runs the shell script in the private HOME on a fresh session bus of the given kind (see
    // tests/support/with-keyring.sh) and returns its standard output lines.
    static QStringList run(const QString &bus, const QString &script, const QString &home)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("LOFTHAVEN_TEST_HOME", home);
        environment.insert("LOFTHAVEN_TEST_BUS", bus);
        environment.insert("PROBE", LOFTHAVEN_TEST_DIR "/lofthaven-credential-probe");
        QProcess process;
        process.setProcessEnvironment(environment);
        process.start(LOFTHAVEN_SOURCE_DIR "/tests/support/with-keyring.sh", {"sh", "-c", script});
        if (!process.waitForFinished(120000))
            return {QStringLiteral("did not finish")};
        return QString::fromUtf8(process.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    }

private Q_SLOTS:
    void keyringRoundTrip()
    {
        QTemporaryDir home;
        const QStringList out =
            run("keyring",
                "$PROBE save first-token; $PROBE save second-token; $PROBE load; "
                "secret-tool search --all server org.lofthaven.Lofthaven 2>&1 | grep -E "
                "'^(label|secret) '; "
                "$PROBE delete; $PROBE load; "
                "echo items $(secret-tool search --all server org.lofthaven.Lofthaven 2>&1 | grep "
                "-c '^label')",
                home.path());
        const QStringList expected{
            "saved",
            "saved",
            "token second-token",
            "label = Lofthaven sign-in",
            "secret = second-token",
            "deleted",
            "none",
            "items 0",
        };
        QCOMPARE(out, expected);
        QVERIFY(filesHolding(home.path(), "second-token").isEmpty());
    }

    // No Secret Service, no bus, a keyring that stays locked: the token lives in memory for
    // this run only, the notice says so, and no file anywhere under HOME holds it.
    void fallsBackToMemory_data()
    {
        QTest::addColumn<QString>("bus");
        QTest::newRow("no Secret Service") << "bare";
        QTest::newRow("no session bus") << "none";
        QTest::newRow("locked keyring") << "activated";
    }
    void fallsBackToMemory()
    {
        QFETCH(QString, bus);
        QTemporaryDir home;
        if (bus == u"activated") {
            // A login keyring with a password and an item in it, from an earlier session.
            QCOMPARE(run("keyring", "$PROBE save old-token", home.path()), QStringList{"saved"});
        }
        const QStringList out = run(bus, "$PROBE save new-token load; $PROBE load", home.path());
        const QStringList expected{
            "memory",
            "token new-token",
            "notice Lofthaven couldn't save your sign-in in the keyring, so it won't be "
            "remembered after Lofthaven quits.",
            "none",
        };
        QCOMPARE(out, expected);
        QCOMPARE(filesHolding(home.path(), "new-token"), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestCredentialStore)
#include "tst_credentialstore.moc"
