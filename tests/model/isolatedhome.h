#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QSettings>
#include <QTemporaryDir>

namespace lofthaven::testing {

// A private HOME with its own XDG folders, set before anything reads preferences or folders,
// so that a test never sees (or writes) the user's history, settings or downloads.
class IsolatedHome
{
public:
    IsolatedHome()
    {
        const QString home = m_dir.path();
        qputenv("HOME", QFile::encodeName(home));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(home + QStringLiteral("/.config")));
        qputenv("XDG_DATA_HOME", QFile::encodeName(home + QStringLiteral("/.local/share")));
        qputenv("XDG_CACHE_HOME", QFile::encodeName(home + QStringLiteral("/.cache")));
        qunsetenv("LOFTHAVEN_ORIGIN");
        // No keyring and no notification server of the user's session: a sign-in stays in
        // memory.
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/lofthaven-test-bus");
    }
    QString path() const { return m_dir.path(); }
    QString filePath(const QString &name) const { return m_dir.filePath(name); }

    static void setUpApplication()
    {
        QCoreApplication::setOrganizationName(QStringLiteral("Lofthaven"));
        QCoreApplication::setApplicationName(QStringLiteral("Lofthaven"));
    }

private:
    QTemporaryDir m_dir;
};

} // namespace lofthaven::testing

// QTEST_GUILESS_MAIN with the private HOME in place before the application object exists.
#define LOFTHAVEN_ISOLATED_TEST_MAIN(TestObject)                                                   \
    int main(int argc, char *argv[])                                                               \
    {                                                                                              \
        lofthaven::testing::IsolatedHome home;                                                     \
        QCoreApplication app(argc, argv);                                                          \
        lofthaven::testing::IsolatedHome::setUpApplication();                                      \
        TestObject test;                                                                           \
        QTEST_SET_MAIN_SOURCE_PATH                                                                 \
        return QTest::qExec(&test, argc, argv);                                                    \
    }
