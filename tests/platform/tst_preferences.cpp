#include "platform/folders.h"
#include "platform/preferences.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

using namespace lofthaven;

// Preferences and folders in a private HOME with its own XDG folders, each test starting from
// an empty preferences file.
class TestPreferences : public QObject
{
    Q_OBJECT
private:
    QTemporaryDir m_home;

    QString configFile() const { return m_home.path() + "/config/Lofthaven/Lofthaven.conf"; }
    // What a new process would read: the file, not this process's cache.
    QString storedText(const QString &key) const
    {
        QFile file(configFile());
        if (!file.open(QIODevice::ReadOnly))
            return {};
        for (const QByteArray &line : file.readAll().split('\n')) {
            if (line.startsWith(QByteArray(key.toUtf8() + '=')))
                return QString::fromUtf8(line.mid(key.size() + 1));
        }
        return {};
    }
    // Makes this process parse the file again, as a new process would: QSettings keeps the
    // typed values it wrote until the file changes on disk.
    void reparse() const
    {
        QFile file(configFile());
        QVERIFY(file.open(QIODevice::Append));
        file.write("\n");
        file.close();
        QSettings(QStringLiteral("Lofthaven"), QStringLiteral("Lofthaven")).sync();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_home.isValid());
        // Before the first QSettings: it keeps the configuration path for the process.
        qputenv("HOME", m_home.path().toUtf8());
        qputenv("XDG_CONFIG_HOME", (m_home.path() + "/config").toUtf8());
        qputenv("XDG_DATA_HOME", (m_home.path() + "/data").toUtf8());
        qputenv("XDG_CACHE_HOME", (m_home.path() + "/cache").toUtf8());
    }

    void init() { QSettings(QStringLiteral("Lofthaven"), QStringLiteral("Lofthaven")).clear(); }

    void unsetBeforeAndAfterRegistering()
    {
        // NSUserDefaults-like: a registered default only exists once registered.
        QCOMPARE(boolPreference(Preference::Notifications), false);
        QCOMPARE(integerPreference(Preference::DefaultExpiry), 0);
        registerDefaultSettings();
        QCOMPARE(boolPreference(Preference::Notifications), true);
        QCOMPARE(boolPreference(Preference::AutoDownload), false);
        QCOMPARE(boolPreference(Preference::UnzipAfterDownload), true);
        QCOMPARE(stringPreference(Preference::Theme), QStringLiteral("system"));
        QCOMPARE(boolPreference(Preference::ShowMenuBarExtra), true);
        QCOMPARE(integerPreference(Preference::DefaultExpiry), 259200);
        // Keys without a registered default.
        QCOMPARE(boolPreference(Preference::InboxSeeded), false);
        QCOMPARE(stringPreference(Preference::DownloadFolder), QString());
        QCOMPARE(stringArrayPreference(Preference::SeenInbox), QStringList());
        QCOMPARE(dataPreference(Preference::CachedMe), std::nullopt);
        // Registered defaults are not written to the file.
        QVERIFY(!QFile::exists(configFile()));
    }

    void keysAreTheStoredNames()
    {
        QCOMPARE(preferenceKey(Preference::CachedMe), QStringLiteral("cachedMe"));
        QCOMPARE(preferenceKey(Preference::ServiceOrigin), QStringLiteral("serviceOrigin"));
        setBoolPreference(Preference::UnzipAfterDownload, false);
        setIntegerPreference(Preference::DefaultExpiry, 3600);
        QCOMPARE(storedText("unzipAfterDownload"), QStringLiteral("false"));
        QCOMPARE(storedText("defaultExpiry"), QStringLiteral("3600"));
    }

    // Written as another process (or an older version, or a person) would leave them.
    void readsFromTheFile_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("stored");
        QTest::addColumn<bool>("asBool");
        QTest::addColumn<qint64>("asInteger");
        QTest::newRow("true") << "notifications"
                              << "true" << true << qint64(0);
        QTest::newRow("false") << "notifications"
                               << "false" << false << qint64(0);
        QTest::newRow("one") << "notifications"
                             << "1" << true << qint64(1);
        QTest::newRow("zero") << "notifications"
                              << "0" << false << qint64(0);
        QTest::newRow("garbage") << "notifications"
                                 << "maybe" << false << qint64(0);
        QTest::newRow("number") << "defaultExpiry"
                                << "604800" << false << qint64(604800);
        QTest::newRow("big number") << "defaultExpiry"
                                    << "8589934592" << false << qint64(8589934592);
    }
    void readsFromTheFile()
    {
        QFETCH(QString, key);
        QFETCH(QString, stored);
        QFETCH(bool, asBool);
        QFETCH(qint64, asInteger);
        QDir().mkpath(QFileInfo(configFile()).path());
        QFile file(configFile());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("[General]\n" + key.toUtf8() + '=' + stored.toUtf8() + '\n');
        file.close();
        QSettings(QStringLiteral("Lofthaven"), QStringLiteral("Lofthaven")).sync();
        const Preference preference =
            key == u"notifications" ? Preference::Notifications : Preference::DefaultExpiry;
        if (key == u"notifications")
            QCOMPARE(boolPreference(preference), asBool);
        else
            QCOMPARE(integerPreference(preference), asInteger);
    }

    void stringArrays_data()
    {
        QTest::addColumn<QStringList>("ids");
        QTest::newRow("empty") << QStringList();
        QTest::newRow("one") << QStringList{"a1b2c3"};
        QTest::newRow("several") << QStringList{"a1", "b2", "c3"};
        QTest::newRow("commas and spaces") << QStringList{"a, b", " c", "d\""};
    }
    void stringArrays()
    {
        QFETCH(QStringList, ids);
        setStringArrayPreference(Preference::SeenInbox, ids);
        setBoolPreference(Preference::InboxSeeded, true);
        QCOMPARE(stringArrayPreference(Preference::SeenInbox), ids);
        reparse();
        QCOMPARE(stringArrayPreference(Preference::SeenInbox), ids);
        QCOMPARE(boolPreference(Preference::InboxSeeded), true);
    }

    void cachedMeIsData()
    {
        const QByteArray json = R"({"signedIn":true,"user":{"id":"u1","name":"Ada ✓"}})";
        setDataPreference(Preference::CachedMe, json);
        QCOMPARE(dataPreference(Preference::CachedMe), json);
        reparse();
        QCOMPARE(dataPreference(Preference::CachedMe), json);
        removePreference(Preference::CachedMe);
        QCOMPARE(dataPreference(Preference::CachedMe), std::nullopt);
    }

    void wrongTypeIsNotWritten()
    {
        QTest::ignoreMessage(QtWarningMsg, "Preference theme written with the wrong type; ignored");
        setBoolPreference(Preference::Theme, true);
        QVERIFY(storedText("theme").isEmpty());
    }

    void downloadFolder_data()
    {
        QTest::addColumn<QString>("setting");
        QTest::addColumn<QString>("expected");
        QTest::newRow("default") << ""
                                 << "HOME/Downloads";
        QTest::newRow("chosen, missing, not created") << "/nonexistent/drop"
                                                      << "/nonexistent/drop";
        QTest::newRow("trailing slash") << "HOME/Inbox/"
                                        << "HOME/Inbox";
    }
    void downloadFolder()
    {
        QFETCH(QString, setting);
        QFETCH(QString, expected);
        setting.replace("HOME", m_home.path());
        expected.replace("HOME", m_home.path());
        setStringPreference(Preference::DownloadFolder, setting);
        QCOMPARE(lofthaven::downloadFolder(), expected);
        if (!setting.isEmpty())
            QVERIFY(!QFileInfo::exists(expected));
    }

    void downloadFolderFollowsUserDirs()
    {
        QDir().mkpath(m_home.path() + "/config");
        QFile dirs(m_home.path() + "/config/user-dirs.dirs");
        QVERIFY(dirs.open(QIODevice::WriteOnly));
        dirs.write("XDG_DOWNLOAD_DIR=\"$HOME/Téléchargements\"\n");
        dirs.close();
        QCOMPARE(lofthaven::downloadFolder(), m_home.path() + "/Téléchargements");
        dirs.remove();
    }

    void tempFolderIsCreated_data()
    {
        QTest::addColumn<QString>("setting");
        QTest::addColumn<QString>("expected");
        QTest::newRow("default") << ""
                                 << "HOME/cache/Lofthaven";
        QTest::newRow("chosen") << "HOME/volume"
                                << "HOME/volume/Lofthaven Temp";
        QTest::newRow("chosen, deep") << "HOME/a/b/c/"
                                      << "HOME/a/b/c/Lofthaven Temp";
    }
    void tempFolderIsCreated()
    {
        QFETCH(QString, setting);
        QFETCH(QString, expected);
        setting.replace("HOME", m_home.path());
        expected.replace("HOME", m_home.path());
        setStringPreference(Preference::TempFolder, setting);
        QCOMPARE(defaultTempFolder(), m_home.path() + "/cache/Lofthaven");
        QDir(expected).removeRecursively();
        QCOMPARE(tempFolder(), expected);
        QVERIFY(QFileInfo(expected).isDir());
        // Again, after someone removed it.
        QVERIFY(QDir(expected).removeRecursively());
        QCOMPARE(tempFolder(), expected);
        QVERIFY(QFileInfo(expected).isDir());
    }

    void tempFolderThatCannotBeMadeIsStillReturned()
    {
        QFile blocker(m_home.path() + "/file");
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        setStringPreference(Preference::TempFolder, blocker.fileName());
        QCOMPARE(tempFolder(), blocker.fileName() + "/Lofthaven Temp");
    }

    void supportFolderIsPrivate()
    {
        const QString expected = m_home.path() + "/data/Lofthaven";
        QCOMPARE(supportFolder(), expected);
        QVERIFY(QFileInfo(expected).isDir());
        struct stat status
        {
        };
        QCOMPARE(::stat(QFile::encodeName(expected).constData(), &status), 0);
        QCOMPARE(status.st_mode & 07777, 0700u);
        QCOMPARE(supportFolder(), expected);
    }
};

QTEST_GUILESS_MAIN(TestPreferences)
#include "tst_preferences.moc"
