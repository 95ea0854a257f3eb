// Launch at login through an XDG autostart entry in a private configuration folder.
#include "platform/apperror.h"
#include "platform/launchatlogin.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using namespace lofthaven;

class TestLaunchAtLogin : public QObject
{
    Q_OBJECT
    QTemporaryDir m_config;
    QString entry() const { return m_config.path() + "/autostart/org.lofthaven.Lofthaven.desktop"; }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_config.isValid());
        qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8());
    }

    void onAndOff()
    {
        QCOMPARE(launchAtLogin(), false);
        setLaunchAtLogin(true);
        QCOMPARE(launchAtLogin(), true);
        QFile file(entry());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray text = file.readAll();
        // The absolute program, started without a window.
        const QByteArray exec =
            "\nExec=" + QFile::encodeName(QCoreApplication::applicationFilePath()) +
            " --background\n";
        QVERIFY(text.contains(exec));
        const QString validator = QStandardPaths::findExecutable("desktop-file-validate");
        if (!validator.isEmpty()) {
            QProcess validate;
            validate.start(validator, {entry()});
            QVERIFY(validate.waitForFinished());
            QCOMPARE(validate.readAllStandardOutput() + validate.readAllStandardError(),
                     QByteArray());
            QCOMPARE(validate.exitCode(), 0);
        }
        setLaunchAtLogin(true); // again: still one entry, still on
        QCOMPARE(QDir(m_config.path() + "/autostart").entryList(QDir::Files).size(), 1);
        setLaunchAtLogin(false);
        QVERIFY(!QFile::exists(entry()));
        QCOMPARE(launchAtLogin(), false);
        setLaunchAtLogin(false); // nothing to remove is not an error
    }

    // The template shipped for administrators says what the switch writes, bar the path.
    void matchesTheShippedTemplate()
    {
        setLaunchAtLogin(true);
        QFile written(entry());
        QFile shipped(QStringLiteral(LOFTHAVEN_SOURCE_DIR) +
                      "/packaging/autostart/org.lofthaven.Lofthaven.desktop");
        QVERIFY(written.open(QIODevice::ReadOnly));
        QVERIFY(shipped.open(QIODevice::ReadOnly));
        QByteArray text = written.readAll();
        const QByteArray exec =
            "Exec=" + QFile::encodeName(QCoreApplication::applicationFilePath());
        text.replace(exec, QByteArrayLiteral("Exec=lofthaven"));
        QCOMPARE(text, shipped.readAll());
        setLaunchAtLogin(false);
    }

    // An entry edited by the user or the desktop's settings.
    void status_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<bool>("on");
        QTest::newRow("plain") << QByteArray("[Desktop Entry]\nType=Application\nExec=x\n") << true;
        QTest::newRow("hidden") << QByteArray("[Desktop Entry]\nExec=x\nHidden=true\n") << false;
        QTest::newRow("hidden, spaced") << QByteArray("[Desktop Entry]\nHidden = true\n") << false;
        QTest::newRow("hidden false") << QByteArray("[Desktop Entry]\nHidden=false\n") << true;
        QTest::newRow("hidden in another group")
            << QByteArray("[Desktop Entry]\nExec=x\n[Desktop Action a]\nHidden=true\n") << true;
    }
    void status()
    {
        QFETCH(QByteArray, text);
        QFETCH(bool, on);
        QDir().mkpath(m_config.path() + "/autostart");
        QFile file(entry());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(text);
        file.close();
        QCOMPARE(launchAtLogin(), on);
        QVERIFY(file.remove());
    }

    void failureCarriesTheSystemsWords()
    {
        // The autostart folder cannot be made: a file is in its place.
        QDir(m_config.path() + "/autostart").removeRecursively();
        QFile blocker(m_config.path() + "/autostart");
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        QString message;
        try {
            setLaunchAtLogin(true);
        } catch (const AppError &error) {
            message = error.message();
        }
        QVERIFY2(!message.isEmpty(), "no error");
        QCOMPARE(launchAtLogin(), false);
        QVERIFY(blocker.remove());
    }
};

QTEST_GUILESS_MAIN(TestLaunchAtLogin)
#include "tst_launchatlogin.moc"
