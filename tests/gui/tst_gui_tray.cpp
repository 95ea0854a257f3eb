// The tray against a StatusNotifierWatcher of our own on a private session bus, under Xvfb:
// the icon appears only once a watcher does, its menu's "Copy Link" entries, the panel's drop
// that ends with the link on the clipboard, the settings window's tabs, "Use default" for the
// download folder, and the tray switch removing the icon.
#include "api/serviceorigin.h"
#include "app/desktop/copylinkentries.h"
#include "app/desktop/settingswindow.h"
#include "app/desktop/traycontroller.h"
#include "app/desktop/trayicon.h"
#include "app/desktop/traypanel.h"
#include "guiharness.h"
#include "localservice.h"
#include "model/appmodel.h"
#include "model/sendrules.h"
#include "platform/folders.h"
#include "statusnotifierwatcher.h"
#include "testdata.h"

#include <QAction>
#include <QApplication>
#include <QFileInfo>
#include <QMenu>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QTemporaryDir>

using namespace lofthaven;
using namespace lofthaven::testing;

namespace {

constexpr int kWait = 60000;

HistoryEntry entry(const QString &name, const QString &code, double expiresAt)
{
    HistoryEntry e;
    e.id = QStringLiteral("id-") + name;
    e.code = code;
    e.url = QStringLiteral("https://lofthaven.example/r/") + code;
    e.name = name;
    e.size = 1024;
    e.ownerToken = QStringLiteral("owner");
    e.expiresAt = expiresAt;
    e.createdAt = expiresAt - 86400000.0;
    return e;
}

// The titles after the "Copy Link" heading, or nothing when there is no heading.
QStringList copyLinkTitles(QMenu *menu)
{
    QStringList titles;
    bool inGroup = false;
    for (QAction *action : menu->actions()) {
        if (action->text() == QLatin1String("Copy Link")) {
            inGroup = !action->isEnabled();
            continue;
        }
        if (inGroup && action->isSeparator())
            break;
        if (inGroup)
            titles.append(action->text());
    }
    return titles;
}

QString iconName(TrayIcon *tray)
{
    return tray->icon() ? tray->icon()->icon().name() : QString();
}

} // namespace

class TestGuiTray : public QObject
{
    Q_OBJECT

    LocalService m_service{
        {64 * 1024, {QStringLiteral("--device-interval"), QStringLiteral("0.2")}}};
    QTemporaryDir m_files;
    std::unique_ptr<DesktopShell> m_shell;
    // Stopped at the end but never deleted: QtDBus still watches a registered object's end
    // after its connection is gone.
    StatusNotifierWatcher &m_watcher = *new StatusNotifierWatcher;

    TrayController *tray() { return m_shell->tray(); }
    QQuickWindow *panelWindow() { return tray()->panel()->window(); }
    QQuickWindow *settingsWindow() { return tray()->settings()->window(); }

    // What the panel's host does when the menu is about to open.
    QMenu *openedMenu()
    {
        QMenu *menu = tray()->icon()->menu();
        Q_EMIT menu->aboutToShow();
        return menu;
    }

