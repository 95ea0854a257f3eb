// The entry points of the desktop: a second `lofthaven` handing its files, links and file
// manager requests to the running window, two launches at once, notification clicks and the
// launcher badge. The window runs in this process (the instance, owning the D-Bus name on the
// private session bus of dbus-run-session); the second process is the real program.
#include "api/serviceorigin.h"
#include "app/desktop/launchrequest.h"
#include "app/desktop/singleinstance.h"
#include "guiharness.h"
#include "localservice.h"
#include "model/appmodel.h"
#include "notificationserver.h"
#include "platform/desktopapp.h"
#include "platform/notifications.h"
#include "testdata.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusPendingCall>
#include <QDBusReply>
#include <QElapsedTimer>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <xcb/xcb.h>

#include <csignal>
#include <cstdlib>

using namespace lofthaven;
using namespace lofthaven::testing;

namespace {

constexpr int kWait = 60000;

struct Finished
{
    bool finished = false;
    int exitCode = -1;
    qint64 ms = 0;
    QByteArray errors;
};

// Collects the startup-notification messages broadcast on the root window, as a launcher's
// monitor does: pieces of 20 bytes, the first of type _NET_STARTUP_INFO_BEGIN, up to a NUL.
class StartupMessages
{
    xcb_connection_t *m_connection = xcb_connect(nullptr, nullptr);
    xcb_atom_t m_begin = atom("_NET_STARTUP_INFO_BEGIN");
    xcb_atom_t m_more = atom("_NET_STARTUP_INFO");
    QByteArray m_partial;

    xcb_atom_t atom(const char *name) const
    {
        xcb_intern_atom_reply_t *reply = xcb_intern_atom_reply(
            m_connection, xcb_intern_atom(m_connection, 0, uint16_t(qstrlen(name)), name), nullptr);
        const xcb_atom_t found = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
        std::free(reply);
        return found;
    }

public:
    QList<QByteArray> received;

    StartupMessages()
    {
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data->root;
        const uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
        xcb_change_window_attributes(m_connection, root, XCB_CW_EVENT_MASK, &mask);
        xcb_flush(m_connection);
    }
    ~StartupMessages() { xcb_disconnect(m_connection); }

    void read()
    {
        while (xcb_generic_event_t *event = xcb_poll_for_event(m_connection)) {
            if ((event->response_type & 0x7F) == XCB_CLIENT_MESSAGE) {
                const auto *message = reinterpret_cast<xcb_client_message_event_t *>(event);
                if (message->type == m_begin)
                    m_partial.clear();
                if (message->type == m_begin || message->type == m_more) {
                    const QByteArray piece(reinterpret_cast<const char *>(message->data.data8), 20);
                    const qsizetype end = piece.indexOf('\0');
                    m_partial += piece.left(end < 0 ? 20 : end);
                    if (end >= 0)
                        received.append(std::exchange(m_partial, {}));
                }
            }
            std::free(event);
        }
    }
};

} // namespace

class TestGuiShell : public QObject
{
    Q_OBJECT

    LocalService m_service;
    QTemporaryDir m_files;
    QDBusConnection m_serverBus{QString()};
    NotificationServer m_notifications;
    std::unique_ptr<DesktopShell> m_shell;
    std::unique_ptr<SingleInstance> m_instance;
    QList<QVariantList> m_badges;

