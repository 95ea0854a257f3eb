#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

// The credential store against a real gnome-keyring-daemon, each case on a private session bus
// in a private HOME, each step a new process (the probe), so a load really follows a restart.
class TestCredentialStore : public QObject
{
    Q_OBJECT
private:
    const QString m_probe = QStringLiteral(LOFTHAVEN_TEST_DIR "/lofthaven-credential-probe");

    // Runs the shell script on a fresh session bus and returns its standard output lines.
    // Buses: "keyring" (gnome-keyring-daemon unlocked from standard input), "activated" (the
    // daemon starts on first use, as in a session that never unlocked it), "bare" (no Secret
    // Service can start), "none" (no bus at all).
    static QStringList run(const QString &bus, const QString &script, const QString &home)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("HOME", home);
        environment.insert("XDG_RUNTIME_DIR", home + "/run");
        for (const char *name : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME",
                                 "DBUS_SESSION_BUS_ADDRESS", "DISPLAY", "WAYLAND_DISPLAY"})
            environment.remove(name);
        environment.insert("PROBE", LOFTHAVEN_TEST_DIR "/lofthaven-credential-probe");
        QDir().mkpath(home + "/run");
        QFile::setPermissions(home + "/run", QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                                 QFileDevice::ExeOwner);
        QString program = QStringLiteral("dbus-run-session");
        QStringList arguments;
        if (bus == u"bare")
            arguments << "--config-file=" LOFTHAVEN_SOURCE_DIR
                         "/tests/platform/bare-session-bus.conf";
        arguments << "--"
                  << "sh"
                  << "-c";
        if (bus == u"keyring")
            arguments << "printf %s test-pass | gnome-keyring-daemon --unlock "
                         "--components=secrets >/dev/null; " +
                             script;
        else
            arguments << script;
        if (bus == u"none") {
            environment.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home + "/no-bus");
            program = QStringLiteral("sh");
            arguments = QStringList{"-c", script};
        }
        QProcess process;
        process.setProcessEnvironment(environment);
        process.start(program, arguments);
        if (!process.waitForFinished(120000))
            return {QStringLiteral("did not finish")};
        return QString::fromUtf8(process.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    }

    // Files under `home` that contain `secret` in plain text.
    static QStringList filesHolding(const QString &home, const QByteArray &secret)
    {
        QStringList found;
        QDirIterator it(home, QDir::Files | QDir::Hidden | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            QFile file(it.next());
            if (file.open(QIODevice::ReadOnly) && file.readAll().contains(secret))
                found << file.fileName();
        }
        return found;
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