    void setHistory(const QList<HistoryEntry> &entries)
    {
        m_shell->model()->history()->setEntries(entries);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_service.start(), qPrintable(m_service.error()));
        ServiceOrigin::setUrl(m_service.origin());
        QVERIFY(QDBusConnection::sessionBus().isConnected());
        m_shell = std::make_unique<DesktopShell>();
        QVERIFY(m_shell->open());
        QVERIFY(QTest::qWaitForWindowExposed(m_shell->window()));
    }

    void cleanupTestCase()
    {
        m_shell.reset();
        m_watcher.stop();
    }

    // Without a watcher there is no icon; once one registers, the icon does too.
    void iconOnlyAfterWatcher()
    {
        QTest::qWait(1000);
        QVERIFY(!tray()->icon()->icon());
        QVERIFY(!tray()->icon()->isShown());
        QVERIFY(!tray()->settings()->trayAvailable());
        if (!qEnvironmentVariableIsEmpty("LOFTHAVEN_SCREENSHOTS")) {
            tray()->showSettings();
            QVERIFY(QTest::qWaitForWindowExposed(settingsWindow()));
            QVERIFY(findItem(settingsWindow(), QStringLiteral("noTrayNote")));
            screenshot(settingsWindow(), QStringLiteral("settings-general-no-tray"));
            settingsWindow()->close();
        }

        QVERIFY(m_watcher.start());
        QTRY_VERIFY_WITH_TIMEOUT(tray()->icon()->isShown(), kWait);
        QVERIFY(tray()->settings()->trayAvailable());
        QTRY_COMPARE_WITH_TIMEOUT(m_watcher.items().size(), 1, kWait);
        // Qt registers its item under a bus connection of its own.
        QVERIFY(m_watcher.itemOnBus(m_watcher.items().constFirst()));
        QCOMPARE(iconName(tray()->icon()), QStringLiteral("lofthaven-tray-idle"));
    }

    void copyLinkEntries_data()
    {
        const double now = double(QDateTime::currentMSecsSinceEpoch());
        const double later = now + 3600000.0;
        const double earlier = now - 1000.0;
        QTest::addColumn<QList<HistoryEntry>>("history");
        QTest::addColumn<QStringList>("titles");

        QList<HistoryEntry> eight;
        QStringList firstFive;
        for (int i = 0; i < 8; ++i) {
            const QString name = QStringLiteral("file%1.pdf").arg(i);
            eight.append(entry(name, QStringLiteral("10000%1").arg(i), later));
            if (i < 5)
                firstFive.append(name + QStringLiteral(" · 100 00") + QString::number(i));
        }
        QTest::newRow("eight unexpired: the first five") << eight << firstFive;

        QTest::newRow("only expired: no heading")
            << QList<HistoryEntry>{entry(QStringLiteral("old.zip"), QStringLiteral("111111"),
                                         earlier),
                                   entry(QStringLiteral("older.zip"), QStringLiteral("222222"),
                                         earlier)}
            << QStringList();

        QTest::newRow("expired ones skipped, order kept")
            << QList<HistoryEntry>{entry(QStringLiteral("a.txt"), QStringLiteral("123456"), later),
                                   entry(QStringLiteral("b.txt"), QStringLiteral("654321"),
                                         earlier),
                                   entry(QStringLiteral("c.txt"), QStringLiteral("482913"), later)}
            << QStringList{QStringLiteral("a.txt · 123 456"), QStringLiteral("c.txt · 482 913")};

        QTest::newRow("seven characters unsplit")
            << QList<HistoryEntry>{entry(QStringLiteral("big.mov"), QStringLiteral("1234567"),
                                         later)}
            << QStringList{QStringLiteral("big.mov · 1234567")};

        QTest::newRow("five characters unsplit")
            << QList<HistoryEntry>{entry(QStringLiteral("x"), QStringLiteral("12345"), later)}
            << QStringList{QStringLiteral("x · 12345")};
    }

    // The menu as the panel's host gets it, rebuilt when it opens.
    void copyLinkEntries()
    {
        QFETCH(QList<HistoryEntry>, history);
        QFETCH(QStringList, titles);
        QVERIFY(tray()->icon()->isShown());
        setHistory(history);
        QMenu *menu = openedMenu();
        QCOMPARE(copyLinkTitles(menu), titles);
        bool heading = false;
        for (QAction *action : menu->actions())
            heading = heading || action->text() == QLatin1String("Copy Link");
        QCOMPARE(heading, !titles.isEmpty());
        QCOMPARE(menu->actions().constFirst()->text(), QStringLiteral("Send Files…"));
        QCOMPARE(menu->actions().constLast()->text(), QStringLiteral("Quit Lofthaven"));
    }

    void copyLinkEntryCopies()
    {
        setHistory({entry(QStringLiteral("a.txt"), QStringLiteral("123456"),
                          double(QDateTime::currentMSecsSinceEpoch()) + 60000.0)});
        QMenu *menu = openedMenu();
        bool found = false;
        for (QAction *action : menu->actions()) {
            if (action->text() == QStringLiteral("a.txt · 123 456")) {
                found = true;
                action->trigger();
                break;
            }
        }
        QVERIFY(found);
        QCOMPARE(QGuiApplication::clipboard()->text(),
                 QStringLiteral("https://lofthaven.example/r/123456"));
    }

    // An entry that expires exactly now is still offered; one a millisecond earlier is not.
    void copyLinkExpiryBoundary()
    {
        const double now = 1.7e12;
        const QList<CopyLinkEntry> entries = lofthaven::copyLinkEntries(
            {entry(QStringLiteral("now"), QStringLiteral("111111"), now),
             entry(QStringLiteral("gone"), QStringLiteral("222222"), now - 1)},
            now);
        QCOMPARE(entries.size(), 1);
        QCOMPARE(entries.constFirst().title, QStringLiteral("now · 111 111"));
    }

    void expiryList_data()
    {
        QTest::addColumn<QVariantList>("seconds");
        QTest::addColumn<QString>("text");
        QTest::newRow("the Limits example")
            << QVariantList{3600, 86400, 604800} << "1 hour, 1 day, 7 days";
        QTest::newRow("an hour and a half") << QVariantList{5400} << "1 hour";
        QTest::newRow("a day and an hour") << QVariantList{90000} << "1 day";
        QTest::newRow("under an hour") << QVariantList{59, 3599} << "0 min, 59 min";
        QTest::newRow("hour edges")
            << QVariantList{7199, 7200, 86399} << "1 hour, 2 hours, 23 hours";
        QTest::newRow("day edges")
            << QVariantList{172799, 172800, 259200} << "1 day, 2 days, 3 days";
        QTest::newRow("none") << QVariantList{} << "";
    }
    void expiryList()
    {
        QFETCH(QVariantList, seconds);
        QFETCH(QString, text);
        QCOMPARE(SettingsWindow::expiryList(seconds), text);
    }

    // A left click toggles the panel; signed out it says so.
    void panelSignedOut()
    {
        setHistory({});
        Q_EMIT tray()->icon()->icon()->activated(QSystemTrayIcon::Trigger);
        QTRY_VERIFY(panelWindow() && panelWindow()->isVisible());
        QVERIFY(QTest::qWaitForWindowExposed(panelWindow()));
        QCOMPARE(textOf(findItem(panelWindow(), QStringLiteral("panelHeading"))),
                 QStringLiteral("Lofthaven"));
        QCOMPARE(textOf(findItem(panelWindow(), QStringLiteral("panelSignedOut"))),
                 QStringLiteral("Not signed in"));
        QVERIFY(!findItem(panelWindow(), QStringLiteral("panelInbox")));
        screenshot(panelWindow(), QStringLiteral("tray-panel-signed-out"));
        Q_EMIT tray()->icon()->icon()->activated(QSystemTrayIcon::Trigger);
        QTRY_VERIFY(!panelWindow()->isVisible());
    }

    // A file dropped on "Drop to get a link" is sent from the tray and its link copied; the
    // icon shows the upload while it runs.
    void panelDropCopiesLink()
    {
        QStringList icons;
        SendJobList *jobs = m_shell->model()->jobs();
        QObject listening; // ends the connection with this test function
        connect(jobs, &SendJobList::activeCountChanged, &listening,
                [&] { icons.append(iconName(tray()->icon())); });
        QGuiApplication::clipboard()->clear();

        tray()->panel()->show();
        QVERIFY(QTest::qWaitForWindowExposed(panelWindow()));
        const QString file = m_files.filePath(QStringLiteral("report.pdf"));
        QVERIFY(writeFile(file, randomBytes(300 * 1024, 3)));
        m_service.addFault({{"method", "PUT"},
                            {"path", "/api/transfers/*/parts/*"},
                            {"count", 1},
                            {"stallSeconds", 2}});
        QVERIFY(dropFiles(findItem(panelWindow(), QStringLiteral("panelLinkZone")), {file}));
        QTRY_VERIFY_WITH_TIMEOUT(tray()->panel()->linkJob(), kWait);
        SendJob *job = tray()->panel()->linkJob();
        QCOMPARE(job->origin(), SendJob::Origin::MenuBar);
        QVERIFY(!job->toSelf());
        if (job->isActive()) {
            QTRY_VERIFY_WITH_TIMEOUT(
                !job->isActive() || findItem(panelWindow(), QStringLiteral("panelZoneProgress")),
                kWait);
            screenshot(panelWindow(), QStringLiteral("tray-panel-uploading"));
        }
        QTRY_VERIFY_WITH_TIMEOUT(!job->isActive(), kWait);
        m_service.clearFaults();
        QCOMPARE(job->state(), SendJob::State::Done);
        QTRY_COMPARE(QGuiApplication::clipboard()->text(), job->url());
        QVERIFY(job->url().startsWith(m_service.origin()));
        QTRY_COMPARE(textOf(findItem(panelWindow(), QStringLiteral("panelZoneCaption"))),
                     QStringLiteral("Link copied"));

        QVERIFY(icons.contains(QStringLiteral("lofthaven-tray-uploading")));
        QCOMPARE(iconName(tray()->icon()), QStringLiteral("lofthaven-tray-idle"));
        // The sent file is now a recent link of the panel and of the menu.
        QTRY_VERIFY(findItem(panelWindow(), QStringLiteral("panelRecentRow")));
        QCOMPARE(copyLinkTitles(openedMenu()).constFirst(),
                 QStringLiteral("report.pdf · ") + sendrules::spacedCode(job->code()));
        tray()->panel()->hide();
    }

    // "Use default" clears the chosen folder: downloads go to the Downloads folder again.
    void useDefaultDownloadFolder()
    {
        tray()->showSettings();
        QVERIFY(QTest::qWaitForWindowExposed(settingsWindow()));
        QQuickItem *row = findItem(settingsWindow(), QStringLiteral("downloadFolderRow"));
        QVERIFY(row);
        QVERIFY(!findItem(row, QStringLiteral("useDefaultFolder"))->isEnabled());
        QVERIFY(!findItem(settingsWindow(), QStringLiteral("noTrayNote")));
        screenshot(settingsWindow(), QStringLiteral("settings-general"));
        if (!qEnvironmentVariableIsEmpty("LOFTHAVEN_SCREENSHOTS")) {
            // The same tab at the window's smallest size.
            const QSize size = settingsWindow()->size();
            settingsWindow()->resize(settingsWindow()->minimumSize());
            screenshot(settingsWindow(), QStringLiteral("settings-general-small"));
            settingsWindow()->resize(size);
        }

        const QString chosen = m_files.filePath(QStringLiteral("Incoming"));
        QVERIFY(QDir().mkpath(chosen));
        tray()->settings()->chooseDownloadFolder(QUrl::fromLocalFile(chosen).toString());
        QCOMPARE(downloadFolder(), chosen);
        QTRY_COMPARE(textOf(findItem(row, QStringLiteral("folderName"))),
                     QStringLiteral("Incoming"));

        QVERIFY(click(findItem(row, QStringLiteral("useDefaultFolder"))));
        const QString downloads =
            QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
        QTRY_COMPARE(downloadFolder(), downloads);
        QCOMPARE(stringPreference(Preference::DownloadFolder), QString());
        QTRY_COMPARE(textOf(findItem(row, QStringLiteral("folderName"))),
                     QFileInfo(downloads).fileName());
    }

    // The switch shows the real status: on after writing the entry, and back off with the
    // reason when the autostart folder cannot be made.
    void launchAtLoginSwitch()
    {
        QQuickItem *toggle = findItem(settingsWindow(), QStringLiteral("launchAtLoginSwitch"));
        QVERIFY(toggle);
        QVERIFY(!toggle->property("checked").toBool());
        const QString autostart =
            qEnvironmentVariable("XDG_CONFIG_HOME") + QStringLiteral("/autostart");
        const QString entryFile = autostart + QStringLiteral("/org.lofthaven.Lofthaven.desktop");

        QVERIFY(click(toggle));
        QTRY_VERIFY(QFileInfo::exists(entryFile));
        QVERIFY(toggle->property("checked").toBool());
        QVERIFY(!findItem(settingsWindow(), QStringLiteral("launchAtLoginError")));
        QVERIFY(click(toggle));
        QTRY_VERIFY(!QFileInfo::exists(entryFile));
        QVERIFY(!toggle->property("checked").toBool());

        // A file where the folder should be: the write fails.
        QVERIFY(QDir(autostart).removeRecursively());
        QVERIFY(writeFile(autostart, QByteArray("in the way")));
        QVERIFY(click(toggle));
        QTRY_VERIFY(findItem(settingsWindow(), QStringLiteral("launchAtLoginError")));
        QVERIFY(
            !textOf(findItem(settingsWindow(), QStringLiteral("launchAtLoginError"))).isEmpty());
        QVERIFY(!toggle->property("checked").toBool());
        QVERIFY(QFile::remove(autostart));
    }

    void otherTabs()
    {
        QVERIFY(click(findItem(settingsWindow(), QStringLiteral("accountTab"))));
        QTRY_VERIFY(findItem(settingsWindow(), QStringLiteral("accountSettings")));
        QVERIFY(findItem(settingsWindow(), QStringLiteral("settingsSignIn")));
        QCOMPARE(textOf(findItem(settingsWindow(), QStringLiteral("linkExpiry"))),
                 SettingsWindow::expiryList(m_shell->model()->allowedExpiryList()));
        screenshot(settingsWindow(), QStringLiteral("settings-account-signed-out"));
        QVERIFY(click(findItem(settingsWindow(), QStringLiteral("aboutTab"))));
        QTRY_VERIFY(findItem(settingsWindow(), QStringLiteral("aboutSettings")));
        QCOMPARE(textOf(findItem(settingsWindow(), QStringLiteral("aboutVersion"))),
                 QStringLiteral("Version ") + QCoreApplication::applicationVersion());
        screenshot(settingsWindow(), QStringLiteral("settings-about"));
    }

    // Signed in: the plans (none of them in the service's map, so "free"), how this computer is
    // listed, "My Devices" in the menu, and the panel with its recent links.
    void signedIn()
    {
        AppModel *model = m_shell->model();
        model->startSignIn();
        QTRY_VERIFY_WITH_TIMEOUT(
            !model->signInMap().value(QStringLiteral("userCode")).toString().isEmpty(), kWait);
        m_service.control(
            "POST", QStringLiteral("/__test/device/approve"),
            {{"userCode", model->signInMap().value(QStringLiteral("userCode")).toString()},
             {"email", "ada@example.com"}});
        QTRY_VERIFY_WITH_TIMEOUT(model->signedIn(), kWait);
        m_shell->window()->requestActivate();

        QVERIFY(click(findItem(settingsWindow(), QStringLiteral("accountTab"))));
        QTRY_COMPARE(textOf(findItem(settingsWindow(), QStringLiteral("accountIdentity"))),
                     QStringLiteral("ada@example.com"));
        QCOMPARE(textOf(findItem(settingsWindow(), QStringLiteral("transferPlan"))),
                 QStringLiteral("free"));
        QCOMPARE(textOf(findItem(settingsWindow(), QStringLiteral("deviceName"))),
                 tray()->settings()->deviceName());
        screenshot(settingsWindow(), QStringLiteral("settings-account"));

        QStringList texts;
        for (QAction *action : openedMenu()->actions())
            texts.append(action->text());
        QVERIFY(texts.contains(QStringLiteral("My Devices")));

        const double later = double(QDateTime::currentMSecsSinceEpoch()) + 86400000.0;
        QList<HistoryEntry> recent = model->history()->entries();
        recent.append(entry(QStringLiteral("Holiday photos.zip"), QStringLiteral("482913"), later));
        recent.append(
            entry(QStringLiteral("Quarterly figures, final version with all appendices.xlsx"),
                  QStringLiteral("123456"), later));
        setHistory(recent);
        tray()->panel()->show();
        QVERIFY(QTest::qWaitForWindowExposed(panelWindow()));
        QTRY_VERIFY(!findItem(panelWindow(), QStringLiteral("panelSignedOut")));

        // A drop on "Drop to send to my devices" lands in the devices inbox as a new item.
        const QString file = m_files.filePath(QStringLiteral("boarding pass.pdf"));
        QVERIFY(writeFile(file, randomBytes(20 * 1024, 9)));
        QVERIFY(dropFiles(findItem(panelWindow(), QStringLiteral("panelDevicesZone")), {file}));
        QTRY_VERIFY_WITH_TIMEOUT(tray()->panel()->devicesJob(), kWait);
        SendJob *job = tray()->panel()->devicesJob();
        QVERIFY(job->toSelf());
        QTRY_VERIFY_WITH_TIMEOUT(!job->isActive(), kWait);
        QCOMPARE(job->state(), SendJob::State::Done);
        model->refreshInbox(true);
        QTRY_VERIFY_WITH_TIMEOUT(findItem(panelWindow(), QStringLiteral("panelInbox")), kWait);
        QCOMPARE(textOf(findItem(panelWindow(), QStringLiteral("panelInbox"))),
                 QStringLiteral("%1 new from your devices").arg(model->newInboxCount()));
        screenshot(panelWindow(), QStringLiteral("tray-panel-signed-in"));
        tray()->panel()->hide();
    }

    // The tray switch removes the icon from the panel at once and brings it back.
    void showInTraySwitch()
    {
        QVERIFY(click(findItem(settingsWindow(), QStringLiteral("generalTab"))));
        QQuickItem *toggle = nullptr;
        QTRY_VERIFY((toggle = findItem(settingsWindow(), QStringLiteral("showInTraySwitch"))));
        QVERIFY(toggle->property("checked").toBool());
        const QString item = m_watcher.items().constLast();
        QVERIFY(m_watcher.itemOnBus(item));

        QVERIFY(click(toggle));
        QTRY_VERIFY(!tray()->icon()->isShown());
        QVERIFY(!boolPreference(Preference::ShowMenuBarExtra));
        QTRY_VERIFY_WITH_TIMEOUT(!m_watcher.itemOnBus(item), kWait);
        // With the window and settings open the app keeps running.
        QVERIFY(settingsWindow()->isVisible());

        QVERIFY(click(toggle));
        QTRY_VERIFY(tray()->icon()->isShown());
        QVERIFY(boolPreference(Preference::ShowMenuBarExtra));
        QTRY_VERIFY_WITH_TIMEOUT(m_watcher.items().size() >= 2, kWait);
    }
};

// The app's own start-up, with the test's private session bus kept (the private HOME hides
// the user's bus) and a QApplication, which the tray needs.
int main(int argc, char *argv[])
{
    const QByteArray bus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    lofthaven::testing::IsolatedHome home;
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus);
    QApplication app(argc, argv);
    QApplication::setApplicationVersion(QStringLiteral("1.0"));
    lofthaven::DesktopShell::setUpApplication();
    lofthaven::registerDefaultSettings();
    lofthaven::setStringPreference(
        lofthaven::Preference::Theme,
        qEnvironmentVariable("LOFTHAVEN_THEME", QStringLiteral("light")));
    lofthaven::testing::OpenedUrls opened;
    TestGuiTray test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_gui_tray.moc"