    AppModel *model() const { return m_shell->model(); }

    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("LOFTHAVEN_ORIGIN"), m_service.origin());
        return env;
    }

    // Another user session: its own home, and no bus unless one is given (the local socket).
    QProcessEnvironment sessionOf(const QTemporaryDir &home, const QString &bus = {}) const
    {
        QProcessEnvironment env = environment();
        env.insert(QStringLiteral("HOME"), home.path());
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(".config"));
        env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(".local/share"));
        env.insert(QStringLiteral("XDG_CACHE_HOME"), home.filePath(".cache"));
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                   bus.isEmpty() ? QStringLiteral("unix:path=/nonexistent/lofthaven-test-bus")
                                 : bus);
        return env;
    }

    // A private session bus; its address, or an empty string when it did not start.
    static QString
    startBus(QProcess &daemon, const QString &config,
             const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment())
    {
        daemon.setProcessEnvironment(env);
        daemon.start(QStringLiteral("dbus-daemon"),
                     {QStringLiteral("--config-file=") + config,
                      QStringLiteral("--print-address=1"), QStringLiteral("--nofork")});
        if (!QTest::qWaitFor([&] { return daemon.canReadLine(); }, 10000))
            return {};
        return QString::fromUtf8(daemon.readLine()).trimmed();
    }

    // Runs the program while this process keeps answering (the event loop runs).
    static Finished run(QProcess &process, const QStringList &arguments)
    {
        process.setProgram(QStringLiteral(LOFTHAVEN_PROGRAM));
        process.setArguments(arguments);
        QElapsedTimer timer;
        timer.start();
        process.start();
        Finished result;
        result.finished =
            QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, kWait);
        result.ms = timer.elapsed();
        result.exitCode = process.exitCode();
        result.errors = process.readAllStandardError();
        return result;
    }

    Finished runHere(const QStringList &arguments, const QString &workingDirectory = {})
    {
        QProcess process;
        process.setProcessEnvironment(environment());
        process.setWorkingDirectory(workingDirectory.isEmpty() ? m_files.path() : workingDirectory);
        return run(process, arguments);
    }

    // What another program reads from the X clipboard (this process must answer it).
    static QString clipboardText()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("xclip")).isEmpty())
            return QGuiApplication::clipboard()->text();
        QProcess xclip;
        xclip.start(QStringLiteral("xclip"), {QStringLiteral("-o"), QStringLiteral("-selection"),
                                              QStringLiteral("clipboard")});
        if (!QTest::qWaitFor([&] { return xclip.state() == QProcess::NotRunning; }, 10000))
            return {};
        return QString::fromUtf8(xclip.readAllStandardOutput());
    }

    bool signIn()
    {
        model()->startSignIn();
        if (!QTest::qWaitFor(
                [this] { return !model()->signInMap().value("userCode").toString().isEmpty(); },
                kWait))
            return false;
        m_service.control("POST", QStringLiteral("/__test/device/approve"),
                          {{"userCode", model()->signInMap().value("userCode").toString()},
                           {"email", "ada@example.com"}});
        return QTest::qWaitFor([this] { return model()->signedIn(); }, kWait);
    }

    // The last launcher update as (count, count-visible); (-1, false) before any, (-2, false)
    // when it names another application.
    std::pair<qint64, bool> lastBadge() const
    {
        if (m_badges.isEmpty())
            return {-1, false};
        const QVariantList update = m_badges.constLast();
        if (update.at(0).toString() !=
            QStringLiteral("application://org.lofthaven.Lofthaven.desktop"))
            return {-2, false};
        const QVariantMap properties = update.at(1).toMap();
        return {properties.value("count").toLongLong(), properties.value("count-visible").toBool()};
    }

    // The notification titled `title` posted after the first `before` ones.
    std::optional<NotificationServer::Received> posted(const QString &title, qsizetype before)
    {
        std::optional<NotificationServer::Received> found;
        (void)QTest::qWaitFor(
            [&] {
                for (qsizetype i = before; i < m_notifications.received.size(); ++i) {
                    if (m_notifications.received.at(i).title == title) {
                        found = m_notifications.received.at(i);
                        return true;
                    }
                }
                return false;
            },
            kWait);
        return found;
    }

public Q_SLOTS:
    void badgeUpdated(const QString &application, const QVariantMap &properties)
    {
        m_badges.append({application, properties});
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QDBusConnection::sessionBus().isConnected(), "run under dbus-run-session");
        QVERIFY2(m_service.start(), qPrintable(m_service.error()));
        ServiceOrigin::setUrl(m_service.origin());
        QVERIFY(m_files.isValid());

        m_serverBus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "server");
        QVERIFY(m_serverBus.registerObject("/org/freedesktop/Notifications", &m_notifications,
                                           QDBusConnection::ExportAllSlots |
                                               QDBusConnection::ExportAllSignals));
        QVERIFY(m_serverBus.registerService("org.freedesktop.Notifications"));
        // The badge is a broadcast: listen as a dock does.
        QVERIFY(m_serverBus.connect({}, {}, QStringLiteral("com.canonical.Unity.LauncherEntry"),
                                    QStringLiteral("Update"), this,
                                    SLOT(badgeUpdated(QString, QVariantMap))));

        m_instance = std::make_unique<SingleInstance>();
        QVERIFY(m_instance->claim() == SingleInstance::Claim::Owned);
        m_shell = std::make_unique<DesktopShell>();
        QVERIFY(m_shell->open());
        QVERIFY(QTest::qWaitForWindowExposed(m_shell->window()));
        m_instance->setHandler([this](const QStringList &arguments) {
            m_shell->handleRequest(LaunchRequest::parse(arguments, QDir::root()));
        });
        QVERIFY(writeFile(m_files.filePath(QStringLiteral("a.txt")), "alpha\n"));
        QVERIFY(writeFile(m_files.filePath(QStringLiteral("b c.txt")), "bravo\n"));
    }

    void cleanupTestCase()
    {
        m_shell.reset();
        m_instance.reset();
    }

    // A second start hands over and exits at once; the window ends where the last item says.
    void secondStartHandsOver_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<AppModel::Tab>("tab");
        QTest::addColumn<QStringList>("staged");
        QTest::addColumn<QString>("receiveInput");
        const QString a = m_files.filePath(QStringLiteral("a.txt"));
        const QString b = m_files.filePath(QStringLiteral("b c.txt"));
        QTest::newRow("two files, then devices")
            << QStringList{a, b, "lofthaven://devices"} << AppModel::Tab::Devices
            << QStringList{a, b} << QString();
        QTest::newRow("devices, then a file: files first")
            << QStringList{"lofthaven://devices", a} << AppModel::Tab::Devices << QStringList{a}
            << QString();
        QTest::newRow("relative names, file URL")
            << QStringList{"b c.txt", QUrl::fromLocalFile(a).toString()} << AppModel::Tab::Send
            << QStringList{b, a} << QString();
        QTest::newRow("receive link")
            << QStringList{"lofthaven://r/482913?k=abc"} << AppModel::Tab::Receive << QStringList()
            << QStringLiteral("lofthaven://r/482913?k=abc");
        QTest::newRow("no host") << QStringList{"lofthaven:482913"} << AppModel::Tab::Receive
                                 << QStringList() << QStringLiteral("lofthaven:482913");
        QTest::newRow("send, then devices")
            << QStringList{"lofthaven://send", "lofthaven://devices"} << AppModel::Tab::Devices
            << QStringList() << QString();
        QTest::newRow("other schemes are not ours")
            << QStringList{"lofthaven://send", "https://example.com/r/482913"}
            << AppModel::Tab::Send << QStringList() << QString();
        QTest::newRow("receive option")
            << QStringList{"--receive"} << AppModel::Tab::Receive << QStringList() << QString();
    }
    void secondStartHandsOver()
    {
        QFETCH(QStringList, arguments);
        QFETCH(AppModel::Tab, tab);
        QFETCH(QStringList, staged);
        QFETCH(QString, receiveInput);
        model()->clearStaged();
        model()->setReceiveInput({});
        model()->setTab(AppModel::Tab::History);
        m_shell->window()->hide();

        const Finished second = runHere(arguments);
        QVERIFY(second.finished);
        QVERIFY2(second.exitCode == 0, second.errors.constData());
        qInfo("handed over in %lld ms", static_cast<long long>(second.ms));
        QVERIFY2(second.ms < 10000, "the second process did not exit at once");
        QCOMPARE(model()->staged(), staged);
        QCOMPARE(model()->tab(), tab);
        QCOMPARE(model()->receiveInput(), receiveInput);
        QVERIFY(m_shell->window()->isVisible());
    }

    // "Get Lofthaven Link": the running window sends, the link lands on the clipboard and a
    // notification says so, with the window hidden and nothing staged.
    void getLinkCopiesTheLink()
    {
        QVERIFY(
            writeFile(m_files.filePath(QStringLiteral("report.pdf")), randomBytes(200 * 1024, 3)));
        model()->clearStaged();
        m_shell->window()->hide();
        QGuiApplication::clipboard()->setText(QStringLiteral("before"));
        const qsizetype before = m_notifications.received.size();

        const Finished second = runHere({"--get-link", "report.pdf"});
        QVERIFY(second.finished);
        QCOMPARE(second.exitCode, 0);
        const auto copied = posted(QStringLiteral("Link copied"), before);
        QVERIFY(copied);
        QVERIFY2(copied->body.startsWith(QStringLiteral("report.pdf · ")),
                 qPrintable(copied->body));

        SendJob *job = model()->jobs()->rowCount() > 0 ? model()->jobs()->at(0) : nullptr;
        QVERIFY(job);
        QCOMPARE(job->origin(), SendJob::Origin::Service);
        QCOMPARE(job->toSelf(), false);
        QCOMPARE(job->state(), SendJob::State::Done);
        const QString link = clipboardText();
        QVERIFY2(link.startsWith(m_service.origin()), qPrintable(link));
        QVERIFY(copied->body.contains(link));
        QVERIFY(model()->staged().isEmpty());
        QVERIFY(!m_shell->window()->isVisible());
    }

    void getLinkWithNothingReadable()
    {
        const qsizetype before = m_notifications.received.size();
        const Finished second = runHere({"--get-link", m_files.filePath("missing.pdf")});
        QCOMPARE(second.exitCode, 0);
        QVERIFY(posted(QStringLiteral("No files were selected."), before));
        QCOMPARE(model()->notice(), QStringLiteral("No files were selected."));
        model()->clearNotice();

        // With no instance to hand it to, the program says so itself and fails.
        QTemporaryDir otherHome;
        QProcess alone;
        const QProcessEnvironment env = sessionOf(otherHome);
        alone.setProcessEnvironment(env);
        const Finished first = run(alone, {"--get-link", m_files.filePath("missing.pdf")});
        QCOMPARE(first.exitCode, 1);
        QVERIFY2(first.errors.contains("No files were selected."), first.errors.constData());
    }

    // Started by the file manager with nothing running and no tray: the process serves the
    // copied link until something else is copied, then ends.
    void getLinkAloneKeepsTheLinkUntilReplaced()
    {
        QVERIFY(
            writeFile(m_files.filePath(QStringLiteral("alone.pdf")), randomBytes(100 * 1024, 5)));
        QTemporaryDir home;
        const QProcessEnvironment env = sessionOf(home);
        QProcess alone;
        alone.setProcessEnvironment(env);
        alone.setWorkingDirectory(m_files.path());
        alone.start(QStringLiteral(LOFTHAVEN_PROGRAM),
                    {QStringLiteral("--get-link"), QStringLiteral("alone.pdf")});
        QVERIFY(
            QTest::qWaitFor([&] { return clipboardText().startsWith(m_service.origin()); }, kWait));
        QTest::qWait(1000);
        QCOMPARE(alone.state(), QProcess::Running);

        QProcess other;
        other.start(QStringLiteral("xclip"),
                    {QStringLiteral("-i"), QStringLiteral("-selection"),
                     QStringLiteral("clipboard"), QStringLiteral("-loops"), QStringLiteral("1")});
        other.write("other");
        other.closeWriteChannel();
        QVERIFY2(QTest::qWaitFor([&] { return alone.state() == QProcess::NotRunning; }, 15000),
                 "still running after the clipboard changed hands");
        QCOMPARE(alone.exitCode(), 0);
        QCOMPARE(clipboardText(), QStringLiteral("other"));
        other.waitForFinished(5000);
    }

    void sendToDevicesSignedOut()
    {
        QVERIFY(!model()->signedIn());
        model()->setTab(AppModel::Tab::Send);
        m_shell->window()->hide();
        const int jobs = model()->jobs()->rowCount();
        const qsizetype before = m_notifications.received.size();

        const Finished second = runHere({"--send-to-devices", "a.txt"});
        QCOMPARE(second.exitCode, 0);
        const auto signIn = posted(QStringLiteral("Sign in to send to your devices"), before);
        QVERIFY(signIn);
        QCOMPARE(signIn->body, QStringLiteral("Open Lofthaven and sign in, then try again."));
        QCOMPARE(model()->tab(), AppModel::Tab::Devices);
        QVERIFY(m_shell->window()->isVisible());
        QCOMPARE(model()->jobs()->rowCount(), jobs);
    }

    // Signed in, a file sent to the devices shows as one new item on the launcher; seeing it or
    // signing out clears the badge.
    void launcherBadge()
    {
        // On Devices in an active window new items count as seen at once.
        model()->setTab(AppModel::Tab::History);
        QVERIFY(signIn());
        // The first answer after the first sign-in only marks what is there as known.
        QTRY_VERIFY_WITH_TIMEOUT(boolPreference(Preference::InboxSeeded), kWait);
        const Finished second = runHere({"--send-to-devices", "a.txt"});
        QCOMPARE(second.exitCode, 0);
        QTRY_VERIFY_WITH_TIMEOUT(model()->jobs()->rowCount() > 0 &&
                                     model()->jobs()->at(0)->toSelf() &&
                                     !model()->jobs()->at(0)->isActive(),
                                 kWait);
        QCOMPARE(model()->jobs()->at(0)->state(), SendJob::State::Done);
        model()->refreshInbox(true);
        QTRY_COMPARE_WITH_TIMEOUT(lastBadge(), std::make_pair(qint64(1), true), kWait);

        model()->signOut();
        QTRY_COMPARE_WITH_TIMEOUT(lastBadge(), std::make_pair(qint64(0), false), kWait);

        QVERIFY(signIn());
        model()->refreshInbox(true);
        QTRY_COMPARE_WITH_TIMEOUT(lastBadge(), std::make_pair(qint64(1), true), kWait);

        model()->markInboxSeen();
        QTRY_COMPARE_WITH_TIMEOUT(lastBadge(), std::make_pair(qint64(0), false), kWait);
    }

    // The four answers to an inbox notification (still signed in, with one inbox item).
    void notificationResponses_data()
    {
        QTest::addColumn<QString>("action");
        QTest::addColumn<bool>("withTransfer");
        QTest::addColumn<AppModel::Tab>("tab");
        QTest::addColumn<bool>("downloads");
        QTest::addColumn<bool>("shown");
        const QString download = QString::fromLatin1(kDownloadAction);
        const QString click = QString::fromLatin1(kDefaultAction);
        QTest::newRow("Download, no transfer")
            << download << false << AppModel::Tab::History << false << true;
        QTest::newRow("click, transfer")
            << click << true << AppModel::Tab::Devices << false << true;
        QTest::newRow("click, no transfer")
            << click << false << AppModel::Tab::History << false << true;
        // Last: the download it starts stays.
        QTest::newRow("Download, transfer")
            << download << true << AppModel::Tab::History << true << false;
    }
    void notificationResponses()
    {
        QFETCH(QString, action);
        QFETCH(bool, withTransfer);
        QFETCH(AppModel::Tab, tab);
        QFETCH(bool, downloads);
        QFETCH(bool, shown);
        QVERIFY(model()->signedIn());
        QVERIFY(!model()->inbox()->items().isEmpty());
        const QString id = model()->inbox()->items().constFirst().id;
        model()->setTab(AppModel::Tab::History);
        m_shell->window()->hide();

        const qsizetype before = m_notifications.received.size();
        const QString title = QString::fromLatin1(QTest::currentDataTag());
        postNotification(title, QStringLiteral("a.txt"),
                         withTransfer ? std::optional<QString>(id) : std::nullopt, true);
        const auto shownNotification = posted(title, before);
        QVERIFY(shownNotification);
        QVERIFY(shownNotification->actions.contains(QString::fromLatin1(kDownloadAction)));
        Q_EMIT m_notifications.ActionInvoked(shownNotification->id, action);

        if (downloads) {
            QTRY_VERIFY_WITH_TIMEOUT(model()->downloads()->find(id), kWait);
        } else {
            QTRY_COMPARE(m_shell->window()->isVisible(), shown);
            QTest::qWait(200);
            QVERIFY(!model()->downloads()->find(id));
        }
        QCOMPARE(model()->tab(), tab);
        QCOMPARE(m_shell->window()->isVisible(), shown);
    }

    // A start from a launcher hands its startup id over; the running instance ends the launch,
    // so the launcher's busy cursor stops at once instead of timing out.
    void launchFeedbackEnds_data()
    {
        QTest::addColumn<QString>("startupId");
        QTest::addColumn<QByteArray>("message");
        QTest::newRow("plain") << QStringLiteral("gnome-shell-1234-host-lofthaven-1_TIME42")
                               << QByteArray("remove: ID=gnome-shell-1234-host-lofthaven-1_TIME42");
        QTest::newRow("escaped") << QStringLiteral("launcher \"a b\"\\c_TIME7")
                                 << QByteArray("remove: ID=launcher\\ \\\"a\\ b\\\"\\\\c_TIME7");
    }
    void launchFeedbackEnds()
    {
        QFETCH(QString, startupId);
        QFETCH(QByteArray, message);
        StartupMessages messages;
        QProcess second;
        QProcessEnvironment env = environment();
        env.insert(QStringLiteral("DESKTOP_STARTUP_ID"), startupId);
        second.setProcessEnvironment(env);
        const Finished handed = run(second, {QStringLiteral("--receive")});
        QVERIFY2(handed.exitCode == 0, handed.errors.constData());
        QVERIFY(QTest::qWaitFor(
            [&] {
                messages.read();
                return messages.received.contains(message);
            },
            10000));
        QCOMPARE(model()->tab(), AppModel::Tab::Receive);
    }

    // Launchers reach the running instance through org.freedesktop.Application.
    void applicationInterface_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QVariantList>("arguments");
        QTest::addColumn<AppModel::Tab>("tab");
        QTest::addColumn<QStringList>("staged");
        QTest::addColumn<bool>("shown");
        const QString a = m_files.filePath(QStringLiteral("a.txt"));
        const QVariantMap token{{QStringLiteral("desktop-startup-id"), QStringLiteral("x_TIME1")}};
        QTest::newRow("activate") << QStringLiteral("Activate") << QVariantList{token}
                                  << AppModel::Tab::History << QStringList() << true;
        QTest::newRow("open a file and the devices link")
            << QStringLiteral("Open")
            << QVariantList{QStringList{QUrl::fromLocalFile(a).toString(), "lofthaven://devices"},
                            QVariantMap()}
            << AppModel::Tab::Devices << QStringList{a} << true;
        QTest::newRow("open: relative names and other schemes are not taken")
            << QStringLiteral("Open")
            << QVariantList{QStringList{"a.txt", "https://example.com/"}, QVariantMap()}
            << AppModel::Tab::History << QStringList() << false;
        QTest::newRow("the receive action")
            << QStringLiteral("ActivateAction") << QVariantList{"receive", QVariantList(), token}
            << AppModel::Tab::Receive << QStringList() << true;
        QTest::newRow("an action we do not have")
            << QStringLiteral("ActivateAction")
            << QVariantList{"quit", QVariantList(), QVariantMap()} << AppModel::Tab::History
            << QStringList() << false;
    }
    void applicationInterface()
    {
        QFETCH(QString, method);
        QFETCH(QVariantList, arguments);
        QFETCH(AppModel::Tab, tab);
        QFETCH(QStringList, staged);
        QFETCH(bool, shown);
        model()->clearStaged();
        model()->setTab(AppModel::Tab::History);
        m_shell->window()->hide();

        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.lofthaven.Lofthaven"), QStringLiteral("/org/lofthaven/Lofthaven"),
            QStringLiteral("org.freedesktop.Application"), method);
        call.setArguments(arguments);
        // From another connection, answered by this process's event loop.
        QDBusPendingCall pending = m_serverBus.asyncCall(call);
        QVERIFY(QTest::qWaitFor([&] { return pending.isFinished(); }, kWait));
        QVERIFY2(!pending.isError(), qPrintable(pending.error().message()));
        QCOMPARE(model()->tab(), tab);
        QCOMPARE(model()->staged(), staged);
        QCOMPARE(m_shell->window()->isVisible(), shown);
    }

    // With nothing running, the desktop entry's Activate starts Lofthaven through the bus (the
    // packaged D-Bus service file), which then answers the call.
    void startedByTheBus()
    {
        QTemporaryDir home;
        QFile config(home.filePath(QStringLiteral("bus.conf")));
        QFile bare(QStringLiteral(LOFTHAVEN_SOURCE_DIR "/tests/support/bare-session-bus.conf"));
        QVERIFY(bare.open(QIODevice::ReadOnly) && config.open(QIODevice::WriteOnly));
        config.write(bare.readAll().replace("</busconfig>",
                                            "  <servicedir>" LOFTHAVEN_TEST_DBUS_SERVICES
                                            "</servicedir>\n</busconfig>"));
        config.close();
        QProcess daemon;
        const QString address = startBus(daemon, config.fileName(), sessionOf(home));
        QVERIFY(!address.isEmpty());
        QDBusConnection bus = QDBusConnection::connectToBus(address, QStringLiteral("activation"));
        QVERIFY(bus.isConnected());

        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.lofthaven.Lofthaven"), QStringLiteral("/org/lofthaven/Lofthaven"),
            QStringLiteral("org.freedesktop.Application"), QStringLiteral("Activate"));
        call << QVariantMap();
        QDBusPendingCall pending = bus.asyncCall(call, kWait);
        QVERIFY(QTest::qWaitFor([&] { return pending.isFinished(); }, kWait));
        QVERIFY2(!pending.isError(), qPrintable(pending.error().message()));
        const QDBusReply<uint> pid =
            bus.interface()->servicePid(QStringLiteral("org.lofthaven.Lofthaven"));
        QVERIFY(pid.isValid());

        ::kill(pid_t(pid.value()), SIGTERM);
        QVERIFY(QTest::qWaitFor(
            [&] { return !bus.interface()->isServiceRegistered("org.lofthaven.Lofthaven"); },
            kWait));
        QDBusConnection::disconnectFromBus(QStringLiteral("activation"));
        daemon.kill();
        daemon.waitForFinished();
    }

    // Two programs started at the same moment, with and without a session bus: one stays, the
    // other hands over and exits 0, and a third start reaches the one that stayed.
    void twoStartsAtOnce_data()
    {
        QTest::addColumn<bool>("bus");
        QTest::newRow("session bus") << true;
        QTest::newRow("local socket") << false;
    }
    void twoStartsAtOnce()
    {
        QFETCH(bool, bus);
        QTemporaryDir home;
        QProcess daemon;
        QString address;
        if (bus) {
            address = startBus(daemon, QStringLiteral(LOFTHAVEN_SOURCE_DIR
                                                      "/tests/support/bare-session-bus.conf"));
            QVERIFY(!address.isEmpty());
        }
        const QProcessEnvironment env = sessionOf(home, address);

        QProcess first;
        QProcess second;
        for (QProcess *process : {&first, &second}) {
            process->setProcessEnvironment(env);
            process->setProgram(QStringLiteral(LOFTHAVEN_PROGRAM));
            process->setArguments({QStringLiteral("--background")});
        }
        first.start();
        second.start();
        const auto done = [](const QProcess &p) { return p.state() == QProcess::NotRunning; };
        QVERIFY(QTest::qWaitFor([&] { return done(first) || done(second); }, kWait));
        QTest::qWait(1500);
        QVERIFY2(done(first) != done(second), "not exactly one instance");
        QProcess &stayed = done(first) ? second : first;
        QProcess &left = done(first) ? first : second;
        QCOMPARE(left.exitStatus(), QProcess::NormalExit);
        QVERIFY2(left.exitCode() == 0, left.readAllStandardError().constData());

        QProcess third;
        third.setProcessEnvironment(env);
        const Finished handed = run(third, {QStringLiteral("--background")});
        QVERIFY2(handed.exitCode == 0, handed.errors.constData());
        QVERIFY(!done(stayed));

        stayed.kill();
        stayed.waitForFinished();
        if (bus) {
            daemon.kill();
            daemon.waitForFinished();
        }
    }
};

int main(int argc, char *argv[])
{
    // The private bus of dbus-run-session, kept past the isolated home's own setting.
    const QByteArray bus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    lofthaven::testing::IsolatedHome home;
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus);
    lofthaven::setDesktopApp(true);
    QGuiApplication app(argc, argv);
    lofthaven::DesktopShell::setUpApplication();
    lofthaven::registerDefaultSettings();
    lofthaven::testing::OpenedUrls opened;
    TestGuiShell test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_gui_shell.moc"
